// Cost of the GStreamer elements per 10 ms at 48 kHz stereo against the
// library's own frame cost:
//   - element: kvaecechoprobe and kvaecdsp in GstHarness, one 10 ms buffer
//     (480 stereo F32 frames) pushed through each per period, output pulled;
//     the buffers are made before the clock starts, so the figure is the
//     elements' work (format conversion, resampling to and from 16 kHz, the
//     reference ring, the canceller) and GStreamer's push path;
//   - library: aecx_process on 160 samples of the same signals at 16 kHz.
// CPU time of the process (the elements' own threads included), median of
// the repetitions.
//
//   kvaec_gst_bench [frames=1000] [repetitions=5]
#include <gst/check/gstharness.h>
#include <gst/gst.h>

#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "closed_loop.h"
#include "kvaec.h"

namespace {

// Process CPU time: the element's figure includes its background thread
// (the delay estimate's worker), if it runs.
double threadSeconds() {
    timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + 1e-9 * static_cast<double>(ts.tv_nsec);
}

// Far end (speech-like) and its echo through a 60 ms room response, at `rate`.
void signals(int rate, int samples, std::vector<float> &far, std::vector<float> &mic) {
    kvaec::sim::SpeechLike s(201, -20.0, false, rate);
    far.assign(static_cast<size_t>(samples), 0.0f);
    for (int i = 0; i < samples; i += rate / 100) s.fill(far.data() + i, std::min(rate / 100, samples - i));
    const auto h = kvaec::sim::makeEchoPath(202, 5.0, 60.0, 10.0, rate);
    mic.assign(far.size(), 0.0f);
    for (size_t n = 0; n < far.size(); ++n) {
        double acc = 0;
        for (size_t k = 0; k < h.size() && k <= n; ++k) acc += static_cast<double>(h[k]) * far[n - k];
        mic[n] = static_cast<float>(acc);
    }
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

double libraryPerFrame(int frames) {
    std::vector<float> far, mic;
    signals(KVAEC_SAMPLE_RATE, frames * KVAEC_FRAME_SAMPLES, far, mic);
    aecx_init(&kvaec_full_duplex_cfg);
    float r[KVAEC_FRAME_SAMPLES], s[KVAEC_FRAME_SAMPLES];
    const double t0 = threadSeconds();
    for (int f = 0; f < frames; ++f) {
        std::memcpy(r, far.data() + f * KVAEC_FRAME_SAMPLES, sizeof r);
        std::memcpy(s, mic.data() + f * KVAEC_FRAME_SAMPLES, sizeof s);
        aecx_process(r, s);
    }
    return (threadSeconds() - t0) / frames;
}

GstBuffer *stereoBuffer(const float *x, int n, int index) {
    GstBuffer *b = gst_buffer_new_allocate(nullptr, static_cast<size_t>(n) * 2 * sizeof(float), nullptr);
    GstMapInfo map;
    gst_buffer_map(b, &map, GST_MAP_WRITE);
    auto *d = reinterpret_cast<float *>(map.data);
    for (int i = 0; i < n; ++i) d[2 * i] = d[2 * i + 1] = x[i];
    gst_buffer_unmap(b, &map);
    GST_BUFFER_PTS(b) = static_cast<GstClockTime>(index) * 10 * GST_MSECOND;
    GST_BUFFER_DURATION(b) = 10 * GST_MSECOND;
    return b;
}

// CPU time of the probe's share of the last elementPerFrame run.
double g_probeShare = 0;

double elementPerFrame(int frames) {
    const int rate = 48000, n = rate / 100;
    std::vector<float> far, mic;
    signals(rate, frames * n, far, mic);
    std::vector<GstBuffer *> fb, mb;
    for (int f = 0; f < frames; ++f) {
        fb.push_back(stereoBuffer(far.data() + f * n, n, f));
        mb.push_back(stereoBuffer(mic.data() + f * n, n, f));
    }
    GstElement *probe = gst_element_factory_make("kvaecechoprobe", "bench-probe");
    GstElement *dsp = gst_element_factory_make("kvaecdsp", "bench-dsp");
    if (!probe || !dsp) {
        std::fprintf(stderr, "kvaecechoprobe / kvaecdsp not found\n");
        std::exit(1);
    }
    g_object_set(dsp, "probe", "bench-probe", nullptr);
    const char *caps = "audio/x-raw,format=F32LE,rate=48000,channels=2,layout=interleaved";
    GstHarness *hp = gst_harness_new_with_element(probe, "sink", "src");
    gst_harness_set_src_caps_str(hp, caps);
    GstHarness *hd = gst_harness_new_with_element(dsp, "sink", "src");
    gst_harness_set_src_caps_str(hd, caps);
    // The far end runs kLead buffers ahead of the microphone, as a playback
    // branch runs ahead of what its sink plays: the dsp never waits for it.
    constexpr int kLead = 10;
    GstBuffer *o;
    for (int f = 0; f < kLead; ++f) {
        gst_harness_push(hp, fb[static_cast<size_t>(f)]);
        while ((o = gst_harness_try_pull(hp)) != nullptr) gst_buffer_unref(o);
    }
    const double t0 = threadSeconds();
    double probeT = 0;
    for (int f = 0; f < frames - kLead; ++f) {
        const double p0 = threadSeconds();
        gst_harness_push(hp, fb[static_cast<size_t>(f + kLead)]);
        while ((o = gst_harness_try_pull(hp)) != nullptr) gst_buffer_unref(o);
        probeT += threadSeconds() - p0;
        gst_harness_push(hd, mb[static_cast<size_t>(f)]);
        while ((o = gst_harness_try_pull(hd)) != nullptr) gst_buffer_unref(o);
    }
    const double t = (threadSeconds() - t0) / (frames - kLead);
    g_probeShare = probeT / (frames - kLead);
    for (int f = frames - kLead; f < frames; ++f) gst_buffer_unref(mb[static_cast<size_t>(f)]);
    gst_harness_teardown(hd);
    gst_harness_teardown(hp);
    return t;
}

}  // namespace

int main(int argc, char **argv) {
    const int frames = argc > 1 ? std::atoi(argv[1]) : 1000;
    const int reps = argc > 2 ? std::atoi(argv[2]) : 5;
    gst_init(nullptr, nullptr);
    GError *err = nullptr;
    GstPlugin *p = gst_plugin_load_file(KVAEC_GST_PLUGIN, &err);
    if (!p) {
        std::fprintf(stderr, "%s: %s\n", KVAEC_GST_PLUGIN, err ? err->message : "cannot load");
        return 1;
    }
    gst_object_unref(p);
    std::vector<double> lib, el, pr;
    for (int r = 0; r < reps; ++r) {
        lib.push_back(libraryPerFrame(frames));
        el.push_back(elementPerFrame(frames));
        pr.push_back(g_probeShare);
    }
    const double l = median(lib), e = median(el), pm = median(pr);
    std::printf("frames per run: %d, repetitions: %d (medians, process CPU time)\n", frames, reps);
    std::printf("library  aecx_process, 160 samples at 16 kHz:          %8.2f us per 10 ms\n", l * 1e6);
    std::printf("elements kvaecechoprobe + kvaecdsp, 48 kHz stereo F32: %8.2f us per 10 ms\n", e * 1e6);
    std::printf("  of which kvaecechoprobe:                              %8.2f us per 10 ms\n", pm * 1e6);
    std::printf("ratio elements / library: %.3f\n", e / l);
    return 0;
}
