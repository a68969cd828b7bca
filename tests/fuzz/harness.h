// Fuzz harness shared by the libFuzzer target (fuzz_process.cpp) and the
// corpus replay test (test_corpus.cpp).
//
// An input is a little program for a host: a sequence of operations, each a
// one-byte opcode followed by its operands. Missing bytes read as zero, so
// every byte string is a valid program. Floats are taken as raw 32-bit
// patterns: NaNs, infinities, denormals and huge values all reach the
// library.
//
//   op % 8  operands                         action
//   0       320 x f32                        one frame: rin[160], then sin[160]
//   1       f32 a, f32 b, u8 seed, u8 n      1 + n%16 frames of noise, rin*a, sin*b
//   2       f32 a, f32 b, u8 kind, u8 n      1 + n%8 frames of a pattern (constant,
//                                            alternating, impulse, square) scaled by a, b
//   3       u32 flags, u8 c, [cfg], f32 v    aecx_control(flags, c&1 ? &cfg : null, v);
//                                            cfg = 7 x f32 then u32 profile
//   4       f32 a, u8 seed                   aecx_spkeq on noise * a
//   5       f32 a, u8 seed                   aecx_miceq on noise * a
//   6       -                                aecx_bist
//   7       u8 c, [cfg]                      aecx_init(c&1 ? &cfg : null)
//
// Checks (a failure returns a message; the fuzzer then aborts):
//   - after every frame in normal mode, both guard words of AEC_Sc hold
//     their values; in bypass mode they keep the values they had;
//   - aecx_bist never returns less than 0 or more than the words it scans;
//   - recovery: at the end, a reset that also loads the default
//     configuration (mode bits kept, bypass off) followed by 12 frames of
//     ordinary finite audio gives finite outputs in every frame and
//     aecx_bist() == 0.
#ifndef KVAEC_FUZZ_HARNESS_H
#define KVAEC_FUZZ_HARNESS_H

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "kvaec.h"
#include "kvaec_records.h"

