// Profile-selected loudspeaker and microphone equalizers.
#ifndef KVAEC_EQ_H
#define KVAEC_EQ_H

#include "kvaec_records.h"

#ifdef __cplusplus
extern "C" {
#endif

// Loudspeaker curves, rows = profiles 1, 2, 3, 4 (48 taps, oldest tap first).
extern const float aeceq_afSpkCurve[4][48];
// Microphone curves, rows = profiles 1, 3, 4 (profile 2 has none).
extern const float aeceq_afMicCurve[3][48];
// High-pass sections of loudspeaker profiles 3 and 4, (c0, c1, c2, c3) each, in order.
extern const float aeceq_afSpkHpCoef[3][4];
// Gain after the high-pass cascade.
extern const float aeceq_fSpkHpGain;
// 48-tap FIR in place on x[0..159]; hist[0..47] updated; work >= 208 floats.
void aeceq_fir48(float *hist, float *work, const float *h, float *x);

KVAEC_API void aec_spkeq(AEC_tDb *db, AEC_tSc *sc, float *x);
KVAEC_API void aec_miceq(AEC_tDb *db, AEC_tSc *sc, float *x);

#ifdef __cplusplus
}
#endif

#endif
