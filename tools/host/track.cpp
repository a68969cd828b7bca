#include "track.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

namespace kvaec::tool {

namespace {

constexpr double kPi = 3.14159265358979323846;
// Bad-sample rule (the one of usableFrames in delay.cpp).
constexpr double kHugeSample = 1000.0;
constexpr double kBurstDb = 20.0;
constexpr double kQuietDb = -100.0;
// Histogram of frame levels for the running 90th percentile: 0.1 dB bins
// from -100 to +70 dBFS (a sample of 1000 is +60 dBFS).
constexpr double kHistLow = -100.0;
constexpr double kHistStep = 0.1;
constexpr int kHistBins = 1700;
// A window is active when a fifth of its 10 ms far-end frames are above
// -60 dBFS and within 40 dB of the loudest frame so far.
constexpr double kActiveFloor = 1e-6;
constexpr double kActiveRange = 1e-4;
constexpr double kActiveShare = 0.2;
// Confidence is the correlation peak over the robust standard deviation of
// the whole correlation (1.4826 x median magnitude): about 4-5 for the
// largest of thousands of lags of unrelated signals, 20-100 for an echo
// 10 dB down over 4 s. A window is confident from 8 on.
constexpr double kTrustConf = 8.0;
constexpr double kCoarseConf = 6.0;
// Phase transform: bins far below the mean cross-spectrum magnitude are
// weighted by their magnitude instead of being raised to unit weight, so
// that bands where the far end carries nothing add little noise.
constexpr double kPhatFloor = 0.05;
// Streaming: a lock is dropped after this many active windows in a row
// without a consistent fix.
constexpr int kMaxMisses = 3;
// Rate probe length.
constexpr double kProbeSec = 30.0;
// A drift of 0.5 % or more is a wrongly declared rate, not a clock.
constexpr double kRateMismatchPpm = 5000.0;

inline std::complex<double> cmul(std::complex<double> a, std::complex<double> b) {
    return {a.real() * b.real() - a.imag() * b.imag(), a.real() * b.imag() + a.imag() * b.real()};
}

size_t pow2AtLeast(int64_t n) {
    size_t p = 1;
    while (static_cast<int64_t>(p) < n) p <<= 1;
    return p;
}

// Copies samples [start, start + len) of a view (silence outside).
void copySpan(const SampleView &v, int64_t start, int64_t len, std::vector<double> &dst) {
    dst.resize(static_cast<size_t>(std::max<int64_t>(0, len)));
    for (int64_t i = 0; i < len; ++i) dst[static_cast<size_t>(i)] = v.at(start + i);
}

double median(std::vector<double> &v) {
    if (v.empty()) return 0;
    const size_t h = v.size() / 2;
    std::nth_element(v.begin(), v.begin() + static_cast<long>(h), v.end());
    return v[h];
}

// Least-squares line y = a + b (x - x0) through points.
struct Line {
    double x0 = 0, a = 0, b = 0, sd = 0;
    double at(double x) const { return a + b * (x - x0); }
};

template <class GetX, class GetY>
Line fitLine(size_t from, size_t to, GetX gx, GetY gy) {
    Line l;
    const double n = static_cast<double>(to - from);
    if (to <= from) return l;
    for (size_t i = from; i < to; ++i) l.x0 += gx(i);
    l.x0 /= n;
    double sy = 0, sxx = 0, sxy = 0;
    for (size_t i = from; i < to; ++i) sy += gy(i);
    const double my = sy / n;
    for (size_t i = from; i < to; ++i) {
        const double dx = gx(i) - l.x0;
        sxx += dx * dx;
        sxy += dx * (gy(i) - my);
    }
    l.b = sxx > 0 ? sxy / sxx : 0.0;
    l.a = my;
    double ss = 0;
    for (size_t i = from; i < to; ++i) {
        const double r = gy(i) - l.at(gx(i));
        ss += r * r;
    }
    l.sd = to - from > 2 ? std::sqrt(ss / (n - 2)) : 0.0;
    return l;
}

// Least-squares continuous piecewise-linear fit with knots: basis 1, x and
// (x - k)+ per knot. Returns the residual sum of squares; `coef` gets the
// coefficients (x measured from x0).
double splineFit(const std::vector<double> &x, const std::vector<double> &y, const std::vector<uint8_t> &use,
                 const std::vector<double> &knots, double x0, std::vector<double> &coef) {
    const size_t p = 2 + knots.size();
    std::vector<double> A(p * p, 0.0), r(p, 0.0), f(p);
    for (size_t i = 0; i < x.size(); ++i) {
        if (!use[i]) continue;
        f[0] = 1;
        f[1] = x[i] - x0;
        for (size_t k = 0; k < knots.size(); ++k) f[2 + k] = std::max(0.0, x[i] - knots[k]);
        for (size_t a = 0; a < p; ++a) {
            r[a] += f[a] * y[i];
            for (size_t b = 0; b < p; ++b) A[a * p + b] += f[a] * f[b];
        }
    }
    // Gaussian elimination with partial pivoting.
    for (size_t c = 0; c < p; ++c) {
        size_t piv = c;
        for (size_t i = c + 1; i < p; ++i)
            if (std::fabs(A[i * p + c]) > std::fabs(A[piv * p + c])) piv = i;
        if (std::fabs(A[piv * p + c]) < 1e-300) {
            coef.assign(p, 0.0);
            return 1e300;
        }
        if (piv != c) {
            for (size_t j = 0; j < p; ++j) std::swap(A[c * p + j], A[piv * p + j]);
            std::swap(r[c], r[piv]);
        }
        for (size_t i = c + 1; i < p; ++i) {
            const double m = A[i * p + c] / A[c * p + c];
            for (size_t j = c; j < p; ++j) A[i * p + j] -= m * A[c * p + j];
            r[i] -= m * r[c];
        }
    }
    coef.assign(p, 0.0);
    for (size_t c = p; c-- > 0;) {
        double s = r[c];
        for (size_t j = c + 1; j < p; ++j) s -= A[c * p + j] * coef[j];
        coef[c] = s / A[c * p + c];
    }
    double rss = 0;
    for (size_t i = 0; i < x.size(); ++i) {
        if (!use[i]) continue;
        double v = coef[0] + coef[1] * (x[i] - x0);
        for (size_t k = 0; k < knots.size(); ++k) v += coef[2 + k] * std::max(0.0, x[i] - knots[k]);
        rss += (y[i] - v) * (y[i] - v);
    }
    return rss;
}

double splineAt(const std::vector<double> &coef, const std::vector<double> &knots, double x0, double x) {
    double v = coef[0] + coef[1] * (x - x0);
    for (size_t k = 0; k < knots.size(); ++k) v += coef[2 + k] * std::max(0.0, x - knots[k]);
    return v;
}

double splineSlope(const std::vector<double> &coef, const std::vector<double> &knots, double x) {
    double s = coef[1];
    for (size_t k = 0; k < knots.size(); ++k)
        if (x >= knots[k]) s += coef[2 + k];
    return s;
}

// Peak of the band-limited correlation r(tau) = sum_k c_k Re(W_k e^{j w_k tau})
// near the integer lag m (Newton steps on the exact interpolant, so the
// estimate has no bias from a parabola laid over a sinc-shaped peak).
double refinePeak(const std::vector<std::complex<double>> &W, size_t n, int64_t m, double sign) {
    const size_t half = n / 2;
    double tau = static_cast<double>(m);
    const double w0 = 2.0 * kPi / static_cast<double>(n);
    for (int it = 0; it < 5; ++it) {
        const std::complex<double> step(std::cos(w0 * tau), std::sin(w0 * tau));
        std::complex<double> rot(1.0, 0.0);
        double d1 = 0, d2 = 0;
        for (size_t k = 0; k <= half; ++k) {
            const double c = (k == 0 || k == half) ? 1.0 : 2.0;
            const std::complex<double> v = cmul(W[k], rot);
            const double w = w0 * static_cast<double>(k);
            d1 -= c * w * v.imag();
            d2 -= c * w * w * v.real();
            rot = cmul(rot, step);
        }
        d1 *= sign;
        d2 *= sign;
        if (!(d2 < 0)) break;
        const double next = tau - d1 / d2;
        if (!(std::fabs(next - static_cast<double>(m)) <= 1.0)) break;
        const bool done = std::fabs(next - tau) < 1e-7;
        tau = next;
        if (done) break;
    }
    return tau;
}

}  // namespace

// ---- FFT ----

FftPlan::FftPlan(size_t n) : n_(n), tw_(n / 2), rev_(n) {
    for (size_t k = 0; k < n / 2; ++k) {
        const double a = -2.0 * kPi * static_cast<double>(k) / static_cast<double>(n);
        tw_[k] = {std::cos(a), std::sin(a)};
    }
    int bits = 0;
    while ((static_cast<size_t>(1) << bits) < n) ++bits;
    for (size_t i = 0; i < n; ++i) {
        uint32_t r = 0;
        for (int b = 0; b < bits; ++b)
            if (i & (static_cast<size_t>(1) << b)) r |= 1u << (bits - 1 - b);
        rev_[i] = r;
    }
}

void FftPlan::run(std::complex<double> *x, bool inverse) const {
    const size_t n = n_;
    for (size_t i = 0; i < n; ++i)
        if (i < rev_[i]) std::swap(x[i], x[rev_[i]]);
    double *d = reinterpret_cast<double *>(x);
    const double sg = inverse ? -1.0 : 1.0;
    // First stage (twiddle 1) apart: it is a quarter of the work.
    for (size_t i = 0; i < n; i += 2) {
        const double ur = d[2 * i], ui = d[2 * i + 1], vr = d[2 * i + 2], vi = d[2 * i + 3];
        d[2 * i] = ur + vr;
        d[2 * i + 1] = ui + vi;
        d[2 * i + 2] = ur - vr;
        d[2 * i + 3] = ui - vi;
    }
    for (size_t len = 4; len <= n; len <<= 1) {
        const size_t half = len / 2, stride = n / len;
        for (size_t i = 0; i < n; i += len) {
            for (size_t k = 0; k < half; ++k) {
                const double wr = tw_[k * stride].real(), wi = sg * tw_[k * stride].imag();
                double *u = d + 2 * (i + k);
                double *v = d + 2 * (i + k + half);
                const double tr = v[0] * wr - v[1] * wi, ti = v[0] * wi + v[1] * wr;
                v[0] = u[0] - tr;
                v[1] = u[1] - ti;
                u[0] += tr;
                u[1] += ti;
            }
        }
    }
}

// ---- stream with the bad-sample rule ----

TrackStream::TrackStream(int rate) : rate_(rate), frame_(std::max(1, rate / 100)), hist_(kHistBins, 0) {}

double TrackStream::percentile90() {
    if (histN_ == 0) return -300;
    const uint64_t want = static_cast<uint64_t>(0.9 * static_cast<double>(histN_ - 1));
    uint64_t c = 0;
    for (int b = 0; b < kHistBins; ++b) {
        c += hist_[static_cast<size_t>(b)];
        if (c > want) return kHistLow + (b + 1) * kHistStep;
    }
    return kHistLow + kHistBins * kHistStep;
}

void TrackStream::commitFrame(const float *x, int n) {
    double p = 0, peak = 0;
    bool bad = false;
    for (int i = 0; i < n; ++i) {
        const double v = x[i];
        if (!std::isfinite(v) || std::fabs(v) > kHugeSample) {
            bad = true;
            break;
        }
        p += v * v;
        peak = std::max(peak, std::fabs(v));
    }
    p = bad ? 0.0 : p / n;
    if (!bad) {
        const double l = 10.0 * std::log10(p + 1e-30);
        if (l > kQuietDb) {
            const int b = std::min(kHistBins - 1, std::max(0, static_cast<int>((l - kHistLow) / kHistStep)));
            ++hist_[static_cast<size_t>(b)];
            ++histN_;
            // The percentile moves slowly once there are a few hundred frames.
            if (histN_ < 256 || ++sinceP90_ >= 32) {
                p90_ = percentile90();
                sinceP90_ = 0;
            }
            if (l > p90_ + kBurstDb && peak > 1.0) bad = true;
        }
    }
    if (bad) ++excluded_;
    const size_t at = buf_.size();
    buf_.resize(at + static_cast<size_t>(n));
    if (bad) {
        std::fill(buf_.begin() + static_cast<long>(at), buf_.end(), 0.0f);
        p = 0;
    } else {
        std::memcpy(buf_.data() + at, x, static_cast<size_t>(n) * sizeof(float));
        loudest_ = std::max(loudest_, p);
    }
    pow_.push_back(static_cast<float>(p));
    max_.push_back(static_cast<float>(loudest_));
    if (probe_) {
        for (int i = 0; i < n; ++i) {
            const int64_t idx = total_ + i;
            if (idx >= probeFrom_ && idx < probeFrom_ + probeLen_) probe_->push_back(buf_[at + static_cast<size_t>(i)]);
        }
    }
    total_ += n;
}

void TrackStream::push(const float *x, int64_t n) {
    int64_t i = 0;
    // Complete a pending partial frame first.
    if (!pend_.empty()) {
        while (i < n && static_cast<int>(pend_.size()) < frame_) pend_.push_back(x[i++]);
        if (static_cast<int>(pend_.size()) < frame_) return;
        commitFrame(pend_.data(), frame_);
        pend_.clear();
    }
    for (; i + frame_ <= n; i += frame_) commitFrame(x + i, frame_);
    for (; i < n; ++i) pend_.push_back(x[i]);
}

void TrackStream::flush() {
    if (!pend_.empty()) {
        commitFrame(pend_.data(), static_cast<int>(pend_.size()));
        pend_.clear();
    }
}

double TrackStream::framePower(int64_t frame) const {
    const int64_t f0 = base_ / frame_;
    if (frame < f0 || frame - f0 >= static_cast<int64_t>(pow_.size())) return 0.0;
    return pow_[static_cast<size_t>(frame - f0)];
}

double TrackStream::loudestUpTo(int64_t frame) const {
    const int64_t f0 = base_ / frame_;
    if (max_.empty() || frame < f0) return 0.0;
    return max_[static_cast<size_t>(std::min<int64_t>(frame - f0, static_cast<int64_t>(max_.size()) - 1))];
}

void TrackStream::discardBefore(int64_t i) {
    i = std::min(i, total_);
    i -= i % frame_;
    // Move the kept samples down only once a good share can go.
    if (i - base_ < std::max<int64_t>(static_cast<int64_t>(frame_) * 100, static_cast<int64_t>(buf_.size() / 2))) return;
    const size_t drop = static_cast<size_t>(i - base_);
    buf_.erase(buf_.begin(), buf_.begin() + static_cast<long>(drop));
    pow_.erase(pow_.begin(), pow_.begin() + static_cast<long>(drop / static_cast<size_t>(frame_)));
    max_.erase(max_.begin(), max_.begin() + static_cast<long>(drop / static_cast<size_t>(frame_)));
    base_ = i;
}

void TrackStream::setProbe(std::vector<float> *probe, int64_t from, int64_t len) {
    probe_ = probe;
    probeFrom_ = from;
    probeLen_ = len;
}

// ---- the track ----

DelayTrack::DelayTrack(int rate, const kvaec_track_params &p)
    : rate_(rate),
      p_(p),
      W_(static_cast<int64_t>(std::llround(p.window_sec * rate))),
      hop_(std::max<int64_t>(1, static_cast<int64_t>(std::llround(p.hop_sec * rate)))),
      maxOff_(static_cast<int64_t>(std::ceil(p.max_offset_sec * rate))),
      M_(std::max(16, rate / 32)),
      q_(std::max(1, rate / 4000)),
      narrowPlan_(pow2AtLeast(static_cast<int64_t>(std::max(1, rate / 4)) + 2 * std::max(16, rate / 32))),
      coarsePlan_(pow2AtLeast((W_ + 2 * (maxOff_ + std::max(1, rate / 4000))) / std::max(1, rate / 4000) + 2)),
      far_(rate),
      mic_(rate) {
    B_ = static_cast<int64_t>(narrowPlan_.size()) - 2 * M_;
    for (size_t n = narrowPlan_.size() / 2; static_cast<int64_t>(n) >= 4 * M_; n /= 2) smallPlans_.emplace_back(n);
    // Decimation low-pass for the coarse search: Blackman-windowed sinc with
    // its cut-off at 0.4 of the decimated rate.
    const int taps = static_cast<int>(8 * q_ + 1);
    decim_.resize(static_cast<size_t>(taps));
    const double fc = 0.8 / static_cast<double>(q_);
    for (int k = 0; k < taps; ++k) {
        const double x = k - (taps - 1) / 2.0;
        const double s = x == 0 ? 1.0 : std::sin(kPi * fc * x) / (kPi * fc * x);
        const double w = taps == 1 ? 1.0
                                   : 0.42 - 0.5 * std::cos(2 * kPi * k / (taps - 1)) +
                                         0.08 * std::cos(4 * kPi * k / (taps - 1));
        decim_[static_cast<size_t>(k)] = fc * s * w;
    }
    probeLen_ = static_cast<int64_t>(std::max(kProbeSec, 6 * p.window_sec + 2 * p.max_offset_sec) * rate);
    probeLen_ -= probeLen_ % far_.frameLen();
    far_.setProbe(&probeFar_, 0, probeLen_);
    mic_.setProbe(&probeMic_, 0, probeLen_);
}

int64_t DelayTrack::keptSamples() const {
    return static_cast<int64_t>(far_.total() - far_.base() + mic_.total() - mic_.base() + probeFar_.size() +
                                probeMic_.size());
}

int DelayTrack::push(const float *far, int64_t farN, const float *mic, int64_t micN) {
    if (finished_) return -1;
    if (farN > 0) far_.push(far, farN);
    if (micN > 0) mic_.push(mic, micN);
    analyseReady(false);
    return 0;
}

void DelayTrack::analyseReady(bool atEnd) {
    const int64_t span = W_;
    const int64_t tail = static_cast<int64_t>(decim_.size()) + 64;
    const int64_t drift = static_cast<int64_t>(std::ceil(p_.max_drift_ppm * 1e-6 * static_cast<double>(span))) + 2;
    for (;;) {
        const int64_t a = next_;
        if (a + span > far_.total()) break;
        if (!atEnd && (far_.total() < a + span + tail || mic_.total() < a + span + maxOff_ + M_ + drift + tail)) break;
        analyseWindow(a);
        next_ += hop_;
        if (probing_) probeCheck(false);
        far_.discardBefore(next_ - hop_ - tail);
        mic_.discardBefore(next_ - hop_ - maxOff_ - M_ - drift - tail);
    }
}

bool DelayTrack::farActive(int64_t a) const {
    const int fl = far_.frameLen();
    // The loudest frame up to the window's end (not up to whatever was
    // pushed), so that the result does not depend on the block sizes.
    const double thr = std::max(kActiveFloor, far_.loudestUpTo((a + W_) / fl - 1) * kActiveRange);
    int64_t on = 0, all = 0;
    for (int64_t f = a / fl; f < (a + W_) / fl; ++f, ++all)
        if (far_.framePower(f) > thr) ++on;
    return all > 0 && static_cast<double>(on) >= kActiveShare * static_cast<double>(all);
}

double DelayTrack::predict(double c, double &tol) const {
    const double base = 0.5 * p_.break_sec * rate_;
    const auto &last = model_.back();
    const double dt = std::fabs(c - last.first);
    if (model_.size() >= 3 && model_.back().first - model_.front().first >= 10.0 * rate_) {
        const Line l = fitLine(
            0, model_.size(), [&](size_t i) { return model_[i].first; }, [&](size_t i) { return model_[i].second; });
        tol = base + 4 * l.sd + 20e-6 * dt;
        return l.at(c);
    }
    tol = base + (slopeKnown_ ? 50e-6 : p_.max_drift_ppm * 1e-6) * dt;
    return last.second + slope_ * (c - last.first);
}

TrackFix DelayTrack::narrow(const SampleView &far, const SampleView &mic, int64_t a, double d0, double slope,
                            int64_t from, int64_t len) {
    TrackFix fx;
    // The drift inside one block is not compensated: where it would smear
    // the peak by more than half a sample, shorter blocks are used.
    const FftPlan *plan = &narrowPlan_;
    for (const FftPlan &pl : smallPlans_)
        if (std::fabs(slope) * static_cast<double>(plan->size() - 2 * static_cast<size_t>(M_)) > 0.5) plan = &pl;
    const size_t N = plan->size(), half = N / 2;
    const int64_t B = static_cast<int64_t>(N) - 2 * M_;
    if (len < 0) len = W_ - from;
    z_.resize(N);
    acc_.assign(half + 1, {0.0, 0.0});
    const double c = static_cast<double>(a) + static_cast<double>(W_) / 2.0;
    std::vector<double> xs, ys;
    // Blocks of B far-end samples against B + 2M microphone samples fill the
    // transform exactly; every lag in [0, 2M] sees the whole block.
    for (int64_t s = from; s < from + len; s += B) {
        const int64_t bl = std::min(B, from + len - s);
        const int64_t fb = a + s;
        const double dp = d0 + slope * (static_cast<double>(fb) + static_cast<double>(bl) / 2.0 - c);
        const double fl = std::floor(dp);
        const int64_t ni = static_cast<int64_t>(fl);
        const double f = dp - fl;
        copySpan(far, fb, bl, xs);
        copySpan(mic, fb + ni - M_, bl + 2 * M_, ys);
        for (size_t i = 0; i < N; ++i)
            z_[i] = {i < xs.size() ? xs[i] : 0.0, i < ys.size() ? ys[i] : 0.0};
        plan->forward(z_.data());
        // Unpack the two real spectra, cross spectrum, and shift by the
        // fractional part of the predicted delay so that every block's peak
        // lines up at lag M + residual.
        const double wf = 2.0 * kPi * f / static_cast<double>(N);
        const std::complex<double> step(std::cos(wf), std::sin(wf));
        std::complex<double> rot(1.0, 0.0);
        for (size_t k = 0; k <= half; ++k) {
            const std::complex<double> zk = z_[k], zc = std::conj(z_[(N - k) & (N - 1)]);
            const std::complex<double> X = 0.5 * (zk + zc);
            const std::complex<double> d = zk - zc;
            const std::complex<double> Y(0.5 * d.imag(), -0.5 * d.real());
            acc_[k] += cmul(cmul(std::conj(X), Y), rot);
            rot = cmul(rot, step);
        }
    }
    double mean = 0;
    for (size_t k = 0; k <= half; ++k) mean += std::abs(acc_[k]);
    mean /= static_cast<double>(half + 1);
    if (!(mean > 0)) return fx;
    const double floor = kPhatFloor * mean;
    for (size_t k = 0; k <= half; ++k) acc_[k] /= std::abs(acc_[k]) + floor;
    acc_[0] = {acc_[0].real(), 0.0};
    acc_[half] = {acc_[half].real(), 0.0};
    for (size_t k = 0; k <= half; ++k) z_[k] = acc_[k];
    for (size_t k = 1; k < half; ++k) z_[N - k] = std::conj(acc_[k]);
    plan->inverse(z_.data());
    int64_t best = -1;
    double bestV = 0;
    for (int64_t m = 1; m < 2 * M_; ++m) {
        const double v = std::fabs(z_[static_cast<size_t>(m)].real());
        if (v > bestV) {
            bestV = v;
            best = m;
        }
    }
    mag_.resize(N);
    for (size_t i = 0; i < N; ++i) mag_[i] = std::fabs(z_[i].real());
    const double sd = 1.4826 * median(mag_);
    if (best < 0 || !(sd > 0)) return fx;
    const double sign = z_[static_cast<size_t>(best)].real() >= 0 ? 1.0 : -1.0;
    const double tau = refinePeak(acc_, N, best, sign);
    fx.ok = true;
    fx.conf = bestV / sd;
    fx.delay = d0 + (tau - static_cast<double>(M_));
    return fx;
}

TrackFix DelayTrack::coarse(const SampleView &far, const SampleView &mic, int64_t a, int64_t maxOff) {
    TrackFix fx;
    const int64_t q = q_;
    const int64_t K = static_cast<int64_t>(decim_.size()), hk = K / 2;
    const int64_t offQ = (maxOff + q - 1) / q;
    const int64_t lx = W_ / q, ly = lx + 2 * offQ;
    const size_t N = coarsePlan_.size();
    if (ly > static_cast<int64_t>(N)) return fx;
    std::vector<double> xs, ys;
    auto decimate = [&](const SampleView &v, int64_t start, int64_t len, std::vector<double> &out) {
        std::vector<double> raw;
        copySpan(v, start - hk, len * q + K, raw);
        out.assign(static_cast<size_t>(len), 0.0);
        for (int64_t i = 0; i < len; ++i) {
            const double *s = raw.data() + i * q;
            double acc = 0;
            for (int64_t k = 0; k < K; ++k) acc += decim_[static_cast<size_t>(k)] * s[k];
            out[static_cast<size_t>(i)] = acc;
        }
    };
    decimate(far, a, lx, xs);
    decimate(mic, a - offQ * q, ly, ys);
    z_.resize(N);
    for (size_t i = 0; i < N; ++i)
        z_[i] = {i < xs.size() ? xs[i] : 0.0, i < ys.size() ? ys[i] : 0.0};
    coarsePlan_.forward(z_.data());
    const size_t half = N / 2;
    acc_.assign(half + 1, {0.0, 0.0});
    double mean = 0;
    for (size_t k = 0; k <= half; ++k) {
        const std::complex<double> zk = z_[k], zc = std::conj(z_[(N - k) & (N - 1)]);
        const std::complex<double> X = 0.5 * (zk + zc);
        const std::complex<double> d = zk - zc;
        const std::complex<double> Y(0.5 * d.imag(), -0.5 * d.real());
        acc_[k] = cmul(std::conj(X), Y);
        mean += std::abs(acc_[k]);
    }
    mean /= static_cast<double>(half + 1);
    if (!(mean > 0)) return fx;
    for (size_t k = 0; k <= half; ++k) acc_[k] /= std::abs(acc_[k]) + kPhatFloor * mean;
    for (size_t k = 0; k <= half; ++k) z_[k] = acc_[k];
    for (size_t k = 1; k < half; ++k) z_[N - k] = std::conj(acc_[k]);
    z_[0] = {z_[0].real(), 0.0};
    z_[half] = {z_[half].real(), 0.0};
    coarsePlan_.inverse(z_.data());
    int64_t best = -1;
    double bestV = 0;
    for (int64_t m = 0; m <= 2 * offQ && m < static_cast<int64_t>(N); ++m) {
        const double v = std::fabs(z_[static_cast<size_t>(m)].real());
        if (v > bestV) {
            bestV = v;
            best = m;
        }
    }
    mag_.resize(N);
    for (size_t i = 0; i < N; ++i) mag_[i] = std::fabs(z_[i].real());
    const double sd = 1.4826 * median(mag_);
    if (best < 0 || !(sd > 0)) return fx;
    double frac = 0;
    if (best > 0 && best < 2 * offQ) {
        const double l = std::fabs(z_[static_cast<size_t>(best - 1)].real());
        const double r = std::fabs(z_[static_cast<size_t>(best + 1)].real());
        const double den = l - 2 * bestV + r;
        if (den < 0) frac = std::max(-0.5, std::min(0.5, 0.5 * (l - r) / den));
    }
    fx.ok = true;
    fx.conf = bestV / sd;
    fx.delay = (static_cast<double>(best) + frac - static_cast<double>(offQ)) * static_cast<double>(q);
    return fx;
}

void DelayTrack::analyseWindow(int64_t a) {
    const size_t wi = win_.size();
    kvaec_track_window w{};
    Meta mt;
    const int64_t span = W_;
    const double c = static_cast<double>(a) + static_cast<double>(span) / 2.0;
    mt.farCentre = c;
    const int fl = far_.frameLen();
    double fp = 0;
    int64_t nf = 0;
    for (int64_t f = a / fl; f < (a + span) / fl; ++f, ++nf) fp += far_.framePower(f);
    w.far_level_db = static_cast<float>(10.0 * std::log10(fp / static_cast<double>(std::max<int64_t>(1, nf)) + 1e-30));
    const bool active = farActive(a);
    w.active = active ? 1 : 0;
    double tol = 0;
    const double pred = model_.empty() ? (havePending_ ? pending_.second : 0.0) : predict(c, tol);
    double delay = pred;
    if (active && !rateMismatch_) {
        SampleView fv{&far_, nullptr}, mv{&mic_, nullptr};
        TrackFix fx;
        bool consistent = false;
        if (!model_.empty()) {
            fx = narrow(fv, mv, a, pred, slope_);
            if (!slopeKnown_ && fx.ok && fx.conf >= kTrustConf) fx = withOwnSlope(fv, mv, a, fx);
            consistent = fx.ok && fx.conf >= kTrustConf && std::fabs(fx.delay - pred) <= tol;
        }
        if (!consistent) {
            const TrackFix co = coarse(fv, mv, a, maxOff_);
            if (co.ok && co.conf >= kCoarseConf) {
                TrackFix f2 = narrow(fv, mv, a, co.delay, slope_);
                if (!slopeKnown_ && f2.ok && f2.conf >= kTrustConf) f2 = withOwnSlope(fv, mv, a, f2);
                if (f2.ok && (f2.conf >= kTrustConf || f2.conf > fx.conf)) fx = f2;
                consistent = !model_.empty() && fx.conf >= kTrustConf && std::fabs(fx.delay - pred) <= tol;
            }
        }
        w.confidence = fx.conf;
        mt.confident = fx.ok && fx.conf >= kTrustConf;
        if (mt.confident) {
            delay = fx.delay;
            mt.delay = fx.delay;
        }
        win_.push_back(w);
        meta_.push_back(mt);
        if (mt.confident) {
            if (consistent) {
                model_.emplace_back(c, fx.delay);
                meta_[wi].follows = true;
                havePending_ = false;
                misses_ = 0;
            } else {
                if (!model_.empty() && !havePending_) {
                    const double u = locateJump(fv, mv, a, pred, slope_, fx.delay);
                    if (u >= 0) jumpHints_.push_back((u + 0.5 * (pred + fx.delay)) / rate_);
                }
                const double dtp = std::fabs(c - pending_.first);
                if (havePending_ && std::fabs(fx.delay - (pending_.second + slope_ * (c - pending_.first))) <=
                                        0.5 * p_.break_sec * rate_ + p_.max_drift_ppm * 1e-6 * dtp) {
                    model_.clear();
                    model_.push_back(pending_);
                    model_.emplace_back(c, fx.delay);
                    meta_[pendingWin_].follows = true;
                    meta_[wi].follows = true;
                    havePending_ = false;
                    misses_ = 0;
                } else {
                    pending_ = {c, fx.delay};
                    pendingWin_ = wi;
                    havePending_ = true;
                    ++misses_;
                }
            }
        } else {
            ++misses_;
        }
        if (misses_ >= kMaxMisses) model_.clear();
        if (model_.size() > 30) model_.erase(model_.begin());
        if (model_.size() >= 3 && model_.back().first - model_.front().first >= 10.0 * rate_) {
            slope_ = fitLine(
                         0, model_.size(), [&](size_t i) { return model_[i].first; },
                         [&](size_t i) { return model_[i].second; })
                         .b;
            slopeKnown_ = true;
        }
        if (meta_[wi].follows) latest_ = static_cast<int>(wi);
    } else {
        win_.push_back(w);
        meta_.push_back(mt);
    }
    // Window time on the microphone's time line; microphone level there.
    kvaec_track_window &ww = win_[wi];
    meta_[wi].delay = delay;
    ww.delay_sec = delay / rate_;
    ww.time_sec = (c + delay) / rate_;
    double mp = 0;
    int64_t nm = 0;
    const int64_t ms = a + static_cast<int64_t>(std::llround(delay));
    for (int64_t f = ms / fl; f < (ms + span) / fl; ++f, ++nm) mp += mic_.framePower(f);
    ww.mic_level_db = static_cast<float>(10.0 * std::log10(mp / static_cast<double>(std::max<int64_t>(1, nm)) + 1e-30));
}

TrackFix DelayTrack::withOwnSlope(const SampleView &fv, const SampleView &mv, int64_t a, const TrackFix &fx) {
    // Until the track knows its drift, a window measures it itself: the two
    // halves' delays give the slope, and the whole window is measured again
    // along it (a drift of 500 ppm moves the delay by 32 samples over 4 s at
    // 16 kHz, which would smear the peak).
    const int64_t h = W_ / 2;
    TrackFix best = fx;
    double slope = slope_;
    for (int it = 0; it < 2; ++it) {
        const TrackFix f1 = narrow(fv, mv, a, best.delay, slope, 0, h);
        const TrackFix f2 = narrow(fv, mv, a, best.delay, slope, h, W_ - h);
        if (!f1.ok || !f2.ok || f1.conf < kCoarseConf || f2.conf < kCoarseConf) break;
        const double md = p_.max_drift_ppm * 1e-6;
        slope = std::max(-md, std::min(md, slope + (f2.delay - f1.delay) / static_cast<double>(h)));
        const TrackFix f = narrow(fv, mv, a, best.delay, slope);
        if (!(f.ok && f.conf >= best.conf)) break;
        best = f;
        winSlope_ = slope;
        slope_ = slope;
    }
    return best;
}

double DelayTrack::locateJump(const SampleView &fv, const SampleView &mv, int64_t a, double dA, double slopeA,
                              double dB) {
    // Where in [a - hop, a + W) does the delay switch from the track's line
    // dA to the new delay dB? Each quarter-second block scores both delays
    // (whitened correlation at the predicted lag); the switch is the split
    // that maximises A-scores before it plus B-scores after it.
    const size_t N = narrowPlan_.size(), half = N / 2;
    const int64_t lb = std::min<int64_t>(B_, std::max(1, rate_ / 4));
    const int64_t from = a - hop_;
    const int64_t nbk = (hop_ + W_) / lb;
    if (nbk < 2) return -1;
    const double c = static_cast<double>(a) + static_cast<double>(W_) / 2.0;
    std::vector<double> xs, ys, sa(static_cast<size_t>(nbk)), sb(static_cast<size_t>(nbk));
    std::vector<std::complex<double>> w(half + 1);
    for (int64_t b = 0; b < nbk; ++b) {
        const int64_t fb = from + b * lb;
        for (int h = 0; h < 2; ++h) {
            const double d = h == 0 ? dA + slopeA * (static_cast<double>(fb) + static_cast<double>(lb) / 2.0 - c) : dB;
            const double fl = std::floor(d);
            const int64_t ni = static_cast<int64_t>(fl);
            copySpan(fv, fb, lb, xs);
            copySpan(mv, fb + ni - M_, lb + 2 * M_, ys);
            for (size_t i = 0; i < N; ++i) z_[i] = {i < xs.size() ? xs[i] : 0.0, i < ys.size() ? ys[i] : 0.0};
            narrowPlan_.forward(z_.data());
            double mean = 0;
            for (size_t k = 0; k <= half; ++k) {
                const std::complex<double> zk = z_[k], zc = std::conj(z_[(N - k) & (N - 1)]);
                const std::complex<double> X = 0.5 * (zk + zc);
                const std::complex<double> dd = zk - zc;
                const std::complex<double> Y(0.5 * dd.imag(), -0.5 * dd.real());
                w[k] = cmul(std::conj(X), Y);
                mean += std::abs(w[k]);
            }
            mean /= static_cast<double>(half + 1);
            double score = 0;
            if (mean > 0) {
                // Whitened correlation at lag M + (d - ni).
                const double tau = static_cast<double>(M_) + (d - fl);
                const double w0 = 2.0 * kPi * tau / static_cast<double>(N);
                const std::complex<double> step(std::cos(w0), std::sin(w0));
                std::complex<double> rot(1.0, 0.0);
                for (size_t k = 0; k <= half; ++k) {
                    const double ck = (k == 0 || k == half) ? 1.0 : 2.0;
                    score += ck * cmul(w[k], rot).real() / (std::abs(w[k]) + kPhatFloor * mean);
                    rot = cmul(rot, step);
                }
            }
            (h == 0 ? sa : sb)[static_cast<size_t>(b)] = std::fabs(score);
        }
    }
    double best = -1e300;
    int64_t split = 0;
    for (int64_t s = 0; s <= nbk; ++s) {
        double v = 0;
        for (int64_t b = 0; b < nbk; ++b) v += b < s ? sa[static_cast<size_t>(b)] : sb[static_cast<size_t>(b)];
        if (v > best) {
            best = v;
            split = s;
        }
    }
    if (split == 0 || split == nbk) return -1;
    return static_cast<double>(from + split * lb);
}

bool DelayTrack::latest(kvaec_track_window *out) const {
    if (latest_ < 0) return false;
    *out = win_[static_cast<size_t>(latest_)];
    out->trusted = 1;
    return true;
}

// ---- rate probe ----

void DelayTrack::probeCheck(bool atEnd) {
    const int64_t span = W_;
    if (!atEnd && next_ + span <= probeFrom_ + probeLen_) return;
    int active = 0, confident = 0;
    for (size_t i = 0; i < win_.size(); ++i) {
        const int64_t a = static_cast<int64_t>(meta_[i].farCentre) - span / 2;
        if (a < probeFrom_ || a + span > probeFrom_ + probeLen_) continue;
        active += win_[i].active;
        confident += meta_[i].confident ? 1 : 0;
    }
    if (confident >= 3 || 4 * confident > active) {
        probing_ = false;
    } else if (active < 3) {
        if (!atEnd) {
            // Nothing to judge yet: start again on the next stretch.
            const int64_t fl = far_.frameLen();
            int64_t from = std::max(far_.total(), mic_.total());
            from += (fl - from % fl) % fl;
            probeFrom_ = from;
            probeFar_.clear();
            probeMic_.clear();
            far_.setProbe(&probeFar_, probeFrom_, probeLen_);
            mic_.setProbe(&probeMic_, probeFrom_, probeLen_);
            return;
        }
        probing_ = false;
    } else {
        probing_ = false;
        rateProbe();
    }
    far_.setProbe(nullptr, 0, 0);
    mic_.setProbe(nullptr, 0, 0);
    std::vector<float>().swap(probeFar_);
    std::vector<float>().swap(probeMic_);
}

bool DelayTrack::rateProbe() {
    // Far-end position = ratio x microphone position for a file whose data
    // was taken at ratio x its declared rate. The common pairs of rates:
    static const double kRates[] = {8000, 11025, 12000, 16000, 22050, 24000, 32000, 44100, 48000, 96000};
    std::vector<double> ratios;
    for (double a : kRates)
        for (double b : kRates) {
            const double r = a / b;
            if (std::fabs(r - 1.0) < 0.005 || r < 0.25 || r > 4.0) continue;
            bool dup = false;
            for (double x : ratios) dup = dup || std::fabs(x - r) < 1e-9;
            if (!dup) ratios.push_back(r);
        }
    const int64_t span = W_;
    const int64_t p0 = probeFrom_;
    const int64_t farLen = static_cast<int64_t>(probeFar_.size());
    const int64_t micLen = static_cast<int64_t>(probeMic_.size());
    std::vector<float> warped;
    int bestScore = 0;
    double bestRatio = 1.0;
    for (double r : ratios) {
        // far'(j) = far(r j) over the microphone positions j the probe covers.
        const int64_t j0 = std::max<int64_t>(p0, static_cast<int64_t>(std::ceil(static_cast<double>(p0) / r)));
        const int64_t j1 = std::min<int64_t>(p0 + micLen, static_cast<int64_t>(static_cast<double>(p0 + farLen) / r));
        if (j1 - j0 < span + 2 * maxOff_) continue;
        warped.assign(static_cast<size_t>(j1), 0.0f);
        for (int64_t j = j0; j < j1; ++j) {
            const double pos = r * static_cast<double>(j) - static_cast<double>(p0);
            const int64_t i = static_cast<int64_t>(std::floor(pos));
            const double t = pos - static_cast<double>(i);
            auto s = [&](int64_t k) { return k >= 0 && k < farLen ? static_cast<double>(probeFar_[static_cast<size_t>(k)]) : 0.0; };
            const double y0 = s(i - 1), y1 = s(i), y2 = s(i + 1), y3 = s(i + 2);
            // Catmull-Rom cubic.
            const double v = y1 + 0.5 * t * (y2 - y0 + t * (2 * y0 - 5 * y1 + 4 * y2 - y3 + t * (3 * (y1 - y2) + y3 - y0)));
            warped[static_cast<size_t>(j)] = static_cast<float>(v);
        }
        std::vector<float> micAbs(static_cast<size_t>(p0 + micLen), 0.0f);
        std::copy(probeMic_.begin(), probeMic_.end(), micAbs.begin() + static_cast<long>(p0));
        SampleView fv{nullptr, &warped}, mv{nullptr, &micAbs};
        std::vector<double> found;
        int tried = 0;
        for (int64_t a = j0 + maxOff_; a + span + maxOff_ <= j1 && tried < 8; a += hop_) {
            double e = 0;
            for (int64_t i = a; i < a + span; ++i) e += static_cast<double>(warped[static_cast<size_t>(i)]) * warped[static_cast<size_t>(i)];
            if (e / static_cast<double>(span) < kActiveFloor) continue;
            ++tried;
            const TrackFix co = coarse(fv, mv, a, maxOff_);
            if (!co.ok || co.conf < kCoarseConf) continue;
            const TrackFix f = narrow(fv, mv, a, co.delay, 0.0);
            if (f.ok && f.conf >= kTrustConf) found.push_back(f.delay);
        }
        // Largest group of fixes within 2 ms of each other.
        int score = 0;
        for (double d : found) {
            int n = 0;
            for (double e : found) n += std::fabs(e - d) <= 0.002 * rate_ ? 1 : 0;
            score = std::max(score, n);
        }
        if (score > bestScore) {
            bestScore = score;
            bestRatio = r;
        }
    }
    if (bestScore >= 3) {
        rateMismatch_ = true;
        rateRatio_ = bestRatio;
        return true;
    }
    return false;
}

// ---- the fit ----

int DelayTrack::finish(kvaec_track_summary *out) {
    if (!finished_) {
        far_.flush();
        mic_.flush();
        analyseReady(true);
        if (probing_) probeCheck(true);
        finished_ = true;
        fit();
    }
    *out = sum_;
    return 0;
}

void DelayTrack::fit() {
    sum_ = kvaec_track_summary{};
    sum_.rate_ratio = 1.0;
    seg_.clear();
    sum_.windows = static_cast<int32_t>(win_.size());
    for (auto &w : win_) {
        sum_.active_windows += w.active;
        w.trusted = 0;
    }
    if (sum_.active_windows == 0) {
        sum_.status = KVAEC_TRACK_NO_ACTIVITY;
        return;
    }
    if (rateMismatch_) {
        sum_.status = KVAEC_TRACK_RATE_MISMATCH;
        sum_.rate_ratio = rateRatio_;
        return;
    }
    std::vector<Point> pts;
    for (size_t i = 0; i < win_.size(); ++i)
        if (meta_[i].confident) pts.push_back({win_[i].time_sec, meta_[i].delay / rate_, i});
    std::stable_sort(pts.begin(), pts.end(), [](const Point &a, const Point &b) { return a.x < b.x; });
    const double brk = p_.break_sec, md = p_.max_drift_ppm * 1e-6;
    // 1. Split at jumps: a fix off the line of the current piece starts a new
    // piece when the next fixes agree with it; otherwise it is an outlier.
    auto linePredict = [&](const std::vector<Point> &cur, double x, double &tol) {
        const size_t from = cur.size() > 30 ? cur.size() - 30 : 0;
        const Point &last = cur.back();
        const double dt = std::fabs(x - last.x);
        if (cur.size() - from >= 3 && last.x - cur[from].x >= 10.0) {
            const Line l = fitLine(from, cur.size(), [&](size_t i) { return cur[i].x; }, [&](size_t i) { return cur[i].y; });
            tol = 0.5 * brk + 4 * l.sd + 20e-6 * dt;
            return l.at(x);
        }
        double slope = 0;
        if (cur.size() - from >= 2)
            slope = fitLine(from, cur.size(), [&](size_t i) { return cur[i].x; }, [&](size_t i) { return cur[i].y; }).b;
        tol = 0.5 * brk + md * dt;
        return last.y + slope * (x - last.x);
    };
    std::vector<std::vector<Point>> pieces;
    std::vector<Point> cur;
    for (size_t i = 0; i < pts.size(); ++i) {
        const Point &P = pts[i];
        if (cur.empty()) {
            cur.push_back(P);
            continue;
        }
        double tol = 0;
        const double pred = linePredict(cur, P.x, tol);
        if (std::fabs(P.y - pred) <= tol) {
            cur.push_back(P);
            continue;
        }
        int agree = 0, seen = 0;
        for (size_t j = i + 1; j < pts.size() && seen < 3; ++j, ++seen)
            if (std::fabs(pts[j].y - P.y) <= 0.5 * brk + md * std::fabs(pts[j].x - P.x)) ++agree;
        if (agree >= 2 || (seen > 0 && agree == seen)) {
            pieces.push_back(cur);
            cur.assign(1, P);
        }
    }
    if (!cur.empty()) pieces.push_back(cur);
    std::vector<std::vector<Point>> kept;
    for (auto &pc : pieces)
        if (pc.size() >= 3) kept.push_back(pc);
    size_t trusted = 0;
    for (auto &pc : kept) trusted += pc.size();
    if (trusted < 3 || 10 * trusted < static_cast<size_t>(sum_.active_windows)) {
        sum_.status = KVAEC_TRACK_NO_MATCH;
        return;
    }
    // 2. Per piece: continuous piecewise-linear fit, knots where the drift
    // changes, outliers out.
    const double end = static_cast<double>(mic_.total()) / rate_;
    struct PieceFit {
        std::vector<double> knots, coef;
        double x0;
        double first, last;
    };
    std::vector<PieceFit> fits;
    trusted = 0;
    for (auto &pc : kept) {
        PieceFit pf;
        pf.knots.clear();
        std::vector<double> x(pc.size()), y(pc.size());
        for (size_t i = 0; i < pc.size(); ++i) {
            x[i] = pc[i].x;
            y[i] = pc[i].y;
        }
        pf.x0 = x[0];
        pf.first = x.front();
        pf.last = x.back();
        std::vector<uint8_t> use(pc.size(), 1);
        pf.knots = fitPiece(pc, pf.knots);  // knots at drift changes
        for (int pass = 0; pass < 3; ++pass) {
            splineFit(x, y, use, pf.knots, pf.x0, pf.coef);
            std::vector<double> res;
            for (size_t i = 0; i < x.size(); ++i)
                if (use[i]) res.push_back(std::fabs(y[i] - splineAt(pf.coef, pf.knots, pf.x0, x[i])));
            const double sd = 1.4826 * median(res);
            const double lim = std::max(6 * sd, 2e-4);
            for (size_t i = 0; i < x.size(); ++i)
                use[i] = std::fabs(y[i] - splineAt(pf.coef, pf.knots, pf.x0, x[i])) <= lim ? 1 : 0;
        }
        splineFit(x, y, use, pf.knots, pf.x0, pf.coef);
        for (size_t i = 0; i < pc.size(); ++i)
            if (use[i]) {
                win_[pc[i].w].trusted = 1;
                ++trusted;
            }
        fits.push_back(pf);
    }
    sum_.trusted_windows = static_cast<int32_t>(trusted);
    // Where a piece ends and the next begins: the switch point measured when
    // the jump was seen, if there is one between them, else the middle.
    auto jumpTime = [&](double lastBefore, double firstAfter) {
        const double mid = 0.5 * (lastBefore + firstAfter);
        double best = mid, dist = 1e300;
        const double slack = static_cast<double>(W_) / rate_;
        for (double h : jumpHints_)
            if (h >= lastBefore - slack && h <= firstAfter + slack && std::fabs(h - mid) < dist) {
                dist = std::fabs(h - mid);
                best = h;
            }
        return best;
    };
    // 3. Segments: pieces start at the middle between the last fix before a
    // jump and the first after it; knots split a piece without a jump.
    for (size_t p = 0; p < fits.size(); ++p) {
        const PieceFit &pf = fits[p];
        const double start = p == 0 ? 0.0 : jumpTime(fits[p - 1].last, pf.first);
        const double stop = p + 1 == fits.size() ? std::max(end, pf.last) : jumpTime(pf.last, fits[p + 1].first);
        std::vector<double> bounds{start};
        for (double k : pf.knots)
            if (k > start && k < stop) bounds.push_back(k);
        bounds.push_back(stop);
        for (size_t s = 0; s + 1 < bounds.size(); ++s) {
            kvaec_track_segment sg{};
            sg.start_sec = bounds[s];
            sg.end_sec = bounds[s + 1];
            // Slope inside the segment (just after its start).
            const double mid = 0.5 * (bounds[s] + bounds[s + 1]);
            sg.drift_ppm = splineSlope(pf.coef, pf.knots, mid) * 1e6;
            sg.delay_sec = splineAt(pf.coef, pf.knots, pf.x0, sg.start_sec);
            if (s == 0 && p > 0) {
                const PieceFit &pv = fits[p - 1];
                sg.jump_sec = sg.delay_sec - splineAt(pv.coef, pv.knots, pv.x0, sg.start_sec);
                sg.is_break = std::fabs(sg.jump_sec) >= brk ? 1 : 0;
            }
            for (size_t i = 0; i < win_.size(); ++i)
                if (win_[i].trusted && (win_[i].time_sec >= sg.start_sec || seg_.empty()) &&
                    (win_[i].time_sec < sg.end_sec || (s + 2 == bounds.size() && p + 1 == fits.size())))
                    ++sg.trusted_windows;
            seg_.push_back(sg);
        }
    }
    sum_.segments = static_cast<int32_t>(seg_.size());
    sum_.status = KVAEC_TRACK_OK;
    for (const auto &sg : seg_)
        if (std::fabs(sg.drift_ppm) >= kRateMismatchPpm && sg.trusted_windows >= 3) {
            sum_.status = KVAEC_TRACK_RATE_MISMATCH;
            sum_.rate_ratio = 1.0 - sg.drift_ppm * 1e-6;
        }
}

std::vector<double> DelayTrack::fitPiece(std::vector<Point> &pts, std::vector<double> &knots) {
    // Knots are added one at a time where they lower the residual most, as
    // long as the drift changes by at least 2 ppm and the gain is far beyond
    // the noise (F statistic); segments are at least 30 s long.
    const size_t n = pts.size();
    std::vector<double> x(n), y(n), coef;
    std::vector<uint8_t> use(n, 1);
    for (size_t i = 0; i < n; ++i) {
        x[i] = pts[i].x;
        y[i] = pts[i].y;
    }
    const double x0 = x.front();
    const double minSeg = 30.0;
    const size_t stride = std::max<size_t>(1, n / 150);
    for (int round = 0; round < 8 && n >= 10; ++round) {
        const double rss0 = splineFit(x, y, use, knots, x0, coef);
        double bestRss = rss0, bestK = 0;
        auto tryKnot = [&](double k) {
            if (k - x.front() < minSeg || x.back() - k < minSeg) return;
            for (double e : knots)
                if (std::fabs(e - k) < minSeg) return;
            std::vector<double> kk = knots;
            kk.push_back(k);
            std::vector<double> c;
            const double r = splineFit(x, y, use, kk, x0, c);
            if (r < bestRss && std::fabs(c.back()) >= 2e-6) {
                bestRss = r;
                bestK = k;
            }
        };
        for (size_t i = 0; i < n; i += stride) tryKnot(x[i]);
        if (bestRss >= rss0) break;
        // Refine between the neighbouring candidates.
        const double k0 = bestK;
        for (int s = -8; s <= 8; ++s) tryKnot(k0 + s * 0.25 * (stride > 1 ? static_cast<double>(stride) * 2.0 : 2.0));
        const double dof = static_cast<double>(n) - static_cast<double>(knots.size() + 3);
        if (dof <= 0) break;
        const double F = (rss0 - bestRss) / std::max(bestRss / dof, 1e-30);
        if (F < 50.0) break;
        knots.push_back(bestK);
        std::sort(knots.begin(), knots.end());
    }
    return knots;
}

double DelayTrack::delayAt(double t) const {
    if (!finished_ || sum_.status != KVAEC_TRACK_OK || seg_.empty()) return NAN;
    const kvaec_track_segment *s = &seg_.front();
    for (const auto &sg : seg_)
        if (t >= sg.start_sec) s = &sg;
    return s->delay_sec + s->drift_ppm * 1e-6 * (t - s->start_sec);
}

}  // namespace kvaec::tool

