// kvaecechoprobe: pass-through element of the playback branch. Records what
// it lets through, mixed to mono and converted to 16 kHz, into a ring indexed
// by play position (running time + pipeline latency, 16 kHz samples), where
// kvaecdsp reads the echo reference for each microphone frame.
//
// Placement: every buffer's position comes from its timestamp. A buffer that
// continues the previous one (within one sample) is appended; a small gap is
// filled with silence, a small overlap is trimmed, and a jump of more than a
// second (seek, new segment, restarted source) re-anchors the ring. The
// converter's delay (fixed, see kvaec_resample.h) is taken off, so ring position p holds
// the far end played at p.
#include "kvaec_probe.h"

#include "kvaec_resample.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>

GST_DEBUG_CATEGORY(kvaec_gst_debug);
#define GST_CAT_DEFAULT kvaec_gst_debug

struct _GstKvaecEchoProbe {
    GstAudioFilter parent;

    GMutex lock;
    GCond cond;
    KvaecFarRing *ring;

    // Streaming thread only.
    KvaecResampler *rs;
    int rate, channels;
    GstAudioFormat format;
    int64_t in_next;       // play position of the next input sample, input-rate samples
    bool live_known;
    std::vector<float> *mono, *out16;

    GstClockTime latency;  // from the LATENCY event, under the lock
    bool gave_up;          // under the lock: stopped waiting for a stuck reader at gave_up_pos
    int64_t gave_up_pos;
};

G_DEFINE_TYPE(GstKvaecEchoProbe, gst_kvaec_echo_probe, GST_TYPE_AUDIO_FILTER)

namespace {

GMutex g_registry_lock;
GList *g_registry = nullptr;

void registry_add(GstKvaecEchoProbe *p) {
    g_mutex_lock(&g_registry_lock);
    if (!g_list_find(g_registry, p)) g_registry = g_list_prepend(g_registry, p);
    g_mutex_unlock(&g_registry_lock);
}

void registry_remove(GstKvaecEchoProbe *p) {
    g_mutex_lock(&g_registry_lock);
    g_registry = g_list_remove(g_registry, p);
    g_mutex_unlock(&g_registry_lock);
}

#define CAPS_STR                                                     \
    "audio/x-raw, format = (string) { F32LE, S16LE }, "              \
    "rate = (int) [ 8000, 96000 ], channels = (int) [ 1, 8 ], "      \
    "layout = (string) interleaved"

}  // namespace

GstKvaecEchoProbe *kvaec_probe_find(const char *name) {
    GstKvaecEchoProbe *found = nullptr;
    if (name == nullptr) return nullptr;
    g_mutex_lock(&g_registry_lock);
    for (GList *l = g_registry; l != nullptr; l = l->next) {
        GstKvaecEchoProbe *p = GST_KVAEC_ECHO_PROBE(l->data);
        gchar *n = gst_object_get_name(GST_OBJECT(p));
        const bool match = n != nullptr && std::strcmp(n, name) == 0;
        g_free(n);
        if (match) {
            found = GST_KVAEC_ECHO_PROBE(gst_object_ref(p));
            break;
        }
    }
    g_mutex_unlock(&g_registry_lock);
    return found;
}

GMutex *kvaec_probe_lock(GstKvaecEchoProbe *probe) { return &probe->lock; }
GCond *kvaec_probe_cond(GstKvaecEchoProbe *probe) { return &probe->cond; }
KvaecFarRing *kvaec_probe_ring(GstKvaecEchoProbe *probe) { return probe->ring; }

