// Non-linear processor: per-strip loss needed on top of the echo canceller,
// split between the send path (echo-cancelled microphone sub-bands) and the
// receive path (loudspeaker sub-bands), followed by comfort noise in the
// send path at the level of the background.
//
// Sub-band frames are 41 bands x 4 sub-samples x (re, im), band-major, so a
// band occupies kFloatsPerBand consecutive floats. The per-strip gains live
// in atStripSc[0..30].fSinAttDb / fRinAttDb: first as attenuations in dB
// (aec_nlp_get_coefs), then as linear gains (aec_nlp). Entry 30 is the full
// band: it is computed and converted but never applied to a signal.
#include "post.h"

#include "../core/core.h"

namespace {

constexpr int kFloatsPerBand = AEC_NSUB * 2;
static_assert(kFloatsPerBand == 8, "4 complex sub-samples per band");

// Mode bits read here.
constexpr uint32_t kSendOnlyLoss = KVAEC_MODE_SEND_ONLY_LOSS;  // 0x40
constexpr uint32_t kNoNlp = KVAEC_MODE_NO_NLP;                 // 0x100
constexpr uint32_t kNoHipass = KVAEC_MODE_NO_HIPASS;           // 0x400
static_assert(kSendOnlyLoss == 0x40u && kNoNlp == 0x100u && kNoHipass == 0x400u, "mode bits");

// Strip whose receive level feeds the peak hold of acoustic profile 1.
constexpr int kPeakHoldStrip = 3;

inline float minf(float a, float b) { return b < a ? b : a; }
inline float maxf(float a, float b) { return b > a ? b : a; }

// Profile 1: hold the receive peak of strip 3 (50 dB above its level,
// decaying 0.2 dB a frame) and keep the strip's expected echo tail at least
// 100.2 dB below the hold before its loss is computed.
void peakHoldRule(AEC_tDb *db, AEC_tSc *sc) {
    AEC_tStripScRec &e = sc->atStripSc[kPeakHoldStrip];
    const float p = maxf(e.fRinDb + 50.0f, db->fRinPeakHoldDb);
    db->fRinPeakHoldDb = p - 0.2f;
    e.fExpTailDb = maxf(e.fExpTailDb, p - 100.2f);
}

}  // namespace

void aec_nlp_get_coefs(AEC_tDb *db, AEC_tSc *sc) {
    const AEC_tCfg &cfg = db->tCfg;

    // Confidence q in 0..1: grows when the full-band ERLE exceeds the target
    // of the step-size control, with the tone alarm and with an echo-path change.
    float q = (db->atStrip[AEC_FULLBAND].fErleAvgDb - sc->fExpSpreadThrDb - 3.0f) * 5.0f;
    q = minf(q, 30.0f);
    q = maxf(q, 0.0f);
    q += maxf(db->fTdAlarmDb, 0.0f) + db->fEpcDb;
    q = minf(q, 20.0f);
    q = maxf(q, 0.0f);
    q *= 0.05f;

    // Spread between the two attenuation levels (negative with the defaults),
    // vanishing as q reaches 1; h is the share of ERLE doubted in double talk.
    const float spread = (cfg.fNlpAttMinDb - cfg.fNlpAttMaxDb) * (1.0f - q);
    const float h = 0.5f * q;
    const bool doubleTalk = db->iDoubleTalk != 0;
    const bool sendOnly = (db->uiFlags & kSendOnlyLoss) != 0;

    for (int s = 0; s < AEC_NSTRIPREC; ++s) {
        if (s == kPeakHoldStrip && cfg.iProfile == 1) peakHoldRule(db, sc);

        const AEC_tStripRec &st = db->atStrip[s];
        AEC_tStripScRec &sr = sc->atStripSc[s];
        const float xt = sr.fExpTailDb;

        // Headroom of expected residual echo plus margin over the noise floor.
        const float head = xt + cfg.fDtdMarginDb - st.fErrFloorDb;

        // Echo loss achieved so far; part of the ERLE is doubted in double talk.
        float g = st.fErleAvgDb + st.fErlDb;
        if (doubleTalk) g = g - h * st.fErleAvgDb;
        const float r = sr.fExpEchoDb - xt - db->fNlpParam + g;

        // Send attenuation: what is missing to the required loss, at most the
        // headroom; once not clearly negative, at least 10 dB beyond R.
        float a = cfg.fNlpAttMaxDb - r;
        a = minf(a, head);
        if (a > -5.0f) a = maxf(a, 10.0f - r);
        a = maxf(a, 0.0f);

        // Total loss of the connection.
        const float b = maxf(a + spread, 0.0f);

        float snd;
        float rcv;
        if (head > 0.0f) {
            const float dt = st.fDtAccDb;
            if (dt > 20.0f) {
                // Double talk in this strip: split b, tilted by the slow accumulator.
                const float m = b * 0.05f * maxf(minf(st.fDtAcc2Db, 20.0f), 0.0f);
                snd = (b - m) * 0.5f;
                rcv = (b + m) * 0.5f;
            } else if (dt > 0.0f) {
                // Beginning double talk: move loss towards the receive path.
                const float k = 0.05f * dt;
                snd = a * (1.0f - k);
                rcv = b * k;
            } else {
                snd = a;
                rcv = 0.0f;
            }
        } else if (st.fRinActDb < 0.0f) {
            // Echo below the floor and receive path quiet.
            snd = 0.0f;
            rcv = b;
        } else {
            // Echo below the floor: split by which side is more active.
            const float v = maxf(minf(st.fErrActDb - st.fRinActDb, 20.0f), -20.0f);
            const float m = b * 0.05f * v;
            snd = (b - m) * 0.5f;
            rcv = (b + m) * 0.5f;
        }

        if (sendOnly) {
            snd = snd + rcv;
            rcv = 0.0f;
        }
        sr.fSinAttDb = snd;
        sr.fRinAttDb = rcv;
    }
}

