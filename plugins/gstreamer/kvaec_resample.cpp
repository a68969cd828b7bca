// Sample-rate converters of the GStreamer plugin (see kvaec_resample.h).
//
// The FIR loops run over output samples in the innermost loop, one tap at a
// time, so each output is summed in a fixed order (results do not depend on
// the vector width) and the compiler vectorises them without reassociating.
#include "kvaec_resample.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace {

// y[t] += sum over j of g[j] * x[t + j], for t < T and j < Q, the taps added
// one after the other in order j = 0, 1, ... for every t. Four taps per pass
// over y (the same order of additions), so y is loaded and stored once per
// four taps.
void fir_accumulate(float *__restrict y, const float *__restrict x, const float *g, int64_t T, int64_t Q) {
    int64_t j = 0;
    for (; j + 4 <= Q; j += 4) {
        const float c0 = g[j], c1 = g[j + 1], c2 = g[j + 2], c3 = g[j + 3];
        const float *x0 = x + j;
        for (int64_t t = 0; t < T; ++t) {
            float a = y[t];
            a += c0 * x0[t];
            a += c1 * x0[t + 1];
            a += c2 * x0[t + 2];
            a += c3 * x0[t + 3];
            y[t] = a;
        }
    }
    for (; j < Q; ++j) {
        const float c = g[j];
        const float *xj = x + j;
        for (int64_t t = 0; t < T; ++t) y[t] += c * xj[t];
    }
}

constexpr double kPi = 3.14159265358979323846;
constexpr double kKaiserBeta = 6.2;
constexpr int kSpeexQuality = 5;

// Modified Bessel function of the first kind, order 0 (power series).
double bessel_i0(double x) {
    double sum = 1.0, term = 1.0;
    const double q = 0.25 * x * x;
    for (int k = 1; k < 64; ++k) {
        term *= q / (static_cast<double>(k) * k);
        sum += term;
        if (term < 1e-17 * sum) break;
    }
    return sum;
}

// Prototype low-pass at M times 16 kHz, cut-off 8 kHz, unit DC gain.
std::vector<double> prototype(int m, int half) {
    const int n = 2 * half * m + 1;
    const double c = 0.5 * (n - 1);
    std::vector<double> h(static_cast<size_t>(n));
    double sum = 0;
    for (int k = 0; k < n; ++k) {
        const double t = (k - c) / m;
        const double sinc = k == half * m ? 1.0 : std::sin(kPi * t) / (kPi * t);
        const double r = (k - c) / c;
        const double w = bessel_i0(kKaiserBeta * std::sqrt(std::max(0.0, 1.0 - r * r))) / bessel_i0(kKaiserBeta);
        h[static_cast<size_t>(k)] = sinc * w;
        sum += sinc * w;
    }
    for (double &v : h) v /= sum;
    return h;
}

}  // namespace

KvaecResampler::~KvaecResampler() {
    if (speex_ != nullptr) speex_resampler_destroy(speex_);
}

bool KvaecResampler::init(int in_rate, int out_rate, const char **error) {
    if (speex_ != nullptr) speex_resampler_destroy(speex_);
    speex_ = nullptr;
    mode_ = Mode::None;
    taps_.clear();
    constexpr int kBase = 16000;
    const int hi = std::max(in_rate, out_rate), lo = std::min(in_rate, out_rate);
    if (in_rate == out_rate) {
        mode_ = Mode::Copy;
        m_ = 1;
    } else if (lo == kBase && hi % kBase == 0) {
        mode_ = in_rate > out_rate ? Mode::Down : Mode::Up;
        m_ = hi / kBase;
        // The end taps h[0] and h[N - 1] are zeros of the sinc (t = -H, H):
        // the N - 2 others fit in 2H taps per phase.
        q_ = 2 * kKvaecFirHalf;
        const int n = 2 * kKvaecFirHalf * m_ + 1;
        const int qm = q_ * m_;
        const std::vector<double> h = prototype(m_, kKvaecFirHalf);
        taps_.assign(static_cast<size_t>(qm), 0.0f);
        for (int p = 0; p < m_; ++p)
            for (int j = 0; j < q_; ++j) {
                double v = 0;
                if (mode_ == Mode::Down) {
                    const int k = qm - 1 - (j * m_ + p);  // reversed, zeros in front
                    if (k < n) v = h[static_cast<size_t>(k)];
                } else {
                    const int k = (q_ - 1 - j) * m_ + p;
                    if (k < n) v = m_ * h[static_cast<size_t>(k)];
                }
                taps_[static_cast<size_t>(p * q_ + j)] = static_cast<float>(v);
            }
    } else {
        int err = 0;
        speex_ = speex_resampler_init(1, static_cast<spx_uint32_t>(in_rate), static_cast<spx_uint32_t>(out_rate),
                                      kSpeexQuality, &err);
        if (speex_ == nullptr) {
            if (error != nullptr) *error = speex_resampler_strerror(err);
            return false;
        }
        mode_ = Mode::Speex;
    }
    reset();
    return true;
}

