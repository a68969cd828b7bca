// kvaecdsp: echo canceller of the capture branch, around libkvaec.
//
// Signal path: the microphone (one channel, or the mean of all) is converted
// to 16 kHz by a converter of fixed delay (kvaec_resample.h) and cut into 10 ms
// frames.
// For each frame the echo reference is read from the probe's ring at the
// frame's capture position plus the lead the library's alignment rule asks
// for (kvaec_align_shift with the known echo delay: `echo-delay` plus the
// automatic estimate). The send output is converted back to the input rate
// and written to every output channel in the input's format.
//
// The output is band-limited to 8 kHz: the canceller works at 16 kHz, so
// nothing above 8 kHz reaches it, and passing the microphone's upper band
// around it would pass the echo in that band uncancelled.
//
// Timing: the output is sample-aligned with the input. The processing delay
// (converter delays + the library's send-path delay) is taken off by
// dropping the first processed samples, and at EOS (or a discontinuity of the
// input) the pending samples are flushed with silence, so every output buffer
// carries the processed input of the same timestamps and the total length
// equals the input's. The latency this costs is reported in the LATENCY
// query: 10 ms framing + converter delays + library send delay + the lead
// the reference is read ahead of the microphone.
//
// Read position of the reference: advances by one frame per frame; when the
// capture timestamps and the sample count drift apart (two clocks) it moves
// toward the timestamps' position by at most a quarter sample per frame,
// reading between samples through an interpolator (every whole sample moved
// is counted as a slipped sample), so the echo path the canceller sees stays
// still; a jump of more than 20 ms (a real discontinuity) re-synchronises it
// (counted). It is never re-derived from scratch per frame.
//
// Echo delay: `echo-delay` (ms) plus, with `auto-echo-delay`, the estimate of
// a worker thread that runs libkvaec_host's delay track on copies of the
// reference (read at the microphone's position minus echo-delay) and the
// microphone at 16 kHz, and follows it with hysteresis.
#include "kvaec_probe.h"
#include "kvaec_resample.h"

#include <algorithm>
#include <atomic>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "kvaec.h"
#include "kvaec_host.h"
#include "kvaec_records.h"

#define GST_CAT_DEFAULT kvaec_gst_debug

namespace {

constexpr int kFrame = KVAEC_FRAME_SAMPLES;
constexpr int kRate = KVAEC_SAMPLE_RATE;
// Margin kept behind the library's least echo delay (as the PipeWire plugin).
constexpr int kAlignMarginSamples = 2 * kRate / 1000;
// The read position jumps (a counted resync) when it is this far from the
// timestamps' position; below, it slips one sample per frame.
constexpr double kResyncSamples = 20.0 * kRate / 1000;
// Below, it follows the timestamps by at most this many samples per frame
// (0.25 per 10 ms: 1560 ppm, beyond the drift of real devices).
constexpr double kSlipRate = 0.25;
// Half length of the interpolator of fractional read positions.
constexpr int kInterpHalf = 8;
// Cross-fade of bypass switches, 16 kHz samples (20 ms).
constexpr int kBypassFadeSamples = 320;
constexpr double kPi = 3.14159265358979323846;
// A microphone buffer this far from where the sample count puts it is a
// discontinuity: flush, re-anchor.
constexpr GstClockTime kMicJump = 20 * GST_MSECOND;
// Self-test once a second.
constexpr int kBistFrames = 100;
// Echo-path change: the detector's combined evidence at or above its own
// threshold (adf/epc: fEpcDb + 6 >= 21).
constexpr float kEpcChangeDb = 15.0f;

std::atomic<GstKvaecDsp *> g_owner{nullptr};

struct Settings {
    AEC_tCfg cfg = kvaec_full_duplex_cfg;
    bool echo_cancel = true, echo_suppression = true, noise_suppression = true, hpf = true;
    bool bypass = false, freeze = false;
    int channel = -1;
    int echo_delay_ms = 0;
    bool auto_delay = false;
    std::string probe = "kvaecechoprobe0";
    bool post_messages = false;
    guint64 interval = GST_SECOND;
    unsigned cfg_serial = 0;
};

struct Stats {
    double erle_db = 0, erl_db = 0;
    bool double_talk = false, epc = false;
    guint64 dt_frames = 0, underruns = 0, resyncs = 0, slipped = 0, selftest_resets = 0, frames = 0;
    gint64 lead = 0;
};

unsigned mode_of(const Settings &s) {
    unsigned m = KVAEC_MODE_SEND_ONLY_LOSS;  // the far end is played untouched: all loss on the send path
    if (!s.echo_suppression) m |= KVAEC_MODE_NO_NLP;
    if (!s.noise_suppression) m |= KVAEC_MODE_NO_NR;
    if (!s.hpf) m |= KVAEC_MODE_NO_HIPASS;
    if (s.freeze) m |= KVAEC_MODE_FREEZE;
    return m;
}

}  // namespace

struct DspState {
    Settings set;  // under the object lock
    Stats stats;   // under the object lock
    std::atomic<bool> reset_requested{false};

    // Stream (streaming thread).
    int rate = 48000, channels = 1;
    GstAudioFormat format = GST_AUDIO_FORMAT_F32LE;
    KvaecResampler down, up;
    std::vector<float> mono, buf16, frame, upbuf, outq;
    size_t outq_head = 0;
    int fill = 0;
    int64_t drop = 0, drop_total = 0;
    int64_t in_total = 0, out_total = 0, s16 = 0;
    bool anchored = false, discont_out = true;
    GstClockTime ts_base = 0, anchor_rt = 0;
    double anchor16 = 0, lat16_down = 0, err16 = 0;
    std::vector<float> bypass_hist = std::vector<float>(KVAEC_SND_DELAY_SAMPLES, 0.0f);
    float bypass_gain = 0.0f;  // 0: canceller output .. 1: bypassed microphone
    double rpos = 0;        // read position of the reference (16 kHz ring units, may be fractional)
    double rnominal = 0;    // where it would be without slipping: placement + one frame per frame
    bool rpos_valid = false;
    int last_d16 = 0;
    bool live = false, live_known = false;
    bool channel_warned = false;
    GstClockTime last_msg_rt = GST_CLOCK_TIME_NONE;
    std::atomic<guint64> latency{0};

    // Canceller.
    unsigned mode = 0;
    unsigned cfg_serial = 0;
    AEC_tCfg cfg = kvaec_full_duplex_cfg;  // validated configuration in force
    int64_t frames = 0;
    guint64 selftest_warned = 0;

    // Probe: changed by the streaming thread (and start/stop) under plock,
    // read by other threads only under plock.
    GMutex plock;
    GstKvaecEchoProbe *probe = nullptr;
    bool probe_lost_warned = false;
    bool starved = false;
    std::atomic<bool> gap_sent{false};  // a preroll gap was pushed in this state
    int64_t starved_end = 0;
    uint64_t starved_gen = 0;
    bool clock_checked = false;
    std::atomic<bool> flushing{false};

    // Delay estimation worker.
    GThread *worker = nullptr;
    GMutex wlock;
    GCond wcond;
    bool wstop = false;
    bool wreset = false;
    std::vector<float> wfar, wmic;
    std::atomic<double> estimate_ms{NAN};  // ms beyond echo-delay; NaN: none yet
};

struct _GstKvaecDsp {
    GstAudioFilter parent;
    DspState *st;
};

G_DEFINE_TYPE(GstKvaecDsp, gst_kvaec_dsp, GST_TYPE_AUDIO_FILTER)

enum {
    PROP_0,
    PROP_PROBE,
    PROP_CHANNEL,
    PROP_ECHO_CANCEL,
    PROP_ECHO_SUPPRESSION,
    PROP_NOISE_SUPPRESSION,
    PROP_HIGH_PASS_FILTER,
    PROP_BYPASS,
    PROP_FREEZE,
    PROP_ECHO_DELAY,
    PROP_AUTO_ECHO_DELAY,
    PROP_ECHO_DELAY_ESTIMATE,
    PROP_ERL_INIT_DB,
    PROP_NLP_ATT_MAX_DB,
    PROP_NLP_ATT_MIN_DB,
    PROP_DTD_MARGIN_DB,
    PROP_LEVEL_FLOOR_DB,
    PROP_NR_LEVEL,
    PROP_RIN_LEVEL_REF_DB,
    PROP_PROFILE,
    PROP_STATS,
    PROP_POST_MESSAGES,
    PROP_MESSAGE_INTERVAL,
};

