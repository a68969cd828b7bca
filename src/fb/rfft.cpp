// 80-point real transforms of the filter banks, built on the 40-point
// complex FFT.
//
// Forward: the 80 real samples are read as 40 complex values
// z[m] = x[2m] + j x[2m + 1], transformed with the 40-point FFT to Z, and
// split into the 41 bins of the real DFT:
//   X[k] = Z[k] A[k] + conj(Z[40 - k]) B[k],  k = 0..39,  Z[40] = Z[0],
//   X[40] = Re Z[0] - Im Z[0],
// with A[k] = (1 - j e^(-j theta)) / 2, B[k] = (1 + j e^(-j theta)) / 2,
// theta = 2 pi k / 80 (table aecfb_afSplit80, rows (Ar, Ai, Br, Bi)).
// Inverse: the conjugate split rebuilds Z from the bins, the unscaled
// 40-point inverse FFT gives 40 z, whose real and imaginary parts are the
// even and odd output samples (40 times the normalised inverse).
#include "fb.h"
#include "fb_kern.h"

namespace {

constexpr int kRealLen = 80;       // real samples per block
constexpr int kHalf = 40;          // complex points of the inner FFT
constexpr int kBins = kHalf + 1;   // bins 0 (DC) .. 40 (Nyquist)
constexpr int kFft40Work = 112;    // work area of the 40-point FFT (floats)
constexpr int kInvStride = 4;      // complex stride of the inverse input
static_assert(kRealLen == 2 * kHalf, "packing two real samples per complex value");
// Forward work area: packed sequence (80) followed by the 40-point FFT's work
// area, whose first two floats then hold Z[40].
static_assert(kRealLen + kFft40Work == 192, "forward work area is 192 floats");

}  // namespace

// in:   80 real samples (read only).
// out:  bins 0..40, bin k at out[2 k stride], out[2 k stride + 1].
// work: >= 192 floats: 0..79 the packed sequence and then Z[0..39];
//       80..191 the 40-point FFT's work area; afterwards 80..81 hold Z[40].
void aecfb_rfft(const float *in, float *out, float *work, int stride) {
    for (int i = 0; i < kRealLen; ++i) work[i] = in[i];
    aecfb_fft40(work, work + kRealLen);
    // Periodic extension Z[40] = Z[0], just after the 40 values.
    work[2 * kHalf] = work[0];
    work[2 * kHalf + 1] = work[1];

    // X[k] = Z[k] A[k] + conj(Z[40 - k]) B[k], k = 0..39.
    kvaec::kern::rfftSplit(work, aecfb_afSplit80, out, stride);
    float *o = out + 2 * kHalf * stride;
    o[0] = work[0] - work[1];
    o[1] = 0.0f;
}

// in:   41 bins, bin k at in[8 k], in[8 k + 1] (stride of 4 complex), read only.
// out:  80 floats; first the 40 complex Z values, then in place the
//       40-point inverse FFT; y[2m] = Re, y[2m + 1] = Im.
// work: >= 112 floats for the 40-point inverse FFT.
// The imaginary parts of bins 0 and 40 are used as they are.
void aecfb_rifft(const float *in, float *out, float *work) {
    static_assert(kBins == 41, "41 bins");
    // Z[k] = X[k] conj(A[k]) + conj(X[40 - k]) conj(B[k]), k = 0..39.
    kvaec::kern::rifftSplit(in, aecfb_afSplit80, out);
    aecfb_ifft40(out, work);
}

// Scalar references of the split steps (fb_kern.h).
void kvaec::kern::rfftSplitScalar(const float *z, const float (*split)[4], float *out, int stride) {
    for (int k = 0; k < kHalf; ++k) {
        const float zr = z[2 * k], zi = z[2 * k + 1];
        const float cr = z[2 * (kHalf - k)], ci = z[2 * (kHalf - k) + 1];
        const float ar = split[k][0], ai = split[k][1];
        const float br = split[k][2], bi = split[k][3];
        float *o = out + 2 * k * stride;
        o[0] = cr * br + zr * ar + ci * bi - zi * ai;
        o[1] = zr * ai + ar * zi + cr * bi - br * ci;
    }
}

void kvaec::kern::rifftSplitScalar(const float *in, const float (*split)[4], float *out) {
    for (int k = 0; k < kHalf; ++k) {
        const float *xk = in + 2 * kInvStride * k;
        const float *xc = in + 2 * kInvStride * (kHalf - k);
        const float xr = xk[0], xi = xk[1];
        const float cr = xc[0], ci = xc[1];
        const float ar = split[k][0], ai = split[k][1];
        const float br = split[k][2], bi = split[k][3];
        // X[k] conj(A[k]) + conj(X[40 - k]) conj(B[k])
        out[2 * k] = (xr * ar + xi * ai) + (cr * br - ci * bi);
        out[2 * k + 1] = (xi * ar - xr * ai) - (cr * bi + ci * br);
    }
}
