// Comfort-noise and dither generator.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "post/post.h"

namespace {

// The sequence written out independently: 64-bit arithmetic, then the low
// 16 bits taken as a signed value.
int32_t nextSeed(int32_t s) {
    const int64_t v = static_cast<int64_t>(s) * 31821 + 13849;
    int32_t low = static_cast<int32_t>(v & 0xFFFF);
    return low >= 32768 ? low - 65536 : low;
}

TEST(NoiseGenerator, SequenceFromZeroStartsWithTheKnownValues) {
    uint32_t seed = 0;
    float x[8] = {};
    // Amplitude 32768: the scale is exactly 1, so each float receives the
    // seed value itself.
    aec_nlp_add_noise(&seed, x, 2, 32768.0f);
    EXPECT_EQ(x[0], 13849.0f);
    EXPECT_EQ(x[1], -26722.0f);
    EXPECT_EQ(x[2], 22687.0f);
    EXPECT_EQ(x[3], -7700.0f);
    EXPECT_EQ(x[4], 0.0f);  // only 2 n = 4 floats are touched
    // The stored seed is the last value, sign-extended.
    EXPECT_EQ(seed, static_cast<uint32_t>(-7700));
    EXPECT_EQ(seed, 0xFFFFE1ECu);
}

TEST(NoiseGenerator, AddsSeedTimesScaleToEveryFloat) {
    uint32_t seed = 0;
    const float amp = 0.37f;
    const float scale = amp * 3.0517578e-5f;
    std::vector<float> x(2 * 37);
    for (size_t i = 0; i < x.size(); ++i) x[i] = 0.001f * static_cast<float>(i) - 0.02f;
    std::vector<float> expect = x;
    int32_t s = 0;
    for (float &v : expect) {
        s = nextSeed(s);
        v += static_cast<float>(s) * scale;
    }
    aec_nlp_add_noise(&seed, x.data(), 37, amp);
    for (size_t i = 0; i < x.size(); ++i) ASSERT_EQ(x[i], expect[i]) << i;
    EXPECT_EQ(static_cast<int32_t>(seed), s);
}

TEST(NoiseGenerator, ReturnsAmplitudeOver32768) {
    uint32_t seed = 5;
    float x[2] = {};
    EXPECT_EQ(aec_nlp_add_noise(&seed, x, 1, 1.0f), 1.0f / 32768.0f);
    EXPECT_EQ(aec_nlp_add_noise(&seed, x, 1, 0.7f), 0.7f * 3.0517578e-5f);
    EXPECT_EQ(aec_nlp_add_noise(&seed, x, 0, 3.0f), 3.0f / 32768.0f);
}

TEST(NoiseGenerator, PeakStaysWithinTheAmplitude) {
    uint32_t seed = 0;
    std::vector<float> x(2 * 40000, 0.0f);
    aec_nlp_add_noise(&seed, x.data(), 40000, 1e-12f);
    float lo = 0.0f, hi = 0.0f;
    for (float v : x) {
        lo = v < lo ? v : lo;
        hi = v > hi ? v : hi;
    }
    // Values run from -32768 to 32767 times amp / 32768.
    EXPECT_GE(lo, -1e-12f);
    EXPECT_LE(hi, 1e-12f);
    // And they do reach near the peak both ways.
    EXPECT_LT(lo, -0.99e-12f);
    EXPECT_GT(hi, 0.99e-12f);
}

TEST(NoiseGenerator, NonPositiveCountTouchesNothingButStoresTheSeedSignExtended) {
    float x[4] = {1.0f, 2.0f, 3.0f, 4.0f};
    uint32_t seed = static_cast<uint32_t>(-7700);
    aec_nlp_add_noise(&seed, x, 0, 1.0f);
    EXPECT_EQ(seed, static_cast<uint32_t>(-7700));
    aec_nlp_add_noise(&seed, x, -3, 1.0f);
    EXPECT_EQ(seed, static_cast<uint32_t>(-7700));
    EXPECT_EQ(x[0], 1.0f);
    EXPECT_EQ(x[3], 4.0f);
    // A word holding the 16-bit pattern without sign extension is stored
    // back sign-extended.
    seed = 0x0000E1ECu;
    aec_nlp_add_noise(&seed, x, 0, 1.0f);
    EXPECT_EQ(seed, 0xFFFFE1ECu);
}

TEST(NoiseGenerator, OneSequenceAcrossCallsInCallOrder) {
    // Two calls continue one sequence: 3 complex values then 2 give the
    // same floats as one call over 5.
    uint32_t a = 0, b = 0;
    float one[10] = {}, two[10] = {};
    aec_nlp_add_noise(&a, one, 5, 32768.0f);
    aec_nlp_add_noise(&b, two, 3, 32768.0f);
    aec_nlp_add_noise(&b, two + 6, 2, 32768.0f);
    EXPECT_EQ(0, std::memcmp(one, two, sizeof(one)));
    EXPECT_EQ(a, b);
}

TEST(NoiseGenerator, SequenceHasFullPeriod) {
    // The multiplier is 1 mod 4 and the increment odd: all 65536 values
    // appear once per period.
    std::vector<int> seen(65536, 0);
    uint32_t seed = 0;
    float x[2];
    for (int i = 0; i < 32768; ++i) {
        x[0] = x[1] = 0.0f;
        aec_nlp_add_noise(&seed, x, 1, 32768.0f);
        seen[static_cast<int>(x[0]) + 32768]++;
        seen[static_cast<int>(x[1]) + 32768]++;
    }
    for (int v = 0; v < 65536; ++v) ASSERT_EQ(seen[v], 1) << v - 32768;
    EXPECT_EQ(seed, 0u);
}

}  // namespace
