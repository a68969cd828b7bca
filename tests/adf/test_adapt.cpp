// Adaptation of the fast bank (decorrelated update of bands 0..18,
// sample-by-sample update of the paired strips) and the block update of the
// slow bank, plus the frame gate.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "adf/adf.h"
#include "kvaec_records.h"

namespace {

struct Lcg {
    uint32_t s;
    explicit Lcg(uint32_t seed) : s(seed) {}
    float next() {  // uniform in [-1, 1)
        s = s * 1664525u + 1013904223u;
        return static_cast<float>(static_cast<int32_t>(s >> 8) - (1 << 23)) / static_cast<float>(1 << 23);
    }
};

// Band geometry written out from the layout (not read from the tables).
int stripOf(int b) { return b < 19 ? b : 19 + (b - 19) / 2; }
int refStart(int b) {
    const int s = stripOf(b);
    return s < 19 ? 55 * s : 1045 + 78 * (s - 19) + 39 * ((b - 19) % 2);
}
int coefStart(int b) {
    const int s = stripOf(b);
    return s < 19 ? 48 * s : 912 + 72 * (s - 19) + 36 * ((b - 19) % 2);
}
int taps(int b) { return b < 19 ? 48 : 36; }
int histLen(int b) { return b < 19 ? 55 : 39; }

float *refOf(int b) { return &AEC_afRef[2 * refStart(b)]; }
float *adfOf(int b) { return &AEC_afAdf[2 * coefStart(b)]; }
float *adsOf(int b) { return &AEC_afAds[2 * coefStart(b)]; }

struct Cx {
    float re, im;
};

// Fast-bank decay: double-precision product rounded to single.
float decayFast(float v) { return static_cast<float>(static_cast<double>(v) * 0.9306048591021); }

// Kernel with the grouped summation (same operation order as the library).
void kernel(const float *ref, const float *coef, float acc[2], int len) {
    for (int g = 0; g < len / 4; ++g) {
        float pr[4], pi[4];
        for (int t = 0; t < 4; ++t) {
            const int k = 4 * g + t;
            pr[t] = coef[2 * k] * ref[2 * k] - coef[2 * k + 1] * ref[2 * k + 1];
            pi[t] = coef[2 * k] * ref[2 * k + 1] + coef[2 * k + 1] * ref[2 * k];
        }
        acc[0] = acc[0] - ((pr[0] + pr[2]) + (pr[1] + pr[3]));
        acc[1] = acc[1] - ((pi[0] + pi[2]) + (pi[1] + pi[3]));
    }
}

// c[k] += u conj(r[k]), u *= taper after each group of four.
void taperedUpdate(float *c, const float *r, Cx u, int len, float taper) {
    for (int g = 0; g < len / 4; ++g) {
        for (int t = 0; t < 4; ++t) {
            const int k = 4 * g + t;
            c[2 * k] = c[2 * k] + (u.re * r[2 * k] + u.im * r[2 * k + 1]);
            c[2 * k + 1] = c[2 * k + 1] + (u.im * r[2 * k] - u.re * r[2 * k + 1]);
        }
        u.re = taper * u.re;
        u.im = taper * u.im;
    }
}

// Correlation record after one smoothing step with x0..x3 = x[0..3].
void corrStep(AEC_tRefCorrRec &r, const float *x) {
    AEC_tRefCorrRec o = r;
    std::memcpy(r.acLow[5], o.acLow[3], 8);
    std::memcpy(r.acLow[4], o.acLow[1], 8);
    std::memcpy(r.acLow[3], o.acLow[0], 8);
    std::memcpy(r.acLow[2], o.acRow0[2], 8);
    std::memcpy(r.acLow[1], o.acRow0[1], 8);
    std::memcpy(r.acLow[0], o.acRow0[0], 8);
    r.acRow0[0][0] = decayFast(o.acRow0[0][0]) + 1.25f * (x[0] * x[0] + x[1] * x[1]);
    r.acRow0[0][1] = decayFast(o.acRow0[0][1]);
    for (int n = 1; n < 4; ++n) {
        const float pr = x[0] * x[2 * n] + x[1] * x[2 * n + 1];
        const float pi = x[0] * x[2 * n + 1] - x[1] * x[2 * n];
        r.acRow0[n][0] = decayFast(o.acRow0[n][0]) + 1.25f * pr;
        r.acRow0[n][1] = decayFast(o.acRow0[n][1]) + 1.25f * pi;
    }
}

// Gauss-Seidel on the normalised, loaded matrix of a record, in double
// precision, from start a0, for a given number of sweeps.
struct Cd {
    double re, im;
};
void solveDouble(const AEC_tRefCorrRec &r, const Cd a0[4], int sweeps, Cd a[4]) {
    Cd R[4][4];
    const double r00 = r.acRow0[0][0];
    const double delta = 0.07 * (r00 + 1e-7);
    const double d0 = r00 + delta;
    auto set = [&](int i, int m, const float v[2]) {
        R[i][m] = {v[0] / d0, v[1] / d0};
        R[m][i] = {v[0] / d0, -v[1] / d0};
    };
    set(0, 1, r.acRow0[1]);
    set(0, 2, r.acRow0[2]);
    set(0, 3, r.acRow0[3]);
    set(1, 2, r.acLow[1]);
    set(1, 3, r.acLow[2]);
    set(2, 3, r.acLow[4]);
    R[0][0] = {1.0, 0.0};
    R[1][1] = {(r.acLow[0][0] + delta) / d0, 0.0};
    R[2][2] = {(r.acLow[3][0] + delta) / d0, 0.0};
    R[3][3] = {(r.acLow[5][0] + delta) / d0, 0.0};
    for (int i = 0; i < 4; ++i) a[i] = a0[i];
    for (int sw = 0; sw < sweeps; ++sw)
        for (int i = 0; i < 4; ++i) {
            Cd s{0.0, 0.0};
            for (int m = 0; m < 4; ++m) {
                if (m == i) continue;
                s.re += R[i][m].re * a[m].re - R[i][m].im * a[m].im;
                s.im += R[i][m].re * a[m].im + R[i][m].im * a[m].re;
            }
            if (i == 0)
                a[0] = {1.0 - s.re, -s.im};
            else
                a[i] = {-s.re / R[i][i].re, -s.im / R[i][i].re};
        }
}

// The same solve in single precision with the library's operation order:
// elements divided by the loaded r00, reciprocals of the normalised loaded
// diagonal, sums over m in increasing order starting from the first term.
void solveFloat(const AEC_tRefCorrRec &r, float a[4][2]) {
    const float r00 = r.acRow0[0][0];
    const float delta = 0.07f * (r00 + 1e-7f);
    const float d0 = r00 + delta;
    float R[4][4][2] = {};
    auto set = [&](int i, int m, const float v[2]) {
        R[i][m][0] = v[0] / d0;
        R[i][m][1] = v[1] / d0;
        R[m][i][0] = R[i][m][0];
        R[m][i][1] = -R[i][m][1];
    };
    set(0, 1, r.acRow0[1]);
    set(0, 2, r.acRow0[2]);
    set(0, 3, r.acRow0[3]);
    set(1, 2, r.acLow[1]);
    set(1, 3, r.acLow[2]);
    set(2, 3, r.acLow[4]);
    const float inv[4] = {0.0f, 1.0f / ((r.acLow[0][0] + delta) / d0), 1.0f / ((r.acLow[3][0] + delta) / d0),
                          1.0f / ((r.acLow[5][0] + delta) / d0)};
    for (int sw = 0; sw < 2; ++sw)
        for (int i = 0; i < 4; ++i) {
            float sr = 0.0f, si = 0.0f;
            bool first = true;
            for (int m = 0; m < 4; ++m) {
                if (m == i) continue;
                const float pr = R[i][m][0] * a[m][0] - R[i][m][1] * a[m][1];
                const float pi = R[i][m][0] * a[m][1] + R[i][m][1] * a[m][0];
                sr = first ? pr : sr + pr;
                si = first ? pi : si + pi;
                first = false;
            }
            if (i == 0) {
                a[0][0] = 1.0f - sr;
                a[0][1] = 0.0f - si;
            } else {
                a[i][0] = -sr * inv[i];
                a[i][1] = -si * inv[i];
            }
        }
}

// Regularised power of a low band from its record.
float lowBandPower(const AEC_tRefCorrRec &r) {
    const float r00 = r.acRow0[0][0];
    return r00 + 0.07f * (r00 + 1e-7f);
}

// The decorrelated reference of one low band: w[k] = sum_m a[m] x[k + m].
void whiten(const float a[4][2], const float *x, float w[52][2]) {
    for (int k = 0; k < 52; ++k) {
        float wr = 0.0f, wi = 0.0f;
        for (int m = 0; m < 4; ++m) {
            const float pr = a[m][0] * x[2 * (k + m)] - a[m][1] * x[2 * (k + m) + 1];
            const float pi = a[m][0] * x[2 * (k + m) + 1] + a[m][1] * x[2 * (k + m)];
            if (m == 0) {
                wr = pr;
                wi = pi;
            } else {
                wr = wr + pr;
                wi = wi + pi;
            }
        }
        w[k][0] = wr;
        w[k][1] = wi;
    }
}

class AdaptFixture : public ::testing::Test {
protected:
    void SetUp() override {
        aecx_init(nullptr);
        std::memset(&AEC_Sc, 0, sizeof(AEC_Sc));
    }
    static void fillRandom(float *p, int n, uint32_t seed, float scale = 1.0f) {
        Lcg r(seed);
        for (int i = 0; i < n; ++i) p[i] = scale * r.next();
    }
    static void setSteps(float adf, float ads) {
        for (int s = 0; s < AEC_NSTRIPREC; ++s) {
            AEC_Sc.atStripSc[s].fMuAdf = adf;
            AEC_Sc.atStripSc[s].fMuAds = ads;
        }
    }
    // A frame in which the gate lets adaptation through.
    static void openGate() {
        AEC_Db.uiFlags = 0;
        AEC_Sc.atStripSc[AEC_FULLBAND].fSinDb = -20.0f;
        AEC_Db.fClipDb = -6.0f;
        AEC_Db.fTdAlarmDb = -6.0f;
    }
    static void randomState(uint32_t seed) {
        fillRandom(AEC_afRef, AEC_REF_FLOATS, seed);
        fillRandom(AEC_afAdf, AEC_ADF_FLOATS, seed + 1, 0.1f);
        fillRandom(AEC_afAds, AEC_ADF_FLOATS, seed + 2, 0.1f);
        fillRandom(&AEC_Sc.acErrAdf[0][0][0], AEC_NBANDS * AEC_NSUB * 2, seed + 3);
        fillRandom(&AEC_Sc.acErrAds[0][0][0], AEC_NBANDS * AEC_NSUB * 2, seed + 4);
        Lcg r(seed + 5);
        for (float &p : AEC_Db.afRefPowAdf) p = 2.0f + r.next();
        for (float &p : AEC_Db.afRefPowAds) p = 3.0f + r.next();
    }
};

}  // namespace

