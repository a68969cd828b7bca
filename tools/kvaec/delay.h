// Bulk-delay estimation between a far-end recording and the microphone
// recording made from it: generalised cross-correlation with phase
// transform (GCC-PHAT), on a small radix-2 FFT of our own.
#ifndef KVAEC_TOOL_DELAY_H
#define KVAEC_TOOL_DELAY_H

#include <complex>
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
};

// Estimates the lag of `mic` behind `far` in [0, maxDelay] samples from the
// first `seconds` of `far` that carry activity (frames above -60 dBFS and
// within 40 dB of the loudest frame).
DelayEstimate estimateDelay(const std::vector<float> &far, const std::vector<float> &mic, int rate,
                            long maxDelay, double seconds);

}  // namespace kvaec::tool

#endif
