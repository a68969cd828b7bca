// kvaec simulate: the canceller in a closed loop. The far-end signal goes
// through the library to a loudspeaker; the echo is made from what the
// library actually played (through a room impulse response, after the
// playback latency, optionally through a soft-clipping loudspeaker) and
// reaches the microphone together with a near-end talker and noise.
//
// Default scenario (generated sources): far-end talker alone for the first
// 40 % of the time, double talk with a near-end talker up to 70 %, then the
// far end alone again.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "audio_io.h"
#include "closed_loop.h"
#include "commands.h"
#include "health.h"
#include "kvaec_records.h"
#include "rir.h"
#include "sources.h"

#ifndef KVAEC_PLOT_SCRIPT_SOURCE
#define KVAEC_PLOT_SCRIPT_SOURCE ""
#endif
#ifndef KVAEC_PLOT_SCRIPT_INSTALLED
#define KVAEC_PLOT_SCRIPT_INSTALLED ""
#endif

namespace kvaec::tool {

namespace {

// The echo model keeps half a second of played history.
constexpr int kMaxPathSamples = 8000;
// Level of the near-end talker at the microphone, and the reference of --snr.
constexpr double kNearLevelDb = -30.0;
constexpr double kFarLevelDb = -24.0;

const std::vector<std::string> kFarSentences = {
    "Good morning. I am calling about the delivery that was planned for Thursday.",
    "The parcel left our warehouse yesterday afternoon and should reach you soon.",
    "Could you please tell me which entrance the driver should use?",
    "We can also leave it with a neighbour if nobody is at home.",
    "Thank you very much, and have a pleasant day."};
const std::vector<std::string> kNearSentences = {
    "Yes, hello. The side entrance next to the garage is best.",
    "Please ring twice, the bell is quite hard to hear from upstairs."};

bool fileExists(const std::string &p) {
    struct stat st {};
    return ::stat(p.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

std::string plotScript() {
    if (const char *e = std::getenv("KVAEC_PLOT_SCRIPT")) return e;
    for (const char *p : {KVAEC_PLOT_SCRIPT_SOURCE, KVAEC_PLOT_SCRIPT_INSTALLED})
        if (*p && fileExists(p)) return p;
    return {};
}

// Runs the plot script; returns "" on success, else why it was skipped.
std::string runPlot(const std::string &csv, const std::string &png) {
    const std::string script = plotScript();
    if (script.empty()) return "scripts/plot_sim.py not found (set KVAEC_PLOT_SCRIPT)";
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

// Index of the first tap within 20 dB of the largest (0 for a silent path).
long firstArrival(const std::vector<float> &h) {
    float peak = 0.0f;
    for (float v : h) peak = std::max(peak, std::fabs(v));
    for (size_t i = 0; i < h.size(); ++i)
        if (std::fabs(h[i]) >= 0.1f * peak && peak > 0.0f) return static_cast<long>(i);
    return 0;
}

double sumDb(double num, double den) { return 10.0 * std::log10((num + 1e-20) / (den + 1e-20)); }

// A figure in dB, or "n/a" when it is not a finite number.
std::string dbText(double v, const char *f = "%.1f dB") { return std::isfinite(v) ? fmt(f, v) : std::string("n/a"); }

void requireFinite(double v, const char *option) {
    if (!std::isfinite(v)) throw ToolError(std::string(option) + " must be a finite number");
}

bool isNoiseKind(const std::string &k) { return k == "white" || k == "pink" || k == "babble"; }

// Non-finite samples of a source become silence (with a warning).
void silenceNonFinite(std::vector<float> &x, const std::string &what) {
    long n = 0;
    for (float &v : x)
        if (!std::isfinite(v)) {
            v = 0.0f;
            ++n;
        }
    if (n > 0) warn(fmt("%s holds %ld non-finite samples: used as silence", what.c_str(), n));
}

}  // namespace

int runSimulate(const SimulateArgs &a) {
    // Settings and numbers first: nothing is created for a run that cannot start.
    checkSettings(a.settings);
    if (a.erlGiven) requireFinite(a.erlDb, "--erl");
    if (a.snrGiven) requireFinite(a.snrDb, "--snr");
    requireFinite(a.echoChangeAt, "--echo-change-at");
    ensureDirectory(a.dir);
    const std::string d = a.dir + "/";
    OutputSet outs;
    // Inputs are protected: an output in the directory that is an input fails now.
    if (!a.far.empty()) outs.protectInput(a.far, "--far");
    if (!a.near.empty()) outs.protectInput(a.near, "--near");
    if (!a.rir.empty()) outs.protectInput(a.rir, "--rir");
    if (!a.noise.empty() && !isNoiseKind(a.noise)) outs.protectInput(a.noise, "--noise");
    const int oMic = outs.add(d + "mic.wav"), oSend = outs.add(d + "send.wav"), oPlayed = outs.add(d + "played.wav"),
              oEcho = outs.add(d + "echo.wav"), oFar = outs.add(d + "far.wav"), oNear = outs.add(d + "near.wav"),
              oCsv = outs.add(d + "frames.csv");

    std::vector<std::string> notes;
    // ---- sources ----
    std::vector<float> far, near, noise;
    std::string farSrc, nearSrc;
    if (!a.far.empty()) {
        far = loadSignal(a.far, "far-end file", a.channel, kRate, !a.noResample, notes);
        silenceNonFinite(far, "far-end file '" + a.far + "'");
        farSrc = a.far;
    }
    const double T = a.durationGiven ? a.duration : (!far.empty() ? static_cast<double>(far.size()) / kRate : a.duration);
    if (!(T >= 1.0) || T > 3600.0) throw ToolError("--duration must be between 1 and 3600 seconds");
    const size_t N = static_cast<size_t>(T * kRate) / kFrame * kFrame;
    const bool generated = a.far.empty();
    if (generated) {
        if (!a.noEspeak) far = espeakSpeech(kFarSentences, "en-us+m3", T, kFarLevelDb);
        farSrc = far.empty() ? "built-in speech-like signal" : "espeak-ng (voice en-us+m3)";
        if (far.empty()) far = builtinSpeech(a.seed, T, kFarLevelDb);
    }
    far.resize(N, 0.0f);
    const size_t dtFrom = static_cast<size_t>(0.4 * static_cast<double>(N)) / kFrame * kFrame;
    const size_t dtTo = static_cast<size_t>(0.7 * static_cast<double>(N)) / kFrame * kFrame;
    if (!a.near.empty()) {
        near = loadSignal(a.near, "near-end file", a.channel, kRate, !a.noResample, notes);
        silenceNonFinite(near, "near-end file '" + a.near + "'");
        nearSrc = a.near;
        near.resize(N, 0.0f);
    } else if (generated) {
        const double len = static_cast<double>(dtTo - dtFrom) / kRate;
        std::vector<float> talk;
        if (!a.noEspeak) talk = espeakSpeech(kNearSentences, "en-gb+f3", len, kNearLevelDb);
        nearSrc = talk.empty() ? "built-in speech-like signal" : "espeak-ng (voice en-gb+f3)";
        if (talk.empty()) talk = builtinSpeech(a.seed + 1000u, len, kNearLevelDb);
        near.assign(N, 0.0f);
        for (size_t i = 0; i < talk.size() && dtFrom + i < N; ++i) near[dtFrom + i] = talk[i];
    } else {
        near.assign(N, 0.0f);
        nearSrc = "none";
    }
    std::string noiseKind = a.noise;
    if (noiseKind.empty() && a.snrGiven) noiseKind = "white";
    if (!noiseKind.empty()) {
        const double lev = kNearLevelDb - a.snrDb;
        noise = makeNoise(noiseKind, a.seed + 7u, static_cast<double>(N) / kRate + 0.01, lev);
        if (noise.empty()) {
            noise = loadSignal(noiseKind, "noise file", a.channel, kRate, !a.noResample, notes);
            silenceNonFinite(noise, "noise file '" + noiseKind + "'");
            double p = 0;
            for (float v : noise) p += static_cast<double>(v) * v;
            p /= static_cast<double>(noise.size());
            if (!(p > 0)) throw ToolError("noise file '" + noiseKind + "' is silent");
            const double g = std::pow(10.0, lev / 20.0) / std::sqrt(p);
            for (float &v : noise) v = static_cast<float>(v * g);
            noise = loopTo(noise, N);
        }
        noise.resize(N, 0.0f);
    } else {
        noise.assign(N, 0.0f);
    }
    for (const std::string &n : notes) note(n);
    {
        const InputCheck c = checkInput(far, kRate);
        if (c.rmsDb < -70.0) warn("the far end is silent: there will be no echo to cancel");
        if (c.clipped > 0) warn(fmt("far-end input clips: %ld samples at full scale", c.clipped));
    }

    // ---- echo path ----
    if (!(a.latencyMs >= 0) || a.latencyMs > 400) throw ToolError("--latency must be between 10 and 400 ms");
    long lat = std::lround(a.latencyMs * kRate / 1000.0);
    if (lat < kFrame) {
        note("playback latency raised to one frame (10 ms), the least a frame-based host has");
        lat = kFrame;
    }
    const int playbackFrames = static_cast<int>(lat / kFrame);
    const long latRest = lat - static_cast<long>(playbackFrames) * kFrame;
    std::vector<float> path, path2;
    std::string pathSrc;
    if (!a.rir.empty()) {
        path = loadSignal(a.rir, "impulse-response file", a.channel, kRate, !a.noResample, notes);
        // An echo path with a non-finite or absurd tap cannot be simulated.
        for (size_t i = 0; i < path.size(); ++i)
            if (!std::isfinite(path[i]) || std::fabs(path[i]) > 100.0f)
                throw ToolError(fmt("impulse-response file '%s' holds an unusable tap %g at sample %zu (taps must "
                                    "be finite, within +-100)", a.rir.c_str(), static_cast<double>(path[i]), i));
        if (a.erlGiven) scaleToErl(path, a.erlDb);
        path2 = path;
        path2.insert(path2.begin(), 16, 0.0f);  // the changed path: 1 ms later, opposite sign
        for (float &v : path2) v = -v;
        pathSrc = a.rir;
    } else {
        Room room;
        if (!a.room.empty() && !parseVec3(a.room, room.size)) throw ToolError("--room takes WxDxH in metres, e.g. 4x5x2.7");
        if (!a.micPos.empty() && !parseVec3(a.micPos, room.mic)) throw ToolError("--mic-pos takes X,Y,Z in metres");
        if (!a.spkPos.empty() && !parseVec3(a.spkPos, room.spk)) throw ToolError("--spk-pos takes X,Y,Z in metres");
        if (!(a.rt60 >= 0.05 && a.rt60 <= 5.0)) throw ToolError("--rt60 must be between 0.05 and 5 seconds");
        room.rt60 = a.rt60;
        const int len = std::min(kMaxPathSamples, static_cast<int>(a.rt60 * kRate));
        try {
            path = imageMethodRir(room, kRate, len);
            // The changed path: the microphone moved by 25 cm (kept inside the room).
            Room moved = room;
            moved.mic[0] = room.mic[0] + 0.25 <= room.size[0] ? room.mic[0] + 0.25 : room.mic[0] - 0.25;
            path2 = imageMethodRir(moved, kRate, len);
        } catch (const std::invalid_argument &e) {
            throw ToolError(std::string("room model: ") + e.what());
        }
        scaleToErl(path, a.erlDb);
        scaleToErl(path2, a.erlDb);
        pathSrc = fmt("room %.2fx%.2fx%.2f m, RT60 %.2f s, mic (%.2f,%.2f,%.2f), loudspeaker (%.2f,%.2f,%.2f)",
                      room.size[0], room.size[1], room.size[2], room.rt60, room.mic[0], room.mic[1], room.mic[2],
                      room.spk[0], room.spk[1], room.spk[2]);
    }
    for (std::vector<float> *p : {&path, &path2}) {
        p->insert(p->begin(), static_cast<size_t>(latRest), 0.0f);
        if (p->size() > static_cast<size_t>(kMaxPathSamples)) p->resize(kMaxPathSamples);
    }
    // Delay from a sample leaving aecx_process as receive output to the first
    // arrival of its echo at the microphone input: the playback frames plus
    // the path up to its first tap within 20 dB of the strongest.
    const long echoDelay = static_cast<long>(playbackFrames) * kFrame + firstArrival(path);
    if (echoDelay < KVAEC_ECHO_MIN_DELAY)
        warn(fmt("the echo reaches the microphone %ld samples after the receive output, less than the %d the "
                 "canceller needs (KVAEC_ECHO_MIN_DELAY): the early part of the echo is not cancelled. A host "
                 "with this latency delays the microphone by the difference (kvaec_align_shift); here, raise "
                 "--latency to %.1f ms or more",
                 echoDelay, KVAEC_ECHO_MIN_DELAY,
                 1000.0 * static_cast<double>(lat + KVAEC_ECHO_MIN_DELAY - echoDelay) / kRate));

    // ---- closed loop ----
    kvaec::sim::ClosedLoop loop(path, playbackFrames);
    int cleared = 0;
    const Settings &st = a.settings;
    loop.setPlaybackFilter([&](float *rin) {
        // Non-finite samples never reach the echo model.
        for (int n = 0; n < kFrame; ++n)
            if (!std::isfinite(rin[n])) {
                rin[n] = 0.0f;
                ++cleared;
            }
        if (st.applyEq) aecx_spkeq(rin);
    });
    if (st.applyEq) loop.setMicFilter([](float *x) { aecx_miceq(x); });
    if (a.nonlinear > 0) {
        const float drive = static_cast<float>(a.nonlinear);
        loop.setLoudspeaker([drive](float x) { return std::tanh(drive * x) / drive; });
    }
    startCanceller(st);
    HealthWatch health(st);
    const long frames = static_cast<long>(N) / kFrame;
    const long changeFrame = a.echoChangeAt >= 0 ? std::lround(a.echoChangeAt * 100.0) : -1;
    std::vector<float> mic(N), send(N), played(N), echo(N), nearMic(N);
    for (size_t i = 0; i < N; ++i) nearMic[i] = near[i] + noise[i];
    Progress bar(frames, !a.quiet && T > 10.0);
    std::ostringstream csv;
    csv << "frame,time_s,far_db,near_db,echo_db,mic_db,out_db,played_db,erle_db,far_active,near_active,"
           "double_talk,tone_alarm_db,epc_db,adapt_time\n";
    std::vector<char> nearActive(static_cast<size_t>(frames));
    std::vector<double> pFar(static_cast<size_t>(frames)), pNear(static_cast<size_t>(frames)),
        pEcho(static_cast<size_t>(frames)), pOut(static_cast<size_t>(frames));
    for (long k = 0; k < frames; ++k) {
        if (k == changeFrame) loop.setPath(path2);
        const size_t o = static_cast<size_t>(k) * kFrame;
        cleared = 0;
        const kvaec::sim::FrameStats fs = loop.step(&far[o], &nearMic[o], &send[o], &played[o]);
        if (health.afterFrame(k, &played[o], &send[o], cleared) && health.events().size() <= 10) {
            const HealthEvent &e = health.events().back();
            warn(fmt("at %.2f s: %d non-finite output samples, self-test count %d; canceller reset and its settings reloaded",
                     e.timeSec, e.nonFiniteOut, e.bistCount));
        }
        std::copy(loop.lastEcho(), loop.lastEcho() + kFrame, &echo[o]);
        std::copy(loop.lastMic(), loop.lastMic() + kFrame, &mic[o]);
        const double nearDb = powerDb(&near[o], kFrame);
        nearActive[static_cast<size_t>(k)] = nearDb > -60.0;
        const double outDb = powerDb(&send[o], kFrame);
        pFar[static_cast<size_t>(k)] = std::pow(10.0, fs.farDb / 10.0);
        pNear[static_cast<size_t>(k)] = std::pow(10.0, nearDb / 10.0);
        pEcho[static_cast<size_t>(k)] = std::pow(10.0, fs.echoDb / 10.0);
        pOut[static_cast<size_t>(k)] = std::pow(10.0, outDb / 10.0);
        csv << fmt("%ld,%.2f,%.2f,%.2f,%.2f,%.2f,%.2f,%.2f,%.2f,%d,%d,%d,%.2f,%.2f,%.1f\n", k, static_cast<double>(k) * 0.01,
                   fs.farDb, nearDb, fs.echoDb, fs.micDb, outDb, powerDb(&played[o], kFrame), fs.echoDb - outDb,
                   fs.farActive ? 1 : 0, nearActive[static_cast<size_t>(k)] ? 1 : 0, fs.doubleTalk,
                   static_cast<double>(fs.tdAlarmDb), static_cast<double>(fs.epcDb), static_cast<double>(fs.adaptTime));
        bar.update(k + 1);
    }
    bar.finish();

    outs.writeWav(oMic, mic, kRate);
    outs.writeWav(oSend, send, kRate);
    outs.writeWav(oPlayed, played, kRate);
    outs.writeWav(oEcho, echo, kRate);
    outs.writeWav(oFar, far, kRate);
    outs.writeWav(oNear, nearMic, kRate);
    outs.writeText(oCsv, csv.str());
    outs.commit();

    // ---- figures ----
    const auto &h = loop.history();
    std::printf("far end:          %s\n", farSrc.c_str());
    std::printf("near end:         %s%s\n", nearSrc.c_str(), noiseKind.empty() ? "" : fmt(", %s noise at %.0f dB SNR", noiseKind.c_str(), a.snrDb).c_str());
    std::printf("echo path:        %s; latency %.1f ms; ERL %s%s\n", pathSrc.c_str(), 1000.0 * static_cast<double>(lat) / kRate,
                (a.rir.empty() || a.erlGiven) ? fmt("%.1f dB", a.erlDb).c_str() : "as in the file",
                a.nonlinear > 0 ? fmt("; loudspeaker drive %.2f", a.nonlinear).c_str() : "");
    std::printf("echo delay:       %ld samples from the receive output to the echo's first arrival (the "
                "canceller needs %d)\n", echoDelay, KVAEC_ECHO_MIN_DELAY);
    std::printf("duration:         %.2f s (%ld frames)\n", static_cast<double>(N) / kRate, frames);
    std::printf("ERLE over time (far end active, no near talker%s):\n",
                health.events().empty() ? "" : "; frames around a reset left out");
    // Frames around a reset only measure the fault: the figures leave them out.
    const auto usable = [&](long k) { return !health.nearReset(k); };
    const long seg = 200;
    for (long k0 = 0; k0 < frames; k0 += seg) {
        double e = 0, r = 0;
        long used = 0;
        for (long k = k0; k < std::min(frames, k0 + seg); ++k)
            if (h[static_cast<size_t>(k)].farActive && !nearActive[static_cast<size_t>(k)] && usable(k)) {
                e += pEcho[static_cast<size_t>(k)];
                r += pOut[static_cast<size_t>(k)];
                ++used;
            }
        if (used >= 20 && std::isfinite(sumDb(e, r)))
            std::printf("  %5.1f-%5.1f s: %6.1f dB\n", static_cast<double>(k0) / 100, static_cast<double>(std::min(frames, k0 + seg)) / 100, sumDb(e, r));
        else
            std::printf("  %5.1f-%5.1f s:    n/a (%s)\n", static_cast<double>(k0) / 100, static_cast<double>(std::min(frames, k0 + seg)) / 100,
                        "too few far-end-only frames");
    }
    double fe = 0, fo = 0, ne = 0, no = 0, ee = 0, eo = 0;
    long dtFrames = 0, dtFlagged = 0;
    for (long k = 0; k < frames; ++k) {
        const size_t i = static_cast<size_t>(k);
        if (!usable(k)) continue;
        if (h[i].farActive && !nearActive[i]) {
            fe += pFar[i];
            fo += pOut[i];
            ee += pEcho[i];
            eo += pOut[i];
        }
        if (h[i].farActive && nearActive[i]) {
            ne += pNear[i];
            no += pOut[i];
            ++dtFrames;
            dtFlagged += h[i].doubleTalk ? 1 : 0;
        }
    }
    std::printf("ERLE, whole run:  %s\n", dbText(sumDb(ee, eo)).c_str());
    std::printf("total echo loss:  %s (far-end input over send output, far end alone)\n", dbText(sumDb(fe, fo)).c_str());
    if (dtFrames > 0)
        std::printf("double talk:      %s attenuation of the near talker (near-end level over send level); "
                    "flagged in %.0f %% of %ld frames\n", dbText(sumDb(ne, no)).c_str(), 100.0 * static_cast<double>(dtFlagged) / static_cast<double>(dtFrames), dtFrames);
    else
        std::printf("double talk:      n/a (no frame with both talkers)\n");
    std::printf("%s\n", health.summary().c_str());

    if (a.noPlot) {
        std::printf("plot:             skipped (--no-plot)\n");
    } else {
        const std::string why = runPlot(d + "frames.csv", d + "plot.png");
        if (why.empty())
            std::printf("plot:             %splot.png\n", d.c_str());
        else
            std::printf("plot:             skipped: %s\n", why.c_str());
    }
    std::printf("wrote:            %smic.wav send.wav played.wav echo.wav far.wav near.wav frames.csv\n", d.c_str());
    return 0;
}

}  // namespace kvaec::tool
