#include "health.h"

#include <cmath>
#include <cstdio>

#include "kvaec.h"

namespace kvaec::tool {

bool HealthWatch::afterFrame(long frame, float *rin, float *sin, int alreadyCleared) {
    int bad = alreadyCleared;
    for (int n = 0; n < KVAEC_FRAME_SAMPLES; ++n) {
        if (!std::isfinite(rin[n])) {
            rin[n] = 0.0f;
            ++bad;
        }
        if (!std::isfinite(sin[n])) {
            sin[n] = 0.0f;
            ++bad;
        }
    }
    int bist = -1;
    if (every_ > 0 && (frame + 1) % every_ == 0) bist = aecx_bist();
    if (bad == 0 && bist <= 0) return false;
    if (bist < 0) bist = aecx_bist();
    aecx_control(KVAEC_CMD_RESET | mode_, nullptr, 0.0f);
    events_.push_back(HealthEvent{frame, static_cast<double>(frame) * KVAEC_FRAME_SAMPLES / KVAEC_SAMPLE_RATE, bad, bist});
    return true;
}

std::string HealthWatch::summary() const {
    if (events_.empty()) return "health: no failures";
    char buf[160];
    std::snprintf(buf, sizeof buf, "health: %zu reset(s); first at %.2f s", events_.size(), events_.front().timeSec);
    return buf;
}

}  // namespace kvaec::tool
