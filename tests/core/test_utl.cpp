// Numeric helpers: the coarse dB conversions and the word helpers.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>

#include "core/core.h"

namespace {

// Independent statement of the level conversion: x + 1e-12 widened to
// double, split into m 2^e, then (3.01 e - 2.88) + 6.02 m in single precision.
float en2logReference(float x) {
    float v = x + 1e-12f;
    int e = 0;
    double m = std::frexp(static_cast<double>(v), &e);
    float head = 3.01f * static_cast<float>(e) - 2.88f;
    float tail = static_cast<float>(m) * 6.02f;
    return head + tail;
}

// Independent statement of the amplitude conversion.
float expReference(float d) {
    float y = d * 0.16611296f;
    int k = static_cast<int>(std::trunc(y));
    if (y < 0.0f) k = k - 1;
    float f = y - static_cast<float>(k);
    double fd = f;
    return static_cast<float>(std::ldexp(1.0 + fd * (0.661 + fd * 0.339), k));
}

uint32_t bits(float f) {
    uint32_t u;
    std::memcpy(&u, &f, 4);
    return u;
}

TEST(En2Log, KnownLevels) {
    // The result is a difference of terms near 3, so it carries the rounding
    // of those terms (an ulp of 3.01 is 2.4e-7): allow a few of them.
    EXPECT_NEAR(aec_utl_en2log(1.0f), 3.14f, 1e-6f);
    EXPECT_NEAR(aec_utl_en2log(2.0f), 6.15f, 1e-6f);
    EXPECT_NEAR(aec_utl_en2log(0.5f), 0.13f, 1e-6f);
    // 1e-12 = 0.5497558 * 2^-39: 3.01 * -39 - 2.88 + 6.02 * 0.5497558.
    EXPECT_NEAR(aec_utl_en2log(0.0f), -116.96f, 0.01f);
}

TEST(En2Log, OffsetAboveTenLogTenStaysBetween288And314) {
    for (float x = 1e-6f; x < 1e6f; x *= 1.01f) {
        const double offset = aec_utl_en2log(x) - 10.0 * std::log10(static_cast<double>(x));
        EXPECT_GE(offset, 2.87);
        EXPECT_LE(offset, 3.15);
    }
}

TEST(En2Log, BitExactToItsFormulaOverASweep) {
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> mant(0.0f, 1.0f);
    for (int i = 0; i < 20000; ++i) {
        const float x = std::ldexp(mant(rng), static_cast<int>(rng() % 200) - 120);
        ASSERT_EQ(bits(aec_utl_en2log(x)), bits(en2logReference(x))) << "x = " << x;
    }
    for (float x : {0.0f, 1e-12f, 1.0f, 3.0f, 1e30f, 1e-40f}) EXPECT_EQ(bits(aec_utl_en2log(x)), bits(en2logReference(x)));
}

// Every exponent of the float format, both signs, subnormal and non-finite
// values included, a few mantissas each.
TEST(En2Log, BitExactToItsFormulaForEveryExponentAndSign) {
    std::mt19937 rng(8);
    for (uint32_t biased = 0; biased <= 255; ++biased)
        for (uint32_t sign = 0; sign <= 1; ++sign)
            for (int i = 0; i < 40; ++i) {
                const uint32_t mant = i == 0 ? 0u : (i == 1 ? 0x7FFFFFu : (rng() & 0x7FFFFFu));
                const uint32_t u = (sign << 31) | (biased << 23) | mant;
                float x;
                std::memcpy(&x, &u, 4);
                const float got = aec_utl_en2log(x), want = en2logReference(x);
                if (std::isnan(want)) {
                    EXPECT_TRUE(std::isnan(got)) << std::hex << u;
                } else {
                    ASSERT_EQ(bits(got), bits(want)) << std::hex << u;
                }
            }
}

TEST(En2Log, ArrayFormConvertsInPlaceAndIgnoresNonPositiveCounts) {
    float a[5] = {0.0f, 1.0f, 2.0f, 0.5f, 7.0f};
    aec_utl_en2log_arr(a, 4);
    EXPECT_EQ(bits(a[0]), bits(aec_utl_en2log(0.0f)));
    EXPECT_EQ(bits(a[1]), bits(aec_utl_en2log(1.0f)));
    EXPECT_EQ(bits(a[3]), bits(aec_utl_en2log(0.5f)));
    EXPECT_EQ(a[4], 7.0f);
    float b[2] = {1.0f, 2.0f};
    aec_utl_en2log_arr(b, 0);
    aec_utl_en2log_arr(b, -3);
    EXPECT_EQ(b[0], 1.0f);
    EXPECT_EQ(b[1], 2.0f);
}

TEST(Exp, KnownFactors) {
    EXPECT_EQ(aec_utl_exp(0.0f), 1.0f);
    // 6.02 * 0.16611296 rounds to 1 within a few ulps; the factor is 2 within them.
    EXPECT_NEAR(aec_utl_exp(6.02f), 2.0f, 4e-6f);
    EXPECT_NEAR(aec_utl_exp(-6.02f), 0.5f, 2e-6f);
    EXPECT_NEAR(aec_utl_exp(-12.04f), 0.25f, 1e-6f);
}

TEST(Exp, NegativeWholeExponentGivesSameResultAsFractionZero) {
    // Find a d whose y = d * 0.16611296 is exactly -1: then k = -2 and f = 1,
    // and the polynomial's 2.0 at f = 1 gives 2 * 2^-2, the value of 2^-1.
    float d = -6.02f;
    bool found = false;
    for (int i = 0; i < 2000 && !found; ++i) {
        if (d * 0.16611296f == -1.0f) found = true;
        else d = std::nextafter(d, d * 0.16611296f < -1.0f ? 0.0f : -10.0f);
    }
    ASSERT_TRUE(found);
    EXPECT_EQ(aec_utl_exp(d), 0.5f);
}

TEST(Exp, BitExactToItsFormulaOverASweep) {
    for (float d = -200.0f; d <= 200.0f; d += 0.0137f)
        ASSERT_EQ(bits(aec_utl_exp(d)), bits(expReference(d))) << "d = " << d;
}

// The whole range where the result is neither zero nor infinite and beyond
// (|y| up to 2048, k from -2048 to 2047).
TEST(Exp, BitExactToItsFormulaOverTheWholeIntegerRange) {
    for (float d = -12400.0f; d <= 12400.0f; d += 0.731f)
        ASSERT_EQ(bits(aec_utl_exp(d)), bits(expReference(d))) << "d = " << d;
    for (int k = -2050; k <= 2050; ++k) {
        const float d = static_cast<float>(k) / 0.16611296f;
        for (const float v : {std::nextafter(d, -1e9f), d, std::nextafter(d, 1e9f)}) {
            if (!(v * 0.16611296f > -2048.0f && v * 0.16611296f < 2048.0f)) continue;
            ASSERT_EQ(bits(aec_utl_exp(v)), bits(expReference(v))) << "d = " << v;
        }
    }
}

TEST(Exp, HugeAndNonFiniteArgumentsAreDefined) {
    EXPECT_EQ(aec_utl_exp(-1e30f), 0.0f);
    EXPECT_TRUE(std::isinf(aec_utl_exp(1e30f)));
    EXPECT_TRUE(std::isnan(aec_utl_exp(NAN)));
}

TEST(WordHelpers, CopyCopiesExactlyNWords) {
    uint32_t src[6] = {1, 2, 3, 4, 5, 6};
    uint32_t dst[6] = {0};
    aec_cpy(dst, src, 5);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(dst[i], src[i]);
    EXPECT_EQ(dst[5], 0u);
    uint32_t untouched[2] = {9, 9};
    aec_cpy(untouched, src, 0);
    aec_cpy(untouched, src, -1);
    EXPECT_EQ(untouched[0], 9u);
}

TEST(WordHelpers, ClearOfZeroWordsWritesNothing) {
    uint32_t w[3] = {7, 7, 7};
    aec_memclr(w, 0);
    EXPECT_EQ(w[0], 7u);
    aec_memclr(w, 2);
    EXPECT_EQ(w[0], 0u);
    EXPECT_EQ(w[1], 0u);
    EXPECT_EQ(w[2], 7u);
}

TEST(WordHelpers, NonFiniteCountSeesInfinitiesAndNaNsOnly) {
    const uint32_t w[5] = {0x7F800000u, 0xFF800000u, 0x7FC00000u, 0x00000001u, 0x3F800000u};
    EXPECT_EQ(aec_isnaninf(w, 5), 3u);
    EXPECT_EQ(aec_isnaninf(w, 0), 0u);
    EXPECT_EQ(aec_isnaninf(w, -2), 0u);
    const uint32_t x[4] = {0xFFFFFFFFu, 0x7F7FFFFFu, 0x80000000u, 0xFF800001u};
    EXPECT_EQ(aec_isnaninf(x, 4), 2u);
}

}  // namespace
