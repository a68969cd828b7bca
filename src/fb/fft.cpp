// Complex FFT kernels of fixed size: 4, 8, 16, 40 (5 x 8) and 80 (5 x 16)
// points, single precision, unscaled.
//
// Complex arrays are interleaved float pairs (re, im). Forward transforms
// compute X[k] = sum_n x[n] e^(-j 2 pi n k / N); inverse transforms use
// e^(+j 2 pi n k / N) and do not divide by N.
//
// The composite sizes use the mixed-radix (prime-factor style) index maps
// n = q + Q p and k = u + P w with a twiddle step in between:
//   1. P-point DFTs over the columns x[q + Q p], p = 0..P-1, into a P x Q
//      row-major matrix S[u][q] in the work area,
//   2. S[u][q] *= e^(-j 2 pi u q / N) (row 0 untouched),
//   3. Q-point DFTs in place along every row (q -> w),
//   4. X[u + P w] = S[u][w] written back to the caller's array.
// The write-back does the reordering; there is no bit-reversal pass. The
// radix-4, -5 and -8 kernels are straight-line code.
#include "fb.h"
#include "fb_kern.h"

namespace {

// Winograd 5-point constants.
constexpr float kW5C1 = -1.25f;        // (cos 2pi/5 + cos 4pi/5) / 2 - 1
constexpr float kW5C2 = 0.559017f;     // (cos 2pi/5 - cos 4pi/5) / 2
constexpr float kW5S1 = 0.95105654f;   // sin 2pi/5
constexpr float kW5S2 = 1.5388417f;    // sin 2pi/5 + sin 4pi/5
constexpr float kW5S3 = -0.36327127f;  // sin 4pi/5 - sin 2pi/5

// sqrt(1/2) for the 8- and 16-point kernels; cos and sin of pi/8 for the
// 16-point twiddles.
constexpr float kSqrtHalf = 0.70710677f;
constexpr float kCosPi8 = 0.9238795f;
constexpr float kSinPi8 = 0.38268343f;

// Work-area sizes (floats).
constexpr int kFft8Work = 32;                 // two 8-point stage buffers
constexpr int kFft16Mat = 32;                 // 4 x 4 complex matrix
constexpr int kFft16Work = kFft16Mat + 8;     // + one 4-point column temporary
constexpr int kFft40Mat = 80;                 // 5 x 8 complex matrix
constexpr int kFft40Work = kFft40Mat + kFft8Work;
constexpr int kFft80Mat = 160;                // 5 x 16 complex matrix
constexpr int kFft80Work = kFft80Mat + kFft16Work;
static_assert(kFft16Work == 40, "16-point work area is 40 floats");
static_assert(kFft40Work == 112, "40-point work area is 112 floats");
static_assert(kFft80Work == 200, "80-point work area is 200 floats");

// Winograd 5-point DFT of x[0], x[is], x[2 is], x[3 is], x[4 is] (complex,
// `is` and `os` in floats) into y[0], y[os], ..., y[4 os]. With `inverse`
// the outputs 1 <-> 4 and 2 <-> 3 trade places (X[k] -> X[(5 - k) mod 5]),
// which turns the forward kernel into the positive-exponent one.
inline void dft5(const float *x, int is, float *y, int os, bool inverse) {
    const float a0r = x[0], a0i = x[1];
    const float a1r = x[is], a1i = x[is + 1];
    const float a2r = x[2 * is], a2i = x[2 * is + 1];
    const float a3r = x[3 * is], a3i = x[3 * is + 1];
    const float a4r = x[4 * is], a4i = x[4 * is + 1];

    const float t1r = a1r + a4r, t1i = a1i + a4i;
    const float t2r = a2r + a3r, t2i = a2i + a3i;
    const float t3r = a1r - a4r, t3i = a1i - a4i;
    const float t4r = a3r - a2r, t4i = a3i - a2i;
    const float t5r = t1r + t2r, t5i = t1i + t2i;

    const float x0r = a0r + t5r, x0i = a0i + t5i;
    const float m1r = kW5C1 * t5r, m1i = kW5C1 * t5i;
    const float m2r = kW5C2 * (t1r - t2r), m2i = kW5C2 * (t1i - t2i);
    // The sine products carry a factor -j: -j (r + j i) = i - j r.
    const float m3r = kW5S1 * (t3i + t4i), m3i = -(kW5S1 * (t3r + t4r));
    const float m4r = kW5S2 * t4i, m4i = -(kW5S2 * t4r);
    const float m5r = kW5S3 * t3i, m5i = -(kW5S3 * t3r);

    const float s1r = x0r + m1r, s1i = x0i + m1i;
    const float s2r = s1r + m2r, s2i = s1i + m2i;
    const float s4r = s1r - m2r, s4i = s1i - m2i;
    const float s3r = m3r - m4r, s3i = m3i - m4i;
    const float s5r = m3r + m5r, s5i = m3i + m5i;

    float *y1 = y + (inverse ? 4 : 1) * os;
    float *y2 = y + (inverse ? 3 : 2) * os;
    float *y3 = y + (inverse ? 2 : 3) * os;
    float *y4 = y + (inverse ? 1 : 4) * os;
    y[0] = x0r;
    y[1] = x0i;
    y1[0] = s2r + s3r;
    y1[1] = s2i + s3i;
    y2[0] = s4r + s5r;
    y2[1] = s4i + s5i;
    y3[0] = s4r - s5r;
    y3[1] = s4i - s5i;
    y4[0] = s2r - s3r;
    y4[1] = s2i - s3i;
}

// First stage of the 40-point transforms: 5-point DFTs over the columns
// x[q + 8 p] (q = 0..7, p = 0..4) into the 5 x 8 matrix S[u][q] at
// work[2 (8 u + q)], floats 0..79. The five-point temporaries live in
// registers; floats 80..111 are left to the callers' later stages.
void fft5a_impl(const float *in, float *work, bool inverse) {
    for (int q = 0; q < 8; q += 4) kvaec::kern::dft5x4(in + 2 * q, 16, work + 2 * q, 16, inverse);
}

// Shared body of aecfb_fft40 / aecfb_ifft40; `x` in place, work >= 112.
// Work layout: floats 0..79 the 5 x 8 matrix, 80..111 the 8-point kernel.
void fft40_impl(float *x, float *work, bool inverse) {
    if (inverse) {
        aecfb_ifft5a(x, work);
    } else {
        aecfb_fft5a(x, work);
    }
    // Rows 1..4 times e^(-j 2 pi u q / 40), conjugated for the inverse.
    for (int u = 1; u < 5; ++u) {
        kvaec::kern::twiddle(work + 16 * u, aecfb_afTwid40 + 8 * (u - 1), 8, inverse);
    }
    for (int u = 0; u < 5; ++u) {
        if (inverse) {
            aecfb_ifft8(work + 16 * u, work + kFft40Mat);
        } else {
            aecfb_fft8(work + 16 * u, work + kFft40Mat);
        }
    }
    // X[u + 5 w] = S[u][w].
    for (int u = 0; u < 5; ++u) {
        for (int w = 0; w < 8; ++w) {
            x[2 * (u + 5 * w)] = work[2 * (8 * u + w)];
            x[2 * (u + 5 * w) + 1] = work[2 * (8 * u + w) + 1];
        }
    }
}

}  // namespace

