// Loopback test source: the send frame is replaced by the outgoing receive
// signal taken from the reference analysis delay line, attenuated by 5 dB
// and passed through the output tilt, as if the loudspeaker signal had been
// picked up by the microphone.
#include "cond.h"

namespace {

constexpr int kFrame = KVAEC_FRAME_SAMPLES;
// afRefAnaHist holds 480 samples, oldest first; element 479 is the last
// sample that left the library. The loopback frame is elements 95..254,
// i.e. 384 down to 225 samples before that sample.
constexpr int kLoopFirst = 95;
constexpr float kLoopGain = 0.5623f;  // -5 dB

static_assert(kLoopFirst + kFrame <= static_cast<int>(sizeof(AEC_tDb::afRefAnaHist) / sizeof(float)),
              "loopback frame lies inside the reference delay line");

}  // namespace

void aec_loopback(AEC_tDb *db, float *sin) {
    const float *src = db->afRefAnaHist + kLoopFirst;
    for (int n = 0; n < kFrame; ++n) sin[n] = src[n] * kLoopGain;
    aec_out_corr(&db->fLoopOutCorr, sin);
}
