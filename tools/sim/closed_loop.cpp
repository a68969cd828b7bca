#include "closed_loop.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "kvaec.h"
#include "kvaec_records.h"

namespace kvaec::sim {

double powerOf(const float *x, int n) {
    double p = 0;
    for (int i = 0; i < n; ++i) p += static_cast<double>(x[i]) * x[i];
    return p / n;
}

double levelDb(const float *x, int n) { return 10.0 * std::log10(powerOf(x, n) + 1e-20); }

std::vector<float> makeEchoPath(uint32_t seed, double latencyMs, double tailMs, double erlDb, int rate) {
    const int lat = static_cast<int>(latencyMs * rate / 1000.0);
    const int tail = static_cast<int>(tailMs * rate / 1000.0);
    std::vector<float> h(static_cast<size_t>(lat + tail), 0.0f);
    std::mt19937 rng(seed);
    std::normal_distribution<double> g(0.0, 1.0);
    // Decay of 60 dB over the tail length.
    const double tau = tail / (60.0 / 8.686);
    double energy = 0;
    std::vector<double> v(static_cast<size_t>(tail));
    for (int i = 0; i < tail; ++i) {
        v[static_cast<size_t>(i)] = g(rng) * std::exp(-i / tau);
        energy += v[static_cast<size_t>(i)] * v[static_cast<size_t>(i)];
    }
    const double scale = std::pow(10.0, -erlDb / 20.0) / std::sqrt(energy);
    for (int i = 0; i < tail; ++i) h[static_cast<size_t>(lat + i)] = static_cast<float>(v[static_cast<size_t>(i)] * scale);
    return h;
}

WhiteNoise::WhiteNoise(uint32_t seed, double levelDbfs)
    : rng_(seed), dist_(0.0f, 1.0f), gain_(static_cast<float>(std::pow(10.0, levelDbfs / 20.0))) {}

void WhiteNoise::fill(float *x, int n) {
    for (int i = 0; i < n; ++i) x[i] = gain_ * dist_(rng_);
}

SpeechLike::SpeechLike(uint32_t seed, double levelDbfs, bool bursts, int rate)
    : rng_(seed), dist_(0.0f, 1.0f), uni_(0.0f, 1.0f), bursts_(bursts), rate_(rate) {
    // Calibrate the gain on 4 s of the shaped, modulated noise.
    SpeechLike probe(*this);
    probe.bursts_ = false;
    probe.gain_ = 1.0;
    std::vector<float> buf(4 * rate_);
    probe.fill(buf.data(), static_cast<int>(buf.size()));
    const double p = powerOf(buf.data(), static_cast<int>(buf.size()));
    gain_ = std::pow(10.0, levelDbfs / 20.0) / std::sqrt(p);
    left_ = bursts_ ? static_cast<int>((0.2f + 1.8f * uni_(rng_)) * static_cast<float>(rate_)) : 0;
}

double SpeechLike::shape(float w) {
    // Two one-pole low-passes at about 800 Hz, then a one-pole high-pass at about 100 Hz.
    const double a = std::exp(-2.0 * M_PI * 800.0 / rate_);
    lp1_ = (1 - a) * w + a * lp1_;
    lp2_ = (1 - a) * lp1_ + a * lp2_;
    const double c = std::exp(-2.0 * M_PI * 100.0 / rate_);
    const double y = c * (hpOut_ + lp2_ - hpIn_);
    hpIn_ = lp2_;
    hpOut_ = y;
    return y;
}

void SpeechLike::fill(float *x, int n) {
    for (int i = 0; i < n; ++i) {
        if (bursts_) {
            if (--left_ <= 0) {
                on_ = !on_;
                left_ = static_cast<int>((0.2f + 1.8f * uni_(rng_)) * static_cast<float>(rate_));
            }
        }
        // Syllabic modulation at about 4 Hz.
        phase_ += 2.0 * M_PI * 4.0 / rate_;
        const double env = 0.25 + 0.75 * std::fabs(std::sin(phase_));
        const double y = shape(dist_(rng_)) * env;
        x[i] = on_ ? static_cast<float>(gain_ * y) : 0.0f;
        ++t_;
    }
}

ClosedLoop::ClosedLoop(std::vector<float> path, int playbackFrames)
    : path_(std::move(path)), playbackDelay_((playbackFrames < 1 ? 1 : playbackFrames) * kFrame) {
    playedHist_.assign(static_cast<size_t>(playbackDelay_) + 8000, 0.0f);
    micEcho_.assign(kFrame, 0.0f);
    micIn_.assign(kFrame, 0.0f);
}

FrameStats ClosedLoop::step(const float *far, const float *near, float *out, float *played) {
    // Echo of this frame: the path applied to what was played at least
    // `playbackDelay_` samples ago (playedHist_ ends with the newest sample).
    const size_t hn = playedHist_.size();
    for (int n = 0; n < kFrame; ++n) {
        double acc = 0;
        // Sample n of this frame sees played sample (hn - 1) - playbackDelay_ + 1 + n - i.
        const long base = static_cast<long>(hn) - playbackDelay_ + n;
        for (size_t i = 0; i < path_.size(); ++i) {
            const long idx = base - static_cast<long>(i);
            if (idx < 0) break;
            acc += static_cast<double>(path_[i]) * playedHist_[static_cast<size_t>(idx)];
        }
        micEcho_[static_cast<size_t>(n)] = static_cast<float>(acc);
    }
    float rin[kFrame], sin[kFrame];
    for (int n = 0; n < kFrame; ++n) {
        rin[n] = far[n];
        sin[n] = micEcho_[static_cast<size_t>(n)] + (near ? near[n] : 0.0f);
    }
    FrameStats st{};
    st.farDb = levelDb(far, kFrame);
    st.echoDb = levelDb(micEcho_.data(), kFrame);
    if (micFilter_) micFilter_(sin);
    for (int n = 0; n < kFrame; ++n) micIn_[static_cast<size_t>(n)] = sin[n];
    st.micDb = levelDb(sin, kFrame);
    aecx_process(rin, sin);
    if (playFilter_) playFilter_(rin);
    st.outDb = levelDb(sin, kFrame);
    st.playedDb = levelDb(rin, kFrame);
    st.farActive = powerOf(far, kFrame) > 1e-12;
    st.doubleTalk = AEC_Db.iDoubleTalk;
    st.epcDb = AEC_Db.fEpcDb;
    st.tdAlarmDb = AEC_Db.fTdAlarmDb;
    st.adaptTime = AEC_Db.fAdaptTime;
    // Append the played frame to the history (keep it bounded).
    playedHist_.erase(playedHist_.begin(), playedHist_.begin() + kFrame);
    if (speaker_) {
        for (int n = 0; n < kFrame; ++n) playedHist_.push_back(speaker_(rin[n]));
    } else {
        playedHist_.insert(playedHist_.end(), rin, rin + kFrame);
    }
    if (out)
        for (int n = 0; n < kFrame; ++n) out[n] = sin[n];
    if (played)
        for (int n = 0; n < kFrame; ++n) played[n] = rin[n];
    hist_.push_back(st);
    return st;
}

bool ClosedLoop::writeCsv(const std::string &path) const {
    FILE *f = std::fopen(path.c_str(), "w");
    if (!f) return false;
    std::fprintf(f, "frame,time_s,far_db,echo_db,mic_db,out_db,played_db,far_active,double_talk,epc_db,td_alarm_db,adapt_time\n");
    for (size_t i = 0; i < hist_.size(); ++i) {
        const FrameStats &s = hist_[i];
        std::fprintf(f, "%zu,%.2f,%.2f,%.2f,%.2f,%.2f,%.2f,%d,%d,%.2f,%.2f,%.1f\n", i, static_cast<double>(i) * 0.01,
                     s.farDb, s.echoDb, s.micDb, s.outDb, s.playedDb, s.farActive ? 1 : 0, s.doubleTalk,
                     static_cast<double>(s.epcDb), static_cast<double>(s.tdAlarmDb), static_cast<double>(s.adaptTime));
    }
    return std::fclose(f) == 0;
}

double erleDb(const std::vector<FrameStats> &h, int from, int to,
              const std::function<bool(const FrameStats &)> &use) {
    double e = 0, r = 0;
    for (int i = from; i < to && i < static_cast<int>(h.size()); ++i) {
        if (use && !use(h[static_cast<size_t>(i)])) continue;
        e += std::pow(10.0, h[static_cast<size_t>(i)].echoDb / 10.0);
        r += std::pow(10.0, h[static_cast<size_t>(i)].outDb / 10.0);
    }
    return 10.0 * std::log10((e + 1e-20) / (r + 1e-20));
}

std::string curvesDir() {
    const char *d = std::getenv("KVAEC_CURVES_DIR");
    return d ? std::string(d) : std::string();
}

}  // namespace kvaec::sim