void aec_nlp_att(float *err, float *rin, AEC_tSc *sc) {
    // Strips 0..29 in band order; each strip consumes its bands' floats.
    int pos = 0;
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        const float gs = sc->atStripSc[s].fSinAttDb;
        const float gr = sc->atStripSc[s].fRinAttDb;
        const int n = AEC_aiBandsPerStrip[s] * kFloatsPerBand;
        for (int i = 0; i < n; ++i) {
            err[pos + i] *= gs;
            rin[pos + i] *= gr;
        }
        pos += n;
    }
}

void aec_nlp_mix_noise(AEC_tDb *db, AEC_tSc *sc) {
    // Comfort noise starts at strip 1 (strip 0 lies below the send high-pass)
    // unless the high-pass is off. The levels and gains are read from entry k
    // while the noise goes to strip s0 + k: with s0 = 1 each strip gets the
    // noise level of the strip below it. The last strip gets no noise.
    const int s0 = (db->uiFlags & kNoHipass) ? 0 : 1;
    float *err = &sc->acErrAdf[0][0][0];
    int pos = AEC_aiBandOffStrip[s0] * kFloatsPerBand;
    for (int k = 0; s0 + k < AEC_NSTRIPS - 1; ++k) {
        const int s = s0 + k;
        const AEC_tStripScRec &sr = sc->atStripSc[k];
        float level = minf(sr.fErrAdsDb, db->atStrip[k].fErrFloorDb);
        if (!(sr.fSinDb > level)) level = sr.fSinDb;
        const float amp = (1.0f - sr.fSinAttDb) * aec_utl_exp(level - 2.0f);
        aec_nlp_add_noise(&db->uiNoiseSeed, err + pos, AEC_NSUB * AEC_aiBandsPerStrip[s], amp);
        pos += AEC_aiBandsPerStrip[s] * kFloatsPerBand;
    }
}

void aec_nlp(AEC_tDb *db, AEC_tSc *sc) {
    aec_nlp_get_coefs(db, sc);

    // Attenuations in dB to linear gains; a tone alarm mutes the send path
    // and lets the receive path through.
    const bool tone = sc->iToneAlarm == 1;
    for (int s = 0; s < AEC_NSTRIPREC; ++s) {
        AEC_tStripScRec &sr = sc->atStripSc[s];
        if (tone) {
            sr.fSinAttDb = 0.0f;
            sr.fRinAttDb = 1.0f;
        } else {
            sr.fSinAttDb = aec_utl_exp(-sr.fSinAttDb);
            sr.fRinAttDb = aec_utl_exp(-sr.fRinAttDb);
        }
    }

    if (db->uiFlags & kNoNlp) return;

    aec_nlp_att(&sc->acErrAdf[0][0][0], &sc->acRcvSb[0][0][0], sc);
    aec_nlp_mix_noise(db, sc);
}