// 4-point DFT in place: a, b, c, d = x0..x3.
//   X0 = (a + c) + (b + d)      X2 = (a + c) - (b + d)
//   X1 = (a - c) - j (b - d)    X3 = (a - c) + j (b - d)
void aec_fft4(float *x) {
    const float acr = x[0] + x[4], aci = x[1] + x[5];
    const float bdr = x[2] + x[6], bdi = x[3] + x[7];
    const float amcr = x[0] - x[4], amci = x[1] - x[5];
    const float bmdr = x[2] - x[6], bmdi = x[3] - x[7];
    x[0] = acr + bdr;
    x[1] = aci + bdi;
    x[4] = acr - bdr;
    x[5] = aci - bdi;
    // -j (b - d) = (bmdi, -bmdr)
    x[2] = amcr + bmdi;
    x[3] = amci - bmdr;
    x[6] = amcr - bmdi;
    x[7] = amci + bmdr;
}

// 8-point DFT in place, radix-2 decimation in frequency written out:
//   work[0..15]  stage 1: y[n] = x[n] + x[n+4], y[n+4] = (x[n] - x[n+4]) W8^n
//   work[16..31] stage 2: on each half, z[n] = y[n] + y[n+2],
//                         z[n+2] = (y[n] - y[n+2]) W4^n
//   stage 3 sums/differences of neighbours go straight to natural order
//   (position p of the last stage holds X[bit-reverse(p)]).
void aecfb_fft8(float *x, float *work) {
    float *y = work;
    float *z = work + 16;

    // Stage 1.
    y[0] = x[0] + x[8];
    y[1] = x[1] + x[9];
    y[2] = x[2] + x[10];
    y[3] = x[3] + x[11];
    y[4] = x[4] + x[12];
    y[5] = x[5] + x[13];
    y[6] = x[6] + x[14];
    y[7] = x[7] + x[15];
    {
        const float d0r = x[0] - x[8], d0i = x[1] - x[9];
        const float d1r = x[2] - x[10], d1i = x[3] - x[11];
        const float d2r = x[4] - x[12], d2i = x[5] - x[13];
        const float d3r = x[6] - x[14], d3i = x[7] - x[15];
        y[8] = d0r;
        y[9] = d0i;
        // W8^1 = sqrt(1/2) (1 - j)
        y[10] = kSqrtHalf * (d1r + d1i);
        y[11] = kSqrtHalf * (d1i - d1r);
        // W8^2 = -j
        y[12] = d2i;
        y[13] = -d2r;
        // W8^3 = -sqrt(1/2) (1 + j)
        y[14] = kSqrtHalf * (d3i - d3r);
        y[15] = -(kSqrtHalf * (d3r + d3i));
    }

    // Stage 2: halves y[0..3] and y[4..7] (complex).
    for (int h = 0; h < 16; h += 8) {
        const float *yh = y + h;
        float *zh = z + h;
        zh[0] = yh[0] + yh[4];
        zh[1] = yh[1] + yh[5];
        zh[2] = yh[2] + yh[6];
        zh[3] = yh[3] + yh[7];
        zh[4] = yh[0] - yh[4];
        zh[5] = yh[1] - yh[5];
        // (y[1] - y[3]) * (-j)
        zh[6] = yh[3] - yh[7];
        zh[7] = -(yh[2] - yh[6]);
    }

    // Stage 3 and natural-order write-back:
    // z positions 0..7 hold X0, X4, X2, X6, X1, X5, X3, X7.
    x[0] = z[0] + z[2];
    x[1] = z[1] + z[3];
    x[8] = z[0] - z[2];
    x[9] = z[1] - z[3];
    x[4] = z[4] + z[6];
    x[5] = z[5] + z[7];
    x[12] = z[4] - z[6];
    x[13] = z[5] - z[7];
    x[2] = z[8] + z[10];
    x[3] = z[9] + z[11];
    x[10] = z[8] - z[10];
    x[11] = z[9] - z[11];
    x[6] = z[12] + z[14];
    x[7] = z[13] + z[15];
    x[14] = z[12] - z[14];
    x[15] = z[13] - z[15];
}

