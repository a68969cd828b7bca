#include "gst_support.h"

#include "closed_loop.h"

#include <samplerate.h>

#include <algorithm>
#include <cmath>
#include <cstring>

namespace kvaec::gsttest {

bool loadPlugin(std::string *err) {
    GError *e = nullptr;
    GstPlugin *p = gst_plugin_load_file(KVAEC_GST_PLUGIN, &e);
    if (!p) {
        if (err) *err = std::string(KVAEC_GST_PLUGIN) + ": " + (e ? e->message : "cannot load");
        if (e) g_error_free(e);
        return false;
    }
    gst_object_unref(p);
    return true;
}

std::string capsString(Fmt fmt, int rate, int channels) {
    return std::string("audio/x-raw,format=") + (fmt == Fmt::F32 ? "F32LE" : "S16LE") +
           ",rate=" + std::to_string(rate) + ",channels=" + std::to_string(channels) +
           ",layout=interleaved" + (channels > 2 ? ",channel-mask=(bitmask)0x0" : "");
}

GstElement *makeElement(const char *factory, const char *name) {
    GstElement *e = gst_element_factory_make(factory, name);
    g_assert_nonnull(e);
    return e;
}

Stream::Stream(GstElement *element, Fmt fmt, int rate, int channels, double ppm)
    : element_(element), fmt_(fmt), rate_(rate), channels_(channels), ppm_(ppm) {
    gst_object_ref_sink(element_);
    h_ = gst_harness_new_with_element(element_, "sink", "src");
    gst_harness_set_src_caps_str(h_, capsString(fmt, rate, channels).c_str());
}

Stream::~Stream() { teardown(); }

void Stream::teardown() {
    if (h_) {
        gst_harness_teardown(h_);
        h_ = nullptr;
    }
    if (element_) {
        gst_object_unref(element_);
        element_ = nullptr;
    }
}

GstFlowReturn Stream::push(const float *x, int frames) {
    const size_t n = static_cast<size_t>(frames) * static_cast<size_t>(channels_);
    const size_t bps = fmt_ == Fmt::F32 ? 4 : 2;
    GstBuffer *buf = gst_buffer_new_allocate(nullptr, n * bps, nullptr);
    GstMapInfo map;
    gst_buffer_map(buf, &map, GST_MAP_WRITE);
    if (fmt_ == Fmt::F32) {
        std::memcpy(map.data, x, n * 4);
    } else {
        auto *d = reinterpret_cast<int16_t *>(map.data);
        for (size_t i = 0; i < n; ++i) {
            const double v = std::lround(static_cast<double>(x[i]) * 32768.0);
            d[i] = static_cast<int16_t>(std::clamp(v, -32768.0, 32767.0));
        }
    }
    inBytes_.insert(inBytes_.end(), map.data, map.data + map.size);
    gst_buffer_unmap(buf, &map);
    const double rate = rate_ * (1.0 + ppm_ * 1e-6);
    const auto t = [rate](uint64_t off) {
        return static_cast<GstClockTime>(std::llround(static_cast<double>(off) * GST_SECOND / rate));
    };
    GST_BUFFER_PTS(buf) = t(offset_);
    GST_BUFFER_DURATION(buf) = t(offset_ + static_cast<uint64_t>(frames)) - t(offset_);
    GST_BUFFER_OFFSET(buf) = offset_;
    GST_BUFFER_OFFSET_END(buf) = offset_ + static_cast<uint64_t>(frames);
    inPts_.push_back(GST_BUFFER_PTS(buf));
    offset_ += static_cast<uint64_t>(frames);
    const GstFlowReturn r = gst_harness_push(h_, buf);
    pullAll();
    return r;
}

void Stream::eos() {
    gst_harness_push_event(h_, gst_event_new_eos());
    pullAll();
}

void Stream::pullAll() {
    GstBuffer *b;
    while ((b = gst_harness_try_pull(h_)) != nullptr) {
        GstMapInfo map;
        gst_buffer_map(b, &map, GST_MAP_READ);
        outBytes_.insert(outBytes_.end(), map.data, map.data + map.size);
        if (fmt_ == Fmt::F32) {
            const auto *s = reinterpret_cast<const float *>(map.data);
            out_.insert(out_.end(), s, s + map.size / 4);
        } else {
            const auto *s = reinterpret_cast<const int16_t *>(map.data);
            for (size_t i = 0; i < map.size / 2; ++i) out_.push_back(static_cast<float>(s[i]) / 32768.0f);
        }
        gst_buffer_unmap(b, &map);
        outPts_.push_back(GST_BUFFER_PTS(b));
        outDur_.push_back(GST_BUFFER_DURATION(b));
        gst_buffer_unref(b);
    }
}

GstCaps *Stream::outCaps() const {
    GstPad *src = gst_element_get_static_pad(element_, "src");
    GstCaps *c = gst_pad_get_current_caps(src);
    gst_object_unref(src);
    return c;
}

std::vector<float> speech(uint32_t seed, int rate, double seconds, double levelDbfs, bool bursts) {
    sim::SpeechLike s(seed, levelDbfs, bursts, rate);
    std::vector<float> x(static_cast<size_t>(seconds * rate));
    // In blocks: the generator works frame by frame.
    const int block = rate / 100;
    for (size_t i = 0; i < x.size(); i += static_cast<size_t>(block)) {
        const int n = static_cast<int>(std::min<size_t>(static_cast<size_t>(block), x.size() - i));
        s.fill(x.data() + i, n);
    }
    return x;
}

std::vector<float> echoOf(const std::vector<float> &x, uint32_t seed, int rate, double bulkMs, double erlDb,
                          double tailMs) {
    const std::vector<float> h = sim::makeEchoPath(seed, bulkMs, tailMs, erlDb, rate);
    size_t first = 0;
    while (first < h.size() && h[first] == 0.0f) ++first;
    std::vector<float> y(x.size(), 0.0f);
    for (size_t n = first; n < x.size(); ++n) {
        double acc = 0;
        const size_t kmax = std::min(h.size() - 1, n);
        for (size_t k = first; k <= kmax; ++k) acc += static_cast<double>(h[k]) * x[n - k];
        y[n] = static_cast<float>(acc);
    }
    return y;
}

std::vector<float> resample(const std::vector<float> &x, double ratio) {
    std::vector<float> y(static_cast<size_t>(std::ceil(static_cast<double>(x.size()) * ratio)) + 16);
    SRC_DATA d{};
    d.data_in = x.data();
    d.input_frames = static_cast<long>(x.size());
    d.data_out = y.data();
    d.output_frames = static_cast<long>(y.size());
    d.src_ratio = ratio;
    const int err = src_simple(&d, SRC_SINC_BEST_QUALITY, 1);
    g_assert_cmpint(err, ==, 0);
    y.resize(static_cast<size_t>(d.output_frames_gen));
    return y;
}

std::vector<float> interleave(const std::vector<std::vector<float>> &ch) {
    const size_t c = ch.size(), n = ch[0].size();
    std::vector<float> y(c * n);
    for (size_t i = 0; i < n; ++i)
        for (size_t k = 0; k < c; ++k) y[i * c + k] = ch[k][i];
    return y;
}

std::vector<float> channelOf(const std::vector<float> &x, int channels, int c) {
    std::vector<float> y(x.size() / static_cast<size_t>(channels));
    for (size_t i = 0; i < y.size(); ++i) y[i] = x[i * static_cast<size_t>(channels) + static_cast<size_t>(c)];
    return y;
}

double powerDb(const std::vector<float> &x, size_t from, size_t to) {
    to = std::min(to, x.size());
    double p = 0;
    for (size_t i = from; i < to; ++i) p += static_cast<double>(x[i]) * x[i];
    p /= static_cast<double>(std::max<size_t>(1, to - from));
    return 10.0 * std::log10(p + 1e-30);
}

GstStructure *stats(GstElement *dsp) {
    GstStructure *s = nullptr;
    g_object_get(dsp, "stats", &s, nullptr);
    return s;
}

}  // namespace kvaec::gsttest
