#!/usr/bin/python3
"""Runs every engine on every scenario, computes the metrics and writes the
report (Markdown with PNG plots).

Usage: evaluate.py --driver PATH --work DIR [--short] [--report FILE --img DIR]
                   [--jobs N]
       evaluate.py --driver PATH --work DIR --sweep FILE [--jobs N]

--sweep runs libkvaec alone over a grid of fNlpAttMaxDb x fDtdMarginDb on the
scenarios that show echo loss, double talk and an echo-path change, and
writes the table between the sweep markers of FILE (docs/tuning.md).

Without --report the report goes to WORK/evaluation.md and its plots to
WORK/img. The short run (--short) also checks that the metric code still
measures: the pass-through reference must show no echo reduction, and the
numbers must be finite where they have to be; it exits non-zero otherwise.
"""
import argparse
import concurrent.futures as cf
import datetime
import math
import os
import platform
import subprocess
import sys

import numpy as np

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import metrics  # noqa: E402

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)

ENGINE_LABEL = {
    "kvaec": "libkvaec",
    "kvaec_fd": "libkvaec full-duplex preset",
    "kvaec_sendonly": "libkvaec send-only loss",
    "speex": "SpeexDSP AEC",
    "speex_pp": "SpeexDSP AEC + preprocess",
    "webrtc": "WebRTC AEC",
    "webrtc_ns": "WebRTC AEC + NS",
    "passthrough": "no processing",
}
COLORS = {"kvaec": "C3", "kvaec_fd": "C4", "kvaec_sendonly": "C1", "speex": "C0", "speex_pp": "C9",
          "webrtc": "C2", "webrtc_ns": "C8", "passthrough": "0.6"}


def read_kv(path):
    d = {}
    with open(path) as f:
        for line in f:
            if "=" in line:
                k, v = line.rstrip("\n").split("=", 1)
                d[k] = v
    return d


def load_f32(path):
    return np.fromfile(path, dtype=np.float32)


def run_driver(driver, sdir, engine, odir):
    os.makedirs(odir, exist_ok=True)
    p = subprocess.run([driver, sdir, engine, odir], capture_output=True, text=True)
    if p.returncode != 0:
        raise RuntimeError("%s on %s failed: %s" % (engine, sdir, p.stderr))
    return engine, sdir


def fmt(x, nd=1, unit=""):
    if x is None or (isinstance(x, float) and math.isnan(x)):
        return "n/a"
    return ("%." + str(nd) + "f%s") % (x, unit)


def fmt_t(x):
    return "never" if x is None or math.isnan(x) else "%.2f s" % x


def machine():
    cpu = "unknown CPU"
    try:
        with open("/proc/cpuinfo") as f:
            for line in f:
                if line.startswith("model name"):
                    cpu = line.split(":", 1)[1].strip()
                    break
    except OSError:
        pass
    return "%s, %s %s, %d logical CPUs" % (cpu, platform.system(), platform.release(), os.cpu_count() or 0)


def commit():
    try:
        h = subprocess.run(["git", "-C", ROOT, "rev-parse", "--short", "HEAD"], capture_output=True,
                           text=True).stdout.strip()
        dirty = subprocess.run(["git", "-C", ROOT, "status", "--porcelain", "--untracked-files=no"],
                               capture_output=True, text=True).stdout.strip()
        return h + (" with uncommitted changes" if dirty else "") if h else "unknown"
    except OSError:
        return "unknown"


