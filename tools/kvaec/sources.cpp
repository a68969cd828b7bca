#include "sources.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <random>
#include <sys/wait.h>
#include <unistd.h>
#include <fcntl.h>

#include "audio_io.h"
#include "closed_loop.h"
#include "common.h"

namespace kvaec::tool {

namespace {

// Runs espeak-ng without a shell; true when it exits 0.
bool runEspeak(const std::string &voice, const std::string &text, const std::string &wav) {
    const pid_t pid = ::fork();
    if (pid < 0) return false;
    if (pid == 0) {
        const int devnull = ::open("/dev/null", O_WRONLY);
        if (devnull >= 0) {
            ::dup2(devnull, 1);
            ::dup2(devnull, 2);
        }
        const char *argv[] = {"espeak-ng", "-v", voice.c_str(), "-s", "150", "-w", wav.c_str(), text.c_str(), nullptr};
        ::execvp("espeak-ng", const_cast<char *const *>(argv));
        ::_exit(127);
    }
    int status = 0;
    if (::waitpid(pid, &status, 0) != pid) return false;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

double activeLevelDb(const std::vector<float> &x) {
    const long frames = static_cast<long>(x.size()) / kFrame;
    std::vector<double> p(static_cast<size_t>(std::max(frames, 0L)));
    double mx = 0;
    for (long k = 0; k < frames; ++k) {
        double s = 0;
        for (int n = 0; n < kFrame; ++n) s += static_cast<double>(x[static_cast<size_t>(k * kFrame + n)]) * x[static_cast<size_t>(k * kFrame + n)];
        p[static_cast<size_t>(k)] = s / kFrame;
        mx = std::max(mx, p[static_cast<size_t>(k)]);
    }
    double sum = 0;
    long cnt = 0;
    for (double v : p)
        if (v > mx * 1e-3 && v > 0) {
            sum += v;
            ++cnt;
        }
    return cnt > 0 ? 10.0 * std::log10(sum / static_cast<double>(cnt)) : -200.0;
}

void setActiveLevel(std::vector<float> &x, double levelDbfs) {
    const double cur = activeLevelDb(x);
    if (cur <= -199.0) return;
    const double g = std::pow(10.0, (levelDbfs - cur) / 20.0);
    for (float &v : x) v = static_cast<float>(v * g);
}

std::vector<float> loopTo(const std::vector<float> &x, size_t n) {
    std::vector<float> y(n, 0.0f);
    if (x.empty()) return y;
    for (size_t i = 0; i < n; ++i) y[i] = x[i % x.size()];
    return y;
}

std::vector<float> espeakSpeech(const std::vector<std::string> &sentences, const std::string &voice,
                                double seconds, double levelDbfs) {
    if (sentences.empty()) return {};
    char dirTmpl[] = "/tmp/kvaec-speech-XXXXXX";
    if (!::mkdtemp(dirTmpl)) return {};
    const std::string dir = dirTmpl;
    std::vector<float> all;
    bool ok = true;
    for (size_t i = 0; i < sentences.size() && ok; ++i) {
        const std::string wav = dir + "/s" + std::to_string(i) + ".wav";
        if (!runEspeak(voice, sentences[i], wav)) {
            ok = false;
            break;
        }
        try {
            std::vector<std::string> notes;
            std::vector<float> s = loadSignal(wav, "speech", 1, kRate, true, notes);
            all.insert(all.end(), s.begin(), s.end());
            all.insert(all.end(), static_cast<size_t>(0.4 * kRate), 0.0f);  // pause between sentences
        } catch (const ToolError &) {
            ok = false;
        }
        ::unlink(wav.c_str());
    }
    ::rmdir(dir.c_str());
    if (!ok || all.empty()) return {};
    std::vector<float> y = loopTo(all, static_cast<size_t>(seconds * kRate));
    setActiveLevel(y, levelDbfs);
    return y;
}

std::vector<float> builtinSpeech(unsigned seed, double seconds, double levelDbfs) {
    std::vector<float> y(static_cast<size_t>(seconds * kRate) / kFrame * kFrame + kFrame);
    kvaec::sim::SpeechLike src(seed, levelDbfs);
    src.fill(y.data(), static_cast<int>(y.size()));
    y.resize(static_cast<size_t>(seconds * kRate));
    return y;
}

std::vector<float> makeNoise(const std::string &kind, unsigned seed, double seconds, double levelDbfs) {
    const size_t n = static_cast<size_t>(seconds * kRate);
    std::vector<float> y(n, 0.0f);
    std::mt19937 rng(seed);
    std::normal_distribution<double> g(0.0, 1.0);
    if (kind == "white") {
        for (float &v : y) v = static_cast<float>(g(rng));
    } else if (kind == "pink") {
        // Sum of first-order sections (Kellet's economy filter): -3 dB/octave
        // within 1 dB above about 40 Hz.
        double b0 = 0, b1 = 0, b2 = 0;
        for (float &v : y) {
            const double w = g(rng);
            b0 = 0.99765 * b0 + w * 0.0990460;
            b1 = 0.96300 * b1 + w * 0.2965164;
            b2 = 0.57000 * b2 + w * 1.0526913;
            v = static_cast<float>(b0 + b1 + b2 + w * 0.1848);
        }
    } else if (kind == "babble") {
        std::vector<float> t(n + kFrame);
        for (unsigned k = 0; k < 6; ++k) {
            kvaec::sim::SpeechLike talker(seed * 7919u + k, -30.0, true);
            talker.fill(t.data(), static_cast<int>(t.size()));
            for (size_t i = 0; i < n; ++i) y[i] += t[i];
        }
    } else {
        return {};
    }
    double p = 0;
    for (float v : y) p += static_cast<double>(v) * v;
    p /= static_cast<double>(std::max<size_t>(n, 1));
    const double gain = p > 0 ? std::pow(10.0, levelDbfs / 20.0) / std::sqrt(p) : 0.0;
    for (float &v : y) v = static_cast<float>(v * gain);
    return y;
}

}  // namespace kvaec::tool