// ---- C interface (kvaec_host.h) ----

struct kvaec_track {
    kvaec::tool::DelayTrack impl;
    kvaec_track(int32_t rate, const kvaec_track_params &p) : impl(rate, p) {}
};

extern "C" KVAEC_HOST_API void kvaec_track_default_params(kvaec_track_params *p) {
    if (!p) return;
    p->window_sec = 4.0;
    p->hop_sec = 2.0;
    p->max_offset_sec = 2.0;
    p->break_sec = 0.002;
    p->max_drift_ppm = 1000.0;
}

extern "C" KVAEC_HOST_API kvaec_track *kvaec_track_create(int32_t rate, const kvaec_track_params *p) {
    kvaec_track_params d;
    kvaec_track_default_params(&d);
    if (p) d = *p;
    auto ok = [](double v, double lo, double hi) { return std::isfinite(v) && v >= lo && v <= hi; };
    if (rate < 8000 || rate > 384000 || !ok(d.window_sec, 0.5, 60.0) || !ok(d.hop_sec, 0.05, 60.0) ||
        !ok(d.max_offset_sec, 0.0, 60.0) || !ok(d.break_sec, 1e-5, 10.0) || !ok(d.max_drift_ppm, 0.0, 1e5))
        return nullptr;
    try {
        return new kvaec_track(rate, d);
    } catch (...) {
        return nullptr;
    }
}