// ---- aec_adapt2: fast bank, paired strips, one sub-sample ----

TEST_F(AdaptFixture, PairedStripUpdateMatchesIndependentComputation) {
    randomState(100);
    Lcg r(7);
    for (int s = 0; s < AEC_NSTRIPS; ++s) AEC_Sc.atStripSc[s].fMuAdf = 0.2f + 0.7f * (0.5f + 0.5f * r.next());
    AEC_Sc.atStripSc[23].fMuAdf = 0.0f;  // one strip without a step
    std::vector<float> adf(AEC_afAdf, AEC_afAdf + AEC_ADF_FLOATS);
    float pow[AEC_NBANDS];
    std::memcpy(pow, AEC_Db.afRefPowAdf, sizeof(pow));
    const unsigned j = 2;
    const int aligned = 1;

    aec_adapt2(&AEC_Db, &AEC_Sc, j);

    for (int b = 0; b < AEC_NBANDS; ++b) {
        if (b < 19) {
            EXPECT_EQ(AEC_Db.afRefPowAdf[b], pow[b]) << b;
            for (int k = 0; k < 2 * 48; ++k) ASSERT_EQ(adfOf(b)[k], adf[2 * coefStart(b) + k]) << b;
            continue;
        }
        const float *x = refOf(b) + 2 * aligned;
        const float p = decayFast(pow[b]) + 1.25f * (x[0] * x[0] + x[1] * x[1]);
        EXPECT_EQ(AEC_Db.afRefPowAdf[b], p) << b;
        const float mu = AEC_Sc.atStripSc[stripOf(b)].fMuAdf;
        Cx u{0.0f, 0.0f};
        if (mu > 0.003f) {
            const float g = mu / (p + 4.8e-6f);
            u = {g * AEC_Sc.acErrAdf[b][j][0], g * AEC_Sc.acErrAdf[b][j][1]};
        }
        EXPECT_EQ(AEC_Sc.acStepErr[b][0][0], u.re) << b;
        EXPECT_EQ(AEC_Sc.acStepErr[b][0][1], u.im) << b;
        for (int jj = 1; jj < 4; ++jj) {
            EXPECT_EQ(AEC_Sc.acStepErr[b][jj][0], 0.0f);
            EXPECT_EQ(AEC_Sc.acStepErr[b][jj][1], 0.0f);
        }
        std::vector<float> want(adf.begin() + 2 * coefStart(b), adf.begin() + 2 * coefStart(b) + 72);
        taperedUpdate(want.data(), x, u, 36, 0.75f);
        for (int k = 0; k < 72; ++k) ASSERT_EQ(adfOf(b)[k], want[k]) << b << " " << k;
    }
    // The step of strip 23 was zero: its coefficients stayed.
    for (int k = 0; k < 144; ++k) EXPECT_EQ(AEC_afAdf[2 * 1200 + k], adf[2 * 1200 + k]);
    // The slow bank is not touched.
    fillRandom(adf.data(), AEC_ADF_FLOATS, 102, 0.1f);
    EXPECT_EQ(0, std::memcmp(adf.data(), AEC_afAds, sizeof(AEC_afAds)));
}

