// Tone detector: watches the receive signal for narrow-band content (one or
// two steady tones) that would make the adaptive filters learn a wrong echo
// path, and keeps an alarm level fTdAlarmDb in [-6, 30] dB.
//
// Every frame the receive frame is decimated to 4 kHz (40 samples) into the
// 480-sample buffer afTd4k (120 ms, oldest first). Every second frame the
// buffer is windowed, folded to 160 samples and transformed: 80 bins 25 Hz
// apart (0..1975 Hz). The three strongest peaks are picked; a spectrum whose
// strongest peak stands well above the third drives the alarm up.
//
// Scratch: afTdWork of AEC_tSc (729 floats), used in turn as
//   [0..199]    decimator work area (40 history + 160 input samples)
// and then, on test frames,
//   [0..159]    y: the folded block; afterwards [0..79] hold the dB spectrum
//   [160..]     W: the 160-point real transform's work area
//     W[0..159]    packed sequence z[m] = y[2m] + j y[2m + 1], m = 0..79,
//                  transformed in place into Z[0..79]
//     W[160..359]  work area of the 80-point complex FFT; after it,
//     W[160..161]  Z[80] = Z[0] (periodic extension)
//     W[162..321]  bins X[0..79], complex interleaved
#include "td.h"

#include <cstring>

#include "../core/core.h"
#include "../fb/fb.h"

namespace {

constexpr int kFrame = 160;       // receive samples per frame (16 kHz)
constexpr int kDec = 40;          // 4 kHz samples per frame
constexpr int kBuf = 480;         // afTd4k length (120 ms at 4 kHz)
constexpr int kShift = 2 * kDec;  // buffer advance per test period (two frames)
constexpr int kFold = 160;        // folded block and transform length
constexpr int kBins = 80;         // bins 0..79 (the 2 kHz bin is not formed)

constexpr int kY = 0;                    // folded block / dB spectrum
constexpr int kW = kY + kFold;           // transform work area
constexpr int kWFftWork = kW + 160;      // FFT work area (200 floats)
constexpr int kWZ80 = kW + 160;          // Z[80] after the FFT
constexpr int kWBins = kWZ80 + 2;        // 80 complex bins
constexpr int kTdWorkUsed = kWFftWork + 200;

static_assert(kBuf == 3 * kFold, "the window folds three blocks");
static_assert(kShift == 2 * kDec, "two frames refill what one shift frees");
static_assert(kDec + kFrame <= AEC_SC_TD_WORDS, "decimator work fits the scratch");
static_assert(kTdWorkUsed <= AEC_SC_TD_WORDS, "transform work fits the scratch");
static_assert(kWBins + 2 * kBins <= kTdWorkUsed, "bins lie inside the FFT work area");

constexpr float kMarker = -201.0f;       // level of a removed bin, below any real level
constexpr float kInv27 = 0.037037037f;   // 1 / 27 dB: slope of the peak interpolation
constexpr float kDMax = 1.5f;
constexpr float kBinHz = 25.0f;
// Below this peak level the contrast counts half: -35.3 dB is 55 dB on a
// 16-bit sample scale (55 - 20 log10(32768)) moved to full scale 1.0.
constexpr float kWeakPeakDb = -35.3f;
constexpr float kAlarmBiasDb = 25.0f;
constexpr float kAlarmMaxDb = 30.0f;
constexpr float kAlarmMinDb = -6.0f;

}  // namespace

float aec_td(AEC_tDb *db, AEC_tSc *sc, const float *rin) {
    aec_td_sr(db, sc, rin);
    if (db->iTdPhase == 1) return 0.0f;  // first frame of the pair: buffer only
    aec_td_wola(db, sc);
    return aec_td_test(db, sc);
}

// Decimate the frame into afTd4k. The buffer advances by 80 samples once per
// pair of frames (on the frame that starts with phase 0); the first frame of
// the pair fills 400..439, the second 440..479.
void aec_td_sr(AEC_tDb *db, AEC_tSc *sc, const float *rin) {
    const int phase = db->iTdPhase != 0 ? 1 : 0;
    if (phase == 0) {
        std::memmove(db->afTd4k, db->afTd4k + kShift,
                     static_cast<size_t>(kBuf - kShift) * sizeof(float));
    }
    aec_dec4k_frsz(db->afTdDecHist, sc->afTdWork, db->afTd4k + (kBuf - kShift) + kDec * phase, rin);
    db->iTdPhase = phase == 0 ? 1 : 0;
}

