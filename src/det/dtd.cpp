// Double-talk detector: per-strip evidence that the residual error stands
// above the echo the canceller expects to leave, two accumulators per strip,
// one statistic over the middle strips and the full band, and a flag with
// hysteresis. It also runs the ERL/ERLE smoothing when its inputs can be
// trusted, and raises the per-frame tone alarm for the non-linear processor.
#include "det.h"

namespace {

constexpr float kAccMax = 30.0f;
constexpr float kAccMin = -6.0f;
constexpr float kBranchDb = 20.0f;     // tone alarm / clipping threshold
constexpr float kDecayDb = 2.0f;       // accumulator decay while inputs are not trusted
constexpr float kFallMaxDb = 1.5f;     // largest fall of the evidence per frame
constexpr float kRiseMaxDb = 12.0f;    // largest rise of the evidence per frame
constexpr float kKneeDb = 8.0f;        // half width of the soft maximum
constexpr int kVoteFirst = 2;          // strips 2..18 vote
constexpr int kVoteLast = 18;
constexpr float kVoteScale = 0.1764706f; // 3 / 17: three times the mean vote
constexpr float kSetAbove = 20.0f;
constexpr float kClearBelow = 0.0f;
static_assert(kVoteLast - kVoteFirst + 1 == 17, "17 voting strips");

float clampAcc(float a) {
    if (a > kAccMax) a = kAccMax;
    if (a < kAccMin) a = kAccMin;
    return a;
}

void decayAll(AEC_tDb *db) {
    for (int s = 0; s < AEC_NSTRIPREC; ++s) {
        float a = db->atStrip[s].fDtAccDb - kDecayDb;
        if (a < kAccMin) a = kAccMin;
        db->atStrip[s].fDtAccDb = a;
    }
}

void accumulate(AEC_tDb *db, const AEC_tSc *sc) {
    const float t = db->tCfg.fDtdMarginDb;
    for (int s = 0; s < AEC_NSTRIPREC; ++s) {
        AEC_tStripRec *q = &db->atStrip[s];
        const AEC_tStripScRec *r = &sc->atStripSc[s];
        const float emin = r->fErrAdsDb < r->fErrAdfDb ? r->fErrAdsDb : r->fErrAdfDb;

        // Expected residual echo, raised in the lowest strips.
        float x = r->fExpTailDb;
        if (s == 0)
            x = x + 6.0f;
        else if (s == 1 || s == 2)
            x = x + 2.0f;

        // Soft maximum with the error noise floor, continuous at u = +-8.
        const float fl = q->fErrFloorDb;
        const float u = x - fl;
        if (u >= kKneeDb) {
            // x as it is
        } else if (u >= -kKneeDb) {
            x = x + 4.0f - 0.5f * u;
        } else {
            x = fl;
        }

        // Excess over expected echo plus margin; the full band needs twice the margin.
        float e = emin - x - t;
        if (s == AEC_FULLBAND) e = e - t;
        const float eLow = e > -kFallMaxDb ? e : -kFallMaxDb;

        q->fDtAcc2Db = clampAcc(q->fDtAcc2Db - t + eLow);
        const float step = eLow < kRiseMaxDb ? eLow : kRiseMaxDb;
        q->fDtAccDb = clampAcc(q->fDtAccDb + step);
    }
}

}  // namespace

void aec_dtd(AEC_tDb *db, AEC_tSc *sc) {
    sc->iToneAlarm = 0;
    if (db->fTdAlarmDb > kBranchDb) {
        // Tonal receive signal: the send path is muted this frame; the
        // evidence only decays and the averages hold.
        decayAll(db);
        sc->iToneAlarm = 1;
    } else if (db->fClipDb > kBranchDb) {
        // Clipped microphone: levels are not trusted; decay and hold.
        decayAll(db);
    } else {
        accumulate(db, sc);
        aec_erle_sb_avrg(db, sc);
    }

    // Decision statistic: full-band accumulator plus 3/17 of the summed votes
    // of strips 2..18, negative votes counting a quarter, the sum floored at 0.
    float sum = 0.0f;
    for (int s = kVoteFirst; s <= kVoteLast; ++s) {
        const float a = db->atStrip[s].fDtAccDb;
        sum += a >= 0.0f ? a : 0.25f * a;
    }
    if (sum < 0.0f) sum = 0.0f;
    const float d = db->atStrip[AEC_FULLBAND].fDtAccDb + sum * kVoteScale;

    if (db->iDoubleTalk == 0) {
        if (d > kSetAbove) db->iDoubleTalk = 1;
    } else if (d < kClearBelow) {
        db->iDoubleTalk = 0;
    }
}
