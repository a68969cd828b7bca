// Every vector kernel against its scalar reference on random inputs of many
// sizes and alignments: the results must be bit-identical (memcmp).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "adf/adf.h"
#include "adf/adf_kern.h"
#include "core/simd.h"
#include "det/nrg_kern.h"
#include "fb/fb.h"
#include "fb/fb_kern.h"
#include "kvaec_records.h"

namespace {

using namespace kvaec::kern;

// Random floats over a wide dynamic range (so that rounding differs between
// summation orders), with some signed zeros and subnormal numbers mixed in.
class Gen {
public:
    explicit Gen(uint32_t seed) : rng_(seed) {}
    float next() {
        const uint32_t pick = rng_() % 64u;
        if (pick == 0) return 0.0f;
        if (pick == 1) return -0.0f;
        if (pick == 2) return (rng_() & 1u ? 1.0f : -1.0f) * 1.0e-40f * static_cast<float>(1 + rng_() % 100);
        std::uniform_real_distribution<float> m(-1.0f, 1.0f);
        std::uniform_int_distribution<int> e(-20, 4);
        return std::ldexp(m(rng_), e(rng_));
    }
    void fill(float *p, size_t n) {
        for (size_t i = 0; i < n; ++i) p[i] = next();
    }
    uint32_t u(uint32_t n) { return rng_() % n; }

private:
    std::mt19937 rng_;
};

// The vector kernel of this target: SSE2 on x86-64, NEON on AArch64.
#if KVAEC_SIMD_SSE2
#define VEC(name) name##Sse2
#elif KVAEC_SIMD_NEON
#define VEC(name) name##Neon
#endif

[[maybe_unused]] bool sameBits(const float *a, const float *b, size_t n) { return std::memcmp(a, b, n * sizeof(float)) == 0; }

// The vector kernels exist in this build (x86-64 without the scalar-only
// option), so the comparisons below compare two different code paths.
TEST(VectorKernels, AreBuiltOnThisTarget) {
#if (defined(__x86_64__) || defined(__aarch64__)) && !defined(KVAEC_FORCE_SCALAR)
    EXPECT_TRUE(kvaec::simd::kBuilt);
#else
    GTEST_SKIP() << "no vector kernels on this target";
#endif
}

#if KVAEC_SIMD_ANY

TEST(VectorKernels, CancelBandMatchesScalarBitForBit) {
    Gen gen(1);
    for (int trial = 0; trial < 3000; ++trial) {
        const int groups = static_cast<int>(gen.u(20));
        const int offR = static_cast<int>(gen.u(4));  // float offsets: every alignment
        const int offC = static_cast<int>(gen.u(4));
        std::vector<float> ref(8 * groups + 8), coef(8 * groups + 8);
        gen.fill(ref.data(), ref.size());
        gen.fill(coef.data(), coef.size());
        float accS[2] = {gen.next(), gen.next()};
        float accV[2] = {accS[0], accS[1]};
        cancelBandScalar(ref.data() + offR, coef.data() + offC, accS, groups);
        VEC(cancelBand)(ref.data() + offR, coef.data() + offC, accV, groups);
        ASSERT_TRUE(sameBits(accS, accV, 2)) << "groups " << groups << " trial " << trial;
    }
}

#if KVAEC_SIMD_SSE2
// The AVX2 kernel takes two groups per step and an odd last group with the
// SSE2 kernel; every group count and alignment must match the reference.
TEST(VectorKernels, CancelBandAvx2MatchesScalarBitForBit) {
    if (!__builtin_cpu_supports("avx2")) GTEST_SKIP() << "no AVX2 on this processor";
    Gen gen(8);
    for (int trial = 0; trial < 3000; ++trial) {
        const int groups = static_cast<int>(gen.u(20));
        const int offR = static_cast<int>(gen.u(4));
        const int offC = static_cast<int>(gen.u(4));
        std::vector<float> ref(8 * groups + 8), coef(8 * groups + 8);
        gen.fill(ref.data(), ref.size());
        gen.fill(coef.data(), coef.size());
        float accS[2] = {gen.next(), gen.next()};
        float accV[2] = {accS[0], accS[1]};
        cancelBandScalar(ref.data() + offR, coef.data() + offC, accS, groups);
        cancelBandAvx2(ref.data() + offR, coef.data() + offC, accV, groups);
        ASSERT_TRUE(sameBits(accS, accV, 2)) << "groups " << groups << " trial " << trial;
    }
}

// The selector takes AVX2 where the processor has it and SSE2 when AVX2 is
// switched off; both give the reference's bits.
TEST(VectorKernels, CancelBandSelectorFollowsTheAvx2Switch) {
    EXPECT_EQ(kvaec::simd::avx2On(), __builtin_cpu_supports("avx2") != 0);
    kvaec::simd::setAvx2(false);
    EXPECT_FALSE(kvaec::simd::avx2On());
    Gen gen(9);
    std::vector<float> ref(8 * 12), coef(8 * 12);
    gen.fill(ref.data(), ref.size());
    gen.fill(coef.data(), coef.size());
    float accS[2] = {0.0f, 0.0f}, accOff[2] = {0.0f, 0.0f}, accOn[2] = {0.0f, 0.0f};
    cancelBandScalar(ref.data(), coef.data(), accS, 12);
    cancelBandVec(ref.data(), coef.data(), accOff, 12);
    kvaec::simd::setAvx2(true);
    cancelBandVec(ref.data(), coef.data(), accOn, 12);
    EXPECT_TRUE(sameBits(accS, accOff, 2));
    EXPECT_TRUE(sameBits(accS, accOn, 2));
}
#endif

// The exported kernel follows the run-time switch and truncates the length
// to whole groups of four on both paths.
TEST(VectorKernels, ExportedCancelBandSameOnBothPathsForEveryLength) {
    Gen gen(2);
    for (int len = 0; len <= 60; ++len) {
        std::vector<float> ref(2 * 64), coef(2 * 64);
        gen.fill(ref.data(), ref.size());
        gen.fill(coef.data(), coef.size());
        float accV[2] = {0.5f, -0.25f};
        float accS[2] = {0.5f, -0.25f};
        kvaec::simd::setScalar(false);
        aec_cancel_band(ref.data(), coef.data(), accV, len);
        kvaec::simd::setScalar(true);
        aec_cancel_band(ref.data(), coef.data(), accS, len);
        kvaec::simd::setScalar(false);
        ASSERT_TRUE(sameBits(accS, accV, 2)) << "len " << len;
        if (len < 4) {
            EXPECT_EQ(accV[0], 0.5f);
            EXPECT_EQ(accV[1], -0.25f);
        }
    }
}

TEST(VectorKernels, TaperedUpdateMatchesScalarBitForBit) {
    Gen gen(3);
    for (int trial = 0; trial < 3000; ++trial) {
        const int groups = static_cast<int>(gen.u(20));
        const int offR = static_cast<int>(gen.u(4));
        const int offC = static_cast<int>(gen.u(4));
        std::vector<float> ref(8 * groups + 8), cS(8 * groups + 8);
        gen.fill(ref.data(), ref.size());
        gen.fill(cS.data(), cS.size());
        std::vector<float> cV = cS;
        const float ur = gen.next(), ui = gen.next();
        const float taper = trial % 2 ? 0.75f : 0.85f;
        updateTaperedScalar(cS.data() + offC, ref.data() + offR, ur, ui, groups, taper);
        VEC(updateTapered)(cV.data() + offC, ref.data() + offR, ur, ui, groups, taper);
        ASSERT_TRUE(sameBits(cS.data(), cV.data(), cS.size())) << "groups " << groups;
    }
}

TEST(VectorKernels, BlockUpdateMatchesScalarBitForBitIncludingTaperedSteps) {
    Gen gen(4);
    for (int trial = 0; trial < 3000; ++trial) {
        const int groups = static_cast<int>(gen.u(16));
        const int offX = static_cast<int>(gen.u(4));
        const int offC = static_cast<int>(gen.u(4));
        std::vector<float> x(8 * groups + 16), cS(8 * groups + 8);
        gen.fill(x.data(), x.size());
        gen.fill(cS.data(), cS.size());
        std::vector<float> cV = cS;
        float eS[4][2], eV[4][2];
        gen.fill(&eS[0][0], 8);
        std::memcpy(eV, eS, sizeof eS);
        blockUpdateScalar(cS.data() + offC, x.data() + offX, eS, groups, 0.85f);
        VEC(blockUpdate)(cV.data() + offC, x.data() + offX, eV, groups, 0.85f);
        ASSERT_TRUE(sameBits(cS.data(), cV.data(), cS.size())) << "groups " << groups;
        ASSERT_TRUE(sameBits(&eS[0][0], &eV[0][0], 8)) << "groups " << groups;
    }
}

TEST(VectorKernels, WhiteningMatchesScalarBitForBit) {
    Gen gen(5);
    for (int trial = 0; trial < 3000; ++trial) {
        const int groups = static_cast<int>(gen.u(16));
        const int offX = static_cast<int>(gen.u(4));
        std::vector<float> x(8 * groups + 16);
        gen.fill(x.data(), x.size());
        float a[4][2];
        gen.fill(&a[0][0], 8);
        std::vector<float> wS(8 * groups + 2, 7.0f), wV(8 * groups + 2, 7.0f);
        whitenScalar(a, x.data() + offX, reinterpret_cast<float(*)[2]>(wS.data()), groups);
        VEC(whiten)(a, x.data() + offX, reinterpret_cast<float(*)[2]>(wV.data()), groups);
        ASSERT_TRUE(sameBits(wS.data(), wV.data(), wS.size())) << "groups " << groups;
        EXPECT_EQ(wV[8 * static_cast<size_t>(groups)], 7.0f);  // nothing written past the end
    }
}

#if KVAEC_SIMD_SSE2
// The AVX2 kernels of the updates, the whitening filter and the four-sub-
// sample echo estimate of the slow bank, against their scalar references
// (run only where the processor has AVX2).
TEST(VectorKernels, TaperedUpdateAvx2MatchesScalarBitForBit) {
    if (!__builtin_cpu_supports("avx2")) GTEST_SKIP() << "no AVX2 on this processor";
    Gen gen(13);
    for (int trial = 0; trial < 3000; ++trial) {
        const int groups = static_cast<int>(gen.u(20));
        const int offR = static_cast<int>(gen.u(4));
        const int offC = static_cast<int>(gen.u(4));
        std::vector<float> ref(8 * groups + 8), cS(8 * groups + 8);
        gen.fill(ref.data(), ref.size());
        gen.fill(cS.data(), cS.size());
        std::vector<float> cV = cS;
        const float ur = gen.next(), ui = gen.next();
        const float taper = trial % 2 ? 0.75f : 0.85f;
        updateTaperedScalar(cS.data() + offC, ref.data() + offR, ur, ui, groups, taper);
        updateTaperedAvx2(cV.data() + offC, ref.data() + offR, ur, ui, groups, taper);
        ASSERT_TRUE(sameBits(cS.data(), cV.data(), cS.size())) << "groups " << groups << " trial " << trial;
    }
}

TEST(VectorKernels, BlockUpdateAvx2MatchesScalarBitForBitIncludingTaperedSteps) {
    if (!__builtin_cpu_supports("avx2")) GTEST_SKIP() << "no AVX2 on this processor";
    Gen gen(14);
    for (int trial = 0; trial < 3000; ++trial) {
        const int groups = static_cast<int>(gen.u(16));
        const int offX = static_cast<int>(gen.u(4));
        const int offC = static_cast<int>(gen.u(4));
        std::vector<float> x(8 * groups + 16), cS(8 * groups + 8);
        gen.fill(x.data(), x.size());
        gen.fill(cS.data(), cS.size());
        std::vector<float> cV = cS;
        float eS[4][2], eV[4][2];
        gen.fill(&eS[0][0], 8);
        std::memcpy(eV, eS, sizeof eS);
        blockUpdateScalar(cS.data() + offC, x.data() + offX, eS, groups, 0.85f);
        blockUpdateAvx2(cV.data() + offC, x.data() + offX, eV, groups, 0.85f);
        ASSERT_TRUE(sameBits(cS.data(), cV.data(), cS.size())) << "groups " << groups << " trial " << trial;
        ASSERT_TRUE(sameBits(&eS[0][0], &eV[0][0], 8)) << "groups " << groups << " trial " << trial;
    }
}

TEST(VectorKernels, WhiteningAvx2MatchesScalarBitForBit) {
    if (!__builtin_cpu_supports("avx2")) GTEST_SKIP() << "no AVX2 on this processor";
    Gen gen(15);
    for (int trial = 0; trial < 3000; ++trial) {
        const int groups = static_cast<int>(gen.u(16));
        const int offX = static_cast<int>(gen.u(4));
        std::vector<float> x(8 * groups + 16);
        gen.fill(x.data(), x.size());
        float a[4][2];
        gen.fill(&a[0][0], 8);
        std::vector<float> wS(8 * groups + 2, 7.0f), wV(8 * groups + 2, 7.0f);
        whitenScalar(a, x.data() + offX, reinterpret_cast<float(*)[2]>(wS.data()), groups);
        whitenAvx2(a, x.data() + offX, reinterpret_cast<float(*)[2]>(wV.data()), groups);
        ASSERT_TRUE(sameBits(wS.data(), wV.data(), wS.size())) << "groups " << groups << " trial " << trial;
        EXPECT_EQ(wV[8 * static_cast<size_t>(groups)], 7.0f);  // nothing written past the end
    }
}

// Four sub-samples at once = the four scalar calls on the shifted histories;
// the history is exactly as long as the scalar calls read (a read past it
// would show under the sanitizers and valgrind), and nothing is written
// around the four results.
TEST(VectorKernels, CancelFourSubSamplesAvx2MatchesFourScalarCalls) {
    if (!__builtin_cpu_supports("avx2")) GTEST_SKIP() << "no AVX2 on this processor";
    Gen gen(16);
    for (int trial = 0; trial < 3000; ++trial) {
        const int groups = static_cast<int>(gen.u(20));
        const int offR = static_cast<int>(gen.u(4));
        const int offC = static_cast<int>(gen.u(4));
        std::vector<float> ref(offR + 2 * (4 * groups + 3)), coef(offC + 8 * groups);
        gen.fill(ref.data(), ref.size());
        gen.fill(coef.data(), coef.size());
        float accS[6][2], accV[6][2];
        gen.fill(&accS[0][0], 12);
        std::memcpy(accV, accS, sizeof accS);
        for (int j = 0; j < 4; ++j)
            cancelBandScalar(ref.data() + offR + 2 * (3 - j), coef.data() + offC, accS[1 + j], groups);
        cancelBand4Avx2(ref.data() + offR, coef.data() + offC, &accV[1], groups);
        ASSERT_TRUE(sameBits(&accS[0][0], &accV[0][0], 12)) << "groups " << groups << " trial " << trial;
    }
}

// The slow-bank errors of a whole frame: AVX2 path, SSE2 path and scalar
// references give the same bits.
TEST(VectorKernels, SlowBankErrorsSameOnEveryPath) {
    aecx_init(nullptr);
    Gen gen(17);
    gen.fill(AEC_Db.pafRef, AEC_REF_FLOATS);
    gen.fill(AEC_Db.pafAds, AEC_ADF_FLOATS);
    float mic[AEC_NBANDS][AEC_NSUB][2];
    gen.fill(&mic[0][0][0], sizeof mic / sizeof(float));
    float got[3][AEC_NBANDS][AEC_NSUB][2];
    for (int path = 0; path < 3; ++path) {
        kvaec::simd::setScalar(path == 0);
        kvaec::simd::setAvx2(path == 2);
        std::memcpy(AEC_Sc.acErrAds, mic, sizeof mic);
        aec_cancel_slow(&AEC_Db, &AEC_Sc);
        std::memcpy(got[path], AEC_Sc.acErrAds, sizeof mic);
    }
    kvaec::simd::setScalar(false);
    kvaec::simd::setAvx2(true);
    const size_t n = sizeof mic / sizeof(float);
    EXPECT_TRUE(sameBits(&got[0][0][0][0], &got[1][0][0][0], n)) << "SSE2 path";
    EXPECT_TRUE(sameBits(&got[0][0][0][0], &got[2][0][0][0], n)) << "AVX2 path (where available)";
    EXPECT_FALSE(sameBits(&got[0][0][0][0], &mic[0][0][0], n)) << "the estimates were subtracted";
}
#endif

TEST(VectorKernels, EnergySumMatchesScalarBitForBit) {
    Gen gen(6);
    for (int trial = 0; trial < 3000; ++trial) {
        const int bands = static_cast<int>(gen.u(6));
        const int stride = 8 + 2 * static_cast<int>(gen.u(60));  // frame rows or history rows
        const int off = static_cast<int>(gen.u(4));
        std::vector<float> v(static_cast<size_t>(stride) * 6 + 16);
        gen.fill(v.data(), v.size());
        const float s = sumSquaresScalar(v.data() + off, bands, stride);
        const float w = VEC(sumSquares)(v.data() + off, bands, stride);
        ASSERT_TRUE(sameBits(&s, &w, 1)) << "bands " << bands << " stride " << stride;
    }
    EXPECT_EQ(VEC(sumSquares)(nullptr, 0, 8), 0.0f);
}

// The inputs above are sensitive to the order of the additions: a kernel
// that reduced its group as (p0 + p1) + (p2 + p3) instead would be caught.
TEST(VectorKernels, RandomInputsDetectAChangedSummationOrder) {
    Gen gen(7);
    int differ = 0;
    for (int trial = 0; trial < 1000; ++trial) {
        float c[8], r[8];
        gen.fill(c, 8);
        gen.fill(r, 8);
        float acc[2] = {0.0f, 0.0f};
        cancelBandScalar(r, c, acc, 1);
        float p[4];
        for (int k = 0; k < 4; ++k) p[k] = c[2 * k] * r[2 * k] - c[2 * k + 1] * r[2 * k + 1];
        const float other = 0.0f - ((p[0] + p[1]) + (p[2] + p[3]));
        differ += std::memcmp(&other, &acc[0], sizeof(float)) != 0 ? 1 : 0;
    }
    EXPECT_GT(differ, 10);
}

#endif  // KVAEC_SIMD_ANY

// ---- filter banks and transforms ----
//
// Every buffer gets a random float offset (all four 16-byte alignments) and
// a margin of sentinels on both sides; the whole buffer, margins included,
// must come out bit-identical, so a kernel that writes one element too many
// or too few is caught as well as one that rounds differently.

// A buffer of n floats at float offset `off` inside a larger vector whose
// other elements hold a fixed sentinel.
struct Padded {
    std::vector<float> v;
    int off;
    Padded(size_t n, int offset, float sentinel = 12345.0f) : v(n + 16, sentinel), off(4 + offset) {}
    float *p() { return v.data() + off; }
};

constexpr int kTrials = 400;


#ifdef VEC
TEST(FilterBankKernels, ThreeSegmentFoldMatchesScalarBitForBit) {
    Gen gen(11);
    for (int trial = 0; trial < kTrials; ++trial) {
        const int ow = static_cast<int>(gen.u(4)), od = static_cast<int>(gen.u(4)), ou = static_cast<int>(gen.u(4));
        Padded w(240, ow), d(240, od), uS(80, ou), uV(80, ou);
        gen.fill(w.p(), 240);
        gen.fill(d.p(), 240);
        fold3Scalar(w.p(), d.p(), uS.p());
        VEC(fold3)(w.p(), d.p(), uV.p());
        ASSERT_TRUE(sameBits(uS.v.data(), uV.v.data(), uS.v.size())) << "trial " << trial;
    }
}

TEST(FilterBankKernels, SixSegmentFoldMatchesScalarBitForBit) {
    Gen gen(12);
    for (int trial = 0; trial < kTrials; ++trial) {
        const int ow = static_cast<int>(gen.u(4)), od = static_cast<int>(gen.u(4)), ou = static_cast<int>(gen.u(4));
        Padded w(480, ow), d(480, od), uS(80, ou), uV(80, ou);
        gen.fill(w.p(), 480);
        gen.fill(d.p(), 480);
        fold6Scalar(w.p(), d.p(), uS.p());
        VEC(fold6)(w.p(), d.p(), uV.p());
        ASSERT_TRUE(sameBits(uS.v.data(), uV.v.data(), uS.v.size())) << "trial " << trial;
    }
}

// The six-segment sum starts at +0, the three-segment one at the first
// product: with every product -0 the first gives +0 and the second -0, in
// the kernels as in the references.
TEST(FilterBankKernels, FoldsKeepTheSignOfZeroSumsOfTheReferences) {
    std::vector<float> w(480, -0.5f), d(480, 0.0f), u3(80, 1.0f), u6(80, 1.0f);
    VEC(fold3)(w.data(), d.data(), u3.data());
    VEC(fold6)(w.data(), d.data(), u6.data());
    for (int i = 0; i < 80; ++i) {
        ASSERT_TRUE(std::signbit(u3[i])) << i;
        ASSERT_FALSE(std::signbit(u6[i])) << i;
        ASSERT_EQ(u3[i], 0.0f);
        ASSERT_EQ(u6[i], 0.0f);
    }
}

TEST(FilterBankKernels, OverlapAddMatchesScalarBitForBit) {
    Gen gen(13);
    for (int trial = 0; trial < kTrials; ++trial) {
        const int oa = static_cast<int>(gen.u(4)), oy = static_cast<int>(gen.u(4)), og = static_cast<int>(gen.u(4));
        Padded aS(240, oa), aV(240, oa), y(80, oy), g(240, og);
        gen.fill(aS.p(), 240);
        std::memcpy(aV.p(), aS.p(), 240 * sizeof(float));
        gen.fill(y.p(), 80);
        gen.fill(g.p(), 240);
        overlapAdd3Scalar(aS.p(), y.p(), g.p());
        VEC(overlapAdd3)(aV.p(), y.p(), g.p());
        ASSERT_TRUE(sameBits(aS.v.data(), aV.v.data(), aS.v.size())) << "trial " << trial;
    }
}

TEST(FilterBankKernels, OutputScalingMatchesScalarBitForBit) {
    Gen gen(14);
    for (int trial = 0; trial < kTrials; ++trial) {
        const int oa = static_cast<int>(gen.u(4)), oo = static_cast<int>(gen.u(4));
        Padded a(40, oa), oS(40, oo), oV(40, oo);
        gen.fill(a.p(), 40);
        const float gain = trial % 2 ? 80.0f : gen.next();
        scaleHopScalar(a.p(), gain, oS.p());
        VEC(scaleHop)(a.p(), gain, oV.p());
        ASSERT_TRUE(sameBits(oS.v.data(), oV.v.data(), oS.v.size())) << "trial " << trial;
    }
}

TEST(TransformKernels, FivePointColumnsMatchScalarBitForBitBothDirections) {
    Gen gen(15);
    for (int trial = 0; trial < kTrials; ++trial) {
        const bool inverse = trial % 2 != 0;
        // The strides of the 40-point (16 floats) and 80-point (32) transforms.
        const int is = trial % 4 < 2 ? 16 : 32;
        const int os = static_cast<int>(gen.u(2)) ? is : 16 + 2 * static_cast<int>(gen.u(8));
        const int ox = static_cast<int>(gen.u(4)), oy = static_cast<int>(gen.u(4));
        Padded x(4 * is + 8, ox), yS(4 * os + 8, oy), yV(4 * os + 8, oy);
        gen.fill(x.p(), 4 * is + 8);
        dft5x4Scalar(x.p(), is, yS.p(), os, inverse);
        VEC(dft5x4)(x.p(), is, yV.p(), os, inverse);
        ASSERT_TRUE(sameBits(yS.v.data(), yV.v.data(), yS.v.size())) << "trial " << trial;
    }
}

TEST(TransformKernels, TwiddleStepMatchesScalarBitForBitBothDirections) {
    Gen gen(16);
    for (int trial = 0; trial < kTrials; ++trial) {
        const bool inverse = trial % 2 != 0;
        const int n = 4 * (1 + static_cast<int>(gen.u(4)));
        const int orow = static_cast<int>(gen.u(4)), ot = static_cast<int>(gen.u(4));
        Padded rS(2 * n, orow), rV(2 * n, orow), tw(2 * n, ot);
        gen.fill(rS.p(), 2 * n);
        std::memcpy(rV.p(), rS.p(), 2 * n * sizeof(float));
        gen.fill(tw.p(), 2 * n);
        const auto *t = reinterpret_cast<const float(*)[2]>(tw.p());
        twiddleScalar(rS.p(), t, n, inverse);
        VEC(twiddle)(rV.p(), t, n, inverse);
        ASSERT_TRUE(sameBits(rS.v.data(), rV.v.data(), rS.v.size())) << "trial " << trial << " n " << n;
    }
}

TEST(TransformKernels, RealSplitMatchesScalarBitForBitAtEveryStride) {
    Gen gen(17);
    for (int trial = 0; trial < kTrials; ++trial) {
        const int stride = 1 + static_cast<int>(gen.u(5));
        const int oz = static_cast<int>(gen.u(4)), oo = static_cast<int>(gen.u(4)), ot = static_cast<int>(gen.u(4));
        const size_t outLen = static_cast<size_t>(2 * (40 * stride + 1));
        Padded z(82, oz), oS(outLen, oo), oV(outLen, oo), split(160, ot);
        gen.fill(z.p(), 82);
        gen.fill(split.p(), 160);
        const auto *t = reinterpret_cast<const float(*)[4]>(split.p());
        rfftSplitScalar(z.p(), t, oS.p(), stride);
        VEC(rfftSplit)(z.p(), t, oV.p(), stride);
        ASSERT_TRUE(sameBits(oS.v.data(), oV.v.data(), oS.v.size())) << "trial " << trial << " stride " << stride;
    }
}

TEST(TransformKernels, InverseSplitMatchesScalarBitForBit) {
    Gen gen(18);
    for (int trial = 0; trial < kTrials; ++trial) {
        const int oi = static_cast<int>(gen.u(4)), oo = static_cast<int>(gen.u(4)), ot = static_cast<int>(gen.u(4));
        Padded in(322, oi), oS(80, oo), oV(80, oo), split(160, ot);
        gen.fill(in.p(), 322);
        gen.fill(split.p(), 160);
        const auto *t = reinterpret_cast<const float(*)[4]>(split.p());
        rifftSplitScalar(in.p(), t, oS.p());
        VEC(rifftSplit)(in.p(), t, oV.p());
        ASSERT_TRUE(sameBits(oS.v.data(), oV.v.data(), oS.v.size())) << "trial " << trial;
    }
}

// The exported transforms give the same bits with the kernels and with the
// run-time scalar switch, forward at strides 1 and 4, inverse, and the 80-point
// complex transform of the tone detector.
TEST(TransformKernels, ExportedTransformsSameOnBothPaths) {
    Gen gen(19);
    for (int trial = 0; trial < 200; ++trial) {
        float x[80], outV[2 * (40 * 4 + 1)], outS[2 * (40 * 4 + 1)], work[200];
        gen.fill(x, 80);
        const int stride = trial % 2 ? 4 : 1;
        for (auto *o : {outV, outS}) std::fill(o, o + 2 * (40 * 4 + 1), 7.0f);
        kvaec::simd::setScalar(false);
        aecfb_rfft(x, outV, work, stride);
        kvaec::simd::setScalar(true);
        aecfb_rfft(x, outS, work, stride);
        ASSERT_TRUE(sameBits(outS, outV, 2 * (40 * 4 + 1))) << "rfft trial " << trial;

        float bins[2 * 164], yV[80], yS[80];
        gen.fill(bins, 2 * 164);
        kvaec::simd::setScalar(false);
        aecfb_rifft(bins, yV, work);
        kvaec::simd::setScalar(true);
        aecfb_rifft(bins, yS, work);
        ASSERT_TRUE(sameBits(yS, yV, 80)) << "rifft trial " << trial;

        float cV[160], cS[160];
        gen.fill(cV, 160);
        std::memcpy(cS, cV, sizeof cS);
        kvaec::simd::setScalar(false);
        aec_fft80(cV, work);
        kvaec::simd::setScalar(true);
        aec_fft80(cS, work);
        kvaec::simd::setScalar(false);
        ASSERT_TRUE(sameBits(cS, cV, 160)) << "fft80 trial " << trial;
    }
}

// Overlapping buffers take the scalar loop. Folding into the delay line two
// samples ahead of the second segment's read position makes the reference
// read its own earlier outputs (u[i] lands on d[82 + i], read again as
// d[80 + (i + 2)]), which a four-lane kernel reading before writing cannot
// reproduce; the dispatcher must therefore pick the reference.
TEST(FilterBankKernels, OverlappingBuffersTakeTheScalarLoop) {
    Gen gen(20);
    std::vector<float> w(240), dS(240 + 82);
    gen.fill(w.data(), 240);
    gen.fill(dS.data(), dS.size());
    std::vector<float> dV = dS, dK = dS;
    fold3Scalar(w.data(), dS.data(), dS.data() + 82);
    kvaec::simd::setScalar(false);
    fold3(w.data(), dV.data(), dV.data() + 82);
    EXPECT_TRUE(sameBits(dS.data(), dV.data(), dS.size()));
    // The kernel called directly on the same overlap does differ.
    VEC(fold3)(w.data(), dK.data(), dK.data() + 82);
    EXPECT_FALSE(sameBits(dS.data(), dK.data(), dS.size()));
}

// The random inputs are sensitive to the order of the sums: a fold that
// added its products as p0 + (p1 + p2) would be caught.
TEST(FilterBankKernels, RandomInputsDetectAChangedFoldOrder) {
    Gen gen(21);
    int differ = 0;
    for (int trial = 0; trial < 50; ++trial) {
        std::vector<float> w(240), d(240), u(80);
        gen.fill(w.data(), 240);
        gen.fill(d.data(), 240);
        fold3Scalar(w.data(), d.data(), u.data());
        for (int i = 0; i < 80; ++i) {
            const float other = w[i] * d[i] + (w[i + 80] * d[i + 80] + w[i + 160] * d[i + 160]);
            differ += std::memcmp(&other, &u[i], sizeof(float)) != 0 ? 1 : 0;
        }
    }
    EXPECT_GT(differ, 10);
}
#endif  // VEC

}  // namespace