TEST_F(AdaptFixture, PairedStripTapersStepByThreeQuartersPerGroup) {
    // Reference 1 everywhere, zero coefficients: tap k receives u_g exactly.
    for (int b = 19; b < AEC_NBANDS; ++b)
        for (int m = 0; m < 39; ++m) refOf(b)[2 * m] = 1.0f;
    setSteps(0.5f, 0.0f);
    for (int b = 19; b < AEC_NBANDS; ++b) AEC_Sc.acErrAdf[b][0][0] = 0.3f;
    aec_adapt2(&AEC_Db, &AEC_Sc, 0);
    for (int b = 19; b < AEC_NBANDS; ++b) {
        const float p = 1.25f;  // decayed zero plus 1.25 |1|^2
        float u = (0.5f / (p + 4.8e-6f)) * 0.3f;
        const float u0 = u;
        for (int g = 0; g < 9; ++g) {
            for (int t = 0; t < 4; ++t) {
                EXPECT_EQ(adfOf(b)[2 * (4 * g + t)], u) << b << " " << g;
                EXPECT_EQ(adfOf(b)[2 * (4 * g + t) + 1], 0.0f);
            }
            // Relative to tap 0 the step is 0.75^g, up to one rounding per
            // tapering multiplication (g <= 8, relative 8 * 2^-24 < 1e-6).
            EXPECT_NEAR(adfOf(b)[2 * 4 * g] / u0, std::pow(0.75, g), 1e-6);
            u = 0.75f * u;
        }
    }
}

TEST_F(AdaptFixture, PairedStripStepOfExactlyThresholdDoesNotAdapt) {
    randomState(200);
    std::vector<float> adf(AEC_afAdf, AEC_afAdf + AEC_ADF_FLOATS);
    setSteps(0.003f, 0.0f);
    for (unsigned j = 0; j < 4; ++j) aec_adapt2(&AEC_Db, &AEC_Sc, j);
    EXPECT_EQ(0, std::memcmp(adf.data(), AEC_afAdf, sizeof(AEC_afAdf)));
    // The next float above the threshold adapts.
    setSteps(std::nextafter(0.003f, 1.0f), 0.0f);
    aec_adapt2(&AEC_Db, &AEC_Sc, 0);
    for (int b = 19; b < AEC_NBANDS; ++b) EXPECT_NE(adfOf(b)[0], adf[2 * coefStart(b)]) << b;
}

TEST_F(AdaptFixture, PairedStripStepErrorIsClearedAtStart) {
    randomState(210);
    setSteps(0.0f, 0.0f);
    fillRandom(&AEC_Sc.acStepErr[0][0][0], AEC_NBANDS * AEC_NSUB * 2, 211);
    std::vector<float> adf(AEC_afAdf, AEC_afAdf + AEC_ADF_FLOATS);
    aec_adapt2(&AEC_Db, &AEC_Sc, 3);
    for (int b = 0; b < AEC_NBANDS; ++b)
        for (int j = 0; j < 4; ++j) {
            EXPECT_EQ(AEC_Sc.acStepErr[b][j][0], 0.0f);
            EXPECT_EQ(AEC_Sc.acStepErr[b][j][1], 0.0f);
        }
    EXPECT_EQ(0, std::memcmp(adf.data(), AEC_afAdf, sizeof(AEC_afAdf)));
}

// ---- aec_adapt4: slow bank, block update ----

TEST_F(AdaptFixture, BlockUpdateMatchesIndependentComputation) {
    randomState(300);
    Lcg r(9);
    for (int s = 0; s < AEC_NSTRIPS; ++s) AEC_Sc.atStripSc[s].fMuAds = 0.1f + 0.9f * (0.5f + 0.5f * r.next());
    AEC_Sc.atStripSc[4].fMuAds = 0.0f;
    AEC_Sc.atStripSc[27].fMuAds = 0.0f;
    std::vector<float> ads(AEC_afAds, AEC_afAds + AEC_ADF_FLOATS);
    std::vector<float> adf(AEC_afAdf, AEC_afAdf + AEC_ADF_FLOATS);
    float pow[AEC_NBANDS];
    std::memcpy(pow, AEC_Db.afRefPowAds, sizeof(pow));

    aec_adapt4(&AEC_Db, &AEC_Sc);

    for (int b = 0; b < AEC_NBANDS; ++b) {
        const float *x = refOf(b);
        float p = pow[b];
        for (int m = 3; m >= 0; --m) p = 0.960185f * p + 1.125f * (x[2 * m] * x[2 * m] + x[2 * m + 1] * x[2 * m + 1]);
        EXPECT_EQ(AEC_Db.afRefPowAds[b], p) << b;
        const float mu = 0.25f * AEC_Sc.atStripSc[stripOf(b)].fMuAds;
        Cx e[4] = {};
        if (mu != 0.0f) {
            const float g = mu / (p + 0.00144f);
            for (int j = 0; j < 4; ++j) e[j] = {g * AEC_Sc.acErrAds[b][j][0], g * AEC_Sc.acErrAds[b][j][1]};
        }
        std::vector<float> c(ads.begin() + 2 * coefStart(b), ads.begin() + 2 * coefStart(b) + 2 * taps(b));
        for (int g = 0; g < taps(b) / 4; ++g) {
            for (int t = 0; t < 4; ++t) {
                const int k = 4 * g + t;
                Cx s{0.0f, 0.0f};
                for (int j = 0; j < 4; ++j) {
                    const float xr = x[2 * (k + 3 - j)], xi = x[2 * (k + 3 - j) + 1];
                    const Cx q{e[j].re * xr + e[j].im * xi, e[j].im * xr - e[j].re * xi};
                    s = j == 0 ? q : Cx{s.re + q.re, s.im + q.im};
                }
                c[2 * k] = c[2 * k] + s.re;
                c[2 * k + 1] = c[2 * k + 1] + s.im;
            }
            for (Cx &v : e) v = {0.85f * v.re, 0.85f * v.im};
        }
        for (int k = 0; k < 2 * taps(b); ++k) ASSERT_EQ(adsOf(b)[k], c[k]) << b << " " << k;
    }
    // Strips with a zero step keep their coefficients; the fast bank is not touched.
    for (int k = 0; k < 96; ++k) EXPECT_EQ(adsOf(4)[k], ads[2 * coefStart(4) + k]);
    for (int k = 0; k < 144; ++k) EXPECT_EQ(adsOf(35)[k], ads[2 * coefStart(35) + k]);
    EXPECT_EQ(0, std::memcmp(adf.data(), AEC_afAdf, sizeof(AEC_afAdf)));
}