namespace kvaec_fuzz {

constexpr int kN = KVAEC_FRAME_SAMPLES;
constexpr int kMaxOps = 256;         // bounds the work per input
constexpr int kRecoveryFrames = 12;
// Words aecx_bist scans: AEC_Db after the pointers up to fRinPeakDb, AEC_Sc
// up to the tone-alarm word, the reference store, the two filter stores.
constexpr int kBistWords = 3457 + 2449 + AEC_REF_FLOATS + 2 * AEC_ADF_FLOATS;

class Reader {
public:
    Reader(const uint8_t *d, size_t n) : d_(d), n_(n) {}
    bool done() const { return p_ >= n_; }
    uint8_t u8() { return p_ < n_ ? d_[p_++] : 0; }
    uint32_t u32() {
        uint32_t v = 0;
        for (int i = 0; i < 4; ++i) v |= static_cast<uint32_t>(u8()) << (8 * i);
        return v;
    }
    float f32() {
        const uint32_t w = u32();
        float f;
        std::memcpy(&f, &w, 4);
        return f;
    }
    AEC_tCfg cfg() {
        AEC_tCfg c;
        c.fErlInitDb = f32();
        c.fNlpAttMaxDb = f32();
        c.fNlpAttMinDb = f32();
        c.fDtdMarginDb = f32();
        c.fLevelFloorDb = f32();
        c.fNrLevelDb = f32();
        c.fRinLevelRefDb = f32();
        c.iProfile = static_cast<int32_t>(u32());
        return c;
    }
private:
    const uint8_t *d_;
    size_t n_;
    size_t p_ = 0;
};

// Deterministic noise in [-1, 1).
class Lcg {
public:
    explicit Lcg(uint32_t s) : s_(s * 2654435761u + 1u) {}
    float next() {
        s_ = s_ * 1664525u + 1013904223u;
        return static_cast<float>(static_cast<int32_t>(s_ >> 8) - 8388608) * (1.0f / 8388608.0f);
    }
private:
    uint32_t s_;
};

// One frame through the library plus the guard-word check.
inline const char *frame(float *rin, float *sin) {
    const bool bypass = (AEC_Db.uiFlags & KVAEC_MODE_BYPASS) != 0;
    const uint32_t lo = AEC_Sc.uiGuardLo, hi = AEC_Sc.uiGuardHi;
    aecx_process(rin, sin);
    if (bypass) {
        if (AEC_Sc.uiGuardLo != lo || AEC_Sc.uiGuardHi != hi) return "a bypass frame changed a guard word of AEC_Sc";
    } else {
        if (AEC_Sc.uiGuardLo != AEC_SC_GUARD_LO) return "low guard word of AEC_Sc overwritten in a frame";
        if (AEC_Sc.uiGuardHi != AEC_SC_GUARD_HI) return "high guard word of AEC_Sc overwritten in a frame";
    }
    return nullptr;
}

inline float pattern(int kind, int k) {
    switch (kind & 3) {
    case 0: return 1.0f;
    case 1: return (k & 1) ? -1.0f : 1.0f;
    case 2: return k == 17 ? 1.0f : 0.0f;
    default: return (k / 20) & 1 ? -1.0f : 1.0f;
    }
}

inline const char *recover() {
    const unsigned mode = AEC_Db.uiFlags & ~(KVAEC_CMD_MASK | KVAEC_MODE_BYPASS);
    aecx_control(KVAEC_CMD_RESET | KVAEC_CMD_LOAD_CFG | mode, nullptr, 0.0f);
    Lcg far(7), near(8);
    float rin[kN], sin[kN];
    for (int f = 0; f < kRecoveryFrames; ++f) {
        for (int k = 0; k < kN; ++k) {
            rin[k] = 0.05f * far.next();
            sin[k] = 0.02f * far.next() + 0.01f * near.next();
        }
        if (const char *e = frame(rin, sin)) return e;
        for (int k = 0; k < kN; ++k)
            if (!std::isfinite(rin[k]) || !std::isfinite(sin[k]))
                return "non-finite output after a reset and finite input";
    }
    if (aecx_bist() != 0) return "aecx_bist() != 0 after a reset and finite input";
    return nullptr;
}

// Runs one input; returns null when every check held.
inline const char *runOne(const uint8_t *data, size_t size) {
    // A fresh instance per input, as after loading the library.
    std::memset(&AEC_Sc, 0, sizeof AEC_Sc);
    aecx_init(nullptr);
    Reader in(data, size);
    float rin[kN], sin[kN];
    for (int ops = 0; ops < kMaxOps && !in.done(); ++ops) {
        const int op = in.u8() % 8;
        switch (op) {
        case 0: {
            for (int k = 0; k < kN; ++k) rin[k] = in.f32();
            for (int k = 0; k < kN; ++k) sin[k] = in.f32();
            if (const char *e = frame(rin, sin)) return e;
            break;
        }
        case 1: {
            const float a = in.f32(), b = in.f32();
            Lcg g(in.u8());
            const int n = 1 + in.u8() % 16;
            for (int f = 0; f < n; ++f) {
                for (int k = 0; k < kN; ++k) rin[k] = a * g.next();
                for (int k = 0; k < kN; ++k) sin[k] = b * g.next();
                if (const char *e = frame(rin, sin)) return e;
            }
            break;
        }
        case 2: {
            const float a = in.f32(), b = in.f32();
            const int kind = in.u8();
            const int n = 1 + in.u8() % 8;
            for (int f = 0; f < n; ++f) {
                for (int k = 0; k < kN; ++k) rin[k] = a * pattern(kind, k);
                for (int k = 0; k < kN; ++k) sin[k] = b * pattern(kind >> 2, k);
                if (const char *e = frame(rin, sin)) return e;
            }
            break;
        }
        case 3: {
            const unsigned flags = in.u32();
            const bool withCfg = (in.u8() & 1) != 0;
            AEC_tCfg c = withCfg ? in.cfg() : AEC_DefaultCfg;
            aecx_control(flags, withCfg ? &c : nullptr, in.f32());
            break;
        }
        case 4:
        case 5: {
            const float a = in.f32();
            Lcg g(in.u8());
            for (int k = 0; k < kN; ++k) rin[k] = a * g.next();
            if (op == 4) aecx_spkeq(rin); else aecx_miceq(rin);
            break;
        }
        case 6: {
            const int n = aecx_bist();
            if (n < 0 || n > kBistWords) return "aecx_bist() out of range";
            break;
        }
        default: {
            const bool withCfg = (in.u8() & 1) != 0;
            AEC_tCfg c = withCfg ? in.cfg() : AEC_DefaultCfg;
            aecx_init(withCfg ? &c : nullptr);
            break;
        }
        }
    }
    return recover();
}

}  // namespace kvaec_fuzz

#endif
