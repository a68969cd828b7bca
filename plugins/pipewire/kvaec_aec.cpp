// SPA audio echo-canceller plugin around libkvaec, for PipeWire's
// libpipewire-module-echo-cancel (library.name = aec/libspa-aec-kvaec).
//
// Signal path per graph rate R (48, 44.1, 32 or 16 kHz), for blocks of any
// size: the playback channels are mixed to mono (the echo reference), one
// capture channel is the microphone. Both go through identical SpeexDSP
// converters to 16 kHz, in frames of R/100 samples (exactly 160 samples out
// per frame at these integer ratios). The library processes the frame; its
// send output is converted back to R and copied to every output channel.
//
// Fixed added latency (reported through the interface's latency field):
//   R/100 - 1        output queue: any block size finds its samples ready
// + converter delay  down to 16 kHz and back up
// + 120 samples      the library's send-path delay, at 16 kHz.
//
// The loudspeaker plays the far end as PipeWire gives it (the interface hands
// it read-only), so all loss is on the send path (mode 0x40). When the echo
// reaches the microphone earlier than the library's alignment rule needs
// (kvaec_align_shift), the microphone is delayed by the deficit, found by
// libkvaec_host's estimate (GCC-PHAT, as the command-line tool) on the first seconds of far-end activity and again on later
// stretches (so a moved echo path is followed). That delay adds to the
// latency; it is logged and readable as the property kvaec.mic-delay.
//
// Health: non-finite input samples are replaced by silence before anything
// stores them, the outputs are checked every frame and aecx_bist runs every
// second; a failure resets the canceller with the mode word kept and is
// logged once (then counted).
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <thread>
#include <vector>

#include <spa/interfaces/audio/aec.h>
#include <spa/param/param.h>
#include <spa/param/props.h>
#include <spa/pod/builder.h>
#include <spa/pod/iter.h>
#include <spa/support/log.h>
#include <spa/support/plugin.h>
#include <spa/utils/dict.h>
#include <spa/utils/names.h>
#include <spa/utils/string.h>
#include <speex/speex_resampler.h>

#include "kvaec.h"
#include "kvaec_host.h"
#include "kvaec_aec.h"

