// Delay track over a whole recording pair (the engine behind the
// kvaec_track_* functions of kvaec_host.h): windowed GCC-PHAT with a
// sub-sample peak, lock-and-follow search, a probe for wrongly declared
// sample rates, and a robust piecewise-linear fit of delay against time.
#ifndef KVAEC_HOST_TRACK_H
#define KVAEC_HOST_TRACK_H

#include <complex>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "kvaec_host.h"

namespace kvaec::tool {

// Complex radix-2 FFT of one power-of-two size with its twiddles and
// bit-reversal order computed once (the per-window transforms of the track
// run thousands of times on the same sizes).
class FftPlan {
public:
    explicit FftPlan(size_t n);
    size_t size() const { return n_; }
    // In place; forward uses e^{-j2pi nk/N}, inverse e^{+j2pi nk/N} without
    // the 1/N scale.
    void forward(std::complex<double> *x) const { run(x, false); }
    void inverse(std::complex<double> *x) const { run(x, true); }

private:
    void run(std::complex<double> *x, bool inverse) const;
    size_t n_;
    std::vector<std::complex<double>> tw_;
    std::vector<uint32_t> rev_;
};

// Samples of one stream with the bad-sample rule applied frame by frame as
// they arrive, kept from `base()` on (older samples are discarded as the
// analysis moves on). Reads outside the kept range give silence.
class TrackStream {
public:
    explicit TrackStream(int rate);
    void push(const float *x, int64_t n);
    void flush();  // the final partial frame, at the end of the stream
    int64_t total() const { return total_; }
    int64_t base() const { return base_; }
    float at(int64_t i) const {
        return i >= base_ && i < total_ ? buf_[static_cast<size_t>(i - base_)] : 0.0f;
    }
    // Power of the 10 ms frame holding sample i (0 outside or when left out).
    double framePower(int64_t frame) const;
    int frameLen() const { return frame_; }
    double loudestPower() const { return loudest_; }
    // Loudest usable frame power among frames up to `frame` (inclusive).
    double loudestUpTo(int64_t frame) const;
    int64_t excludedFrames() const { return excluded_; }
    void discardBefore(int64_t i);
    // Copies of the cleaned samples [from, from + len) are also appended to
    // `probe` while it is set (for the rate probe); nullptr to stop.
    void setProbe(std::vector<float> *probe, int64_t from, int64_t len);

private:
    void commitFrame(const float *x, int n);
    double percentile90();
    int rate_;
    int frame_;
    std::vector<float> pend_;
    std::vector<float> buf_;
    std::vector<float> pow_;  // per frame from base_ / frame_
    std::vector<float> max_;  // loudest frame power up to each frame
    int64_t base_ = 0;        // multiple of frame_
    int64_t total_ = 0;
    int64_t excluded_ = 0;
    double loudest_ = 0;
    std::vector<uint32_t> hist_;
    uint64_t histN_ = 0;
    double p90_ = -300;
    int sinceP90_ = 0;
    std::vector<float> *probe_ = nullptr;
    int64_t probeFrom_ = 0, probeLen_ = 0;
};

// Result of one correlation search.
struct TrackFix {
    bool ok = false;
    double delay = 0;  // samples, at the window centre
    double conf = 0;   // peak over the robust noise level of the correlation
};

// A read-only view of samples with absolute indices (silence outside).
struct SampleView {
    const TrackStream *stream = nullptr;
    const std::vector<float> *vec = nullptr;
    float at(int64_t i) const {
        if (stream) return stream->at(i);
        return i >= 0 && i < static_cast<int64_t>(vec->size()) ? (*vec)[static_cast<size_t>(i)] : 0.0f;
    }
};

class DelayTrack {
public:
    DelayTrack(int rate, const kvaec_track_params &p);
    int push(const float *far, int64_t farN, const float *mic, int64_t micN);
    bool latest(kvaec_track_window *out) const;
    int finish(kvaec_track_summary *out);
    bool finished() const { return finished_; }
    const std::vector<kvaec_track_window> &windows() const { return win_; }
    const std::vector<kvaec_track_segment> &segments() const { return seg_; }
    double delayAt(double t) const;
    // Figures for tests and benchmarks.
    int64_t keptSamples() const;

private:
    struct Meta {
        bool confident = false;
        bool follows = false;  // consistent with the streaming track
        double farCentre = 0;  // samples
        double delay = 0;      // samples
    };
    struct Point {
        double x;  // microphone time of the window centre, s
        double y;  // delay, s
        size_t w;  // window index
    };
    void analyseReady(bool atEnd);
    void analyseWindow(int64_t a);
    TrackFix narrow(const SampleView &far, const SampleView &mic, int64_t a, double d0, double slope, int64_t from = 0,
                    int64_t len = -1);
    TrackFix withOwnSlope(const SampleView &fv, const SampleView &mv, int64_t a, const TrackFix &fx);
    TrackFix coarse(const SampleView &far, const SampleView &mic, int64_t a, int64_t maxOff);
    bool farActive(int64_t a) const;
    double locateJump(const SampleView &fv, const SampleView &mv, int64_t a, double dA, double slopeA, double dB);
    double predict(double farCentre, double &tol) const;
    void follow(size_t wi, const TrackFix &f, double farCentre);
    void probeCheck(bool atEnd);
    bool rateProbe();
    void fit();
    std::vector<double> fitPiece(std::vector<Point> &pts, std::vector<double> &knots);

    int rate_;
    kvaec_track_params p_;
    int64_t W_, hop_, maxOff_, M_, q_;
    FftPlan narrowPlan_;
    FftPlan coarsePlan_;
    std::vector<FftPlan> smallPlans_;  // shorter blocks for strong drift
    int64_t B_ = 0;  // far-end block of the narrow search
    std::vector<double> decim_;
    TrackStream far_, mic_;
    int64_t next_ = 0;  // far start of the next window
    bool finished_ = false;
    std::vector<kvaec_track_window> win_;
    std::vector<Meta> meta_;
    // Streaming lock: recent fixes consistent with each other.
    std::vector<std::pair<double, double>> model_;  // (far centre, delay) in samples
    double slope_ = 0;
    double winSlope_ = 0;
    bool slopeKnown_ = false;
    bool havePending_ = false;
    std::pair<double, double> pending_;
    size_t pendingWin_ = 0;
    int misses_ = 0;
    int latest_ = -1;
    // Rate probe: the first stretch of both streams with far-end activity.
    bool probing_ = true;
    int64_t probeFrom_ = 0, probeLen_ = 0;
    std::vector<float> probeFar_, probeMic_;
    std::vector<double> jumpHints_;  // microphone times where a jump was located, s
    bool rateMismatch_ = false;
    double rateRatio_ = 1.0;
    // Work buffers.
    std::vector<std::complex<double>> z_, acc_;
    std::vector<double> mag_;
    // Fit.
    kvaec_track_summary sum_{};
    std::vector<kvaec_track_segment> seg_;
};

}  // namespace kvaec::tool

#endif