TEST_F(AdaptFixture, BlockUpdatePowerTakesOldestSubSampleFirst) {
    // |x[3]|^2 = 100 is decayed three more times than |x[0]|^2 = 1; the
    // opposite order would give a clearly different power.
    for (int b = 0; b < AEC_NBANDS; ++b) {
        refOf(b)[2 * 3] = 10.0f;
        refOf(b)[2 * 2 + 1] = 3.0f;
        refOf(b)[2 * 1] = -2.0f;
        refOf(b)[0 + 1] = 1.0f;
        AEC_Db.afRefPowAds[b] = 5.0f;
    }
    aec_adapt4(&AEC_Db, &AEC_Sc);
    float p = 5.0f;
    for (float q : {100.0f, 9.0f, 4.0f, 1.0f}) p = 0.960185f * p + 1.125f * q;
    float rev = 5.0f;
    for (float q : {1.0f, 4.0f, 9.0f, 100.0f}) rev = 0.960185f * rev + 1.125f * q;
    ASSERT_GT(std::fabs(p - rev), 1.0f);
    for (int b = 0; b < AEC_NBANDS; ++b) EXPECT_EQ(AEC_Db.afRefPowAds[b], p) << b;
}

TEST_F(AdaptFixture, BlockUpdateTapersStepByEightyFivePercentPerGroup) {
    for (int b = 0; b < AEC_NBANDS; ++b) {
        for (int m = 0; m < histLen(b); ++m) refOf(b)[2 * m] = 1.0f;
        for (int j = 0; j < 4; ++j) AEC_Sc.acErrAds[b][j][0] = 0.25f;
    }
    setSteps(0.0f, 0.8f);
    aec_adapt4(&AEC_Db, &AEC_Sc);
    float p = 0.0f;
    for (int m = 0; m < 4; ++m) p = 0.960185f * p + 1.125f;
    for (int b = 0; b < AEC_NBANDS; ++b) {
        float e = ((0.25f * 0.8f) / (p + 0.00144f)) * 0.25f;
        float c0 = 0.0f;
        for (int g = 0; g < taps(b) / 4; ++g) {
            const float want = ((e + e) + e) + e;
            if (g == 0) c0 = want;
            for (int t = 0; t < 4; ++t) {
                EXPECT_EQ(adsOf(b)[2 * (4 * g + t)], want) << b << " " << g;
                EXPECT_EQ(adsOf(b)[2 * (4 * g + t) + 1], 0.0f);
            }
            // 0.85^g relative to tap 0, up to one rounding per tapering
            // multiplication and the four-term sum (g <= 11: < 1e-6).
            EXPECT_NEAR(adsOf(b)[2 * 4 * g] / c0, std::pow(0.85, g), 1e-6);
            e = 0.85f * e;
        }
    }
}

TEST_F(AdaptFixture, BlockUpdateStepErrorHoldsTaperedStepsAfterwards) {
    randomState(320);
    setSteps(0.0f, 0.6f);
    aec_adapt4(&AEC_Db, &AEC_Sc);
    // Steps were tapered in place once per group: 12 groups in the low
    // bands, 9 in the paired bands.
    for (int b = 0; b < AEC_NBANDS; ++b) {
        const float g = (0.25f * 0.6f) / (AEC_Db.afRefPowAds[b] + 0.00144f);
        for (int j = 0; j < 4; ++j) {
            float e = g * AEC_Sc.acErrAds[b][j][0];
            for (int n = 0; n < taps(b) / 4; ++n) e = 0.85f * e;
            EXPECT_EQ(AEC_Sc.acStepErr[b][j][0], e) << b << " " << j;
        }
    }
}

// ---- aec_adapt1: fast bank, bands 0..18, decorrelated reference ----

TEST_F(AdaptFixture, LowBandCorrelationFollowsShiftAndSmoothing) {
    randomState(400);
    Lcg r(401);
    for (auto &rec : AEC_Db.atRefCorr)
        for (float *w = &rec.acRow0[0][0]; w < &rec.acRow0[0][0] + 20; ++w) *w = r.next();
    AEC_tRefCorrRec want[19];
    std::memcpy(want, AEC_Db.atRefCorr, sizeof(want));
    for (int m = 3; m >= 0; --m)
        for (int b = 0; b < 19; ++b) corrStep(want[b], refOf(b) + 2 * m);
    setSteps(0.0f, 0.0f);
    aec_adapt1(&AEC_Db, &AEC_Sc);
    for (int b = 0; b < 19; ++b) {
        const float *got = &AEC_Db.atRefCorr[b].acRow0[0][0];
        const float *exp = &want[b].acRow0[0][0];
        for (int w = 0; w < 20; ++w) ASSERT_EQ(got[w], exp[w]) << b << " word " << w;
    }
}

