// Loudspeaker equalizer: a 48-tap FIR curve per profile 1..4; profiles 3 and
// 4 add a three-section high-pass cascade and a fixed gain. Other profiles
// pass the frame through untouched.
//
// Work buffer (afEqWork of AEC_tSc, 208 floats):
//   b[0..47]    the history: the last 48 input samples of the previous
//               equalising call, oldest first
//   b[48..207]  the 160 samples of this frame
// Output n is sum_k h[k] b[n + k], k = 0..47: input samples n-48 .. n-1. The
// current input sample does not enter its own output, so the equalizer
// delays by one sample; that delay is part of its defined response.
#include "eq.h"

#include "../core/fpenv.h"

#include <cstddef>

#include "../cond/cond.h"

namespace {
constexpr int kFrame = 160;
constexpr int kTaps = 48;
constexpr int kWork = kTaps + kFrame;
static_assert(kWork == 208, "work buffer = history + frame");
static_assert(sizeof(AEC_tSc::afEqWork) / sizeof(float) >= static_cast<std::size_t>(kWork),
              "afEqWork holds the work buffer");
static_assert(kTaps % 4 == 0, "the FIR runs four taps at a time");
}  // namespace

// The 48-tap FIR in place on x[0..159] with history hist[0..47] (updated).
// Each output is computed four products at a time: lane r accumulates the
// taps k with k mod 4 = r in increasing k, and the lanes are combined as
// (s0 + s2) + (s1 + s3).
void aeceq_fir48(float *hist, float *work, const float *h, float *x) {
    float *b = work;
    for (int i = 0; i < kTaps; ++i) b[i] = hist[i];
    for (int i = 0; i < kFrame; ++i) b[kTaps + i] = x[i];
    for (int i = 0; i < kTaps; ++i) hist[i] = b[kFrame + i];
    for (int n = 0; n < kFrame; ++n) {
        const float *bn = b + n;
        float s0 = 0.0f, s1 = 0.0f, s2 = 0.0f, s3 = 0.0f;
        for (int k = 0; k < kTaps; k += 4) {
            s0 = s0 + h[k] * bn[k];
            s1 = s1 + h[k + 1] * bn[k + 1];
            s2 = s2 + h[k + 2] * bn[k + 2];
            s3 = s3 + h[k + 3] * bn[k + 3];
        }
        x[n] = (s0 + s2) + (s1 + s3);
    }
}

void aec_spkeq(AEC_tDb *db, AEC_tSc *sc, float *x) {
    const int32_t profile = db->tCfg.iProfile;
    // Profiles 1..4 only: anything else (0, 5, negative) leaves x and the
    // history as they are.
    if (static_cast<uint32_t>(profile) - 1u > 3u) return;
    aeceq_fir48(db->afSpkEqHist, sc->afEqWork, aeceq_afSpkCurve[profile - 1], x);
    if (profile == 3 || profile == 4) {
        for (int s = 0; s < 3; ++s) aec_ssfilter(aeceq_afSpkHpCoef[s], db->afSpkEqHpState[s], x, x);
        for (int n = 0; n < kFrame; ++n) x[n] = x[n] * aeceq_fSpkHpGain;
    }
}

// Runs in the library's floating-point mode (see core/fpenv.h).
void aecx_spkeq(float *x) {
    const kvaec::fpenv::Scope mode;
    aec_spkeq(&AEC_Db, &AEC_Sc, x);
}
