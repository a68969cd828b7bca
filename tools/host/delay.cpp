#include "delay.h"

#include <algorithm>
#include <cmath>
#include <new>

#include "kvaec_host.h"

namespace kvaec::tool {

namespace {

// Samples beyond this magnitude are not audio at full scale 1.0 whatever the
// gain staging: their frame is left out.
constexpr double kHugeSample = 1000.0;
// A frame this far above the 90th percentile of the frame levels is a burst.
constexpr double kBurstDb = 20.0;
// Frames below this level do not enter the percentile (silence, dither).
constexpr double kQuietDb = -100.0;

double frameLevelDb(const float *x, long n, bool &bad) {
    double p = 0;
    bad = false;
    for (long i = 0; i < n; ++i) {
        const double v = x[i];
        if (!std::isfinite(v) || std::fabs(v) > kHugeSample) {
            bad = true;
            return 0.0;
        }
        p += v * v;
    }
    return 10.0 * std::log10(p / static_cast<double>(n) + 1e-30);
}

}  // namespace

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

std::vector<uint8_t> usableFrames(const float *x, long n, int rate) {
    const long frame = std::max(1, rate / 100);
    const long nFrames = n / frame;
    std::vector<uint8_t> ok(static_cast<size_t>(std::max(0L, nFrames)), 1);
    std::vector<double> lev(ok.size(), 0.0), loud;
    for (long k = 0; k < nFrames; ++k) {
        bool bad = false;
        const double l = frameLevelDb(x + k * frame, frame, bad);
        lev[static_cast<size_t>(k)] = l;
        if (bad)
            ok[static_cast<size_t>(k)] = 0;
        else if (l > kQuietDb)
            loud.push_back(l);
    }
    if (loud.empty()) return ok;
    // 90th percentile of the audible frame levels: a burst covering less than
    // a tenth of them cannot move it.
    const size_t q = static_cast<size_t>(0.9 * static_cast<double>(loud.size() - 1));
    std::nth_element(loud.begin(), loud.begin() + static_cast<long>(q), loud.end());
    const double limit = loud[q] + kBurstDb;
    for (size_t k = 0; k < ok.size(); ++k)
        if (ok[k] && lev[k] > limit) ok[k] = 0;
    return ok;
}

DelayEstimate estimateDelay(const float *farIn, long farLen, const float *micIn, long micLen, int rate,
                            long maxDelay, double seconds) {
    DelayEstimate est;
    const long frame = std::max(1, rate / 100);
    if (farLen <= 0 || micLen <= 0) return est;
    // Copies with the unusable frames (and any non-finite tail sample) silenced.
    auto clean = [&](const float *x, long n, long &excluded) {
        std::vector<double> y(static_cast<size_t>(n));
        for (long i = 0; i < n; ++i) y[static_cast<size_t>(i)] = std::isfinite(x[i]) && std::fabs(x[i]) <= kHugeSample ? x[i] : 0.0;
        const std::vector<uint8_t> ok = usableFrames(x, n, rate);
        for (size_t k = 0; k < ok.size(); ++k)
            if (!ok[k]) {
                ++excluded;
                std::fill(y.begin() + static_cast<long>(k) * frame, y.begin() + static_cast<long>(k + 1) * frame, 0.0);
            }
        return y;
    };
    const std::vector<double> far = clean(farIn, farLen, est.farExcluded);
    const std::vector<double> mic = clean(micIn, micLen, est.micExcluded);
    const long nFrames = farLen / frame;
    if (nFrames <= 0) return est;
    // Frame levels of the far end, to find where it first becomes active.
    std::vector<double> lev(static_cast<size_t>(nFrames));
    double maxLev = -300;
    for (long k = 0; k < nFrames; ++k) {
        double p = 0;
        for (long i = 0; i < frame; ++i) {
            const double v = far[static_cast<size_t>(k * frame + i)];
            p += v * v;
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
    const double want = std::min(seconds * rate, static_cast<double>(farLen));
    const long len = std::min<long>(static_cast<long>(want), farLen - start);
    const long micTake = std::min<long>(len + maxDelay, micLen - start);
    if (len <= 0 || micTake <= 0) return est;
    size_t n = 1;
    while (n < static_cast<size_t>(len + micTake)) n <<= 1;
    std::vector<std::complex<double>> X(n), Y(n);
    for (long i = 0; i < len; ++i) X[static_cast<size_t>(i)] = far[static_cast<size_t>(start + i)];
    for (long i = 0; i < micTake; ++i) Y[static_cast<size_t>(i)] = mic[static_cast<size_t>(start + i)];
    fft(X, false);
    fft(Y, false);
    // Cross spectrum whitened to unit magnitude (phase transform); bins far
    // below the strongest are left out so that they do not add noise.
    double maxMag = 0;
    for (size_t k = 0; k < n; ++k) {
        Y[k] *= std::conj(X[k]);
        maxMag = std::max(maxMag, std::abs(Y[k]));
    }
    if (!(maxMag > 0)) return est;
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

// ---- C interface (kvaec_host.h) ----

extern "C" KVAEC_HOST_API int kvaec_host_estimate_delay(const float *far, int64_t far_len, const float *mic,
                                                        int64_t mic_len, int32_t rate, int32_t max_delay,
                                                        double seconds, kvaec_delay_result *out) {
    if (out == nullptr || far_len < 0 || mic_len < 0 || (far == nullptr && far_len > 0) ||
        (mic == nullptr && mic_len > 0) || rate < 100 || max_delay < 0 || !(seconds > 0) || !std::isfinite(seconds))
        return -1;
    *out = kvaec_delay_result{};
    try {
        const kvaec::tool::DelayEstimate e = kvaec::tool::estimateDelay(
            far, static_cast<long>(far_len), mic, static_cast<long>(mic_len), rate, max_delay, seconds);
        out->found = e.found ? 1 : 0;
        out->delay = static_cast<int32_t>(e.delay);
        out->start_sec = e.startSec;
        out->length_sec = e.lengthSec;
        out->peak_to_mean = e.peakToMean;
        out->far_excluded_frames = e.farExcluded;
        out->mic_excluded_frames = e.micExcluded;
        return 0;
    } catch (const std::bad_alloc &) {
        return -2;
    } catch (...) {
        return -2;
    }
}

extern "C" KVAEC_HOST_API int64_t kvaec_host_usable_frames(const float *x, int64_t len, int32_t rate,
                                                           uint8_t *usable) {
    if (len < 0 || rate < 100 || (len > 0 && (x == nullptr || usable == nullptr))) return -1;
    try {
        const std::vector<uint8_t> ok = kvaec::tool::usableFrames(x, static_cast<long>(len), rate);
        int64_t n = 0;
        for (size_t k = 0; k < ok.size(); ++k) {
            usable[k] = ok[k];
            n += ok[k];
        }
        return n;
    } catch (...) {
        return -2;
    }
}

extern "C" KVAEC_HOST_API int64_t kvaec_host_count_finite(const float *x, int64_t len) {
    if (x == nullptr || len <= 0) return 0;
    int64_t n = 0;
    for (int64_t i = 0; i < len; ++i) n += std::isfinite(x[i]) ? 1 : 0;
    return n;
}
