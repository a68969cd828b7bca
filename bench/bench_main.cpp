// Timings of libkvaec per 10 ms frame (normal and bypass), of its heaviest
// stages, and of two peer echo cancellers on the same input in the same
// process: SpeexDSP's echo canceller with its preprocessor, and WebRTC audio
// processing's echo canceller with its high-pass filter.
//
//   cmake -S . -B build-bench -DKVAEC_BUILD_BENCH=ON -DCMAKE_BUILD_TYPE=Release
//   cmake --build build-bench --target kvaec_bench && build-bench/bench/kvaec_bench
//
// Counters: the floating-point operations of the canceller kernels and the
// filter banks are counted from their loop definitions and the strip tables
// (not a hardware count); FLOPS = that count per second of the benchmark's
// time, flop/frame the count itself.
#include <benchmark/benchmark.h>

#include <malloc.h>
#include <xmmintrin.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include <speex/speex_echo.h>
#include <speex/speex_preprocess.h>
#include <webrtc/modules/audio_processing/include/audio_processing.h>

#include "adf/adf.h"
#include "adf/adf_kern.h"
#include "closed_loop.h"
#include "core/fpenv.h"
#include "core/simd.h"
#include "det/det.h"
#include "fb/fb.h"
#include "kvaec.h"
#include "kvaec_records.h"

namespace {

constexpr int kFrame = 160;
constexpr int kFrames = 1000;  // 10 s of input, cycled
constexpr int kWarmup = 300;

// Far end and microphone signals: speech-like far end, echo through a 60 ms
// path with 40 ms of playback latency, near-end bursts and noise.
struct Input {
    std::vector<float> far, mic;
    std::vector<float> local, echo;  // mic = near end + (echo + noise); local = near end + noise
    Input() : far(kFrames * kFrame), mic(kFrames * kFrame), local(kFrames * kFrame), echo(kFrames * kFrame) {
        kvaec::sim::SpeechLike f(51, -26.0), n(52, -36.0);
        kvaec::sim::WhiteNoise w(53, -70.0);
        f.fill(far.data(), kFrames * kFrame);
        n.fill(mic.data(), kFrames * kFrame);
        std::vector<float> noise(kFrames * kFrame);
        w.fill(noise.data(), kFrames * kFrame);
        const std::vector<float> path = kvaec::sim::makeEchoPath(54, 40.0, 60.0, 6.0);
        for (size_t t = 0; t < mic.size(); ++t) {
            double e = 0;
            for (size_t i = 0; i < path.size() && i <= t; ++i) e += double(path[i]) * far[t - i];
            local[t] = mic[t] + noise[t];
            echo[t] = static_cast<float>(e);
            mic[t] += static_cast<float>(e) + noise[t];
        }
    }
};

const Input &input() {
    static const Input in;
    return in;
}

void kvaecRun(benchmark::State &state, unsigned mode, const std::vector<float> &far,
              const std::vector<float> &mic) {
    aecx_init(nullptr);
    aecx_control(mode, nullptr, 0.0f);
    float r[kFrame], s[kFrame];
    int i = 0;
    for (int k = 0; k < kWarmup; ++k, i = (i + 1) % kFrames) {
        std::memcpy(r, &far[size_t(i) * kFrame], sizeof r);
        std::memcpy(s, &mic[size_t(i) * kFrame], sizeof s);
        aecx_process(r, s);
    }
    for (auto _ : state) {
        std::memcpy(r, &far[size_t(i) * kFrame], sizeof r);
        std::memcpy(s, &mic[size_t(i) * kFrame], sizeof s);
        aecx_process(r, s);
        benchmark::DoNotOptimize(s);
        i = (i + 1) % kFrames;
    }
}

// Floating-point operations per frame of the canceller kernels, counted from
// their definitions: cancellation 8 per complex tap and sub-sample (complex
// product 6, group reduction and accumulation 2), tapered update 8 per tap
// and sub-sample, block update 32 per tap, whitening 30 per position; plus
// the filter banks.
// Filter banks, counted from their loops: 40-point FFT = eight five-point
// kernels (34 additions, 10 multiplications each) + 32 twiddle products (6)
// + five 8-point kernels (56); the real split 40 x 14; folds 80 x 5 (three
// segments) and 80 x 12 (six segments, sum started at zero), overlap-add
// 80 x 6 plus 40 output products. Per frame: 12 forward transforms and
// folds (send, receive and reference analysis, 4 blocks each), 8 inverse
// transforms and overlap-adds (send and receive synthesis).
double bankFlopsPerFrame() {
    const double fft40 = 8 * 44 + 32 * 6 + 5 * 56;
    const double split = 40 * 14;
    const double analysis = 4 * ((fft40 + split) * 2 + 80 * 5 * 2 + 80 * 12);  // send, receive, reference
    const double synthesis = 4 * 2 * (fft40 + split + 80 * 6 + 40);
    return analysis + synthesis;
}

double kernelFlopsPerFrame() {
    aecx_init(nullptr);
    double taps = 0;
    for (int s = 0; s < AEC_NSTRIPS; ++s) taps += double(AEC_aiBandsPerStrip[s]) * (AEC_aiAdfSzStrip[s] / 4 * 4);
    return 4 * taps * 8      // slow bank errors
           + 4 * taps * 8    // fast bank errors
           + 4 * taps * 8    // fast bank updates
           + taps * 32       // slow bank block update
           + 19 * 52 * 30.0   // whitening of the low bands
           + bankFlopsPerFrame();
}

void setCounters(benchmark::State &state, bool flops) {
    state.counters["frames/s"] = benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate);
    if (flops)
        state.counters["FLOPS"] =
            benchmark::Counter(kernelFlopsPerFrame() * double(state.iterations()), benchmark::Counter::kIsRate);
    if (flops) state.counters["flop/frame"] = kernelFlopsPerFrame();
}

