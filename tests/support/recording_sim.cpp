#include "recording_sim.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <random>

namespace kvaec::test {

namespace {

constexpr double kPi = 3.14159265358979323846;

// Blackman-windowed sinc, tabulated finely and read with linear
// interpolation (error below -100 dB of the kernel's peak).
class SincKernel {
public:
    static constexpr int kHalf = 24;
    static constexpr int kSteps = 512;
    explicit SincKernel(double cutoff) : cutoff_(cutoff), table_(kHalf * kSteps + 2) {
        for (size_t i = 0; i < table_.size(); ++i) {
            const double x = static_cast<double>(i) / kSteps;
            const double cx = cutoff * x;
            const double s = cx == 0.0 ? 1.0 : std::sin(kPi * cx) / (kPi * cx);
            const double u = x / kHalf;  // 0..1 over the half window
            const double w = u >= 1.0 ? 0.0 : 0.42 + 0.5 * std::cos(kPi * u) + 0.08 * std::cos(2 * kPi * u);
            table_[i] = cutoff * s * w;
        }
    }
    double at(double x) const {
        x = std::fabs(x) * kSteps;
        const size_t i = static_cast<size_t>(x);
        if (i + 1 >= table_.size()) return 0.0;
        const double f = x - static_cast<double>(i);
        return table_[i] + f * (table_[i + 1] - table_[i]);
    }
    double interpolate(const std::vector<float> &x, double pos) const {
        const double fl = std::floor(pos);
        const long i0 = static_cast<long>(fl);
        const double f = pos - fl;
        const long n = static_cast<long>(x.size());
        if (i0 + kHalf < 0 || i0 - kHalf >= n) return 0.0;
        double acc = 0;
        for (long k = -kHalf + 1; k <= kHalf; ++k) {
            const long j = i0 + k;
            if (j < 0 || j >= n) continue;
            acc += x[static_cast<size_t>(j)] * at(static_cast<double>(k) - f);
        }
        return acc;
    }
    double cutoff() const { return cutoff_; }

private:
    double cutoff_;
    std::vector<double> table_;
};

// Radix-2 FFT of one size with its twiddles and bit-reversed order made once.
class Fft {
public:
    explicit Fft(size_t n) : n_(n), tw_(n / 2), rev_(n) {
        for (size_t k = 0; k < n / 2; ++k) {
            const double ang = -2 * kPi * static_cast<double>(k) / static_cast<double>(n);
            tw_[k] = {std::cos(ang), std::sin(ang)};
        }
        for (size_t i = 1, j = 0; i < n; ++i) {
            size_t bit = n >> 1;
            for (; j & bit; bit >>= 1) j ^= bit;
            j ^= bit;
            rev_[i] = j;
        }
    }
    void run(std::vector<std::complex<double>> &a, bool inverse) const {
        const size_t n = n_;
        for (size_t i = 1; i < n; ++i)
            if (i < rev_[i]) std::swap(a[i], a[rev_[i]]);
        const double sg = inverse ? -1.0 : 1.0;
        for (size_t len = 2; len <= n; len <<= 1) {
            const size_t half = len / 2, stride = n / len;
            for (size_t i = 0; i < n; i += len) {
                for (size_t k = 0; k < half; ++k) {
                    const double wr = tw_[k * stride].real(), wi = sg * tw_[k * stride].imag();
                    const std::complex<double> b = a[i + k + half], u = a[i + k];
                    const std::complex<double> v(b.real() * wr - b.imag() * wi, b.real() * wi + b.imag() * wr);
                    a[i + k] = u + v;
                    a[i + k + half] = u - v;
                }
            }
        }
        if (inverse)
            for (auto &v : a) v /= static_cast<double>(n);
    }

private:
    size_t n_;
    std::vector<std::complex<double>> tw_;
    std::vector<size_t> rev_;
};

// Linear convolution of x with a short h (overlap-add), same length as x.
std::vector<float> convolve(const std::vector<float> &x, const std::vector<double> &h) {
    const size_t L = h.size();
    size_t n = 1;
    while (n < 2 * L + 4096) n <<= 1;
    const size_t block = n - L + 1;
    const Fft fft(n);
    std::vector<std::complex<double>> H(n);
    for (size_t i = 0; i < L; ++i) H[i] = h[i];
    fft.run(H, false);
    std::vector<double> out(x.size() + n, 0.0);
    std::vector<std::complex<double>> buf(n);
    for (size_t s = 0; s < x.size(); s += block) {
        std::fill(buf.begin(), buf.end(), 0.0);
        for (size_t i = 0; i < block && s + i < x.size(); ++i) buf[i] = x[s + i];
        fft.run(buf, false);
        for (size_t k = 0; k < n; ++k)
            buf[k] = {buf[k].real() * H[k].real() - buf[k].imag() * H[k].imag(),
                      buf[k].real() * H[k].imag() + buf[k].imag() * H[k].real()};
        fft.run(buf, true);
        for (size_t i = 0; i < n; ++i) out[s + i] += buf[i].real();
    }
    return std::vector<float>(out.begin(), out.begin() + static_cast<long>(x.size()));
}

// First-order sections for the long-term speech spectrum.
struct OnePole {
    double a = 0, z = 0;
    OnePole(double fc, int rate) : a(std::exp(-2 * kPi * fc / rate)) {}
    double low(double x) { return z = (1 - a) * x + a * z; }
};

}  // namespace

double interpolateAt(const std::vector<float> &x, double pos, double cutoff) {
    return SincKernel(std::min(1.0, cutoff)).interpolate(x, pos);
}

std::vector<float> speechLike(int rate, double seconds, uint32_t seed, double dbfs) {
    const size_t n = static_cast<size_t>(std::max(0.0, seconds * rate));
    std::mt19937 rng(seed);
    std::normal_distribution<double> g(0.0, 1.0);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    // Spectrum: high-passed at 100 Hz, falling above 700 Hz, with a flatter
    // floor for fricatives; then band-limited to 0.4 of the rate.
    OnePole hp(100, rate), lp(700, rate);
    std::vector<float> shaped(n);
    for (size_t i = 0; i < n; ++i) {
        const double w = g(rng);
        const double h = w - hp.low(w);
        shaped[i] = static_cast<float>(lp.low(h) * 4.0 + 0.15 * h);
    }
    const int taps = 127;
    std::vector<double> lowpass(taps);
    const double fc = 0.8;  // relative to Nyquist: 0.4 of the rate
    for (int k = 0; k < taps; ++k) {
        const double x = k - (taps - 1) / 2.0;
        const double s = x == 0 ? 1.0 : std::sin(kPi * fc * x) / (kPi * fc * x);
        const double wdw = 0.42 - 0.5 * std::cos(2 * kPi * k / (taps - 1)) + 0.08 * std::cos(4 * kPi * k / (taps - 1));
        lowpass[static_cast<size_t>(k)] = fc * s * wdw;
    }
    std::vector<float> y = convolve(shaped, lowpass);
    // Envelope: talk spurts of 0.8-4 s made of syllables of 120-300 ms,
    // pauses of 0.2-1.5 s.
    std::vector<double> env(n, 0.0);
    size_t pos = static_cast<size_t>(u(rng) * 0.5 * rate);
    while (pos < n) {
        const size_t spurtEnd = std::min(n, pos + static_cast<size_t>((0.8 + 3.2 * u(rng)) * rate));
        while (pos < spurtEnd) {
            const size_t len = static_cast<size_t>((0.12 + 0.18 * u(rng)) * rate);
            const double amp = std::exp(0.5 * g(rng));
            for (size_t i = 0; i < len && pos + i < n; ++i)
                env[pos + i] = amp * std::sin(kPi * (static_cast<double>(i) + 0.5) / static_cast<double>(len));
            pos += len;
        }
        pos += static_cast<size_t>((0.2 + 1.3 * u(rng)) * rate);
    }
    double p = 0;
    size_t talking = 0;
    for (size_t i = 0; i < n; ++i) {
        y[i] = static_cast<float>(y[i] * env[i]);
        if (env[i] > 0) {
            p += static_cast<double>(y[i]) * y[i];
            ++talking;
        }
    }
    if (talking > 0 && p > 0) {
        const double gain = std::pow(10.0, dbfs / 20.0) / std::sqrt(p / static_cast<double>(talking));
        for (auto &v : y) v = static_cast<float>(v * gain);
    }
    return y;
}

double Recording::delayAt(double t) const {
    double d = plan.bulk_delay_sec + plan.drift_ppm * 1e-6 * t;
    if (plan.drift_change_sec >= 0 && t > plan.drift_change_sec)
        d += (plan.drift2_ppm - plan.drift_ppm) * 1e-6 * (t - plan.drift_change_sec);
    if (plan.jump_at_sec >= 0 && t >= plan.jump_at_sec) d += plan.jump_sec;
    return d;
}

Recording makeRecording(const RecordingPlan &plan) {
    Recording r;
    r.rate = plan.rate;
    r.plan = plan;
    const int rate = plan.rate;
    const size_t n = static_cast<size_t>(plan.seconds * rate);
    r.far = speechLike(rate, plan.seconds, plan.seed, plan.far_dbfs);
    r.far.resize(n, 0.0f);
    if (plan.silence_start_sec >= 0) {
        const size_t a = std::min(n, static_cast<size_t>(plan.silence_start_sec * rate));
        const size_t b = std::min(n, static_cast<size_t>((plan.silence_start_sec + plan.silence_len_sec) * rate));
        std::fill(r.far.begin() + static_cast<long>(a), r.far.begin() + static_cast<long>(b), 0.0f);
    }
    // What the loudspeaker played at each microphone sample: the far file at
    // the fractional position the delay model gives (cut-off lowered when
    // the far file is read faster than its rate, so nothing aliases).
    const SincKernel kernel(std::min(1.0, 0.98 / plan.far_rate_ratio));
    std::vector<float> played(n);
    for (size_t j = 0; j < n; ++j) {
        const double t = static_cast<double>(j) / rate;
        const double farPos = (t - r.delayAt(t)) * rate * plan.far_rate_ratio;
        played[j] = static_cast<float>(kernel.interpolate(r.far, farPos));
    }
    // Room: direct sound, then reflections from 2.5 ms decaying by 60 dB over
    // the response; the tail carries 60 % of the direct sound's energy.
    std::mt19937 rng(plan.seed * 7919u + 17u);
    std::normal_distribution<double> g(0.0, 1.0);
    const size_t len = std::max<size_t>(8, static_cast<size_t>(plan.room_ms * 1e-3 * rate));
    const size_t first = static_cast<size_t>(0.0025 * rate);
    std::vector<double> h(len, 0.0);
    h[0] = 1.0;
    double tail = 0;
    for (size_t i = first; i < len; ++i) {
        h[i] = g(rng) * std::exp(-6.9 * static_cast<double>(i) / static_cast<double>(len));
        tail += h[i] * h[i];
    }
    if (tail > 0)
        for (size_t i = first; i < len; ++i) h[i] *= std::sqrt(0.6 / tail);
    const double gain = std::pow(10.0, plan.echo_db / 20.0) / std::sqrt(1.6);
    for (auto &v : h) v *= gain;
    r.mic = convolve(played, h);
    if (plan.local_talker) {
        // Spurts of 1-3 s placed at random until a fifth of the time is covered.
        std::vector<float> talk = speechLike(rate, plan.seconds, plan.seed + 1000u, plan.far_dbfs + plan.echo_db + 4);
        talk.resize(n, 0.0f);
        std::vector<uint8_t> on(n, 0);
        std::uniform_real_distribution<double> u(0.0, 1.0);
        size_t covered = 0;
        while (covered < n / 5) {
            const size_t a = static_cast<size_t>(u(rng) * static_cast<double>(n));
            const size_t b = std::min(n, a + static_cast<size_t>((1.0 + 2.0 * u(rng)) * rate));
            for (size_t i = a; i < b; ++i)
                if (!on[i]) {
                    on[i] = 1;
                    ++covered;
                }
        }
        for (size_t i = 0; i < n; ++i)
            if (on[i]) r.mic[i] += talk[i];
    }
    const double noise = std::pow(10.0, plan.noise_dbfs / 20.0);
    for (auto &v : r.mic) v = static_cast<float>(v + noise * g(rng));
    return r;
}

}  // namespace kvaec::test