def pkg_version(p):
    try:
        return subprocess.run(["dpkg-query", "-W", "-f=${Version}", p], capture_output=True,
                              text=True).stdout.strip() or "?"
    except OSError:
        return "?"


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--driver", required=True)
    ap.add_argument("--work", required=True)
    ap.add_argument("--short", action="store_true")
    ap.add_argument("--report")
    ap.add_argument("--img")
    ap.add_argument("--jobs", type=int, default=2)
    ap.add_argument("--command", default="scripts/evaluate")
    ap.add_argument("--sweep", metavar="FILE",
                    help="run the fNlpAttMaxDb x fDtdMarginDb sweep and write its table into FILE")
    ap.add_argument("--reuse", action="store_true",
                    help="keep the scenarios and runs already in the work directory (report only)")
    args = ap.parse_args()

    work = os.path.abspath(args.work)
    sdir = os.path.join(work, "scenarios")
    rdir = os.path.join(work, "runs")
    report = args.report or os.path.join(work, "evaluation.md")
    img = args.img or os.path.join(work, "img")
    os.makedirs(img, exist_ok=True)

    if args.sweep:
        return run_sweep(args, work, sdir)

    t_start = datetime.datetime.now(datetime.timezone.utc)
    gen = [sys.executable, os.path.join(HERE, "make_scenarios.py"), sdir] + (["--short"] if args.short else [])
    if not (args.reuse and os.path.isdir(sdir)):
        subprocess.run(gen, check=True)
    scen = sorted(os.listdir(sdir))
    order = ["far_single", "double_talk", "path_change", "tones", "near_only", "silence"]
    scen = [s for s in order if s in scen]
    engines = subprocess.run([args.driver, "--list"], capture_output=True, text=True,
                             check=True).stdout.split()

    jobs = [(s, e) for s in scen for e in engines
            if not (args.reuse and os.path.exists(os.path.join(rdir, s, e, "stats.txt")))]
    with cf.ThreadPoolExecutor(max_workers=args.jobs) as ex:
        futs = [ex.submit(run_driver, args.driver, os.path.join(sdir, s), e, os.path.join(rdir, s, e))
                for s, e in jobs]
        for f in cf.as_completed(futs):
            f.result()

    # Scenario signals and per-run results.
    metas = {s: read_kv(os.path.join(sdir, s, "meta.txt")) for s in scen}
    sigs = {s: {k: load_f32(os.path.join(sdir, s, k + ".f32")) for k in ("far", "nearmic", "noise")}
            for s in scen}

    # Send delay of each engine, measured on a scenario with a near-end talker.
    delay_scen = "near_only" if "near_only" in scen else "double_talk"
    args.delay_scen = delay_scen
    # A weak correlation peak (the engine removed most of the near-end) falls
    # back to the engine's nominal delay.
    delays, delay_note = {}, {}
    for e in engines:
        d = os.path.join(rdir, delay_scen, e)
        lag, peak = metrics.measure_delay(sigs[delay_scen]["nearmic"], load_f32(os.path.join(d, "send.f32")))
        if peak >= 0.5:
            delays[e] = lag
            delay_note[e] = "%d (correlation %.2f)" % (lag, peak)
        else:
            delays[e] = int(read_kv(os.path.join(d, "stats.txt"))["send_delay"])
            delay_note[e] = "%d (correlation only %.2f): nominal %d used" % (lag, peak, delays[e])

    res, stats, runs = {}, {}, {}
    for s in scen:
        for e in engines:
            d = os.path.join(rdir, s, e)
            st = read_kv(os.path.join(d, "stats.txt"))
            st["measured_delay"] = delays[e]
            sig = {k: load_f32(os.path.join(d, k + ".f32")) for k in ("played", "echo", "mic", "send")}
            run = metrics.Run(sigs[s], sig, st)
            res[(s, e)] = metrics.scenario_metrics(s, metas[s], run)
            stats[(s, e)] = st
            runs[(s, e)] = run

    plots = make_plots(scen, engines, metas, res, runs, img)
    elapsed = (datetime.datetime.now(datetime.timezone.utc) - t_start).total_seconds()
    text = write_report(args, scen, engines, metas, res, stats, runs, delay_note, plots, report, img, t_start,
                        elapsed)
    with open(report, "w") as f:
        f.write(text)
    print("report written to %s (%.0f s)" % (report, elapsed))

    if args.short:
        return check_short(scen, engines, res, stats)
    return 0


# Scenarios without tones: libkvaec's tone alarm must never reach 20 dB in them.
SPEECH_ONLY = ("far_single", "double_talk", "path_change", "near_only", "silence")


def check_short(scen, engines, res, stats):
    """Sanity of the measurement chain on the short run."""
    bad = []
    for sc in scen:
        st = stats.get((sc, "kvaec"), {})
        if sc in SPEECH_ONLY and int(st.get("tone_alarm_frames", "0")) != 0:
            bad.append("%s/kvaec: tone alarm at or above 20 dB in %s frames of speech"
                       % (sc, st["tone_alarm_frames"]))
    s = "far_single"
    if "passthrough" in engines and s in scen:
        v = res[(s, "passthrough")]["erle_steady"]
        # The reference sends the microphone: echo + noise. With the noise
        # 36 dB under the echo its ERLE is about -0.0 dB.
        if not (-0.5 < v <= 0.05):
            bad.append("pass-through ERLE %.2f dB, expected about 0" % v)
        att = res[("double_talk", "passthrough")]["dt_near_att"] if "double_talk" in scen else 0.0
        if not (abs(att) < 0.5):
            bad.append("pass-through near-end attenuation %.2f dB, expected about 0" % att)
    for (sc, e), r in res.items():
        for k in ("erle_steady", "echo_loss"):
            if k in r and not np.isfinite(r[k]):
                bad.append("%s/%s: %s not finite" % (sc, e, k))
        if float(stats[(sc, e)]["cpu_us_mean"]) <= 0:
            bad.append("%s/%s: no CPU time measured" % (sc, e))
    for b in bad:
        print("CHECK FAILED:", b, file=sys.stderr)
    return 1 if bad else 0


