// Band and strip geometry tables.
#include <gtest/gtest.h>

#include "core/core.h"

namespace {

struct Row {
    int bands, firstBand, refSz, refOff, adfSz, adfOff, nrgOff;
};

// The full table, row by row.
const Row kRows[AEC_NSTRIPS] = {
    {1, 0, 55, 0, 48, 0, 0},        {1, 1, 55, 55, 48, 48, 13},     {1, 2, 55, 110, 48, 96, 26},
    {1, 3, 55, 165, 48, 144, 39},   {1, 4, 55, 220, 48, 192, 52},   {1, 5, 55, 275, 48, 240, 65},
    {1, 6, 55, 330, 48, 288, 78},   {1, 7, 55, 385, 48, 336, 91},   {1, 8, 55, 440, 48, 384, 104},
    {1, 9, 55, 495, 48, 432, 117},  {1, 10, 55, 550, 48, 480, 130}, {1, 11, 55, 605, 48, 528, 143},
    {1, 12, 55, 660, 48, 576, 156}, {1, 13, 55, 715, 48, 624, 169}, {1, 14, 55, 770, 48, 672, 182},
    {1, 15, 55, 825, 48, 720, 195}, {1, 16, 55, 880, 48, 768, 208}, {1, 17, 55, 935, 48, 816, 221},
    {1, 18, 55, 990, 48, 864, 234}, {2, 19, 39, 1045, 36, 912, 247}, {2, 21, 39, 1123, 36, 984, 257},
    {2, 23, 39, 1201, 36, 1056, 267}, {2, 25, 39, 1279, 36, 1128, 277}, {2, 27, 39, 1357, 36, 1200, 287},
    {2, 29, 39, 1435, 36, 1272, 297}, {2, 31, 39, 1513, 36, 1344, 307}, {2, 33, 39, 1591, 36, 1416, 317},
    {2, 35, 39, 1669, 36, 1488, 327}, {2, 37, 39, 1747, 36, 1560, 337}, {2, 39, 39, 1825, 36, 1632, 347},
};

class StripTables : public ::testing::Test {
protected:
    void SetUp() override { aecx_init_tabs(); }
};

TEST_F(StripTables, EveryRowHasItsValues) {
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        SCOPED_TRACE(s);
        EXPECT_EQ(AEC_aiBandsPerStrip[s], kRows[s].bands);
        EXPECT_EQ(AEC_aiBandOffStrip[s], kRows[s].firstBand);
        EXPECT_EQ(AEC_aiRefSzStrip[s], kRows[s].refSz);
        EXPECT_EQ(AEC_aiRefOffStrip[s], kRows[s].refOff);
        EXPECT_EQ(AEC_aiAdfSzStrip[s], kRows[s].adfSz);
        EXPECT_EQ(AEC_aiAdfOffStrip[s], kRows[s].adfOff);
        EXPECT_EQ(AEC_aiRefNrgOffStrip[s], kRows[s].nrgOff);
        EXPECT_EQ(AEC_afInvBandsPerStrip[s], s < 19 ? 1.0f : 0.5f);
    }
}

TEST_F(StripTables, BandToStripMapsSinglesAndPairs) {
    EXPECT_EQ(AEC_aiBand2Strip[18], 18);
    EXPECT_EQ(AEC_aiBand2Strip[19], 19);
    EXPECT_EQ(AEC_aiBand2Strip[20], 19);
    EXPECT_EQ(AEC_aiBand2Strip[39], 29);
    EXPECT_EQ(AEC_aiBand2Strip[40], 29);
    for (int b = 0; b < AEC_NBANDS; ++b) EXPECT_EQ(AEC_aiBand2Strip[b], b < 19 ? b : 19 + (b - 19) / 2);
}

TEST_F(StripTables, LastStripEndsAtTheStoreTotals) {
    const int s = AEC_NSTRIPS - 1;
    EXPECT_EQ(AEC_aiRefOffStrip[s] + AEC_aiBandsPerStrip[s] * AEC_aiRefSzStrip[s], 1903);
    EXPECT_EQ(AEC_aiAdfOffStrip[s] + AEC_aiBandsPerStrip[s] * AEC_aiAdfSzStrip[s], 1704);
    EXPECT_EQ(AEC_aiRefNrgOffStrip[s] + AEC_aiAdfSzStrip[s] / 4 + 1, AEC_REFNRG_LEN);
    EXPECT_LE(2 * 1903, AEC_REF_FLOATS);
    EXPECT_LE(2 * 1704, AEC_ADF_FLOATS);
}

TEST_F(StripTables, StripsAreContiguous) {
    for (int s = 1; s < AEC_NSTRIPS; ++s) {
        EXPECT_EQ(AEC_aiBandOffStrip[s], AEC_aiBandOffStrip[s - 1] + AEC_aiBandsPerStrip[s - 1]);
        EXPECT_EQ(AEC_aiRefOffStrip[s], AEC_aiRefOffStrip[s - 1] + AEC_aiBandsPerStrip[s - 1] * AEC_aiRefSzStrip[s - 1]);
        EXPECT_EQ(AEC_aiAdfOffStrip[s], AEC_aiAdfOffStrip[s - 1] + AEC_aiBandsPerStrip[s - 1] * AEC_aiAdfSzStrip[s - 1]);
        EXPECT_EQ(AEC_aiRefNrgOffStrip[s], AEC_aiRefNrgOffStrip[s - 1] + AEC_aiAdfSzStrip[s - 1] / 4 + 1);
        EXPECT_EQ(AEC_aiRefSzStrip[s] - AEC_aiAdfSzStrip[s], s < 19 ? 7 : 3);
    }
}

TEST_F(StripTables, BuildingAgainWritesTheSameValues) {
    int before[AEC_NBANDS];
    for (int b = 0; b < AEC_NBANDS; ++b) before[b] = AEC_aiBand2Strip[b];
    AEC_aiRefOffStrip[5] = -1;
    aecx_init_tabs();
    EXPECT_EQ(AEC_aiRefOffStrip[5], 275);
    for (int b = 0; b < AEC_NBANDS; ++b) EXPECT_EQ(AEC_aiBand2Strip[b], before[b]);
}

}  // namespace
