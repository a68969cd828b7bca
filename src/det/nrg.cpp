// Energies: per-strip and full-band levels of the sub-band signals, the
// frame's echo return loss (ERL) and its enhancement (ERLE), and the smoothed
// ERL and ERLE per strip.
//
// Levels are dB on the scale of aec_utl_en2log plus a fixed 3.01 dB. A level
// set holds 31 values: the 30 strips, then the full band at index 30.
#include "det.h"

#include "../core/core.h"
#include "../core/simd.h"
#include "nrg_kern.h"

namespace {

constexpr int kFloatsPerBand = AEC_NSUB * 2;  // 4 complex sub-samples, re/im
constexpr int kFrameFloats = AEC_NBANDS * kFloatsPerBand;
constexpr float kBandDb = 3.01f;  // added to every converted energy
static_assert(kFloatsPerBand == 8, "a band of a sub-band frame is 8 floats");
static_assert(kFrameFloats == 328, "a sub-band frame is 41 x 4 complex values");

// Sum of squares of nBands runs of 8 floats; run j starts at first + j *
// stride (order fixed in the scalar reference below).
float sumSquares(const float *first, int nBands, int stride) {
#if KVAEC_SIMD_SSE2
    if (kvaec::simd::vectorOn()) return kvaec::kern::sumSquaresSse2Inline(first, nBands, stride);
#elif KVAEC_SIMD_NEON
    if (kvaec::simd::vectorOn()) return kvaec::kern::sumSquaresNeon(first, nBands, stride);
#endif
    return kvaec::kern::sumSquaresScalar(first, nBands, stride);
}

// Mean energy of one complex sample of one band: sum / bands / 4 samples.
float stripEnergy(float sum, int s) { return sum * AEC_afInvBandsPerStrip[s] * 0.25f; }

// Full-band energy in work[30]: weighted sum of work[0..29], in strip order.
void fullBand(float *work) {
    float e = 0.0f;
    for (int s = 0; s < AEC_NSTRIPS; ++s) e += work[s] * aecnrg_aCorrTab[s];
    work[AEC_FULLBAND] = e;
}

// Linear energies of a sub-band frame (41 bands x 4 complex, band-major) into
// work[0..30]. The strips take the bands in order, each strip starting where
// the previous one ended; a strip with no bands neither sums nor advances.
void frameEnergies(const float *frame, float *work) {
    const float *p = frame;
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        const int nb = AEC_aiBandsPerStrip[s];
        work[s] = stripEnergy(sumSquares(p, nb, kFloatsPerBand), s);
        if (nb > 0) p += nb * kFloatsPerBand;
    }
    fullBand(work);
}

// Converts work[0..30] in place to levels: aec_utl_en2log, then + 3.01 dB.
void toLevels(float *work) {
    aec_utl_en2log_arr(work, AEC_NSTRIPREC);
    for (int s = 0; s < AEC_NSTRIPREC; ++s) work[s] = work[s] + kBandDb;
}

// Stores the 31 levels of work into one word of every level record.
void scatter(AEC_tSc *sc, const float *work, float AEC_tStripScRec::*word) {
    for (int s = 0; s < AEC_NSTRIPREC; ++s) sc->atStripSc[s].*word = work[s];
}

void frameLevels(AEC_tSc *sc, const float *frame, float AEC_tStripScRec::*word) {
    float *work = sc->afNrgWork;
    frameEnergies(frame, work);
    toLevels(work);
    scatter(sc, work, word);
}

float minf(float a, float b) { return b < a ? b : a; }

float clampf(float v, float lo, float hi) {
    if (v > hi) v = hi;
    if (v < lo) v = lo;
    return v;
}

}  // namespace

void aec_nrg_in(AEC_tDb *db, AEC_tSc *sc) {
    frameLevels(sc, &sc->acRcvSb[0][0][0], &AEC_tStripScRec::fRinDb);
    frameLevels(sc, &sc->acSndSb[0][0][0], &AEC_tStripScRec::fSinDb);

    // Reference: the 4 newest complex slots (positions 0..3) of every band's
    // history row in the reference store. A strip's rows follow each other,
    // each AEC_aiRefSzStrip[s] complex values long.
    float *work = sc->afNrgWork;
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        const float *row = db->pafRef + 2 * AEC_aiRefOffStrip[s];
        work[s] = stripEnergy(sumSquares(row, AEC_aiBandsPerStrip[s], 2 * AEC_aiRefSzStrip[s]), s);
    }
    fullBand(work);
    // The linear strip energies enter the newest slot of each strip's
    // reference energy history (no full-band block).
    for (int s = 0; s < AEC_NSTRIPS; ++s) db->afRefNrgHist[AEC_aiRefNrgOffStrip[s]] = work[s];
    toLevels(work);
    scatter(sc, work, &AEC_tStripScRec::fRefDb);

    frameLevels(sc, &sc->acErrAds[0][0][0], &AEC_tStripScRec::fErrAdsDb);
}