// vector:1 the kernels this processor selects (AVX2 where it pays and is
// available), vector:2 the same with AVX2 switched off (SSE2 only),
// vector:0 the scalar references.
void BM_KvaecNormalFrame(benchmark::State &state) {
    kvaec::simd::setScalar(state.range(0) == 0);
    kvaec::simd::setAvx2(state.range(0) != 2);
    kvaecRun(state, 0, input().far, input().mic);
    kvaec::simd::setScalar(false);
    kvaec::simd::setAvx2(true);
    setCounters(state, true);
}
BENCHMARK(BM_KvaecNormalFrame)->Arg(1)->Arg(2)->Arg(0)->ArgName("vector");

void BM_KvaecBypassFrame(benchmark::State &state) {
    kvaecRun(state, KVAEC_MODE_BYPASS, input().far, input().mic);
    setCounters(state, false);
}
BENCHMARK(BM_KvaecBypassFrame);

// Hard inputs, with the host's flush-to-zero and denormals-are-zero modes
// off (MXCSR cleared of them for the run): frames after 3 s of the
// speech-like closed loop (the state saved there and restored every
// kHardFrames frames, outside the timing), continuing with
//   input:0 the speech-like closed loop itself (the reference),
//   input:1 digital silence on both paths,
//   input:2 the far end (and with it the echo) decaying slowly through the
//           subnormal range, 0.1 dB per frame from -700 dB to -800 dB (the
//           first 700 dB at 1 dB per frame before the timing starts), the
//           near end (bursts and noise at -70 dBFS) unchanged,
//   input:3 full-scale square waves on both paths (periods 40 and 37
//           samples, +-1.0),
//   input:4 both paths decaying as the far end of input:2.
constexpr int kHardFrames = 1000;

struct Snapshot {
    AEC_tDb db;
    AEC_tSc sc;
    float ref[AEC_REF_FLOATS], adf[AEC_ADF_FLOATS], ads[AEC_ADF_FLOATS];
    void save() {
        db = AEC_Db;
        sc = AEC_Sc;
        std::memcpy(ref, AEC_afRef, sizeof ref);
        std::memcpy(adf, AEC_afAdf, sizeof adf);
        std::memcpy(ads, AEC_afAds, sizeof ads);
    }
    void restore() const {
        AEC_Db = db;
        AEC_Sc = sc;
        std::memcpy(AEC_afRef, ref, sizeof ref);
        std::memcpy(AEC_afAdf, adf, sizeof adf);
        std::memcpy(AEC_afAds, ads, sizeof ads);
    }
};

