// The GStreamer elements kvaecechoprobe (playback branch) and kvaecdsp
// (capture branch), driven through GstHarness without audio devices: the far
// end goes through the probe, the microphone (echo of the far end through a
// decaying room response, and/or near-end speech) through the dsp, buffer by
// buffer with exact timestamps, so every run is the same.
#include "gst_support.h"

#include "kvaec.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <thread>

#include <unistd.h>

using namespace kvaec::gsttest;

namespace {

// The probe and the dsp of one test, the dsp looking for the probe by name.
struct Pair {
    Stream probe;
    Stream dsp;
    Pair(Fmt farFmt, int farRate, int farCh, Fmt micFmt, int micRate, int micCh, double micPpm = 0.0,
         const std::function<void(GstElement *)> &setup = nullptr)
        : probe(makeElement("kvaecechoprobe", "test-probe"), farFmt, farRate, farCh),
          dsp(configured(setup), micFmt, micRate, micCh, micPpm) {}

    static GstElement *configured(const std::function<void(GstElement *)> &setup) {
        GstElement *d = makeElement("kvaecdsp", "test-dsp");
        g_object_set(d, "probe", "test-probe", nullptr);
        if (setup) setup(d);
        return d;
    }

    // Pushes far and mic (interleaved) in blocks of `blockMs`, the far end
    // `leadBlocks` blocks ahead of the microphone, as a playback branch runs
    // ahead of what the loudspeaker plays; then EOS on both (the dsp
    // flushes what it holds back). `far` may be empty (no far end: nothing
    // goes through the probe). `between(b)` runs before microphone block b.
    void run(const std::vector<float> &far, const std::vector<float> &mic, double blockMs = 10.0,
             const std::function<void(size_t block)> &between = nullptr, size_t leadBlocks = 10) {
        const size_t fb = static_cast<size_t>(std::lround(probe.rate() * blockMs / 1000.0));
        const size_t mb = static_cast<size_t>(std::lround(dsp.rate() * blockMs / 1000.0));
        const size_t fch = static_cast<size_t>(probe.channels()), mch = static_cast<size_t>(dsp.channels());
        size_t fi = 0, mi = 0;
        const auto pushFar = [&] {
            if (fi >= far.size()) return;
            const size_t n = std::min(fb, (far.size() - fi) / fch);
            ASSERT_EQ(probe.push(far.data() + fi, static_cast<int>(n)), GST_FLOW_OK);
            fi += n * fch;
        };
        for (size_t b = 0; b < leadBlocks; ++b) pushFar();
        for (size_t b = 0; fi < far.size() || mi < mic.size(); ++b) {
            pushFar();
            if (mi < mic.size()) {
                if (between) between(b);
                const size_t n = std::min(mb, (mic.size() - mi) / mch);
                ASSERT_EQ(dsp.push(mic.data() + mi, static_cast<int>(n)), GST_FLOW_OK);
                mi += n * mch;
            }
        }
        if (!far.empty()) probe.eos();
        dsp.eos();
    }
};

// Echo loss of the dsp over [fromS, toS) seconds of one channel: echo power
// at the microphone over power in the output. The output lags the input by
// the dsp's latency (tens of milliseconds), negligible against windows of
// seconds of a stationary signal.
double reductionDb(const std::vector<float> &micEcho, const std::vector<float> &out, int rate, double fromS,
                   double toS) {
    const size_t a = static_cast<size_t>(fromS * rate), b = static_cast<size_t>(toS * rate);
    return powerDb(micEcho, a, b) - powerDb(out, a, b);
}

void linearOnly(GstElement *d) { g_object_set(d, "echo-suppression", FALSE, "noise-suppression", FALSE, nullptr); }

std::vector<float> randomSamples(uint32_t seed, size_t n, float level) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(-level, level);
    std::vector<float> x(n);
    for (auto &v : x) v = u(rng);
    return x;
}

// Bus error of a pipeline (domain, code, message and debug text), or none.
struct BusError {
    bool any = false;
    GQuark domain = 0;
    int code = 0;
    std::string text;
};
BusError popError(GstElement *pipeline) {
    BusError r;
    GstBus *bus = gst_element_get_bus(pipeline);
    GstMessage *m = gst_bus_pop_filtered(bus, GST_MESSAGE_ERROR);
    if (m) {
        GError *e = nullptr;
        gchar *dbg = nullptr;
        gst_message_parse_error(m, &e, &dbg);
        r.any = true;
        r.domain = e->domain;
        r.code = e->code;
        r.text = std::string(e->message) + " | " + (dbg ? dbg : "");
        g_error_free(e);
        g_free(dbg);
        gst_message_unref(m);
    }
    gst_object_unref(bus);
    return r;
}

}  // namespace

