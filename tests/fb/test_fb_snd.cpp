// Send filter bank: analysis into the three sub-band frames, synthesis by
// overlap-add, and the 120-sample perfect-reconstruction delay of the pair.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "bank_checks.h"

namespace {

using bank_checks::Bank;
using bank_checks::kFrame;
using bank_checks::Reset;

const Bank kBank = {
    aec_fb_snd_analysis,
    aec_fb_snd_synthesis,
    aecfb_afSndAnaWin,
    aecfb_afSndSynWin,
    [](AEC_tDb *db) { return db->afSndAnaHist; },
    [](AEC_tDb *db) { return db->afSndSynOla; },
    [](AEC_tSc *sc) { return sc->acSndSb; },
    [](AEC_tSc *sc) { return sc->acErrAdf; },  // the synthesis reads the output frame
    120,
};

TEST(SendBank, AllZeroInputGivesZeroSubbandsAndZeroOutput) { bank_checks::AllZeroInputGivesZeroSubbandsAndZeroOutput(kBank); }

TEST(SendBank, AnalysisFillsHistoryOldestFirst) { bank_checks::AnalysisFillsHistoryOldestFirst(kBank); }

TEST(SendBank, FoldSumsThreeWindowedSegmentsExactly) { bank_checks::FoldSumsThreeWindowedSegmentsExactly(kBank); }

TEST(SendBank, SubbandsAreTheDftOfTheFoldedBlocks) { bank_checks::SubbandsAreTheDftOfTheFoldedBlocks(kBank); }

TEST(SendBank, SynthesisOutputsEightyTimesTheAccumulatorAndShiftsIt) { bank_checks::SynthesisOutputsEightyTimesTheAccumulatorAndShiftsIt(kBank); }

TEST(SendBank, SynthesisOfDcBinOverlapAddsTheWindow) { bank_checks::SynthesisOfDcBinOverlapAddsTheWindow(kBank); }

TEST(SendBank, ImpulseAtEveryPhaseComesOutOnce120SamplesLater) { bank_checks::ImpulseAtEveryPhaseComesOutOnceDelaySamplesLater(kBank); }

TEST(SendBank, RandomInputIsReconstructedWithDelay120) { bank_checks::RandomInputIsReconstructedWithItsDelay(kBank); }

TEST(SendBank, DelayLineAndAccumulatorCarryAcrossFrames) { bank_checks::DelayLineAndAccumulatorCarryAcrossFrames(kBank); }

TEST(SendBank, AnalysisCopiesTheFrameIntoBothErrorFrames) {
    Reset();
    float buf[kFrame];
    for (int i = 0; i < kFrame; i++) buf[i] = std::sin(0.3f * static_cast<float>(i));
    aec_fb_snd_analysis(&AEC_Db, &AEC_Sc, buf);
    EXPECT_EQ(0, std::memcmp(AEC_Sc.acErrAdf, AEC_Sc.acSndSb, sizeof(AEC_Sc.acSndSb)));
    EXPECT_EQ(0, std::memcmp(AEC_Sc.acErrAds, AEC_Sc.acSndSb, sizeof(AEC_Sc.acSndSb)));
    bool any = false;
    for (int b = 0; b < AEC_NBANDS; b++) any = any || AEC_Sc.acSndSb[b][3][0] != 0.0f;
    EXPECT_TRUE(any);
}


}  // namespace
