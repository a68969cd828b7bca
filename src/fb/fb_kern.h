// Inner loops of the filter banks and of the 40/80-point transforms, each as
// a scalar reference and, where built, a four-lane vector kernel with
// bit-identical results: every lane performs exactly the scalar operations
// of its index in the same order (no fused multiply-add, no reassociation).
// Complex data is interleaved (re, im); the vector kernels de-interleave
// four complex values into a vector of real parts and one of imaginary
// parts and re-interleave on store.
//
// The dispatchers at the end pick the vector kernel when one was built, the
// run-time scalar switch is off and the buffers do not overlap (an
// overlapping call would make the result depend on the order in which the
// elements are written, so it takes the scalar loop).
// Internal to the library (not exported).
#ifndef KVAEC_FB_KERN_H
#define KVAEC_FB_KERN_H

#include <cstddef>
#include <cstdint>

#include "../core/simd.h"

namespace kvaec::kern {

// Lengths fixed by the banks.
constexpr int kFbFold = 80;    // folded block / transform length
constexpr int kFbHop = 40;     // output samples per slot
constexpr int kFbWin3 = 240;   // send and receive windows (three segments)
constexpr int kFbWin6 = 480;   // reference window (six segments)

// u[i] = w[i] d[i] + w[i + 80] d[i + 80] + w[i + 160] d[i + 160], i = 0..79,
// summed left to right.
void fold3Scalar(const float *w, const float *d, float *u);
void fold3Sse2(const float *w, const float *d, float *u);
void fold3Neon(const float *w, const float *d, float *u);

// u[i] = ((((0 + w[i] d[i]) + w[i + 80] d[i + 80]) + ...) + w[i + 400] d[i + 400]),
// i = 0..79 (the running sum starts at +0).
void fold6Scalar(const float *w, const float *d, float *u);
void fold6Sse2(const float *w, const float *d, float *u);
void fold6Neon(const float *w, const float *d, float *u);

// a[i] += y[i] g[i]; a[i + 80] += y[i] g[i + 80]; a[i + 160] += y[i] g[i + 160],
// i = 0..79 (a: 240 floats, y: 80, g: 240).
void overlapAdd3Scalar(float *a, const float *y, const float *g);
void overlapAdd3Sse2(float *a, const float *y, const float *g);
void overlapAdd3Neon(float *a, const float *y, const float *g);

// out[i] = a[i] * gain, i = 0..39.
void scaleHopScalar(const float *a, float gain, float *out);
void scaleHopSse2(const float *a, float gain, float *out);
void scaleHopNeon(const float *a, float gain, float *out);

// Winograd 5-point DFTs of four adjacent columns: column c (0..3) reads
// complex x[c], x[c + is/2], ..., x[c + 2 is] (is, os in floats) and writes
// y[c], y[c + os/2], ..., y[c + 2 os]; with `inverse` outputs 1 <-> 4 and
// 2 <-> 3 trade places. Arithmetic as the scalar five-point kernel of fft.cpp.
void dft5x4Scalar(const float *x, int is, float *y, int os, bool inverse);
void dft5x4Sse2(const float *x, int is, float *y, int os, bool inverse);
void dft5x4Neon(const float *x, int is, float *y, int os, bool inverse);

// Twiddle step of the mixed-radix transforms on n complex values (n a
// multiple of 4): forward (re + j im)(c + j s) = (c re - s im) + j (s re + c im),
// inverse (re + j im)(c - j s) = (c re + s im) + j (c im - s re).
void twiddleScalar(float *row, const float (*tw)[2], int n, bool inverse);
void twiddleSse2(float *row, const float (*tw)[2], int n, bool inverse);
void twiddleNeon(float *row, const float (*tw)[2], int n, bool inverse);

// Split step of the 80-point real transform: z holds Z[0..40] (Z[40] = Z[0]),
// split the rows (Ar, Ai, Br, Bi) of the 80-point table; for k = 0..39
//   out[2 k s]     = cr br + zr ar + ci bi - zi ai   (left to right)
//   out[2 k s + 1] = zr ai + ar zi + cr bi - br ci
// with (zr, zi) = Z[k], (cr, ci) = Z[40 - k].
void rfftSplitScalar(const float *z, const float (*split)[4], float *out, int stride);
void rfftSplitSse2(const float *z, const float (*split)[4], float *out, int stride);
void rfftSplitNeon(const float *z, const float (*split)[4], float *out, int stride);

// Conjugate split of the inverse: bins X[k] at in[8 k] (stride 4 complex);
// for k = 0..39, with (xr, xi) = X[k], (cr, ci) = X[40 - k]:
//   out[2 k]     = (xr ar + xi ai) + (cr br - ci bi)
//   out[2 k + 1] = (xi ar - xr ai) - (cr bi + ci br)
void rifftSplitScalar(const float *in, const float (*split)[4], float *out);
void rifftSplitSse2(const float *in, const float (*split)[4], float *out);
void rifftSplitNeon(const float *in, const float (*split)[4], float *out);

// True when the byte ranges [a, a + na) and [b, b + nb) do not overlap.
inline bool apart(const void *a, size_t na, const void *b, size_t nb) {
    const auto pa = reinterpret_cast<uintptr_t>(a);
    const auto pb = reinterpret_cast<uintptr_t>(b);
    return pa + na <= pb || pb + nb <= pa;
}

// Dispatchers.
#if KVAEC_SIMD_SSE2
#define KVAEC_FB_VEC(name) name##Sse2
#elif KVAEC_SIMD_NEON
#define KVAEC_FB_VEC(name) name##Neon
#endif

inline void fold3(const float *w, const float *d, float *u) {
#ifdef KVAEC_FB_VEC
    if (simd::vectorOn() && apart(u, kFbFold * sizeof(float), d, kFbWin3 * sizeof(float)) &&
        apart(u, kFbFold * sizeof(float), w, kFbWin3 * sizeof(float))) {
        KVAEC_FB_VEC(fold3)(w, d, u);
        return;
    }
#endif
    fold3Scalar(w, d, u);
}

inline void fold6(const float *w, const float *d, float *u) {
#ifdef KVAEC_FB_VEC
    if (simd::vectorOn() && apart(u, kFbFold * sizeof(float), d, kFbWin6 * sizeof(float)) &&
        apart(u, kFbFold * sizeof(float), w, kFbWin6 * sizeof(float))) {
        KVAEC_FB_VEC(fold6)(w, d, u);
        return;
    }
#endif
    fold6Scalar(w, d, u);
}

inline void overlapAdd3(float *a, const float *y, const float *g) {
#ifdef KVAEC_FB_VEC
    if (simd::vectorOn() && apart(a, kFbWin3 * sizeof(float), y, kFbFold * sizeof(float)) &&
        apart(a, kFbWin3 * sizeof(float), g, kFbWin3 * sizeof(float))) {
        KVAEC_FB_VEC(overlapAdd3)(a, y, g);
        return;
    }
#endif
    overlapAdd3Scalar(a, y, g);
}

inline void scaleHop(const float *a, float gain, float *out) {
#ifdef KVAEC_FB_VEC
    if (simd::vectorOn() && apart(out, kFbHop * sizeof(float), a, kFbHop * sizeof(float))) {
        KVAEC_FB_VEC(scaleHop)(a, gain, out);
        return;
    }
#endif
    scaleHopScalar(a, gain, out);
}

// x and y of the five-point kernels are distinct buffers in every caller
// (input array and work matrix).
inline void dft5x4(const float *x, int is, float *y, int os, bool inverse) {
#ifdef KVAEC_FB_VEC
    if (simd::vectorOn()) {
        KVAEC_FB_VEC(dft5x4)(x, is, y, os, inverse);
        return;
    }
#endif
    dft5x4Scalar(x, is, y, os, inverse);
}

inline void twiddle(float *row, const float (*tw)[2], int n, bool inverse) {
#ifdef KVAEC_FB_VEC
    if (simd::vectorOn()) {
        KVAEC_FB_VEC(twiddle)(row, tw, n, inverse);
        return;
    }
#endif
    twiddleScalar(row, tw, n, inverse);
}

inline void rfftSplit(const float *z, const float (*split)[4], float *out, int stride) {
#ifdef KVAEC_FB_VEC
    // The output spans bins 0..40 at the stride; z is the work area.
    if (simd::vectorOn() && stride >= 1 &&
        apart(out, (static_cast<size_t>(40) * static_cast<size_t>(stride) + 1) * 2 * sizeof(float), z,
              82 * sizeof(float))) {
        KVAEC_FB_VEC(rfftSplit)(z, split, out, stride);
        return;
    }
#endif
    rfftSplitScalar(z, split, out, stride);
}

inline void rifftSplit(const float *in, const float (*split)[4], float *out) {
#ifdef KVAEC_FB_VEC
    if (simd::vectorOn() && apart(out, 80 * sizeof(float), in, (8 * 40 + 2) * sizeof(float))) {
        KVAEC_FB_VEC(rifftSplit)(in, split, out);
        return;
    }
#endif
    rifftSplitScalar(in, split, out);
}

}  // namespace kvaec::kern

#endif
