// Bulk-delay estimation between a far-end recording and the microphone
// recording made from it: generalised cross-correlation with phase
// transform (GCC-PHAT), on a small radix-2 FFT of our own, with bad samples
// (non-finite values, bursts of huge values) left out. The C interface of
// libkvaec_host (kvaec_host.h) wraps these functions; the kvaec tool links
// them directly.
#ifndef KVAEC_HOST_DELAY_H
#define KVAEC_HOST_DELAY_H

#include <complex>
#include <cstdint>
#include <vector>

namespace kvaec::tool {

// In-place complex FFT of a power-of-two length (forward: e^{-j2pi nk/N};
// inverse: e^{+j2pi nk/N} and divided by N). Returns false for a length that
// is not a power of two.
bool fft(std::vector<std::complex<double>> &x, bool inverse);

struct DelayEstimate {
    bool found = false;       // false: no far-end activity to estimate from
    long delay = 0;           // samples by which the microphone lags the far end
    double startSec = 0;      // start of the analysed stretch
    double lengthSec = 0;     // its length
    double peakToMean = 0;    // correlation peak over the mean magnitude (confidence)
    long farExcluded = 0;     // 10 ms far-end frames left out (non-finite samples, bursts)
    long micExcluded = 0;     // the same for the microphone
};

// Marks the usable 10 ms frames of `x` (one entry per whole frame): a frame
// is unusable when it holds a non-finite sample, a sample beyond +-1000, or
// its level lies more than 20 dB above the 90th percentile of the frame
// levels (over frames above -100 dBFS).
std::vector<uint8_t> usableFrames(const float *x, long n, int rate);

// Estimates the lag of `mic` behind `far` in [0, maxDelay] samples from the
// first `seconds` of `far` that carry activity (frames above -60 dBFS and
// within 40 dB of the loudest usable frame); unusable frames count as silence.
DelayEstimate estimateDelay(const float *far, long farLen, const float *mic, long micLen, int rate, long maxDelay,
                            double seconds);
inline DelayEstimate estimateDelay(const std::vector<float> &far, const std::vector<float> &mic, int rate,
                                   long maxDelay, double seconds) {
    return estimateDelay(far.data(), static_cast<long>(far.size()), mic.data(), static_cast<long>(mic.size()), rate,
                         maxDelay, seconds);
}

}  // namespace kvaec::tool

#endif