TEST_F(AdaptFixture, DiagonalCorrelationGivesIdentityDecorrelator) {
    // Zero reference: the record is only shifted and decayed, and a
    // correlation without off-diagonal terms yields a = (1, 0, 0, 0)
    // whatever the start.
    for (int b = 0; b < 19; ++b) {
        AEC_Db.atRefCorr[b].acRow0[0][0] = 2.0f;
        AEC_Db.atRefCorr[b].acLow[0][0] = 1.5f;
        AEC_Db.atRefCorr[b].acLow[3][0] = 1.0f;
        AEC_Db.atRefCorr[b].acLow[5][0] = 0.5f;
        for (int i = 0; i < 4; ++i) {
            AEC_Db.acDecorr[b][i][0] = 0.3f * static_cast<float>(i + 1);
            AEC_Db.acDecorr[b][i][1] = -0.2f;
        }
    }
    aec_adapt1(&AEC_Db, &AEC_Sc);
    for (int b = 0; b < 19; ++b) {
        EXPECT_EQ(AEC_Db.acDecorr[b][0][0], 1.0f);
        EXPECT_EQ(AEC_Db.acDecorr[b][0][1], 0.0f);
        for (int i = 1; i < 4; ++i) {
            EXPECT_EQ(AEC_Db.acDecorr[b][i][0], 0.0f);
            EXPECT_EQ(AEC_Db.acDecorr[b][i][1], 0.0f);
        }
    }
}

namespace {
// Strongly correlated (slowly rotating, slowly varying) low-band history,
// which makes Gauss-Seidel converge slowly so that sweeps are told apart.
void correlatedLowBands(uint32_t seed) {
    Lcg r(seed);
    for (int b = 0; b < 19; ++b) {
        float *x = refOf(b);
        float re = 1.0f, im = 0.0f;
        for (int m = 54; m >= 0; --m) {
            const float nr = 0.95f * re - 0.2f * im + 0.15f * r.next();
            const float ni = 0.2f * re + 0.95f * im + 0.15f * r.next();
            re = nr;
            im = ni;
            x[2 * m] = re;
            x[2 * m + 1] = im;
        }
    }
}
}  // namespace

TEST_F(AdaptFixture, DecorrelatorIsTwoGaussSeidelSweepsFromPreviousFilter) {
    correlatedLowBands(500);
    Lcg r(501);
    // A previous correlation state and previous filters of all bands.
    for (int b = 0; b < 19; ++b) {
        AEC_tRefCorrRec &rec = AEC_Db.atRefCorr[b];
        // Build a plausible history by smoothing earlier samples of the band.
        for (int m = 50; m >= 4; --m) corrStep(rec, refOf(b) + 2 * m);
        for (int i = 0; i < 4; ++i) {
            AEC_Db.acDecorr[b][i][0] = 0.5f * r.next();
            AEC_Db.acDecorr[b][i][1] = 0.5f * r.next();
        }
    }
    Cd start[19][4];
    float startF[19][4][2];
    std::memcpy(startF, AEC_Db.acDecorr, sizeof(startF));
    for (int b = 0; b < 19; ++b)
        for (int i = 0; i < 4; ++i) start[b][i] = {AEC_Db.acDecorr[b][i][0], AEC_Db.acDecorr[b][i][1]};
    setSteps(0.0f, 0.0f);
    aec_adapt1(&AEC_Db, &AEC_Sc);

    int distinguished = 0;
    for (int b = 0; b < 19; ++b) {
        Cd one[4], two[4], three[4], fromZero[4];
        const Cd zero[4] = {};
        solveDouble(AEC_Db.atRefCorr[b], start[b], 1, one);
        solveDouble(AEC_Db.atRefCorr[b], start[b], 2, two);
        solveDouble(AEC_Db.atRefCorr[b], start[b], 3, three);
        solveDouble(AEC_Db.atRefCorr[b], zero, 2, fromZero);
        // Single-precision solve against the double one: normalised entries
        // are below about 1 in magnitude and a stays below about 20, so a
        // dozen roundings of relative 6e-8 each stay well inside 2e-4 (1 + |a|).
        double amax = 0.0;
        for (const Cd &v : two) amax = std::fmax(amax, std::fmax(std::fabs(v.re), std::fabs(v.im)));
        const double tol = 2e-4 * (1.0 + amax);
        double d1 = 0.0, d3 = 0.0, dz = 0.0;
        for (int i = 0; i < 4; ++i) {
            EXPECT_NEAR(AEC_Db.acDecorr[b][i][0], two[i].re, tol) << b << " " << i;
            EXPECT_NEAR(AEC_Db.acDecorr[b][i][1], two[i].im, tol) << b << " " << i;
            d1 = std::fmax(d1, std::hypot(one[i].re - two[i].re, one[i].im - two[i].im));
            d3 = std::fmax(d3, std::hypot(three[i].re - two[i].re, three[i].im - two[i].im));
            dz = std::fmax(dz, std::hypot(fromZero[i].re - two[i].re, fromZero[i].im - two[i].im));
        }
        if (d1 > 20 * tol && d3 > 20 * tol && dz > 20 * tol) ++distinguished;
        // Bit-exact against the single-precision solve of the same order.
        solveFloat(AEC_Db.atRefCorr[b], startF[b]);
        for (int i = 0; i < 4; ++i) {
            EXPECT_EQ(AEC_Db.acDecorr[b][i][0], startF[b][i][0]) << b << " " << i;
            EXPECT_EQ(AEC_Db.acDecorr[b][i][1], startF[b][i][1]) << b << " " << i;
        }
    }
    // The data must make one, three and zero-start sweeps visibly different
    // from the two sweeps from the previous filter in most bands.
    EXPECT_GE(distinguished, 15);
}