# ---------------------------------------------------------------- tuning sweep

SWEEP_ATT = (45.0, 50.0, 55.0)
SWEEP_DTD = (3.0, 4.5, 6.0)
# Beyond the grid: higher aims, to find where single talk reaches 46 dB.
SWEEP_EXTRA = ((60.0, 4.5), (60.0, 6.0), (65.0, 4.5), (65.0, 6.0))
SWEEP_SCEN = ("far_single", "far_quiet", "double_talk", "path_change", "near_only")
# The quiet variant of far-end single talk: the same signals and room with the
# microphone noise 20 dB lower (pink, -90 dBFS), so that the send output's
# residual echo, not the noise, sets the total echo loss (an echo-loss
# requirement is measured in quiet conditions).
QUIET_NOISE_DB = -20.0
SWEEP_BEGIN = "<!-- sweep table: written by scripts/evaluate --sweep -->"
SWEEP_END = "<!-- end of sweep table -->"


def sweep_engine(att, dtd):
    return "kvaec:att=%g,dtd=%g" % (att, dtd)


def make_quiet(sdir, qdir):
    """far_quiet: far_single with its noise lowered by QUIET_NOISE_DB."""
    src, dst = os.path.join(sdir, "far_single"), os.path.join(qdir, "far_quiet")
    os.makedirs(dst, exist_ok=True)
    for f in os.listdir(src):
        x = open(os.path.join(src, f), "rb").read()
        if f == "noise.f32":
            x = (np.frombuffer(x, dtype=np.float32) * np.float32(10 ** (QUIET_NOISE_DB / 20))).tobytes()
        elif f == "meta.txt":
            m = read_kv(os.path.join(src, f))
            m["name"] = "far_quiet"
            m["title"] = m["title"] + ", quiet"
            m["noise_db"] = "%g" % (float(m["noise_db"]) + QUIET_NOISE_DB)
            x = "".join("%s=%s\n" % kv for kv in m.items()).encode()
        with open(os.path.join(dst, f), "wb") as g:
            g.write(x)


def run_sweep(args, work, sdir):
    """libkvaec over fNlpAttMaxDb x fDtdMarginDb; writes a Markdown table
    between SWEEP_BEGIN and SWEEP_END of args.sweep."""
    t_start = datetime.datetime.now(datetime.timezone.utc)
    if not os.path.isdir(sdir):
        subprocess.run([sys.executable, os.path.join(HERE, "make_scenarios.py"), sdir], check=True)
    make_quiet(sdir, os.path.join(work, "sweep_scenarios"))
    dirs = {s: os.path.join(sdir, s) for s in SWEEP_SCEN}
    dirs["far_quiet"] = os.path.join(work, "sweep_scenarios", "far_quiet")
    scen = [s for s in SWEEP_SCEN if os.path.isdir(dirs[s])]
    if len(scen) != len(SWEEP_SCEN):
        print("sweep: scenarios missing in %s" % sdir, file=sys.stderr)
        return 1
    rdir = os.path.join(work, "sweep")
    grid = [(a, d) for a in SWEEP_ATT for d in SWEEP_DTD] + list(SWEEP_EXTRA)
    jobs = []
    for a, d in grid:
        e = sweep_engine(a, d)
        for s in scen:
            jobs.append((s, e, os.path.join(rdir, s, "att%g_dtd%g" % (a, d))))
    with cf.ThreadPoolExecutor(max_workers=args.jobs) as ex:
        futs = [ex.submit(run_driver, args.driver, dirs[s], e, o) for s, e, o in jobs]
        for f in cf.as_completed(futs):
            f.result()
    metas = {s: read_kv(os.path.join(dirs[s], "meta.txt")) for s in scen}
    sigs = {s: {k: load_f32(os.path.join(dirs[s], k + ".f32")) for k in ("far", "nearmic", "noise")}
            for s in scen}
    rows = []
    for a, d in grid:
        r = {}
        # Send delay measured on the near-end-only run as in the main report
        # (nominal delay when the correlation is weak).
        o = os.path.join(rdir, "near_only", "att%g_dtd%g" % (a, d))
        lag, peak = metrics.measure_delay(sigs["near_only"]["nearmic"], load_f32(os.path.join(o, "send.f32")))
        for s in scen:
            o = os.path.join(rdir, s, "att%g_dtd%g" % (a, d))
            st = read_kv(os.path.join(o, "stats.txt"))
            if peak >= 0.5:
                st["measured_delay"] = lag
            sig = {k: load_f32(os.path.join(o, k + ".f32")) for k in ("played", "echo", "mic", "send")}
            r[s] = metrics.scenario_metrics(s, metas[s], metrics.Run(sigs[s], sig, st))
        default = (a == 45.0 and d == 4.5)
        rows.append(["%g" % a, "%g" % d + (" (defaults)" if default else ""),
                     fmt(r["far_quiet"]["echo_loss"], 1, " dB"),
                     fmt(r["far_single"]["echo_loss"], 1, " dB"),
                     fmt(r["double_talk"]["echo_loss"], 1, " dB"),
                     fmt(r["double_talk"]["dt_near_att"], 1, " dB"),
                     fmt(r["double_talk"]["dt_sdr"], 1, " dB"),
                     fmt(r["path_change"]["epc_min_erle"], 1, " dB"),
                     fmt(r["path_change"]["epc_loss_2s"], 1, " dB"),
                     fmt_t(r["path_change"]["epc_recovery"]),
                     fmt(r["path_change"]["erle_after"], 1, " dB"),
                     fmt(r["near_only"]["no_near_att"], 1, " dB")])
    elapsed = (datetime.datetime.now(datetime.timezone.utc) - t_start).total_seconds()
    L = [SWEEP_BEGIN, "",
         "Measured by `scripts/evaluate --sweep` on %s UTC (commit %s; %.0f s): libkvaec alone, default "
         "configuration except the two fields, on the evaluation's scenarios (see "
         "[evaluation.md](evaluation.md) for the scenarios and the metrics)." %
         (t_start.strftime("%Y-%m-%d %H:%M"), commit(), elapsed), "",
         table(["fNlpAttMaxDb", "fDtdMarginDb", "total echo loss, far-end single talk, quiet (noise -90 dBFS)",
                "total echo loss, far-end single talk (noise -70 dBFS)",
                "total echo loss, single talk before the double talk (babble -60 dBFS)",
                "double talk: near-end attenuation", "double talk: SDR",
                "path change: lowest ERLE within 2 s", "path change: total echo loss within 2 s",
                "path change: recovery", "ERLE 10-18 s after the change",
                "near-end only: attenuation"], rows).rstrip("\n"),
         "", SWEEP_END]
    block = "\n".join(L)
    text = open(args.sweep).read() if os.path.exists(args.sweep) else ""
    if SWEEP_BEGIN in text and SWEEP_END in text:
        i = text.index(SWEEP_BEGIN)
        j = text.index(SWEEP_END) + len(SWEEP_END)
        text = text[:i] + block + text[j:]
    else:
        text = text + ("\n" if text else "") + block + "\n"
    with open(args.sweep, "w") as f:
        f.write(text)
    print(block)
    print("sweep table written to %s (%.0f s)" % (args.sweep, elapsed))
    return 0


