// Level analysis and detection: energies, voice activity, double talk.
#ifndef KVAEC_DET_H
#define KVAEC_DET_H

#include "kvaec_records.h"

#ifdef __cplusplus
extern "C" {
#endif

// Full-band weights of the strip energies.
extern KVAEC_API const float aecnrg_aCorrTab[AEC_NSTRIPS];

KVAEC_API void aec_nrg_in(AEC_tDb *db, AEC_tSc *sc);
KVAEC_API void aec_nrg_erf(AEC_tSc *sc);
// 31 levels (30 strips, full band) of one sub-band frame src (41 x 4 complex) into out.
KVAEC_API void aec_nrg_blk(const float *src, float *out);
KVAEC_API void aec_erl_sb(AEC_tDb *db, AEC_tSc *sc);
KVAEC_API void aec_erle_sb(AEC_tSc *sc);
KVAEC_API void aec_erle_sb_avrg(AEC_tDb *db, AEC_tSc *sc);

KVAEC_API void aec_vad_err_sb(AEC_tDb *db, AEC_tSc *sc);
KVAEC_API void aec_vad_rin_sb(AEC_tDb *db, AEC_tSc *sc);
KVAEC_API void aec_vad_rin_fb(AEC_tDb *db, AEC_tSc *sc);

KVAEC_API void aec_dtd(AEC_tDb *db, AEC_tSc *sc);

#ifdef __cplusplus
}
#endif

#endif
