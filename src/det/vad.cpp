// Voice activity: per-strip noise floors and activity accumulators of the
// echo-cancelled send signal and of the receive signal, plus the full-band
// receive tracker with its count of silent receive frames.
//
// Common rule for one entry with level x, floor F, accumulator a and the
// configured level floor Fmin:
//   x > Fmin:  d = x - (reference floor); s = a + d; a = s - 5;
//              s < 5: the floor follows, F += d * rate;
//              else:  the signal is active, F may creep up by a fixed step.
//   else:      a = a - 5, the floor holds.
//   then the accumulator is clamped to 30, then to -6, and the floor to -33,
//   then to Fmin.
// The trackers differ in their reference floor, rates, creep conditions and
// in where their time regime switches (see each function).
#include "det.h"

namespace {

constexpr float kAllowanceDb = 5.0f;  // per-frame allowance above the floor
constexpr float kAccMax = 30.0f;
constexpr float kAccMin = -6.0f;
constexpr float kFloorMax = -33.0f;   // floors never rise above this
constexpr float kQuietDb = -33.0f;    // creep only below this level
constexpr float kLateFrames = 600.0f; // regime switch of fAdaptTime
constexpr int kSilentDecay = 60000;   // silent frames before the averages decay
constexpr int kSilentMax = 70000;
constexpr int kSilentRelief = 7000;   // taken off by one active receive frame

float clampAcc(float a) {
    if (a > kAccMax) a = kAccMax;
    if (a < kAccMin) a = kAccMin;
    return a;
}

float clampFloor(float f, float fmin) {
    if (f > kFloorMax) f = kFloorMax;
    if (f < fmin) f = fmin;
    return f;
}

// Largest value of one level field over the 30 strips (full band excluded),
// starting from -200.
float maxOverStrips(const AEC_tSc *sc, float AEC_tStripScRec::*word) {
    float m = -200.0f;
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        const float v = sc->atStripSc[s].*word;
        if (v > m) m = v;
    }
    return m;
}

float minf(float a, float b) { return b < a ? b : a; }

}  // namespace

void aec_vad_err_sb(AEC_tDb *db, AEC_tSc *sc) {
    const float fmin = db->tCfg.fLevelFloorDb;
    const float t = db->fAdaptTime;
    const float emax = maxOverStrips(sc, &AEC_tStripScRec::fErrAdfDb);
    const bool early = t < kLateFrames;  // 600 already counts as late here

    for (int s = 0; s < AEC_NSTRIPREC; ++s) {
        AEC_tStripRec *q = &db->atStrip[s];
        const AEC_tStripScRec *r = &sc->atStripSc[s];
        // The quietest of microphone and the two filter errors.
        const float x = minf(minf(r->fSinDb, r->fErrAdfDb), r->fErrAdsDb);
        float f = q->fErrFloorDb;
        float a = q->fErrActDb;
        if (x > fmin) {
            const float d = x - f;
            const float sum = a + d;
            a = sum - kAllowanceDb;
            if (sum < kAllowanceDb) {
                float rate;
                if (early)
                    rate = d > 0.0f ? 0.03125f : 0.0625f;  // falls twice as fast as it rises
                else
                    rate = 0.015625f;
                f = f + d * rate;
            } else if (early) {
                if (x < kQuietDb && emax < kQuietDb) f = f + 0.02f;
            } else {
                if (emax < kQuietDb && t > 1999.0f && x < kQuietDb) f = f + 0.004f;
            }
        } else {
            a = a - kAllowanceDb;
        }
        q->fErrActDb = clampAcc(a);
        q->fErrFloorDb = clampFloor(f, fmin);
    }
}

void aec_vad_rin_sb(AEC_tDb *db, AEC_tSc *sc) {
    const float fmin = db->tCfg.fLevelFloorDb;
    const float t = db->fAdaptTime;
    const float rmax = maxOverStrips(sc, &AEC_tStripScRec::fRinDb);
    // This tracker switches regime only above 600 frames.
    const bool early = t <= kLateFrames;
    // Creep factor: 1 up to 600 frames, then falling linearly to 0.2 at 2000.
    float c = 1.0f;
    if (!early) {
        float ramp = (t - kLateFrames) * 0.0007142857f;
        if (ramp > 1.0f) ramp = 1.0f;
        c = 1.0f - 0.8f * ramp;
    }

    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        AEC_tStripRec *q = &db->atStrip[s];
        const float x = sc->atStripSc[s].fRinDb;
        float f = q->fRinFloorDb;
        float a = q->fRinActDb;
        if (x > fmin) {
            // Measured against the error floor of the same strip, while the
            // update goes to the receive floor.
            const float d = x - q->fErrFloorDb;
            const float sum = a + d;
            a = sum - kAllowanceDb;
            if (sum < kAllowanceDb) {
                const float rate = (early || !(d > 0.0f)) ? 0.0625f : 0.03125f;
                f = f + d * rate;
            } else if (x < kQuietDb && rmax < kQuietDb) {
                f = f + 0.02f * c;
            }
        } else {
            a = a - kAllowanceDb;
        }
        q->fRinActDb = clampAcc(a);
        q->fRinFloorDb = clampFloor(f, fmin);
    }
}

void aec_vad_rin_fb(AEC_tDb *db, AEC_tSc *sc) {
    const float fmin = db->tCfg.fLevelFloorDb;
    const bool early = db->fAdaptTime < kLateFrames;  // 600 already counts as late
    AEC_tStripRec *q = &db->atStrip[AEC_FULLBAND];
    const float x = sc->atStripSc[AEC_FULLBAND].fRinDb;
    float f = q->fRinFloorDb;
    float a = q->fRinActDb;

    if (x > fmin) {
        const float d = x - f;  // its own floor
        const float sum = a + d;
        a = sum - kAllowanceDb;
        if (sum < kAllowanceDb) {
            float rate;
            if (early)
                rate = d > 0.0f ? 0.03125f : 0.0625f;
            else
                rate = 0.015625f;
            f = f + d * rate;
        } else if (x < kQuietDb) {
            f = f + (early ? 0.02f : 0.004f);
        }
        int n = db->iRinSilentFrames - kSilentRelief;
        if (n < 0) n = 0;
        db->iRinSilentFrames = n;
    } else {
        db->iRinSilentFrames += 1;
        a = a - kAllowanceDb;
        if (db->iRinSilentFrames > kSilentDecay) {
            // After ten minutes without receive signal the ERLE averages and
            // the adaptation progress fade out slowly.
            for (int s = 0; s < AEC_NSTRIPREC; ++s) db->atStrip[s].fErleAvgDb *= 0.999f;
            db->fAdaptTime *= 0.999f;
            if (db->iRinSilentFrames > kSilentMax) db->iRinSilentFrames = kSilentMax;
        }
    }
    q->fRinActDb = clampAcc(a);
    q->fRinFloorDb = clampFloor(f, fmin);
}
