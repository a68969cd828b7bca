// Bit-exact reference run: a fixed 30 s closed-loop conversation (far-end
// talk, double talk, silence, an echo-path change, near-end talk, a
// configuration change with both equalizers in the loop) is processed and
// every output sample plus the final state is hashed. The hash must be the
// same on every target we build for (x86-64, i386 with SSE arithmetic,
// 32-bit ARM hard-float), and equal to the checked-in value.
//
// The signals are made here with integer random numbers and plain float and
// double arithmetic only (+, -, *, /, sqrt, which IEEE rounds identically
// everywhere): the math library's exp/log/sin differ between platforms in
// the last bit and would make the input itself platform dependent.
//
// When the library changes on purpose, regenerate the value with
//   tests/golden/update_hash.sh
// and commit tests/golden/golden_hash.txt together with the change.
//
// Set KVAEC_GOLDEN_TRACE=<file> to write one line per frame (frame number,
// hash of the send frame, hash of the receive frame, hash of the state):
// comparing two such files from two targets shows the first frame and the
// part where they part ways.
#include <gtest/gtest.h>

#include <cinttypes>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "closed_loop.h"
#include "core/fpenv.h"
#include "kvaec.h"
#include "kvaec_records.h"

namespace {

using kvaec::sim::ClosedLoop;
using kvaec::sim::kFrame;

constexpr int kFps = 100;
constexpr int kSeconds = 30;

// ---- hashing: FNV-1a 64 over 32-bit words, least significant byte first ----
constexpr uint64_t kFnvOffset = 0xcbf29ce484222325ull;
constexpr uint64_t kFnvPrime = 0x100000001b3ull;

struct Fnv {
    uint64_t h = kFnvOffset;
    void word(uint32_t w) {
        for (int b = 0; b < 4; ++b) {
            h ^= (w >> (8 * b)) & 0xffu;
            h *= kFnvPrime;
        }
    }
    void floats(const float *x, size_t n) {
        for (size_t i = 0; i < n; ++i) {
            uint32_t w;
            std::memcpy(&w, &x[i], 4);
            word(w);
        }
    }
    void words(const void *p, size_t n) {
        const unsigned char *c = static_cast<const unsigned char *>(p);
        for (size_t i = 0; i < n; ++i) {
            uint32_t w;
            std::memcpy(&w, c + 4 * i, 4);
            word(w);
        }
    }
};

// The state a platform build must reproduce: AEC_Db from the word after the
// three store pointers to the end of the configuration (the pointers differ
// by platform and address), and the three sub-band stores.
constexpr size_t kDbTailWords =
    (offsetof(AEC_tDb, tCfg) + sizeof(AEC_tCfg) - offsetof(AEC_tDb, afRefPowAdf)) / 4;
static_assert(kDbTailWords == AEC_DB_WORDS - 3, "AEC_Db after the pointers is 3469 words");

uint64_t stateHash() {
    Fnv f;
    f.words(&AEC_Db.afRefPowAdf[0], kDbTailWords);
    f.floats(AEC_afRef, AEC_REF_FLOATS);
    f.floats(AEC_afAdf, AEC_ADF_FLOATS);
    f.floats(AEC_afAds, AEC_ADF_FLOATS);
    return f.h;
}

// ---- platform-independent signal sources ----
class Rng {  // xorshift32
public:
    explicit Rng(uint32_t seed) : s_(seed ? seed : 1u) {}
    uint32_t next() {
        s_ ^= s_ << 13;
        s_ ^= s_ >> 17;
        s_ ^= s_ << 5;
        return s_;
    }
    // Uniform in [-1, 1) with 24 bits: exact in float.
    float uniform() { return static_cast<float>(static_cast<int32_t>(next() >> 8) - 8388608) * (1.0f / 8388608.0f); }
    // Roughly Gaussian, unit variance: sum of four uniforms times sqrt(3/4).
    float gauss() {
        const float s = uniform() + uniform() + uniform() + uniform();
        return s * 0.8660254f;
    }
private:
    uint32_t s_;
};

// Speech-like source: noise through two one-pole low-passes (about 800 Hz)
// and a one-pole high-pass (about 100 Hz), a triangular syllable envelope of
// 250 ms, switched on and off in bursts of 0.3 to 2.3 s.
class Talker {
public:
    Talker(uint32_t seed, float gain) : rng_(seed), gain_(gain) { left_ = burst(); }
    void fill(float *x, int n, bool enabled) {
        for (int i = 0; i < n; ++i) {
            if (--left_ <= 0) {
                on_ = !on_;
                left_ = burst();
            }
            const float w = rng_.gauss();
            lp1_ = 0.2696f * w + 0.7304f * lp1_;
            lp2_ = 0.2696f * lp1_ + 0.7304f * lp2_;
            const float y = 0.9615f * (hpOut_ + lp2_ - hpIn_);
            hpIn_ = lp2_;
            hpOut_ = y;
            // Triangle 0.25..1.0 over 4000 samples.
            const int ph = static_cast<int>(t_ % 4000);
            const float tri = static_cast<float>(ph < 2000 ? ph : 4000 - ph) * (1.0f / 2000.0f);
            const float env = 0.25f + 0.75f * tri;
            ++t_;
            x[i] = (enabled && on_) ? gain_ * y * env : 0.0f;
        }
    }
private:
    int burst() { return 4800 + static_cast<int>(rng_.next() % 32000u); }
    Rng rng_;
    float gain_;
    bool on_ = true;
    int left_ = 0;
    long t_ = 0;
    float lp1_ = 0, lp2_ = 0, hpIn_ = 0, hpOut_ = 0;
};

// Echo path: `lat` samples of latency, then a tail of `tail` taps decaying
// by `decay` per tap, normalised to an energy of `gain`^2.
std::vector<float> echoPath(uint32_t seed, int lat, int tail, double decay, double gain) {
    Rng rng(seed);
    std::vector<double> v(static_cast<size_t>(tail));
    double a = 1.0, energy = 0.0;
    for (int i = 0; i < tail; ++i) {
        v[static_cast<size_t>(i)] = static_cast<double>(rng.gauss()) * a;
        energy += v[static_cast<size_t>(i)] * v[static_cast<size_t>(i)];
        a *= decay;
    }
    const double scale = gain / std::sqrt(energy);
    std::vector<float> h(static_cast<size_t>(lat + tail), 0.0f);
    for (int i = 0; i < tail; ++i) h[static_cast<size_t>(lat + i)] = static_cast<float>(v[static_cast<size_t>(i)] * scale);
    return h;
}

std::string hex(uint64_t v) {
    char b[24];
    std::snprintf(b, sizeof b, "%016" PRIx64, v);
    return b;
}

std::string hashFile() {
    if (const char *p = std::getenv("KVAEC_GOLDEN_HASH_FILE")) return p;
    std::string f = __FILE__;
    const size_t slash = f.find_last_of('/');
    return (slash == std::string::npos ? std::string(".") : f.substr(0, slash)) + "/golden_hash.txt";
}

// First token of the first line that is neither empty nor a comment.
std::string readExpected(const std::string &path) {
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        const size_t b = line.find_first_not_of(" \t\r");
        if (b == std::string::npos || line[b] == '#') continue;
        const size_t e = line.find_first_of(" \t\r", b);
        return line.substr(b, e == std::string::npos ? std::string::npos : e - b);
    }
    return std::string();
}

