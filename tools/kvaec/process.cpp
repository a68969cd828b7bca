// kvaec process: offline echo cancellation of a far-end recording and the
// microphone recording made while it was played.
//
// The recorded echo was made from the unprocessed far end, so any loss the
// canceller put on the receive path would not show in the microphone file:
// all loss is kept on the send path (single-stage suppression, mode 0x40).
//
// Two passes over the files, in blocks, so that memory does not grow with
// the recording:
//  1. Delay pass: both files become 16 kHz mono analysis streams (the far
//     end's channels mixed or --far-channel, the microphone's processed
//     channel) and go into a delay track of libkvaec_host (kvaec_track_*),
//     which follows the echo's lag over the whole recording: the offset,
//     the drift between the two clocks and the jumps (dropped buffers).
//  2. Cancelling pass: the far end is read at the position the track gives
//     for every microphone sample (a windowed-sinc fractional delay on the
//     16 kHz far end), so that the echo keeps the library's alignment rule
//     everywhere: it reaches the canceller KVAEC_ECHO_MIN_DELAY + margin
//     samples after the receive output (kvaec_align_shift). The send output
//     goes back to the microphone file's rate, channel layout and length.
//
// Alignment in detail: the microphone is delayed by micShift samples (the
// positive part of kvaec_align_shift at the start delay D0); the receive
// input at canceller sample m is the far end at position
//     pos(m) = (m - micShift) - D(t) + L,   L = D + kvaec_align_shift(D, margin)
// (L does not depend on D: the rule fixes the echo's lag at the canceller).
// With a constant whole-sample delay pos(m) - m is a constant whole number
// and the far end is copied sample for sample: the single-shift alignment.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <samplerate.h>
#include <sndfile.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "audio_io.h"
#include "commands.h"
#include "health.h"
#include "kvaec_host.h"
#include "kvaec_records.h"

#ifndef KVAEC_PLOT_SCRIPT_SOURCE
#define KVAEC_PLOT_SCRIPT_SOURCE ""
#endif
#ifndef KVAEC_PLOT_SCRIPT_INSTALLED
#define KVAEC_PLOT_SCRIPT_INSTALLED ""
#endif

namespace kvaec::tool {

namespace {

double parseMs(const std::string &s) {
    char *end = nullptr;
    const double v = std::strtod(s.c_str(), &end);
    if (s.empty() || *end != '\0' || !std::isfinite(v) || v < 0)
        throw ToolError("--delay takes 'auto' or a non-negative number of milliseconds, not '" + s + "'");
    return v;
}

// Samples beyond this magnitude are not audio: their 10 ms frame is left out
// of the figures (the rule of the host library's bad-sample check).
constexpr float kHugeSample = 1000.0f;

// ---------------------------------------------------------------------------
// Resampling by a whole factor (48 kHz <-> 16 kHz: 3), the common case of
// recordings, several times faster than a general converter: a zero-phase
// Kaiser-windowed sinc low-pass (pass band to 0.95 of 8 kHz, 20 zero
// crossings of the 16 kHz rate either side), applied only where the
// output needs it. Streamed: samples in, samples out, the same time base.
// Dot product in 8 lanes summed at the end (lane-wise, so the compiler
// vectorises it without reordering any one sum).
inline float dot(const float *a, const float *b, int n) {
    float lane[8] = {0, 0, 0, 0, 0, 0, 0, 0};
    int k = 0;
    for (; k + 8 <= n; k += 8)
        for (int l = 0; l < 8; ++l) lane[l] += a[k + l] * b[k + l];
    float acc = ((lane[0] + lane[1]) + (lane[2] + lane[3])) + ((lane[4] + lane[5]) + (lane[6] + lane[7]));
    for (; k < n; ++k) acc += a[k] * b[k];
    return acc;
}

class WholeFactorResampler {
public:
    // `factor` > 1; `down`: from factor x 16 kHz to 16 kHz, else up.
    WholeFactorResampler(int factor, bool down) : f_(factor), down_(down) {
        constexpr int kZeros = 20;
        half_ = kZeros * f_;
        const double fc = 0.95 / f_, beta = 8.0;  // cycles per high-rate sample x 2
        auto i0 = [](double x) {
            double s = 1, t = 1;
            for (int k = 1; k < 40; ++k) {
                t *= (x / (2 * k)) * (x / (2 * k));
                s += t;
            }
            return s;
        };
        h_.resize(static_cast<size_t>(2 * half_ + 1));
        double sum = 0;
        for (int k = -half_; k <= half_; ++k) {
            const double x = M_PI * fc * k;
            const double sinc = k == 0 ? 1.0 : std::sin(x) / x;
            const double r = static_cast<double>(k) / (half_ + 1);
            const double w = i0(beta * std::sqrt(1 - r * r)) / i0(beta);
            h_[static_cast<size_t>(k + half_)] = sinc * w;
            sum += sinc * w;
        }
        // Unit gain at DC: down, the taps sum to 1; up, every phase sums to 1.
        for (double &v : h_) v *= (down_ ? 1.0 : static_cast<double>(f_)) / sum;
        hf_.assign(h_.begin(), h_.end());
        // Up: output m = q f + p takes x[q - kZeros + u] times
        // poly_[p][u] = g[(2 kZeros - u) f + p] (0 beyond the filter).
        poly_.assign(static_cast<size_t>(f_), std::vector<float>(2 * kZeros + 1, 0.0f));
        for (int p = 0; p < f_; ++p)
            for (int u = 0; u <= 2 * kZeros; ++u) {
                const int idx = (2 * kZeros - u) * f_ + p;
                if (idx <= 2 * half_) poly_[static_cast<size_t>(p)][static_cast<size_t>(u)] = hf_[static_cast<size_t>(idx)];
            }
        zeros_ = kZeros;
    }
    // Appends input; `last`: no more input comes (the signal continues as
    // zeros). Appends the outputs now computable to `out`.
    void push(const float *x, long n, bool last, std::vector<float> &out) {
        in_.insert(in_.end(), x, x + n);
        if (last) {
            in_.insert(in_.end(), static_cast<size_t>(half_ + f_), 0.0f);
            ended_ = true;
        }
        const long long avail = base_ + static_cast<long long>(in_.size());
        if (down_) {
            // y[m] = sum_k h[k] x[m f + k]; samples before 0 are zeros.
            for (;; ++next_) {
                const long long c = next_ * f_;
                if (c + half_ >= avail) break;
                float acc = 0;
                if (c - half_ >= base_) {
                    acc = dot(hf_.data(), &in_[static_cast<size_t>(c - half_ - base_)], 2 * half_ + 1);
                } else {
                    for (int k = -half_; k <= half_; ++k) {
                        const long long j = c + k;
                        if (j >= base_) acc += hf_[static_cast<size_t>(k + half_)] * in_[static_cast<size_t>(j - base_)];
                    }
                }
                out.push_back(acc);
            }
            trim(next_ * f_ - half_ - 1);
        } else {
            // y[m] = sum_j x[j] g[m - j f] over |m - j f| <= half: phase
            // p = m mod f uses the sub-filter poly_[p] (taps g[p + half - i f]
            // for j = (m - p)/f - ... in order), contiguous.
            for (;; ++next_) {
                const long long m = next_;
                const long long jHi = (m + half_) / f_;
                if (jHi >= avail) break;
                const long long jLo = m - half_ <= 0 ? 0 : (m - half_ + f_ - 1) / f_;
                const long long q = m / f_;
                float acc = 0;
                if (q - zeros_ >= base_) {
                    acc = dot(poly_[static_cast<size_t>(m - q * f_)].data(), &in_[static_cast<size_t>(q - zeros_ - base_)],
                              2 * zeros_ + 1);
                } else {
                    for (long long j = std::max(jLo, base_); j <= jHi; ++j)
                        acc += hf_[static_cast<size_t>(m - j * f_ + half_)] * in_[static_cast<size_t>(j - base_)];
                }
                out.push_back(acc);
            }
            trim((next_ - half_) / f_ - 1);
        }
    }

private:
    void trim(long long keepFrom) {
        const long long drop = keepFrom - base_;
        if (drop > 65536) {
            in_.erase(in_.begin(), in_.begin() + static_cast<long>(drop));
            base_ += drop;
        }
    }
    int f_;
    bool down_;
    int half_ = 0;
    std::vector<double> h_;
    std::vector<float> hf_;
    std::vector<std::vector<float>> poly_;
    int zeros_ = 0;
    std::vector<float> in_;
    long long base_ = 0, next_ = 0;
    bool ended_ = false;
};

// ---------------------------------------------------------------------------
// One file read in blocks as a 16 kHz mono stream: channel `channel`
// (1-based) or the mix of all channels (0), non-finite samples as silence,
// resampled with libsamplerate when the file has another rate. The stream
// has exactly length16() samples (the resampler's output is cut or padded).
class Source16 {
public:
    Source16(const std::string &path, const std::string &what, int channel, bool allowResample,
             std::vector<std::string> *warnings) {
        f_ = openAudio(path, rate_, channels_, frames_, format_, warnings);
        if (channel > channels_) {
            sf_close(f_);
            throw ToolError(what + " '" + path + "' has " + std::to_string(channels_) + " channel(s); channel " +
                            std::to_string(channel) + " does not exist");
        }
        channel_ = channels_ == 1 ? 1 : channel;
        if (rate_ != kRate) {
            if (!allowResample) {
                sf_close(f_);
                throw ToolError(what + " '" + path + "' is sampled at " + std::to_string(rate_) +
                                " Hz; the canceller runs at " + std::to_string(kRate) +
                                " Hz and resampling is switched off (--no-resample)");
            }
            if (rate_ % kRate == 0) {
                whole_.reset(new WholeFactorResampler(rate_ / kRate, true));
            } else {
                int err = 0;
                src_ = src_new(SRC_SINC_MEDIUM_QUALITY, 1, &err);
                if (!src_) throw ToolError(std::string("resampling failed: ") + src_strerror(err));
            }
        }
        length16_ = rate_ == kRate ? frames_
                                   : static_cast<long long>(std::llround(static_cast<double>(frames_) * kRate / rate_));
    }
    ~Source16() {
        if (f_) sf_close(f_);
        if (src_) src_delete(src_);
    }
    Source16(const Source16 &) = delete;
    Source16 &operator=(const Source16 &) = delete;

