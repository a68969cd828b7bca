// Adaptation of the two coefficient banks with normalised LMS rules.
//
//   fast bank (db->pafAdf): adapted sample by sample, per-sub-sample power
//     decay 0.9306048591021 (0.75 per frame), input weight 1.25, step taper
//     0.75 per group of four taps. Bands 0..18 adapt along a decorrelated
//     (prediction-error filtered) reference; the bands of strips 19..29 along
//     the plain reference.
//   slow bank (db->pafAds): one block update per frame from the four errors
//     formed before any adaptation, per-sub-sample power decay 0.960185
//     (0.85 per frame), input weight 1.125, step taper 0.85 per group.
//
// Reference history of band b (strip s): x[m] = complex value m of the
// band's slice of db->pafRef (index 0 newest; sub-sample j at index 3 - j).
// Coefficients c[k] of band b: its slice of the bank; L = AEC_aiAdfSzStrip[s].
// Scratch: sc->acStepErr [41][4] complex (step-scaled errors of the update in
// progress), sc->acRefWhite [52] complex (decorrelated reference of the band
// being processed by aec_adapt1).
#include "adf.h"

#include "../core/core.h"
#include "../core/simd.h"
#include "adf_kern.h"

namespace {

// Per-sub-sample power decay of the fast bank, applied in double precision
// and rounded to single.
constexpr double kDecayAdf = 0.9306048591021;
constexpr float kWeightAdf = 1.25f;
constexpr float kRegAdf = 4.8e-6f;
constexpr float kTaperAdf = 0.75f;

constexpr float kDecayAds = 0.960185f;
constexpr float kWeightAds = 1.125f;
constexpr float kRegAds = 0.00144f;
constexpr float kTaperAds = 0.85f;

// Steps at or below this value count as zero (see the two comparisons).
constexpr float kMinStep = 0.003f;

// Decorrelation: diagonal loading relative to the power, its floor.
constexpr float kDiagLoad = 0.07f;
constexpr float kDiagFloor = 1e-7f;
constexpr int kSweeps = 2;

// Low bands: filter length, history length, decorrelated positions.
constexpr int kLowTaps = 48;
constexpr int kLowHist = 55;
constexpr int kWhiteLen = 52;
static_assert(kWhiteLen + 3 == kLowHist, "four-tap filter over the whole history");
static_assert(kLowTaps - 1 + 3 < kWhiteLen, "every update reads inside the whitened reference");

constexpr int kFirstPairedStrip = AEC_NSINGLE;

// Gating thresholds of the frame, in dB.
constexpr float kGateClipDb = 20.0f;
constexpr float kGateToneDb = 20.0f;

inline float decayAdf(float v) {
    return static_cast<float>(static_cast<double>(v) * kDecayAdf);
}

inline float absSq(const float *x) { return x[0] * x[0] + x[1] * x[1]; }

// Start of the reference history of band i of strip s (complex index 0).
inline const float *bandRef(const AEC_tDb *db, int s, int i) {
    return db->pafRef + 2 * (AEC_aiRefOffStrip[s] + i * AEC_aiRefSzStrip[s]);
}

// First coefficient of band i of strip s in a bank.
inline float *bandCoef(float *bank, int s, int i) {
    return bank + 2 * (AEC_aiAdfOffStrip[s] + i * AEC_aiAdfSzStrip[s]);
}

// c[k] += u * conj(r[k]) for the taps of groups 0..groups-1, u tapered by
// `taper` after each group of four. u is a local copy.
void updateTapered(float *c, const float *r, float ur, float ui, int groups, float taper) {
#if KVAEC_SIMD_SSE2
    if (kvaec::simd::vectorOn()) {
        if (kvaec::simd::avx2On())
            kvaec::kern::updateTaperedAvx2(c, r, ur, ui, groups, taper);
        else
            kvaec::kern::updateTaperedSse2(c, r, ur, ui, groups, taper);
        return;
    }
#elif KVAEC_SIMD_NEON
    if (kvaec::simd::vectorOn()) {
        kvaec::kern::updateTaperedNeon(c, r, ur, ui, groups, taper);
        return;
    }
#endif
    kvaec::kern::updateTaperedScalar(c, r, ur, ui, groups, taper);
}

// Block update of one band of the slow bank (see adf_kern.h).
void blockUpdate(float *c, const float *x, float (*e)[2], int groups, float taper) {
#if KVAEC_SIMD_SSE2
    if (kvaec::simd::vectorOn()) {
        if (kvaec::simd::avx2On())
            kvaec::kern::blockUpdateAvx2(c, x, e, groups, taper);
        else
            kvaec::kern::blockUpdateSse2(c, x, e, groups, taper);
        return;
    }
#elif KVAEC_SIMD_NEON
    if (kvaec::simd::vectorOn()) {
        kvaec::kern::blockUpdateNeon(c, x, e, groups, taper);
        return;
    }
#endif
    kvaec::kern::blockUpdateScalar(c, x, e, groups, taper);
}

// Decorrelated reference of one low band (see adf_kern.h).
void whiten(const float (*a)[2], const float *x, float (*w)[2], int groups) {
#if KVAEC_SIMD_SSE2
    if (kvaec::simd::vectorOn()) {
        if (kvaec::simd::avx2On())
            kvaec::kern::whitenAvx2(a, x, w, groups);
        else
            kvaec::kern::whitenSse2(a, x, w, groups);
        return;
    }
#elif KVAEC_SIMD_NEON
    if (kvaec::simd::vectorOn()) {
        kvaec::kern::whitenNeon(a, x, w, groups);
        return;
    }
#endif
    kvaec::kern::whitenScalar(a, x, w, groups);
}

// One smoothing step of the stored correlation of a low band with the four
// newest-aligned samples x0 = x[0] .. x3 = x[3] of the given history pointer.
void corrUpdate(AEC_tRefCorrRec *rc, const float *x) {
    float (*lo)[2] = rc->acLow;   // (1,1) (1,2) (1,3) (2,2) (2,3) (3,3)
    float (*r0)[2] = rc->acRow0;  // (0,0) (0,1) (0,2) (0,3)
    // Shift one step down the diagonal: the newest sample becomes one older.
    // The order of the copies reads every old value before it is replaced.
    lo[5][0] = lo[3][0]; lo[5][1] = lo[3][1];  // (3,3) = (2,2)
    lo[4][0] = lo[1][0]; lo[4][1] = lo[1][1];  // (2,3) = (1,2)
    lo[3][0] = lo[0][0]; lo[3][1] = lo[0][1];  // (2,2) = (1,1)
    lo[2][0] = r0[2][0]; lo[2][1] = r0[2][1];  // (1,3) = (0,2)
    lo[1][0] = r0[1][0]; lo[1][1] = r0[1][1];  // (1,2) = (0,1)
    lo[0][0] = r0[0][0]; lo[0][1] = r0[0][1];  // (1,1) = (0,0)

    const float x0r = x[0];
    const float x0i = x[1];
    r0[0][0] = decayAdf(r0[0][0]) + kWeightAdf * absSq(x);
    r0[0][1] = decayAdf(r0[0][1]);
    for (int n = 1; n < 4; ++n) {
        const float xnr = x[2 * n];
        const float xni = x[2 * n + 1];
        // conj(x0) * xn
        const float pr = x0r * xnr + x0i * xni;
        const float pi = x0r * xni - x0i * xnr;
        r0[n][0] = decayAdf(r0[n][0]) + kWeightAdf * pr;
        r0[n][1] = decayAdf(r0[n][1]) + kWeightAdf * pi;
    }
}

// Refines the four-tap decorrelation filter a (in place) of one low band
// from its stored correlation; returns the regularised power r00 + delta.
//
// R is the Hermitian 4x4 matrix of the stored upper triangle, loaded with
// delta = 0.07 (r00 + 1e-7) on the diagonal and divided by r00 + delta so
// that R[0][0] = 1. Solving R a = (1, 0, 0, 0) by exactly two Gauss-Seidel
// sweeps from the previous frame's filter gives the prediction-error filter.
float decorrSolve(const AEC_tRefCorrRec *rc, float (*a)[2]) {
    const float r00 = rc->acRow0[0][0];
    const float delta = kDiagLoad * (r00 + kDiagFloor);
    const float d0 = r00 + delta;

    // Upper triangle, normalised. Index [i][m], m > i.
    float re[4][4] = {};
    float im[4][4] = {};
    const float (*lo)[2] = rc->acLow;
    const float up[6][2] = {{rc->acRow0[1][0], rc->acRow0[1][1]}, {rc->acRow0[2][0], rc->acRow0[2][1]},
                            {rc->acRow0[3][0], rc->acRow0[3][1]}, {lo[1][0], lo[1][1]},
                            {lo[2][0], lo[2][1]},                 {lo[4][0], lo[4][1]}};
    const int ui[6] = {0, 0, 0, 1, 1, 2};
    const int um[6] = {1, 2, 3, 2, 3, 3};
    for (int e = 0; e < 6; ++e) {
        const float vr = up[e][0] / d0;
        const float vi = up[e][1] / d0;
        re[ui[e]][um[e]] = vr;
        im[ui[e]][um[e]] = vi;
        // Lower triangle: conjugate of the upper.
        re[um[e]][ui[e]] = vr;
        im[um[e]][ui[e]] = -vi;
    }
    // Diagonal: real after loading and normalisation; R[0][0] = d0 / d0 = 1
    // is never read by the sweeps. Keep reciprocals of the other three.
    const float diag[4] = {r00, lo[0][0], lo[3][0], lo[5][0]};
    float inv[4] = {1.0f, 0.0f, 0.0f, 0.0f};
    for (int i = 1; i < 4; ++i) inv[i] = 1.0f / ((diag[i] + delta) / d0);

    for (int sweep = 0; sweep < kSweeps; ++sweep) {
        for (int i = 0; i < 4; ++i) {
            // s = sum over m != i of R[i][m] a[m], m increasing, newest a.
            float sr = 0.0f;
            float si = 0.0f;
            bool first = true;
            for (int m = 0; m < 4; ++m) {
                if (m == i) continue;
                const float pr = re[i][m] * a[m][0] - im[i][m] * a[m][1];
                const float pi = re[i][m] * a[m][1] + im[i][m] * a[m][0];
                if (first) {
                    sr = pr;
                    si = pi;
                    first = false;
                } else {
                    sr = sr + pr;
                    si = si + pi;
                }
            }
            if (i == 0) {
                a[0][0] = 1.0f - sr;
                a[0][1] = 0.0f - si;
            } else {
                a[i][0] = -sr * inv[i];
                a[i][1] = -si * inv[i];
            }
        }
    }
    return d0;
}

}  // namespace

