// Paired A/B timing of whole frames: the same 100 frames from the same saved
// state, run alternately with two kernel selections, 200 pairs. Reports the
// minimum time per frame of each and the median and quartiles of the per-pair
// ratio A/B, which is robust to the load of a shared machine.
//
//   kvaec_ab_frames avx2     A = kernels as selected (AVX2 where available), B = SSE2 only
//   kvaec_ab_frames scalar   A = vector kernels, B = scalar references
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "closed_loop.h"
#include "core/simd.h"
#include "kvaec.h"
#include "kvaec_records.h"

namespace {

constexpr int kFrame = 160;
constexpr int kFrames = 400;
constexpr int kWarmup = 300;
constexpr int kPairs = 200;

AEC_tDb db0;
AEC_tSc sc0;
float ref0[AEC_REF_FLOATS], adf0[AEC_ADF_FLOATS], ads0[AEC_ADF_FLOATS];

void save() {
    db0 = AEC_Db;
    sc0 = AEC_Sc;
    std::memcpy(ref0, AEC_afRef, sizeof ref0);
    std::memcpy(adf0, AEC_afAdf, sizeof adf0);
    std::memcpy(ads0, AEC_afAds, sizeof ads0);
}

void restore() {
    AEC_Db = db0;
    AEC_Sc = sc0;
    std::memcpy(AEC_afRef, ref0, sizeof ref0);
    std::memcpy(AEC_afAdf, adf0, sizeof adf0);
    std::memcpy(AEC_afAds, ads0, sizeof ads0);
}

}  // namespace

int main(int argc, char **argv) {
    const bool avx2 = argc < 2 || std::string(argv[1]) != "scalar";
    // Speech-like far end, its echo 40 ms later at -10 dB, near-end talk.
    std::vector<float> far(kFrames * kFrame), mic(kFrames * kFrame);
    kvaec::sim::SpeechLike f(51, -26.0), n(52, -36.0);
    f.fill(far.data(), far.size());
    n.fill(mic.data(), mic.size());
    for (size_t i = 640; i < mic.size(); ++i) mic[i] += 0.3f * far[i - 640];

    aecx_init(nullptr);
    float r[kFrame], s[kFrame];
    for (int i = 0; i < kWarmup; ++i) {
        std::memcpy(r, &far[size_t(i) * kFrame], sizeof r);
        std::memcpy(s, &mic[size_t(i) * kFrame], sizeof s);
        aecx_process(r, s);
    }
    save();
    auto block = [&](bool a) {
        if (avx2) {
            kvaec::simd::setScalar(false);
            kvaec::simd::setAvx2(a);
        } else {
            kvaec::simd::setAvx2(true);
            kvaec::simd::setScalar(!a);
        }
        restore();
        const auto t0 = std::chrono::steady_clock::now();
        for (int i = kWarmup; i < kFrames; ++i) {
            std::memcpy(r, &far[size_t(i) * kFrame], sizeof r);
            std::memcpy(s, &mic[size_t(i) * kFrame], sizeof s);
            aecx_process(r, s);
        }
        const std::chrono::duration<double> d = std::chrono::steady_clock::now() - t0;
        return d.count() / (kFrames - kWarmup) * 1e6;
    };
    std::vector<double> ratio;
    double minA = 1e30, minB = 1e30;
    for (int p = 0; p < kPairs; ++p) {
        const double a = block(true), b = block(false);
        ratio.push_back(a / b);
        minA = std::min(minA, a);
        minB = std::min(minB, b);
    }
    kvaec::simd::setScalar(false);
    kvaec::simd::setAvx2(true);
    std::sort(ratio.begin(), ratio.end());
    std::printf("%s\n", avx2 ? "A = kernels as selected (AVX2 cancellation where available), B = SSE2 only"
                             : "A = vector kernels, B = scalar references");
    std::printf("min us/frame A %.2f B %.2f; ratio A/B median %.3f, quartiles %.3f %.3f (%d pairs)\n", minA, minB,
                ratio[kPairs / 2], ratio[kPairs / 4], ratio[3 * kPairs / 4], kPairs);
    return 0;
}
