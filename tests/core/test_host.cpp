// Host rules: the configuration check, and the alignment of the echo
// behind the receive output (kvaec_align_shift).
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "closed_loop.h"
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

using kvaec::sim::ClosedLoop;
using kvaec::sim::kFrame;

std::string check(const AEC_tCfg &c) {
    const char *r = kvaec_cfg_check(&c);
    return r ? r : "";
}

// One float field of the record with its documented closed range and the
// reason the check gives for it.
struct FloatField {
    const char *name;
    float AEC_tCfg::*field;
    float lo, hi;
    const char *reason;
};

const FloatField kFloatFields[] = {
    {"fErlInitDb", &AEC_tCfg::fErlInitDb, KVAEC_CFG_ERL_INIT_MIN, KVAEC_CFG_ERL_INIT_MAX,
     "fErlInitDb: must be a finite number from -40 to 10 (dB)"},
    {"fNlpAttMaxDb", &AEC_tCfg::fNlpAttMaxDb, KVAEC_CFG_NLP_ATT_MIN, KVAEC_CFG_NLP_ATT_MAX,
     "fNlpAttMaxDb: must be a finite number from 0 to 80 (dB)"},
    {"fDtdMarginDb", &AEC_tCfg::fDtdMarginDb, KVAEC_CFG_DTD_MARGIN_MIN, KVAEC_CFG_DTD_MARGIN_MAX,
     "fDtdMarginDb: must be a finite number from 0 to 20 (dB)"},
    {"fLevelFloorDb", &AEC_tCfg::fLevelFloorDb, KVAEC_CFG_LEVEL_FLOOR_MIN, KVAEC_CFG_LEVEL_FLOOR_MAX,
     "fLevelFloorDb: must be a finite number from -120 to -50 (dB)"},
    {"fNrLevelDb", &AEC_tCfg::fNrLevelDb, KVAEC_CFG_NR_LEVEL_MIN, KVAEC_CFG_NR_LEVEL_MAX,
     "fNrLevelDb: must be a finite number from 0 to 1"},
    {"fRinLevelRefDb", &AEC_tCfg::fRinLevelRefDb, KVAEC_CFG_RIN_LEVEL_REF_MIN, KVAEC_CFG_RIN_LEVEL_REF_MAX,
     "fRinLevelRefDb: must be a finite number from -20 to 150 (dB)"},
};

TEST(CfgCheck, DefaultsFullDuplexAndNullAreValid) {
    EXPECT_EQ(kvaec_cfg_check(&AEC_DefaultCfg), nullptr);
    EXPECT_EQ(kvaec_cfg_check(&kvaec_full_duplex_cfg), nullptr);
    EXPECT_EQ(kvaec_cfg_check(nullptr), nullptr);
}

TEST(CfgCheck, EachFloatFieldIsValidExactlyOnItsClosedRange) {
    for (const FloatField &f : kFloatFields) {
        SCOPED_TRACE(f.name);
        AEC_tCfg c = AEC_DefaultCfg;
        c.fNlpAttMinDb = 0.0f;  // so that fNlpAttMaxDb may go down to 0
        c.*f.field = f.lo;
        EXPECT_EQ(check(c), "");
        c.*f.field = f.hi;
        EXPECT_EQ(check(c), "");
        c.*f.field = std::nextafter(f.lo, -1e30f);
        EXPECT_EQ(check(c), f.reason);
        c.*f.field = std::nextafter(f.hi, 1e30f);
        EXPECT_EQ(check(c), f.reason);
    }
}

TEST(CfgCheck, NonFiniteValuesAreNeverValid) {
    const float bad[] = {std::numeric_limits<float>::quiet_NaN(), -std::numeric_limits<float>::quiet_NaN(),
                         std::numeric_limits<float>::infinity(), -std::numeric_limits<float>::infinity()};
    for (const FloatField &f : kFloatFields)
        for (float v : bad) {
            SCOPED_TRACE(f.name);
            AEC_tCfg c = AEC_DefaultCfg;
            c.*f.field = v;
            EXPECT_EQ(check(c), f.reason);
        }
    for (float v : bad) {
        AEC_tCfg c = AEC_DefaultCfg;
        c.fNlpAttMinDb = v;
        EXPECT_EQ(check(c), "fNlpAttMinDb: must be a finite number from 0 to 80 (dB)");
    }
}

TEST(CfgCheck, LowerNlpLevelMayNotExceedTheUpperOne) {
    AEC_tCfg c = AEC_DefaultCfg;
    c.fNlpAttMaxDb = 20.0f;
    c.fNlpAttMinDb = 20.0f;
    EXPECT_EQ(check(c), "");
    c.fNlpAttMinDb = 0.0f;
    EXPECT_EQ(check(c), "");
    c.fNlpAttMinDb = std::nextafter(20.0f, 100.0f);
    EXPECT_EQ(check(c), "fNlpAttMinDb: must not exceed fNlpAttMaxDb (range 0 to fNlpAttMaxDb, dB)");
    c.fNlpAttMinDb = -1.0f;
    EXPECT_EQ(check(c), "fNlpAttMinDb: must be a finite number from 0 to 80 (dB)");
}