// ---- the probe ----

TEST(EchoProbe, PassesBytesAndTimestampsUntouched) {
    struct Case { Fmt fmt; int rate, ch; };
    for (const Case c : {Case{Fmt::S16, 44100, 2}, Case{Fmt::F32, 48000, 1}, Case{Fmt::F32, 8000, 6}}) {
        Stream p(makeElement("kvaecechoprobe", nullptr), c.fmt, c.rate, c.ch);
        std::mt19937 rng(7);
        std::uniform_int_distribution<int> len(1, c.rate / 25);
        const auto x = randomSamples(3, static_cast<size_t>(c.rate * c.ch), 0.9f);
        size_t i = 0;
        while (i + static_cast<size_t>(c.rate / 25 * c.ch) < x.size()) {
            const int n = len(rng);
            ASSERT_EQ(p.push(x.data() + i, n), GST_FLOW_OK);
            i += static_cast<size_t>(n * c.ch);
        }
        EXPECT_EQ(p.outBytes(), p.inBytes()) << capsString(c.fmt, c.rate, c.ch);
        EXPECT_EQ(p.outPts(), p.inPts()) << capsString(c.fmt, c.rate, c.ch);
        GstCaps *oc = p.outCaps();
        GstCaps *ic = gst_caps_from_string(capsString(c.fmt, c.rate, c.ch).c_str());
        ASSERT_NE(oc, nullptr);
        EXPECT_TRUE(gst_caps_is_equal(oc, ic)) << gst_caps_to_string(oc);
        gst_caps_unref(oc);
        gst_caps_unref(ic);
    }
}

// ---- linear echo reduction ----

struct RateDelay { int rate; double bulkMs; };
class LinearEcho : public ::testing::TestWithParam<RateDelay> {};

// Echo of speech-like far end 10 dB below it, no near end, only the linear
// canceller (no residual suppression, no noise reduction): what it removes
// after convergence is the adaptive filter's work alone. 33 dB is what the
// canceller's linear stage reaches on such a room response at 16 kHz with a
// margin of a few dB; the resampling around it (44.1 and 48 kHz) must not
// cost that margin.
TEST_P(LinearEcho, ReducesEchoBy33DbAfterConvergence) {
    const auto [rate, bulkMs] = GetParam();
    const auto far = speech(11, rate, 10.0, -20.0);
    const auto echo = echoOf(far, 12, rate, bulkMs, 10.0);
    Pair s(Fmt::F32, rate, 1, Fmt::F32, rate, 1, 0.0, linearOnly);
    s.run(far, echo);
    ASSERT_EQ(s.dsp.out().size(), echo.size());
    const double r = reductionDb(echo, s.dsp.out(), rate, 5.0, 10.0);
    RecordProperty("reduction_db", std::to_string(r));
    EXPECT_GE(r, 33.0) << "rate " << rate << " bulk delay " << bulkMs << " ms";
}

INSTANTIATE_TEST_SUITE_P(RatesAndDelays, LinearEcho,
                         ::testing::Values(RateDelay{16000, 0}, RateDelay{16000, 5}, RateDelay{16000, 20},
                                           RateDelay{44100, 0}, RateDelay{44100, 5}, RateDelay{44100, 20},
                                           RateDelay{48000, 0}, RateDelay{48000, 5}, RateDelay{48000, 20}),
                         [](const auto &i) {
                             return std::to_string(i.param.rate) + "Hz_" +
                                    std::to_string(static_cast<int>(i.param.bulkMs)) + "ms";
                         });

// Far end 48 kHz stereo S16 (two different talkers, mixed to mono by the
// probe), microphone 44.1 kHz mono F32 with the echo of that mix: the probe
// and the dsp convert each side on its own. 30 dB: the S16 far end and the
// two conversions leave a little less than the single-rate case.
TEST(DspAndProbe, CancelAcrossRatesChannelsAndFormats) {
    const auto l = speech(21, 48000, 10.0, -20.0), r = speech(22, 48000, 10.0, -20.0);
    std::vector<float> mix(l.size());
    for (size_t i = 0; i < l.size(); ++i) mix[i] = 0.5f * (l[i] + r[i]);
    // What the loudspeakers play, heard at the microphone's rate.
    const auto mix441 = resample(mix, 44100.0 / 48000.0);
    const auto echo = echoOf(mix441, 23, 44100, 5.0, 10.0);
    Pair s(Fmt::S16, 48000, 2, Fmt::F32, 44100, 1, 0.0, linearOnly);
    s.run(interleave({l, r}), echo);
    ASSERT_EQ(s.dsp.out().size(), echo.size());
    const double red = reductionDb(echo, s.dsp.out(), 44100, 5.0, 9.5);
    RecordProperty("reduction_db", std::to_string(red));
    EXPECT_GE(red, 30.0);
}

