#include "common.h"

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "audio_io.h"
#include "kvaec_records.h"

namespace kvaec::tool {

void checkSettings(const Settings &s) {
    if (const char *why = kvaec_cfg_check(&s.cfg)) throw ToolError(std::string("invalid configuration: ") + why);
    if (s.nlpParamSet && !std::isfinite(s.nlpParam))
        throw ToolError("invalid setting: fNlpParam: must be a finite number (dB)");
}

void reloadCanceller(const Settings &s) {
    unsigned cmd = KVAEC_CMD_RESET | KVAEC_CMD_LOAD_CFG | s.mode;
    if (s.nlpParamSet) cmd |= KVAEC_CMD_SET_NLP_PARAM;
    aecx_control(cmd, &s.cfg, s.nlpParam);
}

const char *presetName(const AEC_tCfg &cfg) {
    if (std::memcmp(&cfg, &AEC_DefaultCfg, sizeof cfg) == 0) return "default";
    if (std::memcmp(&cfg, &kvaec_full_duplex_cfg, sizeof cfg) == 0) return "full-duplex";
    return "custom";
}

void startCanceller(const Settings &s) {
    aecx_init(&s.cfg);
    unsigned cmd = s.mode;
    if (s.nlpParamSet) cmd |= KVAEC_CMD_SET_NLP_PARAM;
    aecx_control(cmd, nullptr, s.nlpParam);
}

void warn(const std::string &msg) { std::fprintf(stderr, "kvaec: warning: %s\n", msg.c_str()); }
void note(const std::string &msg) { std::fprintf(stderr, "kvaec: %s\n", msg.c_str()); }

Progress::Progress(long total, bool enabled) : total_(total), on_(enabled && total > 0 && ::isatty(2)) {}

void Progress::update(long done) {
    if (!on_) return;
    const int pct = static_cast<int>(100 * done / total_);
    if (pct == lastPct_) return;
    lastPct_ = pct;
    char bar[41];
    const int fill = pct * 40 / 100;
    for (int i = 0; i < 40; ++i) bar[i] = i < fill ? '#' : '.';
    bar[40] = '\0';
    std::fprintf(stderr, "\r[%s] %3d%%", bar, pct);
    std::fflush(stderr);
}

void Progress::finish() {
    if (!on_) return;
    std::fprintf(stderr, "\r%60s\r", "");
    std::fflush(stderr);
}

double powerDb(const float *x, long n) {
    double p = 0;
    long m = 0;
    for (long i = 0; i < n; ++i)
        if (std::isfinite(x[i])) {
            p += static_cast<double>(x[i]) * x[i];
            ++m;
        }
    return 10.0 * std::log10((m > 0 ? p / static_cast<double>(m) : 0.0) + 1e-20);
}

std::string fmt(const char *f, ...) {
    char buf[1024];
    va_list ap;
    va_start(ap, f);
    std::vsnprintf(buf, sizeof buf, f, ap);
    va_end(ap);
    return buf;
}

}  // namespace kvaec::tool
