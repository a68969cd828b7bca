// The library's own floating-point mode for the entry points that run the
// frame arithmetic (aecx_process, aecx_spkeq, aecx_miceq).
//
// Recursive filters and adaptive coefficients decay into the subnormal range
// on silence and in the pauses of speech; subnormal operands cost tens to
// hundreds of cycles per operation on most processors. Rather than asking
// every host to set flush-to-zero on its audio thread, each of those entry
// points sets the mode itself for its own duration and puts the caller's
// control word back on return:
//   - subnormal results are flushed to zero and subnormal operands read as
//     zero;
//   - rounding to nearest, all floating-point exceptions masked (no trap),
// so the arithmetic is the same whatever the host set. The caller's
// exception flags are restored with its control word (the flags raised
// inside the library are not reported to the caller).
//
//   x86 (x86-64, and i386 built with SSE2 arithmetic): MXCSR, FZ and DAZ.
//   AArch64: FPCR.FZ (flushes operands and results).
//   32-bit ARM with a VFP unit: FPSCR.FZ (the same meaning). NEON on 32-bit
//     ARM always flushes; the library does not use it there.
// Other targets keep the caller's mode (no switch); so does a 32-bit x86
// build with x87 arithmetic (the x87 unit has no flush-to-zero mode).
//
// Internal to the library (not exported).
#ifndef KVAEC_CORE_FPENV_H
#define KVAEC_CORE_FPENV_H

#include <cstdint>

#if defined(__x86_64__) || (defined(__i386__) && defined(__SSE_MATH__))
#define KVAEC_FPENV_MXCSR 1
#elif defined(__aarch64__)
#define KVAEC_FPENV_FPCR 1
#elif defined(__arm__) && defined(__ARM_FP)
#define KVAEC_FPENV_FPSCR 1
#endif

namespace kvaec::fpenv {

#if defined(KVAEC_FPENV_MXCSR)
// MXCSR: FZ (bit 15) and DAZ (bit 6) set, rounding control (bits 13-14) to
// nearest, the six exception masks (bits 7-12) set, the flags (bits 0-5)
// clear.
constexpr uint32_t kLibraryMode = 0x9FC0u;

inline uint32_t read() {
    uint32_t v;
    __asm__ __volatile__("stmxcsr %0" : "=m"(v) : : "memory");
    return v;
}
inline void write(uint32_t v) { __asm__ __volatile__("ldmxcsr %0" : : "m"(v) : "memory"); }
inline uint32_t libraryMode(uint32_t) { return kLibraryMode; }

#elif defined(KVAEC_FPENV_FPCR) || defined(KVAEC_FPENV_FPSCR)
// FPCR (AArch64) and FPSCR (32-bit ARM) share these bits: FZ (24), rounding
// mode (22-23; 0 = to nearest), trap enables IOE..IXE (8-12) and IDE (15).
constexpr uint32_t kFz = 1u << 24;
constexpr uint32_t kRMode = 3u << 22;
constexpr uint32_t kTraps = 0x9F00u;

#if defined(KVAEC_FPENV_FPCR)
inline uint32_t read() {
    uint64_t v;
    __asm__ __volatile__("mrs %0, fpcr" : "=r"(v) : : "memory");
    return static_cast<uint32_t>(v);
}
inline void write(uint32_t v) {
    const uint64_t w = v;
    __asm__ __volatile__("msr fpcr, %0" : : "r"(w) : "memory");
}
#else
inline uint32_t read() {
    uint32_t v;
    __asm__ __volatile__("vmrs %0, fpscr" : "=r"(v) : : "memory");
    return v;
}
inline void write(uint32_t v) { __asm__ __volatile__("vmsr fpscr, %0" : : "r"(v) : "memory"); }
#endif
inline uint32_t libraryMode(uint32_t caller) { return (caller & ~(kRMode | kTraps)) | kFz; }

#endif

#if defined(KVAEC_FPENV_MXCSR) || defined(KVAEC_FPENV_FPCR) || defined(KVAEC_FPENV_FPSCR)
// Sets the library's mode on construction and restores the caller's control
// word on destruction. Written only when it differs (a write can stall the
// floating-point pipeline on some cores).
class Scope {
public:
    Scope() : caller_(read()) {
        const uint32_t mode = libraryMode(caller_);
        if (mode != caller_) write(mode);
    }
    ~Scope() {
        // Restores the word as the caller left it (control bits and flags).
        write(caller_);
    }
    Scope(const Scope &) = delete;
    Scope &operator=(const Scope &) = delete;

private:
    uint32_t caller_;
};
#else
class Scope {
public:
    Scope() = default;
    Scope(const Scope &) = delete;
    Scope &operator=(const Scope &) = delete;
};
#endif

}  // namespace kvaec::fpenv

#endif
