#include "delay.h"

#include <algorithm>
#include <cmath>

namespace kvaec::tool {

bool fft(std::vector<std::complex<double>> &x, bool inverse) {
    const size_t n = x.size();
    if (n == 0 || (n & (n - 1)) != 0) return false;
    // Bit-reversal permutation.
    for (size_t i = 1, j = 0; i < n; ++i) {
        size_t bit = n >> 1;
        for (; j & bit; bit >>= 1) j ^= bit;
        j ^= bit;
        if (i < j) std::swap(x[i], x[j]);
    }
    // Iterative radix-2 butterflies; twiddles from the exact angle per stage
    // entry, so the error does not build up along a stage.
    const double sign = inverse ? 1.0 : -1.0;
    for (size_t len = 2; len <= n; len <<= 1) {
        const size_t half = len / 2;
        for (size_t k = 0; k < half; ++k) {
            const double a = sign * 2.0 * M_PI * static_cast<double>(k) / static_cast<double>(len);
            const std::complex<double> w(std::cos(a), std::sin(a));
            for (size_t i = 0; i < n; i += len) {
                const std::complex<double> u = x[i + k];
                const std::complex<double> v = x[i + k + half] * w;
                x[i + k] = u + v;
                x[i + k + half] = u - v;
            }
        }
    }
    if (inverse)
        for (auto &v : x) v /= static_cast<double>(n);
    return true;
}

DelayEstimate estimateDelay(const std::vector<float> &far, const std::vector<float> &mic, int rate,
                            long maxDelay, double seconds) {
    DelayEstimate est;
    const long frame = rate / 100;
    const long nFrames = static_cast<long>(far.size()) / frame;
    if (nFrames <= 0 || mic.empty()) return est;
    // Frame levels of the far end, to find where it first becomes active.
    std::vector<double> lev(static_cast<size_t>(nFrames));
    double maxLev = -300;
    for (long k = 0; k < nFrames; ++k) {
        double p = 0;
        for (long i = 0; i < frame; ++i) {
            const double v = far[static_cast<size_t>(k * frame + i)];
            p += std::isfinite(v) ? v * v : 0.0;
        }
        lev[static_cast<size_t>(k)] = 10.0 * std::log10(p / static_cast<double>(frame) + 1e-30);
        maxLev = std::max(maxLev, lev[static_cast<size_t>(k)]);
    }
    const double thr = std::max(-60.0, maxLev - 40.0);
    long first = -1;
    for (long k = 0; k < nFrames; ++k)
        if (lev[static_cast<size_t>(k)] > thr) {
            first = k;
            break;
        }
    if (first < 0) return est;
    const long start = first * frame;
    const long len = std::min<long>(static_cast<long>(seconds * rate), static_cast<long>(far.size()) - start);
    const long micLen = std::min<long>(len + maxDelay, static_cast<long>(mic.size()) - start);
    if (len <= 0 || micLen <= 0) return est;
    size_t n = 1;
    while (n < static_cast<size_t>(len + micLen)) n <<= 1;
    std::vector<std::complex<double>> X(n), Y(n);
    for (long i = 0; i < len; ++i) {
        const double v = far[static_cast<size_t>(start + i)];
        X[static_cast<size_t>(i)] = std::isfinite(v) ? v : 0.0;
    }
    for (long i = 0; i < micLen; ++i) {
        const double v = mic[static_cast<size_t>(start + i)];
        Y[static_cast<size_t>(i)] = std::isfinite(v) ? v : 0.0;
    }
    fft(X, false);
    fft(Y, false);
    // Cross spectrum whitened to unit magnitude (phase transform); bins far
    // below the strongest are left out so that they do not add noise.
    double maxMag = 0;
    for (size_t k = 0; k < n; ++k) {
        Y[k] *= std::conj(X[k]);
        maxMag = std::max(maxMag, std::abs(Y[k]));
    }
    if (maxMag <= 0) return est;
    for (size_t k = 0; k < n; ++k) {
        const double m = std::abs(Y[k]);
        Y[k] = m > maxMag * 1e-6 ? Y[k] / m : 0.0;
    }
    fft(Y, true);
    // The correlation at lag d (mic later than far by d) sits at index d.
    const long maxLag = std::min<long>(maxDelay, static_cast<long>(n) - 1);
    long best = 0;
    double bestV = -1, sum = 0;
    for (long d = 0; d <= maxLag; ++d) {
        // Magnitude: an echo path of either polarity counts.
        const double v = std::fabs(Y[static_cast<size_t>(d)].real());
        sum += v;
        if (v > bestV) {
            bestV = v;
            best = d;
        }
    }
    est.found = true;
    est.delay = best;
    est.startSec = static_cast<double>(start) / rate;
    est.lengthSec = static_cast<double>(len) / rate;
    est.peakToMean = sum > 0 ? bestV / (sum / static_cast<double>(maxLag + 1)) : 0;
    return est;
}

}  // namespace kvaec::tool