// Stage entry: decides whether the frame may adapt, then runs the fast-bank
// updates (low bands, then the paired strips sub-sample by sub-sample) and
// the slow-bank block update. The result carries no information.
int aec_adf_adapt(AEC_tDb *db, AEC_tSc *sc) {
    // Adaptation is off when frozen by the mode word, when the send path is
    // absent, while the microphone clips or while the receive signal is
    // tonal. Tested in this order; the first hit decides.
    bool gated = (db->uiFlags & KVAEC_MODE_FREEZE) != 0u;
    if (!gated) gated = !(sc->atStripSc[AEC_FULLBAND].fSinDb > db->tCfg.fLevelFloorDb);
    if (!gated) gated = !(db->fClipDb < kGateClipDb);
    if (!gated) gated = !(db->fTdAlarmDb < kGateToneDb);
    if (gated) {
        // Zero steps keep the coefficients; the power averages and the
        // correlations below still follow the reference.
        for (int s = 0; s < AEC_NSTRIPS; ++s) {
            sc->atStripSc[s].fMuAdf = 0.0f;
            sc->atStripSc[s].fMuAds = 0.0f;
        }
    }
    aec_adapt1(db, sc);
    for (unsigned j = 0; j < AEC_NSUB; ++j) {
        aec_cancel_reg2(db, sc, j);
        aec_adapt2(db, sc, j);
    }
    aec_adapt4(db, sc);
    return 0;
}

