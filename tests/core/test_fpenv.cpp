// The floating-point mode of the entry points that run the frame arithmetic:
// each sets flush-to-zero, subnormal operands as zero and rounding to
// nearest for its own duration, and hands the caller's control word back
// unchanged, so the results do not depend on what the host set.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <vector>

#include "core/fpenv.h"
#include "kvaec.h"

#if defined(KVAEC_FPENV_MXCSR)
#include <xmmintrin.h>
#endif

namespace {

constexpr int kN = KVAEC_FRAME_SAMPLES;

#if defined(KVAEC_FPENV_MXCSR) || defined(KVAEC_FPENV_FPCR) || defined(KVAEC_FPENV_FPSCR)
constexpr bool kSwitches = true;
#else
constexpr bool kSwitches = false;
#endif

// Caller control words: flush-to-zero off, on, and on with rounding towards
// zero (plus, on x86, some exception flags already raised).
#if defined(KVAEC_FPENV_MXCSR)
uint32_t ftzOff(uint32_t w) { return w & ~0x8040u; }
uint32_t ftzOn(uint32_t w) { return w | 0x8040u; }
uint32_t oddMode(uint32_t w) { return (w | 0x8040u | 0x6000u | 0x21u); }
// Reads MXCSR through the compiler's intrinsic, independently of the
// library's helper.
uint32_t readWord() { return _mm_getcsr(); }
void writeWord(uint32_t w) { _mm_setcsr(w); }
#elif defined(KVAEC_FPENV_FPCR) || defined(KVAEC_FPENV_FPSCR)
uint32_t ftzOff(uint32_t w) { return w & ~kvaec::fpenv::kFz; }
uint32_t ftzOn(uint32_t w) { return w | kvaec::fpenv::kFz; }
uint32_t oddMode(uint32_t w) { return w | kvaec::fpenv::kFz | kvaec::fpenv::kRMode; }
uint32_t readWord() { return kvaec::fpenv::read(); }
void writeWord(uint32_t w) { kvaec::fpenv::write(w); }
#else
uint32_t ftzOff(uint32_t w) { return w; }
uint32_t ftzOn(uint32_t w) { return w; }
uint32_t oddMode(uint32_t w) { return w; }
uint32_t readWord() { return 0; }
void writeWord(uint32_t) {}
#endif

// Runs `prepare` (input data, in the test's own mode), then `call` with
// the caller's word set to w, and returns the word seen right after it.
uint32_t wordAfter(uint32_t w, const std::function<void()> &prepare, const std::function<void()> &call) {
    prepare();
    writeWord(w);
    call();
    const uint32_t after = readWord();
    writeWord(w);
    return after;
}

// Frame data with subnormal samples among normal ones, so that the mode
// inside the library matters.
void fillFrame(float *x, int frame, float scale) {
    for (int n = 0; n < kN; ++n) {
        const int k = frame * kN + n;
        const float v = scale * std::sin(0.05f * static_cast<float>(k)) * std::sin(0.0011f * static_cast<float>(k));
        x[n] = (n % 7 == 3) ? 1e-39f * static_cast<float>(1 + n % 5) : v;
    }
}

// Restores the test's own control word at the end of a test.
class FpMode : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!kSwitches) GTEST_SKIP() << "no floating-point control word handled on this target";
        saved_ = readWord();
        // valgrind does not model these modes: its control word reads back
        // without them and its arithmetic keeps subnormals.
        writeWord(ftzOn(saved_));
        const bool kept = readWord() == ftzOn(saved_);
        writeWord(saved_);
        if (!kept) GTEST_SKIP() << "the flush-to-zero mode does not stick on this processor or emulator";
        aecx_init(nullptr);
    }
    void TearDown() override {
        if (kSwitches) writeWord(saved_);
    }
    // The caller's word after `call`, for flush-to-zero off, on, and on with
    // rounding towards zero.
    void expectWordKept(const std::function<void()> &prepare, const std::function<void()> &call,
                        const char *what) {
        for (const uint32_t w : {ftzOff(saved_), ftzOn(saved_), oddMode(saved_)}) {
            EXPECT_EQ(wordAfter(w, prepare, call), w) << what << ", caller word 0x" << std::hex << w;
        }
    }
    uint32_t saved_ = 0;
};

