// Numeric helpers. The dB conversions are deliberately coarse piecewise
// approximations on frexp/ldexp: every level and threshold of the canceller
// is expressed on their scale.
#include "core.h"

#include <cmath>
#include <cstring>

float aec_utl_en2log(float x) {
    const double v = static_cast<double>(x + 1e-12f);
    int e = 0;
    const double m = std::frexp(v, &e);
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
    return static_cast<float>(std::ldexp(p, k));
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