TEST_F(AdaptFixture, LowBandErrorsAndUpdateMatchIndependentComputation) {
    correlatedLowBands(600);
    fillRandom(AEC_afAdf, AEC_ADF_FLOATS, 601, 0.1f);
    fillRandom(&AEC_Sc.acErrAdf[0][0][0], AEC_NBANDS * AEC_NSUB * 2, 602);
    Lcg r(603);
    for (int s = 0; s < 19; ++s) AEC_Sc.atStripSc[s].fMuAdf = 0.1f + 0.4f * (1.0f + r.next());
    AEC_Sc.atStripSc[6].fMuAdf = 0.0029f;  // below the threshold: zero step
    std::vector<float> adf(AEC_afAdf, AEC_afAdf + AEC_ADF_FLOATS);
    float mic[AEC_NBANDS][AEC_NSUB][2];
    std::memcpy(mic, AEC_Sc.acErrAdf, sizeof(mic));

    aec_adapt1(&AEC_Db, &AEC_Sc);

    float w[52][2];
    for (int b = 0; b < 19; ++b) {
        const float *x = refOf(b);
        whiten(AEC_Db.acDecorr[b], x, w);
        const float pw = lowBandPower(AEC_Db.atRefCorr[b]);
        const float mu = AEC_Sc.atStripSc[b].fMuAdf;
        std::vector<float> c(adf.begin() + 2 * coefStart(b), adf.begin() + 2 * coefStart(b) + 96);
        Cx lastU{0.0f, 0.0f};
        for (int j = 0; j < 4; ++j) {
            float e[2] = {mic[b][j][0], mic[b][j][1]};
            kernel(x + 2 * (3 - j), c.data(), e, 48);
            ASSERT_EQ(AEC_Sc.acErrAdf[b][j][0], e[0]) << b << " " << j;
            ASSERT_EQ(AEC_Sc.acErrAdf[b][j][1], e[1]) << b << " " << j;
            Cx u{0.0f, 0.0f};
            if (mu >= 0.003f) {
                const float g = mu / (pw + 4.8e-6f);
                u = {g * e[0], g * e[1]};
            }
            taperedUpdate(c.data(), &w[3 - j][0], u, 48, 0.75f);
            lastU = u;
        }
        for (int k = 0; k < 96; ++k) ASSERT_EQ(adfOf(b)[k], c[k]) << b << " " << k;
        EXPECT_EQ(AEC_Sc.acStepErr[b][0][0], lastU.re) << b;
        EXPECT_EQ(AEC_Sc.acStepErr[b][0][1], lastU.im) << b;
        if (b == 18)  // the last band's decorrelated reference is left in scratch
            for (int k = 0; k < 52; ++k) {
                EXPECT_EQ(AEC_Sc.acRefWhite[k][0], w[k][0]) << k;
                EXPECT_EQ(AEC_Sc.acRefWhite[k][1], w[k][1]) << k;
            }
    }
    // Band 6 (step below the threshold) kept its coefficients; the paired
    // strips and their errors are not touched.
    for (int k = 0; k < 96; ++k) EXPECT_EQ(adfOf(6)[k], adf[2 * coefStart(6) + k]);
    for (int k = 2 * 912; k < AEC_ADF_FLOATS; ++k) ASSERT_EQ(AEC_afAdf[k], adf[k]);
    EXPECT_EQ(0, std::memcmp(&mic[19][0][0], &AEC_Sc.acErrAdf[19][0][0], sizeof(float) * 22 * 8));
}

TEST_F(AdaptFixture, LowBandTapersStepByThreeQuartersPerGroup) {
    // Band 18 (its decorrelated reference stays in scratch afterwards) with
    // a constant reference and zero coefficients; the microphone is zero
    // except in sub-sample 3, so sub-samples 0..2 have zero error and only
    // the last one updates: tap k then holds u_g conj(w[k]) exactly.
    for (int m = 0; m < 55; ++m) refOf(18)[2 * m] = 1.0f;
    AEC_Sc.atStripSc[18].fMuAdf = 0.5f;
    AEC_Sc.acErrAdf[18][3][0] = 1.0f;
    AEC_Sc.acErrAdf[18][3][1] = 0.5f;
    aec_adapt1(&AEC_Db, &AEC_Sc);
    const float pw = lowBandPower(AEC_Db.atRefCorr[18]);
    const float g0 = 0.5f / (pw + 4.8e-6f);
    Cx u{g0 * 1.0f, g0 * 0.5f};
    const float *w = &AEC_Sc.acRefWhite[0][0];
    ASSERT_GT(std::hypot(w[0], w[1]), 1e-3f);
    const float c0 = adfOf(18)[0];
    for (int g = 0; g < 12; ++g) {
        for (int t = 0; t < 4; ++t) {
            const int k = 4 * g + t;
            EXPECT_EQ(adfOf(18)[2 * k], 0.0f + (u.re * w[2 * k] + u.im * w[2 * k + 1])) << k;
            EXPECT_EQ(adfOf(18)[2 * k + 1], 0.0f + (u.im * w[2 * k] - u.re * w[2 * k + 1])) << k;
        }
        // w is the same at every position (constant reference), so tap 4g
        // relative to tap 0 is 0.75^g up to one rounding per tapering
        // multiplication plus the product (g <= 11: relative < 1e-6).
        EXPECT_NEAR(adfOf(18)[8 * g] / c0, std::pow(0.75, g), 1e-6) << g;
        u = {0.75f * u.re, 0.75f * u.im};
    }
}

// ---- aec_adf_adapt: gate and sequence ----

namespace {
struct Snapshot {
    std::vector<float> adf, ads, powAdf, powAds, corr;
    Snapshot()
        : adf(AEC_afAdf, AEC_afAdf + AEC_ADF_FLOATS),
          ads(AEC_afAds, AEC_afAds + AEC_ADF_FLOATS),
          powAdf(AEC_Db.afRefPowAdf, AEC_Db.afRefPowAdf + AEC_NBANDS),
          powAds(AEC_Db.afRefPowAds, AEC_Db.afRefPowAds + AEC_NBANDS),
          corr(&AEC_Db.atRefCorr[0].acRow0[0][0], &AEC_Db.atRefCorr[0].acRow0[0][0] + 19 * 20) {}
};

// Runs one gated frame and checks: zero steps in the 30 strip records, the
// full-band record untouched, no coefficient change, averages still updated.
void expectGated(const char *what) {
    SCOPED_TRACE(what);
    const Snapshot before;
    aec_adf_adapt(&AEC_Db, &AEC_Sc);
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        EXPECT_EQ(AEC_Sc.atStripSc[s].fMuAdf, 0.0f) << s;
        EXPECT_EQ(AEC_Sc.atStripSc[s].fMuAds, 0.0f) << s;
    }
    EXPECT_EQ(AEC_Sc.atStripSc[AEC_FULLBAND].fMuAdf, 0.7f);
    EXPECT_EQ(AEC_Sc.atStripSc[AEC_FULLBAND].fMuAds, 0.9f);
    EXPECT_EQ(0, std::memcmp(before.adf.data(), AEC_afAdf, sizeof(AEC_afAdf)));
    EXPECT_EQ(0, std::memcmp(before.ads.data(), AEC_afAds, sizeof(AEC_afAds)));
    for (int b = 19; b < AEC_NBANDS; ++b) EXPECT_NE(AEC_Db.afRefPowAdf[b], before.powAdf[b]) << b;
    for (int b = 0; b < AEC_NBANDS; ++b) EXPECT_NE(AEC_Db.afRefPowAds[b], before.powAds[b]) << b;
    EXPECT_NE(0, std::memcmp(before.corr.data(), AEC_Db.atRefCorr, sizeof(AEC_Db.atRefCorr)));
}

