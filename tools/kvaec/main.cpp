// kvaec: command-line front end of libkvaec.
//   kvaec process   offline echo cancellation of recordings
//   kvaec simulate  the canceller in a simulated closed loop
#include <CLI/CLI.hpp>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "audio_io.h"
#include "commands.h"

using namespace kvaec::tool;

namespace {

// Options shared by both commands: the configuration record, the mode bits
// and the NLP value, under the library's own names.
void addCanceller(CLI::App *c, Settings &s, bool process) {
    // Ranges are checked by the library (kvaec_cfg_check) before any work,
    // so that every host refuses the same values with the same reason.
    const AEC_tCfg d = s.cfg;  // what the command uses when nothing is said
    auto num = [](double v) { return fmt("%g", v); };
    // Defined before the field options: CLI11 applies options in the order
    // they are defined, so a field given on the command line overrides the
    // preset's value.
    c->add_option_function<std::string>(
         "--preset",
         [&s](const std::string &p) { s.cfg = p == "full-duplex" ? kvaec_full_duplex_cfg : AEC_DefaultCfg; },
         "configuration the field options start from: 'default' (AEC_DefaultCfg) or 'full-duplex' "
         "(kvaec_full_duplex_cfg: keeps the near-end talker in double talk; see docs/tuning.md). "
         "Default: " + std::string(presetName(s.cfg)))
        ->check(CLI::IsMember({"default", "full-duplex"}))
        ->group("Configuration (AEC_tCfg)");
    c->add_option("--erl-init-db,--fErlInitDb", s.cfg.fErlInitDb,
                  "fErlInitDb, dB, -40..10: initial per-strip echo-path gain, also the ERL floor (default " + num(d.fErlInitDb) + ")")
        ->group("Configuration (AEC_tCfg)");
    c->add_option("--nlp-att-max-db,--fNlpAttMaxDb", s.cfg.fNlpAttMaxDb,
                  "fNlpAttMaxDb, dB, 0..80: upper NLP attenuation level (default " + num(d.fNlpAttMaxDb) + ")")
        ->group("Configuration (AEC_tCfg)");
    c->add_option("--nlp-att-min-db,--fNlpAttMinDb", s.cfg.fNlpAttMinDb,
                  "fNlpAttMinDb, dB, 0..fNlpAttMaxDb: lower NLP attenuation level (default " + num(d.fNlpAttMinDb) + ")")
        ->group("Configuration (AEC_tCfg)");
    c->add_option("--dtd-margin-db,--fDtdMarginDb", s.cfg.fDtdMarginDb,
                  "fDtdMarginDb, dB, 0..20: double-talk and NLP margin (default " + num(d.fDtdMarginDb) + ")")
        ->group("Configuration (AEC_tCfg)");
    c->add_option("--level-floor-db,--fLevelFloorDb", s.cfg.fLevelFloorDb,
                  "fLevelFloorDb, dB, -120..-50: level below which a signal counts as absent (default " + num(d.fLevelFloorDb) + ")")
        ->group("Configuration (AEC_tCfg)");
    c->add_option("--nr-level,--fNrLevelDb", s.cfg.fNrLevelDb,
                  "fNrLevelDb, 0..1: noise-reduction strength, 0 = off, 1 = strongest (default " + num(d.fNrLevelDb) + ")")
        ->group("Configuration (AEC_tCfg)");
    c->add_option("--rin-level-ref-db,--fRinLevelRefDb", s.cfg.fRinLevelRefDb,
                  "fRinLevelRefDb, dB, -20..150: receive-level reference (default " + num(d.fRinLevelRefDb) + ")")
        ->group("Configuration (AEC_tCfg)");
    c->add_option("--profile,--iProfile", s.cfg.iProfile,
                  "iProfile, integer 0..6: acoustic profile, 0 none, 1..4 equalizer curves, 5/6 echo tail rules (default " +
                      std::to_string(d.iProfile) + ")")
        ->group("Configuration (AEC_tCfg)");
    auto bit = [&](const char *name, unsigned v, const std::string &text) {
        c->add_flag_callback(name, [&s, v] { s.mode |= v; }, text)->group("Mode bits (aecx_control)");
    };
    bit("--bypass", KVAEC_MODE_BYPASS, "KVAEC_MODE_BYPASS 0x10: frames only pass the corrections and filter banks");
    bit("--freeze", KVAEC_MODE_FREEZE, "KVAEC_MODE_FREEZE 0x20: both adaptive filters keep their coefficients");
    bit("--send-only-loss", KVAEC_MODE_SEND_ONLY_LOSS,
        process ? "KVAEC_MODE_SEND_ONLY_LOSS 0x40: all NLP loss on the send path (always set by 'process': the "
                  "recorded echo was made from the unprocessed far end)"
                : "KVAEC_MODE_SEND_ONLY_LOSS 0x40: all NLP loss on the send path, none on the receive path");
    bit("--no-nlp", KVAEC_MODE_NO_NLP, "KVAEC_MODE_NO_NLP 0x100: no residual suppression and no comfort noise");
    bit("--no-nr", KVAEC_MODE_NO_NR, "KVAEC_MODE_NO_NR 0x200: the noise-reduction chain is skipped");
    bit("--no-hipass", KVAEC_MODE_NO_HIPASS, "KVAEC_MODE_NO_HIPASS 0x400: no send high-pass (comfort noise from strip 0)");
    bit("--loopback", KVAEC_MODE_LOOPBACK, "KVAEC_MODE_LOOPBACK 0x2000: the send frame is replaced by the delayed, attenuated receive signal");
    c->add_option_function<float>(
         "--nlp-param,--fNlpParam",
         [&s](const float &v) {
             s.nlpParam = v;
             s.nlpParamSet = true;
         },
         "fNlpParam, dB: NLP value stored with KVAEC_CMD_SET_NLP_PARAM (enters the echo-loss estimate; default 0)")
        ->group("Mode bits (aecx_control)");
    c->add_flag_callback("--no-eq", [&s] { s.applyEq = false; },
                         "do not run aecx_spkeq/aecx_miceq around the canceller (they act for profiles 1..4 only)");
}

// --channel N: a channel number counted from 1, with a message that says so.
const CLI::Validator kChannel(
    [](std::string &v) -> std::string {
        char *end = nullptr;
        errno = 0;
        const long n = std::strtol(v.c_str(), &end, 10);
        if (v.empty() || *end != '\0' || errno != 0 || n < 1 || n > 65535)
            return "a channel number counted from 1 (1 = the first channel) is needed, not '" + v + "'";
        return {};
    },
    "N >= 1");

// A finite number within [lo, hi] (CLI::Range lets NaN through).
CLI::Validator finiteRange(double lo, double hi) {
    return CLI::Validator(
        [lo, hi](std::string &v) -> std::string {
            char *end = nullptr;
            const double x = std::strtod(v.c_str(), &end);
            if (v.empty() || *end != '\0' || !std::isfinite(x) || x < lo || x > hi)
                return "a finite number from " + fmt("%g", lo) + " to " + fmt("%g", hi) + " is needed, not '" + v + "'";
            return {};
        },
        fmt("%g..%g", lo, hi));
}

}  // namespace

