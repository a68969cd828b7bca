// Signal sources of the simulation: speech from espeak-ng when it is
// installed (else the built-in speech-like signal), and noises.
#ifndef KVAEC_TOOL_SOURCES_H
#define KVAEC_TOOL_SOURCES_H

#include <string>
#include <vector>

namespace kvaec::tool {

// Speech of `seconds` at 16 kHz, made of sentences spoken by `voice`
// (an espeak-ng voice name) with pauses, looped to length, scaled so that
// the active parts are at `levelDbfs`. Returns an empty vector when
// espeak-ng is not available or fails.
std::vector<float> espeakSpeech(const std::vector<std::string> &sentences, const std::string &voice,
                                double seconds, double levelDbfs);

// The built-in speech-like signal (shaped noise bursts) of `seconds`.
std::vector<float> builtinSpeech(unsigned seed, double seconds, double levelDbfs);

// Noise of `seconds` at `levelDbfs`: "white", "pink" or "babble" (six
// overlapping speech-like talkers). Empty for an unknown kind.
std::vector<float> makeNoise(const std::string &kind, unsigned seed, double seconds, double levelDbfs);

// Level of the active parts (10 ms frames within 30 dB of the loudest), dBFS.
double activeLevelDb(const std::vector<float> &x);
// Scales `x` so that activeLevelDb(x) == levelDbfs.
void setActiveLevel(std::vector<float> &x, double levelDbfs);

// Repeats or cuts `x` to `n` samples.
std::vector<float> loopTo(const std::vector<float> &x, size_t n);

}  // namespace kvaec::tool

#endif
