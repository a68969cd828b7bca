// Noise reduction: a per-strip Wiener-type gain on the send frame acErrAdf
// (after the non-linear processor), with the noise power taken from the
// tracked error-signal floor and the clean-speech power estimated in the
// decision-directed manner from the previous frame's clean power.
//
// Strength c = tCfg.fNrLevelDb limited to 0..1 (0 = gain floor 0 dB, so the
// stage passes the signal unchanged; 1 = floor -20 dB).
//
// Work records: sc->atNr[0..29] (5 floats per strip, scratch area shared with
// earlier stages, every field written here before it is read).
// Persistent: db->afNrClean[0..29], the clean power g*g*E of the last frame.
#include "post.h"

#include <cmath>

#include "../core/core.h"

namespace {

constexpr int kFloatsPerBand = AEC_NSUB * 2;
static_assert(kFloatsPerBand == 8, "4 complex sub-samples per band");

constexpr uint32_t kNoNr = KVAEC_MODE_NO_NR;  // 0x200
static_assert(kNoNr == 0x200u, "mode bit");

// Frequency smoothing kernel over strips at distance 1, 2, 3 (both sides;
// the strip itself has weight 0).
constexpr float kW1 = 5.0f / 18.0f;
constexpr float kW2 = 3.0f / 18.0f;
constexpr float kW3 = 1.0f / 18.0f;
// Factors of the truncated kernels at the low edge.
constexpr float kEdge0 = 2.0f;
constexpr float kEdge1 = 0.7777778f;
constexpr float kEdge2 = 0.9444444f;
// Strips from here up take their own power unsmoothed.
constexpr int kFirstUnsmoothed = 26;
static_assert(kFirstUnsmoothed - 1 + 3 < AEC_NSTRIPS, "full kernel stays inside the strips");

inline float minf(float a, float b) { return b < a ? b : a; }
inline float maxf(float a, float b) { return b > a ? b : a; }

// Strength c: the configured level limited to 0..1.
inline float strength(const AEC_tDb *db) {
    return maxf(minf(db->tCfg.fNrLevelDb, 1.0f), 0.0f);
}

}  // namespace

void aec_nr_nse(AEC_tDb *db, AEC_tSc *sc) {
    // Noise power: a level 2 dB below the error floor, raised by up to 2.7 dB
    // with c; exp of twice a dB value is a power ratio.
    const float c = strength(db);
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        const float f = db->atStrip[s].fErrFloorDb;
        sc->atNr[s].fNoisePow = aec_utl_exp(2.0f * (f - 2.0f + 2.7f * c));
    }
}

void aec_nr_nrg(AEC_tDb *db, AEC_tSc *sc) {
    (void)db;
    // Noisy power per complex sample and band, plus a quarter of the noise
    // power so that it never reaches zero. Strips consume their bands in order.
    const float *x = &sc->acErrAdf[0][0][0];
    int pos = 0;
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        const int n = AEC_aiBandsPerStrip[s] * kFloatsPerBand;
        float p = 0.0f;
        for (int i = 0; i < n; ++i) p += x[pos + i] * x[pos + i];
        pos += n;
        AEC_tNrRec &r = sc->atNr[s];
        r.fNrgNoisy = AEC_afInvBandsPerStrip[s] * 0.25f * (p + 0.25f * r.fNoisePow);
    }
}

void aec_nr_nrgavr(AEC_tDb *db, AEC_tSc *sc) {
    // Power of the neighbouring strips, weighted by c' = min(1.5 c, 1) where c
    // is not floored at 0: a negative level makes the term negative, so it
    // never wins against the strip's own power in aec_nr_est.
    const float cs = minf(1.5f * db->tCfg.fNrLevelDb, 1.0f);
    AEC_tNrRec *r = sc->atNr;
    float e[AEC_NSTRIPS];
    for (int s = 0; s < AEC_NSTRIPS; ++s) e[s] = r[s].fNrgNoisy;

    r[0].fNrgNbr = (kW1 * e[1] + kW2 * e[2] + kW3 * e[3]) * cs * kEdge0;
    r[1].fNrgNbr = (kW1 * e[0] + kW1 * e[2] + kW2 * e[3] + kW3 * e[4]) * cs * kEdge1;
    r[2].fNrgNbr =
        (kW2 * e[0] + kW1 * e[1] + kW1 * e[3] + kW2 * e[4] + kW3 * e[5]) * cs * kEdge2;
    for (int s = 3; s < kFirstUnsmoothed; ++s) {
        r[s].fNrgNbr = (kW3 * e[s - 3] + kW2 * e[s - 2] + kW1 * e[s - 1] + kW1 * e[s + 1] +
                        kW2 * e[s + 2] + kW3 * e[s + 3]) *
                       cs;
    }
    for (int s = kFirstUnsmoothed; s < AEC_NSTRIPS; ++s) r[s].fNrgNbr = e[s];
}

void aec_nr_est(AEC_tDb *db, AEC_tSc *sc) {
    // Decision-directed clean power: mostly last frame's clean power, plus a
    // little of the excess of the (smoothed) noisy power over the noise.
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        AEC_tNrRec &r = sc->atNr[s];
        const float ml = maxf(maxf(r.fNrgNoisy, r.fNrgNbr) - r.fNoisePow, 0.0f);
        r.fSpeechPow = 0.96f * db->afNrClean[s] + 0.04f * ml;
    }
}

void aec_nr_coef(AEC_tDb *db, AEC_tSc *sc) {
    const float c = strength(db);
    const float gmin = aec_utl_exp(-20.0f * c);
    const float over = 1.0f - 0.35f * c;
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        AEC_tNrRec &r = sc->atNr[s];
        const float n = r.fNoisePow;
        const float sp = r.fSpeechPow;
        const float w = sp / (sp + n);
        float o = over * n / r.fNrgNoisy;
        o = minf(o, 2.0f);
        float g = std::sqrt((o + w) * w);
        g = minf(g, 1.0f);
        g = maxf(g, gmin);
        r.fNrGain = g;
    }
}

void aec_nr_prior(AEC_tDb *db, AEC_tSc *sc) {
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        const AEC_tNrRec &r = sc->atNr[s];
        db->afNrClean[s] = r.fNrGain * r.fNrGain * r.fNrgNoisy;
    }
}

void aec_nr_att(AEC_tDb *db, AEC_tSc *sc) {
    (void)db;
    float *x = &sc->acErrAdf[0][0][0];
    int pos = 0;
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        const float g = sc->atNr[s].fNrGain;
        const int n = AEC_aiBandsPerStrip[s] * kFloatsPerBand;
        for (int i = 0; i < n; ++i) x[pos + i] *= g;
        pos += n;
    }
}

void aec_nr(AEC_tDb *db, AEC_tSc *sc) {
    if (db->uiFlags & kNoNr) return;
    aec_nr_nse(db, sc);
    aec_nr_nrg(db, sc);
    aec_nr_nrgavr(db, sc);
    aec_nr_est(db, sc);
    aec_nr_coef(db, sc);
    aec_nr_prior(db, sc);
    aec_nr_att(db, sc);
}