namespace {

// Lock held. Moves the end of the ring to `pos`: silence over a gap, the
// window restarted after a backward or very long jump.
void ring_seek(KvaecFarRing *r, int64_t pos) {
    if (!r->anchored || pos < r->end || pos - r->end >= KvaecFarRing::kSize) {
        std::fill(r->buf.begin(), r->buf.end(), 0.0f);
        r->start = r->end = pos;
        r->anchored = true;
        r->generation++;
        return;
    }
    for (int64_t p = r->end; p < pos; ++p) r->buf[static_cast<size_t>(p & (KvaecFarRing::kSize - 1))] = 0.0f;
    r->end = pos;
    r->start = std::max(r->start, r->end - KvaecFarRing::kSize);
}

// Feeds `n` input-rate samples (nullptr: silence) through the converter and
// appends the result to the ring. Lock not held on entry.
void feed(GstKvaecEchoProbe *self, const float *x, int64_t n) {
    std::vector<float> &out = *self->out16;
    while (n > 0) {
        const int64_t chunk = std::min<int64_t>(n, 512);
        uint32_t in_len = static_cast<uint32_t>(chunk);
        uint32_t out_len = static_cast<uint32_t>(out.size());
        self->rs->process(x, &in_len, out.data(), &out_len);
        if (x != nullptr) x += in_len;
        n -= in_len;
        self->in_next += in_len;

        g_mutex_lock(&self->lock);
        KvaecFarRing *r = self->ring;
        // Non-live: wait rather than overwrite what the reader still needs;
        // give up after two seconds without progress (the reader is stuck).
        // After giving up, wait again only once the reader has moved.
        if (!r->live && !(self->gave_up && r->reader_pos == self->gave_up_pos)) {
            self->gave_up = false;
            int64_t last_pos = r->reader_pos;
            gint64 deadline = g_get_monotonic_time() + 2 * G_TIME_SPAN_SECOND;
            while (r->reader && !r->flushing && r->active &&
                   r->end + static_cast<int64_t>(out_len) - r->reader_pos > KvaecFarRing::kSize - 4096) {
                if (!g_cond_wait_until(&self->cond, &self->lock, deadline)) {
                    if (r->reader_pos == last_pos) {
                        GST_DEBUG_OBJECT(self, "reader stuck at %" G_GINT64_FORMAT ": overwriting", last_pos);
                        self->gave_up = true;
                        self->gave_up_pos = last_pos;
                        break;
                    }
                    last_pos = r->reader_pos;
                    deadline = g_get_monotonic_time() + 2 * G_TIME_SPAN_SECOND;
                }
            }
        }
        // Into the ring in at most two contiguous pieces (it wraps once).
        {
            const size_t at = static_cast<size_t>(r->end & (KvaecFarRing::kSize - 1));
            const size_t first = std::min<size_t>(out_len, static_cast<size_t>(KvaecFarRing::kSize) - at);
            std::memcpy(r->buf.data() + at, out.data(), first * sizeof(float));
            std::memcpy(r->buf.data(), out.data() + first, (out_len - first) * sizeof(float));
        }
        r->end += out_len;
        r->start = std::max(r->start, r->end - KvaecFarRing::kSize);
        g_cond_broadcast(&self->cond);
        g_mutex_unlock(&self->lock);
    }
}

gboolean probe_setup(GstAudioFilter *filter, const GstAudioInfo *info) {
    GstKvaecEchoProbe *self = GST_KVAEC_ECHO_PROBE(filter);
    self->rate = GST_AUDIO_INFO_RATE(info);
    self->channels = GST_AUDIO_INFO_CHANNELS(info);
    self->format = GST_AUDIO_INFO_FORMAT(info);
    const char *err = "";
    if (!self->rs->init(self->rate, kKvaecRate, &err)) {
        GST_ELEMENT_ERROR(self, CORE, NEGOTIATION, ("resampler: %s", err), (nullptr));
        return FALSE;
    }
    self->out16->assign(512 * kKvaecRate / 8000 + 64, 0.0f);
    g_mutex_lock(&self->lock);
    self->ring->anchored = false;  // re-anchored by the next buffer
    g_mutex_unlock(&self->lock);
    GST_INFO_OBJECT(self, "far end %d Hz, %d channel(s), %s; converter (%s) delay %d samples", self->rate,
                    self->channels, gst_audio_format_to_string(self->format), self->rs->kind(),
                    self->rs->input_latency());
    return TRUE;
}

GstFlowReturn probe_transform_ip(GstBaseTransform *bt, GstBuffer *buf) {
    GstKvaecEchoProbe *self = GST_KVAEC_ECHO_PROBE(bt);
    if (!self->rs->ready()) return GST_FLOW_NOT_NEGOTIATED;
    if (!self->live_known) {
        GstQuery *q = gst_query_new_latency();
        gboolean live = FALSE;
        if (gst_pad_peer_query(GST_BASE_TRANSFORM_SINK_PAD(bt), q)) gst_query_parse_latency(q, &live, nullptr, nullptr);
        gst_query_unref(q);
        g_mutex_lock(&self->lock);
        self->ring->live = live;
        g_mutex_unlock(&self->lock);
        self->live_known = true;
    }
    GstMapInfo map;
    if (!gst_buffer_map(buf, &map, GST_MAP_READ)) return GST_FLOW_ERROR;
    const int C = self->channels;
    const int bps = self->format == GST_AUDIO_FORMAT_S16LE ? 2 : 4;
    int64_t n = static_cast<int64_t>(map.size / static_cast<gsize>(C * bps));
    std::vector<float> &mono = *self->mono;
    mono.resize(static_cast<size_t>(n));
    const float g = 1.0f / static_cast<float>(C);
    if (bps == 2) {
        const int16_t *s = reinterpret_cast<const int16_t *>(map.data);
        for (int64_t i = 0; i < n; ++i) {
            int32_t acc = 0;
            for (int c = 0; c < C; ++c) acc += s[i * C + c];
            mono[static_cast<size_t>(i)] = static_cast<float>(acc) * (g / 32768.0f);
        }
    } else {
        // Non-finite samples count as silence (a compare and a select, so
        // the common layouts vectorise).
        const float *s = reinterpret_cast<const float *>(map.data);
        float *d = mono.data();
        auto finite = [](float v) { return std::fabs(v) <= FLT_MAX ? v : 0.0f; };
        if (C == 1) {
            for (int64_t i = 0; i < n; ++i) d[i] = finite(s[i]);
        } else if (C == 2) {
            for (int64_t i = 0; i < n; ++i) d[i] = (finite(s[2 * i]) + finite(s[2 * i + 1])) * g;
        } else {
            for (int64_t i = 0; i < n; ++i) {
                float acc = 0.0f;
                for (int c = 0; c < C; ++c) acc += finite(s[i * C + c]);
                d[i] = acc * g;
            }
        }
    }
    gst_buffer_unmap(buf, &map);

    // Play position of the buffer's first sample.
    const GstClockTime pts = GST_BUFFER_PTS(buf);
    const GstClockTime rt = GST_CLOCK_TIME_IS_VALID(pts)
                                ? gst_segment_to_running_time(&bt->segment, GST_FORMAT_TIME, pts)
                                : GST_CLOCK_TIME_NONE;
    g_mutex_lock(&self->lock);
    const GstClockTime latency = self->latency;
    const bool anchored = self->ring->anchored;
    g_mutex_unlock(&self->lock);
    int64_t offset = 0;  // input samples to skip (overlap)
    if (GST_CLOCK_TIME_IS_VALID(rt) || !anchored) {
        const GstClockTime play = (GST_CLOCK_TIME_IS_VALID(rt) ? rt : 0) + latency;
        const int64_t p = static_cast<int64_t>(gst_util_uint64_scale_round(play, static_cast<guint64>(self->rate), GST_SECOND));
        const int64_t diff = p - self->in_next;
        if (!anchored || diff > self->rate || diff < -self->rate) {
            // (Re-)anchor: ring position of the converter's output j is
            // p * 16000 / rate - delay + j.
            self->rs->reset();
            self->in_next = p;
            const double delay16 = static_cast<double>(self->rs->input_latency()) * kKvaecRate / self->rate;
            const int64_t pos = std::llround(static_cast<double>(p) * kKvaecRate / self->rate - delay16);
            g_mutex_lock(&self->lock);
            ring_seek(self->ring, pos);
            g_mutex_unlock(&self->lock);
            GST_DEBUG_OBJECT(self, "anchored at play position %" G_GINT64_FORMAT " (16 kHz %" G_GINT64_FORMAT ")", p, pos);
        } else if (diff > 1) {
            feed(self, nullptr, diff);  // gap: silence
        } else if (diff < -1) {
            offset = std::min<int64_t>(-diff, n);  // overlap: trimmed
        }
    }
    if (n > offset) feed(self, mono.data() + offset, n - offset);
    return GST_FLOW_OK;
}

gboolean probe_sink_event(GstBaseTransform *bt, GstEvent *event) {
    GstKvaecEchoProbe *self = GST_KVAEC_ECHO_PROBE(bt);
    switch (GST_EVENT_TYPE(event)) {
    case GST_EVENT_EOS:
        g_mutex_lock(&self->lock);
        self->ring->eos = true;
        g_cond_broadcast(&self->cond);
        g_mutex_unlock(&self->lock);
        break;
    case GST_EVENT_FLUSH_START:
        g_mutex_lock(&self->lock);
        self->ring->flushing = true;
        g_cond_broadcast(&self->cond);
        g_mutex_unlock(&self->lock);
        break;
    case GST_EVENT_FLUSH_STOP:
    case GST_EVENT_STREAM_START:
        g_mutex_lock(&self->lock);
        if (GST_EVENT_TYPE(event) == GST_EVENT_FLUSH_STOP) {
            self->ring->flushing = false;
            self->ring->anchored = false;
        }
        self->ring->eos = false;
        g_cond_broadcast(&self->cond);
        g_mutex_unlock(&self->lock);
        break;
    default:
        break;
    }
    return GST_BASE_TRANSFORM_CLASS(gst_kvaec_echo_probe_parent_class)->sink_event(bt, event);
}

gboolean probe_src_event(GstBaseTransform *bt, GstEvent *event) {
    GstKvaecEchoProbe *self = GST_KVAEC_ECHO_PROBE(bt);
    if (GST_EVENT_TYPE(event) == GST_EVENT_LATENCY) {
        GstClockTime latency = 0;
        gst_event_parse_latency(event, &latency);
        g_mutex_lock(&self->lock);
        self->latency = latency;
        g_mutex_unlock(&self->lock);
        GST_INFO_OBJECT(self, "pipeline latency %" GST_TIME_FORMAT ": far end placed at running time + latency",
                        GST_TIME_ARGS(latency));
    }
    return GST_BASE_TRANSFORM_CLASS(gst_kvaec_echo_probe_parent_class)->src_event(bt, event);
}

gboolean probe_start(GstBaseTransform *bt) {
    GstKvaecEchoProbe *self = GST_KVAEC_ECHO_PROBE(bt);
    registry_add(self);
    g_mutex_lock(&self->lock);
    KvaecFarRing *r = self->ring;
    r->active = true;
    r->gone = false;
    r->eos = false;
    r->flushing = false;
    r->anchored = false;
    r->live = false;
    self->latency = 0;
    g_cond_broadcast(&self->cond);
    g_mutex_unlock(&self->lock);
    self->live_known = false;
    self->in_next = 0;
    return TRUE;
}

gboolean probe_stop(GstBaseTransform *bt) {
    GstKvaecEchoProbe *self = GST_KVAEC_ECHO_PROBE(bt);
    // Out of the registry first, so no dsp finds it again, then readers that
    // hold a reference let go of it.
    registry_remove(self);
    g_mutex_lock(&self->lock);
    self->ring->active = false;
    self->ring->gone = true;
    g_cond_broadcast(&self->cond);
    g_mutex_unlock(&self->lock);
    return TRUE;
}

GstStateChangeReturn probe_change_state(GstElement *element, GstStateChange transition) {
    GstKvaecEchoProbe *self = GST_KVAEC_ECHO_PROBE(element);
    if (transition == GST_STATE_CHANGE_PAUSED_TO_READY) {
        // A chain function waiting for the reader returns before the pads
        // are deactivated.
        g_mutex_lock(&self->lock);
        self->ring->active = false;
        g_cond_broadcast(&self->cond);
        g_mutex_unlock(&self->lock);
    }
    return GST_ELEMENT_CLASS(gst_kvaec_echo_probe_parent_class)->change_state(element, transition);
}

void probe_dispose(GObject *object) {
    registry_remove(GST_KVAEC_ECHO_PROBE(object));
    G_OBJECT_CLASS(gst_kvaec_echo_probe_parent_class)->dispose(object);
}

void probe_finalize(GObject *object) {
    GstKvaecEchoProbe *self = GST_KVAEC_ECHO_PROBE(object);
    delete self->rs;
    delete self->ring;
    delete self->mono;
    delete self->out16;
    g_mutex_clear(&self->lock);
    g_cond_clear(&self->cond);
    G_OBJECT_CLASS(gst_kvaec_echo_probe_parent_class)->finalize(object);
}

}  // namespace