// Fast bank, bands 0..18 (48 taps, 55 history values each): correlation
// update for the four sub-samples, decorrelation filter refinement, then per
// sub-sample error and update along the decorrelated reference.
void aec_adapt1(AEC_tDb *db, AEC_tSc *sc) {
    static_assert(sizeof(sc->acRefWhite) == sizeof(float) * 2 * kWhiteLen, "whitened reference size");

    // 1. Correlation of the four newest-aligned samples, oldest sub-sample
    //    first (aligned index m = 3, 2, 1, 0).
    for (int m = 3; m >= 0; --m)
        for (int b = 0; b < AEC_NSINGLE; ++b) corrUpdate(&db->atRefCorr[b], bandRef(db, b, 0) + 2 * m);

    for (int b = 0; b < AEC_NSINGLE; ++b) {
        const int s = b;  // one band per strip
        const float *x = bandRef(db, s, 0);
        float *c = bandCoef(db->pafAdf, s, 0);

        // 2. Decorrelation filter and decorrelated reference:
        //    w[k] = a0 x[k] + a1 x[k+1] + a2 x[k+2] + a3 x[k+3], k = 0..51.
        float (*a)[2] = db->acDecorr[b];
        const float pw = decorrSolve(&db->atRefCorr[b], a);
        float (*w)[2] = sc->acRefWhite;
        static_assert(kWhiteLen % 4 == 0, "whitened positions in groups of four");
        whiten(a, x, w, kWhiteLen / 4);

        // 3. Sample-by-sample error and update. The step threshold here is
        //    inclusive (a step of exactly 0.003 adapts), unlike the paired
        //    strips.
        const float mu = sc->atStripSc[s].fMuAdf;
        for (unsigned j = 0; j < AEC_NSUB; ++j) {
            const int aligned = 3 - static_cast<int>(j);
            float *err = sc->acErrAdf[b][j];
            aec_cancel_band(x + 2 * aligned, c, err, kLowTaps);
            float ur = 0.0f;
            float ui = 0.0f;
            if (mu >= kMinStep) {
                const float g = mu / (pw + kRegAdf);
                ur = g * err[0];
                ui = g * err[1];
            }
            sc->acStepErr[b][0][0] = ur;
            sc->acStepErr[b][0][1] = ui;
            updateTapered(c, &w[aligned][0], ur, ui, kLowTaps / 4, kTaperAdf);
        }
    }
}

