// Microphone equalizer: the loudspeaker equalizer's 48-tap FIR (one-sample
// delay included, see spkeq.cpp) with its own history and curves for
// profiles 1, 3 and 4; no high-pass and no gain. Any other profile (2
// included) passes the frame through untouched.
#include "eq.h"

#include "../core/fpenv.h"

void aec_miceq(AEC_tDb *db, AEC_tSc *sc, float *x) {
    const int32_t profile = db->tCfg.iProfile;
    const float *h;
    if (profile == 3) {
        h = aeceq_afMicCurve[1];
    } else if (profile == 4) {
        h = aeceq_afMicCurve[2];
    } else if (profile == 1) {
        h = aeceq_afMicCurve[0];
    } else {
        return;
    }
    aeceq_fir48(db->afMicEqHist, sc->afEqWork, h, x);
}

// Runs in the library's floating-point mode (see core/fpenv.h).
void aecx_miceq(float *x) {
    const kvaec::fpenv::Scope mode;
    aec_miceq(&AEC_Db, &AEC_Sc, x);
}
