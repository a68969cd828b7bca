// Tests of the fixed-size FFT kernels and the 80-point real transforms.
//
// Three kinds of checks:
//  - accuracy against a direct DFT evaluated in double precision on random
//    data (signal-to-error ratio in dB, printed and recorded as a property),
//  - exact checks (EXPECT_EQ on floats) where the expected value is either
//    exact in binary floating point or recomputed here with the same float
//    operations in the same order,
//  - memory checks: sentinels after arrays and work areas, input left
//    untouched, nothing written between strided output elements.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstdint>
#include <cstring>
#include <iostream>
#include <random>
#include <string>
#include <vector>

#include "fb/fb.h"
#include "kvaec_records.h"

namespace {

using cd = std::complex<double>;
constexpr double kPi = 3.14159265358979323846;

// A value no kernel produces from the test inputs; compared bit for bit.
constexpr float kSentinel = -1.2345678e29f;

uint32_t Bits(float f) {
    uint32_t u;
    std::memcpy(&u, &f, sizeof u);
    return u;
}

bool IsSentinel(float f) { return Bits(f) == Bits(kSentinel); }

std::vector<float> RandomFloats(std::mt19937 &rng, int n) {
    std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
    std::vector<float> v(static_cast<size_t>(n));
    for (auto &x : v) x = dist(rng);
    return v;
}

// Direct DFT in double of n interleaved complex floats; sign -1 forward,
// +1 inverse (unscaled).
std::vector<cd> DirectDft(const float *x, int n, int sign) {
    std::vector<cd> out(static_cast<size_t>(n));
    for (int k = 0; k < n; ++k) {
        cd acc = 0.0;
        for (int m = 0; m < n; ++m) {
            const double ph = sign * 2.0 * kPi * static_cast<double>((static_cast<long>(m) * k) % n) / n;
            acc += cd(x[2 * m], x[2 * m + 1]) * cd(std::cos(ph), std::sin(ph));
        }
        out[static_cast<size_t>(k)] = acc;
    }
    return out;
}

// Accumulates signal and error energy over several trials.
struct SnrMeter {
    double sig = 0.0, err = 0.0, worst = 1e300;
    void Add(const std::vector<cd> &ref, const std::vector<cd> &got) {
        double s = 0.0, e = 0.0;
        for (size_t i = 0; i < ref.size(); ++i) {
            s += std::norm(ref[i]);
            e += std::norm(got[i] - ref[i]);
        }
        sig += s;
        err += e;
        worst = std::min(worst, Db(s, e));
    }
    static double Db(double s, double e) { return e > 0.0 ? 10.0 * std::log10(s / e) : 400.0; }
    double Total() const { return Db(sig, err); }
    void Report(const char *name) const {
        std::cout << "[ SNR      ] " << name << ": " << Total() << " dB over all trials, worst trial "
                  << worst << " dB" << std::endl;
        ::testing::Test::RecordProperty(std::string(name) + "_snr_db", std::to_string(Total()));
        ::testing::Test::RecordProperty(std::string(name) + "_worst_snr_db", std::to_string(worst));
    }
};

std::vector<cd> ToComplex(const float *x, int n) {
    std::vector<cd> v(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) v[static_cast<size_t>(i)] = cd(x[2 * i], x[2 * i + 1]);
    return v;
}

constexpr int kTrials = 50;

// Runs an in-place complex kernel of n points on random data and compares it
// with the direct DFT of the given sign.
template <typename Kernel>
SnrMeter MeasureComplex(int n, int sign, unsigned seed, Kernel kernel) {
    std::mt19937 rng(seed);
    SnrMeter meter;
    for (int t = 0; t < kTrials; ++t) {
        std::vector<float> x = RandomFloats(rng, 2 * n);
        const std::vector<cd> ref = DirectDft(x.data(), n, sign);
        kernel(x.data());
        meter.Add(ref, ToComplex(x.data(), n));
    }
    return meter;
}

// Single precision has a 24-bit significand (relative rounding 2^-24, about
// -144 dB). A transform of these sizes goes through at most about a dozen
// rounded operations per output with errors adding like noise, plus
// twiddles rounded to float, so well above 120 dB is expected; 120 dB
// leaves room for the constant factors without hiding a wrong term (one
// wrong twiddle or index costs far more than 40 dB).
constexpr double kComplexSnrBound = 120.0;

// Plain multiply by a complex twiddle (c + j s), the order the kernels use.
void MulTwiddle(float *e, float c, float s) {
    const float re = e[0], im = e[1];
    e[0] = c * re - s * im;
    e[1] = s * re + c * im;
}
void MulConjTwiddle(float *e, float c, float s) {
    const float re = e[0], im = e[1];
    e[0] = c * re + s * im;
    e[1] = c * im - s * re;
}

// ---------------------------------------------------------------------------
// Constant tables

TEST(FftTables, TwiddlesMatchTheirFormulaToSinglePrecision) {
    // The tables hold the double value rounded to float: within half an ulp
    // (<= 2^-25 for |v| <= 1) of the exact value; allow 1e-7 to cover the
    // double evaluation of cos/sin here.
    for (int u = 1; u <= 4; ++u) {
        for (int q = 0; q < 8; ++q) {
            const double ph = -2.0 * kPi * u * q / 40.0;
            const float *e = aecfb_afTwid40[(u - 1) * 8 + q];
            EXPECT_NEAR(e[0], std::cos(ph), 1e-7) << "u=" << u << " q=" << q;
            EXPECT_NEAR(e[1], std::sin(ph), 1e-7) << "u=" << u << " q=" << q;
        }
        for (int q = 0; q < 16; ++q) {
            const double ph = -2.0 * kPi * u * q / 80.0;
            const float *e = aecfb_afTwid80[(u - 1) * 16 + q];
            EXPECT_NEAR(e[0], std::cos(ph), 1e-7) << "u=" << u << " q=" << q;
            EXPECT_NEAR(e[1], std::sin(ph), 1e-7) << "u=" << u << " q=" << q;
        }
    }
}

TEST(FftTables, TwiddleColumnZeroIsExactlyOneAndQuarterTurnsAreExact) {
    for (int u = 1; u <= 4; ++u) {
        EXPECT_EQ(Bits(aecfb_afTwid40[(u - 1) * 8][0]), Bits(1.0f));
        EXPECT_EQ(Bits(aecfb_afTwid40[(u - 1) * 8][1]), Bits(0.0f));
        EXPECT_EQ(Bits(aecfb_afTwid80[(u - 1) * 16][0]), Bits(1.0f));
        EXPECT_EQ(Bits(aecfb_afTwid80[(u - 1) * 16][1]), Bits(0.0f));
    }
    // u q = 10 of 40 and u q = 20 of 80 are -j exactly.
    EXPECT_EQ(aecfb_afTwid40[(2 - 1) * 8 + 5][0], 0.0f);
    EXPECT_EQ(aecfb_afTwid40[(2 - 1) * 8 + 5][1], -1.0f);
    EXPECT_EQ(aecfb_afTwid80[(4 - 1) * 16 + 5][0], 0.0f);
    EXPECT_EQ(aecfb_afTwid80[(4 - 1) * 16 + 5][1], -1.0f);
}

template <int N>
void CheckSplit(const float (*tab)[4], int rows) {
    for (int k = 0; k < rows; ++k) {
        const double th = 2.0 * kPi * k / N;
        EXPECT_NEAR(tab[k][0], 0.5 * (1.0 - std::sin(th)), 1e-7) << "k=" << k;
        EXPECT_NEAR(tab[k][1], -0.5 * std::cos(th), 1e-7) << "k=" << k;
        EXPECT_NEAR(tab[k][2], 0.5 * (1.0 + std::sin(th)), 1e-7) << "k=" << k;
        EXPECT_NEAR(tab[k][3], 0.5 * std::cos(th), 1e-7) << "k=" << k;
        // Symmetric by construction: Ai = -Bi exactly.
        EXPECT_EQ(tab[k][1], -tab[k][3]) << "k=" << k;
    }
}

TEST(FftTables, RealSplitTablesMatchTheirFormula) {
    CheckSplit<80>(aecfb_afSplit80, 40);
    CheckSplit<160>(aecfb_afSplit160, 80);
    EXPECT_EQ(aecfb_afSplit80[0][0], 0.5f);
    EXPECT_EQ(aecfb_afSplit80[0][1], -0.5f);
    EXPECT_EQ(aecfb_afSplit80[20][0], 0.0f);
    EXPECT_EQ(aecfb_afSplit80[20][2], 1.0f);
    EXPECT_EQ(aecfb_afSplit160[40][0], 0.0f);
    EXPECT_EQ(aecfb_afSplit160[40][3], 0.0f);
}

// ---------------------------------------------------------------------------
// 4-point

TEST(Fft4, HandBuiltInputGivesTheButterflyValues) {
    float x[8] = {1.0f, 2.0f, 3.0f, -1.0f, 0.5f, 4.0f, -2.0f, 1.25f};
    const float ar = 1.0f, ai = 2.0f, br = 3.0f, bi = -1.0f, cr = 0.5f, ci = 4.0f, dr = -2.0f, di = 1.25f;
    aec_fft4(x);
    // X0 = (a + c) + (b + d)
    EXPECT_EQ(x[0], (ar + cr) + (br + dr));
    EXPECT_EQ(x[1], (ai + ci) + (bi + di));
    // X1 = (a - c) - j (b - d)
    EXPECT_EQ(x[2], (ar - cr) + (bi - di));
    EXPECT_EQ(x[3], (ai - ci) - (br - dr));
    // X2 = (a + c) - (b + d)
    EXPECT_EQ(x[4], (ar + cr) - (br + dr));
    EXPECT_EQ(x[5], (ai + ci) - (bi + di));
    // X3 = (a - c) + j (b - d)
    EXPECT_EQ(x[6], (ar - cr) - (bi - di));
    EXPECT_EQ(x[7], (ai - ci) + (br - dr));
    // Small integers: these are also the exact DFT values.
    EXPECT_EQ(x[0], 2.5f);
    EXPECT_EQ(x[1], 6.25f);
    EXPECT_EQ(x[2], -1.75f);
    EXPECT_EQ(x[3], -7.0f);
}

TEST(Fft4, MatchesDirectDftOnRandomData) {
    const SnrMeter m = MeasureComplex(4, -1, 11u, [](float *x) { aec_fft4(x); });
    m.Report("fft4");
    EXPECT_GE(m.worst, kComplexSnrBound);
}

// ---------------------------------------------------------------------------
// 8-point

TEST(Fft8, ImpulseAtOneGivesTheEighthRootsOfUnityExactly) {
    float x[16] = {};
    float work[32];
    x[2] = 1.0f;
    aecfb_fft8(x, work);
    const float r = 0.70710677f;
    const float expect[16] = {1, 0, r, -r, 0, -1, -r, -r, -1, 0, -r, r, 0, 1, r, r};
    for (int i = 0; i < 16; ++i) EXPECT_EQ(x[i], expect[i]) << "i=" << i;
}

TEST(Fft8, MatchesDirectDftOnRandomData) {
    float work[32];
    const SnrMeter m = MeasureComplex(8, -1, 12u, [&](float *x) { aecfb_fft8(x, work); });
    m.Report("fft8");
    EXPECT_GE(m.worst, kComplexSnrBound);
}

TEST(Ifft8, MatchesDirectInverseDftOnRandomData) {
    float work[32];
    const SnrMeter m = MeasureComplex(8, +1, 13u, [&](float *x) { aecfb_ifft8(x, work); });
    m.Report("ifft8");
    EXPECT_GE(m.worst, kComplexSnrBound);
}

TEST(Ifft8, IsTheForwardTransformWithMirroredOutputIndices) {
    std::mt19937 rng(14u);
    std::vector<float> a = RandomFloats(rng, 16);
    std::vector<float> b = a;
    float work[32];
    aecfb_fft8(a.data(), work);
    aecfb_ifft8(b.data(), work);
    for (int k = 0; k < 8; ++k) {
        const int m = (8 - k) % 8;
        EXPECT_EQ(Bits(b[2 * k]), Bits(a[2 * m])) << "k=" << k;
        EXPECT_EQ(Bits(b[2 * k + 1]), Bits(a[2 * m + 1])) << "k=" << k;
    }
}

TEST(Ifft8, InverseOfForwardGivesEightTimesTheInput) {
    std::mt19937 rng(15u);
    const std::vector<float> x = RandomFloats(rng, 16);
    std::vector<float> y = x;
    float work[32];
    aecfb_fft8(y.data(), work);
    aecfb_ifft8(y.data(), work);
    // Values up to 8 in magnitude after a few rounded additions: errors are
    // a few ulps of 8 (ulp(8) = 9.5e-7); 1e-5 bounds that generously.
    for (int i = 0; i < 16; ++i) EXPECT_NEAR(y[i], 8.0f * x[i], 1e-5f) << "i=" << i;
}

TEST(Fft8, WritesNothingBeyondItsArrayAndThirtyTwoWorkFloats) {
    std::mt19937 rng(16u);
    for (int inverse = 0; inverse < 2; ++inverse) {
        std::vector<float> x = RandomFloats(rng, 16);
        x.resize(24, kSentinel);
        std::vector<float> work(48, kSentinel);
        if (inverse) {
            aecfb_ifft8(x.data(), work.data());
        } else {
            aecfb_fft8(x.data(), work.data());
        }
        for (int i = 16; i < 24; ++i) EXPECT_TRUE(IsSentinel(x[i])) << "x[" << i << "]";
        for (int i = 32; i < 48; ++i) EXPECT_TRUE(IsSentinel(work[i])) << "work[" << i << "]";
        for (int i = 0; i < 16; ++i) EXPECT_FALSE(IsSentinel(x[i]));
    }
}

// ---------------------------------------------------------------------------
// 16-point

TEST(Fft16, ImpulseAtOneGivesTheSixteenthRootsOfUnityExactly) {
    float x[32] = {};
    float work[40];
    x[2] = 1.0f;
    aec_fft16(x, work);
    // Every output is one inline constant (cos pi/8, sin pi/8, sqrt 1/2), 0
    // or 1 with a sign: no rounding beyond that of the constant itself.
    for (int k = 0; k < 16; ++k) {
        double c = std::cos(2.0 * kPi * k / 16.0), s = -std::sin(2.0 * kPi * k / 16.0);
        if (std::fabs(c) < 1e-9) c = 0.0;
        if (std::fabs(s) < 1e-9) s = 0.0;
        EXPECT_EQ(x[2 * k], static_cast<float>(c)) << "k=" << k;
        EXPECT_EQ(x[2 * k + 1], static_cast<float>(s)) << "k=" << k;
    }
}

TEST(Fft16, MatchesDirectDftOnRandomData) {
    float work[40];
    const SnrMeter m = MeasureComplex(16, -1, 17u, [&](float *x) { aec_fft16(x, work); });
    m.Report("fft16");
    EXPECT_GE(m.worst, kComplexSnrBound);
}

TEST(Fft16, WritesNothingBeyondItsArrayAndFortyWorkFloats) {
    std::mt19937 rng(18u);
    std::vector<float> x = RandomFloats(rng, 32);
    x.resize(40, kSentinel);
    std::vector<float> work(56, kSentinel);
    aec_fft16(x.data(), work.data());
    for (int i = 32; i < 40; ++i) EXPECT_TRUE(IsSentinel(x[i])) << "x[" << i << "]";
    for (int i = 40; i < 56; ++i) EXPECT_TRUE(IsSentinel(work[i])) << "work[" << i << "]";
}

// ---------------------------------------------------------------------------
// 5-point first stage

TEST(Fft5a, WritesTheFiveByEightMatrixOfColumnDfts) {
    std::mt19937 rng(19u);
    const std::vector<float> in = RandomFloats(rng, 80);
    std::vector<float> work(112, kSentinel);
    aecfb_fft5a(in.data(), work.data());
    for (int q = 0; q < 8; ++q) {
        for (int u = 0; u < 5; ++u) {
            cd ref = 0.0;
            for (int p = 0; p < 5; ++p) {
                const double ph = -2.0 * kPi * ((u * p) % 5) / 5.0;
                ref += cd(in[2 * (q + 8 * p)], in[2 * (q + 8 * p) + 1]) * cd(std::cos(ph), std::sin(ph));
            }
            // Sums of five values of magnitude <= 1 through a handful of
            // rounded operations: errors of a few ulps of 5 (4.8e-7 each).
            EXPECT_NEAR(work[2 * (8 * u + q)], ref.real(), 5e-6) << "u=" << u << " q=" << q;
            EXPECT_NEAR(work[2 * (8 * u + q) + 1], ref.imag(), 5e-6) << "u=" << u << " q=" << q;
        }
    }
}

TEST(Fft5a, InverseKernelSwapsOutputsOneFourAndTwoThree) {
    std::mt19937 rng(20u);
    const std::vector<float> in = RandomFloats(rng, 80);
    std::vector<float> fw(112), iv(112);
    aecfb_fft5a(in.data(), fw.data());
    aecfb_ifft5a(in.data(), iv.data());
    const int mirror[5] = {0, 4, 3, 2, 1};
    for (int u = 0; u < 5; ++u) {
        for (int i = 0; i < 16; ++i) {
            EXPECT_EQ(Bits(iv[16 * u + i]), Bits(fw[16 * mirror[u] + i])) << "u=" << u << " i=" << i;
        }
    }
}

TEST(Fft5a, ReadsOnlyItsInputAndWritesNothingPastTheWorkArea) {
    std::mt19937 rng(21u);
    for (int inverse = 0; inverse < 2; ++inverse) {
        const std::vector<float> in = RandomFloats(rng, 80);
        std::vector<float> copy = in;
        std::vector<float> work(128, kSentinel);
        if (inverse) {
            aecfb_ifft5a(copy.data(), work.data());
        } else {
            aecfb_fft5a(copy.data(), work.data());
        }
        EXPECT_EQ(0, std::memcmp(copy.data(), in.data(), 80 * sizeof(float)));
        for (int i = 0; i < 80; ++i) EXPECT_FALSE(IsSentinel(work[i])) << "matrix float " << i;
        for (int i = 112; i < 128; ++i) EXPECT_TRUE(IsSentinel(work[i])) << "work[" << i << "]";
    }
}

// ---------------------------------------------------------------------------
// 40-point

TEST(Fft40, MatchesDirectDftOnRandomData) {
    float work[112];
    const SnrMeter m = MeasureComplex(40, -1, 22u, [&](float *x) { aecfb_fft40(x, work); });
    m.Report("fft40");
    EXPECT_GE(m.worst, kComplexSnrBound);
}

TEST(Ifft40, MatchesDirectInverseDftOnRandomData) {
    float work[112];
    const SnrMeter m = MeasureComplex(40, +1, 23u, [&](float *x) { aecfb_ifft40(x, work); });
    m.Report("ifft40");
    EXPECT_GE(m.worst, kComplexSnrBound);
}

// Rebuilds the 40-point transform from its stages: five-point columns,
// table twiddles (plain or conjugated), 8-point rows, write-back
// X[u + 5 w] = S[u][w]. Bitwise equality pins the index maps, the twiddle
// arithmetic and the absence of any other reordering.
void Compose40(const float *in, float *out, bool inverse) {
    float work[112];
    float w8[32];
    if (inverse) {
        aecfb_ifft5a(in, work);
    } else {
        aecfb_fft5a(in, work);
    }
    for (int u = 1; u < 5; ++u) {
        for (int q = 0; q < 8; ++q) {
            const float c = aecfb_afTwid40[(u - 1) * 8 + q][0], s = aecfb_afTwid40[(u - 1) * 8 + q][1];
            if (inverse) {
                MulConjTwiddle(work + 2 * (8 * u + q), c, s);
            } else {
                MulTwiddle(work + 2 * (8 * u + q), c, s);
            }
        }
    }
    for (int u = 0; u < 5; ++u) {
        if (inverse) {
            aecfb_ifft8(work + 16 * u, w8);
        } else {
            aecfb_fft8(work + 16 * u, w8);
        }
    }
    for (int u = 0; u < 5; ++u) {
        for (int w = 0; w < 8; ++w) {
            out[2 * (u + 5 * w)] = work[2 * (8 * u + w)];
            out[2 * (u + 5 * w) + 1] = work[2 * (8 * u + w) + 1];
        }
    }
}

TEST(Fft40, EqualsFiveByEightDecompositionBitForBit) {
    std::mt19937 rng(24u);
    for (int inverse = 0; inverse < 2; ++inverse) {
        std::vector<float> x = RandomFloats(rng, 80);
        std::vector<float> expect(80);
        Compose40(x.data(), expect.data(), inverse != 0);
        float work[112];
        if (inverse) {
            aecfb_ifft40(x.data(), work);
        } else {
            aecfb_fft40(x.data(), work);
        }
        for (int i = 0; i < 80; ++i) EXPECT_EQ(Bits(x[i]), Bits(expect[i])) << "inverse=" << inverse << " i=" << i;
    }
}

TEST(Fft40, ImpulseGivesAllOnesExactly) {
    float x[80] = {};
    float work[112];
    x[0] = 1.0f;
    aecfb_fft40(x, work);
    for (int k = 0; k < 40; ++k) {
        EXPECT_EQ(x[2 * k], 1.0f) << "k=" << k;
        EXPECT_EQ(x[2 * k + 1], 0.0f) << "k=" << k;
    }
}

TEST(Ifft40, InverseOfForwardGivesFortyTimesTheInput) {
    std::mt19937 rng(25u);
    const std::vector<float> x = RandomFloats(rng, 80);
    std::vector<float> y = x;
    float work[112];
    aecfb_fft40(y.data(), work);
    aecfb_ifft40(y.data(), work);
    // Magnitudes up to 40 (ulp 3.8e-6) after about a dozen rounded
    // operations per value on intermediate values up to ~40: 1e-4 is a
    // generous bound on the accumulated rounding.
    double maxerr = 0.0;
    for (int i = 0; i < 80; ++i) {
        EXPECT_NEAR(y[i], 40.0f * x[i], 1e-4f) << "i=" << i;
        maxerr = std::max(maxerr, std::fabs(static_cast<double>(y[i]) - 40.0 * x[i]));
    }
    std::cout << "[ ROUNDTRIP] ifft40(fft40(x)) - 40x: max abs error " << maxerr << std::endl;
}

TEST(Fft40, WritesNothingBeyondItsArrayAndHundredTwelveWorkFloats) {
    std::mt19937 rng(26u);
    for (int inverse = 0; inverse < 2; ++inverse) {
        std::vector<float> x = RandomFloats(rng, 80);
        x.resize(96, kSentinel);
        std::vector<float> work(128, kSentinel);
        if (inverse) {
            aecfb_ifft40(x.data(), work.data());
        } else {
            aecfb_fft40(x.data(), work.data());
        }
        for (int i = 80; i < 96; ++i) EXPECT_TRUE(IsSentinel(x[i])) << "x[" << i << "]";
        for (int i = 112; i < 128; ++i) EXPECT_TRUE(IsSentinel(work[i])) << "work[" << i << "]";
    }
}

// ---------------------------------------------------------------------------
// 80-point

TEST(Fft80, MatchesDirectDftOnRandomData) {
    float work[200];
    const SnrMeter m = MeasureComplex(80, -1, 27u, [&](float *x) { aec_fft80(x, work); });
    m.Report("fft80");
    EXPECT_GE(m.worst, kComplexSnrBound);
}

TEST(Fft80, EqualsFiveBySixteenDecompositionBitForBit) {
    // The five-point columns x[q + 16 p] are obtained from the exported
    // five-point stage by regrouping eight columns at a time into the
    // x[q + 8 p] layout it reads.
    std::mt19937 rng(28u);
    std::vector<float> x = RandomFloats(rng, 160);
    float mat[160];
    for (int half = 0; half < 2; ++half) {
        float in40[80], w[112];
        for (int p = 0; p < 5; ++p) {
            for (int q = 0; q < 8; ++q) {
                in40[2 * (q + 8 * p)] = x[2 * (8 * half + q + 16 * p)];
                in40[2 * (q + 8 * p) + 1] = x[2 * (8 * half + q + 16 * p) + 1];
            }
        }
        aecfb_fft5a(in40, w);
        for (int u = 0; u < 5; ++u) {
            for (int q = 0; q < 8; ++q) {
                mat[2 * (16 * u + 8 * half + q)] = w[2 * (8 * u + q)];
                mat[2 * (16 * u + 8 * half + q) + 1] = w[2 * (8 * u + q) + 1];
            }
        }
    }
    for (int u = 1; u < 5; ++u) {
        for (int q = 0; q < 16; ++q) {
            MulTwiddle(mat + 2 * (16 * u + q), aecfb_afTwid80[(u - 1) * 16 + q][0],
                       aecfb_afTwid80[(u - 1) * 16 + q][1]);
        }
    }
    float w16[40];
    for (int u = 0; u < 5; ++u) aec_fft16(mat + 32 * u, w16);
    float expect[160];
    for (int u = 0; u < 5; ++u) {
        for (int w = 0; w < 16; ++w) {
            expect[2 * (u + 5 * w)] = mat[2 * (16 * u + w)];
            expect[2 * (u + 5 * w) + 1] = mat[2 * (16 * u + w) + 1];
        }
    }
    float work[200];
    aec_fft80(x.data(), work);
    for (int i = 0; i < 160; ++i) EXPECT_EQ(Bits(x[i]), Bits(expect[i])) << "i=" << i;
}

TEST(Fft80, WritesNothingBeyondItsArrayAndTwoHundredWorkFloats) {
    std::mt19937 rng(29u);
    std::vector<float> x = RandomFloats(rng, 160);
    x.resize(176, kSentinel);
    std::vector<float> work(216, kSentinel);
    aec_fft80(x.data(), work.data());
    for (int i = 160; i < 176; ++i) EXPECT_TRUE(IsSentinel(x[i])) << "x[" << i << "]";
    for (int i = 200; i < 216; ++i) EXPECT_TRUE(IsSentinel(work[i])) << "work[" << i << "]";
}

// ---------------------------------------------------------------------------
// 80-point real forward transform

// Direct real DFT in double: bins 0..40.
std::vector<cd> DirectRealDft(const float *x) {
    std::vector<cd> out(41);
    for (int k = 0; k <= 40; ++k) {
        cd acc = 0.0;
        for (int n = 0; n < 80; ++n) {
            const double ph = -2.0 * kPi * ((n * k) % 80) / 80.0;
            acc += static_cast<double>(x[n]) * cd(std::cos(ph), std::sin(ph));
        }
        out[static_cast<size_t>(k)] = acc;
    }
    return out;
}

// The real transforms add one split step (two products and three additions
// per output, table values rounded to float) to the 40-point FFT; the
// expected loss against the complex kernels is a few dB at most, so the same
// 120 dB bound is kept: it still sits well below the measured figure and far
// above what any wrong bin or sign would give.
constexpr double kRealSnrBound = 120.0;

TEST(Rfft, MatchesDirectRealDftOnRandomData) {
    std::mt19937 rng(30u);
    SnrMeter meter;
    for (int t = 0; t < kTrials; ++t) {
        const std::vector<float> x = RandomFloats(rng, 80);
        float out[82], work[192];
        aecfb_rfft(x.data(), out, work, 1);
        meter.Add(DirectRealDft(x.data()), ToComplex(out, 41));
    }
    meter.Report("rfft");
    EXPECT_GE(meter.worst, kRealSnrBound);
}

TEST(Rfft, UnitImpulseGivesOneInAllBins) {
    float x[80] = {};
    x[0] = 1.0f;
    float out[82], work[192];
    aecfb_rfft(x, out, work, 1);
    // Z is all 1 + 0j exactly, so bin k is Ar + Br (+ zero terms) and
    // Ai + Bi; the table rows satisfy Ar + Br == 1 and Ai == -Bi in float.
    for (int k = 0; k < 40; ++k) ASSERT_EQ(aecfb_afSplit80[k][0] + aecfb_afSplit80[k][2], 1.0f) << "k=" << k;
    for (int k = 0; k <= 40; ++k) {
        EXPECT_EQ(out[2 * k], 1.0f) << "k=" << k;
        EXPECT_EQ(out[2 * k + 1], 0.0f) << "k=" << k;
    }
}

TEST(Rfft, ConstantOneGivesEightyInBinZeroOnly) {
    float x[80];
    for (float &v : x) v = 1.0f;
    float out[82], work[192];
    aecfb_rfft(x, out, work, 1);
    // All intermediate values are small integers or exact halves: exact.
    EXPECT_EQ(out[0], 80.0f);
    EXPECT_EQ(out[1], 0.0f);
    for (int k = 1; k <= 40; ++k) {
        EXPECT_EQ(out[2 * k], 0.0f) << "k=" << k;
        EXPECT_EQ(out[2 * k + 1], 0.0f) << "k=" << k;
    }
}

TEST(Rfft, CosineAtBinFiveGivesFortyInBinFive) {
    float x[80];
    for (int n = 0; n < 80; ++n) x[n] = static_cast<float>(std::cos(2.0 * kPi * 5.0 * n / 80.0));
    float out[82], work[192];
    aecfb_rfft(x, out, work, 1);
    // Sums of 80 terms of magnitude <= 1, each input rounded to float
    // (error <= 6e-8) and about a dozen rounded operations deep: 1e-5 is
    // comfortably above the rounding and far below any leakage.
    for (int k = 0; k <= 40; ++k) {
        EXPECT_NEAR(out[2 * k], k == 5 ? 40.0f : 0.0f, 1e-5f) << "k=" << k;
        EXPECT_NEAR(out[2 * k + 1], 0.0f, 1e-5f) << "k=" << k;
    }
}

TEST(Rfft, SplitStepMatchesTheExtendedSpectrumProductsBitForBit) {
    std::mt19937 rng(31u);
    const std::vector<float> x = RandomFloats(rng, 80);
    float z[82], w[112];
    std::memcpy(z, x.data(), sizeof(float) * 80);
    aecfb_fft40(z, w);
    z[80] = z[0];
    z[81] = z[1];
    float expect[82];
    for (int k = 0; k < 40; ++k) {
        const float zr = z[2 * k], zi = z[2 * k + 1], cr = z[80 - 2 * k], ci = z[81 - 2 * k];
        const float *t = aecfb_afSplit80[k];
        expect[2 * k] = cr * t[2] + zr * t[0] + ci * t[3] - zi * t[1];
        expect[2 * k + 1] = zr * t[1] + t[0] * zi + cr * t[3] - t[2] * ci;
    }
    expect[80] = z[0] - z[1];
    expect[81] = 0.0f;
    float out[82], work[192];
    aecfb_rfft(x.data(), out, work, 1);
    for (int i = 0; i < 82; ++i) EXPECT_EQ(Bits(out[i]), Bits(expect[i])) << "i=" << i;
}

TEST(Rfft, LeavesSpectrumAndExtensionInTheWorkAreaAndTheInputAlone) {
    std::mt19937 rng(32u);
    const std::vector<float> x = RandomFloats(rng, 80);
    std::vector<float> in = x;
    std::vector<float> work(208, kSentinel);
    float out[82];
    aecfb_rfft(in.data(), out, work.data(), 1);
    EXPECT_EQ(0, std::memcmp(in.data(), x.data(), 80 * sizeof(float)));
    // After the call: floats 0..79 hold Z = fft40 of the packed input,
    // 80..81 hold Z[40] = Z[0]; nothing beyond 192 is touched.
    float z[80], w[112];
    std::memcpy(z, x.data(), sizeof z);
    aecfb_fft40(z, w);
    for (int i = 0; i < 80; ++i) EXPECT_EQ(Bits(work[i]), Bits(z[i])) << "work[" << i << "]";
    EXPECT_EQ(Bits(work[80]), Bits(z[0]));
    EXPECT_EQ(Bits(work[81]), Bits(z[1]));
    for (int i = 192; i < 208; ++i) EXPECT_TRUE(IsSentinel(work[i])) << "work[" << i << "]";
}

TEST(Rfft, StrideOneAndStrideFourGiveTheSameValuesAndTouchNothingBetween) {
    std::mt19937 rng(33u);
    const std::vector<float> x = RandomFloats(rng, 80);
    float work[192];
    std::vector<float> o1(82 + 8, kSentinel), o4(2 * 4 * 41 + 8, kSentinel);
    aecfb_rfft(x.data(), o1.data(), work, 1);
    aecfb_rfft(x.data(), o4.data(), work, 4);
    for (int k = 0; k <= 40; ++k) {
        EXPECT_EQ(Bits(o4[8 * k]), Bits(o1[2 * k])) << "k=" << k;
        EXPECT_EQ(Bits(o4[8 * k + 1]), Bits(o1[2 * k + 1])) << "k=" << k;
    }
    for (size_t i = 0; i < o4.size(); ++i) {
        const bool written = (i % 8) < 2 && i < 8 * 41;
        EXPECT_EQ(IsSentinel(o4[i]), !written) << "o4[" << i << "]";
    }
    for (size_t i = 82; i < o1.size(); ++i) EXPECT_TRUE(IsSentinel(o1[i])) << "o1[" << i << "]";
}

TEST(Rfft, NyquistBinHasExactlyZeroImaginaryPart) {
    std::mt19937 rng(34u);
    const std::vector<float> x = RandomFloats(rng, 80);
    float out[82], work[192];
    std::fill(out, out + 82, kSentinel);
    aecfb_rfft(x.data(), out, work, 1);
    EXPECT_EQ(Bits(out[81]), Bits(0.0f));
    double alt = 0.0;
    for (int n = 0; n < 80; ++n) alt += (n % 2 ? -1.0 : 1.0) * x[n];
    EXPECT_NEAR(out[80], alt, 1e-5);  // sum of 80 terms <= 1: rounding well below 1e-5
}

// ---------------------------------------------------------------------------
// 80-point real inverse transform

// Writes 41 bins at the stride of 4 complex the inverse reads.
std::vector<float> StridedBins(const float *bins41) {
    std::vector<float> v(2 * 4 * 41, 0.0f);
    for (int k = 0; k <= 40; ++k) {
        v[static_cast<size_t>(8 * k)] = bins41[2 * k];
        v[static_cast<size_t>(8 * k + 1)] = bins41[2 * k + 1];
    }
    return v;
}

TEST(Rifft, MatchesFortyTimesTheDirectInverseRealDftOnRandomData) {
    std::mt19937 rng(35u);
    SnrMeter meter;
    for (int t = 0; t < kTrials; ++t) {
        std::vector<float> bins = RandomFloats(rng, 82);
        bins[1] = 0.0f;   // a real signal has real DC and Nyquist bins
        bins[81] = 0.0f;
        // 40 times the normalised inverse of the Hermitian 80-point spectrum:
        // y[n] = (X0 + (-1)^n X40) / 2 + sum_{k=1}^{39} Re(X[k] e^(+j 2 pi k n / 80)).
        std::vector<cd> ref(80), got(80);
        for (int n = 0; n < 80; ++n) {
            double acc = 0.5 * (bins[0] + (n % 2 ? -1.0 : 1.0) * bins[80]);
            for (int k = 1; k < 40; ++k) {
                const double ph = 2.0 * kPi * ((n * k) % 80) / 80.0;
                acc += (cd(bins[2 * k], bins[2 * k + 1]) * cd(std::cos(ph), std::sin(ph))).real();
            }
            ref[static_cast<size_t>(n)] = acc;
        }
        const std::vector<float> in = StridedBins(bins.data());
        float out[80], work[112];
        aecfb_rifft(in.data(), out, work);
        for (int n = 0; n < 80; ++n) got[static_cast<size_t>(n)] = out[n];
        meter.Add(ref, got);
    }
    meter.Report("rifft");
    EXPECT_GE(meter.worst, kRealSnrBound);
}

TEST(Rifft, InverseOfForwardGivesFortyTimesTheInput) {
    std::mt19937 rng(36u);
    const std::vector<float> x = RandomFloats(rng, 80);
    std::vector<float> bins(2 * 4 * 41);
    float work[192], out[80];
    aecfb_rfft(x.data(), bins.data(), work, 4);
    aecfb_rifft(bins.data(), out, work);
    // Output magnitudes up to 40 (ulp 3.8e-6); two transforms and two split
    // steps of rounding on intermediate values up to ~80: 1e-4 bounds it.
    double maxerr = 0.0;
    for (int n = 0; n < 80; ++n) {
        EXPECT_NEAR(out[n], 40.0f * x[n], 1e-4f) << "n=" << n;
        maxerr = std::max(maxerr, std::fabs(static_cast<double>(out[n]) - 40.0 * x[n]));
    }
    std::cout << "[ ROUNDTRIP] rifft(rfft(x)) - 40x: max abs error " << maxerr << std::endl;
}

TEST(Rifft, SplitStepFormsZInTheOutputThenRunsTheInverse40) {
    // Bitwise: Z[k] = X[k] conj(A[k]) + conj(X[40 - k]) conj(B[k]) computed
    // here, then the 40-point inverse. The DC and Nyquist bins carry
    // imaginary parts, which must enter as they are.
    std::mt19937 rng(37u);
    const std::vector<float> bins = RandomFloats(rng, 82);
    ASSERT_NE(bins[1], 0.0f);
    ASSERT_NE(bins[81], 0.0f);
    float z[80], w[112];
    for (int k = 0; k < 40; ++k) {
        const float xr = bins[2 * k], xi = bins[2 * k + 1];
        const float cr = bins[80 - 2 * k], ci = bins[81 - 2 * k];
        const float *t = aecfb_afSplit80[k];
        z[2 * k] = (xr * t[0] + xi * t[1]) + (cr * t[2] - ci * t[3]);
        z[2 * k + 1] = (xi * t[0] - xr * t[1]) - (cr * t[3] + ci * t[2]);
    }
    aecfb_ifft40(z, w);
    const std::vector<float> in = StridedBins(bins.data());
    float out[80], work[112];
    aecfb_rifft(in.data(), out, work);
    for (int i = 0; i < 80; ++i) EXPECT_EQ(Bits(out[i]), Bits(z[i])) << "i=" << i;

    // And zeroing those imaginary parts changes the result.
    std::vector<float> in0 = in;
    in0[1] = 0.0f;
    in0[8 * 40 + 1] = 0.0f;
    float out0[80];
    aecfb_rifft(in0.data(), out0, work);
    EXPECT_NE(0, std::memcmp(out, out0, sizeof out));
}

TEST(Rifft, ReadsOnlyEveryFourthComplexElementAndLeavesItAlone) {
    std::mt19937 rng(38u);
    const std::vector<float> bins = RandomFloats(rng, 82);
    std::vector<float> clean = StridedBins(bins.data());
    std::vector<float> noisy = clean;
    for (size_t i = 0; i < noisy.size(); ++i) {
        if (i % 8 >= 2) noisy[i] = std::nanf("");
    }
    const std::vector<float> noisy_copy = noisy;
    float a[80], b[80], work[112];
    aecfb_rifft(clean.data(), a, work);
    aecfb_rifft(noisy.data(), b, work);
    for (int i = 0; i < 80; ++i) EXPECT_EQ(Bits(a[i]), Bits(b[i])) << "i=" << i;
    EXPECT_EQ(0, std::memcmp(noisy.data(), noisy_copy.data(), noisy.size() * sizeof(float)));
}

TEST(Rifft, WritesEightyOutputFloatsAndNothingPastTheWorkArea) {
    std::mt19937 rng(39u);
    const std::vector<float> bins = RandomFloats(rng, 82);
    const std::vector<float> in = StridedBins(bins.data());
    std::vector<float> out(96, kSentinel), work(128, kSentinel);
    aecfb_rifft(in.data(), out.data(), work.data());
    for (int i = 0; i < 80; ++i) EXPECT_FALSE(IsSentinel(out[i])) << "out[" << i << "]";
    for (int i = 80; i < 96; ++i) EXPECT_TRUE(IsSentinel(out[i])) << "out[" << i << "]";
    for (int i = 112; i < 128; ++i) EXPECT_TRUE(IsSentinel(work[i])) << "work[" << i << "]";
}

}  // namespace