// Fast bank, bands of strips 19..29, sub-sample j; the error of sub-sample j
// has just been formed by aec_cancel_reg2.
void aec_adapt2(AEC_tDb *db, AEC_tSc *sc, unsigned j) {
    const int aligned = 3 - static_cast<int>(j);

    // 1. Reference power of the aligned sample.
    for (int s = kFirstPairedStrip; s < AEC_NSTRIPS; ++s)
        for (int i = 0; i < AEC_aiBandsPerStrip[s]; ++i) {
            const int b = AEC_aiBandOffStrip[s] + i;
            const float *x = bandRef(db, s, i) + 2 * aligned;
            db->afRefPowAdf[b] = decayAdf(db->afRefPowAdf[b]) + kWeightAdf * absSq(x);
        }

    // 2. No step unless set below.
    aec_memclr(sc->acStepErr, static_cast<unsigned>(sizeof(sc->acStepErr) / 4));

    // 3. Normalised step of the strips that adapt (threshold exclusive).
    for (int s = kFirstPairedStrip; s < AEC_NSTRIPS; ++s) {
        const float mu = sc->atStripSc[s].fMuAdf;
        if (!(mu > kMinStep)) continue;
        for (int i = 0; i < AEC_aiBandsPerStrip[s]; ++i) {
            const int b = AEC_aiBandOffStrip[s] + i;
            const float g = mu / (db->afRefPowAdf[b] + kRegAdf);
            sc->acStepErr[b][0][0] = g * sc->acErrAdf[b][j][0];
            sc->acStepErr[b][0][1] = g * sc->acErrAdf[b][j][1];
        }
    }

    // 4. Tapered update along the aligned reference.
    for (int s = kFirstPairedStrip; s < AEC_NSTRIPS; ++s)
        for (int i = 0; i < AEC_aiBandsPerStrip[s]; ++i) {
            const int b = AEC_aiBandOffStrip[s] + i;
            updateTapered(bandCoef(db->pafAdf, s, i), bandRef(db, s, i) + 2 * aligned,
                          sc->acStepErr[b][0][0], sc->acStepErr[b][0][1],
                          AEC_aiAdfSzStrip[s] >> 2, kTaperAdf);
        }
}