namespace {

constexpr int kFrame = KVAEC_FRAME_SAMPLES;
constexpr int kRate = KVAEC_SAMPLE_RATE;

// The one canceller of the process belongs to at most one plugin instance.
std::atomic<const void *> g_owner{nullptr};

// ---- properties ----

enum class Kind { CfgFloat, CfgInt, ModeBit, Preset, MicChannel };

struct PropDef {
    const char *key;
    Kind kind;
    size_t offset;   // CfgFloat / CfgInt: field offset in AEC_tCfg
    unsigned bit;    // ModeBit
    const char *description;
};

const PropDef kProps[] = {
    {"kvaec.preset", Kind::Preset, 0, 0,
     "configuration record to start from: default or full-duplex (keeps the near end in double talk)"},
    {"kvaec.erl-init-db", Kind::CfgFloat, offsetof(AEC_tCfg, fErlInitDb), 0,
     "initial echo-path gain per strip, dB (also the ERL floor)"},
    {"kvaec.nlp-max-db", Kind::CfgFloat, offsetof(AEC_tCfg, fNlpAttMaxDb), 0, "upper NLP attenuation, dB"},
    {"kvaec.nlp-min-db", Kind::CfgFloat, offsetof(AEC_tCfg, fNlpAttMinDb), 0, "lower NLP attenuation, dB"},
    {"kvaec.dtd-margin-db", Kind::CfgFloat, offsetof(AEC_tCfg, fDtdMarginDb), 0, "double-talk and NLP margin, dB"},
    {"kvaec.level-floor-db", Kind::CfgFloat, offsetof(AEC_tCfg, fLevelFloorDb), 0,
     "level below which a signal counts as absent, dB"},
    {"kvaec.nr-level", Kind::CfgFloat, offsetof(AEC_tCfg, fNrLevelDb), 0,
     "noise-reduction strength, 0 = off .. 1 = strongest"},
    {"kvaec.rin-level-ref-db", Kind::CfgFloat, offsetof(AEC_tCfg, fRinLevelRefDb), 0, "receive-level reference, dB"},
    {"kvaec.profile", Kind::CfgInt, offsetof(AEC_tCfg, iProfile), 0, "acoustic profile (integer)"},
    {"kvaec.bypass", Kind::ModeBit, 0, KVAEC_MODE_BYPASS, "pass the microphone through (same latency)"},
    {"kvaec.freeze", Kind::ModeBit, 0, KVAEC_MODE_FREEZE, "freeze adaptation of both adaptive filters"},
    {"kvaec.no-nlp", Kind::ModeBit, 0, KVAEC_MODE_NO_NLP, "no residual-echo suppression and no comfort noise"},
    {"kvaec.no-nr", Kind::ModeBit, 0, KVAEC_MODE_NO_NR, "skip noise reduction"},
    {"kvaec.no-hipass", Kind::ModeBit, 0, KVAEC_MODE_NO_HIPASS, "no high-pass on the send path"},
    {"kvaec.mic-channel", Kind::MicChannel, 0, 0, "capture channel used as the microphone (0 = first)"},
};

// Mode bits a property may change; the others stay as the plugin sets them.
constexpr unsigned kPropModeMask =
    KVAEC_MODE_BYPASS | KVAEC_MODE_FREEZE | KVAEC_MODE_NO_NLP | KVAEC_MODE_NO_NR | KVAEC_MODE_NO_HIPASS;

// The full-duplex preset unless a property names another: with all loss on
// the send path it keeps the near-end talker in double talk (measured by the
// double-talk category evaluation, docs/tuning.md), as in the other hosts.
struct Settings {
    AEC_tCfg cfg = kvaec_full_duplex_cfg;
    bool fullDuplex = true;
    unsigned mode = KVAEC_MODE_SEND_ONLY_LOSS;  // all loss on the send path, always
    int micChannel = 0;
};

float &cfgFloat(AEC_tCfg &c, size_t off) { return *reinterpret_cast<float *>(reinterpret_cast<char *>(&c) + off); }
int32_t &cfgInt(AEC_tCfg &c, size_t off) { return *reinterpret_cast<int32_t *>(reinterpret_cast<char *>(&c) + off); }
float cfgFloat(const AEC_tCfg &c, size_t off) {
    return *reinterpret_cast<const float *>(reinterpret_cast<const char *>(&c) + off);
}
int32_t cfgInt(const AEC_tCfg &c, size_t off) {
    return *reinterpret_cast<const int32_t *>(reinterpret_cast<const char *>(&c) + off);
}

bool parseFloat(const char *s, float &v) {
    char *end = nullptr;
    const double d = std::strtod(s, &end);
    if (end == s || *end != '\0' || !std::isfinite(d)) return false;
    v = static_cast<float>(d);
    return true;
}

bool parseInt(const char *s, long &v) {
    char *end = nullptr;
    v = std::strtol(s, &end, 10);
    return end != s && *end == '\0';
}

bool parseBool(const char *s, bool &v) {
    if (std::strcmp(s, "true") == 0 || std::strcmp(s, "1") == 0) return v = true, true;
    if (std::strcmp(s, "false") == 0 || std::strcmp(s, "0") == 0) return v = false, true;
    return false;
}

const PropDef *findProp(const char *key) {
    for (const PropDef &p : kProps)
        if (std::strcmp(p.key, key) == 0) return &p;
    return nullptr;
}

struct Impl {
    spa_handle handle;
    spa_audio_aec aec;
    spa_log *log = nullptr;
    spa_hook_list hooks;
    char latencyText[48] = {0};

    // Stream format.
    bool initialised = false;
    uint32_t rate = 48000;
    uint32_t channels = 1;
    int frameLen = 480;  // R/100
    int fixedLatency = 0;

    // Settings in force (data thread) and the ones waiting to be applied.
    Settings cur;
    std::mutex pendingLock;
    Settings pending;
    bool hasPending = false;
    unsigned pendingLoad = 0;  // KVAEC_CMD_LOAD_CFG when the configuration changed

    // Converters: far end and microphone down (identical), send output up.
    SpeexResamplerState *downFar = nullptr, *downMic = nullptr, *up = nullptr;
    std::vector<float> farFrame, micFrame;  // R-rate frame being collected
    int fill = 0;
    std::vector<float> outRing;  // R-rate output queue
    size_t outHead = 0, outCount = 0;
    std::vector<float> upBuf;

    // Microphone delay line at 16 kHz (the alignment deficit).
    std::vector<float> micLine;
    size_t micPos = 0;
    int micShift = 0;
    std::atomic<int> micShiftShown{0};

    // Bulk-delay estimation: the data thread collects far end and microphone
    // from the first far-end activity on; a worker thread estimates.
    enum { kIdle, kCollecting, kReady, kBusy };
    std::atomic<int> estState{kIdle};
    std::vector<float> estFar, estMic;
    size_t estFill = 0;
    size_t estLen = 0;
    long estPause = 0;  // frames to wait before the next stretch is collected
    std::atomic<int> newShift{-1};
    std::atomic<long> lastBulk{-1};
    std::thread worker;
    std::mutex workerLock;
    std::condition_variable workerWake;
    std::atomic<bool> stopping{false};

    // Health.
    long frames = 0;
    std::atomic<long> healthEvents{0};
    std::atomic<long> healthFirstFrame{-1};
    std::atomic<int> healthFirstBad{0};
    std::atomic<int> healthFirstBist{0};
    std::atomic<long> inputNonFinite{0};

