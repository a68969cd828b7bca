// SSE2 kernels of the coefficient updates (x86-64). Each computes, lane by
// lane, exactly the operations of its scalar reference in adapt.cpp.
#include "../core/simd.h"

#if KVAEC_SIMD_SSE2
#include <emmintrin.h>

#include "adf_kern.h"

namespace kvaec::kern {

namespace {

// Four complex values at p (8 floats) as real and imaginary vectors.
inline void load4(const float *p, __m128 &re, __m128 &im) {
    const __m128 v01 = _mm_loadu_ps(p);
    const __m128 v23 = _mm_loadu_ps(p + 4);
    re = _mm_shuffle_ps(v01, v23, _MM_SHUFFLE(2, 0, 2, 0));
    im = _mm_shuffle_ps(v01, v23, _MM_SHUFFLE(3, 1, 3, 1));
}

// Stores real and imaginary vectors as four interleaved complex values.
inline void store4(float *p, __m128 re, __m128 im) {
    _mm_storeu_ps(p, _mm_unpacklo_ps(re, im));
    _mm_storeu_ps(p + 4, _mm_unpackhi_ps(re, im));
}

}  // namespace

void updateTaperedSse2(float *c, const float *r, float ur, float ui, int groups, float taper) {
    for (int g = 0; g < groups; ++g) {
        const __m128 vur = _mm_set1_ps(ur);
        const __m128 vui = _mm_set1_ps(ui);
        __m128 cr, ci, xr, xi;
        load4(c + 8 * g, cr, ci);
        load4(r + 8 * g, xr, xi);
        // c.re + (ur xr + ui xi), c.im + (ui xr - ur xi)
        cr = _mm_add_ps(cr, _mm_add_ps(_mm_mul_ps(vur, xr), _mm_mul_ps(vui, xi)));
        ci = _mm_add_ps(ci, _mm_sub_ps(_mm_mul_ps(vui, xr), _mm_mul_ps(vur, xi)));
        store4(c + 8 * g, cr, ci);
        ur = taper * ur;
        ui = taper * ui;
    }
}

void blockUpdateSse2(float *c, const float *x, float (*e)[2], int groups, float taper) {
    float er[4], ei[4];
    for (int j = 0; j < 4; ++j) {
        er[j] = e[j][0];
        ei[j] = e[j][1];
    }
    for (int g = 0; g < groups; ++g) {
        __m128 sr = _mm_setzero_ps();
        __m128 si = _mm_setzero_ps();
        for (int j = 0; j < 4; ++j) {
            const __m128 ver = _mm_set1_ps(er[j]);
            const __m128 vei = _mm_set1_ps(ei[j]);
            __m128 xr, xi;
            load4(x + 2 * (4 * g + 3 - j), xr, xi);
            // e.re xr + e.im xi, e.im xr - e.re xi
            const __m128 pr = _mm_add_ps(_mm_mul_ps(ver, xr), _mm_mul_ps(vei, xi));
            const __m128 pi = _mm_sub_ps(_mm_mul_ps(vei, xr), _mm_mul_ps(ver, xi));
            if (j == 0) {
                sr = pr;
                si = pi;
            } else {
                sr = _mm_add_ps(sr, pr);
                si = _mm_add_ps(si, pi);
            }
        }
        __m128 cr, ci;
        load4(c + 8 * g, cr, ci);
        store4(c + 8 * g, _mm_add_ps(cr, sr), _mm_add_ps(ci, si));
        for (int j = 0; j < 4; ++j) {
            er[j] = taper * er[j];
            ei[j] = taper * ei[j];
        }
    }
    for (int j = 0; j < 4; ++j) {
        e[j][0] = er[j];
        e[j][1] = ei[j];
    }
}

void whitenSse2(const float (*a)[2], const float *x, float (*w)[2], int groups) {
    for (int g = 0; g < groups; ++g) {
        __m128 wr = _mm_setzero_ps();
        __m128 wi = _mm_setzero_ps();
        for (int m = 0; m < 4; ++m) {
            const __m128 ar = _mm_set1_ps(a[m][0]);
            const __m128 ai = _mm_set1_ps(a[m][1]);
            __m128 xr, xi;
            load4(x + 2 * (4 * g + m), xr, xi);
            // a.re xr - a.im xi, a.re xi + a.im xr
            const __m128 pr = _mm_sub_ps(_mm_mul_ps(ar, xr), _mm_mul_ps(ai, xi));
            const __m128 pi = _mm_add_ps(_mm_mul_ps(ar, xi), _mm_mul_ps(ai, xr));
            if (m == 0) {
                wr = pr;
                wi = pi;
            } else {
                wr = _mm_add_ps(wr, pr);
                wi = _mm_add_ps(wi, pi);
            }
        }
        store4(&w[4 * g][0], wr, wi);
    }
}

}  // namespace kvaec::kern

#endif
