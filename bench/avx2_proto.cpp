// AVX2 version of the tapered coefficient update, kept here for the
// measurement that decided against it (benchmark BM_Kernel_tapered_update,
// impl:2): two groups of four taps per 256-bit step, the second group's
// step factors formed as taper * u exactly as the scalar loop forms them.
// Same per-lane arithmetic as kvaec::kern::updateTaperedScalar:
//   re += ur xr + ui xi,  im += ui xr - ur xi.
// Not part of the library.
#if defined(__x86_64__)
#include <immintrin.h>

void benchUpdateTaperedAvx2(float *c, const float *r, float ur, float ui, int groups, float taper);

__attribute__((target("avx2"))) void benchUpdateTaperedAvx2(float *c, const float *r, float ur, float ui,
                                                            int groups, float taper) {
    const __m256 negAll = _mm256_set1_ps(-0.0f);
    int g = 0;
    for (; g + 2 <= groups; g += 2) {
        const float ur1 = taper * ur, ui1 = taper * ui;
        for (int h = 0; h < 2; ++h) {
            const float vr = h ? ur1 : ur, vi = h ? ui1 : ui;
            const __m256 x = _mm256_loadu_ps(r + 8 * (g + h));
            // (ur xr, ui xr) and (ui xi, ur xi) per complex tap
            const __m256 a = _mm256_mul_ps(_mm256_setr_ps(vr, vi, vr, vi, vr, vi, vr, vi), _mm256_moveldup_ps(x));
            const __m256 b = _mm256_mul_ps(_mm256_setr_ps(vi, vr, vi, vr, vi, vr, vi, vr), _mm256_movehdup_ps(x));
            // real lanes a - (-b) = ur xr + ui xi, imaginary lanes a + (-b) = ui xr - ur xi
            const __m256 d = _mm256_addsub_ps(a, _mm256_xor_ps(b, negAll));
            _mm256_storeu_ps(c + 8 * (g + h), _mm256_add_ps(_mm256_loadu_ps(c + 8 * (g + h)), d));
        }
        ur = taper * ur1;
        ui = taper * ui1;
    }
    for (; g < groups; ++g) {
        for (int t = 0; t < 4; ++t) {
            const int k = 4 * g + t;
            const float xr = r[2 * k], xi = r[2 * k + 1];
            c[2 * k] = c[2 * k] + (ur * xr + ui * xi);
            c[2 * k + 1] = c[2 * k + 1] + (ui * xr - ur * xi);
        }
        ur = taper * ur;
        ui = taper * ui;
    }
}
#endif