// ---- delay ----

// 100 ms of delay that nobody reports (a USB or Bluetooth sink): with
// auto-echo-delay the dsp finds it. A few milliseconds: the estimate works
// on blocks of the 16 kHz reference and the room response adds its own
// spread behind the pure delay.
TEST(Dsp, AutoEchoDelayFindsUnreportedDelay) {
    const int rate = 16000;
    const auto far = speech(31, rate, 15.0, -20.0, true);
    const auto echo = echoOf(far, 32, rate, 100.0, 10.0);
    Pair s(Fmt::F32, rate, 1, Fmt::F32, rate, 1, 0.0, [](GstElement *d) {
        g_object_set(d, "auto-echo-delay", TRUE, nullptr);
    });
    double before = 0;
    g_object_get(s.dsp.element(), "echo-delay-estimate", &before, nullptr);
    EXPECT_EQ(before, -1.0);
    s.run(far, echo);
    double est = -1;
    g_object_get(s.dsp.element(), "echo-delay-estimate", &est, nullptr);
    RecordProperty("estimate_ms", std::to_string(est));
    EXPECT_NEAR(est, 100.0, 4.0);
    // Following the estimate, the canceller cancels again.
    EXPECT_GE(reductionDb(echo, s.dsp.out(), rate, 10.0, 15.0), 20.0);
}

// ---- near end, format ----

// Near-end speech alone (the probe never plays anything) goes through the
// default chain within 3 dB: noise reduction, high-pass and residual
// suppression leave a talker alone when there is no echo to remove.
TEST(Dsp, NearEndAlonePassesWithin3Db) {
    const int rate = 48000;
    const auto near = speech(41, rate, 8.0, -26.0, true);
    Pair s(Fmt::F32, rate, 1, Fmt::F32, rate, 1);
    s.run({}, near);
    ASSERT_EQ(s.dsp.out().size(), near.size());
    const double d = powerDb(s.dsp.out(), rate, 8 * rate) - powerDb(near, rate, 8 * rate);
    RecordProperty("level_change_db", std::to_string(d));
    EXPECT_LE(std::fabs(d), 3.0);
}

// The output has the input's caps, the same number of samples once EOS is
// through, the first timestamp of the input and every output channel the
// same processed signal; blocks of odd sizes, not multiples of 10 ms.
TEST(Dsp, OutputKeepsLengthRateChannelsFormatAndFirstTimestamp) {
    struct Case { Fmt fmt; int rate, ch; };
    for (const Case c : {Case{Fmt::S16, 44100, 2}, Case{Fmt::F32, 32000, 3}, Case{Fmt::F32, 8000, 1}}) {
        Pair s(Fmt::F32, 48000, 1, c.fmt, c.rate, c.ch);
        std::vector<std::vector<float>> chans;
        for (int k = 0; k < c.ch; ++k) chans.push_back(speech(50 + static_cast<uint32_t>(k), c.rate, 2.0, -26.0));
        const auto mic = interleave(chans);
        std::mt19937 rng(5);
        std::uniform_int_distribution<int> len(1, c.rate / 20);
        size_t i = 0;
        while (i < mic.size()) {
            const int n = std::min(len(rng), static_cast<int>((mic.size() - i) / static_cast<size_t>(c.ch)));
            ASSERT_EQ(s.dsp.push(mic.data() + i, n), GST_FLOW_OK);
            i += static_cast<size_t>(n * c.ch);
        }
        s.dsp.eos();
        const std::string what = capsString(c.fmt, c.rate, c.ch);
        EXPECT_EQ(s.dsp.outBytes().size(), s.dsp.inBytes().size()) << what;
        ASSERT_FALSE(s.dsp.outPts().empty()) << what;
        EXPECT_EQ(s.dsp.outPts().front(), s.dsp.inPts().front()) << what;
        GstCaps *oc = s.dsp.outCaps();
        GstCaps *ic = gst_caps_from_string(what.c_str());
        ASSERT_NE(oc, nullptr);
        EXPECT_TRUE(gst_caps_is_equal(oc, ic)) << gst_caps_to_string(oc);
        gst_caps_unref(oc);
        gst_caps_unref(ic);
        // The result goes to every channel.
        const auto &o = s.dsp.out();
        for (int k = 1; k < c.ch; ++k) EXPECT_EQ(channelOf(o, c.ch, k), channelOf(o, c.ch, 0)) << what;
        // And it is not silence.
        EXPECT_GT(powerDb(channelOf(o, c.ch, 0), 0, o.size()), -40.0) << what;
    }
}