// Windowed, folded spectrum of afTd4k in dB: afTdWork[0..79], bin k at 25 k Hz.
void aec_td_wola(AEC_tDb *db, AEC_tSc *sc) {
    float *y = sc->afTdWork + kY;
    const float *b = db->afTd4k;
    const float *w = aectd_afWin;
    for (int i = 0; i < kFold; ++i) {
        y[i] = w[i] * b[i] + w[i + kFold] * b[i + kFold] + w[i + 2 * kFold] * b[i + 2 * kFold];
    }
    aec_td_rfft4k(sc);
    const float *X = sc->afTdWork + kWBins;
    for (int k = 0; k < kBins; ++k) {
        const float re = X[2 * k];
        const float im = X[2 * k + 1];
        y[k] = re * re + im * im;
    }
    aec_utl_en2log_arr(y, kBins);
}

// 160-point real DFT of the folded block y = afTdWork[0..159]: bins 0..79
// (unscaled, forward) to afTdWork[160 + 162 ..], built from an 80-point
// complex FFT of the even/odd packed sequence and the split table.
void aec_td_rfft4k(AEC_tSc *sc) {
    const float *y = sc->afTdWork + kY;
    float *W = sc->afTdWork + kW;
    for (int i = 0; i < kFold; ++i) W[i] = y[i];  // z[m] = y[2m] + j y[2m + 1]
    aec_fft80(W, sc->afTdWork + kWFftWork);
    float *Z = W;
    Z[160] = Z[0];  // Z[80] = Z[0]
    Z[161] = Z[1];
    float *X = sc->afTdWork + kWBins;
    for (int k = 0; k < kBins; ++k) {
        const float zr = Z[2 * k];
        const float zi = Z[2 * k + 1];
        const float cr = Z[2 * (kBins - k)];      // Zc = Z[80 - k]
        const float ci = Z[2 * (kBins - k) + 1];
        const float ar = aecfb_afSplit160[k][0];
        const float ai = aecfb_afSplit160[k][1];
        const float br = aecfb_afSplit160[k][2];
        const float bi = aecfb_afSplit160[k][3];
        // X[k] = Z[k] A[k] + conj(Z[80 - k]) B[k]
        X[2 * k] = cr * br + zr * ar + ci * bi - zi * ai;
        X[2 * k + 1] = zr * ai + ar * zi + cr * bi - br * ci;
    }
}

// Strongest bin of the 80-bin dB spectrum s, removed together with its larger
// neighbour (both set to -201). Returns the interpolated peak frequency in Hz
// and stores the peak level through `level`.
//
// Ties go to the lowest bin. Bin 0 serves as its own left neighbour and bin
// 79 as its own right one, so a peak at bin 0 above bin 1 is reported at
// -12.5 Hz and a peak at bin 79 at 1987.5 Hz.
float aec_td_find_max(float *s, float *level) {
    float m = s[0];
    int idx = 0;
    for (int k = 1; k < kBins; ++k) {
        if (s[k] > m) {
            m = s[k];
            idx = k;
        }
    }
    const int il = idx > 0 ? idx - 1 : 0;
    const int ir = idx + 1 < kBins ? idx + 1 : kBins - 1;
    const float left = s[il];
    const float right = s[ir];
    float pos;
    if (left > right) {
        s[il] = kMarker;
        float d = (m - left) * kInv27;
        if (d > kDMax) d = kDMax;
        d = d - 0.15f * (d * d * d);
        pos = (static_cast<float>(idx) - 0.5f) + 0.5f * d;
    } else {
        s[ir] = kMarker;
        float d = (m - right) * kInv27;
        if (d > kDMax) d = kDMax;
        d = d - 0.15f * (d * d * d);
        pos = (static_cast<float>(idx) + 0.5f) - 0.5f * d;
    }
    s[idx] = kMarker;
    *level = m;
    return kBinHz * pos;
}

// Three peak searches on the dB spectrum afTdWork[0..79] and the alarm update.
// Returns the frequency of the third peak in Hz.
float aec_td_test(AEC_tDb *db, AEC_tSc *sc) {
    float *s = sc->afTdWork + kY;
    float p1 = 0.0f, p2 = 0.0f, p3 = 0.0f;
    aec_td_find_max(s, &p1);
    aec_td_find_max(s, &p2);  // the second peak only leaves the search
    const float f3 = aec_td_find_max(s, &p3);
    float c = p1 - p3;
    if (p1 < kWeakPeakDb) c = (p1 - p3) * 0.5f;
    float a = db->fTdAlarmDb - kAlarmBiasDb + c;
    if (a > kAlarmMaxDb) a = kAlarmMaxDb;
    if (a < kAlarmMinDb) a = kAlarmMinDb;
    db->fTdAlarmDb = a;
    return f3;
}