    int rate() const { return rate_; }
    int channels() const { return channels_; }
    int format() const { return format_; }
    long long frames() const { return frames_; }
    long long length16() const { return length16_; }
    long long nonFinite() const { return nonFinite_; }
    long long finite() const { return finite_; }

    // Up to `n` next samples into `out`; returns how many (0 at the end).
    long read(float *out, long n) {
        long got = 0;
        while (got < n && done_ < length16_) {
            if (pendPos_ < static_cast<long>(pend_.size())) {
                const long take = std::min<long>({n - got, static_cast<long>(pend_.size()) - pendPos_,
                                                  static_cast<long>(length16_ - done_)});
                std::copy(pend_.begin() + pendPos_, pend_.begin() + pendPos_ + take, out + got);
                pendPos_ += take;
                got += take;
                done_ += take;
                continue;
            }
            if (!refill()) {
                // The resampler gave fewer samples than the nominal length.
                const long take = std::min<long>(n - got, static_cast<long>(length16_ - done_));
                std::fill(out + got, out + got + take, 0.0f);
                got += take;
                done_ += take;
            }
        }
        return got;
    }

private:
    // Reads one block of the file into pend_ (resampled); false when nothing more comes.
    bool refill() {
        pend_.clear();
        pendPos_ = 0;
        if (flushed_) return false;
        constexpr long kBlock = 8192;
        inter_.resize(static_cast<size_t>(kBlock * channels_));
        const sf_count_t n = eof_ ? 0 : sf_readf_float(f_, inter_.data(), kBlock);
        if (n < kBlock) eof_ = true;
        mono_.resize(static_cast<size_t>(n));
        for (sf_count_t i = 0; i < n; ++i) {
            float v;
            if (channel_ > 0) {
                v = inter_[static_cast<size_t>(i * channels_ + channel_ - 1)];
                if (!std::isfinite(v)) {
                    ++nonFinite_;
                    v = 0.0f;
                } else {
                    ++finite_;
                }
            } else {
                double s = 0;
                for (int c = 0; c < channels_; ++c) {
                    const float x = inter_[static_cast<size_t>(i * channels_ + c)];
                    if (std::isfinite(x)) {
                        s += x;
                        ++finite_;
                    } else {
                        ++nonFinite_;
                    }
                }
                v = static_cast<float>(s / channels_);
            }
            mono_[static_cast<size_t>(i)] = v;
        }
        if (whole_) {
            whole_->push(mono_.data(), static_cast<long>(n), eof_, pend_);
            if (eof_) flushed_ = true;
            return !pend_.empty() || !flushed_;
        }
        if (!src_) {
            pend_.swap(mono_);
            if (eof_) flushed_ = true;
            return !pend_.empty();
        }
        const double ratio = static_cast<double>(kRate) / rate_;
        long inPos = 0;
        std::vector<float> buf(static_cast<size_t>(std::ceil(static_cast<double>(n) * ratio)) + 256);
        for (;;) {
            SRC_DATA d{};
            d.data_in = mono_.data() + inPos;
            d.input_frames = static_cast<long>(n) - inPos;
            d.data_out = buf.data();
            d.output_frames = static_cast<long>(buf.size());
            d.src_ratio = ratio;
            d.end_of_input = eof_ ? 1 : 0;
            const int err = src_process(src_, &d);
            if (err != 0) throw ToolError(std::string("resampling failed: ") + src_strerror(err));
            inPos += d.input_frames_used;
            pend_.insert(pend_.end(), buf.begin(), buf.begin() + d.output_frames_gen);
            if (inPos >= n && (d.output_frames_gen == 0 || !eof_)) break;
        }
        if (eof_) flushed_ = true;
        return !pend_.empty() || !flushed_;
    }

