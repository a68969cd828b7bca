// Decimation by four with the 40-tap linear-phase low-pass aectd_afDecCoef:
// 16 kHz in, 4 kHz out, for the narrow-band analysis of the tone detector.
//
// Both entry points lay out the work area as
//   work[0..39]          the caller's history (the 40 previous input samples,
//                        oldest first)
//   work[40..40+N-1]     the N new input samples
// and output j is the dot product of the 40 coefficients with work[4j..4j+39]:
// its newest sample is input sample 4j - 1 of the call (negative indices are
// history). The history is refreshed from the work area before filtering.
#include "td.h"

namespace {

constexpr int kTaps = 40;        // filter length = history length
constexpr int kFactor = 4;       // decimation factor
constexpr int kFrameIn = 160;    // input samples of aec_dec4k_frsz
constexpr int kBandsIn = 40;     // input samples of aec_dec4k_bands
static_assert(kTaps % 4 == 0, "the dot product runs in groups of four taps");
static_assert(kFrameIn % kFactor == 0 && kBandsIn % kFactor == 0, "whole outputs only");

// Dot product of the 40 coefficients with x[0..39], accumulated in four
// interleaved partial sums (s_r takes the taps i with i mod 4 = r, in
// increasing i) and combined at the end as (s0 + s2) + (s1 + s3).
inline float dec_dot(const float *x) {
    const float *c = aectd_afDecCoef;
    float s0 = 0.0f, s1 = 0.0f, s2 = 0.0f, s3 = 0.0f;
    for (int i = 0; i < kTaps; i += 4) {
        s0 = s0 + c[i] * x[i];
        s1 = s1 + c[i + 1] * x[i + 1];
        s2 = s2 + c[i + 2] * x[i + 2];
        s3 = s3 + c[i + 3] * x[i + 3];
    }
    return (s0 + s2) + (s1 + s3);
}

// n new samples in, n / 4 out; work holds 40 + n floats.
inline void dec4(float *hist, float *work, float *out, const float *in, int n) {
    for (int i = 0; i < kTaps; ++i) work[i] = hist[i];
    for (int i = 0; i < n; ++i) work[kTaps + i] = in[i];
    // The newest 40 input samples become the next call's history.
    for (int i = 0; i < kTaps; ++i) hist[i] = work[n + i];
    for (int j = 0; j < n / kFactor; ++j) out[j] = dec_dot(work + kFactor * j);
}

}  // namespace

// in: 160 samples; out: 40 samples; hist: 40 floats; work: >= 200 floats.
void aec_dec4k_frsz(float *hist, float *work, float *out, const float *in) {
    dec4(hist, work, out, in, kFrameIn);
}

// in: 40 samples; out: 10 samples; hist: 40 floats; work: >= 80 floats.
void aec_dec4k_bands(float *hist, float *work, float *out, const float *in) {
    dec4(hist, work, out, in, kBandsIn);
}