enum { SIGNAL_RESET, N_SIGNALS };
static guint dsp_signals[N_SIGNALS];

namespace {

#define CAPS_STR                                                     \
    "audio/x-raw, format = (string) { F32LE, S16LE }, "              \
    "rate = (int) [ 8000, 96000 ], channels = (int) [ 1, 8 ], "      \
    "layout = (string) interleaved"

// Processing delay in input-rate samples: down converter + library send
// path + up converter.
int64_t processing_delay(const DspState *s) {
    const double d = s->down.input_latency() +
                     (KVAEC_SND_DELAY_SAMPLES + s->up.input_latency()) *
                         static_cast<double>(s->rate) / kRate;
    return std::llround(d);
}

// Lead reserved for the reference, 16 kHz samples: the alignment shift with
// no known echo delay, one frame, and the interpolator's look-ahead.
int reserved_lead() { return std::max<int32_t>(kvaec_align_shift(0, kAlignMarginSamples), 0) + kFrame + kInterpHalf + 1; }

GstClockTime dsp_latency(const DspState *s) {
    const GstClockTime framing = gst_util_uint64_scale(kFrame, GST_SECOND, kRate);
    const GstClockTime proc = gst_util_uint64_scale(static_cast<guint64>(processing_delay(s)), GST_SECOND,
                                                    static_cast<guint64>(s->rate));
    const GstClockTime lead = gst_util_uint64_scale(static_cast<guint64>(reserved_lead()), GST_SECOND, kRate);
    return framing + proc + lead;
}

GstStructure *stats_structure(const Stats &s) {
    return gst_structure_new("kvaec-stats", "erle-db", G_TYPE_DOUBLE, s.erle_db, "erl-db", G_TYPE_DOUBLE, s.erl_db,
                             "double-talk", G_TYPE_BOOLEAN, s.double_talk, "double-talk-frames", G_TYPE_UINT64,
                             s.dt_frames, "echo-path-change", G_TYPE_BOOLEAN, s.epc, "underruns", G_TYPE_UINT64,
                             s.underruns, "resyncs", G_TYPE_UINT64, s.resyncs, "slipped-samples", G_TYPE_UINT64,
                             s.slipped, "lead-samples", G_TYPE_INT64, s.lead, "selftest-resets", G_TYPE_UINT64,
                             s.selftest_resets, "frames", G_TYPE_UINT64, s.frames, nullptr);
}

// ---- delay estimation worker ----

gpointer worker_main(gpointer data) {
    GstKvaecDsp *self = GST_KVAEC_DSP(data);
    DspState *st = self->st;
    std::vector<float> far, mic;
    double cand = 0;
    int cand_count = 0;
    double last_time = -1;
    kvaec_track_params params;
    kvaec_track_default_params(&params);
    params.window_sec = 2.0;
    params.hop_sec = 1.0;
    params.max_offset_sec = 1.0;
    // Made when the first copies arrive: with auto-echo-delay off the worker
    // never builds the track (nor its transforms).
    kvaec_track *track = nullptr;
    double pushed = 0;  // seconds pushed into the current track
    for (;;) {
        bool reset = false;
        g_mutex_lock(&st->wlock);
        while (!st->wstop && st->wfar.empty() && !st->wreset)
            g_cond_wait_until(&st->wcond, &st->wlock, g_get_monotonic_time() + 100 * G_TIME_SPAN_MILLISECOND);
        const bool stop = st->wstop;
        far.swap(st->wfar);
        mic.swap(st->wmic);
        st->wfar.clear();
        st->wmic.clear();
        reset = st->wreset;
        st->wreset = false;
        g_cond_broadcast(&st->wcond);  // room again for a waiting stream
        g_mutex_unlock(&st->wlock);
        if (stop) break;
        if (reset) {
            cand_count = 0;
            last_time = -1;
            st->estimate_ms.store(NAN);
            kvaec_track_destroy(track);
            track = nullptr;
            pushed = 0;
        }
        if (far.empty()) continue;
        // One trusted window at a time, followed with hysteresis: a new value
        // is taken when two consecutive trusted windows agree on it (within
        // 1 ms) and it differs from the current one by more than 1 ms.
        auto offer = [&](double time_sec, double delay_ms) {
            if (time_sec <= last_time) return;
            last_time = time_sec;
            const double cur = st->estimate_ms.load();
            if (!std::isnan(cur) && std::fabs(delay_ms - cur) <= 1.0) {
                cand_count = 0;
                return;
            }
            if (cand_count > 0 && std::fabs(delay_ms - cand) <= 1.0) {
                ++cand_count;
            } else {
                cand = delay_ms;
                cand_count = 1;
            }
            if (cand_count >= 2) {
                const double v = 0.5 * (cand + delay_ms);
                st->estimate_ms.store(v);
                cand_count = 0;
                GST_INFO_OBJECT(self, "echo delay estimate %.2f ms beyond echo-delay", v);
            }
        };
        // The track keeps one entry per window: a fresh one every ten
        // minutes bounds its memory (the followed estimate stays).
        if (track != nullptr && pushed >= 600.0) {
            kvaec_track_destroy(track);
            track = nullptr;
            pushed = 0;
            last_time = -1;
            cand_count = 0;
        }
        if (track == nullptr) track = kvaec_track_create(kRate, &params);
        if (track != nullptr) {
            kvaec_track_push(track, far.data(), static_cast<int64_t>(far.size()), mic.data(),
                             static_cast<int64_t>(mic.size()));
            pushed += static_cast<double>(mic.size()) / kRate;
            kvaec_track_window w;
            if (kvaec_track_latest(track, &w) == 1 && w.trusted) offer(w.time_sec, 1000.0 * w.delay_sec);
        }
        far.clear();
        mic.clear();
    }
    kvaec_track_destroy(track);
    return nullptr;
}

void worker_start(GstKvaecDsp *self) {
    DspState *st = self->st;
    if (st->worker != nullptr) return;
    g_mutex_lock(&st->wlock);
    st->wstop = false;
    st->wreset = true;
    g_mutex_unlock(&st->wlock);
    st->worker = g_thread_new("kvaec-delay", worker_main, self);
}

void worker_stop(DspState *st) {
    if (st->worker == nullptr) return;
    g_mutex_lock(&st->wlock);
    st->wstop = true;
    g_cond_broadcast(&st->wcond);
    g_mutex_unlock(&st->wlock);
    g_thread_join(st->worker);
    st->worker = nullptr;
}

// ---- probe access ----

void probe_release(DspState *st) {
    g_mutex_lock(&st->plock);
    GstKvaecEchoProbe *p = st->probe;
    st->probe = nullptr;
    g_mutex_unlock(&st->plock);
    if (p == nullptr) return;
    g_mutex_lock(kvaec_probe_lock(p));
    kvaec_probe_ring(p)->reader = false;
    g_cond_broadcast(kvaec_probe_cond(p));
    g_mutex_unlock(kvaec_probe_lock(p));
    gst_object_unref(p);
}

void probe_set(DspState *st, GstKvaecEchoProbe *p) {
    g_mutex_lock(&st->plock);
    st->probe = p;
    g_mutex_unlock(&st->plock);
}

bool is_playing(GstKvaecDsp *self) {
    GST_OBJECT_LOCK(self);
    const bool playing = GST_STATE(self) == GST_STATE_PLAYING;
    GST_OBJECT_UNLOCK(self);
    return playing;
}

void wake_probe(DspState *st) {
    g_mutex_lock(&st->plock);
    GstKvaecEchoProbe *p = st->probe != nullptr ? GST_KVAEC_ECHO_PROBE(gst_object_ref(st->probe)) : nullptr;
    g_mutex_unlock(&st->plock);
    if (p == nullptr) return;
    g_mutex_lock(kvaec_probe_lock(p));
    g_cond_broadcast(kvaec_probe_cond(p));
    g_mutex_unlock(kvaec_probe_lock(p));
    gst_object_unref(p);
}

enum class Wait { No, Preroll, Playing, Live };

// Reads n reference samples at ring position pos into out. Returns the number
// of samples that were missing (underrun), 0 when all were there or the far
// end has ended.
int fetch(GstKvaecDsp *self, int64_t pos, float *out, int n, Wait wait, int64_t keep_from) {
    DspState *st = self->st;
    GstKvaecEchoProbe *p = st->probe;
    if (p == nullptr) {
        std::fill(out, out + n, 0.0f);
        return n;
    }
    GMutex *lock = kvaec_probe_lock(p);
    GCond *cond = kvaec_probe_cond(p);
    g_mutex_lock(lock);
    KvaecFarRing *r = kvaec_probe_ring(p);
    if (r->gone) {
        g_mutex_unlock(lock);
        if (!st->probe_lost_warned) {
            GST_ELEMENT_WARNING(self, RESOURCE, NOT_FOUND,
                                ("echo probe \"%s\" went away: echo is not cancelled until it is back",
                                 GST_OBJECT_NAME(p)),
                                ("the output carries the microphone; missing reference counted as underruns"));
            st->probe_lost_warned = true;
        }
        probe_release(st);
        std::fill(out, out + n, 0.0f);
        return n;
    }
    r->reader = true;
    r->reader_pos = std::min(pos, keep_from);
    g_cond_broadcast(cond);
    gint64 timeout = 0;
    switch (wait) {
    case Wait::No: timeout = 0; break;
    case Wait::Preroll: timeout = 1; break;  // until PLAYING (below)
    case Wait::Playing: timeout = 2 * G_TIME_SPAN_SECOND; break;
    case Wait::Live: timeout = 30 * G_TIME_SPAN_MILLISECOND; break;
    }
    // After a wait that timed out, wait again only once the probe has moved
    // on: a stalled far end costs one timeout, not one per frame.
    if (st->starved && (r->end != st->starved_end || r->generation != st->starved_gen)) st->starved = false;
    if (timeout > 0 && !st->starved) {
        gint64 deadline = g_get_monotonic_time() + timeout;
        bool playing = wait != Wait::Preroll;
        while ((!r->anchored || pos + n > r->end) && !r->eos && !r->flushing && !r->gone &&
               !st->flushing.load()) {
            if (wait != Wait::Live) {
                // Non-live: the probe's branch may be held by its own sink's
                // preroll (at the start, after a flushing seek, after a pause),
                // so the reference may come only in PLAYING. A zero-length gap
                // (once per flush) lets the sinks here preroll too: no sample
                // is lost or invented. Then wait without limit until PLAYING,
                // and from then on at most two seconds.
                if (!st->gap_sent.exchange(true)) {
                    const GstClockTime ts = st->ts_base + gst_util_uint64_scale(static_cast<guint64>(st->out_total),
                                                                                GST_SECOND,
                                                                                static_cast<guint64>(st->rate));
                    g_mutex_unlock(lock);
                    gst_pad_push_event(GST_BASE_TRANSFORM_SRC_PAD(self), gst_event_new_gap(ts, 0));
                    g_mutex_lock(lock);
                    continue;
                }
                if (!is_playing(self)) {
                    playing = false;
                    g_cond_wait_until(cond, lock, g_get_monotonic_time() + 20 * G_TIME_SPAN_MILLISECOND);
                    continue;
                }
                if (!playing) {
                    playing = true;
                    deadline = g_get_monotonic_time() + 2 * G_TIME_SPAN_SECOND;
                }
            }
            if (!g_cond_wait_until(cond, lock, deadline)) {
                GST_DEBUG_OBJECT(self, "reference at %" G_GINT64_FORMAT " not there in time (ring ends at %"
                                 G_GINT64_FORMAT "): underrun", pos + n, r->end);
                st->starved = true;
                st->starved_end = r->end;
                st->starved_gen = r->generation;
                break;
            }
        }
    }
    int missing = 0;
    for (int i = 0; i < n; ++i) {
        const int64_t q = pos + i;
        if (r->anchored && q >= r->start && q < r->end) {
            out[i] = r->buf[static_cast<size_t>(q & (KvaecFarRing::kSize - 1))];
        } else {
            out[i] = 0.0f;
            if (!r->anchored || q >= r->end) ++missing;
        }
    }
    if (r->eos || r->flushing) missing = 0;
    g_mutex_unlock(lock);
    return missing;
}

// ---- fractional reference ----

// out[k] = x at (kInterpHalf - 1 + k + frac), from `wide` (kFrame + 2 *
// kInterpHalf samples): Blackman-windowed sinc of 2 * kInterpHalf taps,
// normalised to unit gain at DC.
void interpolate(const float *wide, double frac, float *out) {
    float h[2 * kInterpHalf];
    double sum = 0;
    for (int j = 0; j < 2 * kInterpHalf; ++j) {
        const double t = static_cast<double>(j - (kInterpHalf - 1)) - frac;  // tap offset from the read point
        const double sinc = std::fabs(t) < 1e-9 ? 1.0 : std::sin(kPi * t) / (kPi * t);
        const double u = (t + kInterpHalf) / (2.0 * kInterpHalf);             // 0..1 across the window
        const double w = 0.42 - 0.5 * std::cos(2 * kPi * u) + 0.08 * std::cos(4 * kPi * u);
        h[j] = static_cast<float>(sinc * w);
        sum += sinc * w;
    }
    for (float &v : h) v = static_cast<float>(v / sum);
    for (int k = 0; k < kFrame; ++k) {
        float acc = 0.0f;
        for (int j = 0; j < 2 * kInterpHalf; ++j) acc += h[j] * wide[k + j];
        out[k] = acc;
    }
}

// ---- stream ----

void stream_reset(DspState *st) {
    st->down.reset();
    st->up.reset();
    st->fill = 0;
    std::fill(st->bypass_hist.begin(), st->bypass_hist.end(), 0.0f);
    st->outq.clear();
    st->outq_head = 0;
    st->drop = st->down.ready() ? processing_delay(st) : 0;
    st->drop_total = st->drop;
    st->in_total = st->out_total = st->s16 = 0;
    st->anchored = false;
    st->discont_out = true;
    st->err16 = 0;
    st->rpos_valid = false;
}

void post_stats(GstKvaecDsp *self, GstClockTime rt) {
    DspState *st = self->st;
    GST_OBJECT_LOCK(self);
    const bool post = st->set.post_messages;
    const guint64 interval = st->set.interval;
    Stats s = st->stats;
    GST_OBJECT_UNLOCK(self);
    if (!post || !GST_CLOCK_TIME_IS_VALID(rt)) return;
    if (GST_CLOCK_TIME_IS_VALID(st->last_msg_rt) && rt < st->last_msg_rt + interval && rt >= st->last_msg_rt) return;
    st->last_msg_rt = rt;
    gst_element_post_message(GST_ELEMENT(self), gst_message_new_element(GST_OBJECT(self), stats_structure(s)));
}

void check_clocks(GstKvaecDsp *self) {
    DspState *st = self->st;
    if (st->clock_checked || st->probe == nullptr || !is_playing(self)) return;
    st->clock_checked = true;
    GstElement *pe = GST_ELEMENT(st->probe);
    GstClock *mine = gst_element_get_clock(GST_ELEMENT(self));
    GstClock *theirs = gst_element_get_clock(pe);
    const GstClockTime b1 = gst_element_get_base_time(GST_ELEMENT(self));
    const GstClockTime b2 = gst_element_get_base_time(pe);
    if (mine != theirs || b1 != b2) {
        GST_ELEMENT_WARNING(self, CORE, CLOCK,
                            ("kvaecdsp and echo probe \"%s\" run on different clocks or base times: the echo "
                             "reference cannot be placed",
                             GST_OBJECT_NAME(pe)),
                            ("put both in one pipeline, or share one clock and base time: "
                             "gst_pipeline_use_clock() on both pipelines and gst_element_set_base_time() with the same "
                             "value (clock %p / %p, base time %" GST_TIME_FORMAT " / %" GST_TIME_FORMAT ")",
                             static_cast<void *>(mine), static_cast<void *>(theirs), GST_TIME_ARGS(b1),
                             GST_TIME_ARGS(b2)));
    }
    if (mine) gst_object_unref(mine);
    if (theirs) gst_object_unref(theirs);
}

// One 10 ms frame at 16 kHz in st->frame (microphone); the send output goes
// through the up converter into the output queue.
void process_frame(GstKvaecDsp *self, bool draining) {
    DspState *st = self->st;
    GST_OBJECT_LOCK(self);
    const Settings s = st->set;
    GST_OBJECT_UNLOCK(self);

    // Between frames: configuration, mode, reset.
    const unsigned mode = mode_of(s);
    if (s.cfg_serial != st->cfg_serial) {
        st->cfg = s.cfg;  // validated when set
        st->cfg_serial = s.cfg_serial;
        aecx_control(KVAEC_CMD_LOAD_CFG | mode, &st->cfg, 0.0f);
        st->mode = mode;
    }
    if (st->reset_requested.exchange(false)) {
        aecx_control(KVAEC_CMD_RESET | mode, nullptr, 0.0f);
        st->mode = mode;
    }
    if (mode != st->mode) {
        aecx_control(mode, nullptr, 0.0f);
        st->mode = mode;
    }

    // Probe: found again after it went away.
    if (st->probe == nullptr && (st->frames % 100) == 0) {
        probe_set(st, kvaec_probe_find(s.probe.c_str()));
        if (st->probe != nullptr) {
            st->probe_lost_warned = false;
            st->clock_checked = false;
            GST_INFO_OBJECT(self, "echo probe \"%s\" found", s.probe.c_str());
        }
    }
    check_clocks(self);

    // Capture position of the frame's first sample (16 kHz ring units) and
    // the reference's read position.
    const double c = st->anchor16 + static_cast<double>(st->s16) - st->lat16_down + st->err16;
    const double est = st->estimate_ms.load();
    const double d16f = s.echo_delay_ms * (kRate / 1000.0) + (s.auto_delay && !std::isnan(est) ? est * kRate / 1000.0 : 0.0);
    const int d16 = static_cast<int>(std::lround(d16f));
    const double target = c + kvaec_align_shift(d16, kAlignMarginSamples);
    guint64 resync = 0, slipped = 0;
    if (!st->rpos_valid) {
        st->rpos = st->rnominal = static_cast<double>(std::llround(target));
        st->rpos_valid = true;
        st->last_d16 = d16;
    } else {
        // Drift between the clocks (and a small change of the echo delay,
        // e.g. the estimate following a drift) moves the read position
        // continuously, at most kSlipRate samples per frame, once it is more
        // than half a sample away: with a steady clock the position stays on
        // whole samples. Every whole sample it has moved from the nominal
        // position counts as a slipped sample. A jump beyond kResyncSamples
        // is a new placement, counted as a resync unless an echo-delay change
        // explains it.
        const double dd = target - st->rpos;
        if (std::fabs(dd) > kResyncSamples) {
            st->rpos = st->rnominal = static_cast<double>(std::llround(target));
            if (d16 == st->last_d16) resync = 1;
        } else if (std::fabs(dd) > 0.5) {
            const double before = std::round(st->rpos - st->rnominal);
            const double step = std::clamp(dd - std::copysign(0.5, dd), -kSlipRate, kSlipRate);
            st->rpos += step;
            slipped = static_cast<guint64>(std::fabs(std::round(st->rpos - st->rnominal) - before));
        }
        st->last_d16 = d16;
    }

    float rin[kFrame], sin[kFrame], far_est[kFrame];
    Wait wait = Wait::No;
    if (!draining) {
        if (st->live) wait = Wait::Live;
        else wait = is_playing(self) ? Wait::Playing : Wait::Preroll;
    }
    const int64_t est_pos = std::llround(c - s.echo_delay_ms * (kRate / 1000.0));
    // The reference at a fractional position goes through a windowed-sinc
    // interpolator (exact copy on whole samples).
    const int64_t ipos = static_cast<int64_t>(std::floor(st->rpos));
    const double frac = st->rpos - static_cast<double>(ipos);
    const int64_t keep = std::min<int64_t>(est_pos, ipos) - kRate;
    int missing;
    if (frac < 1e-6) {
        missing = fetch(self, ipos, rin, kFrame, wait, keep);
    } else {
        float wide[kFrame + 2 * kInterpHalf];
        missing = fetch(self, ipos - (kInterpHalf - 1), wide, kFrame + 2 * kInterpHalf, wait, keep);
        interpolate(wide, frac, rin);
    }
    if (s.auto_delay && st->probe != nullptr) {
        fetch(self, est_pos, far_est, kFrame, Wait::No, keep);
        g_mutex_lock(&st->wlock);
        // Non-live (files run faster than real time): wait for the worker
        // rather than let the estimate fall seconds behind the stream.
        if (!st->live && !draining) {
            const gint64 deadline = g_get_monotonic_time() + G_TIME_SPAN_SECOND;
            while (st->wfar.size() >= static_cast<size_t>(kRate) && !st->wstop && !st->flushing.load())
                if (!g_cond_wait_until(&st->wcond, &st->wlock, deadline)) break;
        }
        if (st->wfar.size() < static_cast<size_t>(10 * kRate)) {
            st->wfar.insert(st->wfar.end(), far_est, far_est + kFrame);
            st->wmic.insert(st->wmic.end(), st->frame.begin(), st->frame.begin() + kFrame);
            g_cond_signal(&st->wcond);
        }
        g_mutex_unlock(&st->wlock);
    }
    if (!s.echo_cancel) std::fill(rin, rin + kFrame, 0.0f);  // no reference: nothing is cancelled or suppressed
    std::copy(st->frame.begin(), st->frame.begin() + kFrame, sin);

    aecx_process(rin, sin);

    // Health: outputs finite; self-test once a second. After a failure the
    // canceller restarts from the validated configuration.
    bool bad = false;
    for (int n = 0; n < kFrame; ++n)
        if (!std::isfinite(sin[n])) {
            sin[n] = 0.0f;
            bad = true;
        }
    int bist = 0;
    if (bad || (st->frames + 1) % kBistFrames == 0) bist = aecx_bist();
    // Bypass: the microphone delayed by the library's send-path delay (the
    // latency stays), cross-faded over 20 ms so that switching never clicks.
    // The canceller keeps running meanwhile and resumes converged.
    {
        constexpr int D = KVAEC_SND_DELAY_SAMPLES;
        static_assert(D <= kFrame, "the send-path delay fits in one frame");
        const float want = s.bypass ? 1.0f : 0.0f;
        const float step = 1.0f / static_cast<float>(kBypassFadeSamples);
        for (int n = 0; n < kFrame; ++n) {
            const float delayed = n < D ? st->bypass_hist[static_cast<size_t>(n)] : st->frame[static_cast<size_t>(n - D)];
            float &g = st->bypass_gain;
            if (g < want) g = std::min(want, g + step);
            else if (g > want) g = std::max(want, g - step);
            if (g > 0.0f) sin[n] = (1.0f - g) * sin[n] + g * delayed;
        }
        std::copy(st->frame.begin() + (kFrame - D), st->frame.begin() + kFrame, st->bypass_hist.begin());
    }

    guint64 resets = 0;
    if (bad || bist > 0) {
        aecx_init(&st->cfg);
        aecx_control(st->mode, nullptr, 0.0f);
        resets = 1;
        if (st->selftest_warned++ % 100 == 0)
            GST_ELEMENT_WARNING(self, STREAM, FAILED,
                                ("echo canceller self-test failed (%d bad words%s): restarted with its configuration",
                                 bist, bad ? ", non-finite output" : ""),
                                ("frame %" G_GINT64_FORMAT "; further restarts are counted in stats", st->frames));
    }
    ++st->frames;
    st->s16 += kFrame;
    st->rpos += kFrame;
    st->rnominal += kFrame;

    GST_OBJECT_LOCK(self);
    Stats &t = st->stats;
    t.erle_db = AEC_Db.atStrip[AEC_NSTRIPS].fErleAvgDb;
    t.erl_db = AEC_Db.atStrip[AEC_NSTRIPS].fErlDb;
    t.double_talk = AEC_Db.iDoubleTalk != 0;
    if (t.double_talk) ++t.dt_frames;
    t.epc = AEC_Db.fEpcDb >= kEpcChangeDb;
    if (!draining && missing > 0) ++t.underruns;
    t.resyncs += resync;
    t.slipped += slipped;
    t.selftest_resets += resets;
    t.lead = std::llround(st->rpos - kFrame - c);
    ++t.frames;
    GST_OBJECT_UNLOCK(self);

    // Back to the input rate.
    uint32_t in_len = kFrame;
    uint32_t out_len = static_cast<uint32_t>(st->upbuf.size());
    st->up.process(sin, &in_len, st->upbuf.data(), &out_len);
    uint32_t skip = 0;
    if (st->drop > 0) {
        skip = static_cast<uint32_t>(std::min<int64_t>(st->drop, out_len));
        st->drop -= skip;
    }
    st->outq.insert(st->outq.end(), st->upbuf.begin() + skip, st->upbuf.begin() + out_len);
}

// Converts `n` microphone samples (nullptr: silence) to 16 kHz and processes
// every completed frame.
void feed_mic(GstKvaecDsp *self, const float *x, int64_t n, bool draining) {
    DspState *st = self->st;
    while (n > 0) {
        const int64_t chunk = std::min<int64_t>(n, 1024);
        uint32_t in_len = static_cast<uint32_t>(chunk);
        uint32_t out_len = static_cast<uint32_t>(st->buf16.size());
        st->down.process(x, &in_len, st->buf16.data(), &out_len);
        if (x) x += in_len;
        n -= in_len;
        for (uint32_t i = 0; i < out_len;) {
            const uint32_t take = std::min<uint32_t>(out_len - i, static_cast<uint32_t>(kFrame - st->fill));
            std::copy(st->buf16.begin() + i, st->buf16.begin() + i + take, st->frame.begin() + st->fill);
            st->fill += static_cast<int>(take);
            i += take;
            if (st->fill == kFrame) {
                process_frame(self, draining);
                st->fill = 0;
            }
        }
    }
}

size_t outq_size(const DspState *st) { return st->outq.size() - st->outq_head; }

// An output buffer of `n` queued samples, with the timestamps of the input
// samples they were made from.
GstBuffer *make_output(GstKvaecDsp *self, int64_t n) {
    DspState *st = self->st;
    const int C = st->channels;
    const int bps = st->format == GST_AUDIO_FORMAT_S16LE ? 2 : 4;
    GstBuffer *out = gst_buffer_new_allocate(nullptr, static_cast<gsize>(n * C * bps), nullptr);
    GstMapInfo map;
    gst_buffer_map(out, &map, GST_MAP_WRITE);
    const float *q = st->outq.data() + st->outq_head;
    if (bps == 2) {
        int16_t *d = reinterpret_cast<int16_t *>(map.data);
        for (int64_t i = 0; i < n; ++i) {
            float v = q[i] * 32768.0f;
            v = std::min(32767.0f, std::max(-32768.0f, v));
            const int16_t s = static_cast<int16_t>(std::lrint(v));
            for (int c = 0; c < C; ++c) d[i * C + c] = s;
        }
    } else {
        float *d = reinterpret_cast<float *>(map.data);
        if (C == 1) std::memcpy(d, q, static_cast<size_t>(n) * sizeof(float));
        else if (C == 2)
            for (int64_t i = 0; i < n; ++i) d[2 * i] = d[2 * i + 1] = q[i];
        else
            for (int64_t i = 0; i < n; ++i)
                for (int c = 0; c < C; ++c) d[i * C + c] = q[i];
    }
    gst_buffer_unmap(out, &map);
    st->outq_head += static_cast<size_t>(n);
    if (st->outq_head > 65536 || st->outq_head == st->outq.size()) {
        st->outq.erase(st->outq.begin(), st->outq.begin() + static_cast<long>(st->outq_head));
        st->outq_head = 0;
    }
    const guint64 r = static_cast<guint64>(st->rate);
    GST_BUFFER_PTS(out) = st->ts_base + gst_util_uint64_scale(static_cast<guint64>(st->out_total), GST_SECOND, r);
    GST_BUFFER_DURATION(out) =
        st->ts_base + gst_util_uint64_scale(static_cast<guint64>(st->out_total + n), GST_SECOND, r) - GST_BUFFER_PTS(out);
    GST_BUFFER_OFFSET(out) = static_cast<guint64>(st->out_total);
    GST_BUFFER_OFFSET_END(out) = static_cast<guint64>(st->out_total + n);
    if (st->discont_out) {
        GST_BUFFER_FLAG_SET(out, GST_BUFFER_FLAG_DISCONT);
        st->discont_out = false;
    }
    st->out_total += n;
    return out;
}

// Flushes the samples still inside the processing (EOS, discontinuity):
// silence is fed until every input sample has its output. Returns the last
// output buffer or nullptr.
GstBuffer *drain(GstKvaecDsp *self) {
    DspState *st = self->st;
    if (!st->anchored || !st->down.ready()) return nullptr;
    const int64_t want = st->in_total - st->out_total;
    for (int guard = 0; static_cast<int64_t>(outq_size(st)) < want && guard < 200; ++guard)
        feed_mic(self, nullptr, st->rate / 100, true);
    const int64_t n = std::min<int64_t>(want, static_cast<int64_t>(outq_size(st)));
    GstBuffer *out = n > 0 ? make_output(self, n) : nullptr;
    st->outq.clear();
    st->outq_head = 0;
    return out;
}

gboolean dsp_setup(GstAudioFilter *filter, const GstAudioInfo *info) {
    GstKvaecDsp *self = GST_KVAEC_DSP(filter);
    DspState *st = self->st;
    st->rate = GST_AUDIO_INFO_RATE(info);
    st->channels = GST_AUDIO_INFO_CHANNELS(info);
    st->format = GST_AUDIO_INFO_FORMAT(info);
    const char *err = "";
    if (!st->down.init(st->rate, kRate, &err) || !st->up.init(kRate, st->rate, &err)) {
        GST_ELEMENT_ERROR(self, CORE, NEGOTIATION, ("resampler: %s", err), (nullptr));
        return FALSE;
    }
    st->lat16_down = st->down.input_latency() * static_cast<double>(kRate) / st->rate;
    st->buf16.assign(1024 * kRate / 8000 + 64, 0.0f);
    st->frame.assign(kFrame, 0.0f);
    st->upbuf.assign(static_cast<size_t>(kFrame * st->rate / kRate + 64), 0.0f);
    stream_reset(st);
    const GstClockTime lat = dsp_latency(st);
    st->latency.store(lat);
    GST_INFO_OBJECT(self,
                    "microphone %d Hz, %d channel(s), %s; latency %" GST_TIME_FORMAT
                    " = framing 10 ms + processing %" G_GINT64_FORMAT " samples (down converter, %s, %d at the input rate, "
                    "up converter, %s, %d and library send path %d at 16 kHz) + reference lead %d samples at 16 kHz",
                    st->rate, st->channels, gst_audio_format_to_string(st->format), GST_TIME_ARGS(lat),
                    processing_delay(st), st->down.kind(), st->down.input_latency(), st->up.kind(),
                    st->up.input_latency(), KVAEC_SND_DELAY_SAMPLES, reserved_lead());
    gst_element_post_message(GST_ELEMENT(self), gst_message_new_latency(GST_OBJECT(self)));
    return TRUE;
}

GstFlowReturn dsp_generate_output(GstBaseTransform *bt, GstBuffer **outbuf) {
    GstKvaecDsp *self = GST_KVAEC_DSP(bt);
    DspState *st = self->st;
    *outbuf = nullptr;
    GstBuffer *in = bt->queued_buf;
    bt->queued_buf = nullptr;
    if (in == nullptr) return GST_FLOW_OK;
    if (!st->down.ready()) {
        gst_buffer_unref(in);
        return GST_FLOW_NOT_NEGOTIATED;
    }
    if (!st->live_known) {
        GstQuery *q = gst_query_new_latency();
        gboolean live = FALSE;
        if (gst_pad_peer_query(GST_BASE_TRANSFORM_SINK_PAD(bt), q)) gst_query_parse_latency(q, &live, nullptr, nullptr);
        gst_query_unref(q);
        st->live = live;
        st->live_known = true;
    }

    GstMapInfo map;
    if (!gst_buffer_map(in, &map, GST_MAP_READ)) {
        gst_buffer_unref(in);
        return GST_FLOW_ERROR;
    }
    const int C = st->channels;
    const int bps = st->format == GST_AUDIO_FORMAT_S16LE ? 2 : 4;
    const int64_t n = static_cast<int64_t>(map.size / static_cast<gsize>(C * bps));

    const GstClockTime pts = GST_BUFFER_PTS(in);
    const GstClockTime rt = GST_CLOCK_TIME_IS_VALID(pts)
                                ? gst_segment_to_running_time(&bt->segment, GST_FORMAT_TIME, pts)
                                : GST_CLOCK_TIME_NONE;
    GstFlowReturn ret = GST_FLOW_OK;
    if (st->anchored && GST_CLOCK_TIME_IS_VALID(rt)) {
        const GstClockTime expect =
            st->anchor_rt + gst_util_uint64_scale(static_cast<guint64>(st->in_total), GST_SECOND,
                                                  static_cast<guint64>(st->rate));
        const GstClockTimeDiff diff = GST_CLOCK_DIFF(expect, rt);
        if (diff > static_cast<GstClockTimeDiff>(kMicJump) || diff < -static_cast<GstClockTimeDiff>(kMicJump)) {
            GST_DEBUG_OBJECT(self, "microphone discontinuity of %" G_GINT64_FORMAT " ns: flushed, re-anchored", diff);
            GstBuffer *last = drain(self);
            if (last != nullptr) ret = gst_pad_push(GST_BASE_TRANSFORM_SRC_PAD(bt), last);
            stream_reset(st);
            GST_OBJECT_LOCK(self);
            st->stats.resyncs++;
            GST_OBJECT_UNLOCK(self);
        } else {
            // Two clocks: the timestamps drift from the sample count.
            const double e = static_cast<double>(diff) * kRate / GST_SECOND;
            st->err16 += 0.05 * (e - st->err16);
        }
    }
    if (!st->anchored) {
        st->anchored = true;
        st->ts_base = GST_CLOCK_TIME_IS_VALID(pts) ? pts : 0;
        st->anchor_rt = GST_CLOCK_TIME_IS_VALID(rt) ? rt : 0;
        st->anchor16 = static_cast<double>(st->anchor_rt) * kRate / GST_SECOND;
    }

    // The microphone: one channel or the mean of all.
    GST_OBJECT_LOCK(self);
    int ch = st->set.channel;
    GST_OBJECT_UNLOCK(self);
    if (ch >= C) {
        if (!st->channel_warned)
            GST_ELEMENT_WARNING(self, STREAM, FORMAT,
                                ("channel %d does not exist (%d channel(s)): using the mean of all", ch, C), (nullptr));
        st->channel_warned = true;
        ch = -1;
    }
    st->mono.resize(static_cast<size_t>(n));
    float *mono = st->mono.data();
    if (bps == 2) {
        const int16_t *s = reinterpret_cast<const int16_t *>(map.data);
        if (ch >= 0) {
            for (int64_t i = 0; i < n; ++i) mono[i] = s[i * C + ch] / 32768.0f;
        } else {
            const float g = 32768.0f * static_cast<float>(C);
            for (int64_t i = 0; i < n; ++i) {
                int32_t acc = 0;
                for (int c = 0; c < C; ++c) acc += s[i * C + c];
                mono[i] = static_cast<float>(acc) / g;
            }
        }
    } else {
        // Non-finite samples count as silence (a compare and a select, so
        // the common layouts vectorise).
        const float *s = reinterpret_cast<const float *>(map.data);
        auto finite = [](float v) { return std::fabs(v) <= FLT_MAX ? v : 0.0f; };
        const float fc = static_cast<float>(C);
        if (ch >= 0) {
            for (int64_t i = 0; i < n; ++i) mono[i] = finite(s[i * C + ch]);
        } else if (C == 2) {
            for (int64_t i = 0; i < n; ++i) mono[i] = (finite(s[2 * i]) + finite(s[2 * i + 1])) / 2.0f;
        } else {
            for (int64_t i = 0; i < n; ++i) {
                float v = 0.0f;
                for (int c = 0; c < C; ++c) v += finite(s[i * C + c]);
                mono[i] = v / fc;
            }
        }
    }
    gst_buffer_unmap(in, &map);

    feed_mic(self, st->mono.data(), n, false);
    st->in_total += n;
    gst_buffer_unref(in);
    post_stats(self, rt);

    const int64_t avail = std::min<int64_t>(static_cast<int64_t>(outq_size(st)), st->in_total - st->out_total);
    if (avail > 0 && ret == GST_FLOW_OK) *outbuf = make_output(self, avail);
    return ret;
}

GstFlowReturn dsp_transform_ip_unused(GstBaseTransform *, GstBuffer *) { return GST_FLOW_OK; }

gboolean dsp_sink_event(GstBaseTransform *bt, GstEvent *event) {
    GstKvaecDsp *self = GST_KVAEC_DSP(bt);
    DspState *st = self->st;
    switch (GST_EVENT_TYPE(event)) {
    case GST_EVENT_EOS: {
        GstBuffer *last = drain(self);
        if (last != nullptr) gst_pad_push(GST_BASE_TRANSFORM_SRC_PAD(bt), last);
        stream_reset(st);
        if (st->probe != nullptr) {
            g_mutex_lock(kvaec_probe_lock(st->probe));
            kvaec_probe_ring(st->probe)->reader = false;
            g_cond_broadcast(kvaec_probe_cond(st->probe));
            g_mutex_unlock(kvaec_probe_lock(st->probe));
        }
        break;
    }
    case GST_EVENT_FLUSH_START:
        st->flushing.store(true);
        break;
    case GST_EVENT_FLUSH_STOP:
        st->flushing.store(false);
        st->gap_sent.store(false);
        st->starved = false;
        stream_reset(st);
        break;
    default:
        break;
    }
    return GST_BASE_TRANSFORM_CLASS(gst_kvaec_dsp_parent_class)->sink_event(bt, event);
}

gboolean dsp_query(GstBaseTransform *bt, GstPadDirection dir, GstQuery *query) {
    GstKvaecDsp *self = GST_KVAEC_DSP(bt);
    if (dir == GST_PAD_SRC && GST_QUERY_TYPE(query) == GST_QUERY_LATENCY) {
        if (!GST_BASE_TRANSFORM_CLASS(gst_kvaec_dsp_parent_class)->query(bt, dir, query)) return FALSE;
        gboolean live;
        GstClockTime min, max;
        gst_query_parse_latency(query, &live, &min, &max);
        const GstClockTime mine = self->st->latency.load();
        min += mine;
        if (GST_CLOCK_TIME_IS_VALID(max)) max += mine;
        gst_query_set_latency(query, live, min, max);
        GST_DEBUG_OBJECT(self, "latency query: adding %" GST_TIME_FORMAT " (live %d)", GST_TIME_ARGS(mine), live);
        return TRUE;
    }
    return GST_BASE_TRANSFORM_CLASS(gst_kvaec_dsp_parent_class)->query(bt, dir, query);
}

gboolean dsp_start(GstBaseTransform *bt) {
    GstKvaecDsp *self = GST_KVAEC_DSP(bt);
    DspState *st = self->st;
    GST_OBJECT_LOCK(self);
    const Settings s = st->set;
    st->stats = Stats();
    GST_OBJECT_UNLOCK(self);
    probe_release(st);
    probe_set(st, kvaec_probe_find(s.probe.c_str()));
    if (st->probe == nullptr) {
        GST_ELEMENT_ERROR(self, RESOURCE, NOT_FOUND,
                          ("no echo probe named \"%s\": add a kvaecechoprobe with that name to the playback branch, "
                           "or set the property probe to its name",
                           s.probe.c_str()),
                          (nullptr));
        return FALSE;
    }
    st->probe_lost_warned = false;
    st->clock_checked = false;
    st->flushing.store(false);
    st->gap_sent.store(false);
    st->starved = false;
    st->live_known = false;
    st->cfg = s.cfg;
    st->cfg_serial = s.cfg_serial;
    st->mode = mode_of(s);
    st->frames = 0;
    st->selftest_warned = 0;
    st->last_msg_rt = GST_CLOCK_TIME_NONE;
    st->channel_warned = false;
    aecx_init(&st->cfg);
    aecx_control(st->mode, nullptr, 0.0f);
    stream_reset(st);
    worker_start(self);
    return TRUE;
}

gboolean dsp_stop(GstBaseTransform *bt) {
    GstKvaecDsp *self = GST_KVAEC_DSP(bt);
    DspState *st = self->st;
    worker_stop(st);
    probe_release(st);
    return TRUE;
}

GstStateChangeReturn dsp_change_state(GstElement *element, GstStateChange transition) {
    GstKvaecDsp *self = GST_KVAEC_DSP(element);
    if (transition == GST_STATE_CHANGE_NULL_TO_READY) {
        GstKvaecDsp *none = nullptr;
        if (!g_owner.compare_exchange_strong(none, self) && none != self) {
            GST_ELEMENT_ERROR(self, RESOURCE, BUSY,
                              ("only one kvaecdsp per process: the library runs one echo canceller, and %s is using it",
                               GST_OBJECT_NAME(none)),
                              (nullptr));
            return GST_STATE_CHANGE_FAILURE;
        }
    }
    if (transition == GST_STATE_CHANGE_PLAYING_TO_PAUSED) self->st->gap_sent.store(false);
    if (transition == GST_STATE_CHANGE_PAUSED_TO_READY) {
        // Wake a frame waiting for the reference.
        self->st->flushing.store(true);
        wake_probe(self->st);
    }
    const GstStateChangeReturn ret = GST_ELEMENT_CLASS(gst_kvaec_dsp_parent_class)->change_state(element, transition);
    if (transition == GST_STATE_CHANGE_READY_TO_NULL ||
        (transition == GST_STATE_CHANGE_NULL_TO_READY && ret == GST_STATE_CHANGE_FAILURE)) {
        GstKvaecDsp *me = self;
        g_owner.compare_exchange_strong(me, nullptr);
    }
    return ret;
}

// ---- properties ----

struct CfgFloatProp {
    guint id;
    const char *name, *blurb;
    float AEC_tCfg::*field;
    float min, max;
};

const CfgFloatProp kCfgFloats[] = {
    {PROP_ERL_INIT_DB, "erl-init-db", "Initial echo-path gain per strip, dB (also the ERL floor)",
     &AEC_tCfg::fErlInitDb, KVAEC_CFG_ERL_INIT_MIN, KVAEC_CFG_ERL_INIT_MAX},
    {PROP_NLP_ATT_MAX_DB, "nlp-att-max-db", "Upper attenuation of the non-linear processor, dB",
     &AEC_tCfg::fNlpAttMaxDb, KVAEC_CFG_NLP_ATT_MIN, KVAEC_CFG_NLP_ATT_MAX},
    {PROP_NLP_ATT_MIN_DB, "nlp-att-min-db", "Lower attenuation of the non-linear processor, dB (not above nlp-att-max-db)",
     &AEC_tCfg::fNlpAttMinDb, KVAEC_CFG_NLP_ATT_MIN, KVAEC_CFG_NLP_ATT_MAX},
    {PROP_DTD_MARGIN_DB, "dtd-margin-db", "Double-talk and NLP margin, dB", &AEC_tCfg::fDtdMarginDb,
     KVAEC_CFG_DTD_MARGIN_MIN, KVAEC_CFG_DTD_MARGIN_MAX},
    {PROP_LEVEL_FLOOR_DB, "level-floor-db", "Level below which a signal counts as absent, dB",
     &AEC_tCfg::fLevelFloorDb, KVAEC_CFG_LEVEL_FLOOR_MIN, KVAEC_CFG_LEVEL_FLOOR_MAX},
    {PROP_NR_LEVEL, "nr-level", "Noise-reduction strength, 0 = off .. 1 = strongest", &AEC_tCfg::fNrLevelDb,
     KVAEC_CFG_NR_LEVEL_MIN, KVAEC_CFG_NR_LEVEL_MAX},
    {PROP_RIN_LEVEL_REF_DB, "rin-level-ref-db", "Receive-level reference, dB", &AEC_tCfg::fRinLevelRefDb,
     KVAEC_CFG_RIN_LEVEL_REF_MIN, KVAEC_CFG_RIN_LEVEL_REF_MAX},
};

const CfgFloatProp *cfg_float_prop(guint id) {
    for (const CfgFloatProp &p : kCfgFloats)
        if (p.id == id) return &p;
    return nullptr;
}

// Applies a configuration change if the whole record stays valid.
void set_cfg(GstKvaecDsp *self, const AEC_tCfg &n, const char *prop) {
    DspState *st = self->st;
    if (const char *why = kvaec_cfg_check(&n)) {
        GST_WARNING_OBJECT(self, "%s refused: %s", prop, why);
        g_warning("kvaecdsp: %s refused: %s", prop, why);
        return;
    }
    st->set.cfg = n;
    st->set.cfg_serial++;
}

void dsp_set_property(GObject *object, guint id, const GValue *value, GParamSpec *pspec) {
    GstKvaecDsp *self = GST_KVAEC_DSP(object);
    DspState *st = self->st;
    bool wake_worker = false;
    GST_OBJECT_LOCK(self);
    Settings &s = st->set;
    if (const CfgFloatProp *p = cfg_float_prop(id)) {
        AEC_tCfg n = s.cfg;
        n.*(p->field) = g_value_get_float(value);
        set_cfg(self, n, p->name);
        GST_OBJECT_UNLOCK(self);
        return;
    }
    switch (id) {
    case PROP_PROBE: s.probe = g_value_get_string(value) ? g_value_get_string(value) : ""; break;
    case PROP_CHANNEL: s.channel = g_value_get_int(value); break;
    case PROP_ECHO_CANCEL: s.echo_cancel = g_value_get_boolean(value); break;
    case PROP_ECHO_SUPPRESSION: s.echo_suppression = g_value_get_boolean(value); break;
    case PROP_NOISE_SUPPRESSION: s.noise_suppression = g_value_get_boolean(value); break;
    case PROP_HIGH_PASS_FILTER: s.hpf = g_value_get_boolean(value); break;
    case PROP_BYPASS: s.bypass = g_value_get_boolean(value); break;
    case PROP_FREEZE: s.freeze = g_value_get_boolean(value); break;
    case PROP_ECHO_DELAY:
        if (s.echo_delay_ms != g_value_get_int(value)) wake_worker = true;
        s.echo_delay_ms = g_value_get_int(value);
        break;
    case PROP_AUTO_ECHO_DELAY:
        if (s.auto_delay != static_cast<bool>(g_value_get_boolean(value))) wake_worker = true;
        s.auto_delay = g_value_get_boolean(value);
        break;
    case PROP_PROFILE: {
        AEC_tCfg n = s.cfg;
        n.iProfile = g_value_get_int(value);
        set_cfg(self, n, "profile");
        break;
    }
    case PROP_POST_MESSAGES: s.post_messages = g_value_get_boolean(value); break;
    case PROP_MESSAGE_INTERVAL: s.interval = g_value_get_uint64(value); break;
    default: G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec); break;
    }
    GST_OBJECT_UNLOCK(self);
    if (wake_worker) {
        // The estimate is relative to echo-delay: a new one starts over.
        g_mutex_lock(&st->wlock);
        st->wreset = true;
        st->wfar.clear();
        st->wmic.clear();
        st->estimate_ms.store(NAN);
        g_cond_broadcast(&st->wcond);
        g_mutex_unlock(&st->wlock);
    }
}

