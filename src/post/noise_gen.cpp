// Comfort-noise and dither generator: a 16-bit linear congruential sequence
// (seed = seed * 31821 + 13849, kept to 16 bits, signed) scaled to a uniform
// value of peak amplitude amp. One sequence serves every caller in call order;
// its state lives in one word, sign-extended.
#include "post.h"

namespace {

constexpr uint32_t kMul = 31821u;
constexpr uint32_t kAdd = 13849u;
constexpr float kInv32768 = 3.0517578e-5f;  // 1 / 32768, exact in single precision

// Next value of the sequence. Only the low 16 bits of the old seed matter for
// the low 16 bits of the product and sum, so modular 32-bit arithmetic gives
// the same result as any wider arithmetic.
inline int32_t nextSeed(int32_t seed) {
    const uint32_t v = (static_cast<uint32_t>(seed) * kMul + kAdd) & 0xFFFFu;
    return v >= 0x8000u ? static_cast<int32_t>(v) - 0x10000 : static_cast<int32_t>(v);
}

}  // namespace

// x holds n complex values, i.e. 2 n floats; each float gets one step of the
// sequence times amp / 32768. Returns that scale.
float aec_nlp_add_noise(uint32_t *seed, float *x, int n, float amp) {
    const float scale = amp * kInv32768;
    int32_t s = static_cast<int32_t>(*seed);
    for (int i = 0; i < 2 * n; ++i) {
        s = nextSeed(s);
        x[i] += static_cast<float>(s) * scale;
    }
    // Store sign-extended (also when nothing was generated).
    const int32_t low = static_cast<int32_t>(static_cast<uint32_t>(s) & 0xFFFFu);
    *seed = static_cast<uint32_t>(low >= 0x8000 ? low - 0x10000 : low);
    return scale;
}