static void gst_kvaec_echo_probe_class_init(GstKvaecEchoProbeClass *klass) {
    GObjectClass *oc = G_OBJECT_CLASS(klass);
    GstElementClass *ec = GST_ELEMENT_CLASS(klass);
    GstBaseTransformClass *bc = GST_BASE_TRANSFORM_CLASS(klass);
    GstAudioFilterClass *ac = GST_AUDIO_FILTER_CLASS(klass);
    oc->dispose = probe_dispose;
    oc->finalize = probe_finalize;
    ec->change_state = probe_change_state;
    gst_element_class_set_static_metadata(
        ec, "Echo reference probe (kvaec)", "Generic/Audio",
        "Records the far-end signal that is played, for kvaecdsp's echo canceller; passes it through unchanged",
        "libkvaec developers");
    GstCaps *caps = gst_caps_from_string(CAPS_STR);
    gst_audio_filter_class_add_pad_templates(ac, caps);
    gst_caps_unref(caps);
    bc->passthrough_on_same_caps = TRUE;
    bc->transform_ip_on_passthrough = TRUE;
    bc->transform_ip = probe_transform_ip;
    bc->sink_event = probe_sink_event;
    bc->src_event = probe_src_event;
    bc->start = probe_start;
    bc->stop = probe_stop;
    ac->setup = probe_setup;
}

static void gst_kvaec_echo_probe_init(GstKvaecEchoProbe *self) {
    g_mutex_init(&self->lock);
    g_cond_init(&self->cond);
    self->ring = new KvaecFarRing();
    self->mono = new std::vector<float>();
    self->out16 = new std::vector<float>();
    self->rs = new KvaecResampler();
    self->rate = 48000;
    self->channels = 1;
    self->format = GST_AUDIO_FORMAT_F32LE;
    self->in_next = 0;
    self->live_known = false;
    self->latency = 0;
    self->gave_up = false;
    self->gave_up_pos = 0;
    gst_base_transform_set_passthrough(GST_BASE_TRANSFORM(self), TRUE);
    gst_base_transform_set_in_place(GST_BASE_TRANSFORM(self), TRUE);
    // Findable by name from creation on: the two branches of a pipeline
    // change state in no fixed order, so the dsp may start first.
    registry_add(self);
}