void aec_nrg_erf(AEC_tSc *sc) { frameLevels(sc, &sc->acErrAdf[0][0][0], &AEC_tStripScRec::fErrAdfDb); }

void aec_nrg_blk(const float *src, float *out) {
    // out serves as the work array: energies first, then levels in place.
    frameEnergies(src, out);
    toLevels(out);
}

void aec_erl_sb(AEC_tDb *db, AEC_tSc *sc) {
    for (int s = 0; s < AEC_NSTRIPREC; ++s) {
        AEC_tStripRec *q = &db->atStrip[s];
        AEC_tStripScRec *r = &sc->atStripSc[s];
        // Reference level of the two previous frames against this frame's
        // microphone level: the echo of a reference slot reaches the
        // microphone one to two frames later.
        r->fErlFrameDb = (q->fRefDbPrev1 + q->fRefDbPrev2) * 0.5f - r->fSinDb;
        q->fRefDbPrev2 = q->fRefDbPrev1;
        q->fRefDbPrev1 = r->fRefDb;
    }
}

void aec_erle_sb(AEC_tSc *sc) {
    for (int s = 0; s < AEC_NSTRIPREC; ++s) {
        AEC_tStripScRec *r = &sc->atStripSc[s];
        // The better (quieter) of the two filter errors counts.
        float e = r->fSinDb - minf(r->fErrAdfDb, r->fErrAdsDb);
        if (e < 0.0f) e = 0.0f;
        r->fErleDb = e;
    }
}

void aec_erle_sb_avrg(AEC_tDb *db, AEC_tSc *sc) {
    // Echo-path-change weight p = fEpcDb / 15, not negative. At p above 1.75
    // falls of ERLE are followed faster; below 1.75 double talk slows the
    // averages. At exactly 1.75 neither applies.
    float p = db->fEpcDb * 0.06666667f;
    if (p < 0.0f) p = 0.0f;
    float g = 0.03f + 0.03f * p;
    if (db->fAdaptTime > 600.0f) g = g * 0.5f;
    const float k = g * 0.0125f;
    const float erlFloor = db->tCfg.fErlInitDb;

    for (int s = 0; s < AEC_NSTRIPREC; ++s) {
        AEC_tStripRec *q = &db->atStrip[s];
        const AEC_tStripScRec *r = &sc->atStripSc[s];
        float qe = q->fErleAvgDb;
        float ql = q->fErlDb;
        const float fl = q->fErrFloorDb;
        const float dt = q->fDtAccDb;

        // A: how far the echo the averages predict lies above the error floor
        // (floor + 3 dB), with a 2 dB margin.
        float a = r->fRefDb - qe - ql - (fl - 3.0f) + 2.0f;
        float d = r->fErleDb - qe;
        if (p > 1.75f && d < 0.0f) a = a + 0.5f * qe;
        a = clampf(a, 0.0f, 10.0f);
        float b = r->fExpEchoDb + 1.0f + 0.25f * p * qe - (fl - 3.0f);
        b = clampf(b, 0.0f, 8.0f);

        float rate = b * k * a;
        if (d >= 0.0f) rate = g;  // ERLE rising: the base rate
        if (p < 1.75f) rate = rate * 0.1f * clampf(10.0f - dt, 0.0f, 10.0f);
        if (s == 0) rate = rate * 0.1f;

        const float emin = minf(r->fErrAdfDb, r->fErrAdsDb);
        if (d > 0.0f && emin - r->fExpTailDb > 0.0f) d = d - 0.8f * (emin - r->fExpTailDb);
        if (d < 0.0f) d = d * 1.2f;  // falls are followed 20 % harder than rises

        // The ERLE average moves only as fast as the fast filter adapts here.
        qe = clampf(qe + d * r->fMuAdf * rate, 0.0f, 40.0f);
        q->fErleAvgDb = qe;

        ql = ql + 0.35f * (r->fErlFrameDb - ql) * rate;
        if (ql < erlFloor) ql = erlFloor;
        q->fErlDb = ql;
    }
}

// Scalar reference of the energy sum (always built; the vector kernel must
// match it bit for bit).
// Sum of squares of nBands runs of 8 floats; run j starts at first + j * stride.
// Fixed summation order: four lane sums, lane l taking floats l and l + 4 of
// every run in turn (the order a 4-wide vector accumulator gives), combined as
// (lane0 + lane1) + (lane2 + lane3). No bands gives 0.
float kvaec::kern::sumSquaresScalar(const float *first, int nBands, int stride) {
    float lane[4] = {0.0f, 0.0f, 0.0f, 0.0f};
    for (int j = 0; j < nBands; ++j) {
        const float *p = first + j * stride;
        for (int h = 0; h < kFloatsPerBand; h += 4) {
            for (int l = 0; l < 4; ++l) lane[l] += p[h + l] * p[h + l];
        }
    }
    return (lane[0] + lane[1]) + (lane[2] + lane[3]);
}

