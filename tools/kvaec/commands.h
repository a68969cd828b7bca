// The kvaec tool's two commands.
#ifndef KVAEC_TOOL_COMMANDS_H
#define KVAEC_TOOL_COMMANDS_H

#include <string>

#include "common.h"

namespace kvaec::tool {

struct ProcessArgs {
    std::string far, mic, out, farOut;
    std::string report, frames, plot; // --report JSON, --frames CSV, --plot PNG
    std::string delay = "auto";   // "auto" or milliseconds
    double delayMarginMs = 2.0;   // margin beyond KVAEC_ECHO_MIN_DELAY
    double maxDelayMs = 5000.0;   // largest |offset| the delay track searches
    int channel = 0;              // 1-based, 0 = not given: both files
    int farChannel = 0;           // 1-based, 0 = not given (the far end's channels mixed)
    int micChannel = 0;           // 1-based, 0 = not given (the first channel is cleaned)
    bool noResample = false;
    bool pcm16 = false;
    bool quiet = false;
    bool resetAtBreak = false;    // reset the canceller where the delay jumps
    Settings settings;
};

struct SimulateArgs {
    std::string dir = "kvaec-sim";
    std::string far, near, rir;
    std::string room, micPos, spkPos;
    double rt60 = 0.3;
    double latencyMs = 20.0;      // with the room's flight time, beyond KVAEC_ECHO_MIN_DELAY
    std::string noise;            // "", white, pink, babble or a file
    double snrDb = 30.0;
    bool snrGiven = false;
    double erlDb = 10.0;
    bool erlGiven = false;
    double echoChangeAt = -1.0;
    double nonlinear = 0.0;
    double duration = 20.0;
    bool durationGiven = false;
    unsigned seed = 1;
    int channel = 0;
    bool noResample = false;
    bool noPlot = false;
    bool noEspeak = false;
    bool quiet = false;
    Settings settings;
};

// Return the process exit code; throw ToolError for user errors.
int runProcess(const ProcessArgs &a);
int runSimulate(const SimulateArgs &a);

}  // namespace kvaec::tool

#endif