# ---------------------------------------------------------------- plots

def make_plots(scen, engines, metas, res, runs, img):
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    out = {}
    shown = [e for e in engines if e != "passthrough"]
    for s in scen:
        if not runs[(s, engines[0])].echo_on.any():
            continue
        fig, ax = plt.subplots(figsize=(10, 4.2))
        for e in shown:
            r = runs[(s, e)]
            ax.plot(r.t, res[(s, e)]["erle_curve"], color=COLORS.get(e), lw=1.1, label=ENGINE_LABEL.get(e, e))
        m = metas[s]
        for k in ("dt_t", "tone_t"):
            if k in m:
                a, b = metrics.parse_pair(m[k])
                ax.axvspan(a, b, color="0.9", zorder=0)
        if float(m.get("change_s", -1)) >= 0:
            ax.axvline(float(m["change_s"]), color="k", ls="--", lw=0.8)
        ax.set_xlabel("time (s)")
        ax.set_ylabel("ERLE (dB), 250 ms windows")
        ax.set_title("%s: ERLE over time (far-end single-talk frames only)" % m["title"])
        ax.grid(alpha=0.3)
        ax.legend(fontsize=8, ncol=3, loc="lower right")
        ax.set_ylim(-10, 70)
        fn = "eval_erle_%s.png" % s
        fig.tight_layout()
        fig.savefig(os.path.join(img, fn), dpi=90)
        plt.close(fig)
        out["erle_" + s] = fn

    for s in ("double_talk", "tones", "path_change"):
        if s not in scen:
            continue
        fig, axes = plt.subplots(len(shown), 1, figsize=(10, 1.7 * len(shown) + 0.6), sharex=True)
        k = np.ones(5) / 5.0
        for ax, e in zip(axes, shown):
            r = runs[(s, e)]
            sm = lambda key: metrics.db(np.convolve(r.P[key], k, "same"))  # noqa: E731
            ax.plot(r.t, sm("far"), color="0.75", lw=0.7, label="far-end input")
            ax.plot(r.t, sm("played"), color="C0", lw=0.7, label="played")
            ax.plot(r.t, sm("echo"), color="C1", lw=0.7, label="echo at mic")
            if r.near_on.any():
                ax.plot(r.t, sm("near"), color="C2", lw=0.7, label="near-end at mic")
            ax.plot(r.t, sm("send"), color="C3", lw=0.8, label="send output")
            ax.set_ylim(-100, -10)
            ax.set_ylabel("dBFS")
            ax.set_title(ENGINE_LABEL.get(e, e), fontsize=9, loc="left")
            ax.grid(alpha=0.3)
        axes[0].legend(fontsize=7, ncol=5, loc="upper right")
        axes[-1].set_xlabel("time (s), levels in 50 ms windows")
        fig.suptitle("%s: levels" % metas[s]["title"])
        fig.tight_layout()
        fn = "eval_levels_%s.png" % s
        fig.savefig(os.path.join(img, fn), dpi=80)
        plt.close(fig)
        out["levels_" + s] = fn
    return out


