// Rules shared by every host: the alignment of the echo behind the receive
// output (kvaec_align_shift).
#include <gtest/gtest.h>

#include <cstdint>

#include "kvaec.h"

namespace {

// Where the echo of a far-end sample reaches aecx_process, counted from the
// moment its receive output left the library, when the host delays the
// microphone by `shift` (negative: the far end by -shift).
int64_t echoAfterOutput(int32_t bulk, int32_t shift) {
    const int64_t farIn = shift < 0 ? -static_cast<int64_t>(shift) : 0;
    const int64_t micIn = static_cast<int64_t>(bulk) + (shift > 0 ? shift : 0);
    return micIn - (farIn + KVAEC_RCV_DELAY_SAMPLES);
}

TEST(AlignShift, EchoReachesTheCancellerTheLeastDelayPlusMarginAfterTheOutput) {
    for (int32_t bulk : {0, 1, 16, 40, 200, 319, 320, 321, 352, 800, 4800, 16000})
        for (int32_t margin : {0, 1, 32, 160}) {
            const int32_t s = kvaec_align_shift(bulk, margin);
            EXPECT_EQ(echoAfterOutput(bulk, s), KVAEC_ECHO_MIN_DELAY + margin) << "bulk " << bulk << " margin " << margin;
        }
}

TEST(AlignShift, ShortBulkDelayDelaysTheMicrophoneLongOneTheFarEnd) {
    // No bulk delay: the microphone waits for the receive delay and the least echo delay.
    EXPECT_EQ(kvaec_align_shift(0, 0), KVAEC_ECHO_MIN_DELAY + KVAEC_RCV_DELAY_SAMPLES);
    // Exactly that bulk delay: nothing to shift.
    EXPECT_EQ(kvaec_align_shift(KVAEC_ECHO_MIN_DELAY + KVAEC_RCV_DELAY_SAMPLES + 32, 32), 0);
    // 300 ms: the far end is delayed.
    EXPECT_EQ(kvaec_align_shift(4800, 32), KVAEC_ECHO_MIN_DELAY + KVAEC_RCV_DELAY_SAMPLES + 32 - 4800);
}

TEST(AlignShift, NegativeMarginCountsAsNone) {
    EXPECT_EQ(kvaec_align_shift(800, -50), kvaec_align_shift(800, 0));
}

TEST(AlignShift, ExtremeArgumentsSaturateInsteadOfWrapping) {
    EXPECT_EQ(kvaec_align_shift(INT32_MIN, 0), INT32_MAX);
    EXPECT_EQ(kvaec_align_shift(INT32_MIN, INT32_MAX), INT32_MAX);
    EXPECT_EQ(kvaec_align_shift(INT32_MAX, 0), KVAEC_ECHO_MIN_DELAY + KVAEC_RCV_DELAY_SAMPLES - INT32_MAX);
}

}  // namespace