    SNDFILE *f_ = nullptr;
    SRC_STATE *src_ = nullptr;
    std::unique_ptr<WholeFactorResampler> whole_;
    int rate_ = 0, channels_ = 0, format_ = 0, channel_ = 0;
    long long frames_ = 0, length16_ = 0, done_ = 0, nonFinite_ = 0, finite_ = 0;
    bool eof_ = false, flushed_ = false;
    std::vector<float> inter_, mono_, pend_;
    long pendPos_ = 0;
};

// ---------------------------------------------------------------------------
// Fractional delay: a Kaiser-windowed sinc of 2 x kHalf taps, tabulated at
// kPhases fractional positions with linear interpolation between them.
class SincInterpolator {
public:
    static constexpr int kHalf = 32;
    static constexpr int kPhases = 512;
    SincInterpolator() {
        // Cut-off at the Nyquist frequency: at a whole-sample position the
        // kernel is the identity (a full-band far end keeps its top band),
        // between them the window's transition band lowers only the last few
        // hundred hertz below 8 kHz.
        const double fc = 1.0, beta = 9.0;
        table_.resize(static_cast<size_t>((kPhases + 1) * 2 * kHalf));
        auto i0 = [](double x) {
            double s = 1, t = 1;
            for (int k = 1; k < 40; ++k) {
                t *= (x / (2 * k)) * (x / (2 * k));
                s += t;
            }
            return s;
        };
        for (int p = 0; p <= kPhases; ++p) {
            const double frac = static_cast<double>(p) / kPhases;
            double sum = 0;
            float *row = &table_[static_cast<size_t>(p * 2 * kHalf)];
            for (int k = 0; k < 2 * kHalf; ++k) {
                // Tap k weighs sample floor(pos) - kHalf + 1 + k.
                const double x = static_cast<double>(k - kHalf + 1) - frac;
                const double sinc = x == 0 ? 1.0 : std::sin(M_PI * fc * x) / (M_PI * fc * x);
                const double r = x / (kHalf + 0.0);
                const double w = std::fabs(r) >= 1 ? 0.0 : i0(beta * std::sqrt(1 - r * r)) / i0(beta);
                row[k] = static_cast<float>(fc * sinc * w);
                sum += fc * sinc * w;
            }
            for (int k = 0; k < 2 * kHalf; ++k) row[k] = static_cast<float>(row[k] / sum);  // unit gain at DC
        }
    }
    // Value at fractional position `frac` (0..1) after sample x[0]; `x`
    // points at the sample floor(pos) and has kHalf - 1 samples before it
    // and kHalf after it.
    float at(const float *x, double frac) const {
        const double ph = frac * kPhases;
        const int p = std::min(static_cast<int>(ph), kPhases - 1);
        const float a = static_cast<float>(ph - p);
        const float *r0 = &table_[static_cast<size_t>(p * 2 * kHalf)];
        const float *r1 = r0 + 2 * kHalf;
        const float *s = x - (kHalf - 1);
        const float acc0 = dot(r0, s, 2 * kHalf), acc1 = dot(r1, s, 2 * kHalf);
        return acc0 + a * (acc1 - acc0);
    }

private:
    std::vector<float> table_;
};

// The 16 kHz far end read ahead and kept back as far as the compensation
// needs: sample(i) for any i (zero outside the recording).
class FarWindow {
public:
    FarWindow(Source16 &src, long keepBack) : src_(src), keep_(keepBack) {}
    // Makes samples up to `hi` available and drops those before `lo`.
    void need(long long lo, long long hi) {
        while (base_ + static_cast<long long>(buf_.size()) <= hi && !end_) {
            float tmp[4096];
            const long n = src_.read(tmp, 4096);
            if (n == 0) {
                end_ = true;
                break;
            }
            buf_.insert(buf_.end(), tmp, tmp + n);
        }
        const long long drop = lo - keep_ - base_;
        if (drop > 65536) {
            buf_.erase(buf_.begin(), buf_.begin() + static_cast<long>(drop));
            base_ += drop;
        }
    }
    // Pointer to sample i with kHalf samples of room on both sides (copied
    // into a scratch when the range leaves the buffer).
    const float *around(long long i) {
        const long long lo = i - SincInterpolator::kHalf, hi = i + SincInterpolator::kHalf;
        if (lo >= base_ && hi < base_ + static_cast<long long>(buf_.size()))
            return &buf_[static_cast<size_t>(i - base_)];
        for (long long j = lo; j <= hi; ++j) scratch_[static_cast<size_t>(j - lo)] = sample(j);
        return &scratch_[static_cast<size_t>(SincInterpolator::kHalf)];
    }
    float sample(long long i) const {
        if (i < base_ || i >= base_ + static_cast<long long>(buf_.size())) return 0.0f;
        return buf_[static_cast<size_t>(i - base_)];
    }

private:
    Source16 &src_;
    long keep_;
    std::vector<float> buf_;
    long long base_ = 0;
    bool end_ = false;
    float scratch_[2 * SincInterpolator::kHalf + 1] = {};
};

// Progress of both passes: a bar on a terminal, else one line per 10 %:
//   kvaec: progress PASS PERCENT
// (PASS is "delay" or "cancel").
class PassProgress {
public:
    PassProgress(bool enabled) : on_(enabled), tty_(::isatty(2) != 0) {}
    void start(const char *pass, long long total) {
        pass_ = pass;
        total_ = std::max<long long>(total, 1);
        last_ = -1;
    }
    void update(long long done) {
        if (!on_) return;
        const int pct = static_cast<int>(std::min<long long>(100, 100 * done / total_));
        if (tty_) {
            if (pct == last_) return;
            last_ = pct;
            char bar[31];
            const int fill = pct * 30 / 100;
            for (int i = 0; i < 30; ++i) bar[i] = i < fill ? '#' : '.';
            bar[30] = '\0';
            std::fprintf(stderr, "\r%-6s [%s] %3d%%", pass_, bar, pct);
            std::fflush(stderr);
        } else if (pct / 10 != last_ / 10 || last_ < 0) {
            last_ = pct;
            std::fprintf(stderr, "kvaec: progress %s %d\n", pass_, pct / 10 * 10);
            std::fflush(stderr);
        }
    }
    void finish() {
        if (on_ && tty_) {
            std::fprintf(stderr, "\r%50s\r", "");
            std::fflush(stderr);
        } else if (on_ && last_ < 100) {
            std::fprintf(stderr, "kvaec: progress %s 100\n", pass_);
        }
    }

private:
    bool on_, tty_;
    const char *pass_ = "";
    long long total_ = 1;
    int last_ = -1;
};

// Checks of an analysis stream: clipping, level.
struct StreamCheck {
    long long clipped = 0;
    double firstClipSec = -1;
    long long badFrames = 0;
    double power = 0;
    long long powerFrames = 0;
    double rmsDb() const { return 10.0 * std::log10((powerFrames > 0 ? power / static_cast<double>(powerFrames * kFrame) : 0.0) + 1e-20); }
};

// Frame analysis of a 16 kHz stream fed in arbitrary blocks.
class FrameScan {
public:
    explicit FrameScan(StreamCheck &c) : c_(c) {}
    void push(const float *x, long n, long long at) {
        for (long i = 0; i < n; ++i) {
            const float v = x[i];
            if (std::fabs(v) >= 0.999f) {
                if (c_.clipped == 0) c_.firstClipSec = static_cast<double>(at + i) / kRate;
                ++c_.clipped;
            }
            if (std::fabs(v) > kHugeSample) bad_ = true;
            p_ += static_cast<double>(v) * v;
            if (++fill_ == kFrame) {
                if (bad_) {
                    ++c_.badFrames;
                } else {
                    c_.power += p_;
                    ++c_.powerFrames;
                }
                fill_ = 0;
                p_ = 0;
                bad_ = false;
            }
        }
    }

private:
    StreamCheck &c_;
    double p_ = 0;
    int fill_ = 0;
    bool bad_ = false;
};

bool fileExists(const std::string &p) {
    struct stat st {};
    return ::stat(p.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// The plot script of this command sits next to the one of `simulate`.
std::string plotScript() {
    if (const char *e = std::getenv("KVAEC_PROCESS_PLOT_SCRIPT")) return e;
    for (std::string p : {std::string(KVAEC_PLOT_SCRIPT_SOURCE), std::string(KVAEC_PLOT_SCRIPT_INSTALLED)}) {
        const size_t at = p.rfind("plot_sim.py");
        if (at == std::string::npos) continue;
        p.replace(at, std::strlen("plot_sim.py"), "plot_process.py");
        if (fileExists(p)) return p;
    }
    return {};
}

std::string runPlot(const std::string &csv, const std::string &png) {
    const std::string script = plotScript();
    if (script.empty()) return "scripts/plot_process.py not found (set KVAEC_PROCESS_PLOT_SCRIPT)";
    const char *py = "/usr/bin/python3";
    if (::access(py, X_OK) != 0) return "/usr/bin/python3 is missing";
    const pid_t pid = ::fork();
    if (pid < 0) return "cannot start python";
    if (pid == 0) {
        const char *argv[] = {py, script.c_str(), csv.c_str(), png.c_str(), nullptr};
        ::execv(py, const_cast<char *const *>(argv));
        ::_exit(127);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return "";
    if (WIFEXITED(status) && WEXITSTATUS(status) == 3) return "python3 has no matplotlib";
    return "the plot script failed";
}

// The rate a wrongly declared file most likely holds: the common rate
// nearest to `declared * ratio` (within 0.5 %), or 0.
int likelyRate(double declared, double ratio) {
    const double r = declared * ratio;
    for (int c : {8000, 11025, 12000, 16000, 22050, 24000, 32000, 44100, 48000, 88200, 96000, 176400, 192000})
        if (std::fabs(r / c - 1.0) < 0.005) return c;
    return 0;
}

std::string khz(int rate) { return rate % 1000 == 0 ? fmt("%d kHz", rate / 1000) : fmt("%.1f kHz", rate / 1000.0); }

std::string jsonNum(double v, const char *f = "%.6g") { return std::isfinite(v) ? fmt(f, v) : std::string("null"); }

std::string jsonStr(const std::string &s) {
    std::string o = "\"";
    for (char c : s) {
        if (c == '"' || c == '\\') o += '\\';
        if (static_cast<unsigned char>(c) < 0x20) {
            o += fmt("\\u%04x", c);
            continue;
        }
        o += c;
    }
    return o + "\"";
}

// Per-second windows of the cancelling pass, for the verdict.
struct Window {
    int frames = 0, farActive = 0, farQuiet = 0, doubleTalk = 0, bad = 0;
    double mic = 0, out = 0, linErr = 0, linMic = 0;
};

}  // namespace

// Thresholds of the verdict (docs/recordings.md gives the figures they come from).
// A window is echo-only when the far end is active in 80 % of its frames
// and the double-talk flag is up in at most 10 %; echo-free when the far end
// has been inactive for kEchoTailFrames before each of its frames (the echo
// of the last active frames, and its cancellation, would otherwise count).
constexpr double kEchoOnlyFarShare = 0.8;
constexpr double kEchoOnlyDtShare = 0.1;
constexpr int kEchoTailFrames = 25;
// Linear echo reduction from which the echo counts as removed.
constexpr double kRemovedDb = 10.0;
// Echo-only windows needed for a verdict other than "not removed".
constexpr int kMinEchoOnlyWindows = 3;
// Largest change of the output level against the microphone's in echo-free
// windows (at least kMinEchoOnlyWindows of them) for "removed": cancelling
// the echo leaves the seconds without echo as they were (measured 0.2-0.3 dB
// with the default settings and in linear mode, 1.5 dB on microphone noise
// at -100 dBFS); processing that turns those down as well (20 dB with the
// strongest noise reduction on -60 dBFS noise) makes the echo figures say
// nothing about removal.
constexpr double kEchoFreeMaxChangeDb = 3.0;

int runProcess(const ProcessArgs &a) {
    checkSettings(a.settings);
    const double givenMs = a.delay == "auto" ? -1.0 : parseMs(a.delay);
    const int farChannel = a.farChannel > 0 ? a.farChannel : a.channel;
    const int micChannel = a.micChannel > 0 ? a.micChannel : a.channel;
    // Reserve the outputs first: an unwritable path, or one that is an input,
    // fails before any work.
    OutputSet outs;
    outs.protectInput(a.far, "--far");
    outs.protectInput(a.mic, "--mic");
    const int outIdx = outs.add(a.out, "--out");
    const int farOutIdx = a.farOut.empty() ? -1 : outs.add(a.farOut, "--far-out");
    const int reportIdx = a.report.empty() ? -1 : outs.add(a.report, "--report");
    const int framesIdx = a.frames.empty() ? -1 : outs.add(a.frames, "--frames");
    if (!a.plot.empty()) outs.addExternal(a.plot, "--plot");
    if (!a.plot.empty() && a.frames.empty())
        throw ToolError("--plot draws the per-frame figures: give --frames FILE.csv too");

    // ---- delay pass ----
    std::vector<std::string> warnings;
    std::unique_ptr<Source16> farA, micA;
    {
        farA.reset(new Source16(a.far, "far-end file", 0, !a.noResample, &warnings));
        micA.reset(new Source16(a.mic, "microphone file", 0, !a.noResample, &warnings));
    }
    // The far end is used mixed unless a channel is chosen; the microphone's
    // processed channel is the chosen one, the first of a multi-channel file
    // when none is (the others pass through, see docs/recordings.md).
    const int farUse = farA->channels() == 1 ? 1 : farChannel;  // 0 = mix
    const int micUse = micA->channels() == 1 ? 1 : (micChannel > 0 ? micChannel : 1);
    if (farChannel > farA->channels())
        throw ToolError("far-end file '" + a.far + "' has " + std::to_string(farA->channels()) +
                        " channel(s); --far-channel " + std::to_string(farChannel) + " does not exist");
    if (micChannel > micA->channels())
        throw ToolError("microphone file '" + a.mic + "' has " + std::to_string(micA->channels()) +
                        " channel(s); --mic-channel " + std::to_string(micChannel) + " does not exist");
    farA.reset(new Source16(a.far, "far-end file", farUse, !a.noResample, nullptr));
    micA.reset(new Source16(a.mic, "microphone file", micUse, !a.noResample, nullptr));
    for (const std::string &w : warnings) warn(w);
    if (farA->rate() != kRate)
        note("far-end file '" + a.far + "' resampled from " + std::to_string(farA->rate()) + " Hz to " +
             std::to_string(kRate) + " Hz for the canceller");
    if (micA->rate() != kRate)
        note("microphone file '" + a.mic + "' resampled from " + std::to_string(micA->rate()) + " Hz to " +
             std::to_string(kRate) + " Hz for the canceller; the output goes back to " +
             std::to_string(micA->rate()) + " Hz");
    if (micA->channels() > 1)
        note(fmt("microphone file has %d channels: channel %d is cleaned, the others pass through unchanged",
                 micA->channels(), micUse));

    const long long farLen = farA->length16(), micLen = micA->length16();
    if (farLen != micLen)
        note(fmt("the files differ in length (far end %.3f s, microphone %.3f s): the shorter is padded with "
                 "silence; the output has the microphone's length",
                 static_cast<double>(farA->frames()) / farA->rate(), static_cast<double>(micA->frames()) / micA->rate()));

    const bool autoDelay = a.delay == "auto";
    kvaec_track_params tp;
    kvaec_track_default_params(&tp);
    tp.max_offset_sec = a.maxDelayMs / 1000.0;
    // A recording shorter than two windows gets shorter windows (down to
    // 1 s), so that a few seconds still give several measurements.
    {
        const double len = static_cast<double>(std::min(farLen, micLen)) / kRate;
        if (len < 2.0 * tp.window_sec) {
            tp.window_sec = std::max(1.0, len / 2.0);
            tp.hop_sec = tp.window_sec / 2.0;
        }
    }
    struct TrackDel {
        void operator()(kvaec_track *t) const { kvaec_track_destroy(t); }
    };
    std::unique_ptr<kvaec_track, TrackDel> track(autoDelay ? kvaec_track_create(kRate, &tp) : nullptr);
    if (autoDelay && !track) throw ToolError("out of memory for the delay track");

    PassProgress prog(!a.quiet && micLen > 10LL * kRate);
    StreamCheck cf, cm;
    {
        FrameScan sf(cf), sm(cm);
        prog.start("delay", std::max(farLen, micLen));
        std::vector<float> fb(16384), mb(16384);
        long long at = 0;
        for (;;) {
            const long nf = farA->read(fb.data(), 16384), nm = micA->read(mb.data(), 16384);
            if (nf == 0 && nm == 0) break;
            sf.push(fb.data(), nf, at);
            sm.push(mb.data(), nm, at);
            if (track && kvaec_track_push(track.get(), fb.data(), nf, mb.data(), nm) != 0)
                throw ToolError("the delay track failed (out of memory?)");
            at += std::max(nf, nm);
            prog.update(at);
        }
        prog.finish();
    }
    if (farA->finite() == 0)
        throw ToolError("far-end file '" + a.far + "' holds no usable samples (all " +
                        std::to_string(farA->nonFinite()) + " are NaN or infinite)");
    if (micA->finite() == 0)
        throw ToolError("microphone file '" + a.mic + "' holds no usable samples (all " +
                        std::to_string(micA->nonFinite()) + " are NaN or infinite)");
    if (cf.rmsDb() < -70.0)
        warn(fmt("the far end is silent (%.1f dBFS): there is no echo reference, the canceller can only "
                 "suppress noise", cf.rmsDb()));
    if (cf.clipped > 0)
        warn(fmt("far-end input clips: %lld samples at full scale, first at %.2f s", cf.clipped, cf.firstClipSec));
    if (cm.clipped > 0)
        warn(fmt("microphone input clips: %lld samples at full scale, first at %.2f s (clipped echo cannot be "
                 "cancelled fully)", cm.clipped, cm.firstClipSec));
    if (farA->nonFinite() > 0)
        warn(fmt("far-end input holds %lld non-finite samples: processed as silence", farA->nonFinite()));
    if (micA->nonFinite() > 0)
        warn(fmt("microphone input holds %lld non-finite samples: processed as silence, left out of the figures",
                 micA->nonFinite()));

    // ---- the delay to follow ----
    kvaec_track_summary sum{};
    std::vector<kvaec_track_segment> segs;
    std::vector<kvaec_track_window> wins;
    double constDelay = 0;  // samples, when no track is followed
    bool followTrack = false;
    std::string delayText;
    std::string verdictOverride;
    if (!autoDelay) {
        const double micMs = 1000.0 * static_cast<double>(micLen) / kRate;
        if (givenMs >= micMs)
            throw ToolError(fmt("--delay %g ms is beyond the end of the microphone recording '%s' (%.1f ms): its "
                                "echo would never appear in it", givenMs, a.mic.c_str(), micMs));
        constDelay = static_cast<double>(std::lround(givenMs * kRate / 1000.0));
        delayText = fmt("%.2f ms (%.0f samples, given)", 1000.0 * constDelay / kRate, constDelay);
    } else {
        kvaec_track_finish(track.get(), &sum);
        const int32_t nw = kvaec_track_windows(track.get(), nullptr, 0);
        wins.resize(static_cast<size_t>(std::max(nw, 0)));
        if (nw > 0) kvaec_track_windows(track.get(), wins.data(), nw);
        const int32_t ns = kvaec_track_segments(track.get(), nullptr, 0);
        segs.resize(static_cast<size_t>(std::max(ns, 0)));
        if (ns > 0) kvaec_track_segments(track.get(), segs.data(), ns);
        if (sum.status == KVAEC_TRACK_RATE_MISMATCH) {
            const int farLikely = likelyRate(farA->rate(), sum.rate_ratio);
            const int micLikely = likelyRate(micA->rate(), 1.0 / sum.rate_ratio);
            std::string why;
            if (farLikely > 0 && farLikely != farA->rate())
                why = "the far end looks like " + khz(farLikely) + " audio declared as " + khz(farA->rate()) +
                      " in '" + a.far + "'";
            else if (micLikely > 0 && micLikely != micA->rate())
                why = "the microphone looks like " + khz(micLikely) + " audio declared as " + khz(micA->rate()) +
                      " in '" + a.mic + "'";
            else
                why = fmt("the far end runs %.3f times as fast as the microphone", sum.rate_ratio);
            throw ToolError("the echo's delay changes by " + fmt("%.2f %%", 100.0 * std::fabs(1.0 - sum.rate_ratio)) +
                            " of the time, far more than two clocks drift: " + why +
                            "; fix the file's sample rate (e.g. sox --rate) and run again. No output written.");
        }
        if (sum.status == KVAEC_TRACK_NO_ACTIVITY) {
            delayText = "0 ms (no far-end activity to estimate from)";
        } else if (sum.status == KVAEC_TRACK_NO_MATCH) {
            verdictOverride = "reference does not match the microphone";
            delayText = fmt("none (%d of %d windows with far-end activity matched the microphone)",
                            sum.trusted_windows, sum.active_windows);
            warn("the far end does not match the microphone: no echo of it was found in '" + a.mic +
                 "' (wrong file, or another recording). The output is the microphone unchanged.");
        } else {
            followTrack = true;
            const double d0 = kvaec_track_delay_at(track.get(), 0.0) * kRate;
            constDelay = d0;
            // A track that stays within 0.05 sample of one whole number over
            // the whole recording is that whole number: the far end is then
            // copied, not interpolated (the fit's last digits are noise).
            if (sum.segments == 1) {
                const double dEnd = kvaec_track_delay_at(track.get(), static_cast<double>(micLen) / kRate) * kRate;
                const double whole = std::round(d0);
                if (std::fabs(d0 - whole) < 0.05 && std::fabs(dEnd - whole) < 0.05) {
                    followTrack = false;
                    constDelay = whole;
                }
            }
            delayText = fmt("%.2f ms (%.1f samples at the start; %d segment(s), %d of %d windows trusted)",
                            1000.0 * d0 / kRate, d0, sum.segments, sum.trusted_windows, sum.active_windows);
        }
    }

    // Alignment at the start: the rule of the library.
    const long margin = std::lround(a.delayMarginMs * kRate / 1000.0);
    const long bulk0 = std::lround(constDelay);
    const long shift0 = kvaec_align_shift(static_cast<int32_t>(std::max(std::min(bulk0, 0x7fffffffL), -0x7fffffffL)),
                                          static_cast<int32_t>(margin));
    const long lagAtCanceller = kvaec_align_shift(0, static_cast<int32_t>(margin));  // L in the header comment
    const long micShift = std::max(shift0, 0L);
    const long farShift0 = std::max(-shift0, 0L);
    auto delayAt = [&](double t) { return followTrack ? kvaec_track_delay_at(track.get(), t) * kRate : constDelay; };

    // ---- cancelling pass ----
    int micRate = micA->rate(), micChannels = micA->channels();
    const long long micFrames = micA->frames();
    const int micFormat = micA->format();
    farA.reset();
    micA.reset();
    Source16 farS(a.far, "far-end file", farUse, true, nullptr);
    Source16 micS(a.mic, "microphone file", micUse, true, nullptr);
    // The microphone read again at its own rate, for the channels that pass
    // through and for an unchanged copy.
    int r2 = 0, c2 = 0, fmt2 = 0;
    long long fr2 = 0;
    SNDFILE *micRaw = openAudio(a.mic, r2, c2, fr2, fmt2, nullptr);
    struct Closer {
        SNDFILE *f;
        ~Closer() { if (f) sf_close(f); }
    } micRawCloser{micRaw};

    SF_INFO oi{};
    oi.samplerate = micRate;
    oi.channels = micChannels;
    oi.format = a.pcm16 ? (SF_FORMAT_WAV | SF_FORMAT_PCM_16) : micFormat;
    if (!sf_format_check(&oi)) oi.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    // Large files: plain WAV stops at 4 GB.
    if ((oi.format & SF_FORMAT_TYPEMASK) == SF_FORMAT_WAV &&
        static_cast<double>(micFrames) * micChannels * 4 > 4.0e9)
        oi.format = (oi.format & ~SF_FORMAT_TYPEMASK) | SF_FORMAT_RF64;
    SNDFILE *outF = sf_open(outs.tempPath(outIdx).c_str(), SFM_WRITE, &oi);
    if (!outF) throw ToolError("cannot write '" + a.out + "': " + sf_strerror(nullptr));
    struct Closer outCloser{outF};
    if ((oi.format & SF_FORMAT_SUBMASK) != SF_FORMAT_FLOAT && (oi.format & SF_FORMAT_SUBMASK) != SF_FORMAT_DOUBLE)
        sf_command(outF, SFC_SET_CLIPPING, nullptr, SF_TRUE);

    SNDFILE *farOutF = nullptr;
    if (farOutIdx >= 0) {
        SF_INFO fi{};
        fi.samplerate = kRate;
        fi.channels = 1;
        fi.format = SF_FORMAT_WAV | (a.pcm16 ? SF_FORMAT_PCM_16 : SF_FORMAT_FLOAT);
        farOutF = sf_open(outs.tempPath(farOutIdx).c_str(), SFM_WRITE, &fi);
        if (!farOutF) throw ToolError("cannot write '" + a.farOut + "': " + sf_strerror(nullptr));
    }
    struct Closer farOutCloser{farOutF};
    FILE *csv = nullptr;
    if (framesIdx >= 0) {
        csv = std::fopen(outs.tempPath(framesIdx).c_str(), "w");
        if (!csv) throw ToolError("cannot write '" + a.frames + "'");
        std::fprintf(csv, "frame,time_s,far_db,mic_db,out_db,erle_db,linear_erle_db,far_active,double_talk,delay_ms\n");
    }

    // Output writer: the 16 kHz send signal back at the microphone's rate,
    // into the processed channel; the other channels copied.
    SRC_STATE *up = nullptr;
    std::unique_ptr<WholeFactorResampler> upWhole;
    if (micRate != kRate && micRate % kRate == 0) upWhole.reset(new WholeFactorResampler(micRate / kRate, false));
    if (micRate != kRate && !upWhole) {
        int err = 0;
        up = src_new(SRC_SINC_MEDIUM_QUALITY, 1, &err);
        if (!up) throw ToolError(std::string("resampling failed: ") + src_strerror(err));
    }
    struct SrcDel {
        SRC_STATE *s;
        ~SrcDel() { if (s) src_delete(s); }
    } upDel{up};
    long long written = 0;
    std::vector<float> rawBlock, outBlock;
    auto emit = [&](const float *y, long n) {
        // y: samples at the microphone's rate; n may overrun the file's length.
        n = static_cast<long>(std::min<long long>(n, micFrames - written));
        if (n <= 0) return;
        rawBlock.resize(static_cast<size_t>(n * micChannels));
        const sf_count_t got = sf_readf_float(micRaw, rawBlock.data(), n);
        for (sf_count_t i = got; i < n; ++i)
            for (int c = 0; c < micChannels; ++c) rawBlock[static_cast<size_t>(i * micChannels + c)] = 0.0f;
        for (long i = 0; i < n; ++i) rawBlock[static_cast<size_t>(i * micChannels + micUse - 1)] = y[i];
        if (sf_writef_float(outF, rawBlock.data(), n) != n) throw ToolError("writing '" + a.out + "' failed (disk full?)");
        written += n;
    };
    std::vector<float> upBuf;
    bool upFlushed = false;
    auto emit16 = [&](const float *y, long n, bool last) {
        if (upFlushed) return;
        if (last) upFlushed = true;
        if (upWhole) {
            upBuf.clear();
            upWhole->push(y, n, last, upBuf);
            emit(upBuf.data(), static_cast<long>(upBuf.size()));
            return;
        }
        if (!up) {
            emit(y, n);
            return;
        }
        const double ratio = static_cast<double>(micRate) / kRate;
        upBuf.resize(static_cast<size_t>(std::ceil(static_cast<double>(n) * ratio)) + 512);
        long inPos = 0;
        for (;;) {
            SRC_DATA d{};
            d.data_in = y + inPos;
            d.input_frames = n - inPos;
            d.data_out = upBuf.data();
            d.output_frames = static_cast<long>(upBuf.size());
            d.src_ratio = ratio;
            d.end_of_input = last ? 1 : 0;
            const int err = src_process(up, &d);
            if (err != 0) throw ToolError(std::string("resampling failed: ") + src_strerror(err));
            inPos += d.input_frames_used;
            emit(upBuf.data(), d.output_frames_gen);
            if (inPos >= n && (d.output_frames_gen == 0 || !last)) break;
        }
    };
    // Passes the microphone through unchanged (no reference to cancel with).
    auto copyThrough = [&]() {
        std::vector<float> blk(static_cast<size_t>(65536) * micChannels);
        for (;;) {
            const sf_count_t n = sf_readf_float(micRaw, blk.data(), 65536);
            if (n <= 0) break;
            if (sf_writef_float(outF, blk.data(), n) != n) throw ToolError("writing '" + a.out + "' failed (disk full?)");
            written += n;
        }
    };

    Settings st = a.settings;
    st.mode |= KVAEC_MODE_SEND_ONLY_LOSS;
    const bool linearMode = (st.mode & KVAEC_MODE_NO_NLP) && (st.mode & KVAEC_MODE_NO_NR);
    const double farActiveDb = std::max(-60.0, cf.rmsDb() - 30.0);
    // Frames since the far end was last active (large at the start: nothing was played yet).
    long framesSinceFarActive = kEchoTailFrames;
    std::vector<Window> windows;
    std::vector<double> breaksAt;  // canceller frames of the breaks
    long long framesRun = 0;
    double secs = 0;
    double erleIn = 0, erleOut = 0;
    long long erleFrames = 0;
    HealthWatch health(st);
    const bool passThrough = !verdictOverride.empty();

    if (passThrough) {
        copyThrough();
    } else {
        // Frames to run: enough to bring every microphone sample and every
        // far-end sample through the library.
        const long long need = std::max<long long>(micLen + kSinDelay + micShift, farLen + kRinDelay + farShift0);
        const long long frames = (need + kFrame - 1) / kFrame;
        framesRun = frames;
        startCanceller(st);
        SincInterpolator sinc;
        long keepBack = static_cast<long>(kRate) + 2 * SincInterpolator::kHalf;
        for (const kvaec_track_segment &s : segs) keepBack += static_cast<long>(std::fabs(s.jump_sec) * kRate);
        FarWindow farW(farS, keepBack);
        std::vector<float> micBuf;  // the microphone from canceller sample 0 on (micShift zeros first)
        micBuf.assign(static_cast<size_t>(micShift), 0.0f);
        size_t micPos = 0;
        std::vector<float> sendKeep;  // send output not yet written (first kSinDelay + micShift samples skipped)
        long long sendSkip = kSinDelay + micShift, sendDone = 0;
        long long farOutDone = 0;
        const long long farOutSkip = kRinDelay + farShift0;
        prog.start("cancel", frames);
        const auto t0 = std::chrono::steady_clock::now();
        float rin[kFrame], sin[kFrame];
        std::vector<float> micIn(4096);
        for (const kvaec_track_segment &s : segs)
            if (s.is_break) breaksAt.push_back(s.start_sec);
        size_t nextBreak = 0;
        for (long long k = 0; k < frames; ++k) {
            // At a break the compensation steps with the far end, so the
            // echo path the filters learnt stays valid: they are kept unless
            // --at-break reset asks otherwise (docs/recordings.md has the
            // measurement behind the default).
            if (nextBreak < breaksAt.size() &&
                static_cast<double>(k * kFrame - micShift) / kRate >= breaksAt[nextBreak]) {
                if (a.resetAtBreak) reloadCanceller(st);
                ++nextBreak;
            }
            // Microphone frame.
            while (micBuf.size() - micPos < static_cast<size_t>(kFrame)) {
                if (micPos > 65536) {
                    micBuf.erase(micBuf.begin(), micBuf.begin() + static_cast<long>(micPos));
                    micPos = 0;
                }
                const long n = micS.read(micIn.data(), 4096);
                if (n == 0) {
                    micBuf.resize(micPos + kFrame, 0.0f);
                    break;
                }
                micBuf.insert(micBuf.end(), micIn.begin(), micIn.begin() + n);
            }
            std::copy(micBuf.begin() + static_cast<long>(micPos), micBuf.begin() + static_cast<long>(micPos) + kFrame, sin);
            micPos += kFrame;
            // Far-end frame at the tracked positions.
            const long long m0 = k * kFrame;
            const double t0s = static_cast<double>(m0 - micShift) / kRate;
            const double dA = delayAt(t0s), dB = delayAt(t0s + static_cast<double>(kFrame) / kRate);
            const bool straddles = followTrack && std::fabs(dB - dA) > 0.01;  // a break inside the frame
            const double posA = static_cast<double>(m0 - micShift) - dA + static_cast<double>(lagAtCanceller);
            const long long pa = static_cast<long long>(std::floor(posA));
            farW.need(pa - SincInterpolator::kHalf - 2 * kFrame, pa + kFrame + SincInterpolator::kHalf + 2);
            if (!followTrack && posA == static_cast<double>(pa)) {
                for (int n = 0; n < kFrame; ++n) rin[n] = farW.sample(pa + n);
            } else {
                for (int n = 0; n < kFrame; ++n) {
                    const double d = straddles ? delayAt(t0s + static_cast<double>(n) / kRate)
                                               : dA + (dB - dA) * n / kFrame;
                    const double pos = static_cast<double>(m0 + n - micShift) - d + static_cast<double>(lagAtCanceller);
                    const double fl = std::floor(pos);
                    const long long ip = static_cast<long long>(fl);
                    const double frac = pos - fl;
                    if (straddles) farW.need(ip - SincInterpolator::kHalf, ip + SincInterpolator::kHalf + 1);
                    rin[n] = frac == 0.0 ? farW.sample(ip) : sinc.at(farW.around(ip), frac);
                }
            }
            const double farDb = powerDb(rin, kFrame);
            const bool farActive = farDb > farActiveDb;
            framesSinceFarActive = farActive ? 0 : framesSinceFarActive + 1;
            bool badMic = false;
            for (int n = 0; n < kFrame; ++n)
                if (std::fabs(sin[n]) > kHugeSample) badMic = true;
            if (st.applyEq) aecx_miceq(sin);
            double pm = 0;
            for (int n = 0; n < kFrame; ++n) pm += static_cast<double>(sin[n]) * sin[n];
            aecx_process(rin, sin);
            const AEC_tStripScRec &full = AEC_Sc.atStripSc[AEC_NSTRIPREC - 1];
            const double linMicDb = full.fSinDb, linErrDb = std::min(full.fErrAdfDb, full.fErrAdsDb);
            const int dt = AEC_Db.iDoubleTalk;
            if (health.afterFrame(static_cast<long>(k), rin, sin) && health.events().size() <= 10) {
                const HealthEvent &e = health.events().back();
                warn(fmt("at %.2f s: %d non-finite output samples, self-test count %d; canceller reset and its "
                         "settings reloaded", e.timeSec, e.nonFiniteOut, e.bistCount));
            }
            if (st.applyEq) aecx_spkeq(rin);
            // Send output: canceller sample m holds microphone sample m - kSinDelay - micShift.
            double po = 0;
            for (int n = 0; n < kFrame; ++n) po += static_cast<double>(sin[n]) * sin[n];
            {
                long from = 0;
                if (sendSkip > 0) {
                    from = static_cast<long>(std::min<long long>(sendSkip, kFrame));
                    sendSkip -= from;
                }
                const long take = static_cast<long>(std::min<long long>(kFrame - from, micLen - sendDone));
                if (take > 0) {
                    sendKeep.insert(sendKeep.end(), sin + from, sin + from + take);
                    sendDone += take;
                }
                if (sendKeep.size() >= 8192 || sendDone == micLen) {
                    emit16(sendKeep.data(), static_cast<long>(sendKeep.size()), sendDone == micLen);
                    sendKeep.clear();
                }
            }
            if (farOutF) {
                // Receive output m holds the far end at about m - kRinDelay - farShift0.
                for (int n = 0; n < kFrame; ++n) {
                    const long long j = m0 + n - farOutSkip;
                    if (j >= 0 && j < farLen && j == farOutDone) {
                        sf_writef_float(farOutF, &rin[n], 1);
                        ++farOutDone;
                    }
                }
            }
            // Echo figures: the microphone frame entering the canceller and
            // the send output of the same samples (one frame later in
            // blocks of the send delay; frames are compared as wholes).
            const double micDb = 10.0 * std::log10(pm / kFrame + 1e-20);
            const long long wk = (m0 - micShift) / (100LL * kFrame);
            if (m0 >= micShift && m0 - micShift < micLen) {
                if (static_cast<long long>(windows.size()) <= wk) windows.resize(static_cast<size_t>(wk + 1));
                Window &w = windows[static_cast<size_t>(wk)];
                ++w.frames;
                w.farActive += farActive ? 1 : 0;
                w.farQuiet += framesSinceFarActive >= kEchoTailFrames ? 1 : 0;
                w.doubleTalk += dt;
                const bool bad = badMic || health.nearReset(static_cast<long>(k));
                if (bad) {
                    ++w.bad;
                } else {
                    w.mic += pm;
                    w.out += po;
                    w.linMic += std::pow(10.0, linMicDb / 10.0);
                    w.linErr += std::pow(10.0, linErrDb / 10.0);
                    if (farActive) {
                        erleIn += pm;
                        erleOut += po;
                        ++erleFrames;
                    }
                }
            }
            if (csv)
                std::fprintf(csv, "%lld,%.2f,%.2f,%.2f,%.2f,%.2f,%.2f,%d,%d,%.4f\n", k,
                             static_cast<double>(m0 - micShift) / kRate, farDb, micDb, powerDb(sin, kFrame),
                             micDb - powerDb(sin, kFrame), linMicDb - linErrDb, farActive ? 1 : 0, dt,
                             1000.0 * delayAt(t0s) / kRate);
            prog.update(k + 1);
        }
        if (!sendKeep.empty() || ((up || upWhole) && !upFlushed)) emit16(sendKeep.data(), static_cast<long>(sendKeep.size()), true);
        prog.finish();
        secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        // Whatever the resampler left short of the exact length: silence.
        std::vector<float> zeros(4096, 0.0f);
        while (written < micFrames) emit(zeros.data(), 4096);
        if (farOutF) {
            float z = 0.0f;
            while (farOutDone < farLen) {
                sf_writef_float(farOutF, &z, 1);
                ++farOutDone;
            }
        }
    }
    if (written != micFrames) throw ToolError("internal: output length differs from the microphone's");
    if (sf_close(outF) != 0) throw ToolError("writing '" + a.out + "' failed (disk full?)");
    outCloser.f = nullptr;
    outs.markWritten(outIdx);
    if (farOutF) {
        if (passThrough) {
            float z = 0.0f;
            for (long long j = 0; j < farLen; ++j) sf_writef_float(farOutF, &z, 1);
        }
        sf_close(farOutF);
        farOutCloser.f = nullptr;
        outs.markWritten(farOutIdx);
    }
    if (csv) {
        if (std::fclose(csv) != 0) throw ToolError("writing '" + a.frames + "' failed (disk full?)");
        outs.markWritten(framesIdx);
    }

    // ---- verdict ----
    const double startSkip = windows.size() >= 20 ? 10.0 : 0.0;  // the filters' first convergence
    double eoMic = 0, eoOut = 0, eoLinMic = 0, eoLinErr = 0, efMic = 0, efOut = 0;
    int eoWindows = 0, efWindows = 0;
    for (size_t i = 0; i < windows.size(); ++i) {
        const Window &w = windows[i];
        const int good = w.frames - w.bad;
        if (good < w.frames / 2 || w.frames == 0) continue;
        if (w.farActive >= kEchoOnlyFarShare * w.frames && w.doubleTalk <= kEchoOnlyDtShare * w.frames) {
            if (static_cast<double>(i) < startSkip) continue;
            eoMic += w.mic;
            eoOut += w.out;
            eoLinMic += w.linMic;
            eoLinErr += w.linErr;
            ++eoWindows;
        } else if (w.farQuiet == w.frames) {
            efMic += w.mic;
            efOut += w.out;
            ++efWindows;
        }
    }
    const double nan = std::nan("");
    const double eoReduction = eoWindows > 0 ? 10.0 * std::log10((eoMic + 1e-20) / (eoOut + 1e-20)) : nan;
    const double eoLinear = eoWindows > 0 ? 10.0 * std::log10((eoLinMic + 1e-20) / (eoLinErr + 1e-20)) : nan;
    const double efChange = efWindows > 0 ? 10.0 * std::log10((efOut + 1e-20) / (efMic + 1e-20)) : nan;
    // In linear mode the output itself is the filters' result.
    const double linearFigure = linearMode ? eoReduction : eoLinear;
    std::string verdict, reason;
    if (!verdictOverride.empty()) {
        verdict = verdictOverride;
        reason = "too few windows where the far end is active match the microphone";
    } else if (eoWindows < kMinEchoOnlyWindows) {
        verdict = "echo not removed";
        reason = fmt("only %d echo-only second(s): the far end is seldom active without the local talker", eoWindows);
    } else if (linearFigure >= kRemovedDb && efWindows >= kMinEchoOnlyWindows &&
               std::fabs(efChange) > kEchoFreeMaxChangeDb) {
        verdict = "echo not removed";
        reason = fmt("linear echo reduction %.1f dB, but the output level also changed by %+.1f dB in %d echo-free "
                     "second(s) (at most %.0f dB allowed): the processing changes more than the echo (noise "
                     "reduction or suppression)", linearFigure, efChange, efWindows, kEchoFreeMaxChangeDb);
    } else if (linearFigure >= kRemovedDb) {
        verdict = "echo removed";
        reason = fmt("linear echo reduction %.1f dB in %d echo-only second(s)", linearFigure, eoWindows);
    } else {
        verdict = "echo not removed";
        reason = fmt("linear echo reduction only %.1f dB in %d echo-only second(s) (at least %.0f dB needed): the "
                     "echo was at most turned down", linearFigure, eoWindows, kRemovedDb);
    }

    // ---- report ----
    const double dur = static_cast<double>(micFrames) / micRate;
    if (reportIdx >= 0) {
        std::string j = "{\n";
        j += "  \"far\": " + jsonStr(a.far) + ",\n  \"mic\": " + jsonStr(a.mic) + ",\n  \"out\": " + jsonStr(a.out) + ",\n";
        j += fmt("  \"duration_sec\": %.3f,\n  \"mic_rate\": %d,\n  \"mic_channels\": %d,\n  \"processed_channel\": %d,\n",
                 dur, micRate, micChannels, micUse);
        const char *status = !autoDelay ? "given"
                             : sum.status == KVAEC_TRACK_OK ? "ok"
                             : sum.status == KVAEC_TRACK_NO_ACTIVITY ? "no_activity"
                             : sum.status == KVAEC_TRACK_NO_MATCH ? "no_match" : "rate_mismatch";
        j += std::string("  \"delay_status\": \"") + status + "\",\n";
        j += "  \"offset_at_start_ms\": " + jsonNum(passThrough ? nan : 1000.0 * constDelay / kRate, "%.4f") + ",\n";
        j += "  \"offset_at_start_samples\": " + jsonNum(passThrough ? nan : constDelay, "%.4f") + ",\n";
        j += fmt("  \"windows\": %d,\n  \"active_windows\": %d,\n  \"trusted_windows\": %d,\n", sum.windows,
                 sum.active_windows, sum.trusted_windows);
        j += "  \"trusted_share\": " +
             jsonNum(sum.active_windows > 0 ? static_cast<double>(sum.trusted_windows) / sum.active_windows : nan, "%.4f") +
             ",\n";
        // How far the trusted windows' measurements lie from the fitted
        // track (16 kHz samples): the fit's residual, where it was measured.
        double resMax = 0, resSq = 0;
        int resN = 0;
        if (followTrack || (autoDelay && sum.status == KVAEC_TRACK_OK))
            for (const kvaec_track_window &w : wins) {
                // A window over a break measures a mixture of both delays.
                bool overBreak = false;
                for (const kvaec_track_segment &sg : segs)
                    if (sg.is_break && std::fabs(sg.start_sec - w.time_sec) < tp.window_sec) overBreak = true;
                if (w.trusted && !overBreak) {
                    const double r = (w.delay_sec - kvaec_track_delay_at(track.get(), w.time_sec)) * kRate;
                    resMax = std::max(resMax, std::fabs(r));
                    resSq += r * r;
                    ++resN;
                }
            }
        j += "  \"residual_offset_max_samples\": " + jsonNum(resN > 0 ? resMax : nan, "%.4f") + ",\n";
        j += "  \"residual_offset_rms_samples\": " + jsonNum(resN > 0 ? std::sqrt(resSq / resN) : nan, "%.4f") + ",\n";
        j += "  \"segments\": [";
        for (size_t i = 0; i < segs.size(); ++i) {
            const kvaec_track_segment &s = segs[i];
            j += fmt("%s\n    {\"start_sec\": %.3f, \"end_sec\": %.3f, \"delay_ms\": %.4f, \"drift_ppm\": %.3f, "
                     "\"jump_ms\": %.4f, \"is_break\": %s, \"trusted_windows\": %d}",
                     i ? "," : "", s.start_sec, s.end_sec, 1000.0 * s.delay_sec, s.drift_ppm, 1000.0 * s.jump_sec,
                     s.is_break ? "true" : "false", s.trusted_windows);
        }
        j += segs.empty() ? "],\n" : "\n  ],\n";
        j += "  \"breaks\": [";
        bool first = true;
        for (const kvaec_track_segment &s : segs)
            if (s.is_break) {
                j += fmt("%s\n    {\"time_sec\": %.3f, \"size_ms\": %.4f}", first ? "" : ",", s.start_sec,
                         1000.0 * s.jump_sec);
                first = false;
            }
        j += first ? "],\n" : "\n  ],\n";
        j += std::string("  \"linear_mode\": ") + (linearMode ? "true" : "false") + ",\n";
        j += fmt("  \"echo_only_seconds\": %d,\n", eoWindows);
        j += "  \"linear_echo_reduction_db\": " + jsonNum(linearFigure, "%.2f") + ",\n";
        j += "  \"output_echo_reduction_db\": " + jsonNum(eoReduction, "%.2f") + ",\n";
        j += fmt("  \"echo_free_seconds\": %d,\n", efWindows);
        j += "  \"echo_free_level_change_db\": " + jsonNum(efChange, "%.2f") + ",\n";
        j += "  \"verdict\": " + jsonStr(verdict) + ",\n";
        j += "  \"reason\": " + jsonStr(reason) + "\n}\n";
        outs.writeText(reportIdx, j);
    }
    outs.commit();

    std::printf("duration:        %.2f s (%lld frames)\n", dur, framesRun);
    if (secs > 0)
        std::printf("real-time factor: %.4f (%.1f s of audio per second)\n", secs / dur, dur / secs);
    std::printf("bulk delay:      %s\n", delayText.c_str());
    if (followTrack) {
        for (const kvaec_track_segment &s : segs)
            std::printf("  from %8.2f s: delay %8.3f ms, drift %+8.2f ppm%s\n", s.start_sec, 1000.0 * s.delay_sec,
                        s.drift_ppm, s.is_break ? fmt(" (jump %+.2f ms)", 1000.0 * s.jump_sec).c_str() : "");
    }
    if (!passThrough)
        std::printf("alignment:       far end delayed %ld samples, microphone delayed %ld samples: the echo reaches "
                    "the canceller %ld samples after the receive output (least %d)\n",
                    farShift0, micShift, lagAtCanceller - kRinDelay, KVAEC_ECHO_MIN_DELAY);
    const double erle = 10.0 * std::log10((erleIn + 1e-20) / (erleOut + 1e-20));
    if (erleFrames > 0 && std::isfinite(erle))
        std::printf("ERLE:            %.1f dB over %lld frames with far-end activity\n", erle, erleFrames);
    else
        std::printf("ERLE:            n/a (no usable frame with far-end activity)\n");
    if (!passThrough) std::printf("%s\n", health.summary().c_str());
    std::printf("verdict:         %s (%s)\n", verdict.c_str(), reason.c_str());
    if (!a.plot.empty()) {
        const std::string why = runPlot(a.frames, a.plot);
        std::printf("plot:            %s\n", why.empty() ? a.plot.c_str() : ("skipped: " + why).c_str());
    }
    std::printf("wrote:           %s%s%s\n", a.out.c_str(), a.farOut.empty() ? "" : ", ", a.farOut.c_str());
    return 0;
}

}  // namespace kvaec::tool
