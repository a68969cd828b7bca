// Band and strip geometry: which bands form a strip and where each strip's
// slices of the reference history, the coefficient stores and the reference
// energy history start.
#include "core.h"

extern "C" {
int AEC_aiBandsPerStrip[AEC_NSTRIPS];
float AEC_afInvBandsPerStrip[AEC_NSTRIPS];
int AEC_aiBandOffStrip[AEC_NSTRIPS];
int AEC_aiRefSzStrip[AEC_NSTRIPS];
int AEC_aiRefOffStrip[AEC_NSTRIPS];
int AEC_aiAdfSzStrip[AEC_NSTRIPS];
int AEC_aiAdfOffStrip[AEC_NSTRIPS];
int AEC_aiRefNrgOffStrip[AEC_NSTRIPS];
int AEC_aiBand2Strip[AEC_NBANDS];
}

// Set by aecx_init_tabs as its last step; aecx_init builds the tables only once.
int aec_tabs_built;

void aecx_init_tabs(void) {
    int refOff = 0, adfOff = 0, nrgOff = 0, band = 0;
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        const bool single = s < AEC_NSINGLE;
        const int nb = single ? 1 : 2;
        const int refSz = single ? 55 : 39;
        const int adfSz = single ? 48 : 36;
        AEC_aiBandsPerStrip[s] = nb;
        AEC_afInvBandsPerStrip[s] = single ? 1.0f : 0.5f;
        AEC_aiRefSzStrip[s] = refSz;
        AEC_aiAdfSzStrip[s] = adfSz;
        AEC_aiBandOffStrip[s] = band;
        AEC_aiRefOffStrip[s] = refOff;
        AEC_aiAdfOffStrip[s] = adfOff;
        AEC_aiRefNrgOffStrip[s] = nrgOff;
        band += nb;
        refOff += nb * refSz;
        adfOff += nb * adfSz;
        nrgOff += adfSz / 4 + 1;
    }
    int b = 0;
    for (int s = 0; s < AEC_NSTRIPS; ++s)
        for (int j = 0; j < AEC_aiBandsPerStrip[s]; ++j) AEC_aiBand2Strip[b++] = s;
    aec_tabs_built = 1;
}