    ~Impl();
    void logf(spa_log_level level, const char *fmt, ...) const __attribute__((format(printf, 3, 4)));
    int parse(const spa_dict *dict, Settings &s, unsigned &load) const;
    void resetStream();
    void processFrame();
    void workerLoop();
    void startWorker();
};

void Impl::logf(spa_log_level level, const char *fmt, ...) const {
    char buf[512];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    if (log != nullptr && spa_log_level_enabled(log, level))
        spa_log_logt(log, level, nullptr, __FILE__, __LINE__, __func__, "%s", buf);
    else if (log == nullptr && level <= SPA_LOG_LEVEL_WARN)
        std::fprintf(stderr, "kvaec: %s\n", buf);
}

Impl::~Impl() {
    if (worker.joinable()) {
        stopping.store(true);
        workerWake.notify_all();
        worker.join();
    }
    if (downFar) speex_resampler_destroy(downFar);
    if (downMic) speex_resampler_destroy(downMic);
    if (up) speex_resampler_destroy(up);
    const void *self = this;
    g_owner.compare_exchange_strong(self, nullptr);
}

// Reads the properties of `dict` over `s`. Nothing is changed in `s` unless
// every property is valid; the reason for a rejection is logged.
int Impl::parse(const spa_dict *dict, Settings &s, unsigned &load) const {
    if (dict == nullptr) return 0;
    Settings n = s;
    bool cfgChanged = false;
    // The preset first, so that single fields given beside it override it.
    const char *preset = spa_dict_lookup(dict, "kvaec.preset");
    if (preset != nullptr) {
        if (std::strcmp(preset, "default") == 0) {
            n.cfg = AEC_DefaultCfg;
            n.fullDuplex = false;
        } else if (std::strcmp(preset, "full-duplex") == 0) {
            n.cfg = kvaec_full_duplex_cfg;
            n.fullDuplex = true;
        } else {
            logf(SPA_LOG_LEVEL_ERROR, "kvaec.preset: '%s' is not a preset (default, full-duplex); nothing changed",
                 preset);
            return -EINVAL;
        }
        cfgChanged = true;
    }
    const spa_dict_item *it;
    spa_dict_for_each(it, dict) {
        if (std::strncmp(it->key, "kvaec.", 6) != 0) continue;
        const PropDef *p = findProp(it->key);
        if (p == nullptr) {
            if (std::strcmp(it->key, "kvaec.mic-delay") == 0 || std::strcmp(it->key, "kvaec.latency") == 0)
                continue;  // read-only, shown by get_params
            logf(SPA_LOG_LEVEL_ERROR, "%s: unknown property; nothing changed", it->key);
            return -EINVAL;
        }
        const char *v = it->value != nullptr ? it->value : "";
        switch (p->kind) {
        case Kind::Preset:
            break;
        case Kind::CfgFloat: {
            float f;
            if (!parseFloat(v, f)) {
                logf(SPA_LOG_LEVEL_ERROR, "%s: '%s' is not a finite number; nothing changed", p->key, v);
                return -EINVAL;
            }
            cfgFloat(n.cfg, p->offset) = f;
            cfgChanged = true;
            break;
        }
        case Kind::CfgInt: {
            long l;
            if (!parseInt(v, l) || l < INT32_MIN || l > INT32_MAX) {
                logf(SPA_LOG_LEVEL_ERROR, "%s: '%s' is not an integer; nothing changed", p->key, v);
                return -EINVAL;
            }
            cfgInt(n.cfg, p->offset) = static_cast<int32_t>(l);
            cfgChanged = true;
            break;
        }
        case Kind::ModeBit: {
            bool b;
            if (!parseBool(v, b)) {
                logf(SPA_LOG_LEVEL_ERROR, "%s: '%s' is not true or false; nothing changed", p->key, v);
                return -EINVAL;
            }
            n.mode = b ? (n.mode | p->bit) : (n.mode & ~p->bit);
            break;
        }
        case Kind::MicChannel: {
            long l;
            if (!parseInt(v, l) || l < 0 || (initialised && l >= static_cast<long>(channels))) {
                logf(SPA_LOG_LEVEL_ERROR, "%s: '%s' is not a capture channel (0..%u); nothing changed", p->key, v,
                     initialised ? channels - 1 : 63u);
                return -EINVAL;
            }
            n.micChannel = static_cast<int>(l);
            break;
        }
        }
    }
    if (const char *why = kvaec_cfg_check(&n.cfg)) {
        logf(SPA_LOG_LEVEL_ERROR, "configuration rejected, nothing changed: %s", why);
        return -EINVAL;
    }
    n.mode |= KVAEC_MODE_SEND_ONLY_LOSS;
    s = n;
    if (cfgChanged) load |= KVAEC_CMD_LOAD_CFG;
    return 0;
}

void Impl::resetStream() {
    speex_resampler_reset_mem(downFar);
    speex_resampler_reset_mem(downMic);
    speex_resampler_reset_mem(up);
    fill = 0;
    std::fill(outRing.begin(), outRing.end(), 0.0f);
    outHead = 0;
    outCount = static_cast<size_t>(frameLen - 1);  // the queue starts with R/100 - 1 samples of silence
    std::fill(micLine.begin(), micLine.end(), 0.0f);
    micPos = 0;
    if (estState.load() == kCollecting) estState.store(kIdle);
    estFill = 0;
    estPause = 0;
    frames = 0;
}

void Impl::startWorker() {
    worker = std::thread([this] { workerLoop(); });
}

// Estimates the bulk delay on a collected stretch, off the data thread, and
// logs what the data thread did (the data thread never logs).
void Impl::workerLoop() {
    long healthLogged = 0;
    int shownShift = 0;
    for (;;) {
        {
            std::unique_lock<std::mutex> lk(workerLock);
            workerWake.wait_for(lk, std::chrono::milliseconds(50));
        }
        const bool last = stopping.load();
        const long ev = healthEvents.load();
        if (ev > 0 && healthLogged == 0) {
            logf(SPA_LOG_LEVEL_WARN,
                 "health: at %.2f s %d non-finite samples, self-test count %d: canceller reset (mode kept); "
                 "further resets are counted, not logged",
                 static_cast<double>(healthFirstFrame.load()) * kFrame / kRate, healthFirstBad.load(),
                 healthFirstBist.load());
            healthLogged = ev;
        }
        if (last) {
            if (ev > 1) logf(SPA_LOG_LEVEL_INFO, "health: %ld canceller resets in all", ev);
            break;
        }
        if (estState.load() != kReady) continue;
        estState.store(kBusy);

        const long maxDelay = KVAEC_PW_MAX_DELAY_MS * kRate / 1000;
        kvaec_delay_result e{};
        const int rc = kvaec_host_estimate_delay(estFar.data(), static_cast<int64_t>(estFar.size()), estMic.data(),
                                                 static_cast<int64_t>(estMic.size()), kRate,
                                                 static_cast<int32_t>(maxDelay), KVAEC_PW_ESTIMATE_SECONDS, &e);
        if (rc != 0) e.found = 0;
        if (e.found && e.peak_to_mean >= KVAEC_PW_MIN_PEAK_TO_MEAN) {
            // The estimate is measured on the microphone before the deficit
            // delay, so it is the bulk delay itself.
            const int32_t shift = kvaec_align_shift(e.delay,
                                                    KVAEC_PW_DELAY_MARGIN_MS * kRate / 1000);
            const int want = std::max<int32_t>(shift, 0);
            if (want != shownShift || lastBulk.load() < 0)
                logf(SPA_LOG_LEVEL_INFO,
                     "echo arrives %ld samples (16 kHz) after the far end (peak/mean %.1f): microphone delayed "
                     "by %d samples (%.2f ms); latency now %.2f ms",
                     static_cast<long>(e.delay), e.peak_to_mean, want, 1000.0 * want / kRate,
                     1000.0 * fixedLatency / rate + 1000.0 * want / kRate);
            else
                logf(SPA_LOG_LEVEL_DEBUG, "bulk delay %ld samples (peak/mean %.1f)", static_cast<long>(e.delay),
                     e.peak_to_mean);
            shownShift = want;
            lastBulk.store(e.delay);
            newShift.store(want);
        } else {
            logf(SPA_LOG_LEVEL_DEBUG, "bulk delay estimate too weak (peak/mean %.1f); kept",
                 e.found ? e.peak_to_mean : 0.0);
        }
        estState.store(kIdle);
    }
}

// One R-rate frame in farFrame / micFrame: convert, align, cancel, convert
// back into the output queue.
void Impl::processFrame() {
    float rin[kFrame], mic16[kFrame], sin[kFrame];
    spx_uint32_t inLen = static_cast<spx_uint32_t>(frameLen), outLen = kFrame;
    speex_resampler_process_float(downFar, 0, farFrame.data(), &inLen, rin, &outLen);
    for (spx_uint32_t i = outLen; i < static_cast<spx_uint32_t>(kFrame); ++i) rin[i] = 0.0f;
    inLen = static_cast<spx_uint32_t>(frameLen);
    outLen = kFrame;
    speex_resampler_process_float(downMic, 0, micFrame.data(), &inLen, mic16, &outLen);
    for (spx_uint32_t i = outLen; i < static_cast<spx_uint32_t>(kFrame); ++i) mic16[i] = 0.0f;

    // Settings changed by set_props / set_params take effect here, between frames.
    if (pendingLock.try_lock()) {
        if (hasPending) {
            const bool load = (pendingLoad & KVAEC_CMD_LOAD_CFG) != 0;
            cur = pending;
            hasPending = false;
            pendingLoad = 0;
            aecx_control((load ? KVAEC_CMD_LOAD_CFG : 0u) | cur.mode, load ? &cur.cfg : nullptr, 0.0f);
        }
        pendingLock.unlock();
    }

    // A new alignment: the old filter coefficients belong to the old one.
    const int ns = newShift.exchange(-1);
    if (ns >= 0 && ns != micShift) {
        micShift = std::min<int>(ns, static_cast<int>(micLine.size()) - 1);
        aecx_control(KVAEC_CMD_RESET | cur.mode, nullptr, 0.0f);
        micShiftShown.store(micShift);
    }

    // Collect stretches for the estimator from the first far-end activity on.
    if (estPause > 0) --estPause;
    if (estState.load() == kIdle && !estFar.empty() && estPause == 0) {
        double p = 0;
        for (int n = 0; n < kFrame; ++n) p += static_cast<double>(rin[n]) * rin[n];
        if (10.0 * std::log10(p / kFrame + 1e-30) > -60.0) {
            estFill = 0;
            estState.store(kCollecting);
        }
    }
    if (estState.load() == kCollecting) {
        std::copy(rin, rin + kFrame, estFar.begin() + static_cast<long>(estFill));
        std::copy(mic16, mic16 + kFrame, estMic.begin() + static_cast<long>(estFill));
        estFill += kFrame;
        if (estFill + kFrame > estLen) {
            estPause = KVAEC_PW_REESTIMATE_FRAMES;
            estState.store(kReady);
            workerWake.notify_one();
        }
    }

    // Delay the microphone by the alignment deficit.
    const size_t L = micLine.size();
    for (int n = 0; n < kFrame; ++n) {
        micLine[micPos] = mic16[n];
        sin[n] = micLine[(micPos + L - static_cast<size_t>(micShift)) % L];
        micPos = (micPos + 1) % L;
    }

    aecx_process(rin, sin);

    // Health: outputs finite, self-test once a second.
    int bad = static_cast<int>(inputNonFinite.exchange(0));
    for (int n = 0; n < kFrame; ++n) {
        if (!std::isfinite(rin[n])) ++bad;
        if (!std::isfinite(sin[n])) {
            sin[n] = 0.0f;
            ++bad;
        }
    }
    int bist = -1;
    if ((frames + 1) % 100 == 0) bist = aecx_bist();
    if (bad > 0 || bist > 0) {
        if (bist < 0) bist = aecx_bist();
        aecx_control(KVAEC_CMD_RESET | cur.mode, nullptr, 0.0f);
        if (healthEvents.load() == 0) {
            healthFirstFrame.store(frames);
            healthFirstBad.store(bad);
            healthFirstBist.store(bist);
        }
        healthEvents.fetch_add(1);
    }
    ++frames;

    inLen = kFrame;
    outLen = static_cast<spx_uint32_t>(frameLen);
    speex_resampler_process_float(up, 0, sin, &inLen, upBuf.data(), &outLen);
    for (spx_uint32_t i = outLen; i < static_cast<spx_uint32_t>(frameLen); ++i) upBuf[i] = 0.0f;
    const size_t cap = outRing.size();
    for (int n = 0; n < frameLen; ++n) outRing[(outHead + outCount + static_cast<size_t>(n)) % cap] = upBuf[static_cast<size_t>(n)];
    outCount += static_cast<size_t>(frameLen);
}

Impl *fromAec(void *object) { return static_cast<Impl *>(object); }

int aecAddListener(void *object, spa_hook *listener, const spa_audio_aec_events *events, void *data) {
    Impl *impl = fromAec(object);
    spa_hook_list_append(&impl->hooks, listener, events, data);
    return 0;
}

int aecInit(void *object, const spa_dict *args, const spa_audio_info_raw *info) {
    Impl *impl = fromAec(object);
    const void *none = nullptr;
    if (!impl->initialised && !g_owner.compare_exchange_strong(none, impl) && none != impl) {
        impl->logf(SPA_LOG_LEVEL_ERROR, KVAEC_PW_ONE_INSTANCE_MSG " (another instance is running)");
        return -EBUSY;
    }
    if (info == nullptr || (info->rate != 48000 && info->rate != 44100 && info->rate != 32000 && info->rate != 16000)) {
        impl->logf(SPA_LOG_LEVEL_ERROR, "sample rate %u Hz not supported (48000, 44100, 32000 or 16000)",
                   info != nullptr ? info->rate : 0u);
        if (!impl->initialised) g_owner.store(nullptr);
        return -EINVAL;
    }
    Settings s;
    unsigned load = 0;
    impl->channels = std::max<uint32_t>(info->channels, 1);
    impl->initialised = false;  // mic-channel checked against the new channel count below
    if (int r = impl->parse(args, s, load); r < 0) {
        g_owner.store(nullptr);
        return r;
    }
    if (s.micChannel >= static_cast<int>(impl->channels)) {
        impl->logf(SPA_LOG_LEVEL_ERROR, "kvaec.mic-channel: %d is not a capture channel (0..%u)", s.micChannel,
                   impl->channels - 1);
        g_owner.store(nullptr);
        return -EINVAL;
    }
    impl->rate = info->rate;
    impl->frameLen = static_cast<int>(info->rate / 100);
    int err = 0;
    for (SpeexResamplerState **r : {&impl->downFar, &impl->downMic, &impl->up})
        if (*r) speex_resampler_destroy(*r), *r = nullptr;
    impl->downFar = speex_resampler_init(1, impl->rate, kRate, KVAEC_PW_RESAMPLER_QUALITY, &err);
    impl->downMic = speex_resampler_init(1, impl->rate, kRate, KVAEC_PW_RESAMPLER_QUALITY, &err);
    impl->up = speex_resampler_init(1, kRate, impl->rate, KVAEC_PW_RESAMPLER_QUALITY, &err);
    if (!impl->downFar || !impl->downMic || !impl->up) {
        impl->logf(SPA_LOG_LEVEL_ERROR, "resampler: %s", speex_resampler_strerror(err));
        g_owner.store(nullptr);
        return -ENOMEM;
    }
    const size_t F = static_cast<size_t>(impl->frameLen);
    impl->farFrame.assign(F, 0.0f);
    impl->micFrame.assign(F, 0.0f);
    impl->upBuf.assign(F, 0.0f);
    impl->outRing.assign(2 * F, 0.0f);
    const int maxDelay = KVAEC_PW_MAX_DELAY_MS * kRate / 1000;
    impl->micLine.assign(static_cast<size_t>(kvaec_align_shift(0, KVAEC_PW_DELAY_MARGIN_MS * kRate / 1000)) + 1,
                         0.0f);
    impl->estLen = static_cast<size_t>(KVAEC_PW_ESTIMATE_SECONDS * kRate) + static_cast<size_t>(maxDelay);
    impl->estFar.assign(impl->estLen, 0.0f);
    impl->estMic.assign(impl->estLen, 0.0f);
    impl->micShift = 0;
    impl->fixedLatency = impl->frameLen - 1 + speex_resampler_get_input_latency(impl->downMic) +
                         speex_resampler_get_output_latency(impl->up) +
                         static_cast<int>(std::lround(static_cast<double>(KVAEC_SND_DELAY_SAMPLES) * impl->rate / kRate));
    std::snprintf(impl->latencyText, sizeof impl->latencyText, "%d/%u", impl->fixedLatency, impl->rate);
    impl->aec.latency = impl->latencyText;

    impl->cur = s;
    aecx_init(&s.cfg);
    aecx_control(s.mode, nullptr, 0.0f);
    impl->resetStream();
    impl->initialised = true;
    if (!impl->worker.joinable()) impl->startWorker();
    impl->logf(SPA_LOG_LEVEL_INFO,
               "libkvaec %d.%d.%d at %u Hz, %u channel(s), microphone channel %d, preset %s, mode 0x%x, "
               "fixed latency %d samples (%.2f ms)",
               KVAEC_VERSION_MAJOR, KVAEC_VERSION_MINOR, KVAEC_VERSION_PATCH, impl->rate, impl->channels,
               s.micChannel, s.fullDuplex ? "full-duplex" : "default", s.mode, impl->fixedLatency,
               1000.0 * impl->fixedLatency / impl->rate);
    return 0;
}

int aecRun(void *object, const float *rec[], const float *play[], float *out[], uint32_t nSamples) {
    Impl *impl = fromAec(object);
    if (!impl->initialised) return -EIO;
    const uint32_t C = impl->channels;
    const int mc = impl->cur.micChannel;
    const float gain = 1.0f / static_cast<float>(C);
    uint32_t pos = 0;
    long nonFinite = 0;
    while (pos < nSamples) {
        const uint32_t k = std::min<uint32_t>(nSamples - pos, static_cast<uint32_t>(impl->frameLen - impl->fill));
        for (uint32_t i = 0; i < k; ++i) {
            float far = 0.0f;
            for (uint32_t c = 0; c < C; ++c) {
                const float v = play[c][pos + i];
                if (std::isfinite(v)) far += v; else ++nonFinite;
            }
            const float m = rec[mc][pos + i];
            if (!std::isfinite(m)) ++nonFinite;
            impl->farFrame[static_cast<size_t>(impl->fill) + i] = far * gain;
            impl->micFrame[static_cast<size_t>(impl->fill) + i] = std::isfinite(m) ? m : 0.0f;
        }
        impl->fill += static_cast<int>(k);
        if (nonFinite > 0) impl->inputNonFinite.fetch_add(nonFinite), nonFinite = 0;
        if (impl->fill == impl->frameLen) {
            impl->processFrame();
            impl->fill = 0;
        }
        const size_t cap = impl->outRing.size();
        for (uint32_t i = 0; i < k; ++i) {
            const float v = impl->outCount > 0 ? impl->outRing[impl->outHead] : 0.0f;
            if (impl->outCount > 0) {
                impl->outHead = (impl->outHead + 1) % cap;
                --impl->outCount;
            }
            for (uint32_t c = 0; c < C; ++c) out[c][pos + i] = v;
        }
        pos += k;
    }
    return 0;
}

int queueSettings(Impl *impl, const spa_dict *dict) {
    std::lock_guard<std::mutex> lk(impl->pendingLock);
    Settings s = impl->hasPending ? impl->pending : impl->cur;
    unsigned load = impl->hasPending ? impl->pendingLoad : 0u;
    if (int r = impl->parse(dict, s, load); r < 0) return r;
    impl->pending = s;
    impl->pendingLoad = load;
    impl->hasPending = true;
    impl->logf(SPA_LOG_LEVEL_INFO, "properties accepted: preset %s, mode 0x%x, microphone channel %d%s",
               s.fullDuplex ? "full-duplex" : "default", s.mode, s.micChannel,
               (load & KVAEC_CMD_LOAD_CFG) ? ", configuration reloaded" : "");
    return 0;
}

int aecSetProps(void *object, const spa_dict *args) { return queueSettings(fromAec(object), args); }

int aecActivate(void *object) {
    Impl *impl = fromAec(object);
    if (!impl->initialised) return -EIO;
    impl->resetStream();
    aecx_control(KVAEC_CMD_RESET | impl->cur.mode, nullptr, 0.0f);
    return 0;
}

int aecDeactivate(void *) { return 0; }

int aecEnumProps(void *object, int index, spa_pod_builder *b) {
    (void)object;
    const int n = static_cast<int>(sizeof kProps / sizeof kProps[0]);
    if (index < 0 || index >= n || b == nullptr) return 0;
    const PropDef &p = kProps[index];
    spa_pod_frame f;
    spa_pod_builder_push_object(b, &f, SPA_TYPE_OBJECT_PropInfo, SPA_PARAM_PropInfo);
    spa_pod_builder_prop(b, SPA_PROP_INFO_name, 0);
    spa_pod_builder_string(b, p.key);
    spa_pod_builder_prop(b, SPA_PROP_INFO_description, 0);
    spa_pod_builder_string(b, p.description);
    spa_pod_builder_prop(b, SPA_PROP_INFO_type, 0);
    switch (p.kind) {
    case Kind::CfgFloat: spa_pod_builder_float(b, cfgFloat(kvaec_full_duplex_cfg, p.offset)); break;
    case Kind::CfgInt: spa_pod_builder_int(b, cfgInt(kvaec_full_duplex_cfg, p.offset)); break;
    case Kind::ModeBit: spa_pod_builder_bool(b, false); break;
    case Kind::Preset: spa_pod_builder_string(b, "full-duplex"); break;
    case Kind::MicChannel: spa_pod_builder_int(b, 0); break;
    }
    spa_pod_builder_prop(b, SPA_PROP_INFO_params, 0);
    spa_pod_builder_bool(b, true);
    spa_pod_builder_pop(b, &f);
    return 1;
}

int aecGetParams(void *object, spa_pod_builder *b) {
    Impl *impl = fromAec(object);
    // PipeWire 0.3.65's echo-cancel module calls this (and enum_props)
    // without a builder while it sets its streams up: nothing to write.
    if (b == nullptr) return 0;
    Settings s;
    {
        std::lock_guard<std::mutex> lk(impl->pendingLock);
        s = impl->hasPending ? impl->pending : impl->cur;
    }
    for (const PropDef &p : kProps) {
        spa_pod_builder_string(b, p.key);
        switch (p.kind) {
        case Kind::CfgFloat: spa_pod_builder_float(b, cfgFloat(s.cfg, p.offset)); break;
        case Kind::CfgInt: spa_pod_builder_int(b, cfgInt(s.cfg, p.offset)); break;
        case Kind::ModeBit: spa_pod_builder_bool(b, (s.mode & p.bit) != 0); break;
        case Kind::Preset: spa_pod_builder_string(b, s.fullDuplex ? "full-duplex" : "default"); break;
        case Kind::MicChannel: spa_pod_builder_int(b, s.micChannel); break;
        }
    }
    // Read-only: the current alignment delay of the microphone (16 kHz samples)
    // and the fixed latency (graph-rate samples).
    spa_pod_builder_string(b, "kvaec.mic-delay");
    spa_pod_builder_int(b, impl->micShiftShown.load());
    spa_pod_builder_string(b, "kvaec.latency");
    spa_pod_builder_int(b, impl->fixedLatency);
    return 0;
}

// set_params: a Struct of (String key, value) pairs, values as Bool, Int,
// Long, Float, Double or String.
int aecSetParams(void *object, const spa_pod *args) {
    Impl *impl = fromAec(object);
    if (args == nullptr || !spa_pod_is_struct(args)) return -EINVAL;
    constexpr int kMax = 32;
    char keys[kMax][64], vals[kMax][64];
    spa_dict_item items[kMax];
    uint32_t n = 0;
    const spa_pod *pod;
    const char *key = nullptr;
    const void *body = SPA_POD_BODY_CONST(args);
    const uint32_t size = SPA_POD_BODY_SIZE(args);
    for (pod = static_cast<const spa_pod *>(body); spa_pod_is_inside(body, size, pod);
         pod = static_cast<const spa_pod *>(spa_pod_next(pod))) {
        if (key == nullptr) {
            if (spa_pod_get_string(pod, &key) < 0) return -EINVAL;
            continue;
        }
        if (n >= kMax) return -E2BIG;
        char *v = vals[n];
        bool b;
        int32_t i;
        int64_t l;
        float f;
        double d;
        const char *s;
        if (spa_pod_get_bool(pod, &b) >= 0) std::snprintf(v, 64, "%s", b ? "true" : "false");
        else if (spa_pod_get_int(pod, &i) >= 0) std::snprintf(v, 64, "%d", i);
        else if (spa_pod_get_long(pod, &l) >= 0) std::snprintf(v, 64, "%lld", static_cast<long long>(l));
        else if (spa_pod_get_float(pod, &f) >= 0) std::snprintf(v, 64, "%.9g", static_cast<double>(f));
        else if (spa_pod_get_double(pod, &d) >= 0) std::snprintf(v, 64, "%.17g", d);
        else if (spa_pod_get_string(pod, &s) >= 0) std::snprintf(v, 64, "%s", s);
        else {
            impl->logf(SPA_LOG_LEVEL_ERROR, "%s: value of an unsupported type; nothing changed", key);
            return -EINVAL;
        }
        std::snprintf(keys[n], 64, "%s", key);
        items[n] = SPA_DICT_ITEM_INIT(keys[n], vals[n]);
        ++n;
        key = nullptr;
    }
    const spa_dict dict = SPA_DICT_INIT(items, n);
    return queueSettings(impl, &dict);
}

const spa_audio_aec_methods kMethods = {
    SPA_VERSION_AUDIO_AEC_METHODS,
    aecAddListener,
    aecInit,
    aecRun,
    aecSetProps,
    aecActivate,
    aecDeactivate,
    aecEnumProps,
    aecGetParams,
    aecSetParams,
};

int implGetInterface(spa_handle *handle, const char *type, void **iface) {
    Impl *impl = reinterpret_cast<Impl *>(handle);
    if (spa_streq(type, SPA_TYPE_INTERFACE_AUDIO_AEC)) {
        *iface = &impl->aec;
        return 0;
    }
    return -ENOENT;
}

int implClear(spa_handle *handle) {
    reinterpret_cast<Impl *>(handle)->~Impl();
    return 0;
}

size_t factoryGetSize(const spa_handle_factory *, const spa_dict *) { return sizeof(Impl); }

int factoryInit(const spa_handle_factory *, spa_handle *handle, const spa_dict *, const spa_support *support,
                uint32_t nSupport) {
    static_assert(offsetof(Impl, handle) == 0, "the handle comes first");
    Impl *impl = new (handle) Impl();
    impl->handle.version = SPA_VERSION_HANDLE;
    impl->handle.get_interface = implGetInterface;
    impl->handle.clear = implClear;
    impl->log = static_cast<spa_log *>(spa_support_find(support, nSupport, SPA_TYPE_INTERFACE_Log));
    spa_hook_list_init(&impl->hooks);
    impl->aec.iface = SPA_INTERFACE_INIT(SPA_TYPE_INTERFACE_AUDIO_AEC, SPA_VERSION_AUDIO_AEC, &kMethods, impl);
    impl->aec.name = "kvaec";
    impl->aec.info = nullptr;
    impl->aec.latency = nullptr;  // set by init, once the rate is known
    return 0;
}

const spa_interface_info kInterfaces[] = {{SPA_TYPE_INTERFACE_AUDIO_AEC}};

int factoryEnumInterfaceInfo(const spa_handle_factory *, const spa_interface_info **info, uint32_t *index) {
    if (*index >= 1) return 0;
    *info = &kInterfaces[(*index)++];
    return 1;
}

const spa_handle_factory kFactory = {
    SPA_VERSION_HANDLE_FACTORY, SPA_NAME_AEC, nullptr, factoryGetSize, factoryInit, factoryEnumInterfaceInfo,
};

}  // namespace

extern "C" __attribute__((visibility("default"))) int spa_handle_factory_enum(const spa_handle_factory **factory,
                                                                               uint32_t *index) {
    if (*index >= 1) return 0;
    *factory = &kFactory;
    (*index)++;
    return 1;
}