// Inverse 8-point DFT, unscaled: the forward transform followed by
// X[k] -> X[(8 - k) mod 8], i.e. swaps 1 <-> 7, 2 <-> 6, 3 <-> 5.
void aecfb_ifft8(float *x, float *work) {
    aecfb_fft8(x, work);
    for (int k = 1; k < 4; ++k) {
        const int a = 2 * k, b = 2 * (8 - k);
        const float re = x[a], im = x[a + 1];
        x[a] = x[b];
        x[a + 1] = x[b + 1];
        x[b] = re;
        x[b + 1] = im;
    }
}

// 16-point DFT in place, n = q + 4 p, k = u + 4 w.
// Work layout (40 floats): 0..31 the 4 x 4 matrix S[u][q] at 2 (4 u + q),
// 32..39 the gathered column for the 4-point kernel.
void aec_fft16(float *x, float *work) {
    float *mat = work;
    float *col = work + kFft16Mat;

    for (int q = 0; q < 4; ++q) {
        for (int p = 0; p < 4; ++p) {
            col[2 * p] = x[2 * (q + 4 * p)];
            col[2 * p + 1] = x[2 * (q + 4 * p) + 1];
        }
        aec_fft4(col);
        for (int u = 0; u < 4; ++u) {
            mat[2 * (4 * u + q)] = col[2 * u];
            mat[2 * (4 * u + q) + 1] = col[2 * u + 1];
        }
    }

    // Twiddles e^(-j 2 pi u q / 16) for u, q >= 1, written out.
    {
        float *e = mat + 2 * (4 * 1 + 1);  // u q = 1: cos(pi/8) - j sin(pi/8)
        const float re = e[0], im = e[1];
        e[0] = kCosPi8 * re + kSinPi8 * im;
        e[1] = kCosPi8 * im - kSinPi8 * re;
    }
    for (int i = 0; i < 2; ++i) {  // u q = 2 at (1, 2) and (2, 1): sqrt(1/2) (1 - j)
        float *e = mat + (i == 0 ? 2 * (4 * 1 + 2) : 2 * (4 * 2 + 1));
        const float re = e[0], im = e[1];
        e[0] = kSqrtHalf * (re + im);
        e[1] = kSqrtHalf * (im - re);
    }
    for (int i = 0; i < 2; ++i) {  // u q = 3 at (1, 3) and (3, 1): sin(pi/8) - j cos(pi/8)
        float *e = mat + (i == 0 ? 2 * (4 * 1 + 3) : 2 * (4 * 3 + 1));
        const float re = e[0], im = e[1];
        e[0] = kSinPi8 * re + kCosPi8 * im;
        e[1] = kSinPi8 * im - kCosPi8 * re;
    }
    {
        float *e = mat + 2 * (4 * 2 + 2);  // u q = 4: -j
        const float re = e[0], im = e[1];
        e[0] = im;
        e[1] = -re;
    }
    for (int i = 0; i < 2; ++i) {  // u q = 6 at (2, 3) and (3, 2): -sqrt(1/2) (1 + j)
        float *e = mat + (i == 0 ? 2 * (4 * 2 + 3) : 2 * (4 * 3 + 2));
        const float re = e[0], im = e[1];
        e[0] = kSqrtHalf * (im - re);
        e[1] = -(kSqrtHalf * (re + im));
    }
    {
        float *e = mat + 2 * (4 * 3 + 3);  // u q = 9: -cos(pi/8) + j sin(pi/8)
        const float re = e[0], im = e[1];
        e[0] = -(kCosPi8 * re + kSinPi8 * im);
        e[1] = kSinPi8 * re - kCosPi8 * im;
    }

    for (int u = 0; u < 4; ++u) aec_fft4(mat + 8 * u);

    // X[u + 4 w] = S[u][w].
    for (int u = 0; u < 4; ++u) {
        for (int w = 0; w < 4; ++w) {
            x[2 * (u + 4 * w)] = mat[2 * (4 * u + w)];
            x[2 * (u + 4 * w) + 1] = mat[2 * (4 * u + w) + 1];
        }
    }
}

