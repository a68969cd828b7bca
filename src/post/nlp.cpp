// Placeholder: not yet implemented.
#include "post.h"

void aec_nlp(AEC_tDb *db, AEC_tSc *sc) {
    (void)db;
    (void)sc;
}

void aec_nlp_get_coefs(AEC_tDb *db, AEC_tSc *sc) {
    (void)db;
    (void)sc;
}

void aec_nlp_att(float *err, float *rin, AEC_tSc *sc) {
    (void)err;
    (void)rin;
    (void)sc;
}

void aec_nlp_mix_noise(AEC_tDb *db, AEC_tSc *sc) {
    (void)db;
    (void)sc;
}

