// Demo: initialises the canceller, prints its configuration and self-test,
// and runs a few seconds of frames through it.
#include <cmath>
#include <cstdio>

#include "kvaec.h"
#include "kvaec_records.h"

int main() {
    aecx_init(nullptr);
    const AEC_tCfg &c = AEC_Db.tCfg;
    std::printf("libkvaec %d.%d.%d\n", KVAEC_VERSION_MAJOR, KVAEC_VERSION_MINOR, KVAEC_VERSION_PATCH);
    std::printf("configuration: fErlInitDb %.1f, fNlpAttMaxDb %.1f, fNlpAttMinDb %.1f, fDtdMarginDb %.1f,\n"
                "               fLevelFloorDb %.1f, fNrLevelDb %.1f, fRinLevelRefDb %.1f, iProfile %d\n",
                c.fErlInitDb, c.fNlpAttMaxDb, c.fNlpAttMinDb, c.fDtdMarginDb, c.fLevelFloorDb,
                c.fNrLevelDb, c.fRinLevelRefDb, static_cast<int>(c.iProfile));
    float rin[KVAEC_FRAME_SAMPLES], sin[KVAEC_FRAME_SAMPLES];
    unsigned seed = 1;
    for (int frame = 0; frame < 300; ++frame) {
        for (int n = 0; n < KVAEC_FRAME_SAMPLES; ++n) {
            seed = seed * 1103515245u + 12345u;
            rin[n] = 0.05f * (static_cast<float>((seed >> 9) & 0xFFFF) / 32768.0f - 1.0f);
            sin[n] = 0.5f * rin[n];
        }
        aecx_process(rin, sin);
    }
    std::printf("300 frames processed; self-test: %d non-finite words\n", aecx_bist());
    return aecx_bist() == 0 ? 0 : 1;
}