// Outputs of `frames` frames of every entry point (profile 3: both
// equalizers and the loudspeaker high-pass run), with the caller's word w.
std::vector<float> runAll(uint32_t w, int frames) {
    AEC_tCfg cfg = AEC_DefaultCfg;
    cfg.iProfile = 3;
    aecx_init(&cfg);
    // Inputs first, in the test's own mode: the far end fades out over the
    // run, so the filters' states decay towards the subnormal range as well.
    std::vector<float> in(static_cast<size_t>(frames) * 4 * kN);
    for (int f = 0; f < frames; ++f) {
        const float fade = std::pow(0.8f, static_cast<float>(f));
        float *p = &in[static_cast<size_t>(f) * 4 * kN];
        fillFrame(p, f, 0.3f * fade);
        fillFrame(p + kN, f + 1000, 0.05f * fade);
        fillFrame(p + 2 * kN, f + 2000, 0.3f * fade);
        fillFrame(p + 3 * kN, f + 3000, 0.3f * fade);
    }
    std::vector<float> out;
    float rin[kN], sin[kN], spk[kN], mic[kN];
    const uint32_t own = readWord();
    writeWord(w);
    for (int f = 0; f < frames; ++f) {
        const float *p = &in[static_cast<size_t>(f) * 4 * kN];
        std::memcpy(rin, p, sizeof(rin));
        std::memcpy(sin, p + kN, sizeof(sin));
        std::memcpy(spk, p + 2 * kN, sizeof(spk));
        std::memcpy(mic, p + 3 * kN, sizeof(mic));
        aecx_process(rin, sin);
        aecx_spkeq(spk);
        aecx_miceq(mic);
        out.insert(out.end(), rin, rin + kN);
        out.insert(out.end(), sin, sin + kN);
        out.insert(out.end(), spk, spk + kN);
        out.insert(out.end(), mic, mic + kN);
    }
    writeWord(own);
    return out;
}

}  // namespace

TEST_F(FpMode, ProcessGivesTheCallersControlWordBack) {
    float rin[kN], sin[kN];
    int f = 0;
    expectWordKept(
        [&] {
            fillFrame(rin, f, 0.3f);
            fillFrame(sin, f + 500, 0.1f);
            ++f;
        },
        [&] { aecx_process(rin, sin); },
        "aecx_process");
}

TEST_F(FpMode, BypassFrameGivesTheCallersControlWordBack) {
    aecx_control(KVAEC_MODE_BYPASS, nullptr, 0.0f);
    float rin[kN], sin[kN];
    expectWordKept(
        [&] {
            fillFrame(rin, 0, 0.3f);
            fillFrame(sin, 1, 0.1f);
        },
        [&] { aecx_process(rin, sin); },
        "aecx_process (bypass)");
}

TEST_F(FpMode, EqualizersGiveTheCallersControlWordBack) {
    AEC_tCfg cfg = AEC_DefaultCfg;
    for (const int32_t profile : {0, 1, 3}) {
        cfg.iProfile = profile;
        aecx_init(&cfg);
        float x[kN];
        expectWordKept([&] { fillFrame(x, 2, 0.5f); }, [&] { aecx_spkeq(x); },
            "aecx_spkeq");
        expectWordKept([&] { fillFrame(x, 3, 0.5f); }, [&] { aecx_miceq(x); },
            "aecx_miceq");
    }
}

TEST_F(FpMode, ResultsDoNotDependOnTheCallersMode) {
    constexpr int kFrames = 400;
    const std::vector<float> off = runAll(ftzOff(saved_), kFrames);
    const std::vector<float> on = runAll(ftzOn(saved_), kFrames);
    const std::vector<float> odd = runAll(oddMode(saved_), kFrames);
    writeWord(saved_);
    ASSERT_EQ(off.size(), on.size());
    ASSERT_EQ(off.size(), odd.size());
    EXPECT_EQ(std::memcmp(off.data(), on.data(), off.size() * sizeof(float)), 0)
        << "outputs differ between the caller's flush-to-zero off and on";
    EXPECT_EQ(std::memcmp(off.data(), odd.data(), off.size() * sizeof(float)), 0)
        << "outputs differ with the caller rounding towards zero";
    // No subnormal value leaves the library, though the inputs carry some.
    int subnormal = 0;
    for (const float v : off)
        if (v != 0.0f && std::fabs(v) < 1.17549435e-38f) ++subnormal;
    EXPECT_EQ(subnormal, 0);
}