// ---- latency ----

// What kvaecdsp adds to the LATENCY query, as docs/gstreamer.md breaks it
// down: one 10 ms frame of framing; the processing delay in input-rate
// samples (the converters down to and up from 16 kHz and the library's
// send-path delay of KVAEC_SND_DELAY_SAMPLES at 16 kHz: at 16 kHz no
// converter, 120; at 48 kHz the FIR decimator's 16 * 3 samples plus
// (120 + the FIR interpolator's 16) * 3 = 456; at 44.1 kHz SpeexDSP's at
// quality 5, 553); the
// reference lead at 16 kHz: the alignment shift for no known echo delay with
// a 2 ms margin (kvaec_align_shift(0, 32) = 352), one frame, and the 9
// samples of the fractional-delay interpolator's reach = 521 samples.
struct LatencyParts { int rate; int processing; };
constexpr LatencyParts kLatencyTable[] = {{16000, 120}, {44100, 553}, {48000, 456}};
constexpr GstClockTime kFraming = 10 * GST_MSECOND;
const int kLead16 = kvaec_align_shift(0, 32) + KVAEC_FRAME_SAMPLES + 9;
const GstClockTime kLead = gst_util_uint64_scale(static_cast<guint64>(kLead16), GST_SECOND, 16000);

// The latency query gives the documented sum; the output keeps the input's
// timestamps (the bypassed dsp's output correlates with its input at lag
// 0); and the dsp holds back the framing and the processing delay, to
// within one 16 kHz sample (pushing one sample at a time, the most input not
// yet out). The lead is not held back on the microphone side: it makes the
// probe place the far end further ahead (running time + pipeline latency).
TEST(Dsp, LatencyQueryEqualsDocumentedSumAndOutputKeepsTimestamps) {
    for (const LatencyParts p : kLatencyTable) {
        const int rate = p.rate;
        Pair s(Fmt::F32, rate, 1, Fmt::F32, rate, 1, 0.0, [](GstElement *d) {
            g_object_set(d, "bypass", TRUE, nullptr);
        });
        EXPECT_EQ(kLead16, 521);
        gst_harness_set_upstream_latency(s.dsp.harness(), 0);
        const GstClockTime processing = gst_util_uint64_scale(static_cast<guint64>(p.processing), GST_SECOND,
                                                              static_cast<guint64>(rate));
        EXPECT_EQ(gst_harness_query_latency(s.dsp.harness()), kFraming + processing + kLead) << "rate " << rate;
        // Upstream latency adds to it.
        gst_harness_set_upstream_latency(s.dsp.harness(), 7 * GST_MSECOND);
        EXPECT_EQ(gst_harness_query_latency(s.dsp.harness()), 7 * GST_MSECOND + kFraming + processing + kLead);

        const auto x = randomSamples(61, static_cast<size_t>(rate / 2), 0.3f);
        // The far end runs 100 ms ahead, as in every test here.
        const auto far = std::vector<float>(static_cast<size_t>(rate * 7 / 10), 0.0f);
        ASSERT_EQ(s.probe.push(far.data(), static_cast<int>(far.size())), GST_FLOW_OK);
        int64_t held = 0;
        for (size_t i = 0; i < x.size(); ++i) {
            ASSERT_EQ(s.dsp.push(x.data() + i, 1), GST_FLOW_OK);
            held = std::max<int64_t>(held, static_cast<int64_t>(i + 1) - static_cast<int64_t>(s.dsp.out().size()));
        }
        // A frame is processed once its last 16 kHz sample is in: up to one
        // 16 kHz sample's worth of input less than framing + processing.
        const int64_t framing = rate / 100, sample16 = (rate + 15999) / 16000;
        EXPECT_LE(held, framing + p.processing) << "rate " << rate;
        EXPECT_GE(held, framing + p.processing - sample16) << "rate " << rate;
        s.dsp.eos();
        ASSERT_EQ(s.dsp.out().size(), x.size());
        // Cross-correlation of output and input over lags -20..20 samples.
        const auto &y = s.dsp.out();
        int best = 0;
        double bestC = -1;
        for (int lag = -20; lag <= 20; ++lag) {
            double c = 0;
            for (size_t n = 100; n + 100 < x.size(); ++n) c += static_cast<double>(y[n]) * x[static_cast<size_t>(static_cast<int64_t>(n) - lag)];
            if (c > bestC) { bestC = c; best = lag; }
        }
        EXPECT_EQ(best, 0) << "rate " << rate;
    }
}

