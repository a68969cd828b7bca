// Every vector kernel against its scalar reference on random inputs of many
// sizes and alignments: the results must be bit-identical (memcmp).
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "adf/adf.h"
#include "adf/adf_kern.h"
#include "core/simd.h"
#include "det/nrg_kern.h"
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

bool sameBits(const float *a, const float *b, size_t n) { return std::memcmp(a, b, n * sizeof(float)) == 0; }

// The vector kernels exist in this build (x86-64 without the scalar-only
// option), so the comparisons below compare two different code paths.
TEST(VectorKernels, AreBuiltOnThisTarget) {
#if defined(__x86_64__) && !defined(KVAEC_FORCE_SCALAR)
    EXPECT_TRUE(kvaec::simd::kBuilt);
#else
    GTEST_SKIP() << "no vector kernels on this target";
#endif
}

#if KVAEC_SIMD_SSE2

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
        cancelBandSse2(ref.data() + offR, coef.data() + offC, accV, groups);
        ASSERT_TRUE(sameBits(accS, accV, 2)) << "groups " << groups << " trial " << trial;
    }
}

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
        updateTaperedSse2(cV.data() + offC, ref.data() + offR, ur, ui, groups, taper);
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
        blockUpdateSse2(cV.data() + offC, x.data() + offX, eV, groups, 0.85f);
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
        whitenSse2(a, x.data() + offX, reinterpret_cast<float(*)[2]>(wV.data()), groups);
        ASSERT_TRUE(sameBits(wS.data(), wV.data(), wS.size())) << "groups " << groups;
        EXPECT_EQ(wV[8 * static_cast<size_t>(groups)], 7.0f);  // nothing written past the end
    }
}

TEST(VectorKernels, EnergySumMatchesScalarBitForBit) {
    Gen gen(6);
    for (int trial = 0; trial < 3000; ++trial) {
        const int bands = static_cast<int>(gen.u(6));
        const int stride = 8 + 2 * static_cast<int>(gen.u(60));  // frame rows or history rows
        const int off = static_cast<int>(gen.u(4));
        std::vector<float> v(static_cast<size_t>(stride) * 6 + 16);
        gen.fill(v.data(), v.size());
        const float s = sumSquaresScalar(v.data() + off, bands, stride);
        const float w = sumSquaresSse2(v.data() + off, bands, stride);
        ASSERT_TRUE(sameBits(&s, &w, 1)) << "bands " << bands << " stride " << stride;
    }
    EXPECT_EQ(sumSquaresSse2(nullptr, 0, 8), 0.0f);
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

#endif  // KVAEC_SIMD_SSE2

}  // namespace
