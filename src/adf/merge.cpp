// Filter merge: the copy decision between the fast (AEC_afAdf) and slow
// (AEC_afAds) coefficient stores, the combination of the frame's errors into
// the canceller's output (left in acErrAdf), and the adaptation progress
// counter fAdaptTime.
#include "adf.h"

#include "../core/core.h"

namespace {

// Copy-score bounds without double talk (symmetric) and during double talk
// (asymmetric: copying the fast filter over the slow one needs far more
// evidence than the reverse).
constexpr float kScoreBound = 30.0f;
constexpr float kScoreUpperDt = 105.0f;
constexpr float kScoreLowerDt = -45.0f;
// No copy and no score increment while the second double-talk accumulator
// is at or above this.
constexpr float kDtAcc2Stop = 20.0f;
// Tone alarm level above which the error difference gives no evidence.
constexpr float kTdAlarmStop = 20.0f;

// Merge counters: two 8-bit fields of uiMergeCnt holding the counter + 50,
// bits 8..15 the fast-versus-slow counter cA, bits 16..23 the
// slow-versus-microphone counter cB; the other bits are left as they are.
constexpr int kCntBias = 50;
constexpr int kCntMin = -50;
constexpr int kCntMax = 120;
constexpr unsigned kCntAShift = 8;
constexpr unsigned kCntBShift = 16;
constexpr uint32_t kCntMask = 0xFFu;
static_assert(kCntMax + kCntBias <= 0xFF, "counter field holds value + 50 in 8 bits");

constexpr float kAdaptTimeMax = 2000.0f;

inline float maxf(float a, float b) { return a < b ? b : a; }
inline float minf(float a, float b) { return b < a ? b : a; }
inline float clampf(float x, float lo, float hi) { return minf(maxf(x, lo), hi); }
inline int clampi(int x, int lo, int hi) { return x < lo ? lo : (x > hi ? hi : x); }

// Counter step for a level difference d in dB: one step per 0.03 dB beyond a
// dead zone of 0.165 dB, limited to +-90 and truncated towards zero. A
// difference that is not a number takes the lower limit.
inline int counterStep(float d) {
    float x = (d - 0.165f) * 33.333336f;
    x = x > -90.0f ? x : -90.0f;
    x = x < 90.0f ? x : 90.0f;
    return static_cast<int>(x);
}

inline int getCounter(uint32_t word, unsigned shift) {
    return static_cast<int>((word >> shift) & kCntMask) - kCntBias;
}

inline uint32_t putCounter(uint32_t word, unsigned shift, int value) {
    const uint32_t field = static_cast<uint32_t>(value + kCntBias) & kCntMask;
    return (word & ~(kCntMask << shift)) | (field << shift);
}

}  // namespace

// Strip s of a store: AEC_aiBandsPerStrip[s] * AEC_aiAdfSzStrip[s] complex
// coefficients from complex index AEC_aiAdfOffStrip[s], copied word by word.
void aec_copy_adf(float *dst, const float *src, int s) {
    const int off = 2 * AEC_aiAdfOffStrip[s];
    const int words = 2 * AEC_aiBandsPerStrip[s] * AEC_aiAdfSzStrip[s];
    aec_cpy(reinterpret_cast<uint32_t *>(dst + off), reinterpret_cast<const uint32_t *>(src + off),
            words);
}