// ---- errors ----

TEST(Dsp, MissingProbeFailsWithErrorNamingIt) {
    GstElement *pipe = gst_parse_launch(
        "audiotestsrc num-buffers=5 ! audio/x-raw,rate=16000,channels=1 ! kvaecdsp probe=no-such-probe ! fakesink",
        nullptr);
    ASSERT_NE(pipe, nullptr);
    EXPECT_EQ(gst_element_set_state(pipe, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    const BusError e = popError(pipe);
    EXPECT_TRUE(e.any);
    EXPECT_EQ(e.domain, GST_RESOURCE_ERROR);
    EXPECT_EQ(e.code, GST_RESOURCE_ERROR_NOT_FOUND);
    EXPECT_NE(e.text.find("no-such-probe"), std::string::npos) << e.text;
    gst_element_set_state(pipe, GST_STATE_NULL);
    gst_object_unref(pipe);
}

TEST(Dsp, SecondDspIsBusyUntilTheFirstIsGone) {
    GstElement *first = gst_parse_launch(
        "audiotestsrc is-live=true ! kvaecechoprobe name=p1 ! fakesink "
        "audiotestsrc is-live=true ! kvaecdsp probe=p1 ! fakesink", nullptr);
    GstElement *second = gst_parse_launch(
        "audiotestsrc num-buffers=5 ! kvaecechoprobe name=p2 ! fakesink "
        "audiotestsrc num-buffers=5 ! kvaecdsp probe=p2 ! fakesink", nullptr);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    ASSERT_NE(gst_element_set_state(first, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    EXPECT_EQ(gst_element_set_state(second, GST_STATE_READY), GST_STATE_CHANGE_FAILURE);
    const BusError e = popError(second);
    EXPECT_TRUE(e.any);
    EXPECT_EQ(e.domain, GST_RESOURCE_ERROR);
    EXPECT_EQ(e.code, GST_RESOURCE_ERROR_BUSY);
    EXPECT_NE(e.text.find("only one kvaecdsp per process"), std::string::npos) << e.text;
    gst_element_set_state(second, GST_STATE_NULL);
    // Once the first has stopped, the second starts.
    gst_element_set_state(first, GST_STATE_NULL);
    gst_object_unref(first);
    EXPECT_EQ(gst_element_set_state(second, GST_STATE_READY), GST_STATE_CHANGE_SUCCESS);
    EXPECT_FALSE(popError(second).any);
    gst_element_set_state(second, GST_STATE_NULL);
    gst_object_unref(second);
}

// ---- two pipelines ----

// The snippet of docs/gstreamer.md: playback and capture in two live
// pipelines of one process, the capture pipeline on the playback pipeline's
// clock and base time. After 1.5 s of real time the dsp has run its frames
// with the reference there (underruns only at the start, before the far end
// has filled the lead).
TEST(Dsp, TwoPipelinesSharingOneClockFindTheReference) {
    GstElement *play = gst_parse_launch(
        "audiotestsrc is-live=true wave=pink-noise ! audio/x-raw,rate=48000,channels=2 "
        "! kvaecechoprobe name=echo ! fakesink sync=true", nullptr);
    GstElement *rec = gst_parse_launch(
        "audiotestsrc is-live=true wave=pink-noise volume=0.1 ! audio/x-raw,rate=16000,channels=1 "
        "! kvaecdsp name=dsp probe=echo ! fakesink sync=true", nullptr);
    ASSERT_NE(play, nullptr);
    ASSERT_NE(rec, nullptr);
    ASSERT_NE(gst_element_set_state(play, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    gst_element_get_state(play, nullptr, nullptr, GST_CLOCK_TIME_NONE);
    GstClock *clock = gst_pipeline_get_clock(GST_PIPELINE(play));
    gst_pipeline_use_clock(GST_PIPELINE(rec), clock);
    gst_element_set_start_time(rec, GST_CLOCK_TIME_NONE);
    gst_element_set_base_time(rec, gst_element_get_base_time(play));
    ASSERT_NE(gst_element_set_state(rec, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    gst_object_unref(clock);
    g_usleep(1500 * 1000);
    GstElement *dsp = gst_bin_get_by_name(GST_BIN(rec), "dsp");
    GstStructure *st = stats(dsp);
    ASSERT_NE(st, nullptr);
    guint64 frames = 0, underruns = 0, resyncs = 0;
    gst_structure_get_uint64(st, "frames", &frames);
    gst_structure_get_uint64(st, "underruns", &underruns);
    gst_structure_get_uint64(st, "resyncs", &resyncs);
    gst_structure_free(st);
    gst_object_unref(dsp);
    EXPECT_FALSE(popError(rec).any);
    gst_element_set_state(rec, GST_STATE_NULL);
    gst_element_set_state(play, GST_STATE_NULL);
    gst_object_unref(rec);
    gst_object_unref(play);
    RecordProperty("frames", std::to_string(frames));
    RecordProperty("underruns", std::to_string(underruns));
    // 1.5 s of 10 ms frames, less start-up (a loaded machine starts late).
    EXPECT_GE(frames, 100u);
    EXPECT_LE(underruns, 10u);
    EXPECT_EQ(resyncs, 0u);
}

// ---- robustness: probe gone, live changes ----

// The probe is stopped and freed from another thread while the dsp keeps
// processing: the dsp goes on (the reference counts as absent) and never
// touches the freed probe (the sanitizer builds check the memory).
TEST(Dsp, ProbeRemovedMidStreamKeepsRunning) {
    const int rate = 48000;
    const auto far = speech(71, rate, 4.0, -20.0);
    const auto echo = echoOf(far, 72, rate, 5.0, 10.0, 30.0);
    Pair s(Fmt::F32, rate, 1, Fmt::F32, rate, 1);
    const size_t b = static_cast<size_t>(rate / 100);
    std::atomic<size_t> micBlocks{0};
    std::thread capture([&] {
        for (size_t i = 0; i + b <= echo.size(); i += b) {
            // Stay behind the playback branch while it exists.
            ASSERT_EQ(s.dsp.push(echo.data() + i, static_cast<int>(b)), GST_FLOW_OK);
            micBlocks.store(i / b + 1);
            std::this_thread::yield();
        }
    });
    for (size_t i = 0; i + b <= far.size() / 2; i += b) {
        ASSERT_EQ(s.probe.push(far.data() + i, static_cast<int>(b)), GST_FLOW_OK);
        while (micBlocks.load() + 2 < i / b) std::this_thread::yield();
    }
    s.probe.teardown();
    capture.join();
    s.dsp.eos();
    EXPECT_EQ(s.dsp.out().size(), echo.size() / b * b);
    for (float v : s.dsp.out()) ASSERT_TRUE(std::isfinite(v));
    GstStructure *st = stats(s.dsp.element());
    ASSERT_NE(st, nullptr);
    guint64 frames = 0;
    EXPECT_TRUE(gst_structure_get_uint64(st, "frames", &frames));
    EXPECT_GE(frames, 390u);
    gst_structure_free(st);
}

// Every writable property changed, the stats and the estimate read, and the
// canceller reset from another thread while buffers flow: no crash, every
// buffer comes out, no non-finite sample (the thread-sanitizer build checks
// the sharing).
TEST(Dsp, LivePropertyChangesFromAnotherThread) {
    const int rate = 16000;
    const auto far = speech(81, rate, 3.0, -20.0);
    const auto echo = echoOf(far, 82, rate, 5.0, 10.0, 30.0);
    auto near = speech(83, rate, 3.0, -30.0, true);
    std::vector<float> mic(echo.size());
    for (size_t i = 0; i < mic.size(); ++i) mic[i] = echo[i] + near[i];
    Pair s(Fmt::F32, rate, 1, Fmt::F32, rate, 1);
    std::atomic<bool> done{false};
    std::atomic<int> changes{0};
    std::thread control([&] {
        GstElement *d = s.dsp.element();
        for (int k = 0; !done.load(); ++k) {
            const gboolean on = (k & 1) ? TRUE : FALSE;
            switch (k % 9) {
            case 0: g_object_set(d, "bypass", on, nullptr); break;
            case 1: g_object_set(d, "echo-suppression", on, "noise-suppression", !on, nullptr); break;
            case 2: g_object_set(d, "freeze", on, "high-pass-filter", on, nullptr); break;
            case 3: g_object_set(d, "echo-delay", (k * 7) % 60, nullptr); break;
            case 4: g_object_set(d, "nlp-att-max-db", 50.0f + static_cast<float>(k % 20), nullptr); break;
            case 5: g_object_set(d, "channel", (k & 2) ? 0 : -1, "auto-echo-delay", on, nullptr); break;
            case 6: g_signal_emit_by_name(d, "reset"); break;
            case 7: {
                GstStructure *st = stats(d);
                if (st) gst_structure_free(st);
                double est;
                g_object_get(d, "echo-delay-estimate", &est, nullptr);
                break;
            }
            default: g_object_set(d, "profile", k % 7, "echo-cancel", TRUE, nullptr); break;
            }
            changes.fetch_add(1);
            std::this_thread::sleep_for(std::chrono::microseconds(300));
        }
    });
    s.run(far, mic);
    done.store(true);
    control.join();
    EXPECT_GT(changes.load(), 20);
    EXPECT_EQ(s.dsp.out().size(), mic.size());
    for (float v : s.dsp.out()) ASSERT_TRUE(std::isfinite(v));
}

// Switching bypass on and off mid-stream goes over without a click: no step
// in the output larger than the largest step of the microphone signal
// itself. The far end is three low tones, whose steps between samples at
// 48 kHz are small against their amplitude: switching abruptly between the
// cancelled output (near silence) and the bypassed echo would step by the
// echo's instantaneous value, many times the signal's own largest step.
TEST(Dsp, BypassTogglesWithoutAClick) {
    const int rate = 48000;
    std::vector<float> far(static_cast<size_t>(6 * rate));
    for (size_t i = 0; i < far.size(); ++i) {
        const double t = static_cast<double>(i) / rate;
        far[i] = static_cast<float>(0.25 * (std::sin(2 * M_PI * 200 * t) + 0.7 * std::sin(2 * M_PI * 310 * t + 1.0) +
                                             0.5 * std::sin(2 * M_PI * 470 * t + 2.0)));
    }
    const auto echo = echoOf(far, 92, rate, 5.0, 6.0, 30.0);
    // (From 1 s on: the onset of the tones rings through the room response.)
    float ownStep = 0;
    for (size_t i = rate; i < echo.size(); ++i) ownStep = std::max(ownStep, std::fabs(echo[i] - echo[i - 1]));
    // The echo around the toggles is far above the signal's largest step.
    const double echoRmsDb = powerDb(echo, 3 * rate, 5 * rate);
    EXPECT_GT(echoRmsDb, 20.0 * std::log10(5.0 * ownStep));
    Pair s(Fmt::F32, rate, 1, Fmt::F32, rate, 1);
    s.run(far, echo, 10.0, [&](size_t block) {
        if (block == 300) g_object_set(s.dsp.element(), "bypass", TRUE, nullptr);
        if (block == 450) g_object_set(s.dsp.element(), "bypass", FALSE, nullptr);
    });
    const auto &y = s.dsp.out();
    ASSERT_EQ(y.size(), echo.size());
    // Bypass did switch: the echo comes through while it is on.
    EXPECT_GT(powerDb(y, 3.6 * rate, 4.4 * rate) - powerDb(y, 2.0 * rate, 2.9 * rate), 10.0);
    float step = 0;
    size_t at = 0;
    for (size_t i = 2 * rate; i < y.size(); ++i) {
        const float d = std::fabs(y[i] - y[i - 1]);
        if (d > step) { step = d; at = i; }
    }
    RecordProperty("max_step", std::to_string(step));
    RecordProperty("signal_max_step", std::to_string(ownStep));
    // 1% over the signal's own step: the bypassed microphone passes the
    // converters down to and back up from 16 kHz, each flat only within
    // 0.01 dB (up to 0.14% more gain at these tones); a click would be of
    // the echo's size, over five times the step (checked above).
    EXPECT_LE(step, 1.01f * ownStep) << "at " << static_cast<double>(at) / rate << " s";
}

// ---- drift, stats ----

// The microphone's samples run 100 ppm fast against the playback (their
// timestamps say so; the echo in them is consistent with the timestamps):
// the dsp slips samples to keep the reference aligned, and the linear
// canceller keeps reducing the echo over 20 s, while the drift moves the
// echo by 2 ms.
TEST(Dsp, FollowsHundredPpmDrift) {
    const int rate = 48000;
    const double ppm = 100.0;
    const auto far = speech(101, rate, 20.0, -20.0);
    // Microphone sample n is captured at n / (rate * (1 + ppm)) s of play time.
    const auto heard = resample(far, 1.0 + ppm * 1e-6);
    auto echo = echoOf(heard, 102, rate, 20.0, 10.0);
    Pair s(Fmt::F32, rate, 1, Fmt::F32, rate, 1, ppm, linearOnly);
    echo.resize(far.size() - static_cast<size_t>(rate / 10));
    s.run(far, echo);
    GstStructure *st = stats(s.dsp.element());
    ASSERT_NE(st, nullptr);
    guint64 slipped = 0;
    EXPECT_TRUE(gst_structure_get_uint64(st, "slipped-samples", &slipped));
    gst_structure_free(st);
    RecordProperty("slipped_samples", std::to_string(slipped));
    // 100 ppm of 20 s is 2 ms, 32 samples at 16 kHz, slipped one at a time;
    // within 4: a slip waits for a whole sample of error.
    EXPECT_NEAR(static_cast<double>(slipped), 32.0, 4.0);
    // The reduction holds: as high in the last 5 s as in seconds 2-7, and
    // as high as without drift (33 dB, as the linear-echo tests): the read
    // position moves between samples, so the echo path stays still for the
    // canceller. (Whole-sample jumps left about 23 dB.)
    const double early = reductionDb(echo, s.dsp.out(), rate, 2.0, 7.0);
    const double late = reductionDb(echo, s.dsp.out(), rate, 15.0, 19.8);
    RecordProperty("reduction_db", std::to_string(late));
    EXPECT_GE(late, early - 2.0);
    EXPECT_GE(late, 33.0);
}

// Stats after 5 s of far-end speech with the defaults: every field there,
// 500 frames of 10 ms, and the canceller's own ERLE above 20 dB.
TEST(Dsp, StatsAfterFiveSecondsOfFarSpeech) {
    const int rate = 16000;
    const auto far = speech(111, rate, 5.0, -20.0);
    const auto echo = echoOf(far, 112, rate, 5.0, 10.0);
    Pair s(Fmt::F32, rate, 1, Fmt::F32, rate, 1);
    s.run(far, echo);
    GstStructure *st = stats(s.dsp.element());
    ASSERT_NE(st, nullptr);
    EXPECT_STREQ(gst_structure_get_name(st), "kvaec-stats");
    for (const char *f : {"erle-db", "erl-db"}) EXPECT_TRUE(gst_structure_has_field_typed(st, f, G_TYPE_DOUBLE)) << f;
    for (const char *f : {"double-talk", "echo-path-change"})
        EXPECT_TRUE(gst_structure_has_field_typed(st, f, G_TYPE_BOOLEAN)) << f;
    for (const char *f : {"double-talk-frames", "underruns", "resyncs", "slipped-samples", "selftest-resets", "frames"})
        EXPECT_TRUE(gst_structure_has_field_typed(st, f, G_TYPE_UINT64)) << f;
    EXPECT_TRUE(gst_structure_has_field_typed(st, "lead-samples", G_TYPE_INT64));
    double erle = 0;
    guint64 frames = 0;
    gst_structure_get_double(st, "erle-db", &erle);
    gst_structure_get_uint64(st, "frames", &frames);
    RecordProperty("erle_db", std::to_string(erle));
    RecordProperty("frames", std::to_string(frames));
    EXPECT_GT(erle, 20.0);
    // 500 frames of input, plus the few that EOS runs to flush what the dsp
    // holds back (its processing delay and the reference lead, under 50 ms).
    EXPECT_GE(frames, 500u);
    EXPECT_LE(frames, 505u);
    gst_structure_free(st);
}

// GStreamer starts and the plugin loads when tests run (not when they are
// only listed).
class GstEnvironment : public ::testing::Environment {
public:
    void SetUp() override {
        // A registry of this process's own (tests run in parallel must not
        // rewrite one file under each other), made by GStreamer's plugin
        // scanner from the system plugins (a fraction of a second). The
        // plugin under test is not on its path: loadPlugin() loads it into
        // this process, so a sanitizer build of it runs with its runtime.
        if (!getenv("GST_REGISTRY")) {
            registry_ = std::string(KVAEC_GST_TEST_REGISTRY) + "." + std::to_string(getpid());
            setenv("GST_REGISTRY", registry_.c_str(), 1);
        }
        gst_init(nullptr, nullptr);
        std::string err;
        if (!loadPlugin(&err)) {
            fprintf(stderr, "cannot load the plugin: %s\n", err.c_str());
            std::exit(1);
        }
    }
    void TearDown() override {
        gst_deinit();
        if (!registry_.empty()) std::remove(registry_.c_str());
    }

private:
    std::string registry_;
};

int main(int argc, char **argv) {
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new GstEnvironment);
    return RUN_ALL_TESTS();
}
