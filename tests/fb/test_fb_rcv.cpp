// Receive filter bank: analysis into the receive sub-band frame, synthesis by
// overlap-add, and the 40-sample perfect-reconstruction delay of the pair.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "bank_checks.h"

namespace {

using bank_checks::Bank;
using bank_checks::kFrame;
using bank_checks::Reset;

const Bank kBank = {
    aec_fb_rcv_analysis,
    aec_fb_rcv_synthesis,
    aecfb_afRcvAnaWin,
    aecfb_afRcvSynWin,
    [](AEC_tDb *db) { return db->afRcvAnaHist; },
    [](AEC_tDb *db) { return db->afRcvSynOla; },
    [](AEC_tSc *sc) { return sc->acRcvSb; },
    [](AEC_tSc *sc) { return sc->acRcvSb; },
    40,
};

TEST(ReceiveBank, AllZeroInputGivesZeroSubbandsAndZeroOutput) { bank_checks::AllZeroInputGivesZeroSubbandsAndZeroOutput(kBank); }

TEST(ReceiveBank, AnalysisFillsHistoryOldestFirst) { bank_checks::AnalysisFillsHistoryOldestFirst(kBank); }

TEST(ReceiveBank, FoldSumsThreeWindowedSegmentsExactly) { bank_checks::FoldSumsThreeWindowedSegmentsExactly(kBank); }

TEST(ReceiveBank, SubbandsAreTheDftOfTheFoldedBlocks) { bank_checks::SubbandsAreTheDftOfTheFoldedBlocks(kBank); }

TEST(ReceiveBank, SynthesisOutputsEightyTimesTheAccumulatorAndShiftsIt) { bank_checks::SynthesisOutputsEightyTimesTheAccumulatorAndShiftsIt(kBank); }

TEST(ReceiveBank, SynthesisOfDcBinOverlapAddsTheWindow) { bank_checks::SynthesisOfDcBinOverlapAddsTheWindow(kBank); }

TEST(ReceiveBank, ImpulseAtEveryPhaseComesOutOnce40SamplesLater) { bank_checks::ImpulseAtEveryPhaseComesOutOnceDelaySamplesLater(kBank); }

TEST(ReceiveBank, RandomInputIsReconstructedWithDelay40) { bank_checks::RandomInputIsReconstructedWithItsDelay(kBank); }

TEST(ReceiveBank, DelayLineAndAccumulatorCarryAcrossFrames) { bank_checks::DelayLineAndAccumulatorCarryAcrossFrames(kBank); }

TEST(ReceiveBank, AnalysisWritesOnlyTheReceiveFrame) {
    Reset();
    // The send frames belong to the send bank: the receive analysis leaves them alone.
    for (int b = 0; b < AEC_NBANDS; b++)
        for (int t = 0; t < AEC_NSUB; t++) {
            AEC_Sc.acSndSb[b][t][0] = 2.0f;
            AEC_Sc.acErrAdf[b][t][0] = 3.0f;
            AEC_Sc.acErrAds[b][t][0] = 4.0f;
        }
    float buf[kFrame];
    for (int i = 0; i < kFrame; i++) buf[i] = std::sin(0.3f * static_cast<float>(i));
    aec_fb_rcv_analysis(&AEC_Db, &AEC_Sc, buf);
    bool any = false;
    for (int b = 0; b < AEC_NBANDS; b++) {
        any = any || AEC_Sc.acRcvSb[b][3][0] != 0.0f;
        for (int t = 0; t < AEC_NSUB; t++) {
            EXPECT_EQ(AEC_Sc.acSndSb[b][t][0], 2.0f);
            EXPECT_EQ(AEC_Sc.acErrAdf[b][t][0], 3.0f);
            EXPECT_EQ(AEC_Sc.acErrAds[b][t][0], 4.0f);
        }
    }
    EXPECT_TRUE(any);
}


}  // namespace