// Far end and microphone of frame k (k >= 0 counted from the end of the 3 s
// of speech) of hard input `kind`; negative k: the untimed lead-in.
void hardFrame(int kind, int k, float *r, float *s) {
    const int speech = (kWarmup + k + 1000 * kFrames) % kFrames;
    std::memcpy(r, &input().far[size_t(speech) * kFrame], kFrame * sizeof(float));
    std::memcpy(s, &input().mic[size_t(speech) * kFrame], kFrame * sizeof(float));
    if (kind == 1) {
        std::memset(r, 0, kFrame * sizeof(float));
        std::memset(s, 0, kFrame * sizeof(float));
    } else if (kind == 2 || kind == 4) {
        // -700 dB after 700 lead-in frames, then 0.1 dB per frame.
        const double db = k < 0 ? -(700.0 + k) : -700.0 - 0.1 * k;
        const double g = std::pow(10.0, db / 20.0);
        const size_t t0 = size_t(speech) * kFrame;
        for (int n = 0; n < kFrame; ++n) {
            r[n] = static_cast<float>(r[n] * g);
            s[n] = kind == 2 ? input().local[t0 + n] + static_cast<float>(input().echo[t0 + n] * g)
                             : static_cast<float>(s[n] * g);
        }
    } else if (kind == 3) {
        for (int n = 0; n < kFrame; ++n) {
            const long t = long(k + 1000) * kFrame + n;
            r[n] = (t % 40) < 20 ? 1.0f : -1.0f;
            s[n] = (t % 37) < 18 ? 1.0f : -1.0f;
        }
    }
}

void BM_KvaecInput(benchmark::State &state) {
    const int kind = static_cast<int>(state.range(0));
    const unsigned csr = _mm_getcsr();
    _mm_setcsr(csr & ~0x8040u);
    aecx_init(nullptr);
    float r[kFrame], s[kFrame];
    for (int k = 0; k < kWarmup; ++k) {
        std::memcpy(r, &input().far[size_t(k) * kFrame], sizeof r);
        std::memcpy(s, &input().mic[size_t(k) * kFrame], sizeof s);
        aecx_process(r, s);
    }
    const int lead = (kind == 2 || kind == 4) ? 700 : 0;
    for (int k = -lead; k < 0; ++k) {
        hardFrame(kind, k, r, s);
        aecx_process(r, s);
    }
    // The timed frames' inputs, made before the timing.
    static std::vector<float> far, mic;
    far.resize(size_t(kHardFrames) * kFrame);
    mic.resize(size_t(kHardFrames) * kFrame);
    for (int k = 0; k < kHardFrames; ++k) hardFrame(kind, k, &far[size_t(k) * kFrame], &mic[size_t(k) * kFrame]);
    static Snapshot snap;
    snap.save();
    int k = 0;
    for (auto _ : state) {
        if (k == kHardFrames) {
            state.PauseTiming();
            snap.restore();
            k = 0;
            state.ResumeTiming();
        }
        std::memcpy(r, &far[size_t(k) * kFrame], sizeof r);
        std::memcpy(s, &mic[size_t(k) * kFrame], sizeof s);
        aecx_process(r, s);
        benchmark::DoNotOptimize(s);
        ++k;
    }
    _mm_setcsr(csr);
    setCounters(state, false);
}
BENCHMARK(BM_KvaecInput)->DenseRange(0, 4)->ArgName("input");

// Single stages on the state of a normal frame, restored before every run.
struct Saved {
    AEC_tDb db;
    AEC_tSc sc;
    float adf[AEC_ADF_FLOATS], ads[AEC_ADF_FLOATS];
};

template <void (*Stage)(AEC_tDb *, AEC_tSc *)>
void stageBench(benchmark::State &state) {
    kvaec::simd::setScalar(state.range(0) == 0);
    aecx_init(nullptr);
    float r[kFrame], s[kFrame];
    for (int k = 0; k < kWarmup; ++k) {
        std::memcpy(r, &input().far[size_t(k) * kFrame], sizeof r);
        std::memcpy(s, &input().mic[size_t(k) * kFrame], sizeof s);
        aecx_process(r, s);
    }
    static Saved saved;
    saved.db = AEC_Db;
    saved.sc = AEC_Sc;
    std::memcpy(saved.adf, AEC_afAdf, sizeof saved.adf);
    std::memcpy(saved.ads, AEC_afAds, sizeof saved.ads);
    for (auto _ : state) {
        state.PauseTiming();
        AEC_Db = saved.db;
        AEC_Sc = saved.sc;
        std::memcpy(AEC_afAdf, saved.adf, sizeof saved.adf);
        std::memcpy(AEC_afAds, saved.ads, sizeof saved.ads);
        state.ResumeTiming();
        Stage(&AEC_Db, &AEC_Sc);
    }
    kvaec::simd::setScalar(false);
}

