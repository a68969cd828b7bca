// Closed-loop driver: runs one engine on one scenario.
//
//   kvaec_eval SCENARIO_DIR ENGINE OUT_DIR
//   kvaec_eval --list
//
// Per frame k (160 samples):
//   mic_k  = echo_k + nearmic_k + noise_k, where echo_k is the loudspeaker
//            signal (soft-clipped played output of earlier frames) through the
//            echo path; the path starts with at least one frame of pure
//            latency, so frame k's echo only needs frames before k;
//   engine(far_k, mic_k) -> played_k, send_k.
// Writes OUT_DIR/played.f32, echo.f32, mic.f32, send.f32 (float32 raw) and
// OUT_DIR/stats.txt (engine description, send delay, CPU time per frame).
// CPU time is the thread's CPU time around the engine call only.
#include <time.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "engine.h"

using namespace kvaec_eval;

namespace {

std::vector<float> readF32(const std::string &path, bool required) {
    std::vector<float> v;
    FILE *f = std::fopen(path.c_str(), "rb");
    if (!f) {
        if (required) {
            std::fprintf(stderr, "cannot read %s\n", path.c_str());
            std::exit(2);
        }
        return v;
    }
    std::fseek(f, 0, SEEK_END);
    long n = std::ftell(f) / static_cast<long>(sizeof(float));
    std::fseek(f, 0, SEEK_SET);
    v.resize(static_cast<size_t>(n));
    if (std::fread(v.data(), sizeof(float), v.size(), f) != v.size()) {
        std::fprintf(stderr, "short read %s\n", path.c_str());
        std::exit(2);
    }
    std::fclose(f);
    return v;
}

void writeF32(const std::string &path, const std::vector<float> &v) {
    FILE *f = std::fopen(path.c_str(), "wb");
    if (!f || std::fwrite(v.data(), sizeof(float), v.size(), f) != v.size()) {
        std::fprintf(stderr, "cannot write %s\n", path.c_str());
        std::exit(2);
    }
    std::fclose(f);
}

std::map<std::string, std::string> readMeta(const std::string &path) {
    std::map<std::string, std::string> m;
    std::ifstream in(path);
    if (!in) {
        std::fprintf(stderr, "cannot read %s\n", path.c_str());
        std::exit(2);
    }
    std::string line;
    while (std::getline(in, line)) {
        auto eq = line.find('=');
        if (eq != std::string::npos) m[line.substr(0, eq)] = line.substr(eq + 1);
    }
    return m;
}

double threadCpuNs() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) * 1e9 + static_cast<double>(ts.tv_nsec);
}

// Loudspeaker: a soft clipper, y = tanh(d x) / d (unity gain for small signals).
float speaker(float x, double drive) {
    return static_cast<float>(std::tanh(drive * x) / drive);
}

int leadingZeros(const std::vector<float> &h) {
    int i = 0;
    while (i < static_cast<int>(h.size()) && h[static_cast<size_t>(i)] == 0.0f) ++i;
    return i;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc == 2 && std::string(argv[1]) == "--list") {
        for (const auto &n : engineNames()) std::printf("%s\n", n.c_str());
        return 0;
    }
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s SCENARIO_DIR ENGINE OUT_DIR | --list\n", argv[0]);
        return 2;
    }
    const std::string sdir = argv[1], ename = argv[2], odir = argv[3];
    auto meta = readMeta(sdir + "/meta.txt");
    const auto far = readF32(sdir + "/far.f32", true);
    const auto near = readF32(sdir + "/nearmic.f32", true);
    const auto noise = readF32(sdir + "/noise.f32", true);
    const auto h1 = readF32(sdir + "/rir1.f32", true);
    const auto h2 = readF32(sdir + "/rir2.f32", false);
    const double drive = std::atof(meta["clip_drive"].c_str());
    const int latencyMs = std::atoi(meta["latency_ms"].c_str());
    const double changeS = meta.count("change_s") ? std::atof(meta["change_s"].c_str()) : -1.0;
    const long change = (changeS >= 0 && !h2.empty()) ? static_cast<long>(changeS * kRate) : -1;
    if (leadingZeros(h1) < kFrame || (!h2.empty() && leadingZeros(h2) < kFrame)) {
        std::fprintf(stderr, "echo path needs at least one frame of latency\n");
        return 2;
    }
    auto eng = makeEngine(ename, latencyMs);
    if (!eng) {
        std::fprintf(stderr, "unknown engine %s\n", ename.c_str());
        return 2;
    }
    const size_t frames = far.size() / kFrame;
    const size_t n = frames * kFrame;
    std::vector<float> spk(n, 0.0f), played(n, 0.0f), echo(n, 0.0f), mic(n, 0.0f), send(n, 0.0f);
    std::vector<double> cpu(frames);
    for (size_t k = 0; k < frames; ++k) {
        const size_t base = k * kFrame;
        // Echo of this frame from earlier loudspeaker output only.
        for (size_t i = base; i < base + kFrame; ++i) {
            const auto &h = (change >= 0 && static_cast<long>(i) >= change) ? h2 : h1;
            const size_t len = std::min(h.size(), i + 1);
            double acc = 0.0;
            for (size_t j = kFrame; j < len; ++j) acc += static_cast<double>(h[j]) * spk[i - j];
            echo[i] = static_cast<float>(acc);
            mic[i] = echo[i] + near[i] + noise[i];
        }
        const double t0 = threadCpuNs();
        eng->process(&far[base], &played[base], &mic[base], &send[base]);
        cpu[k] = threadCpuNs() - t0;
        for (size_t i = base; i < base + kFrame; ++i) spk[i] = speaker(played[i], drive);
    }
    writeF32(odir + "/played.f32", played);
    writeF32(odir + "/echo.f32", echo);
    writeF32(odir + "/mic.f32", mic);
    writeF32(odir + "/send.f32", send);
    double sum = 0, mx = 0;
    std::vector<double> sorted(cpu);
    for (double c : cpu) {
        sum += c;
        mx = std::max(mx, c);
    }
    std::sort(sorted.begin(), sorted.end());
    FILE *f = std::fopen((odir + "/stats.txt").c_str(), "w");
    if (!f) return 2;
    std::fprintf(f, "engine=%s\n", ename.c_str());
    std::fprintf(f, "describe=%s\n", eng->describe().c_str());
    std::fprintf(f, "send_delay=%d\n", eng->sendDelay());
    std::fprintf(f, "frames=%zu\n", frames);
    std::fprintf(f, "cpu_us_mean=%.3f\n", sum / static_cast<double>(frames) / 1e3);
    std::fprintf(f, "cpu_us_median=%.3f\n", sorted[frames / 2] / 1e3);
    std::fprintf(f, "cpu_us_p99=%.3f\n", sorted[std::min(frames - 1, frames * 99 / 100)] / 1e3);
    std::fprintf(f, "cpu_us_max=%.3f\n", mx / 1e3);
    std::fputs(eng->extraStats().c_str(), f);
    std::fclose(f);
    return 0;
}
