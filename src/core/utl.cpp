// Numeric helpers. The dB conversions are deliberately coarse piecewise
// approximations on frexp/ldexp: every level and threshold of the canceller
// is expressed on their scale.
#include "core.h"

#include <cmath>
#include <cstring>

namespace {

// frexp of a float widened to double: m in [0.5, 1) with v = m 2^e. For a
// normal float the split is read from its bits (same m and e as frexp, no
// library call); zero, subnormal and non-finite values go to frexp.
inline double splitFloat(float v, int *e) {
    uint32_t u;
    std::memcpy(&u, &v, 4);
    const uint32_t biased = (u >> 23) & 0xFFu;
    if (biased == 0u || biased == 0xFFu) return std::frexp(static_cast<double>(v), e);
    *e = static_cast<int>(biased) - 126;
    const uint32_t w = (u & 0x807FFFFFu) | (126u << 23);
    float m;
    std::memcpy(&m, &w, 4);
    return static_cast<double>(m);
}

// ldexp(p, k) for 1 <= p < 2 and -2048 < k < 2048, rounded to single. For
// -1000 <= k <= 1000 the product with 2^k (a normal double) is exact, as
// ldexp's result is, so it is formed directly (no library call); below and
// above that range the single result is +0 or +infinity either way.
inline float scalePow2(double p, int k) {
    if (k < -1000) return 0.0f;
    if (k > 1000) return HUGE_VALF;
    const uint64_t bitsOf2k = static_cast<uint64_t>(k + 1023) << 52;
    double two;
    std::memcpy(&two, &bitsOf2k, 8);
    return static_cast<float>(p * two);
}

}  // namespace

float aec_utl_en2log(float x) {
    int e = 0;
    const double m = splitFloat(x + 1e-12f, &e);
    // 3.01 e - 2.88 first, then 6.02 m added, all in single precision.
    const float a = 3.01f * static_cast<float>(e) - 2.88f;
    return a + static_cast<float>(m) * 6.02f;
}

void aec_utl_en2log_arr(float *a, int n) {
    for (int i = 0; i < n; ++i) a[i] = aec_utl_en2log(a[i]);
}

float aec_utl_exp(float d) {
    const float y = d * 0.16611296f;
    // Outside +-2048 the result is 0 or infinity in any case; this keeps the
    // integer conversion defined for huge and non-finite inputs.
    if (!(y > -2048.0f && y < 2048.0f)) {
        if (y != y) return y;
        return y > 0.0f ? HUGE_VALF : 0.0f;
    }
    int k = static_cast<int>(y);
    if (y < 0.0f) k -= 1;
    const float f = y - static_cast<float>(k);
    const double p = 1.0 + static_cast<double>(f) * (0.661 + static_cast<double>(f) * 0.339);
    return scalePow2(p, k);
}

void aec_cpy(uint32_t *dst, const uint32_t *src, int n) {
    for (int i = 0; i < n; ++i) dst[i] = src[i];
}

void aec_memclr(void *p, unsigned n) { std::memset(p, 0, static_cast<size_t>(n) * 4u); }

unsigned aec_isnaninf(const uint32_t *p, int n) {
    unsigned count = 0;
    for (int i = 0; i < n; ++i) count += ((p[i] & 0x7F800000u) == 0x7F800000u) ? 1u : 0u;
    return count;
}