void adfAdapt(AEC_tDb *db, AEC_tSc *sc) { aec_adf_adapt(db, sc); }
void adapt1(AEC_tDb *db, AEC_tSc *sc) { aec_adapt1(db, sc); }
void adapt4(AEC_tDb *db, AEC_tSc *sc) { aec_adapt4(db, sc); }
void cancelSlow(AEC_tDb *db, AEC_tSc *sc) { aec_cancel_slow(db, sc); }
void nrgIn(AEC_tDb *db, AEC_tSc *sc) { aec_nrg_in(db, sc); }

BENCHMARK_TEMPLATE(stageBench, adfAdapt)->Name("BM_Stage_adf_adapt")->Arg(1)->Arg(0)->ArgName("vector");
BENCHMARK_TEMPLATE(stageBench, adapt1)->Name("BM_Stage_adapt1")->Arg(1)->Arg(0)->ArgName("vector");
BENCHMARK_TEMPLATE(stageBench, adapt4)->Name("BM_Stage_adapt4")->Arg(1)->Arg(0)->ArgName("vector");
BENCHMARK_TEMPLATE(stageBench, cancelSlow)->Name("BM_Stage_cancel_slow")->Arg(1)->Arg(0)->ArgName("vector");
BENCHMARK_TEMPLATE(stageBench, nrgIn)->Name("BM_Stage_nrg_in")->Arg(1)->Arg(0)->ArgName("vector");

// Filter-bank stages on the state of a normal frame, restored before every
// run, with a frame of the benchmark input as their audio buffer.
template <void (*Stage)(AEC_tDb *, AEC_tSc *, float *)>
void fbStageBench(benchmark::State &state) {
    kvaec::simd::setScalar(state.range(0) == 0);
    aecx_init(nullptr);
    float r[kFrame], s[kFrame];
    for (int k = 0; k < kWarmup; ++k) {
        std::memcpy(r, &input().far[size_t(k) * kFrame], sizeof r);
        std::memcpy(s, &input().mic[size_t(k) * kFrame], sizeof s);
        aecx_process(r, s);
    }
    static Saved saved;
    saved.db = AEC_Db;
    saved.sc = AEC_Sc;
    for (auto _ : state) {
        state.PauseTiming();
        AEC_Db = saved.db;
        AEC_Sc = saved.sc;
        std::memcpy(s, &input().mic[size_t(kWarmup) * kFrame], sizeof s);
        state.ResumeTiming();
        Stage(&AEC_Db, &AEC_Sc, s);
    }
    kvaec::simd::setScalar(false);
}

void sndAnalysis(AEC_tDb *db, AEC_tSc *sc, float *x) { aec_fb_snd_analysis(db, sc, x); }
void sndSynthesis(AEC_tDb *db, AEC_tSc *sc, float *x) { aec_fb_snd_synthesis(db, sc, x); }
void rcvAnalysis(AEC_tDb *db, AEC_tSc *sc, float *x) { aec_fb_rcv_analysis(db, sc, x); }
void rcvSynthesis(AEC_tDb *db, AEC_tSc *sc, float *x) { aec_fb_rcv_synthesis(db, sc, x); }
void refAnalysis(AEC_tDb *db, AEC_tSc *sc, float *x) { aec_fb_ref_analysis(db, sc, x); }

