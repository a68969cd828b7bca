// The GStreamer plugin's converters to and from 16 kHz (FIR at whole-multiple
// rates): exact whole-sample delay, flat passband, stopband, and results
// independent of how the stream is cut into calls.
#include "kvaec_resample.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace {

std::vector<float> tone(double f, int rate, int n, double amp) {
    std::vector<float> x(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) x[static_cast<size_t>(i)] = static_cast<float>(amp * std::sin(2 * M_PI * f * i / rate));
    return x;
}

std::vector<float> run(KvaecResampler &r, const std::vector<float> &x, int chunk) {
    std::vector<float> y;
    std::vector<float> buf(static_cast<size_t>(chunk) * 8 + 64);
    for (size_t at = 0; at < x.size();) {
        uint32_t in_len = static_cast<uint32_t>(std::min<size_t>(static_cast<size_t>(chunk), x.size() - at));
        uint32_t out_len = static_cast<uint32_t>(buf.size());
        r.process(x.data() + at, &in_len, buf.data(), &out_len);
        at += in_len;
        y.insert(y.end(), buf.begin(), buf.begin() + out_len);
    }
    return y;
}

// Output sample j of a converter from `in` to `out` Hz stands for the input
// at j * in / out - input_latency(): a tone comes out as the same tone at
// that time, within the passband ripple (0.01 dB = 0.12%, 6e-4 at amplitude
// 0.5) and float rounding of ~100-tap sums.
void expectDelayedTone(int in, int out, double f) {
    KvaecResampler r;
    const char *err = nullptr;
    ASSERT_TRUE(r.init(in, out, &err));
    const double amp = 0.5;
    const auto y = run(r, tone(f, in, in / 2, amp), 173);
    ASSERT_NEAR(static_cast<double>(y.size()), static_cast<double>(in / 2) * out / in, 1.0);
    const double lat = r.input_latency();
    double worst = 0;
    for (size_t j = static_cast<size_t>(out / 50); j < y.size(); ++j) {  // after 20 ms of settling
        const double t_in = static_cast<double>(j) * in / out - lat;       // input samples
        worst = std::max(worst, std::fabs(y[j] - amp * std::sin(2 * M_PI * f * t_in / in)));
    }
    EXPECT_LT(worst, 1e-3) << in << " -> " << out << " Hz, tone " << f << " Hz";
}

TEST(Converter, DecimatorDelaysByWholeSamplesAndKeepsThePassband) {
    for (int rate : {32000, 48000, 96000})
        for (double f : {100.0, 1000.0, 4000.0, 6900.0}) expectDelayedTone(rate, 16000, f);
}

TEST(Converter, InterpolatorDelaysByWholeSamplesAndKeepsThePassband) {
    for (int rate : {32000, 48000, 96000})
        for (double f : {100.0, 1000.0, 4000.0, 6900.0}) expectDelayedTone(16000, rate, f);
}

TEST(Converter, FirDelayIsSixteenSamplesAtSixteenKilohertz) {
    KvaecResampler down, up, same;
    const char *err = nullptr;
    ASSERT_TRUE(down.init(48000, 16000, &err));
    ASSERT_TRUE(up.init(16000, 48000, &err));
    ASSERT_TRUE(same.init(16000, 16000, &err));
    EXPECT_EQ(down.input_latency(), 48);
    EXPECT_EQ(up.input_latency(), 16);
    EXPECT_EQ(same.input_latency(), 0);
    EXPECT_STREQ(down.kind(), "fir decimator");
    EXPECT_STREQ(up.kind(), "fir interpolator");
    EXPECT_STREQ(same.kind(), "copy");
}

// Tones from 9 kHz up (which would alias into 0..7 kHz at 16 kHz) are at
// least 60 dB down after the decimator.
TEST(Converter, DecimatorRejectsAliasesBySixtyDb) {
    for (int rate : {32000, 48000, 96000})
        for (double f : {9000.0, 10000.0, 12000.0, 15000.0}) {
            KvaecResampler r;
            const char *err = nullptr;
            ASSERT_TRUE(r.init(rate, 16000, &err));
            const auto y = run(r, tone(f, rate, rate / 2, 1.0), 480);
            double peak = 0;
            for (size_t j = 800; j < y.size(); ++j) peak = std::max(peak, std::fabs(static_cast<double>(y[j])));
            EXPECT_LT(20 * std::log10(peak), -60.0) << rate << " Hz, tone " << f << " Hz";
        }
}

// The same stream cut into calls of any size gives the same samples, bit for
// bit (each output is summed in a fixed order).
TEST(Converter, OutputDoesNotDependOnCallSizes) {
    for (auto [in, out] : {std::pair{48000, 16000}, std::pair{16000, 48000}, std::pair{32000, 16000}}) {
        std::vector<float> x(static_cast<size_t>(in / 5));
        uint32_t s = 12345;
        for (float &v : x) {
            s = s * 1664525u + 1013904223u;
            v = static_cast<float>(static_cast<int32_t>(s)) / 2147483648.0f;
        }
        KvaecResampler a, b;
        const char *err = nullptr;
        ASSERT_TRUE(a.init(in, out, &err));
        ASSERT_TRUE(b.init(in, out, &err));
        const auto ya = run(a, x, 1000);
        const auto yb = run(b, x, 7);
        ASSERT_EQ(ya.size(), yb.size());
        for (size_t j = 0; j < ya.size(); ++j) ASSERT_EQ(ya[j], yb[j]) << "sample " << j;
        // reset() is the state after init.
        a.reset();
        EXPECT_EQ(run(a, x, 333), ya);
    }
}

// Other rates go through SpeexDSP.
TEST(Converter, OtherRatesUseSpeexDsp) {
    KvaecResampler r;
    const char *err = nullptr;
    ASSERT_TRUE(r.init(44100, 16000, &err));
    EXPECT_STREQ(r.kind(), "speexdsp");
    const auto y = run(r, tone(1000, 44100, 44100, 0.5), 441);
    EXPECT_NEAR(static_cast<double>(y.size()), 16000.0, 64.0);
}

}  // namespace
