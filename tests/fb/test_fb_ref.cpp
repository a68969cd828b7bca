// Reference analysis: 480-tap window folded six times, transform into a
// borrowed slot column, scatter into the newest four positions of every
// band's reference history row.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "cond/cond.h"
#include "fb/fb.h"
#include "kvaec_records.h"

namespace {

constexpr int kFrame = 160;

void Reset() { aecx_init(nullptr); }

// Complex index of position pos of band b's history row.
int RowIndex(int b, int pos) {
    const int s = AEC_aiBand2Strip[b];
    const int j = b - AEC_aiBandOffStrip[s];
    return AEC_aiRefOffStrip[s] + j * AEC_aiRefSzStrip[s] + pos;
}

TEST(ReferenceAnalysis, SilentFrameAfterSilenceWritesZerosToTheNewestFourPositions) {
    Reset();
    float buf[kFrame] = {};
    aec_fb_ref_analysis(&AEC_Db, &AEC_Sc, buf);
    // Mark every position, then analyse another silent frame.
    for (int i = 0; i < AEC_REF_FLOATS; i++) AEC_afRef[i] = 9.0f;
    aec_fb_ref_analysis(&AEC_Db, &AEC_Sc, buf);
    for (int b = 0; b < AEC_NBANDS; b++) {
        const int s = AEC_aiBand2Strip[b];
        for (int p = 0; p < AEC_aiRefSzStrip[s]; p++) {
            const float want = p < 4 ? 0.0f : 9.0f;   // older positions untouched
            EXPECT_EQ(AEC_afRef[2 * RowIndex(b, p)], want) << "band " << b << " pos " << p;
            EXPECT_EQ(AEC_afRef[2 * RowIndex(b, p) + 1], want) << "band " << b << " pos " << p;
        }
    }
}

TEST(ReferenceAnalysis, FoldSumsSixWindowedSegmentsExactly) {
    Reset();
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    float buf[kFrame];
    for (int f = 0; f < 4; f++) {
        for (float &v : buf) v = u(rng);
        aec_fb_ref_analysis(&AEC_Db, &AEC_Sc, buf);
    }
    const float *w = aecfb_afRefAnaWin;
    const float *d = AEC_Db.afRefAnaHist;
    for (int i = 0; i < 80; i++) {
        float e = 0.0f;
        for (int m = 0; m < 6; m++) e += w[i + 80 * m] * d[i + 80 * m];
        EXPECT_EQ(AEC_Sc.afFbTime[i], e) << i;
    }
    for (int i = 0; i < kFrame; i++) EXPECT_EQ(d[320 + i], buf[i]);
}

TEST(ReferenceAnalysis, NewestBlockLandsAtPositionZeroOfEveryBandIncludingDcAndNyquist) {
    Reset();
    std::mt19937 rng(8);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    float buf[kFrame];
    for (float &v : buf) v = u(rng);
    aec_fb_ref_analysis(&AEC_Db, &AEC_Sc, buf);
    // The borrowed column still holds the bins of block 3.
    for (int b = 0; b < AEC_NBANDS; b++) {
        EXPECT_EQ(AEC_afRef[2 * RowIndex(b, 0)], AEC_Sc.acErrAds[b][0][0]) << b;
        EXPECT_EQ(AEC_afRef[2 * RowIndex(b, 0) + 1], AEC_Sc.acErrAds[b][0][1]) << b;
    }
}

TEST(ReferenceAnalysis, PositionsHoldTheDftOfEachBlockNewestFirst) {
    Reset();
    std::mt19937 rng(21);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    std::vector<float> x(4 * kFrame);
    for (float &v : x) v = u(rng);
    for (int f = 0; f < 4; f++) aec_fb_ref_analysis(&AEC_Db, &AEC_Sc, &x[f * kFrame]);
    for (int t = 0; t < AEC_NSUB; t++) {
        const int newest = 3 * kFrame + 40 * t + 39;
        double fold[80] = {};
        for (int i = 0; i < 480; i++) fold[i % 80] += static_cast<double>(aecfb_afRefAnaWin[i]) * x[newest - 479 + i];
        for (int b = 0; b <= 40; b++) {
            double re = 0.0, im = 0.0;
            for (int n = 0; n < 80; n++) {
                re += fold[n] * std::cos(2.0 * M_PI * b * n / 80.0);
                im -= fold[n] * std::sin(2.0 * M_PI * b * n / 80.0);
            }
            const int k = RowIndex(b, 3 - t);
            // Single-precision six-term fold and transform of values ~0.1: 1e-5.
            EXPECT_NEAR(AEC_afRef[2 * k], re, 1e-5) << "band " << b << " block " << t;
            EXPECT_NEAR(AEC_afRef[2 * k + 1], im, 1e-5) << "band " << b << " block " << t;
        }
    }
}

TEST(ReferenceAnalysis, ConstantInputGivesTheWindowSumInTheDcBand) {
    Reset();
    float buf[kFrame];
    for (float &v : buf) v = 1.0f;
    for (int f = 0; f < 3; f++) aec_fb_ref_analysis(&AEC_Db, &AEC_Sc, buf);
    // 480 samples of 1.0 fill the delay line: bin 0 is the sum of the taps
    // (1.0) and bin 40 the alternating sum (the window's response at the
    // Nyquist frequency), both real.
    double alt = 0.0;
    for (int i = 0; i < 480; i++) alt += (i % 2 ? -1.0 : 1.0) * aecfb_afRefAnaWin[i];
    EXPECT_NEAR(AEC_afRef[2 * RowIndex(0, 0)], 1.0f, 1e-5);
    EXPECT_EQ(AEC_afRef[2 * RowIndex(0, 0) + 1], 0.0f);
    // Six-term folds of values ~0.02 and an 80-point transform: 1e-6.
    EXPECT_NEAR(AEC_afRef[2 * RowIndex(40, 0)], alt, 1e-6);
    EXPECT_EQ(AEC_afRef[2 * RowIndex(40, 0) + 1], 0.0f);
}

// An impulse appears first at the position of its block (3 or lower), moves
// four positions per frame with the history shift, and drops out of the row
// after its length.
TEST(ReferenceAnalysis, ImpulseMovesFourPositionsPerFrameAndDropsOut) {
    for (int t0 = 0; t0 < AEC_NSUB; t0++) {
        Reset();
        float buf[kFrame];
        std::vector<std::vector<float>> snap;
        for (int f = 0; f < 20; f++) {
            std::memset(buf, 0, sizeof(buf));
            if (f == 0) buf[40 * t0 + 17] = 1.0f;
            aec_shift_ref(&AEC_Db);
            aec_fb_ref_analysis(&AEC_Db, &AEC_Sc, buf);
            snap.emplace_back(AEC_afRef, AEC_afRef + AEC_REF_FLOATS);
        }
        for (int b = 0; b < AEC_NBANDS; b++) {
            const int len = AEC_aiRefSzStrip[AEC_aiBand2Strip[b]];
            // Frame 0: the blocks before the impulse are silent.
            for (int p = 4 - t0; p < len; p++) {
                EXPECT_EQ(snap[0][2 * RowIndex(b, p)], 0.0f) << "t0 " << t0 << " band " << b << " p " << p;
            }
            // Its own block carries energy in the low bands at least.
            if (b < 10) {
                const float re = snap[0][2 * RowIndex(b, 3 - t0)], im = snap[0][2 * RowIndex(b, 3 - t0) + 1];
                EXPECT_GT(re * re + im * im, 0.0f) << "t0 " << t0 << " band " << b;
            }
            // Every frame moves the row by four positions.
            for (int f = 1; f < 20; f++)
                for (int p = 4; p < len; p++) {
                    EXPECT_EQ(snap[f][2 * RowIndex(b, p)], snap[f - 1][2 * RowIndex(b, p - 4)]);
                    EXPECT_EQ(snap[f][2 * RowIndex(b, p) + 1], snap[f - 1][2 * RowIndex(b, p - 4) + 1]);
                }
            // The 480-tap window sees the impulse for 12 blocks (blocks t0..t0+11
            // counted from frame 0); the last of them is at position
            // 4f + 3 - (t0 + 11) in frame f, beyond the row once that exceeds len - 1.
            const int gone = (len - 1 + t0 + 11 - 3) / 4 + 1;
            ASSERT_LT(gone, 20);
            for (int p = 0; p < len; p++) {
                EXPECT_EQ(snap[gone][2 * RowIndex(b, p)], 0.0f) << "band " << b << " p " << p;
                EXPECT_EQ(snap[gone][2 * RowIndex(b, p) + 1], 0.0f) << "band " << b << " p " << p;
            }
            // One frame earlier some of the impulse was still in the row.
            bool any = false;
            for (int p = 0; p < len; p++) any = any || snap[gone - 1][2 * RowIndex(b, p)] != 0.0f;
            if (b < 10) {
                EXPECT_TRUE(any) << "band " << b;
            }
        }
    }
}

}  // namespace