extern "C" KVAEC_HOST_API int kvaec_track_push(kvaec_track *t, const float *far, int64_t far_n, const float *mic,
                                               int64_t mic_n) {
    if (!t || far_n < 0 || mic_n < 0 || (far_n > 0 && !far) || (mic_n > 0 && !mic) || t->impl.finished()) return -1;
    try {
        return t->impl.push(far, far_n, mic, mic_n);
    } catch (const std::bad_alloc &) {
        return -2;
    } catch (...) {
        return -2;
    }
}

extern "C" KVAEC_HOST_API int kvaec_track_latest(const kvaec_track *t, kvaec_track_window *out) {
    if (!t || !out) return 0;
    return t->impl.latest(out) ? 1 : 0;
}

extern "C" KVAEC_HOST_API int kvaec_track_finish(kvaec_track *t, kvaec_track_summary *out) {
    if (!t || !out) return -1;
    try {
        return t->impl.finish(out);
    } catch (...) {
        return -1;
    }
}

extern "C" KVAEC_HOST_API int32_t kvaec_track_windows(const kvaec_track *t, kvaec_track_window *w, int32_t max) {
    if (!t || max < 0 || (max > 0 && !w) || !t->impl.finished()) return -1;
    const auto &v = t->impl.windows();
    for (size_t i = 0; i < v.size() && static_cast<int32_t>(i) < max; ++i) w[i] = v[i];
    return static_cast<int32_t>(v.size());
}

extern "C" KVAEC_HOST_API int32_t kvaec_track_segments(const kvaec_track *t, kvaec_track_segment *s, int32_t max) {
    if (!t || max < 0 || (max > 0 && !s) || !t->impl.finished()) return -1;
    const auto &v = t->impl.segments();
    for (size_t i = 0; i < v.size() && static_cast<int32_t>(i) < max; ++i) s[i] = v[i];
    return static_cast<int32_t>(v.size());
}

extern "C" KVAEC_HOST_API double kvaec_track_delay_at(const kvaec_track *t, double time_sec) {
    if (!t || !std::isfinite(time_sec)) return NAN;
    return t->impl.delayAt(time_sec);
}

extern "C" KVAEC_HOST_API void kvaec_track_destroy(kvaec_track *t) { delete t; }