# ---------------------------------------------------------------- report

def observations(scen, engines, res, runs):
    """Plain statements about behaviour that stands out, with the figure that
    shows it; thresholds are stated in the text."""
    out = []
    for e in engines:
        if e == "passthrough":
            continue
        lab = ENGINE_LABEL.get(e, e)
        v = res.get(("far_single", e), {}).get("erle_steady", float("nan"))
        if v < 6.0:
            out.append("%s: steady-state ERLE in far-end single talk is %s (below 6 dB)." % (lab, fmt(v, 1, " dB")))
        v = res.get(("near_only", e), {}).get("no_near_att", float("nan"))
        if v > 6.0:
            out.append("%s: attenuates the near-end talker by %s with no far-end signal at all "
                       "(near-end-only scenario; more than 6 dB)." % (lab, fmt(v, 1, " dB")))
        v = res.get(("double_talk", e), {}).get("dt_near_att", float("nan"))
        if v > 10.0:
            out.append("%s: attenuates the near-end talker by %s in double talk (more than 10 dB)."
                       % (lab, fmt(v, 1, " dB")))
    for i, a in enumerate(engines):
        for b in engines[i + 1:]:
            if all(np.array_equal(runs[(s, a)].send, runs[(s, b)].send) and
                   np.array_equal(runs[(s, a)].played, runs[(s, b)].played) for s in scen):
                out.append("%s and %s produce bit-identical send and played signals in every scenario."
                           % (ENGINE_LABEL.get(a, a), ENGINE_LABEL.get(b, b)))
    return out


def table(head, rows):
    lines = ["| " + " | ".join(head) + " |", "|" + "|".join("---" for _ in head) + "|"]
    lines += ["| " + " | ".join(r) + " |" for r in rows]
    return "\n".join(lines) + "\n"


def _header_macro(name):
    """A numeric macro of libkvaec's public header, read from the source tree."""
    import re
    with open(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "include", "kvaec.h")) as f:
        return int(re.search(r"#define %s (\d+)" % name, f.read()).group(1))


# libkvaec's least echo delay after the receive output.
KVAEC_ECHO_MIN_DELAY = _header_macro("KVAEC_ECHO_MIN_DELAY")


def echo_delay_text(m):
    if "echo_delay" not in m:
        return "-"
    d = int(m["echo_delay"])
    return "%d samples%s" % (d, "" if d >= KVAEC_ECHO_MIN_DELAY else " (below %d)" % KVAEC_ECHO_MIN_DELAY)