// Slow bank, all bands: one block update from the four errors of the frame.
void aec_adapt4(AEC_tDb *db, AEC_tSc *sc) {
    // 1. Reference power, oldest sub-sample (x[3]) first, single precision.
    for (int s = 0; s < AEC_NSTRIPS; ++s)
        for (int i = 0; i < AEC_aiBandsPerStrip[s]; ++i) {
            const int b = AEC_aiBandOffStrip[s] + i;
            const float *x = bandRef(db, s, i);
            float p = db->afRefPowAds[b];
            for (int m = 3; m >= 0; --m) p = kDecayAds * p + kWeightAds * absSq(x + 2 * m);
            db->afRefPowAds[b] = p;
        }

    // 2. No step unless set below.
    aec_memclr(sc->acStepErr, static_cast<unsigned>(sizeof(sc->acStepErr) / 4));

    // 3. Normalised steps of the four sub-samples; the slow step is shared
    //    out as a quarter per sub-sample.
    for (int b = 0; b < AEC_NBANDS; ++b) {
        const float mu = 0.25f * sc->atStripSc[AEC_aiBand2Strip[b]].fMuAds;
        if (mu != 0.0f) {
            const float g = mu / (db->afRefPowAds[b] + kRegAds);
            for (int j = 0; j < AEC_NSUB; ++j) {
                sc->acStepErr[b][j][0] = g * sc->acErrAds[b][j][0];
                sc->acStepErr[b][j][1] = g * sc->acErrAds[b][j][1];
            }
        }
    }

    // 4. c[k] += sum_j e_j conj(x[k + 3 - j]) (j increasing), steps tapered
    //    in place by 0.85 after each group of four taps.
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        const int groups = AEC_aiAdfSzStrip[s] >> 2;
        for (int i = 0; i < AEC_aiBandsPerStrip[s]; ++i) {
            const int b = AEC_aiBandOffStrip[s] + i;
            const float *x = bandRef(db, s, i);
            float *c = bandCoef(db->pafAds, s, i);
            blockUpdate(c, x, sc->acStepErr[b], groups, kTaperAds);
        }
    }
}

// Scalar references of the update kernels (always built; the vector kernels
// must match them bit for bit).

void kvaec::kern::updateTaperedScalar(float *c, const float *r, float ur, float ui, int groups, float taper) {
    for (int g = 0; g < groups; ++g) {
        for (int t = 0; t < 4; ++t) {
            const int k = 4 * g + t;
            const float xr = r[2 * k];
            const float xi = r[2 * k + 1];
            c[2 * k] = c[2 * k] + (ur * xr + ui * xi);
            c[2 * k + 1] = c[2 * k + 1] + (ui * xr - ur * xi);
        }
        ur = taper * ur;
        ui = taper * ui;
    }
}

void kvaec::kern::blockUpdateScalar(float *c, const float *x, float (*e)[2], int groups, float taper) {
    for (int g = 0; g < groups; ++g) {
        for (int t = 0; t < 4; ++t) {
            const int k = 4 * g + t;
            float sr = 0.0f;
            float si = 0.0f;
            for (int j = 0; j < AEC_NSUB; ++j) {
                const float xr = x[2 * (k + 3 - j)];
                const float xi = x[2 * (k + 3 - j) + 1];
                const float pr = e[j][0] * xr + e[j][1] * xi;
                const float pi = e[j][1] * xr - e[j][0] * xi;
                if (j == 0) {
                    sr = pr;
                    si = pi;
                } else {
                    sr = sr + pr;
                    si = si + pi;
                }
            }
            c[2 * k] = c[2 * k] + sr;
            c[2 * k + 1] = c[2 * k + 1] + si;
        }
        for (int j = 0; j < AEC_NSUB; ++j) {
            e[j][0] = taper * e[j][0];
            e[j][1] = taper * e[j][1];
        }
    }
}

void kvaec::kern::whitenScalar(const float (*a)[2], const float *x, float (*w)[2], int groups) {
    for (int k = 0; k < 4 * groups; ++k) {
        float wr = 0.0f;
        float wi = 0.0f;
        for (int mm = 0; mm < 4; ++mm) {
            const float xr = x[2 * (k + mm)];
            const float xi = x[2 * (k + mm) + 1];
            const float pr = a[mm][0] * xr - a[mm][1] * xi;
            const float pi = a[mm][0] * xi + a[mm][1] * xr;
            if (mm == 0) {
                wr = pr;
                wi = pi;
            } else {
                wr = wr + pr;
                wi = wi + pi;
            }
        }
        w[k][0] = wr;
        w[k][1] = wi;
    }
}