struct Result {
    uint64_t send, receive, state, all;
    int bist;
    bool finite;
};

Result runScenario() {
    aecx_init(nullptr);
    const std::vector<float> pathA = echoPath(101, 48, 960, 0.9925, 0.5);
    const std::vector<float> pathB = echoPath(202, 80, 800, 0.991, 0.7);
    ClosedLoop loop(pathA);
    Talker far(1, 0.08f), near(2, 0.05f);
    Rng noise(3);

    FILE *trace = nullptr;
    if (const char *t = std::getenv("KVAEC_GOLDEN_TRACE")) trace = std::fopen(t, "w");

    Fnv send, receive;
    bool finite = true;
    float f[kFrame], n[kFrame], out[kFrame], played[kFrame];
    for (int i = 0; i < kSeconds * kFps; ++i) {
        const int sec = i / kFps;
        // Host actions between frames.
        if (i == 16 * kFps) loop.setPath(pathB);                     // echo-path change
        if (i == 20 * kFps) aecx_control(KVAEC_CMD_SET_NLP_PARAM, nullptr, 3.0f);
        if (i == 24 * kFps) {                                         // profile 1, noise reduction on
            AEC_tCfg cfg = AEC_DefaultCfg;
            cfg.iProfile = 1;
            cfg.fNrLevelDb = 0.5f;
            aecx_control(KVAEC_CMD_LOAD_CFG, &cfg, 0.0f);
            loop.setPlaybackFilter([](float *x) { aecx_spkeq(x); });
            loop.setMicFilter([](float *x) { aecx_miceq(x); });
        }
        const bool farOn = sec < 14 || (sec >= 16 && sec < 22) || sec >= 26;
        const bool nearOn = (sec >= 8 && sec < 14) || sec >= 22;
        far.fill(f, kFrame, farOn);
        near.fill(n, kFrame, nearOn);
        for (int k = 0; k < kFrame; ++k) n[k] += 0.0005f * noise.uniform();  // room noise, about -70 dBFS
        loop.step(f, n, out, played);
        send.floats(out, kFrame);
        receive.floats(played, kFrame);
        for (int k = 0; k < kFrame; ++k) finite = finite && std::isfinite(out[k]) && std::isfinite(played[k]);
        if (trace) {
            Fnv fs, fr;
            fs.floats(out, kFrame);
            fr.floats(played, kFrame);
            std::fprintf(trace, "%d %s %s %s\n", i, hex(fs.h).c_str(), hex(fr.h).c_str(), hex(stateHash()).c_str());
        }
    }
    if (trace) std::fclose(trace);

    Result r{};
    r.send = send.h;
    r.receive = receive.h;
    r.state = stateHash();
    Fnv all;
    all.word(static_cast<uint32_t>(r.send));
    all.word(static_cast<uint32_t>(r.send >> 32));
    all.word(static_cast<uint32_t>(r.receive));
    all.word(static_cast<uint32_t>(r.receive >> 32));
    all.word(static_cast<uint32_t>(r.state));
    all.word(static_cast<uint32_t>(r.state >> 32));
    r.all = all.h;
    r.bist = aecx_bist();
    r.finite = finite;
    return r;
}

