// Health watch around the canceller: after every frame the outputs are
// checked for non-finite samples, and every second the library's self-test
// runs. On a failure the canceller is reset and its settings (configuration,
// NLP value, mode word) are reloaded, the non-finite output samples are
// replaced by silence, and the event is logged.
#ifndef KVAEC_TOOL_HEALTH_H
#define KVAEC_TOOL_HEALTH_H

#include <string>
#include <vector>

#include "common.h"

namespace kvaec::tool {

struct HealthEvent {
    long frame;          // frame index (10 ms each)
    double timeSec;      // frame start time
    int nonFiniteOut;    // non-finite output samples in the frame (both paths)
    int bistCount;       // self-test count (-1: the self-test did not run)
};

class HealthWatch {
public:
    // `settings`: what a reset reloads (checked settings). `bistEveryFrames`:
    // how often the self-test runs (100 = once a second).
    explicit HealthWatch(const Settings &settings, int bistEveryFrames = 100)
        : settings_(settings), every_(bistEveryFrames) {}
    // Only the mode word to keep: a reset reloads the default configuration.
    explicit HealthWatch(unsigned mode, int bistEveryFrames = 100) : every_(bistEveryFrames) { settings_.mode = mode; }

    // Checks the frame just processed (`rin`, `sin`: 160 samples each, as
    // returned by aecx_process). Returns true when the canceller was reset.
    // `alreadyCleared`: non-finite samples the caller found and cleared itself.
    bool afterFrame(long frame, float *rin, float *sin, int alreadyCleared = 0);

    const std::vector<HealthEvent> &events() const { return events_; }
    // True when frame `frame` lies within `before` frames before or `after`
    // frames after a reset: figures leave such frames out.
    bool nearReset(long frame, long before = 2, long after = 100) const;
    std::string summary() const;

private:
    Settings settings_;
    int every_;
    std::vector<HealthEvent> events_;
};

}  // namespace kvaec::tool

#endif