BENCHMARK_TEMPLATE(fbStageBench, sndAnalysis)->Name("BM_Stage_fb_snd_analysis")->Arg(1)->Arg(0)->ArgName("vector");
BENCHMARK_TEMPLATE(fbStageBench, sndSynthesis)->Name("BM_Stage_fb_snd_synthesis")->Arg(1)->Arg(0)->ArgName("vector");
BENCHMARK_TEMPLATE(fbStageBench, rcvAnalysis)->Name("BM_Stage_fb_rcv_analysis")->Arg(1)->Arg(0)->ArgName("vector");
BENCHMARK_TEMPLATE(fbStageBench, rcvSynthesis)->Name("BM_Stage_fb_rcv_synthesis")->Arg(1)->Arg(0)->ArgName("vector");
BENCHMARK_TEMPLATE(fbStageBench, refAnalysis)->Name("BM_Stage_fb_ref_analysis")->Arg(1)->Arg(0)->ArgName("vector");

// ---- single kernels ----
// impl:0 scalar reference, 1 SSE2, 2 AVX2 (the library's kernels). groups:
// 9 and 12 groups of four taps, the 36- and 48-tap filters. Each call works
// on the same buffers; results are checked against the reference first.

std::vector<float> kernelData(uint32_t seed, size_t n) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    std::vector<float> v(n);
    for (auto &x : v) x = u(rng);
    return v;
}

void BM_Kernel_cancel(benchmark::State &state) {
    const int groups = static_cast<int>(state.range(0));
    const int impl = static_cast<int>(state.range(1));
    if (impl == 2 && !__builtin_cpu_supports("avx2")) {
        state.SkipWithError("no AVX2");
        return;
    }
    using Fn = void (*)(const float *, const float *, float *, int32_t);
    const Fn fn = impl == 0 ? kvaec::kern::cancelBandScalar
                            : impl == 1 ? kvaec::kern::cancelBandSse2 : kvaec::kern::cancelBandAvx2;
    const std::vector<float> ref = kernelData(1, 8 * 16), coef = kernelData(2, 8 * 16);
    float want[2] = {0.0f, 0.0f}, got[2] = {0.0f, 0.0f};
    kvaec::kern::cancelBandScalar(ref.data(), coef.data(), want, groups);
    fn(ref.data(), coef.data(), got, groups);
    if (std::memcmp(want, got, sizeof want) != 0) state.SkipWithError("differs from the reference");
    for (auto _ : state) {
        float acc[2] = {0.0f, 0.0f};
        fn(ref.data(), coef.data(), acc, groups);
        benchmark::DoNotOptimize(acc);
    }
}
BENCHMARK(BM_Kernel_cancel)->ArgsProduct({{9, 12}, {0, 1, 2}})->ArgNames({"groups", "impl"});

void BM_Kernel_tapered_update(benchmark::State &state) {
    const int groups = static_cast<int>(state.range(0));
    const int impl = static_cast<int>(state.range(1));
    if (impl == 2 && !__builtin_cpu_supports("avx2")) {
        state.SkipWithError("no AVX2");
        return;
    }
    using Fn = void (*)(float *, const float *, float, float, int, float);
    const Fn fn = impl == 0 ? kvaec::kern::updateTaperedScalar
                            : impl == 1 ? kvaec::kern::updateTaperedSse2 : kvaec::kern::updateTaperedAvx2;
    const std::vector<float> ref = kernelData(3, 8 * 16);
    std::vector<float> want = kernelData(4, 8 * 16), got = want;
    kvaec::kern::updateTaperedScalar(want.data(), ref.data(), 0.3f, -0.2f, groups, 0.85f);
    fn(got.data(), ref.data(), 0.3f, -0.2f, groups, 0.85f);
    if (want != got) state.SkipWithError("differs from the reference");
    std::vector<float> c = kernelData(4, 8 * 16);
    for (auto _ : state) {
        // Tiny steps keep the coefficients from growing over the iterations.
        fn(c.data(), ref.data(), 1e-9f, -1e-9f, groups, 0.85f);
        benchmark::DoNotOptimize(c.data());
    }
}
BENCHMARK(BM_Kernel_tapered_update)->ArgsProduct({{9, 12}, {0, 1, 2}})->ArgNames({"groups", "impl"});

