// Rules shared by every host of the library: how far the echo must trail the
// receive output, and which configurations are valid.
#include <cmath>
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

const char *kvaec_cfg_check(const AEC_tCfg *cfg) {
    if (cfg == nullptr) return nullptr;
    if (!std::isfinite(cfg->fErlInitDb)) return "fErlInitDb: must be a finite number";
    if (!std::isfinite(cfg->fNlpAttMaxDb)) return "fNlpAttMaxDb: must be a finite number";
    if (!std::isfinite(cfg->fNlpAttMinDb)) return "fNlpAttMinDb: must be a finite number";
    if (!std::isfinite(cfg->fDtdMarginDb)) return "fDtdMarginDb: must be a finite number";
    if (!std::isfinite(cfg->fLevelFloorDb)) return "fLevelFloorDb: must be a finite number";
    if (!std::isfinite(cfg->fNrLevelDb)) return "fNrLevelDb: must be a finite number";
    if (!std::isfinite(cfg->fRinLevelRefDb)) return "fRinLevelRefDb: must be a finite number";
    return nullptr;
}
