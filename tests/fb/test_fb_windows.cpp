// Design figures of the five filter-bank windows, recomputed in double
// precision from the compiled single-precision tables.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>

#include "fb/fb.h"

namespace {

constexpr double kFs = 16000.0;

double Sum(const float *w, int n) {
    double s = 0.0;
    for (int i = 0; i < n; i++) s += w[i];
    return s;
}

int ArgMax(const float *w, int n) {
    int k = 0;
    for (int i = 1; i < n; i++)
        if (w[i] > w[k]) k = i;
    return k;
}

// |W(f)| / W(0): the response of the window f Hz from a band centre.
double Resp(const float *w, int n, double f) {
    std::complex<double> acc = 0.0;
    for (int i = 0; i < n; i++) acc += static_cast<double>(w[i]) * std::polar(1.0, -2.0 * M_PI * f / kFs * i);
    return std::abs(acc) / std::fabs(Sum(w, n));
}

// Largest response from f0 Hz up to the Nyquist frequency, on a 1 Hz grid.
double MaxFrom(const float *w, int n, double f0) {
    double m = 0.0;
    for (double f = f0; f <= kFs / 2; f += 1.0) m = std::max(m, Resp(w, n, f));
    return m;
}

// The pair (h, g) with the library's bank structure maps x to
//   y[n] = 3200 * sum_q S(c, q) x[n - 200 - 80 q],  c = n mod 40,
//   S(c, q) = sum of g[p] h[p - 80 q] over p = c, c + 40, ..., c + 200,
// so a pure delay of 200 + 80 q0 samples needs 3200 S(c, q0) = 1 and the
// other four sums zero. Returns the largest deviation over all c and q.
double PureDelayError(const float *h, const float *g, int q0) {
    double worst = 0.0;
    for (int c = 0; c < 40; c++)
        for (int q = -2; q <= 2; q++) {
            double s = 0.0;
            for (int p = c; p < 240; p += 40) {
                const int i = p - 80 * q;
                if (i >= 0 && i < 240) s += static_cast<double>(g[p]) * h[i];
            }
            worst = std::max(worst, std::fabs(3200.0 * s - (q == q0 ? 1.0 : 0.0)));
        }
    return worst;
}

TEST(SendWindows, PairIsAPureDelayOf120Samples) {
    // Rounding the designed taps to single precision leaves about 1e-7.
    EXPECT_LT(PureDelayError(aecfb_afSndAnaWin, aecfb_afSndSynWin, -1), 1e-6);
    // Any other delay is far off: the check can fail.
    EXPECT_GT(PureDelayError(aecfb_afSndAnaWin, aecfb_afSndSynWin, -2), 0.5);
}

TEST(SendWindows, AnalysisSumPeakAndStopBand) {
    const float *h = aecfb_afSndAnaWin;
    EXPECT_NEAR(Sum(h, 240), 1.0, 1e-5);
    EXPECT_EQ(ArgMax(h, 240), 147);   // 92 samples before the newest sample
    EXPECT_NEAR(Resp(h, 240, 100.0), 0.48, 0.08);
    EXPECT_LE(MaxFrom(h, 240, 200.0), 0.0055);
    EXPECT_LE(MaxFrom(h, 240, 400.0), 0.00125);
}

TEST(SendWindows, SynthesisSumNearOneAndPeakBeforeTheMiddle) {
    EXPECT_NEAR(Sum(aecfb_afSndSynWin, 240), 1.0, 0.02);
    EXPECT_EQ(ArgMax(aecfb_afSndSynWin, 240), 79);
}

TEST(ReceiveWindows, PairIsAPureDelayOf40Samples) {
    EXPECT_LT(PureDelayError(aecfb_afRcvAnaWin, aecfb_afRcvSynWin, -2), 1e-6);
    EXPECT_GT(PureDelayError(aecfb_afRcvAnaWin, aecfb_afRcvSynWin, -1), 0.5);
}

TEST(ReceiveWindows, AnalysisSumPeakAndStopBand) {
    const float *h = aecfb_afRcvAnaWin;
    EXPECT_NEAR(Sum(h, 240), 1.0, 1e-5);
    EXPECT_EQ(ArgMax(h, 240), 169);   // 70 samples before the newest sample
    // Delay 40 leaves the window little room: its stop band is shallower than
    // the send window's (design figures 0.0102 and 0.0024).
    EXPECT_LE(MaxFrom(h, 240, 200.0), 0.011);
    EXPECT_LE(MaxFrom(h, 240, 400.0), 0.0025);
}

TEST(ReferenceWindow, UnitSumPeak90SamplesBackAndPassBand) {
    const float *w = aecfb_afRefAnaWin;
    EXPECT_NEAR(Sum(w, 480), 1.0, 1e-5);
    EXPECT_EQ(ArgMax(w, 480), 389);
    EXPECT_NEAR(Resp(w, 480, 100.0), 1.14, 0.02);
    EXPECT_NEAR(Resp(w, 480, 200.0), 0.24, 0.03);
    EXPECT_LE(MaxFrom(w, 480, 400.0), 0.01);
}

}  // namespace
