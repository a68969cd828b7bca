// Step-size control: predicted echo levels per strip from the reference
// energy history, their spreading across strips, the step sizes of the fast
// (AEC_afAdf) and slow (AEC_afAds) filters, and the echo-loss correction
// from the energy of the slow filter's coefficients.
#include "adf.h"

#include <cstring>

#include "../core/core.h"

namespace {

// Predicted levels are never taken below this (dB).
constexpr float kRelFloorDb = -120.0f;
// Steps below this count as zero.
constexpr float kMuMin = 0.003f;
// Per-frame taper of the reference energy inside the filter span (the taper
// per group of four taps of the slow filter's update).
constexpr float kSpanTaper = 0.85f;
// Spreading of a strong strip's prediction to its neighbours, dB per strip.
constexpr float kSpreadSlopeDb = 1.5f;

// Profile 5 and 6 select the long-tail rules of the history ageing.
inline bool longTailProfile(int32_t profile) {
    return static_cast<uint32_t>(profile) - 5u < 2u;
}

inline float maxf(float a, float b) { return a < b ? b : a; }
inline float minf(float a, float b) { return b < a ? b : a; }

}  // namespace

// Per strip s = 0..29, block h of afRefNrgHist (G + 1 linear energies, newest
// first; G = filter taps / 4 frames inside the filter span, h[G] the leaky sum
// of everything older). Both predictions are absolute echo levels: the
// reference energy over the filter span less the echo loss, so they fall
// with the far end and compare directly with the error and floor levels:
//   fExpEchoDb = max(en2log(tapered span energy), -120) - (fErleAvgDb + fErlDb)
//   fExpTailDb = the same with the older energy h[G] added to the tapered sum
//                (weighted by the long-tail profiles 5 and 6).
// Then the block is aged by one frame: h[G] absorbs h[G-1], h[0..G-2] move
// to h[1..G-1]; h[0] is rewritten by the energy stage of the next frame.
void aec_exp_update(AEC_tDb *db, AEC_tSc *sc) {
    const int32_t profile = db->tCfg.iProfile;
    const float age = longTailProfile(profile) ? 0.85f : 0.75f;
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        float *h = db->afRefNrgHist + AEC_aiRefNrgOffStrip[s];
        const int G = AEC_aiAdfSzStrip[s] / 4;
        float et = 0.0f;
        float w = 1.0f;
        for (int g = 0; g < G; ++g) {
            et = et + w * h[g];
            w = w * kSpanTaper;
        }
        const float b = aec_utl_en2log(et);
        const AEC_tStripRec *st = &db->atStrip[s];
        AEC_tStripScRec *sr = &sc->atStripSc[s];
        const float loss = st->fErleAvgDb + st->fErlDb;
        sr->fExpEchoDb = maxf(b, kRelFloorDb) - loss;

        float t;
        if (profile == 6)
            t = et + 4.0f * h[G];
        else if (profile == 5)
            t = 10.0f * (et + 8.0f * h[G]);
        else
            t = et + h[G];
        sr->fExpTailDb = maxf(aec_utl_en2log(t), kRelFloorDb) - loss;

        h[G] = h[G - 1] + age * h[G];
        if (G > 1) std::memmove(h + 1, h, static_cast<size_t>(G - 1) * sizeof(float));
    }
}

// Spreading: a strip whose ERLE average exceeds the threshold
// thr = 40 + 1.5 * min(fRinLevelRefDb - fRinPeakDb, 0) raises the tail
// prediction of every strip k to at least its own (unspread) tail prediction
// plus the excess, less 1.5 dB per strip of distance. The spread values are
// built in afExpSpreadDb[30] and then written back to fExpTailDb. Finally the
// power sums over the 30 strips of the spread tail predictions
// (fExpLevelDb) and of the echo predictions (fExpEchoSumDb), in dB.
void aec_exp_full(AEC_tDb *db, AEC_tSc *sc) {
    const float thr = 40.0f + 1.5f * minf(db->tCfg.fRinLevelRefDb - db->fRinPeakDb, 0.0f);
    sc->fExpSpreadThrDb = thr;
    float *T = sc->afExpSpreadDb;
    for (int s = 0; s < AEC_NSTRIPS; ++s) T[s] = sc->atStripSc[s].fExpTailDb;
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        const float e = db->atStrip[s].fErleAvgDb - thr;
        if (!(e > 0.0f)) continue;
        const float v = sc->atStripSc[s].fExpTailDb + e;
        for (int k = 0; k < AEC_NSTRIPS; ++k) {
            const int dist = k > s ? k - s : s - k;
            T[k] = maxf(T[k], v - kSpreadSlopeDb * static_cast<float>(dist));
        }
    }
    for (int s = 0; s < AEC_NSTRIPS; ++s) sc->atStripSc[s].fExpTailDb = T[s];

    float level = 0.0f;
    float echo = 0.0f;
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        const float a = aec_utl_exp(T[s]);
        level = level + a * a;
        const float b = aec_utl_exp(sc->atStripSc[s].fExpEchoDb);
        echo = echo + b * b;
    }
    sc->fExpLevelDb = aec_utl_en2log(level);
    sc->fExpEchoSumDb = aec_utl_en2log(echo);
}