void BM_Kernel_block_update(benchmark::State &state) {
    const int groups = static_cast<int>(state.range(0));
    const int impl = static_cast<int>(state.range(1));
    if (impl == 2 && !__builtin_cpu_supports("avx2")) {
        state.SkipWithError("no AVX2");
        return;
    }
    using Fn = void (*)(float *, const float *, float (*)[2], int, float);
    const Fn fn = impl == 0 ? kvaec::kern::blockUpdateScalar
                            : impl == 1 ? kvaec::kern::blockUpdateSse2 : kvaec::kern::blockUpdateAvx2;
    const std::vector<float> x = kernelData(5, 8 * 16 + 8);
    std::vector<float> want = kernelData(6, 8 * 16), got = want;
    float eW[4][2] = {{0.3f, -0.2f}, {0.1f, 0.05f}, {-0.2f, 0.3f}, {0.01f, 0.4f}};
    float eG[4][2];
    std::memcpy(eG, eW, sizeof eW);
    kvaec::kern::blockUpdateScalar(want.data(), x.data(), eW, groups, 0.85f);
    fn(got.data(), x.data(), eG, groups, 0.85f);
    if (want != got || std::memcmp(eW, eG, sizeof eW) != 0) state.SkipWithError("differs from the reference");
    std::vector<float> c = kernelData(6, 8 * 16);
    for (auto _ : state) {
        float e[4][2] = {{1e-9f, -1e-9f}, {1e-9f, 1e-9f}, {-1e-9f, 1e-9f}, {1e-9f, 1e-9f}};
        fn(c.data(), x.data(), e, groups, 0.85f);
        benchmark::DoNotOptimize(c.data());
    }
}
BENCHMARK(BM_Kernel_block_update)->ArgsProduct({{9, 12}, {0, 1, 2}})->ArgNames({"groups", "impl"});

// The slow bank's four sub-sample errors of one band: impl:0 four scalar
// calls, 1 four SSE2 calls, 2 the AVX2 kernel doing all four at once.
void BM_Kernel_cancel_band4(benchmark::State &state) {
    const int groups = static_cast<int>(state.range(0));
    const int impl = static_cast<int>(state.range(1));
    if (impl == 2 && !__builtin_cpu_supports("avx2")) {
        state.SkipWithError("no AVX2");
        return;
    }
    const std::vector<float> ref = kernelData(7, 8 * 16 + 8), coef = kernelData(8, 8 * 16);
    auto run = [&](float (*acc)[2]) {
        if (impl == 2) {
            kvaec::kern::cancelBand4Avx2(ref.data(), coef.data(), acc, groups);
            return;
        }
        for (int j = 0; j < 4; ++j) {
            if (impl == 0)
                kvaec::kern::cancelBandScalar(ref.data() + 2 * (3 - j), coef.data(), acc[j], groups);
            else
                kvaec::kern::cancelBandSse2(ref.data() + 2 * (3 - j), coef.data(), acc[j], groups);
        }
    };
    float want[4][2] = {}, got[4][2] = {};
    for (int j = 0; j < 4; ++j)
        kvaec::kern::cancelBandScalar(ref.data() + 2 * (3 - j), coef.data(), want[j], groups);
    run(got);
    if (std::memcmp(want, got, sizeof want) != 0) state.SkipWithError("differs from the reference");
    for (auto _ : state) {
        float acc[4][2] = {};
        run(acc);
        benchmark::DoNotOptimize(acc);
    }
}
BENCHMARK(BM_Kernel_cancel_band4)->ArgsProduct({{9, 12}, {0, 1, 2}})->ArgNames({"groups", "impl"});

// Cost of the floating-point mode switch of the entry points: save the
// caller's control word, set the library's mode, restore (arg 0: the
// caller's flush-to-zero off, 1: on). For scale, the empty entry point
// aecx_miceq with profile 0 (it only switches the mode and returns).
void BM_FpModeSwitch(benchmark::State &state) {
    const unsigned csr = _mm_getcsr();
    _mm_setcsr(state.range(0) ? (csr | 0x8040u) : (csr & ~0x8040u));
    for (auto _ : state) {
        const kvaec::fpenv::Scope mode;
        benchmark::ClobberMemory();
    }
    _mm_setcsr(csr);
}
BENCHMARK(BM_FpModeSwitch)->Arg(0)->Arg(1)->ArgName("host_ftz");

void BM_EmptyEntryPoint(benchmark::State &state) {
    aecx_init(nullptr);  // profile 0: aecx_miceq leaves the frame as it is
    float x[kFrame] = {};
    for (auto _ : state) {
        aecx_miceq(x);
        benchmark::DoNotOptimize(x);
    }
}
BENCHMARK(BM_EmptyEntryPoint);