void aecfb_fft5a(const float *in, float *work) { fft5a_impl(in, work, false); }

void aecfb_ifft5a(const float *in, float *work) { fft5a_impl(in, work, true); }

void aecfb_fft40(float *x, float *work) { fft40_impl(x, work, false); }

void aecfb_ifft40(float *x, float *work) { fft40_impl(x, work, true); }

// 80-point DFT in place, n = q + 16 p, k = u + 5 w.
// Work layout (200 floats): 0..159 the 5 x 16 matrix S[u][q] at
// 2 (16 u + q); 160..199 the 16-point kernel's work area (the five-point
// temporaries live in registers).
void aec_fft80(float *x, float *work) {
    for (int q = 0; q < 16; q += 4) kvaec::kern::dft5x4(x + 2 * q, 32, work + 2 * q, 32, false);
    for (int u = 1; u < 5; ++u) {
        kvaec::kern::twiddle(work + 32 * u, aecfb_afTwid80 + 16 * (u - 1), 16, false);
    }
    for (int u = 0; u < 5; ++u) aec_fft16(work + 32 * u, work + kFft80Mat);
    // X[u + 5 w] = S[u][w].
    for (int u = 0; u < 5; ++u) {
        for (int w = 0; w < 16; ++w) {
            x[2 * (u + 5 * w)] = work[2 * (16 * u + w)];
            x[2 * (u + 5 * w) + 1] = work[2 * (16 * u + w) + 1];
        }
    }
}

// Scalar references of the vectorised steps (fb_kern.h).
void kvaec::kern::dft5x4Scalar(const float *x, int is, float *y, int os, bool inverse) {
    for (int c = 0; c < 4; ++c) dft5(x + 2 * c, is, y + 2 * c, os, inverse);
}

void kvaec::kern::twiddleScalar(float *row, const float (*tw)[2], int n, bool inverse) {
    for (int q = 0; q < n; ++q) {
        const float re = row[2 * q], im = row[2 * q + 1];
        const float c = tw[q][0], s = tw[q][1];
        if (inverse) {
            // Conjugated twiddle: (re + j im)(c - j s).
            row[2 * q] = c * re + s * im;
            row[2 * q + 1] = c * im - s * re;
        } else {
            // (re + j im)(c + j s).
            row[2 * q] = c * re - s * im;
            row[2 * q + 1] = s * re + c * im;
        }
    }
}