def write_report(args, scen, engines, metas, res, stats, runs, delay_note, plots, report, img, t_start, elapsed):
    sigs_far = {s: runs[(s, engines[0])].far for s in scen}
    rel = os.path.relpath(img, os.path.dirname(os.path.abspath(report)))
    L = []
    L.append("# Echo canceller comparison: libkvaec, SpeexDSP, WebRTC audio processing\n")
    L.append("Generated by `%s` on %s UTC (%.0f s wall time).\n" %
             (args.command, t_start.strftime("%Y-%m-%d %H:%M"), elapsed))
    L.append("- Machine: %s" % machine())
    L.append("- Commit: %s" % commit())
    L.append("- Peers (Debian packages): libspeexdsp-dev %s, libwebrtc-audio-processing-dev %s" %
             (pkg_version("libspeexdsp-dev"), pkg_version("libwebrtc-audio-processing-dev")))
    L.append("- Run: %s\n" % ("short (two scenarios, a few seconds each; a smoke test of the "
                             "evaluation, not a result)" if args.short else "full"))
    L.append("Reproduce: `scripts/evaluate` (installs the Debian packages, builds into `build-evaluate/`, "
             "runs everything and rewrites this file and `docs/img/eval_*.png`); `scripts/evaluate --short` "
             "is the smoke run CTest uses; `scripts/evaluate --sweep` runs libkvaec alone over "
             "`fNlpAttMaxDb` x `fDtdMarginDb` and writes its table into `docs/tuning.md`. "
             "To look inside libkvaec on a scenario: "
             "`build-evaluate/kvaec_eval_probe build-evaluate/full/scenarios/S/far.f32 "
             "build-evaluate/full/runs/S/passthrough/mic.f32 [MODE [STRIP]]` prints levels, double-talk frames "
             "and, for one strip, the suppression gains and the library's own level estimates per 2 s.\n")
    L.append("Every figure below is measured by this run; rerun the command to reproduce it "
             "(scenarios are deterministic; CPU times vary with the machine and its load).\n")

    L.append("## Engines\n")
    rows = []
    for e in engines:
        st = stats[(scen[0], e)]
        rows.append([ENGINE_LABEL.get(e, e), "`%s`" % e, st["describe"], st["send_delay"], delay_note[e]])
    L.append(table(["engine", "id", "configuration", "nominal send delay (samples)",
                    "measured send delay (samples; scenario `%s`)" % args.delay_scen], rows))

    L.append("## Scenarios\n")
    L.append("16 kHz, 10 ms frames, closed loop: each engine's played output goes through a "
             "soft-clipping loudspeaker (`tanh(d x)/d`) and the echo path to the microphone, where "
             "the near-end talker (through its own room path) and noise are added. Speech is "
             "espeak-ng with fixed voices and texts, rooms are a seeded image method, noise is "
             "seeded; `eval/make_scenarios.py` makes them all. Far-end talkers are at -24 dBFS "
             "active level, near-end talkers reach the microphone at -30 dBFS; noise levels are "
             "absolute.\n")
    L.append("The echo paths are cut to the energy that matters for a canceller spanning about "
             "90-120 ms: latency plus room response ends at latency + `keep` ms (10 ms fade). The "
             "column 'cut' is the share of the first 250 ms of the room response that this leaves "
             "out (so the simulated rooms have no reverberation beyond about 100 ms).\n")
    rows = []
    for s in scen:
        m = metas[s]
        # Echo over noise at the microphone in far-end single talk, with the
        # far end played unchanged (pass-through run): the ERLE an engine can
        # show without suppressing noise.
        enr = "-"
        if "passthrough" in engines and runs[(s, "passthrough")].fst.any():
            r = runs[(s, "passthrough")]
            enr = fmt(r.ratio_db("echo", "noise", r.fst), 1, " dB")
        # Loudspeaker compression at the far-end signal's peak.
        peak = float(np.max(np.abs(sigs_far[s]))) if s in sigs_far else 0.0
        d = float(m["clip_drive"])
        clip = "%.1f dB at %.1f dBFS" % (20 * np.log10(np.tanh(d * peak) / (d * peak)), 20 * np.log10(peak)) \
            if peak > 0 else "-"
        seg = []
        for k, lab in (("steady_t", "steady"), ("dt_t", "double talk"), ("tone_t", "tones 440+480 Hz"),
                       ("after_t", "after"), ("near_t", "near-end")):
            if k in m:
                seg.append("%s %s s" % (lab, m[k].replace(",", "-")))
        if float(m.get("change_s", -1)) >= 0:
            seg.append("path change at %s s" % m["change_s"])
        rows.append([m["title"], "`%s`" % s, m["seconds"] + " s", m["rt60"] + " s", m["latency_ms"] + " ms",
                     echo_delay_text(m),
                     m["keep_ms"] + " ms", m.get("cut_tail_db", "") + " dB", m["erl_db"] + " dB", clip,
                     "%s %s dBFS" % (m["noise"], m["noise_db"]), enr, m.get("far_voice", "-"),
                     m.get("near_voice", "-"), "; ".join(seg), m["seed"]])
    L.append("The column 'echo delay' is the delay from a sample of an engine's played output to the "
             "first arrival of its echo at the microphone (first tap of the path within 20 dB of the "
             "largest). libkvaec cancels only echo that arrives at least %d samples after its receive "
             "output (`KVAEC_ECHO_MIN_DELAY`, see docs/tools.md); a scenario below that is marked, "
             "as libkvaec's figures there are limited by the timing, not by the canceller.\n"
             % KVAEC_ECHO_MIN_DELAY)
    L.append(table(["scenario", "id", "length", "RT60", "latency", "echo delay", "keep", "cut", "ERL",
                    "loudspeaker compression", "noise",
                    "echo-to-noise", "far voice", "near voice", "segments", "seed"], rows))

    L.append("## Metrics\n")
    L.append(
        "- **ERLE**: echo power at the microphone over send power, over far-end single-talk frames "
        "(echo above -60 dBFS, near-end talker below -80 dBFS); the send signal is aligned by the "
        "measured send delay. Curves use 250 ms windows. Steady state: over the scenario's steady "
        "segment; the curves and the times read off them use trailing windows. The microphone noise is in the send signal too, so an engine that does not "
        "suppress noise cannot show more ERLE than the echo-to-noise ratio (column 'echo-to-noise' "
        "of the scenario table); engines with noise suppression, strong residual-echo suppression "
        "or muting can.\n"
        "- **Time to 10/20/30 dB**: from the first echo frame until the ERLE curve first reaches the level.\n"
        "- **Total echo loss**: far-end input power over send power in far-end single talk (includes "
        "the echo path's own loss and any receive-path attenuation). **Receive attenuation**: "
        "far-end input power over played power, frames with far-end signal.\n"
        "- **Double talk**: a 17-tap least-squares FIR from the clean near-end (as at the "
        "microphone) to the aligned send signal, refitted every 1 s, over near-end-active frames. "
        "Near-end attenuation = near-end power over fitted-component power; SDR = fitted component "
        "over the rest of the send signal (residual echo, noise, gain switching, distortion).\n"
        "- **Echo-path change**: lowest ERLE (250 ms windows) in the 2 s after the change, total "
        "echo loss over those 2 s, and recovery time: from the change until the ERLE curve stays "
        "within 3 dB of the pre-change steady-state ERLE for 1 s ('never' also when the ERLE before "
        "the change was below 10 dB).\n"
        "- **Tones**: ERLE, total echo loss, send level and receive attenuation during the "
        "two-tone segment; ERLE in the speech after the tones against the steady state before.\n"
        "- **CPU**: thread CPU time of the engine call per 10 ms frame (`CLOCK_THREAD_CPUTIME_ID` "
        "around the call; file I/O and the echo simulation excluded), mean over all frames of all "
        "scenarios; %d runs in parallel on the machine.\n" % args.jobs)

    def get(s, e, k):
        return res.get((s, e), {}).get(k, float("nan"))

    cpu = {}
    for e in engines:
        tot = sum(float(stats[(s, e)]["cpu_us_mean"]) * int(stats[(s, e)]["frames"]) for s in scen)
        cnt = sum(int(stats[(s, e)]["frames"]) for s in scen)
        p99 = max(float(stats[(s, e)]["cpu_us_p99"]) for s in scen)
        cpu[e] = (tot / cnt, p99)

    L.append("## Headline\n")
    rows = []
    for e in engines:
        rows.append([ENGINE_LABEL.get(e, e),
                     fmt(get("far_single", e, "erle_steady"), 1, " dB"),
                     fmt_t(get("far_single", e, "t20")),
                     fmt(get("far_single", e, "echo_loss"), 1, " dB"),
                     fmt(get("far_single", e, "rx_att_st"), 1, " dB"),
                     fmt(get("double_talk", e, "dt_near_att"), 1, " dB"),
                     fmt(get("double_talk", e, "dt_sdr"), 1, " dB"),
                     fmt(get("double_talk", e, "dt_rx_att"), 1, " dB"),
                     fmt_t(get("path_change", e, "epc_recovery")),
                     fmt(get("silence", e, "sil_out"), 1, " dBFS"),
                     "%.1f" % cpu[e][0]])
    L.append(table(["engine", "steady ERLE (far single talk)", "time to 20 dB", "total echo loss",
                    "receive attenuation", "DT near-end attenuation", "DT SDR", "DT receive attenuation",
                    "recovery after path change", "silence output", "CPU us / 10 ms frame"], rows))

    flags = observations(scen, engines, res, runs)
    if flags:
        L.append("### Observations (checked automatically on this run)\n")
        L.append("\n".join("- " + f for f in flags) + "\n")

    L.append("## Far-end single talk and convergence\n")
    rows = []
    for s in scen:
        if "steady_t" not in metas[s]:
            continue
        for e in engines:
            rows.append([metas[s]["title"], ENGINE_LABEL.get(e, e), fmt(get(s, e, "erle_steady"), 1, " dB"),
                         fmt_t(get(s, e, "t10")), fmt_t(get(s, e, "t20")), fmt_t(get(s, e, "t30")),
                         fmt(get(s, e, "echo_loss"), 1, " dB"), fmt(get(s, e, "rx_att_st"), 1, " dB"),
                         fmt(get(s, e, "erle_after"), 1, " dB")])
    L.append(table(["scenario", "engine", "steady ERLE", "to 10 dB", "to 20 dB", "to 30 dB",
                    "total echo loss", "receive att.", "ERLE in 'after' segment"], rows))
    for s in scen:
        if "erle_" + s in plots:
            L.append("![ERLE %s](%s/%s)\n" % (s, rel, plots["erle_" + s]))

    if "double_talk" in scen:
        L.append("## Double talk\n")
        rows = [[ENGINE_LABEL.get(e, e), fmt(get("double_talk", e, "dt_near_att"), 1, " dB"),
                 fmt(get("double_talk", e, "dt_sdr"), 1, " dB"),
                 fmt(get("double_talk", e, "dt_rx_att"), 1, " dB"),
                 fmt(get("double_talk", e, "dt_send_db"), 1, " dBFS"),
                 fmt(get("double_talk", e, "erle_after"), 1, " dB")] for e in engines]
        L.append(table(["engine", "near-end attenuation", "SDR", "receive attenuation in DT",
                        "send level in DT", "ERLE after DT"], rows))
        if "levels_double_talk" in plots:
            L.append("![levels double talk](%s/%s)\n" % (rel, plots["levels_double_talk"]))

    if "path_change" in scen:
        L.append("## Echo-path change\n")
        rows = [[ENGINE_LABEL.get(e, e), fmt(get("path_change", e, "erle_steady"), 1, " dB"),
                 fmt(get("path_change", e, "epc_min_erle"), 1, " dB"),
                 fmt(get("path_change", e, "epc_loss_2s"), 1, " dB"),
                 fmt_t(get("path_change", e, "epc_recovery")),
                 fmt(get("path_change", e, "erle_after"), 1, " dB")] for e in engines]
        L.append(table(["engine", "ERLE before", "lowest ERLE within 2 s", "total echo loss within 2 s",
                        "recovery (within 3 dB for 1 s)", "ERLE 10-18 s after"], rows))
        if "levels_path_change" in plots:
            L.append("![levels path change](%s/%s)\n" % (rel, plots["levels_path_change"]))

    if "tones" in scen:
        L.append("## Two tones between speech\n")
        rows = [[ENGINE_LABEL.get(e, e), fmt(get("tones", e, "erle_steady"), 1, " dB"),
                 fmt(get("tones", e, "tone_erle"), 1, " dB"), fmt(get("tones", e, "tone_echo_loss"), 1, " dB"),
                 fmt(get("tones", e, "tone_send_db"), 1, " dBFS"), fmt(get("tones", e, "tone_rx_att"), 1, " dB"),
                 fmt(get("tones", e, "erle_after"), 1, " dB")] for e in engines]
        L.append(table(["engine", "ERLE in speech before", "ERLE during tones", "total echo loss during tones",
                        "send level during tones", "receive att. during tones", "ERLE in speech after"], rows))
        if "levels_tones" in plots:
            L.append("![levels tones](%s/%s)\n" % (rel, plots["levels_tones"]))

    if "near_only" in scen or "silence" in scen:
        L.append("## Near-end only and silence\n")
        rows = [[ENGINE_LABEL.get(e, e), fmt(get("near_only", e, "no_near_att"), 1, " dB"),
                 fmt(get("near_only", e, "no_sdr"), 1, " dB"),
                 fmt(get("near_only", e, "no_noise_in"), 1, " dBFS"),
                 fmt(get("near_only", e, "no_noise_out"), 1, " dBFS"),
                 fmt(get("silence", e, "sil_in"), 1, " dBFS"),
                 fmt(get("silence", e, "sil_out"), 1, " dBFS")] for e in engines]
        L.append(table(["engine", "near-end attenuation", "SDR", "noise in (pauses)", "noise out (pauses)",
                        "silence: microphone", "silence: send output"], rows))

    alarm_rows = []
    for s in scen:
        st = stats.get((s, "kvaec"), {})
        if "tone_alarm_frames" in st:
            alarm_rows.append([metas[s]["title"], "`%s`" % s, "yes" if s in SPEECH_ONLY else "no",
                               st["tone_alarm_frames"], st["tone_alarm_max"], st.get("double_talk_frames", "-")])
    if alarm_rows:
        L.append("## libkvaec tone alarm and double-talk flag\n")
        L.append("Frames (of 10 ms) in which libkvaec's tone alarm `fTdAlarmDb` stands at or above 20 dB "
                 "(where it stops adaptation), its highest value, and the frames flagged as double talk, "
                 "default configuration. Speech never raises the alarm: a speech-only scenario with an "
                 "alarm frame fails the short run.\n")
        L.append(table(["scenario", "id", "speech only", "alarm frames >= 20 dB", "alarm max (dB)",
                        "double-talk frames"], alarm_rows))

    L.append("## CPU time\n")
    rows = [[ENGINE_LABEL.get(e, e), "%.1f" % cpu[e][0], "%.1f" % cpu[e][1],
             "%.2f %%" % (cpu[e][0] / 10000.0 * 100)] for e in engines]
    L.append(table(["engine", "mean us / frame", "worst per-scenario 99th percentile us",
                    "share of real time (one core)"], rows))
    return "\n".join(L)


if __name__ == "__main__":
    sys.exit(main())
