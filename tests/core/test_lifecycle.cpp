// Lifecycle and control: start values, commands, mode word, self-test.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "core/core.h"

namespace {

uint32_t *dbWords() { return reinterpret_cast<uint32_t *>(&AEC_Db); }
uint32_t *stateWords() {
    return reinterpret_cast<uint32_t *>(reinterpret_cast<char *>(&AEC_Db) + offsetof(AEC_tDb, afRefPowAdf));
}
uint32_t *scWords() { return reinterpret_cast<uint32_t *>(&AEC_Sc); }

void fillPattern(float *p, int n, float base) {
    for (int i = 0; i < n; ++i) p[i] = base + static_cast<float>(i);
}

void expectStripStartValues(float erlInit) {
    for (int s = 0; s < AEC_NSTRIPREC; ++s) {
        const AEC_tStripRec &r = AEC_Db.atStrip[s];
        EXPECT_EQ(r.fErleAvgDb, 0.0f);
        EXPECT_EQ(r.fErlDb, erlInit);
        EXPECT_EQ(r.fDtAccDb, 0.0f);
        EXPECT_EQ(r.fDtAcc2Db, 0.0f);
        EXPECT_EQ(r.fCopyScore, 0.0f);
        EXPECT_EQ(r.fErrFloorDb, -33.0f);
        EXPECT_EQ(r.fErrActDb, 0.0f);
        EXPECT_EQ(r.fRinActDb, 0.0f);
        EXPECT_EQ(r.fRinFloorDb, -33.0f);
        EXPECT_EQ(r.fRefDbPrev2, -65.0f);
        EXPECT_EQ(r.fRefDbPrev1, -65.0f);
        EXPECT_EQ(r.uiMergeCnt, 0u);
    }
}

// Scribbles over every state word, the stores and the mode word.
void dirtyEverything() {
    for (unsigned i = 0; i < kvaec::kDbResetWords; ++i) stateWords()[i] = 0x3F000000u + i;
    fillPattern(AEC_afRef, AEC_REF_FLOATS, 1.0f);
    fillPattern(AEC_afAdf, AEC_ADF_FLOATS, 2.0f);
    fillPattern(AEC_afAds, AEC_ADF_FLOATS, 3.0f);
}

bool allZero(const uint32_t *p, size_t n) {
    for (size_t i = 0; i < n; ++i)
        if (p[i] != 0) return false;
    return true;
}

TEST(Init, NullConfigurationLoadsTheDefaults) {
    aecx_init(nullptr);
    EXPECT_EQ(std::memcmp(&AEC_Db.tCfg, &AEC_DefaultCfg, sizeof(AEC_tCfg)), 0);
    EXPECT_EQ(AEC_DefaultCfg.fErlInitDb, -10.0f);
    EXPECT_EQ(AEC_DefaultCfg.fNlpAttMaxDb, 45.0f);
    EXPECT_EQ(AEC_DefaultCfg.fNlpAttMinDb, 30.0f);
    EXPECT_EQ(AEC_DefaultCfg.fDtdMarginDb, 4.5f);
    EXPECT_EQ(AEC_DefaultCfg.fLevelFloorDb, -95.0f);
    EXPECT_EQ(AEC_DefaultCfg.fNrLevelDb, 0.0f);
    EXPECT_EQ(AEC_DefaultCfg.fRinLevelRefDb, 100.0f);
    EXPECT_EQ(AEC_DefaultCfg.iProfile, 0);
}

TEST(Init, SetsPointersClearsStoresAndFillsStartValues) {
    dirtyEverything();
    AEC_tCfg cfg = AEC_DefaultCfg;
    cfg.fErlInitDb = -7.5f;
    aecx_init(&cfg);
    EXPECT_EQ(AEC_Db.pafRef, AEC_afRef);
    EXPECT_EQ(AEC_Db.pafAdf, AEC_afAdf);
    EXPECT_EQ(AEC_Db.pafAds, AEC_afAds);
    EXPECT_TRUE(allZero(reinterpret_cast<uint32_t *>(AEC_afRef), AEC_REF_FLOATS));
    EXPECT_TRUE(allZero(reinterpret_cast<uint32_t *>(AEC_afAdf), AEC_ADF_FLOATS));
    EXPECT_TRUE(allZero(reinterpret_cast<uint32_t *>(AEC_afAds), AEC_ADF_FLOATS));
    EXPECT_EQ(AEC_Db.tCfg.fErlInitDb, -7.5f);
    expectStripStartValues(-7.5f);
    EXPECT_EQ(AEC_Db.iErlStrip, 1);
    EXPECT_EQ(AEC_Db.uiFlags, 0u);
    EXPECT_EQ(AEC_Db.fRinPeakDb, 0.0f);
    EXPECT_EQ(AEC_Db.fAdaptTime, 0.0f);
    EXPECT_EQ(AEC_Db.uiNoiseSeed, 0u);
    // Every state word other than the strip records and iErlStrip is zero.
    const size_t stripFirst = (offsetof(AEC_tDb, atStrip) - offsetof(AEC_tDb, afRefPowAdf)) / 4;
    const size_t stripLast = stripFirst + sizeof(AEC_Db.atStrip) / 4;
    const size_t erlStrip = (offsetof(AEC_tDb, iErlStrip) - offsetof(AEC_tDb, afRefPowAdf)) / 4;
    for (size_t i = 0; i < kvaec::kDbResetWords; ++i) {
        if ((i < stripFirst || i >= stripLast) && i != erlStrip) {
            ASSERT_EQ(stateWords()[i], 0u) << "word " << i;
        }
    }
}

TEST(Init, DoesNotTouchTheScratchRecord) {
    aecx_init(nullptr);
    AEC_Sc.afFbTime[3] = 42.0f;
    aecx_init(nullptr);
    EXPECT_EQ(AEC_Sc.afFbTime[3], 42.0f);
}

TEST(Init, TwiceInARowEqualsOnceAndBuildsTablesOnce) {
    aecx_init(nullptr);
    std::vector<uint32_t> once(dbWords(), dbWords() + sizeof(AEC_tDb) / 4);
    // A table entry changed after the first build stays: init builds only once.
    const int saved = AEC_aiRefOffStrip[7];
    AEC_aiRefOffStrip[7] = 12345;
    aecx_init(nullptr);
    std::vector<uint32_t> twice(dbWords(), dbWords() + sizeof(AEC_tDb) / 4);
    EXPECT_EQ(once, twice);
    EXPECT_EQ(AEC_aiRefOffStrip[7], 12345);
    AEC_aiRefOffStrip[7] = saved;
}

TEST(Control, LoadWithResetAppliesTheNewErlInitToEveryStripRecord) {
    aecx_init(nullptr);
    AEC_tCfg cfg = AEC_DefaultCfg;
    cfg.fErlInitDb = -3.0f;
    AEC_Db.atStrip[4].fErlDb = 12.0f;
    aecx_control(0x8 | 0x1, &cfg, 1.0f);
    EXPECT_EQ(AEC_Db.tCfg.fErlInitDb, -3.0f);
    expectStripStartValues(-3.0f);
}

TEST(Control, ResetKeepingFiltersLeavesBothBanksAndClearsTheRest) {
    aecx_init(nullptr);
    AEC_tCfg cfg = AEC_DefaultCfg;
    cfg.fLevelFloorDb = -80.0f;
    aecx_control(0x8, &cfg, 0.0f);
    dirtyEverything();
    std::vector<float> adf(AEC_afAdf, AEC_afAdf + AEC_ADF_FLOATS), ads(AEC_afAds, AEC_afAds + AEC_ADF_FLOATS);
    aecx_control(0x1 | 0x2 | 0x20, nullptr, 5.0f);
    EXPECT_EQ(std::vector<float>(AEC_afAdf, AEC_afAdf + AEC_ADF_FLOATS), adf);
    EXPECT_EQ(std::vector<float>(AEC_afAds, AEC_afAds + AEC_ADF_FLOATS), ads);
    EXPECT_TRUE(allZero(reinterpret_cast<uint32_t *>(AEC_afRef), AEC_REF_FLOATS));
    EXPECT_EQ(AEC_Db.afSndAnaHist[10], 0.0f);
    EXPECT_EQ(AEC_Db.fNlpParam, 0.0f);
    EXPECT_EQ(AEC_Db.iDoubleTalk, 0);
    EXPECT_EQ(AEC_Db.uiNoiseSeed, 0u);
    EXPECT_EQ(AEC_Db.iErlStrip, 1);
    EXPECT_EQ(AEC_Db.uiFlags, 0x20u);
    // The configuration and the pointers survive the reset.
    EXPECT_EQ(AEC_Db.tCfg.fLevelFloorDb, -80.0f);
    EXPECT_EQ(AEC_Db.pafRef, AEC_afRef);
    expectStripStartValues(-10.0f);
}

TEST(Control, ResetWithoutKeepClearsBothBanks) {
    aecx_init(nullptr);
    dirtyEverything();
    aecx_control(0x1, nullptr, 0.0f);
    EXPECT_TRUE(allZero(reinterpret_cast<uint32_t *>(AEC_afAdf), AEC_ADF_FLOATS));
    EXPECT_TRUE(allZero(reinterpret_cast<uint32_t *>(AEC_afAds), AEC_ADF_FLOATS));
}

TEST(Control, ResetClearsExactlyTheWordsBetweenPointersAndConfiguration) {
    aecx_init(nullptr);
    dirtyEverything();
    AEC_tCfg cfg = AEC_DefaultCfg;
    cfg.fNrLevelDb = 0.25f;
    aecx_control(0x8, &cfg, 0.0f);
    aecx_control(0x1, nullptr, 0.0f);
    EXPECT_EQ(AEC_Db.afRefPowAdf[0], 0.0f);  // first word after the pointers
    EXPECT_EQ(AEC_Db.iErlStrip, 1);          // last word before the configuration, then refilled
    EXPECT_EQ(AEC_Db.tCfg.fNrLevelDb, 0.25f);
    EXPECT_EQ(AEC_Db.pafAds, AEC_afAds);
}

TEST(Control, KeepBitAloneHasNoEffect) {
    aecx_init(nullptr);
    AEC_afAdf[3] = 1.0f;
    AEC_Db.fAdaptTime = 5.0f;
    aecx_control(0x2, nullptr, 0.0f);
    EXPECT_EQ(AEC_afAdf[3], 1.0f);
    EXPECT_EQ(AEC_Db.fAdaptTime, 5.0f);
}

TEST(Control, NlpValueCommandAlsoReplacesTheModeWord) {
    aecx_init(nullptr);
    aecx_control(0x10 | 0x40, nullptr, 0.0f);
    EXPECT_EQ(AEC_Db.uiFlags, 0x50u);
    aecx_control(0x4, nullptr, 3.5f);
    EXPECT_EQ(AEC_Db.fNlpParam, 3.5f);
    EXPECT_EQ(AEC_Db.uiFlags, 0u);
}

TEST(Control, ValueIsReadOnlyWithItsCommand) {
    aecx_init(nullptr);
    aecx_control(0x4, nullptr, 2.0f);
    aecx_control(0x0, nullptr, 9.0f);
    EXPECT_EQ(AEC_Db.fNlpParam, 2.0f);
}

TEST(Control, LoadWithNullLoadsDefaultsWithoutReset) {
    aecx_init(nullptr);
    AEC_tCfg cfg = AEC_DefaultCfg;
    cfg.fDtdMarginDb = 9.0f;
    cfg.iProfile = 3;
    aecx_control(0x8, &cfg, 0.0f);
    EXPECT_EQ(AEC_Db.tCfg.iProfile, 3);
    AEC_Db.fAdaptTime = 77.0f;
    AEC_afAds[0] = 0.5f;
    aecx_control(0x8, nullptr, 1.0f);
    EXPECT_EQ(std::memcmp(&AEC_Db.tCfg, &AEC_DefaultCfg, sizeof(AEC_tCfg)), 0);
    EXPECT_EQ(AEC_Db.fAdaptTime, 77.0f);
    EXPECT_EQ(AEC_afAds[0], 0.5f);
}

TEST(Control, ConfigurationIsReadOnlyWithItsCommand) {
    aecx_init(nullptr);
    AEC_tCfg cfg = AEC_DefaultCfg;
    cfg.fNlpAttMaxDb = 10.0f;
    aecx_control(0x1, &cfg, 0.0f);
    EXPECT_EQ(AEC_Db.tCfg.fNlpAttMaxDb, 45.0f);
}

TEST(Control, EveryBitAboveTheCommandsIsStoredUnchanged) {
    aecx_init(nullptr);
    aecx_control(0xFFFFFFF0u, nullptr, 0.0f);
    EXPECT_EQ(AEC_Db.uiFlags, 0xFFFFFFF0u);
    aecx_control(0x80 | 0x800 | 0x1000 | 0x4000 | 0x80000000u | 0xF, nullptr, 0.0f);
    EXPECT_EQ(AEC_Db.uiFlags, 0x80u | 0x800u | 0x1000u | 0x4000u | 0x80000000u);
}

TEST(Control, NamedConstantsHaveTheirBitValues) {
    EXPECT_EQ(KVAEC_CMD_RESET, 0x1u);
    EXPECT_EQ(KVAEC_CMD_KEEP_FILTERS, 0x2u);
    EXPECT_EQ(KVAEC_CMD_SET_NLP_PARAM, 0x4u);
    EXPECT_EQ(KVAEC_CMD_LOAD_CFG, 0x8u);
    EXPECT_EQ(KVAEC_MODE_BYPASS, 0x10u);
    EXPECT_EQ(KVAEC_MODE_FREEZE, 0x20u);
    EXPECT_EQ(KVAEC_MODE_SEND_ONLY_LOSS, 0x40u);
    EXPECT_EQ(KVAEC_MODE_NO_NLP, 0x100u);
    EXPECT_EQ(KVAEC_MODE_NO_NR, 0x200u);
    EXPECT_EQ(KVAEC_MODE_NO_HIPASS, 0x400u);
    EXPECT_EQ(KVAEC_MODE_LOOPBACK, 0x2000u);
}

TEST(Control, ResetDoesNotClearTheScratchRecord) {
    aecx_init(nullptr);
    AEC_Sc.uiGuardLo = 0x12345678u;
    AEC_Sc.fClipStepDb = 6.0f;
    aecx_control(0x1, nullptr, 0.0f);
    EXPECT_EQ(AEC_Sc.uiGuardLo, 0x12345678u);
    EXPECT_EQ(AEC_Sc.fClipStepDb, 6.0f);
}

const uint32_t kNaN = 0x7FC00000u;

class Bist : public ::testing::Test {
protected:
    void SetUp() override {
        aecx_init(nullptr);
        aec_memclr(&AEC_Sc, AEC_SC_WORDS);
    }
};

TEST_F(Bist, FreshStateIsSound) { EXPECT_EQ(aecx_bist(), 0); }

TEST_F(Bist, OneNaNInTheSlowBankCountsOne) {
    reinterpret_cast<uint32_t *>(AEC_afAds)[100] = kNaN;
    EXPECT_EQ(aecx_bist(), 1);
}

TEST_F(Bist, ConfigurationAndControlWordsAreNotScanned) {
    AEC_Db.tCfg.fNrLevelDb = NAN;
    AEC_Db.uiFlags = 0xFFFFFFFFu;
    AEC_Db.uiNoiseSeed = 0xFFFFFFFFu;
    AEC_Db.iErlStrip = -1;
    AEC_Db.iDoubleTalk = -1;
    EXPECT_EQ(aecx_bist(), 0);
}

TEST_F(Bist, StateRangeEndsWithTheReceivePeakLevel) {
    stateWords()[0] = kNaN;  // first word after the pointers
    EXPECT_EQ(aecx_bist(), 1);
    stateWords()[0] = 0;
    AEC_Db.fRinPeakDb = NAN;  // last scanned word
    EXPECT_EQ(aecx_bist(), 1);
    AEC_Db.fRinPeakDb = 0.0f;
    EXPECT_EQ(kvaec::kDbBistWords, 3457u);
    stateWords()[kvaec::kDbBistWords - 1] = kNaN;
    EXPECT_EQ(aecx_bist(), 1);
    stateWords()[kvaec::kDbBistWords - 1] = 0;
    stateWords()[kvaec::kDbBistWords] = kNaN;  // the mode word, one past the range
    EXPECT_EQ(aecx_bist(), 0);
}

TEST_F(Bist, PointerWordsAreNotScanned) {
    // On a 32-bit target the pointers are words 0..2; nothing before the states is read.
    EXPECT_EQ(reinterpret_cast<char *>(stateWords()) - reinterpret_cast<char *>(&AEC_Db),
              static_cast<long>(3 * sizeof(float *)));
}

TEST_F(Bist, ScratchRangeIsTheFirst2449Words) {
    scWords()[0] = kNaN;
    EXPECT_EQ(aecx_bist(), 1);
    scWords()[0] = 0;
    scWords()[2448] = kNaN;
    EXPECT_EQ(aecx_bist(), 1);
    scWords()[2448] = 0;
    scWords()[2449] = kNaN;  // the per-frame tone-alarm decision
    scWords()[2450] = kNaN;  // the high guard word
    scWords()[2451] = kNaN;
    EXPECT_EQ(aecx_bist(), 0);
}

TEST_F(Bist, StoreRangesAreWhole) {
    reinterpret_cast<uint32_t *>(AEC_afRef)[0] = kNaN;
    reinterpret_cast<uint32_t *>(AEC_afRef)[AEC_REF_FLOATS - 1] = 0xFF800000u;
    reinterpret_cast<uint32_t *>(AEC_afAdf)[0] = kNaN;
    reinterpret_cast<uint32_t *>(AEC_afAdf)[AEC_ADF_FLOATS - 1] = kNaN;
    reinterpret_cast<uint32_t *>(AEC_afAds)[0] = 0x7F800000u;
    reinterpret_cast<uint32_t *>(AEC_afAds)[AEC_ADF_FLOATS - 1] = kNaN;
    EXPECT_EQ(aecx_bist(), 6);
}

TEST_F(Bist, OnlyReads) {
    AEC_Db.afHpState[1][1] = NAN;
    EXPECT_EQ(aecx_bist(), 1);
    EXPECT_EQ(aecx_bist(), 1);
    EXPECT_TRUE(std::isnan(AEC_Db.afHpState[1][1]));
}

}  // namespace
