// Echo-path-change detection over the single-band strips 0..18: evidence
// from the shape of the residual errors across strips (fEpcFreqDb) and from
// the advantage of the fast filter over the slow one (fEpcDerleDb), their
// combination fEpcDb, and the decay of fAdaptTime on a detected change.
#include "adf.h"

#include <cmath>

namespace {

// Evidence accumulators are kept in this range.
constexpr float kEvidenceMinDb = -6.0f;
constexpr float kEvidenceMaxDb = 30.0f;
// A combined product (fEpcDb + 6) at or above this marks an echo-path change.
constexpr float kEpcChange = 21.0f;

inline float maxf(float a, float b) { return a < b ? b : a; }
inline float minf(float a, float b) { return b < a ? b : a; }
inline float clampEvidence(float x) {
    if (x > kEvidenceMaxDb) x = kEvidenceMaxDb;
    if (x < kEvidenceMinDb) x = kEvidenceMinDb;
    return x;
}

}  // namespace

// Per single-band strip: p measures how far the smaller residual stands above
// both the floor (+3 dB) and the predicted echo, weighted by a bump that is 1
// when the frame ERLE is half its average (+1.5) and 0 beyond 0 or 1 times it;
// a sudden fall of the frame ERL by more than 8 dB overrides it. r measures
// how much echo the averages predict above the floor. The correlation of
// q = p - 0.8 with r over the strips (sums starting at 20.9, 20.9 and 0),
// less 0.09, moves fEpcFreqDb by 10 dB per unit.
void aec_epc_freq(AEC_tDb *db, AEC_tSc *sc) {
    float sqq = 20.9f;
    float srr = 20.9f;
    float sqr = 0.0f;
    for (int s = 0; s < AEC_NSINGLE; ++s) {
        const AEC_tStripRec *st = &db->atStrip[s];
        const AEC_tStripScRec *sr = &sc->atStripSc[s];
        const float e = minf(sr->fErrAdfDb, sr->fErrAdsDb);
        const float u =
            maxf(e - maxf(st->fErrFloorDb + 3.0f, sr->fExpEchoDb) - 1.2f, 0.0f);
        const float v = sr->fErleDb / (st->fErleAvgDb + 1.5f) - 0.5f;
        const float bump = maxf(1.0f - 4.0f * (v * v), 0.0f);
        float p = bump * u;
        const float erlFall = sr->fErlFrameDb - st->fErlDb;
        if (erlFall < -8.0f && e > st->fErrFloorDb + 8.0f) p = erlFall + 8.0f;
        const float q = p - 0.8f;
        const float r = maxf(0.5f * st->fErleAvgDb + sr->fExpEchoDb - st->fErrFloorDb, 0.0f);
        sqq = sqq + q * q;
        srr = srr + r * r;
        sqr = sqr + q * r;
    }
    const float rho = sqr / std::sqrt(srr * sqq) - 0.09f;
    db->fEpcFreqDb = clampEvidence(db->fEpcFreqDb + 10.0f * rho);
}

// fEpcDerleDb follows the advantage of the fast filter over the slow one
// (mean of fErrAdsDb - fErrAdfDb over strips 0..18, weighted by
// fErleAvgDb + 0.5) scaled by 30/19, less 2 dB per frame. The combined
// measure is fEpcDb = (fEpcFreqDb + 6) / 36 * (fEpcDerleDb + 6) - 6; a
// product of 21 or more shortens fAdaptTime by 10 %.
void aec_epc_derle(AEC_tDb *db, AEC_tSc *sc) {
    float num = 0.0f;
    float den = 0.0f;
    for (int s = 0; s < AEC_NSINGLE; ++s) {
        const float w = db->atStrip[s].fErleAvgDb + 0.5f;
        num = num + w * (sc->atStripSc[s].fErrAdsDb - sc->atStripSc[s].fErrAdfDb);
        den = den + w;
    }
    const float d = num / den;
    db->fEpcDerleDb = clampEvidence(db->fEpcDerleDb - 2.0f + 1.5789474f * d);
    const float p = (db->fEpcFreqDb + 6.0f) * 0.027777778f * (db->fEpcDerleDb + 6.0f);
    db->fEpcDb = p - 6.0f;
    if (p >= kEpcChange) db->fAdaptTime = 0.9f * db->fAdaptTime;
}
