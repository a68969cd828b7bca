// Signal conditioning: send high-pass, tilt corrections, loopback, reference-history shift.
#ifndef KVAEC_COND_H
#define KVAEC_COND_H

#include "kvaec_records.h"

#ifdef __cplusplus
extern "C" {
#endif

// Send high-pass (gain and three sections) on 160 samples in place, unless mode 0x400.
KVAEC_API void aec_hipass(AEC_tDb *db, float *x);
// One second-order section over 160 samples; coef = (c0, c1, c2, c3), state = (w1, w2); in may equal out.
KVAEC_API void aec_ssfilter(const float coef[4], float state[2], const float *in, float *out);
// Input tilt (2.0826938 - 1.8361416 z^-1) / (1 - 0.22 z^-1), 160 samples in place.
KVAEC_API void aec_in_corr(float *state, float *x);
// Output tilt, the exact inverse of the input tilt, 160 samples in place.
KVAEC_API void aec_out_corr(float *state, float *x);
// Replace the send frame by the outgoing receive signal 384..225 samples back, -5 dB, de-emphasised.
KVAEC_API void aec_loopback(AEC_tDb *db, float *sin);
// Age every band's reference history by four sub-band samples.
KVAEC_API void aec_shift_ref(AEC_tDb *db);

#ifdef __cplusplus
}
#endif

#endif
