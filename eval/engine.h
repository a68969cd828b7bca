// One interface for every echo canceller in the closed-loop comparison.
//
// Per 10 ms frame (160 samples at 16 kHz) the driver hands an engine the
// far-end frame and the microphone frame; the engine returns the frame it
// plays on the loudspeaker (an engine may delay or attenuate its receive
// path) and the frame it sends. The driver makes the echo from the played
// frames, so every engine is judged on the loop it actually closes.
#ifndef KVAEC_EVAL_ENGINE_H
#define KVAEC_EVAL_ENGINE_H

#include <memory>
#include <string>
#include <vector>

namespace kvaec_eval {

constexpr int kFrame = 160;
constexpr int kRate = 16000;

class Engine {
public:
    virtual ~Engine() = default;
    // far: 160 far-end samples in; played: 160 samples that go to the loudspeaker.
    // mic: 160 microphone samples in; send: 160 samples sent to the far end.
    virtual void process(const float *far, float *played, const float *mic, float *send) = 0;
    // Nominal delay of the send path in samples (the metrics measure it as well).
    virtual int sendDelay() const = 0;
    // One line describing the configuration used.
    virtual std::string describe() const = 0;
    // Extra "key=value" lines for stats.txt after the run (may be empty).
    virtual std::string extraStats() const { return ""; }
};

// Creates the engine `name` for a loop whose playback-to-microphone latency is
// `latencyMs` (only engines that take a delay hint use it). Null if unknown.
// Besides the names of engineNames(), "kvaec:att=A,dtd=D,mode=M" is libkvaec
// with fNlpAttMaxDb = A, fDtdMarginDb = D and the mode word M (any of them
// may be left out), the rest of the configuration at its defaults (the
// tuning sweep uses these).
std::unique_ptr<Engine> makeEngine(const std::string &name, int latencyMs);

// Names of the report's engines, in report order. makeEngine also accepts
// "kvaec_cfg:E,MAX,MIN,DTD[,MODE]" (libkvaec with those four configuration
// fields replacing the defaults' fErlInitDb, fNlpAttMaxDb, fNlpAttMinDb,
// fDtdMarginDb, and optionally a mode word in hexadecimal).
std::vector<std::string> engineNames();

}  // namespace kvaec_eval

#endif
