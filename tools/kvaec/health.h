// Health watch around the canceller: after every frame the outputs are
// checked for non-finite samples, and every second the library's self-test
// runs. On a failure the canceller is reset with the mode word kept, the
// non-finite output samples are replaced by silence, and the event is logged.
#ifndef KVAEC_TOOL_HEALTH_H
#define KVAEC_TOOL_HEALTH_H

#include <string>
#include <vector>

namespace kvaec::tool {

struct HealthEvent {
    long frame;          // frame index (10 ms each)
    double timeSec;      // frame start time
    int nonFiniteOut;    // non-finite output samples in the frame (both paths)
    int bistCount;       // self-test count (-1: the self-test did not run)
};

class HealthWatch {
public:
    // `mode`: the mode word to keep through a reset. `bistEveryFrames`: how
    // often the self-test runs (100 = once a second).
    explicit HealthWatch(unsigned mode, int bistEveryFrames = 100) : mode_(mode), every_(bistEveryFrames) {}

    // Checks the frame just processed (`rin`, `sin`: 160 samples each, as
    // returned by aecx_process). Returns true when the canceller was reset.
    // `alreadyCleared`: non-finite samples the caller found and cleared itself.
    bool afterFrame(long frame, float *rin, float *sin, int alreadyCleared = 0);

    const std::vector<HealthEvent> &events() const { return events_; }
    std::string summary() const;

private:
    unsigned mode_;
    int every_;
    std::vector<HealthEvent> events_;
};

}  // namespace kvaec::tool

#endif