void expectAdapting(const char *what) {
    SCOPED_TRACE(what);
    const Snapshot before;
    aec_adf_adapt(&AEC_Db, &AEC_Sc);
    for (int s = 0; s < AEC_NSTRIPS; ++s) {
        EXPECT_EQ(AEC_Sc.atStripSc[s].fMuAdf, 0.5f) << s;
        EXPECT_EQ(AEC_Sc.atStripSc[s].fMuAds, 0.5f) << s;
    }
    for (int b = 0; b < AEC_NBANDS; ++b) {
        EXPECT_NE(adfOf(b)[0], before.adf[2 * coefStart(b)]) << b;
        EXPECT_NE(adsOf(b)[0], before.ads[2 * coefStart(b)]) << b;
    }
}
}  // namespace

class GateFixture : public AdaptFixture {
protected:
    void SetUp() override {
        AdaptFixture::SetUp();
        randomState(700);
        setSteps(0.5f, 0.5f);
        AEC_Sc.atStripSc[AEC_FULLBAND].fMuAdf = 0.7f;
        AEC_Sc.atStripSc[AEC_FULLBAND].fMuAds = 0.9f;
        openGate();
    }
};

TEST_F(GateFixture, OpenGateAdaptsBothBanks) { expectAdapting("open"); }

TEST_F(GateFixture, FreezeBitStopsCoefficientsButNotPowerAverages) {
    AEC_Db.uiFlags = 0x20u;
    expectGated("freeze bit");
}

TEST_F(GateFixture, OtherModeBitsDoNotGate) {
    AEC_Db.uiFlags = ~0x20u;
    expectAdapting("all other bits");
}

TEST_F(GateFixture, SendLevelAtFloorGates) {
    AEC_Sc.atStripSc[AEC_FULLBAND].fSinDb = -95.0f;
    expectGated("level equal to floor");
}

TEST_F(GateFixture, SendLevelJustAboveFloorAdapts) {
    AEC_Sc.atStripSc[AEC_FULLBAND].fSinDb = std::nextafter(-95.0f, 0.0f);
    expectAdapting("level just above floor");
}

TEST_F(GateFixture, SendLevelComparedWithConfiguredFloor) {
    AEC_Db.tCfg.fLevelFloorDb = -10.0f;
    AEC_Sc.atStripSc[AEC_FULLBAND].fSinDb = -20.0f;
    expectGated("configured floor above level");
}

TEST_F(GateFixture, UndefinedSendLevelGates) {
    AEC_Sc.atStripSc[AEC_FULLBAND].fSinDb = std::nanf("");
    expectGated("NaN level");
}

TEST_F(GateFixture, SendLevelOfAStripRecordDoesNotGate) {
    for (int s = 0; s < AEC_NSTRIPS; ++s) AEC_Sc.atStripSc[s].fSinDb = -200.0f;
    expectAdapting("strip levels low, full band high");
}

TEST_F(GateFixture, ClippingAccumulatorAtTwentyGates) {
    AEC_Db.fClipDb = 20.0f;
    expectGated("clip 20");
}

TEST_F(GateFixture, ClippingAccumulatorJustBelowTwentyAdapts) {
    AEC_Db.fClipDb = std::nextafter(20.0f, 0.0f);
    expectAdapting("clip just below 20");
}

TEST_F(GateFixture, ToneAlarmAtTwentyGates) {
    AEC_Db.fTdAlarmDb = 20.0f;
    expectGated("tone alarm 20");
}

TEST_F(GateFixture, ToneAlarmJustBelowTwentyAdapts) {
    AEC_Db.fTdAlarmDb = std::nextafter(20.0f, 0.0f);
    expectAdapting("tone alarm just below 20");
}

TEST_F(GateFixture, EveryConditionTogetherStillGatesOnce) {
    AEC_Db.uiFlags = 0x20u;
    AEC_Sc.atStripSc[AEC_FULLBAND].fSinDb = -120.0f;
    AEC_Db.fClipDb = 30.0f;
    AEC_Db.fTdAlarmDb = 30.0f;
    expectGated("all conditions");
}

TEST_F(GateFixture, ThresholdStepAdaptsLowBandsOnly) {
    setSteps(0.003f, 0.0f);
    const Snapshot before;
    aec_adf_adapt(&AEC_Db, &AEC_Sc);
    for (int b = 0; b < 19; ++b) EXPECT_NE(adfOf(b)[0], before.adf[2 * coefStart(b)]) << b;
    EXPECT_EQ(0, std::memcmp(before.adf.data() + 2 * 912, AEC_afAdf + 2 * 912, sizeof(float) * 2 * 792));
    EXPECT_EQ(0, std::memcmp(before.ads.data(), AEC_afAds, sizeof(AEC_afAds)));
}

TEST_F(AdaptFixture, FastErrorOfEachSubSampleSeesPreviousUpdateSlowErrorsDoNot) {
    // Microphone = reference through a one-tap echo path h per band. The
    // fast bank starts at zero; the slow bank holds "previous frame"
    // coefficients.
    fillRandom(AEC_afRef, AEC_REF_FLOATS, 800);
    fillRandom(AEC_afAds, AEC_ADF_FLOATS, 801, 0.05f);
    std::vector<float> adsPrev(AEC_afAds, AEC_afAds + AEC_ADF_FLOATS);
    Lcg r(802);
    float mic[AEC_NBANDS][AEC_NSUB][2];
    for (int b = 0; b < AEC_NBANDS; ++b) {
        const Cx h{0.8f + 0.1f * r.next(), 0.3f * r.next()};
        for (int j = 0; j < 4; ++j) {
            const float *x = refOf(b) + 2 * (3 - j);
            mic[b][j][0] = h.re * x[0] - h.im * x[1];
            mic[b][j][1] = h.re * x[1] + h.im * x[0];
        }
    }
    std::memcpy(AEC_Sc.acErrAdf, mic, sizeof(mic));
    std::memcpy(AEC_Sc.acErrAds, mic, sizeof(mic));
    setSteps(0.5f, 0.5f);
    AEC_Sc.atStripSc[AEC_FULLBAND].fSinDb = -20.0f;

    aec_cancel_slow(&AEC_Db, &AEC_Sc);
    aec_adf_adapt(&AEC_Db, &AEC_Sc);

    // Slow errors: all four from the previous coefficients.
    for (int b = 0; b < AEC_NBANDS; ++b)
        for (int j = 0; j < 4; ++j) {
            float e[2] = {mic[b][j][0], mic[b][j][1]};
            kernel(refOf(b) + 2 * (3 - j), &adsPrev[2 * coefStart(b)], e, taps(b));
            ASSERT_EQ(AEC_Sc.acErrAds[b][j][0], e[0]) << b << " " << j;
            ASSERT_EQ(AEC_Sc.acErrAds[b][j][1], e[1]) << b << " " << j;
        }
    // Fast errors of the paired strips: sub-sample 0 sees the zero filter,
    // each later one the filter updated by the sub-samples before it.
    for (int b = 19; b < AEC_NBANDS; ++b) {
        std::vector<float> c(72, 0.0f);
        float p = 0.0f;
        for (int j = 0; j < 4; ++j) {
            const float *x = refOf(b) + 2 * (3 - j);
            float e[2] = {mic[b][j][0], mic[b][j][1]};
            kernel(x, c.data(), e, 36);
            if (j == 0) {
                EXPECT_EQ(e[0], mic[b][0][0]);
                EXPECT_EQ(e[1], mic[b][0][1]);
            } else {
                EXPECT_NE(e[0], mic[b][j][0]);
            }
            ASSERT_EQ(AEC_Sc.acErrAdf[b][j][0], e[0]) << b << " " << j;
            ASSERT_EQ(AEC_Sc.acErrAdf[b][j][1], e[1]) << b << " " << j;
            p = decayFast(p) + 1.25f * (x[0] * x[0] + x[1] * x[1]);
            const float g = 0.5f / (p + 4.8e-6f);
            taperedUpdate(c.data(), x, Cx{g * e[0], g * e[1]}, 36, 0.75f);
        }
        for (int k = 0; k < 72; ++k) ASSERT_EQ(adfOf(b)[k], c[k]) << b << " " << k;
    }
    // Low bands: sub-sample 0 sees the zero filter, the others do not.
    for (int b = 0; b < 19; ++b) {
        EXPECT_EQ(AEC_Sc.acErrAdf[b][0][0], mic[b][0][0]) << b;
        for (int j = 1; j < 4; ++j) EXPECT_NE(AEC_Sc.acErrAdf[b][j][0], mic[b][j][0]) << b;
    }
}