// Step sizes of the frame for the 30 strips and the full band. The fast
// filter's step is 1 while the predicted echo reaches the error floor and
// falls by aec_utl_exp(-2) per dB the floor lies above it; a positive
// double-talk accumulator or echo-path-change measure raises it. A frame ERL
// at or below half the initial ERL (or not a number) instead lowers it by
// 7 dB per dB of shortfall. The slow filter adapts only with an active
// receive path, negative double-talk and echo-path-change evidence and no
// double talk.
void aec_exp_stepsize(AEC_tDb *db, AEC_tSc *sc) {
    const float D = db->fEpcDb;
    const float V = db->atStrip[AEC_FULLBAND].fRinActDb;
    const float c0 = 0.5f * db->tCfg.fErlInitDb;
    const bool doubleTalk = db->iDoubleTalk != 0;
    for (int r = 0; r < AEC_NSTRIPREC; ++r) {
        const AEC_tStripRec *st = &db->atStrip[r];
        AEC_tStripScRec *sr = &sc->atStripSc[r];
        float x;
        if (sr->fErlFrameDb > c0)
            x = st->fErrFloorDb - sr->fExpEchoDb - 1.8f * maxf(st->fDtAccDb, 0.0f);
        else
            x = st->fErrFloorDb - sr->fExpEchoDb + 7.0f * (c0 - sr->fErlFrameDb);
        x = x - 0.8f * maxf(D, 0.0f);
        x = maxf(2.0f * x, 0.0f);
        // A step is 0 or at least kMuMin; one that is not a number (from
        // levels that are not numbers) counts as zero as well.
        float mu = aec_utl_exp(-x);
        if (!(mu >= kMuMin)) mu = 0.0f;
        sr->fMuAdf = mu;

        const float y = maxf(2.0f * (st->fErrFloorDb - sr->fExpEchoDb), 0.0f);
        const float a = maxf(-st->fDtAccDb / 6.0f, 0.0f) * maxf(V / 30.0f, 0.0f) *
                        maxf(-D / 6.0f, 0.0f);
        float muS = a * aec_utl_exp(-y);
        if (!(muS >= kMuMin) || doubleTalk) muS = 0.0f;
        sr->fMuAds = muS;
    }
}

// One strip per call, in rotation 1, 2, ..., 29, 0, 1, ...: when both the ERLE
// average and the frame ERLE of the strip exceed 5 dB, fErlDb moves towards
// the loss implied by the slow filter's coefficient energy (per band, over
// all taps) at a rate of up to 0.25 that grows with the ERLE average.
void aec_exp_erl(AEC_tDb *db, AEC_tSc *sc) {
    int s = db->iErlStrip;
    // Initialisation and reset keep the index in 0..29; anything else written
    // into the record restarts the rotation at strip 0 rather than reading
    // outside the tables.
    if (s < 0 || s >= AEC_NSTRIPS) s = 0;
    AEC_tStripRec *st = &db->atStrip[s];
    if (st->fErleAvgDb > 5.0f && sc->atStripSc[s].fErleDb > 5.0f) {
        const float *c = db->pafAds + 2 * AEC_aiAdfOffStrip[s];
        const int n = AEC_aiBandsPerStrip[s] * AEC_aiAdfSzStrip[s];
        float e = 0.0f;
        for (int k = 0; k < n; ++k) e = e + (c[2 * k] * c[2 * k] + c[2 * k + 1] * c[2 * k + 1]);
        const float l = aec_utl_en2log(e * AEC_afInvBandsPerStrip[s]);
        const float rate = minf(maxf(st->fErleAvgDb - 3.0f, 0.0f), 12.0f) * 0.020833334f;
        st->fErlDb = st->fErlDb + (3.01f - l - st->fErlDb) * rate;
    }
    db->iErlStrip = s + 1 < AEC_NSTRIPS ? s + 1 : 0;
}
