// Ageing of the reference history by one frame. Every band keeps its own row
// of complex values in AEC_afRef, newest at position 0; a frame adds four
// sub-band samples, so every row moves four positions towards its older end
// (one block move per band; the four oldest values drop out). Positions 0..3
// keep their old contents until the reference analysis writes the new frame.
#include "cond.h"

#include <cstring>

namespace {

constexpr int kNewPerFrame = AEC_NSUB;  // complex values added per band and frame

}  // namespace

void aec_shift_ref(AEC_tDb *db) {
    float *ref = db->pafRef;
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        const int len = AEC_aiRefSzStrip[s];  // complex values per row
        if (len <= kNewPerFrame) continue;
        for (int j = 0; j < AEC_aiBandsPerStrip[s]; ++j) {
            // Row start in floats: two floats per complex value.
            float *row = ref + 2 * (AEC_aiRefOffStrip[s] + j * len);
            std::memmove(row + 2 * kNewPerFrame, row,
                         static_cast<size_t>(len - kNewPerFrame) * 2u * sizeof(float));
        }
    }
}
