// Send-path high-pass: a fixed gain followed by three second-order sections
// in cascade (a fifth-order high-pass with a zero at DC and two zero pairs on
// the unit circle near 85 Hz and 120 Hz at 16 kHz). It removes rumble and DC
// from the microphone before the filter bank; the Nyquist gain is exactly 1.
#include "cond.h"

namespace {

constexpr int kFrame = KVAEC_FRAME_SAMPLES;
constexpr int kSections = 3;

// Gain applied to the whole frame before the sections.
constexpr float kHpGain = 0.89604497f;

// Section coefficients (c0, c1, c2, c3) as stored: numerator minus
// denominator in c0, c1 and the negated denominator in c2, c3, so that
// b = (1, c0 - c2, c1 - c3), a = (1, -c2, -c3). Used exactly as written.
constexpr float kHpCoef[kSections][4] = {
    {-0.16508679f, 0.0f, 0.83491319f, 0.0f},
    {-0.0075754547f, 0.0051783272f, 1.9913086f, -0.99482167f},
    {-0.04230823f, 0.038499832f, 1.9554832f, -0.96150017f},
};

static_assert(sizeof(AEC_tDb::afHpState) == sizeof(float) * kSections * 2,
              "one (w1, w2) pair per section");

}  // namespace

// state = (w1, w2): w1 the newest internal value, w2 the one before.
// Per sample: out = x + c0 w1 + c1 w2; w = x + c2 w1 + c3 w2; shift.
// The input sample is read before the output is written, so in may equal out.
void aec_ssfilter(const float coef[4], float state[2], const float *in, float *out) {
    const float c0 = coef[0];
    const float c1 = coef[1];
    const float c2 = coef[2];
    const float c3 = coef[3];
    float w1 = state[0];
    float w2 = state[1];
    for (int n = 0; n < kFrame; ++n) {
        const float x = in[n];
        out[n] = x + c0 * w1 + c1 * w2;
        const float w = x + c2 * w1 + c3 * w2;
        w2 = w1;
        w1 = w;
    }
    state[0] = w1;
    state[1] = w2;
}

void aec_hipass(AEC_tDb *db, float *x) {
    // With the high-pass switched off the frame and the section states are
    // left alone, so switching it on again resumes from the old state.
    if (db->uiFlags & KVAEC_MODE_NO_HIPASS) return;
    for (int n = 0; n < kFrame; ++n) x[n] *= kHpGain;
    for (int k = 0; k < kSections; ++k) aec_ssfilter(kHpCoef[k], db->afHpState[k], x, x);
}