// Copy decision per strip. The score decays unless both filters adapt at
// full step, then (outside strong double talk) accumulates 0.28 times the
// advantage of the fast filter in dB, weighted by the frame ERLE relative to
// its average, or, during double talk, by k = max(0.1 fEpcDb, 0) + 0.5. Above
// the upper bound the fast filter replaces the slow one, below the lower bound
// the slow one replaces the fast one; a copy resets the score.
void aec_adf_epc_control(AEC_tDb *db, AEC_tSc *sc) {
    const float k = maxf(0.1f * db->fEpcDb, 0.0f) + 0.5f;
    const bool tone = db->fTdAlarmDb > kTdAlarmStop;
    const bool doubleTalk = db->iDoubleTalk != 0;
    const float upper = doubleTalk ? kScoreUpperDt : kScoreBound;
    const float lower = doubleTalk ? kScoreLowerDt : -kScoreBound;
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        AEC_tStripRec *st = &db->atStrip[s];
        const AEC_tStripScRec *sr = &sc->atStripSc[s];
        const float t = tone ? 0.0f : 0.28f * (sr->fErrAdsDb - sr->fErrAdfDb);
        float score = st->fCopyScore * (1.0f + 0.003f * (sr->fMuAds - 1.0f)) *
                      (1.0f + 0.02f * (sr->fMuAdf - 1.0f));
        if (st->fDtAcc2Db >= kDtAcc2Stop) {
            st->fCopyScore = score;
            continue;
        }
        if (!doubleTalk)
            score = score + sr->fErleDb / (st->fErleAvgDb + 3.0f) * t;
        else
            score = score + t * k;
        if (score > upper) {
            aec_copy_adf(db->pafAds, db->pafAdf, s);
            score = 0.0f;
        } else if (score < lower) {
            aec_copy_adf(db->pafAdf, db->pafAds, s);
            score = 0.0f;
        }
        st->fCopyScore = score;
    }
}

// Output error of the frame, per strip, in the first band of the strip only:
//   acErrAdf = wB * acSndSb + wS * acErrAds + wA * acErrAdf
// with wA from the fast-versus-slow counter (reduced by the second
// double-talk accumulator when the frame ERL is below the initial ERL), wB
// from the slow-versus-microphone counter and wS the rest, normalised to a
// sum of 1. The further bands of the paired strips keep the fast filter's
// error. With both counters at -50 (a zero word) the output is the slow
// filter's error.
void aec_adf_merge(AEC_tDb *db, AEC_tSc *sc) {
    const float erlInit = db->tCfg.fErlInitDb;
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        AEC_tStripRec *st = &db->atStrip[s];
        const AEC_tStripScRec *sr = &sc->atStripSc[s];
        uint32_t word = st->uiMergeCnt;
        int cA = getCounter(word, kCntAShift);
        int cB = getCounter(word, kCntBShift);
        cA = clampi(cA + counterStep(sr->fErrAdsDb - sr->fErrAdfDb), kCntMin, kCntMax);
        cB = clampi(cB + counterStep(sr->fErrAdsDb - sr->fSinDb), kCntMin, kCntMax);
        word = putCounter(word, kCntAShift, cA);
        word = putCounter(word, kCntBShift, cB);
        st->uiMergeCnt = word;

        float wA = maxf(static_cast<float>(cA) * 0.008333334f, 0.0f);
        float wB = maxf(static_cast<float>(cB) * 0.008333334f, 0.0f);
        if (sr->fErlFrameDb < erlInit)
            wA = wA * (1.0f - 0.06666667f * clampf(st->fDtAcc2Db, 0.0f, 15.0f));
        float wS = minf(minf(1.0f - wB, 1.0f), 1.0f - wA);
        const float n = 1.0f / (wA + wB + wS);
        wA = wA * n;
        wB = wB * n;
        wS = wS * n;

        const int b = AEC_aiBandOffStrip[s];
        for (int j = 0; j < AEC_NSUB; ++j) {
            for (int c = 0; c < 2; ++c) {
                sc->acErrAdf[b][j][c] = wB * sc->acSndSb[b][j][c] + wS * sc->acErrAds[b][j][c] +
                                        wA * sc->acErrAdf[b][j][c];
            }
        }
    }
}

// Adaptation progress: outside double talk, fAdaptTime grows by 0.07 times
// the full-band ERLE of the frame (when positive), up to 2000 frames.
void aec_adf_control(AEC_tDb *db, AEC_tSc *sc) {
    const float erle = sc->atStripSc[AEC_FULLBAND].fErleDb;
    if (db->iDoubleTalk == 0 && erle > 0.0f)
        db->fAdaptTime = minf(db->fAdaptTime + 0.07f * erle, kAdaptTimeMax);
}
