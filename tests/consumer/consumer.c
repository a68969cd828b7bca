/* A host program built against an installed libkvaec. */
#include <kvaec.h>
#include <stdio.h>

int main(void) {
    float rin[KVAEC_FRAME_SAMPLES] = {0}, sin[KVAEC_FRAME_SAMPLES] = {0};
    aecx_init(NULL);
    aecx_process(rin, sin);
    int bad = aecx_bist();
    printf("libkvaec consumer: bist %d, default ERL %.1f dB\n", bad, AEC_DefaultCfg.fErlInitDb);
    return bad == 0 ? 0 : 1;
}
