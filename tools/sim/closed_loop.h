// Closed-loop simulation of a hands-free terminal around the canceller:
// the far-end signal goes through aecx_process to the loudspeaker, the echo
// is made from what the library actually played (after at least one frame of
// playback latency), and the microphone picks up echo, near-end signal and
// noise. Shared by the scenario tests and the tools.
#ifndef KVAEC_TEST_CLOSED_LOOP_H
#define KVAEC_TEST_CLOSED_LOOP_H

#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace kvaec::sim {

constexpr int kFrame = 160;
constexpr int kRate = 16000;

// Power of a block in dBFS (full scale sine = -3 dBFS; full-scale square = 0).
double levelDb(const float *x, int n);
double powerOf(const float *x, int n);

// A loudspeaker-to-microphone echo path: pure latency plus an exponentially
// decaying random tail, scaled so that the echo is `erlDb` below its input
// for white input (ERL as a positive loss in dB). `rate`: sample rate of the
// path in Hz (the library's 16 kHz unless a host runs at another rate).
std::vector<float> makeEchoPath(uint32_t seed, double latencyMs, double tailMs, double erlDb, int rate = kRate);

// Signal sources (frame by frame, deterministic for a seed).
class WhiteNoise {
public:
    WhiteNoise(uint32_t seed, double levelDbfs);
    void fill(float *x, int n);
private:
    std::mt19937 rng_;
    std::normal_distribution<float> dist_;
    float gain_;
};

// Noise shaped to a long-term speech spectrum (resonant low-pass around
// 500 Hz with a -12 dB/octave slope above about 1 kHz and a high-pass near
// 100 Hz), switched on and off in bursts of 0.2-2 s, with syllabic modulation.
// `levelDbfs` is the level while active; `rate` the sample rate in Hz.
class SpeechLike {
public:
    SpeechLike(uint32_t seed, double levelDbfs, bool bursts = true, int rate = kRate);
    void fill(float *x, int n);
    bool active() const { return on_; }
private:
    std::mt19937 rng_;
    std::normal_distribution<float> dist_;
    std::uniform_real_distribution<float> uni_;
    bool bursts_;
    int rate_;
    bool on_ = true;
    int left_ = 0;
    double gain_ = 1.0;
    double lp1_ = 0, lp2_ = 0, hpIn_ = 0, hpOut_ = 0;
    double phase_ = 0;
    long t_ = 0;
    double shape(float w);
};

// Per-frame record of one simulated frame.
struct FrameStats {
    double farDb;      // far-end input level (what the host hands to the library)
    double echoDb;     // echo component at the microphone
    double micDb;      // microphone level
    double outDb;      // send output level
    double playedDb;   // receive output level (what was played)
    bool farActive;    // far-end source active in this frame
    int doubleTalk;    // AEC_Db.iDoubleTalk after the frame
    float epcDb;       // AEC_Db.fEpcDb after the frame
    float tdAlarmDb;   // AEC_Db.fTdAlarmDb after the frame
    float adaptTime;   // AEC_Db.fAdaptTime after the frame
};

class ClosedLoop {
public:
    // `path` is the echo FIR; an extra playback latency of `playbackFrames`
    // whole frames (at least one) sits in front of it.
    explicit ClosedLoop(std::vector<float> path, int playbackFrames = 1);

    void setPath(std::vector<float> path) { path_ = std::move(path); }

    // Optional host-side stages around the library (all off by default):
    //  - playback filter: runs in place on the library's receive output frame;
    //    its result is what is played (returned in `played`, echoed);
    //  - loudspeaker: memoryless curve applied to every played sample on its
    //    way into the echo path (e.g. a soft-clipping loudspeaker);
    //  - microphone filter: runs in place on the microphone frame (echo plus
    //    near signal) before it is handed to the library.
    void setPlaybackFilter(std::function<void(float *)> f) { playFilter_ = std::move(f); }
    void setLoudspeaker(std::function<float(float)> f) { speaker_ = std::move(f); }
    void setMicFilter(std::function<void(float *)> f) { micFilter_ = std::move(f); }

    // Echo component and microphone frame (as handed to the library) of the
    // last step, 160 samples each.
    const float *lastEcho() const { return micEcho_.data(); }
    const float *lastMic() const { return micIn_.data(); }

    // Runs one frame: far (160 samples) goes to the library; near is added at
    // the microphone. Writes what the library sends to `out` and what it plays
    // to `played` (either may be null). Returns the frame's statistics.
    FrameStats step(const float *far, const float *near, float *out = nullptr, float *played = nullptr);

    const std::vector<FrameStats> &history() const { return hist_; }

    // Writes the per-frame history as CSV (frame, time, levels, flags).
    bool writeCsv(const std::string &path) const;

private:
    std::vector<float> path_;
    std::vector<float> playedHist_;  // played samples, oldest first
    std::vector<float> micEcho_;     // echo of the current frame
    std::vector<float> micIn_;       // microphone frame handed to the library
    std::function<void(float *)> playFilter_;
    std::function<float(float)> speaker_;
    std::function<void(float *)> micFilter_;
    int playbackDelay_;
    std::vector<FrameStats> hist_;
};

// ERLE in dB over frames [from, to): echo power at the microphone over the
// residual power in the send output, both summed over the frames where the
// predicate holds (all frames when null).
double erleDb(const std::vector<FrameStats> &h, int from, int to,
              const std::function<bool(const FrameStats &)> &use = nullptr);

// Optional CSV output directory for scenario curves (env KVAEC_CURVES_DIR).
std::string curvesDir();

}  // namespace kvaec::sim

#endif
