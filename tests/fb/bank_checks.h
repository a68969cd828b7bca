// Checks shared by the send and the receive filter bank: the two banks have
// the same structure (fold by three, 80-point transforms, overlap-add with
// output factor 80) and differ in windows, states, frames and delay.
#ifndef KVAEC_TEST_FB_BANK_CHECKS_H
#define KVAEC_TEST_FB_BANK_CHECKS_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "fb/fb.h"
#include "kvaec_records.h"

namespace bank_checks {

// One bank under test: its stages, windows, states and sub-band frames.
struct Bank {
    void (*analysis)(AEC_tDb *, AEC_tSc *, const float *);
    void (*synthesis)(AEC_tDb *, AEC_tSc *, float *);
    const float *anaWin;
    const float *synWin;
    float *(*anaHistOf)(AEC_tDb *);
    float *(*synOlaOf)(AEC_tDb *);
    float (*(*anaFrameOf)(AEC_tSc *))[AEC_NSUB][2];
    float (*(*synFrameOf)(AEC_tSc *))[AEC_NSUB][2];
    int delay;
    float *anaHist() const { return anaHistOf(&AEC_Db); }
    float *synOla() const { return synOlaOf(&AEC_Db); }
    float (*anaFrame() const)[AEC_NSUB][2] { return anaFrameOf(&AEC_Sc); }
    float (*synFrame() const)[AEC_NSUB][2] { return synFrameOf(&AEC_Sc); }
};

constexpr int kFrame = 160;

inline void Reset() { aecx_init(nullptr); }

// Runs analysis and synthesis back to back (sub-bands left as analysed) over
// the whole signal, frame by frame; returns the output.
inline std::vector<float> RunChain(const Bank &bank, const std::vector<float> &x) {
    std::vector<float> y(x.size());
    float buf[kFrame];
    for (size_t f = 0; f + kFrame <= x.size(); f += kFrame) {
        std::memcpy(buf, &x[f], sizeof(buf));
        bank.analysis(&AEC_Db, &AEC_Sc, buf);
        bank.synthesis(&AEC_Db, &AEC_Sc, buf);
        std::memcpy(&y[f], buf, sizeof(buf));
    }
    return y;
}

inline void AllZeroInputGivesZeroSubbandsAndZeroOutput(const Bank &bank) {
    Reset();
    // Leave non-zero garbage in the frames so that "zero" is really written.
    for (int b = 0; b < AEC_NBANDS; b++)
        for (int t = 0; t < AEC_NSUB; t++) {
            bank.anaFrame()[b][t][0] = 7.0f;
            bank.anaFrame()[b][t][1] = -7.0f;
        }
    float buf[kFrame] = {};
    for (int f = 0; f < 5; f++) {
        bank.analysis(&AEC_Db, &AEC_Sc, buf);
        for (int b = 0; b < AEC_NBANDS; b++)
            for (int t = 0; t < AEC_NSUB; t++) {
                EXPECT_EQ(bank.anaFrame()[b][t][0], 0.0f);
                EXPECT_EQ(bank.anaFrame()[b][t][1], 0.0f);
            }
        for (int i = 0; i < kFrame; i++) buf[i] = 3.0f;   // overwritten by synthesis
        bank.synthesis(&AEC_Db, &AEC_Sc, buf);
        for (int i = 0; i < kFrame; i++) EXPECT_EQ(buf[i], 0.0f) << "sample " << i;
    }
}

inline void AnalysisFillsHistoryOldestFirst(const Bank &bank) {
    Reset();
    float buf[kFrame];
    for (int i = 0; i < kFrame; i++) buf[i] = static_cast<float>(i + 1);
    bank.analysis(&AEC_Db, &AEC_Sc, buf);
    for (int i = 0; i < 80; i++) EXPECT_EQ(bank.anaHist()[i], 0.0f);
    for (int i = 0; i < kFrame; i++) EXPECT_EQ(bank.anaHist()[80 + i], buf[i]);
}

inline void FoldSumsThreeWindowedSegmentsExactly(const Bank &bank) {
    Reset();
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    float buf[kFrame];
    for (int f = 0; f < 2; f++) {
        for (float &v : buf) v = u(rng);
        bank.analysis(&AEC_Db, &AEC_Sc, buf);
    }
    // afFbTime holds the fold of the last block; recompute it from the history
    // with the same operation order.
    const float *h = bank.anaWin;
    const float *d = bank.anaHist();
    for (int i = 0; i < 80; i++) {
        float e = h[i] * d[i] + h[i + 80] * d[i + 80] + h[i + 160] * d[i + 160];
        EXPECT_EQ(AEC_Sc.afFbTime[i], e) << i;
    }
}

inline void SubbandsAreTheDftOfTheFoldedBlocks(const Bank &bank) {
    Reset();
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    std::vector<float> x(3 * kFrame);
    for (float &v : x) v = u(rng);
    float buf[kFrame];
    for (int f = 0; f < 3; f++) {
        std::memcpy(buf, &x[f * kFrame], sizeof(buf));
        bank.analysis(&AEC_Db, &AEC_Sc, buf);
    }
    // Block t of the last frame ends at sample 320 + 40t + 39; its delay line
    // holds the 240 samples up to there. Fold and DFT in double precision.
    for (int t = 0; t < AEC_NSUB; t++) {
        const int newest = 2 * kFrame + 40 * t + 39;
        double fold[80] = {};
        for (int i = 0; i < 240; i++) {
            fold[i % 80] += static_cast<double>(bank.anaWin[i]) * x[newest - 239 + i];
        }
        for (int k = 0; k <= 40; k++) {
            double re = 0.0, im = 0.0;
            for (int n = 0; n < 80; n++) {
                re += fold[n] * std::cos(2.0 * M_PI * k * n / 80.0);
                im -= fold[n] * std::sin(2.0 * M_PI * k * n / 80.0);
            }
            // Single-precision fold and transform of values of size ~0.05:
            // rounding stays far below 1e-5.
            EXPECT_NEAR(bank.anaFrame()[k][t][0], re, 1e-5) << "bin " << k << " slot " << t;
            EXPECT_NEAR(bank.anaFrame()[k][t][1], im, 1e-5) << "bin " << k << " slot " << t;
        }
    }
}

inline void SynthesisOutputsEightyTimesTheAccumulatorAndShiftsIt(const Bank &bank) {
    Reset();
    // Zero sub-bands add nothing: the output is the accumulator scaled by 80,
    // 40 samples per slot, and the accumulator ends shifted by 160.
    for (int i = 0; i < 240; i++) bank.synOla()[i] = static_cast<float>(i + 1) * 0.25f;
    std::memset(bank.synFrame(), 0, sizeof(AEC_Sc.acErrAdf));
    float buf[kFrame];
    bank.synthesis(&AEC_Db, &AEC_Sc, buf);
    for (int n = 0; n < kFrame; n++) EXPECT_EQ(buf[n], static_cast<float>(n + 1) * 0.25f * 80.0f);
    for (int i = 0; i < 80; i++) EXPECT_EQ(bank.synOla()[i], static_cast<float>(i + 161) * 0.25f);
    for (int i = 80; i < 240; i++) EXPECT_EQ(bank.synOla()[i], 0.0f);
}

inline void SynthesisOfDcBinOverlapAddsTheWindow(const Bank &bank) {
    Reset();
    // Bin 0 = 1 in slot 0 only: the inverse transform is 40 * 1/80 = 0.5 at
    // every sample, so the accumulator receives 0.5 * g, and the frame's output
    // is 80 * 0.5 * g[n] for n < 160 (the slots 1..3 add nothing).
    std::memset(bank.synFrame(), 0, sizeof(AEC_Sc.acErrAdf));
    bank.synFrame()[0][0][0] = 1.0f;
    float buf[kFrame];
    bank.synthesis(&AEC_Db, &AEC_Sc, buf);
    for (int n = 0; n < kFrame; n++) {
        // Inverse-transform rounding is a few ulp of 0.5; times 80 * |g| < 3.
        EXPECT_NEAR(buf[n], 40.0 * bank.synWin[n], 2e-6) << n;
    }
    for (int i = 0; i < 80; i++) EXPECT_NEAR(bank.synOla()[i], 0.5 * bank.synWin[160 + i], 1e-8);
}

inline void ImpulseAtEveryPhaseComesOutOnceDelaySamplesLater(const Bank &bank) {
    for (int phase = 0; phase < 40; phase++) {
        Reset();
        std::vector<float> x(8 * kFrame, 0.0f);
        const int n0 = 2 * kFrame + 40 + phase;
        x[n0] = 1.0f;
        std::vector<float> y = RunChain(bank, x);
        for (size_t n = 0; n < y.size(); n++) {
            if (static_cast<int>(n) == n0 + bank.delay) {
                // Float rounding of a sum of ~20 products: within 1e-5.
                EXPECT_NEAR(y[n], 1.0f, 1e-5) << "phase " << phase;
            } else {
                EXPECT_NEAR(y[n], 0.0f, 2e-6) << "phase " << phase << " n " << n;
            }
        }
    }
}

inline void RandomInputIsReconstructedWithItsDelay(const Bank &bank) {
    Reset();
    std::mt19937 rng(1234);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    std::vector<float> x(50 * kFrame);
    for (float &v : x) v = u(rng);
    std::vector<float> y = RunChain(bank, x);
    double err = 0.0, sig = 0.0;
    float peak = 0.0f;
    for (size_t n = bank.delay; n < x.size(); n++) {
        const double e = static_cast<double>(y[n]) - x[n - bank.delay];
        err += e * e;
        sig += static_cast<double>(x[n - bank.delay]) * x[n - bank.delay];
        peak = std::max(peak, static_cast<float>(std::fabs(e)));
    }
    // Single-precision transforms and windows: relative error about 1e-7.
    EXPECT_LT(std::sqrt(err / sig), 1e-6);
    EXPECT_LT(peak, 1e-5f);
    // The first 120 output samples are the start-up transient of a zero history:
    // the first 40 output samples only see the window start, which is silent.
    for (int n = 0; n < 40; n++) EXPECT_NEAR(y[n], 0.0f, 1e-6);
}

inline void DelayLineAndAccumulatorCarryAcrossFrames(const Bank &bank) {
    // Splitting the same signal into frames must not matter: an impulse in
    // the last block of a frame comes out in the next frame.
    Reset();
    std::vector<float> x(4 * kFrame, 0.0f);
    x[kFrame - 1] = 0.5f;
    std::vector<float> y = RunChain(bank, x);
    EXPECT_NEAR(y[kFrame - 1 + bank.delay], 0.5f, 5e-6);
}

}  // namespace bank_checks

#endif
