#include "health.h"

#include <algorithm>
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
    reloadCanceller(settings_);
    events_.push_back(HealthEvent{frame, static_cast<double>(frame) * KVAEC_FRAME_SAMPLES / KVAEC_SAMPLE_RATE, bad, bist});
    return true;
}

bool HealthWatch::nearReset(long frame, long before, long after) const {
    // Events come in frame order: the first one not before frame - after
    // decides.
    const auto it = std::lower_bound(events_.begin(), events_.end(), frame - after,
                                     [](const HealthEvent &e, long f) { return e.frame < f; });
    return it != events_.end() && it->frame <= frame + before;
}

std::string HealthWatch::summary() const {
    if (events_.empty()) return "health: no failures";
    char buf[160];
    std::snprintf(buf, sizeof buf, "health: %zu reset(s); first at %.2f s", events_.size(), events_.front().timeSec);
    return buf;
}

}  // namespace kvaec::tool