void dsp_get_property(GObject *object, guint id, GValue *value, GParamSpec *pspec) {
    GstKvaecDsp *self = GST_KVAEC_DSP(object);
    DspState *st = self->st;
    GST_OBJECT_LOCK(self);
    const Settings &s = st->set;
    if (const CfgFloatProp *p = cfg_float_prop(id)) {
        g_value_set_float(value, s.cfg.*(p->field));
        GST_OBJECT_UNLOCK(self);
        return;
    }
    switch (id) {
    case PROP_PROBE: g_value_set_string(value, s.probe.c_str()); break;
    case PROP_CHANNEL: g_value_set_int(value, s.channel); break;
    case PROP_ECHO_CANCEL: g_value_set_boolean(value, s.echo_cancel); break;
    case PROP_ECHO_SUPPRESSION: g_value_set_boolean(value, s.echo_suppression); break;
    case PROP_NOISE_SUPPRESSION: g_value_set_boolean(value, s.noise_suppression); break;
    case PROP_HIGH_PASS_FILTER: g_value_set_boolean(value, s.hpf); break;
    case PROP_BYPASS: g_value_set_boolean(value, s.bypass); break;
    case PROP_FREEZE: g_value_set_boolean(value, s.freeze); break;
    case PROP_ECHO_DELAY: g_value_set_int(value, s.echo_delay_ms); break;
    case PROP_AUTO_ECHO_DELAY: g_value_set_boolean(value, s.auto_delay); break;
    case PROP_ECHO_DELAY_ESTIMATE: {
        const double e = st->estimate_ms.load();
        g_value_set_double(value, std::isnan(e) ? -1.0 : e + s.echo_delay_ms);
        break;
    }
    case PROP_PROFILE: g_value_set_int(value, s.cfg.iProfile); break;
    case PROP_STATS: g_value_take_boxed(value, stats_structure(st->stats)); break;
    case PROP_POST_MESSAGES: g_value_set_boolean(value, s.post_messages); break;
    case PROP_MESSAGE_INTERVAL: g_value_set_uint64(value, s.interval); break;
    default: G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec); break;
    }
    GST_OBJECT_UNLOCK(self);
}

