// Shared pieces of the kvaec tool's commands: the canceller settings given
// on the command line, messages, progress display and level helpers.
#ifndef KVAEC_TOOL_COMMON_H
#define KVAEC_TOOL_COMMON_H

#include <string>
#include <vector>

#include "kvaec.h"

namespace kvaec::tool {

constexpr int kRate = KVAEC_SAMPLE_RATE;
constexpr int kFrame = KVAEC_FRAME_SAMPLES;
// Delay of the receive path through the library (samples).
constexpr int kRinDelay = KVAEC_RCV_DELAY_SAMPLES;
// Delay of the send path through the library (samples).
constexpr int kSinDelay = KVAEC_SND_DELAY_SAMPLES;

// Canceller settings: the configuration record, the mode word and the NLP value.
struct Settings {
    AEC_tCfg cfg = AEC_DefaultCfg;
    unsigned mode = 0;
    bool nlpParamSet = false;
    float nlpParam = 0.0f;
    bool applyEq = true;  // run the profile equalizers around the canceller
};

// Refuses settings the library would not run well with: the configuration
// record is checked by kvaec_cfg_check (the message names the field and its
// range), the NLP value must be finite. Throws ToolError.
void checkSettings(const Settings &s);

// Name of the preset a configuration record equals ("default",
// "full-duplex"), or "custom".
const char *presetName(const AEC_tCfg &cfg);

// Brings the library to the settings: aecx_init with the configuration,
// then the mode word (and the NLP value when given). The settings must have
// passed checkSettings.
void startCanceller(const Settings &s);

// Resets the canceller and reloads the settings (configuration, NLP value,
// mode word): what a host does after a failed self-test, so that nothing a
// fault left in the instance survives the reset.
void reloadCanceller(const Settings &s);

// Messages on stderr, prefixed "kvaec: ".
void warn(const std::string &msg);
void note(const std::string &msg);

// Progress bar on stderr; draws only when stderr is a terminal and enabled.
class Progress {
public:
    Progress(long total, bool enabled);
    void update(long done);
    void finish();
private:
    long total_;
    bool on_;
    int lastPct_ = -1;
};

double powerDb(const float *x, long n);        // 10 log10 of the mean power (finite samples)
std::string fmt(const char *f, ...) __attribute__((format(printf, 1, 2)));

}  // namespace kvaec::tool

#endif
