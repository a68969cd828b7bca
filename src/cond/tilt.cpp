// Fixed spectral tilt around the filter banks. The input correction lifts
// high frequencies (about -10 dB at DC, +10.1 dB at Nyquist) before analysis;
// the output correction is its exact inverse after synthesis, so a path that
// is otherwise left alone comes out unchanged. Each filter keeps one delay
// value, owned by the caller (one per path and direction).
#include "cond.h"

namespace {

constexpr int kFrame = KVAEC_FRAME_SAMPLES;

// Input tilt: (2.0826938 - 1.8361416 z^-1) / (1 - 0.22 z^-1).
constexpr float kInPole = 0.22f;
constexpr float kInB0 = 2.0826938f;
constexpr float kInB1 = 1.8361416f;

// Output tilt: (0.4801474 - 0.105632424 z^-1) / (1 - 0.8816186 z^-1), i.e.
// b0 = 1 / 2.0826938, b1 = 0.22 / 2.0826938, pole = 1.8361416 / 2.0826938.
constexpr float kOutPole = 0.8816186f;
constexpr float kOutB0 = 0.4801474f;
constexpr float kOutB1 = 0.105632424f;

// One first-order section in place over a frame:
// w = x + pole s; x = b0 w - b1 s; s = w.
inline void tilt(float pole, float b0, float b1, float *state, float *x) {
    float s = *state;
    for (int n = 0; n < kFrame; ++n) {
        const float w = x[n] + pole * s;
        x[n] = b0 * w - b1 * s;
        s = w;
    }
    *state = s;
}

}  // namespace

void aec_in_corr(float *state, float *x) { tilt(kInPole, kInB0, kInB1, state, x); }

void aec_out_corr(float *state, float *x) { tilt(kOutPole, kOutB0, kOutB1, state, x); }