// ---- closed loop: both banks identify a fixed echo path ----

TEST(AdaptationLoop, BothBanksConvergeOnAFixedEchoPath) {
    aecx_init(nullptr);
    std::memset(&AEC_Sc, 0, sizeof(AEC_Sc));
    Lcg r(900);
    // Echo path per band: 16 taps with exponential decay.
    std::vector<Cx> h(AEC_NBANDS * 16);
    for (int b = 0; b < AEC_NBANDS; ++b)
        for (int k = 0; k < 16; ++k) {
            const float a = std::pow(0.8f, static_cast<float>(k));
            h[b * 16 + k] = {a * r.next(), a * r.next()};
        }
    // Coloured reference per band (first-order recursion, pole 0.7).
    std::vector<Cx> state(AEC_NBANDS, Cx{0.0f, 0.0f});
    double micPow[2] = {0, 0}, errPow[2][2] = {{0, 0}, {0, 0}};  // [low/high][fast/slow]
    const int frames = 1000;
    for (int f = 0; f < frames; ++f) {
        for (int b = 0; b < AEC_NBANDS; ++b) {
            float *x = refOf(b);
            std::memmove(x + 8, x, sizeof(float) * 2 * static_cast<size_t>(histLen(b) - 4));
            for (int j = 0; j < 4; ++j) {
                Cx &s = state[b];
                s = {0.7f * s.re + r.next(), 0.7f * s.im + r.next()};
                x[2 * (3 - j)] = s.re;
                x[2 * (3 - j) + 1] = s.im;
            }
            for (int j = 0; j < 4; ++j) {
                float yr = 0.0f, yi = 0.0f;
                for (int k = 0; k < 16; ++k) {
                    const float *xr = x + 2 * (3 - j + k);
                    yr += h[b * 16 + k].re * xr[0] - h[b * 16 + k].im * xr[1];
                    yi += h[b * 16 + k].re * xr[1] + h[b * 16 + k].im * xr[0];
                }
                AEC_Sc.acErrAdf[b][j][0] = AEC_Sc.acErrAds[b][j][0] = yr;
                AEC_Sc.acErrAdf[b][j][1] = AEC_Sc.acErrAds[b][j][1] = yi;
            }
        }
        for (int s = 0; s < AEC_NSTRIPS; ++s) {
            AEC_Sc.atStripSc[s].fMuAdf = 0.3f;
            AEC_Sc.atStripSc[s].fMuAds = 0.6f;
        }
        AEC_Sc.atStripSc[AEC_FULLBAND].fSinDb = -20.0f;
        aec_cancel_slow(&AEC_Db, &AEC_Sc);
        float mic[AEC_NBANDS][AEC_NSUB][2];
        for (int b = 0; b < AEC_NBANDS; ++b)
            for (int j = 0; j < 4; ++j) {
                // The fast error still holds the microphone frame here
                // (only the slow error has been formed in place).
                mic[b][j][0] = AEC_Sc.acErrAdf[b][j][0];
                mic[b][j][1] = AEC_Sc.acErrAdf[b][j][1];
            }
        aec_adf_adapt(&AEC_Db, &AEC_Sc);
        if (f >= frames - 50)
            for (int b = 0; b < AEC_NBANDS; ++b) {
                const int hi = b >= 19 ? 1 : 0;
                for (int j = 0; j < 4; ++j) {
                    micPow[hi] += mic[b][j][0] * mic[b][j][0] + mic[b][j][1] * mic[b][j][1];
                    errPow[hi][0] += AEC_Sc.acErrAdf[b][j][0] * AEC_Sc.acErrAdf[b][j][0] +
                                     AEC_Sc.acErrAdf[b][j][1] * AEC_Sc.acErrAdf[b][j][1];
                    errPow[hi][1] += AEC_Sc.acErrAds[b][j][0] * AEC_Sc.acErrAds[b][j][0] +
                                     AEC_Sc.acErrAds[b][j][1] * AEC_Sc.acErrAds[b][j][1];
                }
            }
    }
    double erle[2][2];
    for (int hi = 0; hi < 2; ++hi)
        for (int k = 0; k < 2; ++k) erle[hi][k] = 10.0 * std::log10(micPow[hi] / errPow[hi][k]);
    std::printf("echo return loss enhancement over the last 50 frames (dB): "
                "low bands fast %.1f slow %.1f, paired bands fast %.1f slow %.1f\n",
                erle[0][0], erle[0][1], erle[1][0], erle[1][1]);
    // A noiseless echo path inside the filter span must be identified far
    // below the microphone level by both banks.
    for (int hi = 0; hi < 2; ++hi)
        for (int k = 0; k < 2; ++k) EXPECT_GT(erle[hi][k], 40.0) << hi << " " << k;
}