TEST(GoldenRun, HashIsTheSameOnEveryRun) {
    // Guards the premise of the golden value: nothing in the run depends on
    // addresses, uninitialised memory or the history of earlier calls.
    const Result a = runScenario();
    const Result b = runScenario();
    EXPECT_EQ(a.send, b.send);
    EXPECT_EQ(a.receive, b.receive);
    EXPECT_EQ(a.state, b.state);
}

// True when the library's floating-point mode takes effect here. valgrind
// does not model flush-to-zero: there the control word reads back without
// it and the arithmetic keeps subnormals, so the hash cannot match.
bool libraryModeSticks() {
#if defined(KVAEC_FPENV_MXCSR) || defined(KVAEC_FPENV_FPCR) || defined(KVAEC_FPENV_FPSCR)
    const uint32_t caller = kvaec::fpenv::read();
    const uint32_t mode = kvaec::fpenv::libraryMode(caller);
    kvaec::fpenv::write(mode);
    const bool kept = kvaec::fpenv::read() == mode;
    kvaec::fpenv::write(caller);
    return kept;
#else
    return true;
#endif
}

TEST(GoldenRun, OutputsAndFinalStateMatchTheCheckedInHash) {
    if (!libraryModeSticks()) GTEST_SKIP() << "the library's flush-to-zero mode does not take effect here (valgrind?)";
    const Result r = runScenario();
    std::printf("golden hash: %s (send %s, receive %s, state %s)\n", hex(r.all).c_str(), hex(r.send).c_str(),
                hex(r.receive).c_str(), hex(r.state).c_str());
    EXPECT_TRUE(r.finite);
    EXPECT_EQ(r.bist, 0);
    const std::string path = hashFile();
    const std::string expected = readExpected(path);
    ASSERT_FALSE(expected.empty()) << "no golden hash in " << path
                                   << "; create it with tests/golden/update_hash.sh";
    EXPECT_EQ(expected, hex(r.all))
        << "the 30 s reference run no longer gives the checked-in hash (" << path << ").\n"
        << "If the library's arithmetic changed on purpose, regenerate the value with\n"
        << "  tests/golden/update_hash.sh\n"
        << "and commit the new golden_hash.txt with the change. If it differs only on one\n"
        << "target, do not regenerate: the targets disagree, and KVAEC_GOLDEN_TRACE=<file>\n"
        << "on both shows the first frame where they part.";
}

}  // namespace
