// Rules shared by every host of the library: how far the echo must trail the
// receive output, and which configurations are valid.
#include <cstdint>

#include "core.h"

int32_t kvaec_align_shift(int32_t bulk_delay, int32_t margin) {
    if (margin < 0) margin = 0;
    // Echo reaches the library at bulk_delay + shift after the receive input;
    // the receive output leaves KVAEC_RCV_DELAY_SAMPLES after that input.
    const int64_t want = static_cast<int64_t>(KVAEC_ECHO_MIN_DELAY) + margin + KVAEC_RCV_DELAY_SAMPLES;
    const int64_t shift = want - static_cast<int64_t>(bulk_delay);
    if (shift > INT32_MAX) return INT32_MAX;
    if (shift < INT32_MIN) return INT32_MIN;
    return static_cast<int32_t>(shift);
}

namespace {

// Closed range test that is false for NaN (every comparison with NaN is
// false) and for the infinities (they lie outside every finite range).
bool within(float v, float lo, float hi) { return v >= lo && v <= hi; }

}  // namespace

// The ranges are the ones documented next to AEC_tCfg in kvaec.h; the
// reasons repeat them so that a host can show the reason as it is.
const char *kvaec_cfg_check(const AEC_tCfg *cfg) {
    if (cfg == nullptr) return nullptr;
    if (!within(cfg->fErlInitDb, KVAEC_CFG_ERL_INIT_MIN, KVAEC_CFG_ERL_INIT_MAX))
        return "fErlInitDb: must be a finite number from -40 to 10 (dB)";
    if (!within(cfg->fNlpAttMaxDb, KVAEC_CFG_NLP_ATT_MIN, KVAEC_CFG_NLP_ATT_MAX))
        return "fNlpAttMaxDb: must be a finite number from 0 to 80 (dB)";
    if (!within(cfg->fNlpAttMinDb, KVAEC_CFG_NLP_ATT_MIN, KVAEC_CFG_NLP_ATT_MAX))
        return "fNlpAttMinDb: must be a finite number from 0 to 80 (dB)";
    if (cfg->fNlpAttMinDb > cfg->fNlpAttMaxDb)
        return "fNlpAttMinDb: must not exceed fNlpAttMaxDb (range 0 to fNlpAttMaxDb, dB)";
    if (!within(cfg->fDtdMarginDb, KVAEC_CFG_DTD_MARGIN_MIN, KVAEC_CFG_DTD_MARGIN_MAX))
        return "fDtdMarginDb: must be a finite number from 0 to 20 (dB)";
    if (!within(cfg->fLevelFloorDb, KVAEC_CFG_LEVEL_FLOOR_MIN, KVAEC_CFG_LEVEL_FLOOR_MAX))
        return "fLevelFloorDb: must be a finite number from -120 to -50 (dB)";
    if (!within(cfg->fNrLevelDb, KVAEC_CFG_NR_LEVEL_MIN, KVAEC_CFG_NR_LEVEL_MAX))
        return "fNrLevelDb: must be a finite number from 0 to 1";
    if (!within(cfg->fRinLevelRefDb, KVAEC_CFG_RIN_LEVEL_REF_MIN, KVAEC_CFG_RIN_LEVEL_REF_MAX))
        return "fRinLevelRefDb: must be a finite number from -20 to 150 (dB)";
    if (cfg->iProfile < KVAEC_CFG_PROFILE_MIN || cfg->iProfile > KVAEC_CFG_PROFILE_MAX)
        return "iProfile: must be an integer from 0 to 6";
    return nullptr;
}