TEST(CfgCheck, ProfileIsValidFromZeroToSix) {
    AEC_tCfg c = AEC_DefaultCfg;
    for (int32_t p = KVAEC_CFG_PROFILE_MIN; p <= KVAEC_CFG_PROFILE_MAX; ++p) {
        c.iProfile = p;
        EXPECT_EQ(check(c), "") << p;
    }
    for (int32_t p : {-1, 7, INT32_MIN, INT32_MAX, 0x3F800000}) {
        c.iProfile = p;
        EXPECT_EQ(check(c), "iProfile: must be an integer from 0 to 6") << p;
    }
}

TEST(CfgCheck, ReasonNamesTheFirstBadFieldInRecordOrder) {
    AEC_tCfg c = AEC_DefaultCfg;
    c.iProfile = 9;
    c.fLevelFloorDb = 0.0f;
    c.fNlpAttMaxDb = 1e38f;
    EXPECT_EQ(check(c).rfind("fNlpAttMaxDb:", 0), 0u);
    c.fNlpAttMaxDb = 45.0f;
    EXPECT_EQ(check(c).rfind("fLevelFloorDb:", 0), 0u);
    c.fLevelFloorDb = -95.0f;
    EXPECT_EQ(check(c).rfind("iProfile:", 0), 0u);
}

TEST(CfgCheck, ReasonsAreOneLine) {
    for (const FloatField &f : kFloatFields) EXPECT_EQ(std::strchr(f.reason, '\n'), nullptr);
    AEC_tCfg c = AEC_DefaultCfg;
    c.iProfile = -3;
    const char *r = kvaec_cfg_check(&c);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(std::strchr(r, '\n'), nullptr);
}

// Echo loss over the last second of a 4 s closed loop with a speech-like far
// end and no near talker, and whether the canceller stayed sound.
struct LoopResult {
    double lossDb;
    bool sound;
};

LoopResult runLoop(const AEC_tCfg &cfg) {
    aecx_init(&cfg);
    ClosedLoop loop(kvaec::sim::makeEchoPath(7, 3.0, 40.0, 6.0));
    kvaec::sim::SpeechLike far(3, -24.0, false);
    kvaec::sim::WhiteNoise noise(4, -80.0);
    float f[kFrame], n[kFrame], out[kFrame];
    double pFar = 0, pOut = 0;
    bool sound = true;
    for (int k = 0; k < 400; ++k) {
        far.fill(f, kFrame);
        noise.fill(n, kFrame);
        loop.step(f, n, out);
        for (int i = 0; i < kFrame; ++i) sound = sound && std::isfinite(out[i]);
        if (k >= 300) {
            pFar += kvaec::sim::powerOf(f, kFrame);
            pOut += kvaec::sim::powerOf(out, kFrame);
        }
    }
    return {10.0 * std::log10((pFar + 1e-20) / (pOut + 1e-20)), sound && aecx_bist() == 0};
}

// Every end of every range still gives a canceller: finite output, a sound
// self-test and at least 20 dB of echo loss (the defaults give about 40 dB
// here; the weakest corner, fNlpAttMaxDb = fNlpAttMinDb = 0, still cancels
// linearly).
TEST(CfgCheck, EveryRangeEndGivesAWorkingCanceller) {
    std::vector<AEC_tCfg> corners;
    for (const FloatField &f : kFloatFields)
        for (float v : {f.lo, f.hi}) {
            AEC_tCfg c = AEC_DefaultCfg;
            c.*f.field = v;
            if (f.field == &AEC_tCfg::fNlpAttMaxDb && v < c.fNlpAttMinDb) c.fNlpAttMinDb = v;
            corners.push_back(c);
        }
    for (float v : {KVAEC_CFG_NLP_ATT_MIN, KVAEC_CFG_NLP_ATT_MAX}) {
        AEC_tCfg c = AEC_DefaultCfg;
        c.fNlpAttMaxDb = KVAEC_CFG_NLP_ATT_MAX;
        c.fNlpAttMinDb = v;
        corners.push_back(c);
    }
    for (int32_t p = KVAEC_CFG_PROFILE_MIN; p <= KVAEC_CFG_PROFILE_MAX; ++p) {
        AEC_tCfg c = AEC_DefaultCfg;
        c.iProfile = p;
        corners.push_back(c);
    }
    corners.push_back(kvaec_full_duplex_cfg);
    for (const AEC_tCfg &c : corners) {
        ASSERT_EQ(check(c), "");
        const LoopResult r = runLoop(c);
        SCOPED_TRACE(testing::Message() << c.fErlInitDb << " " << c.fNlpAttMaxDb << " " << c.fNlpAttMinDb << " "
                                        << c.fDtdMarginDb << " " << c.fLevelFloorDb << " " << c.fNrLevelDb << " "
                                        << c.fRinLevelRefDb << " " << c.iProfile);
        EXPECT_TRUE(r.sound);
        EXPECT_GE(r.lossDb, 20.0);
    }
}

}  // namespace
