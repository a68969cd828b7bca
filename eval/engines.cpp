// The engines of the comparison: libkvaec (default configuration, the
// full-duplex configuration, the send-only loss mode, and any configuration
// named in the engine id for sweeps), SpeexDSP's echo canceller with and without its
// preprocessor, WebRTC audio processing's echo canceller with and without
// noise suppression, and a pass-through reference that checks the metrics.
#include <speex/speex_echo.h>
#include <speex/speex_preprocess.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "engine.h"
#include "kvaec.h"
#include "kvaec_records.h"
#include "webrtc/modules/audio_processing/include/audio_processing.h"

namespace kvaec_eval {
namespace {

// ---- libkvaec: one global instance, processes both paths in one call.
// Counts the frames in which the tone alarm stands at or above 20 dB (the
// level at which it stops adaptation) and the double-talk frames.
class KvaecEngine : public Engine {
public:
    KvaecEngine(unsigned mode, const AEC_tCfg &cfg, std::string cfgName)
        : mode_(mode), cfg_(cfg), cfgName_(std::move(cfgName)) {
        aecx_init(&cfg_);
        if (mode_ != 0) aecx_control(mode_, nullptr, 0.0f);
    }
    void process(const float *far, float *played, const float *mic, float *send) override {
        std::memcpy(played, far, sizeof(float) * kFrame);
        std::memcpy(send, mic, sizeof(float) * kFrame);
        aecx_process(played, send);
        alarmFrames_ += AEC_Db.fTdAlarmDb >= 20.0f;
        if (AEC_Db.fTdAlarmDb > alarmMax_) alarmMax_ = AEC_Db.fTdAlarmDb;
        dtFrames_ += AEC_Db.iDoubleTalk != 0;
    }
    int sendDelay() const override { return 120; }
    std::string describe() const override {
        char b[320];
        std::snprintf(b, sizeof b,
                      "libkvaec %d.%d.%d, %s (fErlInitDb %g, fNlpAttMaxDb %g, fNlpAttMinDb %g, "
                      "fDtdMarginDb %g), mode word 0x%x",
                      KVAEC_VERSION_MAJOR, KVAEC_VERSION_MINOR, KVAEC_VERSION_PATCH, cfgName_.c_str(),
                      static_cast<double>(cfg_.fErlInitDb), static_cast<double>(cfg_.fNlpAttMaxDb),
                      static_cast<double>(cfg_.fNlpAttMinDb), static_cast<double>(cfg_.fDtdMarginDb),
                      mode_);
        return b;
    }
    std::string extraStats() const override {
        char b[160];
        std::snprintf(b, sizeof b, "tone_alarm_frames=%ld\ntone_alarm_max=%.2f\ndouble_talk_frames=%ld\n",
                      alarmFrames_, static_cast<double>(alarmMax_), dtFrames_);
        return b;
    }
private:
    unsigned mode_;
    AEC_tCfg cfg_;
    std::string cfgName_;
    long alarmFrames_ = 0, dtFrames_ = 0;
    float alarmMax_ = -1e9f;
};

// "kvaec_cfg:E,MAX,MIN,DTD[,MODE]": the defaults with fErlInitDb,
// fNlpAttMaxDb, fNlpAttMinDb and fDtdMarginDb replaced (configuration
// sweeps), optionally with a mode word (hexadecimal, e.g. 0x100 for no
// residual suppression). False when the id is malformed or the library
// rejects the record.
bool parseCfgId(const std::string &name, AEC_tCfg *cfg, unsigned *mode) {
    const std::string pre = "kvaec_cfg:";
    if (name.compare(0, pre.size(), pre) != 0) return false;
    double v[4];
    char tail;
    *mode = 0;
    const int got = std::sscanf(name.c_str() + pre.size(), "%lf,%lf,%lf,%lf,%x%c", &v[0], &v[1], &v[2], &v[3],
                                mode, &tail);
    if (got != 4 && got != 5) return false;
    *cfg = AEC_DefaultCfg;
    cfg->fErlInitDb = static_cast<float>(v[0]);
    cfg->fNlpAttMaxDb = static_cast<float>(v[1]);
    cfg->fNlpAttMinDb = static_cast<float>(v[2]);
    cfg->fDtdMarginDb = static_cast<float>(v[3]);
    const char *why = kvaec_cfg_check(cfg);
    if (why) std::fprintf(stderr, "%s: %s\n", name.c_str(), why);
    return why == nullptr;
}

// "att=50,dtd=3,mode=0x400" -> configuration and mode word; false on a
// malformed or invalid setting.
bool parseKvaecCfg(const std::string &settings, AEC_tCfg *cfg, unsigned *mode) {
    *cfg = AEC_DefaultCfg;
    *mode = 0u;
    size_t pos = 0;
    while (pos < settings.size()) {
        size_t end = settings.find(',', pos);
        if (end == std::string::npos) end = settings.size();
        const std::string item = settings.substr(pos, end - pos);
        const size_t eq = item.find('=');
        if (eq == std::string::npos) return false;
        const std::string key = item.substr(0, eq), val = item.substr(eq + 1);
        char *rest = nullptr;
        if (key == "mode") {
            const unsigned long m = std::strtoul(val.c_str(), &rest, 0);
            if (val.empty() || *rest != '\0' || m > 0xFFFFFFFFul || (m & KVAEC_CMD_MASK) != 0) return false;
            *mode = static_cast<unsigned>(m);
            pos = end + 1;
            continue;
        }
        const float v = std::strtof(val.c_str(), &rest);
        if (val.empty() || *rest != '\0') return false;
        if (key == "att")
            cfg->fNlpAttMaxDb = v;
        else if (key == "dtd")
            cfg->fDtdMarginDb = v;
        else
            return false;
        pos = end + 1;
    }
    return kvaec_cfg_check(cfg) == nullptr;
}

// ---- SpeexDSP: 16-bit samples; the canceller takes the played frame as its
// reference and relies on its filter to span the latency.
short toPcm(float x) {
    float v = std::nearbyint(x * 32768.0f);
    if (v > 32767.0f) v = 32767.0f;
    if (v < -32768.0f) v = -32768.0f;
    return static_cast<short>(v);
}

class SpeexEngine : public Engine {
public:
    explicit SpeexEngine(bool pre) : pre_(pre) {
        echo_ = speex_echo_state_init(kFrame, kTail);
        int rate = kRate;
        speex_echo_ctl(echo_, SPEEX_ECHO_SET_SAMPLING_RATE, &rate);
        if (pre_) {
            pp_ = speex_preprocess_state_init(kFrame, kRate);
            speex_preprocess_ctl(pp_, SPEEX_PREPROCESS_SET_ECHO_STATE, echo_);
        }
    }
    ~SpeexEngine() override {
        if (pp_) speex_preprocess_state_destroy(pp_);
        speex_echo_state_destroy(echo_);
    }
    void process(const float *far, float *played, const float *mic, float *send) override {
        short f[kFrame], m[kFrame], o[kFrame];
        for (int i = 0; i < kFrame; ++i) {
            played[i] = far[i];
            f[i] = toPcm(far[i]);
            m[i] = toPcm(mic[i]);
        }
        speex_echo_cancellation(echo_, m, f, o);
        if (pp_) speex_preprocess_run(pp_, o);
        for (int i = 0; i < kFrame; ++i) send[i] = static_cast<float>(o[i]) / 32768.0f;
    }
    int sendDelay() const override { return 0; }
    std::string describe() const override {
        return pre_ ? "SpeexDSP echo canceller, 2048-tap (128 ms) filter, then the preprocessor "
                      "with the echo state attached (residual-echo suppression; its defaults: "
                      "denoise on, AGC off)"
                    : "SpeexDSP echo canceller, 2048-tap (128 ms) filter, no preprocessor";
    }
private:
    static constexpr int kTail = 2048;  // 128 ms at 16 kHz
    bool pre_;
    SpeexEchoState *echo_ = nullptr;
    SpeexPreprocessState *pp_ = nullptr;
};

// ---- WebRTC audio processing (0.3 API): float frames of 10 ms; the far frame
// goes to the reverse stream, the stream delay is the simulated latency.
class WebrtcEngine : public Engine {
public:
    WebrtcEngine(bool ns, int latencyMs) : ns_(ns), delayMs_(latencyMs) {
        webrtc::Config cfg;
        apm_ = webrtc::AudioProcessing::Create(cfg);
        check(apm_->high_pass_filter()->Enable(true), "high-pass");
        check(apm_->echo_cancellation()->enable_drift_compensation(false), "drift");
        check(apm_->echo_cancellation()->Enable(true), "echo canceller");
        if (ns_) check(apm_->noise_suppression()->Enable(true), "noise suppression");
    }
    ~WebrtcEngine() override { delete apm_; }
    void process(const float *far, float *played, const float *mic, float *send) override {
        std::memcpy(played, far, sizeof(float) * kFrame);
        const float *rev[1] = {far};
        check(apm_->AnalyzeReverseStream(rev, kFrame, kRate, webrtc::AudioProcessing::kMono), "reverse");
        check(apm_->set_stream_delay_ms(delayMs_), "delay");
        const float *src[1] = {mic};
        float *dst[1] = {send};
        check(apm_->ProcessStream(src, kFrame, kRate, webrtc::AudioProcessing::kMono, kRate,
                                  webrtc::AudioProcessing::kMono, dst),
              "stream");
    }
    int sendDelay() const override { return 0; }
    std::string describe() const override {
        char b[200];
        std::snprintf(b, sizeof b,
                      "WebRTC audio processing 0.3: high-pass, echo canceller (default suppression "
                      "level, no drift compensation), stream delay %d ms%s",
                      delayMs_, ns_ ? ", noise suppression (default level)" : "");
        return b;
    }
private:
    static void check(int err, const char *what) {
        if (err != 0) {
            std::fprintf(stderr, "webrtc: %s failed (%d)\n", what, err);
            std::exit(2);
        }
    }
    bool ns_;
    int delayMs_;
    webrtc::AudioProcessing *apm_ = nullptr;
};

// ---- Reference: plays the far end unchanged and sends the microphone.
class PassEngine : public Engine {
public:
    void process(const float *far, float *played, const float *mic, float *send) override {
        std::memcpy(played, far, sizeof(float) * kFrame);
        std::memcpy(send, mic, sizeof(float) * kFrame);
    }
    int sendDelay() const override { return 0; }
    std::string describe() const override { return "no processing (metric reference)"; }
};

}  // namespace

std::vector<std::string> engineNames() {
    return {"kvaec", "kvaec_fd", "kvaec_sendonly", "speex", "speex_pp", "webrtc", "webrtc_ns", "passthrough"};
}

std::unique_ptr<Engine> makeEngine(const std::string &name, int latencyMs) {
    if (name == "kvaec") return std::make_unique<KvaecEngine>(0u, AEC_DefaultCfg, "default configuration");
    if (name == "kvaec_fd")
        return std::make_unique<KvaecEngine>(0u, kvaec_full_duplex_cfg, "full-duplex configuration");
    if (name == "kvaec_sendonly")
        return std::make_unique<KvaecEngine>(KVAEC_MODE_SEND_ONLY_LOSS, AEC_DefaultCfg, "default configuration");
    if (name.rfind("kvaec:", 0) == 0) {
        AEC_tCfg cfg;
        unsigned mode = 0u;
        if (!parseKvaecCfg(name.substr(6), &cfg, &mode)) return nullptr;
        return std::make_unique<KvaecEngine>(mode, cfg, "configuration given in the id");
    }
    {
        AEC_tCfg cfg;
        unsigned mode = 0;
        if (parseCfgId(name, &cfg, &mode)) return std::make_unique<KvaecEngine>(mode, cfg, "swept configuration");
    }
    if (name == "speex") return std::make_unique<SpeexEngine>(false);
    if (name == "speex_pp") return std::make_unique<SpeexEngine>(true);
    if (name == "webrtc") return std::make_unique<WebrtcEngine>(false, latencyMs);
    if (name == "webrtc_ns") return std::make_unique<WebrtcEngine>(true, latencyMs);
    if (name == "passthrough") return std::make_unique<PassEngine>();
    return nullptr;
}

}  // namespace kvaec_eval
