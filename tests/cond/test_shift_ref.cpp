// Ageing of the reference history by one frame.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "cond/cond.h"
#include "core/core.h"
#include "kvaec_records.h"

namespace {

// Total complex values in the rows of all strips.
constexpr int kRefComplex = 1903;

class ShiftRef : public ::testing::Test {
  protected:
    void SetUp() override {
        aecx_init(nullptr);
        // Every float of the store gets its own index as value.
        for (int i = 0; i < AEC_REF_FLOATS; ++i) AEC_afRef[i] = static_cast<float>(i);
        std::memcpy(before_, AEC_afRef, sizeof(before_));
    }
    float before_[AEC_REF_FLOATS];
};

TEST_F(ShiftRef, EveryRowMovesFourPositionsTowardsTheOlderEnd) {
    aec_shift_ref(&AEC_Db);
    int rows = 0;
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        const int len = AEC_aiRefSzStrip[s];
        for (int j = 0; j < AEC_aiBandsPerStrip[s]; ++j, ++rows) {
            const int row = 2 * (AEC_aiRefOffStrip[s] + j * len);
            for (int p = 4; p < len; ++p) {
                ASSERT_EQ(AEC_afRef[row + 2 * p], before_[row + 2 * (p - 4)]) << "strip " << s << " band " << j << " pos " << p;
                ASSERT_EQ(AEC_afRef[row + 2 * p + 1], before_[row + 2 * (p - 4) + 1]);
            }
            // Positions 0..3 keep their old contents.
            for (int p = 0; p < 4; ++p) {
                ASSERT_EQ(AEC_afRef[row + 2 * p], before_[row + 2 * p]);
                ASSERT_EQ(AEC_afRef[row + 2 * p + 1], before_[row + 2 * p + 1]);
            }
        }
    }
    EXPECT_EQ(rows, AEC_NBANDS);
}

TEST_F(ShiftRef, PositionFourHoldsWhatPositionZeroHeld) {
    aec_shift_ref(&AEC_Db);
    for (int b = 0; b < AEC_NBANDS; ++b) {
        const int s = AEC_aiBand2Strip[b];
        const int j = b - AEC_aiBandOffStrip[s];
        const int row = 2 * (AEC_aiRefOffStrip[s] + j * AEC_aiRefSzStrip[s]);
        EXPECT_EQ(AEC_afRef[row + 8], before_[row]) << "band " << b;
        EXPECT_EQ(AEC_afRef[row + 9], before_[row + 1]) << "band " << b;
    }
}

TEST_F(ShiftRef, RowsStayWithinTheirOwnBoundsAndTheRestOfTheStoreIsUntouched) {
    aec_shift_ref(&AEC_Db);
    // Every value in the rows still comes from its own row (the four oldest
    // were dropped, nothing spilled into the next row).
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        const int len = AEC_aiRefSzStrip[s];
        for (int j = 0; j < AEC_aiBandsPerStrip[s]; ++j) {
            const int row = 2 * (AEC_aiRefOffStrip[s] + j * len);
            for (int k = 0; k < 2 * len; ++k) {
                EXPECT_GE(AEC_afRef[row + k], static_cast<float>(row));
                EXPECT_LT(AEC_afRef[row + k], static_cast<float>(row + 2 * len - 8));
            }
        }
    }
    for (int i = 2 * kRefComplex; i < AEC_REF_FLOATS; ++i) ASSERT_EQ(AEC_afRef[i], before_[i]) << i;
}

TEST_F(ShiftRef, WorksThroughTheStorePointer) {
    // The shift addresses the history through pafRef: a private store
    // behind the pointer is moved and the global store is left alone.
    std::vector<float> own(AEC_REF_FLOATS);
    for (int i = 0; i < AEC_REF_FLOATS; ++i) own[i] = static_cast<float>(-i);
    AEC_Db.pafRef = own.data();
    aec_shift_ref(&AEC_Db);
    AEC_Db.pafRef = AEC_afRef;
    EXPECT_EQ(0, std::memcmp(before_, AEC_afRef, sizeof(before_)));
    EXPECT_EQ(own[8], 0.0f);
    EXPECT_EQ(own[9], -1.0f);
    EXPECT_EQ(own[2 * 54], -2.0f * 50);
}

TEST_F(ShiftRef, FourteenShiftsFlushARowOfFiftyFive) {
    // A value written at position 0 sits at 4 k after k shifts and is gone
    // after 14 shifts (4 * 14 = 56 > 54); in a row of 39 after 10.
    aec_memclr(AEC_afRef, AEC_REF_FLOATS);
    const int row0 = 0;                            // strip 0, band 0
    const int row19 = 2 * AEC_aiRefOffStrip[19];   // strip 19, first band
    AEC_afRef[row0] = 1.0f;
    AEC_afRef[row19] = 1.0f;
    for (int k = 1; k <= 14; ++k) {
        // Positions 0..3 are not cleared by the shift: clear them as the
        // reference analysis would overwrite them.
        aec_shift_ref(&AEC_Db);
        for (int p = 0; p < 4; ++p) {
            AEC_afRef[row0 + 2 * p] = 0.0f;
            AEC_afRef[row19 + 2 * p] = 0.0f;
        }
        if (4 * k < 55) {
            EXPECT_EQ(AEC_afRef[row0 + 2 * 4 * k], 1.0f) << k;
        }
        if (4 * k < 39) {
            EXPECT_EQ(AEC_afRef[row19 + 2 * 4 * k], 1.0f) << k;
        }
        if (k == 10) {
            float sum = 0.0f;
            for (int i = 0; i < 2 * 39; ++i) sum += AEC_afRef[row19 + i];
            EXPECT_EQ(sum, 0.0f);
        }
    }
    float sum = 0.0f;
    for (int i = 0; i < 2 * 55; ++i) sum += AEC_afRef[row0 + i];
    EXPECT_EQ(sum, 0.0f);
}

}  // namespace