void dsp_reset(GstKvaecDsp *self) { self->st->reset_requested.store(true); }

void dsp_finalize(GObject *object) {
    GstKvaecDsp *self = GST_KVAEC_DSP(object);
    DspState *st = self->st;
    worker_stop(st);
    probe_release(st);
    g_mutex_clear(&st->wlock);
    g_mutex_clear(&st->plock);
    g_cond_clear(&st->wcond);
    delete st;
    GstKvaecDsp *me = self;
    g_owner.compare_exchange_strong(me, nullptr);
    G_OBJECT_CLASS(gst_kvaec_dsp_parent_class)->finalize(object);
}

}  // namespace

static void gst_kvaec_dsp_class_init(GstKvaecDspClass *klass) {
    GObjectClass *oc = G_OBJECT_CLASS(klass);
    GstElementClass *ec = GST_ELEMENT_CLASS(klass);
    GstBaseTransformClass *bc = GST_BASE_TRANSFORM_CLASS(klass);
    GstAudioFilterClass *ac = GST_AUDIO_FILTER_CLASS(klass);
    oc->set_property = dsp_set_property;
    oc->get_property = dsp_get_property;
    oc->finalize = dsp_finalize;

    const GParamFlags rw = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS |
                                                    GST_PARAM_MUTABLE_PLAYING);
    const GParamFlags rw_ready = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS |
                                                          GST_PARAM_MUTABLE_READY);
    const GParamFlags ro = static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS);
    g_object_class_install_property(
        oc, PROP_PROBE,
        g_param_spec_string("probe", "Probe", "Name of the kvaecechoprobe element that records the far end",
                            "kvaecechoprobe0", rw_ready));
    g_object_class_install_property(
        oc, PROP_CHANNEL,
        g_param_spec_int("channel", "Channel",
                         "Microphone channel to process (-1 = mean of all); the result goes to every output channel",
                         -1, 7, -1, rw));
    g_object_class_install_property(
        oc, PROP_ECHO_CANCEL,
        g_param_spec_boolean("echo-cancel", "Echo cancel",
                             "Cancel the echo (false: the canceller gets no reference, nothing is cancelled)", TRUE,
                             rw));
    g_object_class_install_property(
        oc, PROP_ECHO_SUPPRESSION,
        g_param_spec_boolean("echo-suppression", "Echo suppression",
                             "Suppress the residual echo (non-linear processor with comfort noise)", TRUE, rw));
    g_object_class_install_property(
        oc, PROP_NOISE_SUPPRESSION,
        g_param_spec_boolean("noise-suppression", "Noise suppression", "Run the noise-reduction chain", TRUE, rw));
    g_object_class_install_property(
        oc, PROP_HIGH_PASS_FILTER,
        g_param_spec_boolean("high-pass-filter", "High-pass filter", "High-pass filter on the send path", TRUE, rw));
    g_object_class_install_property(
        oc, PROP_BYPASS,
        g_param_spec_boolean("bypass", "Bypass",
                             "Pass the microphone through (same latency and band limit; cross-faded over 20 ms, the "
                             "canceller keeps adapting)",
                             FALSE,
                             rw));
    g_object_class_install_property(
        oc, PROP_FREEZE,
        g_param_spec_boolean("freeze", "Freeze", "Adaptive filters stop adapting", FALSE, rw));
    g_object_class_install_property(
        oc, PROP_ECHO_DELAY,
        g_param_spec_int("echo-delay", "Echo delay",
                         "Delay of the echo the sink does not report (e.g. USB or Bluetooth output), ms", 0, 1000, 0,
                         rw));
    g_object_class_install_property(
        oc, PROP_AUTO_ECHO_DELAY,
        g_param_spec_boolean("auto-echo-delay", "Automatic echo delay",
                             "Estimate the unreported echo delay in the background and follow it", FALSE, rw));
    g_object_class_install_property(
        oc, PROP_ECHO_DELAY_ESTIMATE,
        g_param_spec_double("echo-delay-estimate", "Echo delay estimate",
                            "Echo delay in use from the automatic estimate, ms (echo-delay included; -1: none yet)",
                            -1000.0, 3000.0, -1.0, ro));
    for (const CfgFloatProp &p : kCfgFloats) {
        g_object_class_install_property(
            oc, p.id,
            g_param_spec_float(p.name, p.name, p.blurb, p.min, p.max, kvaec_full_duplex_cfg.*(p.field), rw));
    }
    g_object_class_install_property(
        oc, PROP_PROFILE,
        g_param_spec_int("profile", "Profile",
                         "Acoustic profile: 0 none, 1..4 equalizer curves, 5/6 echo tail rules", KVAEC_CFG_PROFILE_MIN,
                         KVAEC_CFG_PROFILE_MAX, kvaec_full_duplex_cfg.iProfile, rw));
    g_object_class_install_property(
        oc, PROP_STATS,
        g_param_spec_boxed("stats", "Statistics",
                           "kvaec-stats: erle-db, erl-db, double-talk, double-talk-frames, echo-path-change, "
                           "underruns, resyncs, slipped-samples, lead-samples, selftest-resets, frames",
                           GST_TYPE_STRUCTURE, ro));
    g_object_class_install_property(
        oc, PROP_POST_MESSAGES,
        g_param_spec_boolean("post-messages", "Post messages",
                             "Post element messages named kvaec-stats with the stats fields", FALSE, rw));
    g_object_class_install_property(
        oc, PROP_MESSAGE_INTERVAL,
        g_param_spec_uint64("message-interval", "Message interval", "Interval of the kvaec-stats messages, ns",
                            GST_MSECOND, G_MAXUINT64, GST_SECOND, rw));

    dsp_signals[SIGNAL_RESET] =
        g_signal_new_class_handler("reset", G_TYPE_FROM_CLASS(klass),
                                   static_cast<GSignalFlags>(G_SIGNAL_RUN_LAST | G_SIGNAL_ACTION),
                                   G_CALLBACK(dsp_reset), nullptr, nullptr, nullptr, G_TYPE_NONE, 0);

    gst_element_class_set_static_metadata(
        ec, "Acoustic echo canceller (kvaec)", "Filter/Effect/Audio",
        "Cancels the echo of the far end recorded by kvaecechoprobe from the microphone signal (libkvaec)",
        "libkvaec developers");
    GstCaps *caps = gst_caps_from_string(CAPS_STR);
    gst_audio_filter_class_add_pad_templates(ac, caps);
    gst_caps_unref(caps);
    ec->change_state = dsp_change_state;
    bc->passthrough_on_same_caps = FALSE;
    // Output is made by generate_output; transform_ip is only declared so
    // that the base class never takes the element for a pass-through.
    bc->transform_ip = dsp_transform_ip_unused;
    bc->generate_output = dsp_generate_output;
    bc->sink_event = dsp_sink_event;
    bc->query = dsp_query;
    bc->start = dsp_start;
    bc->stop = dsp_stop;
    ac->setup = dsp_setup;
}

static void gst_kvaec_dsp_init(GstKvaecDsp *self) {
    self->st = new DspState();
    g_mutex_init(&self->st->wlock);
    g_mutex_init(&self->st->plock);
    g_cond_init(&self->st->wcond);
    gst_base_transform_set_in_place(GST_BASE_TRANSFORM(self), FALSE);
    gst_base_transform_set_passthrough(GST_BASE_TRANSFORM(self), FALSE);
}