void KvaecResampler::reset() {
    if (mode_ == Mode::Speex) speex_resampler_reset_mem(speex_);
    hist_.clear();
    if (mode_ == Mode::Down) hist_.assign(static_cast<size_t>(q_ * m_ - 1), 0.0f);
    if (mode_ == Mode::Up) hist_.assign(static_cast<size_t>(q_ - 1), 0.0f);
}

int KvaecResampler::input_latency() const {
    switch (mode_) {
    case Mode::Speex: return speex_resampler_get_input_latency(speex_);
    case Mode::Down: return kKvaecFirHalf * m_;
    case Mode::Up: return kKvaecFirHalf;
    default: return 0;
    }
}

const char *KvaecResampler::kind() const {
    switch (mode_) {
    case Mode::Copy: return "copy";
    case Mode::Down: return "fir decimator";
    case Mode::Up: return "fir interpolator";
    case Mode::Speex: return "speexdsp";
    default: return "none";
    }
}

void KvaecResampler::process(const float *in, uint32_t *in_len, float *out, uint32_t *out_len) {
    static const float zeros[1024] = {};
    switch (mode_) {
    case Mode::None:
        *in_len = *out_len = 0;
        return;
    case Mode::Speex:
        if (in == nullptr) {
            uint32_t done_in = 0, done_out = 0;
            while (done_in < *in_len && done_out < *out_len) {
                spx_uint32_t i = std::min<uint32_t>(*in_len - done_in, 1024), o = *out_len - done_out;
                speex_resampler_process_float(speex_, 0, zeros, &i, out + done_out, &o);
                if (i == 0 && o == 0) break;
                done_in += i;
                done_out += o;
            }
            *in_len = done_in;
            *out_len = done_out;
        } else {
            spx_uint32_t i = *in_len, o = *out_len;
            speex_resampler_process_float(speex_, 0, in, &i, out, &o);
            *in_len = i;
            *out_len = o;
        }
        return;
    case Mode::Copy: {
        const uint32_t n = std::min(*in_len, *out_len);
        if (in != nullptr) std::memcpy(out, in, n * sizeof(float));
        else std::fill(out, out + n, 0.0f);
        *in_len = *out_len = n;
        return;
    }
    case Mode::Down: {
        const int64_t m = m_, q = q_, qm = q * m;
        const int64_t have = static_cast<int64_t>(hist_.size());
        const int64_t most = static_cast<int64_t>(*out_len) * m + qm - 1 - have;  // input that fits the output
        const int64_t n = std::max<int64_t>(0, std::min<int64_t>(*in_len, most));
        if (in != nullptr) hist_.insert(hist_.end(), in, in + n);
        else hist_.resize(static_cast<size_t>(have + n), 0.0f);
        const int64_t len = have + n;
        const int64_t T = len >= qm ? (len - qm) / m + 1 : 0;
        if (T > 0) {
            const int64_t span = T + q - 1;  // samples of one phase the T outputs read
            scratch_.resize(static_cast<size_t>(span));
            std::fill(out, out + T, 0.0f);
            const float *x = hist_.data();
            for (int64_t p = 0; p < m; ++p) {
                float *b = scratch_.data();
                for (int64_t i = 0; i < span; ++i) b[i] = x[i * m + p];
                fir_accumulate(out, b, taps_.data() + p * q, T, q);
            }
            hist_.erase(hist_.begin(), hist_.begin() + T * m);
        }
        *in_len = static_cast<uint32_t>(n);
        *out_len = static_cast<uint32_t>(T);
        return;
    }
    case Mode::Up: {
        const int64_t m = m_, q = q_;
        const int64_t n = std::min<int64_t>(*in_len, *out_len / static_cast<uint32_t>(m));
        const int64_t have = static_cast<int64_t>(hist_.size());
        if (in != nullptr) hist_.insert(hist_.end(), in, in + n);
        else hist_.resize(static_cast<size_t>(have + n), 0.0f);
        if (n > 0) {
            acc_.resize(static_cast<size_t>(n));
            const float *x = hist_.data();
            float *z = acc_.data();
            for (int64_t r = 0; r < m; ++r) {
                std::fill(z, z + n, 0.0f);
                fir_accumulate(z, x, taps_.data() + r * q, n, q);
                for (int64_t t = 0; t < n; ++t) out[t * m + r] = z[t];
            }
            hist_.erase(hist_.begin(), hist_.begin() + n);
        }
        *in_len = static_cast<uint32_t>(n);
        *out_len = static_cast<uint32_t>(n * m);
        return;
    }
    }
}