int main(int argc, char **argv) {
    installInterruptHandler();
    CLI::App app{"kvaec - command-line front end of libkvaec, the sub-band acoustic echo canceller (16 kHz, 10 ms frames)"};
    app.require_subcommand(1);
    app.set_version_flag("--version", fmt("kvaec %d.%d.%d", KVAEC_VERSION_MAJOR, KVAEC_VERSION_MINOR, KVAEC_VERSION_PATCH));

    ProcessArgs pa;
    CLI::App *proc = app.add_subcommand("process", "cancel the echo in a microphone recording made while the far-end recording played");
    proc->add_option("--far", pa.far, "far-end (loudspeaker) recording")->required();
    proc->add_option("--mic", pa.mic, "microphone recording")->required();
    proc->add_option("-o,--out", pa.out, "output: the send signal, aligned with the microphone recording (missing directories are created)")->required();
    proc->add_option("--far-out", pa.farOut, "also write the receive output (what the library would play), aligned with FAR");
    proc->add_option("--delay", pa.delay,
                     "delay of the echo behind the far end: 'auto' (followed over the whole recording: offset, "
                     "clock drift and jumps) or milliseconds (one constant delay)")
        ->capture_default_str();
    proc->add_option("--report", pa.report, "write the delay track, the echo figures and the verdict as JSON");
    proc->add_option("--frames", pa.frames, "write per-frame levels, echo reduction, double-talk flag and delay as CSV");
    proc->add_option("--plot", pa.plot, "draw the per-frame figures of --frames into a PNG (needs python3-matplotlib)");
    proc->add_option("--delay-margin", pa.delayMarginMs, fmt("ms of margin beyond the least delay the canceller needs between its receive output and the echo "
                         "(KVAEC_ECHO_MIN_DELAY, %d samples = %.1f ms)", KVAEC_ECHO_MIN_DELAY,
                         1000.0 * KVAEC_ECHO_MIN_DELAY / KVAEC_SAMPLE_RATE))
        ->check(finiteRange(0.0, 50.0))
        ->capture_default_str();
    proc->add_option("--max-delay", pa.maxDelayMs,
                     "ms, largest offset searched either way (the microphone may lag the far end or start after it)")
        ->check(finiteRange(1.0, 30000.0))
        ->capture_default_str();
    proc->add_option("--channel", pa.channel, "channel (1-based) of both inputs: --far-channel and --mic-channel at once")
        ->check(kChannel);
    proc->add_option("--far-channel", pa.farChannel, "channel (1-based) of the far-end file (default: its channels mixed)")
        ->check(kChannel);
    proc->add_option("--mic-channel", pa.micChannel,
                     "channel (1-based) of the microphone file to clean; the others pass through (default: 1)")
        ->check(kChannel);
    proc->add_option_function<std::string>(
         "--at-break", [&pa](const std::string &v) { pa.resetAtBreak = v == "reset"; },
         "where the delay jumps: 'keep' the adaptive filters (default; the compensation keeps the echo path) or "
         "'reset' the canceller")
        ->check(CLI::IsMember({"keep", "reset"}));
    proc->add_flag("--no-resample", pa.noResample, "fail instead of resampling inputs that are not at 16 kHz");
    proc->add_flag("--pcm16", pa.pcm16, "write 16-bit PCM WAV instead of the microphone file's format");
    proc->add_flag("-q,--quiet", pa.quiet, "no progress display");
    // Both commands start from the full-duplex preset: measured with the
    // double-talk category evaluation it reaches type 1 where the defaults
    // reach 2a, live and with all loss on the send path (docs/tuning.md).
    pa.settings.cfg = kvaec_full_duplex_cfg;
    addCanceller(proc, pa.settings, true);

    SimulateArgs sa;
    CLI::App *sim = app.add_subcommand("simulate", "run the canceller in a simulated closed loop (echo made from what the library played)");
    sim->add_option("-o,--out-dir", sa.dir, "output directory (created with its parents if missing)")->capture_default_str();
    sim->add_option("--far", sa.far, "far-end signal (default: speech by espeak-ng, else a built-in speech-like signal)");
    sim->add_option("--near", sa.near, "near-end signal at the microphone (default: a talker during the double-talk part)");
    sim->add_option("--rir", sa.rir, "loudspeaker-to-microphone impulse response (WAV) instead of the room model");
    sim->add_option("--room", sa.room, "room size WxDxH, m (default 4x5x2.7)");
    sim->add_option("--rt60", sa.rt60, "reverberation time, s")->capture_default_str();
    sim->add_option("--mic-pos", sa.micPos, "microphone position X,Y,Z, m (default 2,2,1.2)");
    sim->add_option("--spk-pos", sa.spkPos, "loudspeaker position X,Y,Z, m (default 2.3,2.1,1.2)");
    sim->add_option("--latency", sa.latencyMs, fmt("playback latency before the echo path, ms (at least 10; below %.1f ms minus the flight time the echo "
                         "comes sooner than the canceller needs, and a warning says so)",
                         1000.0 * KVAEC_ECHO_MIN_DELAY / KVAEC_SAMPLE_RATE))->capture_default_str();
    sim->add_option("--noise", sa.noise, "microphone noise: white, pink, babble or a WAV file");
    sim->add_option_function<double>(
        "--snr", [&sa](const double &v) { sa.snrDb = v; sa.snrGiven = true; },
        "noise level below the near-end talker's level (-30 dBFS), dB (default 30)");
    sim->add_option_function<double>(
        "--erl", [&sa](const double &v) { sa.erlDb = v; sa.erlGiven = true; },
        "echo return loss of the path for white noise, dB (default 10; with --rir only when given)");
    sim->add_option("--echo-change-at", sa.echoChangeAt, "time of an echo-path change, s (microphone moved by 25 cm)");
    sim->add_option("--nonlinear", sa.nonlinear, "loudspeaker drive: played x becomes tanh(DRIVE x)/DRIVE (0 = linear)")
        ->check(finiteRange(0.0, 100.0));
    sim->add_option_function<double>(
        "--duration", [&sa](const double &v) { sa.duration = v; sa.durationGiven = true; },
        "length, s (default 20, or the length of --far)");
    sim->add_option("--seed", sa.seed, "seed of the generated signals")->capture_default_str();
    sim->add_option("--channel", sa.channel, "channel to use (1-based) of multi-channel inputs")->check(kChannel);
    sim->add_flag("--no-resample", sa.noResample, "fail instead of resampling inputs that are not at 16 kHz");
    sim->add_flag("--no-plot", sa.noPlot, "do not draw plot.png");
    sim->add_flag("--no-espeak", sa.noEspeak, "use the built-in speech-like signal even when espeak-ng is installed");
    sim->add_flag("-q,--quiet", sa.quiet, "no progress bar");
    sa.settings.cfg = kvaec_full_duplex_cfg;
    addCanceller(sim, sa.settings, false);

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp &e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp &e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion &e) {
        return app.exit(e);
    } catch (const CLI::ParseError &e) {
        std::fprintf(stderr, "kvaec: error: %s\nRun 'kvaec --help' or 'kvaec %s --help' for the options.\n", e.what(),
                     proc->parsed() ? "process" : sim->parsed() ? "simulate" : "COMMAND");
        return 2;
    }
    try {
        if (proc->parsed()) return runProcess(pa);
        return runSimulate(sa);
    } catch (const ToolError &e) {
        std::fprintf(stderr, "kvaec: error: %s\n", e.what());
        return 1;
    } catch (const std::exception &e) {
        std::fprintf(stderr, "kvaec: error: %s\n", e.what());
        return 1;
    }
}