// ---- peers ----

void toPcm(const float *x, spx_int16_t *y) {
    for (int n = 0; n < kFrame; ++n) {
        float v = x[n] * 32768.0f;
        v = v > 32767.0f ? 32767.0f : (v < -32768.0f ? -32768.0f : v);
        y[n] = static_cast<spx_int16_t>(std::lrint(v));
    }
}

size_t heapInUse() { return mallinfo2().uordblks; }

// Echo canceller (1920-sample filter, the span of the longest sub-band
// filters: 48 taps at a hop of 40 samples) plus preprocessor (noise
// suppression and residual echo suppression on).
void BM_PeerSpeexDsp(benchmark::State &state) {
    const size_t heap0 = heapInUse();
    SpeexEchoState *ec = speex_echo_state_init(kFrame, 1920);
    SpeexPreprocessState *pp = speex_preprocess_state_init(kFrame, 16000);
    int rate = 16000;
    speex_echo_ctl(ec, SPEEX_ECHO_SET_SAMPLING_RATE, &rate);
    speex_preprocess_ctl(pp, SPEEX_PREPROCESS_SET_ECHO_STATE, ec);
    const size_t heap1 = heapInUse();
    spx_int16_t far[kFrame], mic[kFrame], out[kFrame];
    int i = 0;
    auto frame = [&] {
        toPcm(&input().far[size_t(i) * kFrame], far);
        toPcm(&input().mic[size_t(i) * kFrame], mic);
        speex_echo_cancellation(ec, mic, far, out);
        speex_preprocess_run(pp, out);
        i = (i + 1) % kFrames;
    };
    for (int k = 0; k < kWarmup; ++k) frame();
    for (auto _ : state) {
        frame();
        benchmark::DoNotOptimize(out);
    }
    state.counters["heap_bytes"] = double(heap1 - heap0);
    state.counters["frames/s"] = benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate);
    speex_preprocess_state_destroy(pp);
    speex_echo_state_destroy(ec);
}
BENCHMARK(BM_PeerSpeexDsp);

// Full-band echo canceller with the high-pass filter, float interface,
// 16 kHz mono, 10 ms frames, stream delay 40 ms.
void BM_PeerWebRtcApm(benchmark::State &state) {
    const size_t heap0 = heapInUse();
    webrtc::AudioProcessing *apm = webrtc::AudioProcessing::Create();
    apm->high_pass_filter()->Enable(true);
    apm->echo_cancellation()->Enable(true);
    webrtc::StreamConfig cfg(16000, 1, false);
    apm->Initialize(webrtc::ProcessingConfig{{cfg, cfg, cfg, cfg}});
    const size_t heap1 = heapInUse();
    float far[kFrame], mic[kFrame];
    int i = 0;
    auto frame = [&] {
        std::memcpy(far, &input().far[size_t(i) * kFrame], sizeof far);
        std::memcpy(mic, &input().mic[size_t(i) * kFrame], sizeof mic);
        float *fp = far, *mp = mic;
        apm->ProcessReverseStream(&fp, cfg, cfg, &fp);
        apm->set_stream_delay_ms(40);
        apm->ProcessStream(&mp, cfg, cfg, &mp);
        i = (i + 1) % kFrames;
    };
    for (int k = 0; k < kWarmup; ++k) frame();
    const size_t heap2 = heapInUse();
    for (auto _ : state) {
        frame();
        benchmark::DoNotOptimize(mic);
    }
    state.counters["heap_bytes"] = double(heap1 - heap0);
    state.counters["heap_bytes_running"] = double(heap2 - heap0);
    state.counters["frames/s"] = benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate);
    delete apm;
}
BENCHMARK(BM_PeerWebRtcApm);

// The whole state of libkvaec is its static records.
void BM_KvaecStaticState(benchmark::State &state) {
    for (auto _ : state) benchmark::DoNotOptimize(&AEC_Db);
    state.counters["db_bytes"] = double(sizeof(AEC_tDb));
    state.counters["sc_bytes"] = double(sizeof(AEC_tSc));
    state.counters["ref_adf_ads_bytes"] = double(sizeof AEC_afRef + sizeof AEC_afAdf + sizeof AEC_afAds);
}
BENCHMARK(BM_KvaecStaticState)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
