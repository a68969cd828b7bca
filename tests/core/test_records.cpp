// The global records: sizes, word positions, guard words, scratch sharing.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>

#include "core/core.h"

namespace {

// Word index within AEC_tDb counted as on a 32-bit target (three one-word pointers).
constexpr size_t dbWord(size_t byteOffset) { return 3 + (byteOffset - 3 * sizeof(float *)) / 4; }
constexpr size_t scWord(size_t byteOffset) { return byteOffset / 4; }

TEST(Records, StateRecordIs3472WordsOnA32BitTarget) {
    EXPECT_EQ(dbWord(offsetof(AEC_tDb, tCfg)) + sizeof(AEC_tCfg) / 4, 3472u);
    if (sizeof(void *) == 4) {
        EXPECT_EQ(sizeof(AEC_tDb), 3472u * 4u);
    }
    EXPECT_EQ(kvaec::kDbBistWords, 3457u);
    EXPECT_EQ(kvaec::kDbResetWords, 3461u);
}

TEST(Records, ControlBlockOrder) {
    EXPECT_EQ(dbWord(offsetof(AEC_tDb, fRinInCorr)) + 1, dbWord(offsetof(AEC_tDb, fSinInCorr)));
    EXPECT_EQ(dbWord(offsetof(AEC_tDb, fSinInCorr)) + 1, dbWord(offsetof(AEC_tDb, fRinOutCorr)));
    EXPECT_EQ(dbWord(offsetof(AEC_tDb, fRinOutCorr)) + 1, dbWord(offsetof(AEC_tDb, fSinOutCorr)));
    EXPECT_EQ(dbWord(offsetof(AEC_tDb, fSinOutCorr)) + 1, dbWord(offsetof(AEC_tDb, fLoopOutCorr)));
    const size_t order[] = {
        offsetof(AEC_tDb, fAdaptTime), offsetof(AEC_tDb, fClipDb),     offsetof(AEC_tDb, fRinPeakHoldDb),
        offsetof(AEC_tDb, fNlpParam),  offsetof(AEC_tDb, fTdAlarmDb),  offsetof(AEC_tDb, fRinPeakDb),
        offsetof(AEC_tDb, uiFlags),    offsetof(AEC_tDb, iDoubleTalk), offsetof(AEC_tDb, uiNoiseSeed),
        offsetof(AEC_tDb, iErlStrip),  offsetof(AEC_tDb, tCfg)};
    for (size_t i = 1; i < sizeof(order) / sizeof(order[0]); ++i) EXPECT_EQ(order[i], order[i - 1] + 4);
    EXPECT_EQ(dbWord(offsetof(AEC_tDb, fRinPeakDb)), 3459u);
    EXPECT_LT(offsetof(AEC_tDb, afRefAnaHist), offsetof(AEC_tDb, atStrip));
    EXPECT_LT(offsetof(AEC_tDb, fLoopOutCorr), offsetof(AEC_tDb, fEpcFreqDb));
}

TEST(Records, StripRecordFieldWords) {
    EXPECT_EQ(offsetof(AEC_tStripRec, fErleAvgDb), 0u);
    EXPECT_EQ(offsetof(AEC_tStripRec, fErlDb), 4u);
    EXPECT_EQ(offsetof(AEC_tStripRec, fDtAccDb), 8u);
    EXPECT_EQ(offsetof(AEC_tStripRec, fDtAcc2Db), 12u);
    EXPECT_EQ(offsetof(AEC_tStripRec, fCopyScore), 16u);
    EXPECT_EQ(offsetof(AEC_tStripRec, fErrFloorDb), 20u);
    EXPECT_EQ(offsetof(AEC_tStripRec, fErrActDb), 24u);
    EXPECT_EQ(offsetof(AEC_tStripRec, fRinActDb), 28u);
    EXPECT_EQ(offsetof(AEC_tStripRec, fRinFloorDb), 32u);
    EXPECT_EQ(offsetof(AEC_tStripRec, fRefDbPrev2), 36u);
    EXPECT_EQ(offsetof(AEC_tStripRec, fRefDbPrev1), 40u);
    EXPECT_EQ(offsetof(AEC_tStripRec, uiMergeCnt), 44u);
    EXPECT_EQ(sizeof(AEC_tStripRec), 48u);
}

TEST(Records, StripScratchRecordFieldWords) {
    const size_t offs[] = {offsetof(AEC_tStripScRec, fRefDb),     offsetof(AEC_tStripScRec, fRinDb),
                           offsetof(AEC_tStripScRec, fSinDb),     offsetof(AEC_tStripScRec, fErrAdfDb),
                           offsetof(AEC_tStripScRec, fErrAdsDb),  offsetof(AEC_tStripScRec, fErleDb),
                           offsetof(AEC_tStripScRec, fErlFrameDb), offsetof(AEC_tStripScRec, fMuAdf),
                           offsetof(AEC_tStripScRec, fMuAds),     offsetof(AEC_tStripScRec, fRinAttDb),
                           offsetof(AEC_tStripScRec, fSinAttDb),  offsetof(AEC_tStripScRec, fExpTailDb),
                           offsetof(AEC_tStripScRec, fExpEchoDb)};
    for (size_t i = 0; i < 13; ++i) EXPECT_EQ(offs[i], 4 * i);
    EXPECT_EQ(sizeof(AEC_tStripScRec), 52u);
}

TEST(Records, ScratchRecordIs2452WordsWithGuardsAtTheEnds) {
    EXPECT_EQ(sizeof(AEC_tSc), 2452u * 4u);
    EXPECT_EQ(scWord(offsetof(AEC_tSc, uiGuardLo)), 0u);
    EXPECT_EQ(scWord(offsetof(AEC_tSc, uiGuardHi)), 2450u);
    EXPECT_EQ(scWord(offsetof(AEC_tSc, iToneAlarm)), 2449u);
    EXPECT_EQ(scWord(offsetof(AEC_tSc, fClipStepDb)), 2448u);
    EXPECT_EQ(scWord(offsetof(AEC_tSc, fExpLevelDb)), 2445u);
}

TEST(Records, SharedScratchAreasOverlapOnlyWhereLifetimesAreDisjoint) {
    // The sub-band frames and level records never share storage.
    const size_t workStart = offsetof(AEC_tSc, afFbTime);
    EXPECT_GE(workStart, offsetof(AEC_tSc, atStripSc) + sizeof(AEC_Sc.atStripSc));
    // Adaptation scratch, level work, spread array, noise-reduction records and
    // equalizer work all start after the filter-bank work area.
    const size_t afterFb = offsetof(AEC_tSc, afFbWork) + sizeof(AEC_Sc.afFbWork);
    EXPECT_EQ(offsetof(AEC_tSc, acStepErr), afterFb);
    EXPECT_EQ(offsetof(AEC_tSc, afNrgWork), afterFb);
    EXPECT_EQ(offsetof(AEC_tSc, atNr), afterFb);
    EXPECT_EQ(offsetof(AEC_tSc, afEqWork), afterFb);
    EXPECT_EQ(offsetof(AEC_tSc, acRefWhite), afterFb + sizeof(AEC_Sc.acStepErr));
    // The tone detector's area covers the filter-bank work and the shared area.
    EXPECT_EQ(offsetof(AEC_tSc, afTdWork), workStart);
    EXPECT_EQ(offsetof(AEC_tSc, afTdWork) + sizeof(AEC_Sc.afTdWork), offsetof(AEC_tSc, fExpLevelDb));
}

TEST(Records, ProfileIsAnInteger) {
    // A configuration whose last word holds the float 1.0 is profile 0x3F800000, not 1.
    AEC_tCfg cfg = AEC_DefaultCfg;
    const float one = 1.0f;
    std::memcpy(&cfg.iProfile, &one, 4);
    aecx_init(&cfg);
    EXPECT_EQ(AEC_Db.tCfg.iProfile, 0x3F800000);
    EXPECT_NE(AEC_Db.tCfg.iProfile, 1);
}

TEST(Records, FullDuplexConfigurationChangesOnlyTheDoubleTalkFields) {
    // The record chosen by the double-talk category sweep: the defaults with a
    // 60 dB upper and 20 dB lower NLP level and a 3 dB double-talk margin.
    const AEC_tCfg &f = kvaec_full_duplex_cfg;
    const AEC_tCfg &d = AEC_DefaultCfg;
    EXPECT_EQ(kvaec_cfg_check(&f), nullptr);
    EXPECT_EQ(f.fErlInitDb, d.fErlInitDb);
    EXPECT_EQ(f.fNlpAttMaxDb, 60.0f);
    EXPECT_EQ(f.fNlpAttMinDb, 20.0f);
    EXPECT_EQ(f.fDtdMarginDb, 3.0f);
    EXPECT_EQ(f.fLevelFloorDb, d.fLevelFloorDb);
    EXPECT_EQ(f.fNrLevelDb, d.fNrLevelDb);
    EXPECT_EQ(f.fRinLevelRefDb, d.fRinLevelRefDb);
    EXPECT_EQ(f.iProfile, d.iProfile);
    // The defaults stay as they are.
    EXPECT_EQ(d.fNlpAttMaxDb, 45.0f);
    EXPECT_EQ(d.fNlpAttMinDb, 30.0f);
    EXPECT_EQ(d.fDtdMarginDb, 4.5f);
    aecx_init(&f);
    EXPECT_EQ(std::memcmp(&AEC_Db.tCfg, &f, sizeof f), 0);
}

TEST(Records, GlobalWordsExist) {
    _Test = 5;
    _Frame = 6;
    aecx_init(nullptr);
    EXPECT_EQ(_Test, 5);
    EXPECT_EQ(_Frame, 6);
}

}  // namespace
