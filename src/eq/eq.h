// Profile-selected loudspeaker and microphone equalizers.
#ifndef KVAEC_EQ_H
#define KVAEC_EQ_H

#include "kvaec_records.h"

#ifdef __cplusplus
extern "C" {
#endif

KVAEC_API void aec_spkeq(AEC_tDb *db, AEC_tSc *sc, float *x);
KVAEC_API void aec_miceq(AEC_tDb *db, AEC_tSc *sc, float *x);

#ifdef __cplusplus
}
#endif

#endif
