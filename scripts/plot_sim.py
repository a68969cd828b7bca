#!/usr/bin/python3
"""Draws the main curves of a `kvaec simulate` run.

Usage: plot_sim.py FRAMES.csv OUT.png

Reads the per-frame CSV written by `kvaec simulate` and draws three panels:
levels (far end, echo, microphone, send output), ERLE with the double-talk
flag, and the adaptation progress with the tone alarm. The PNG is written to
a temporary file next to OUT.png and renamed when complete.
Exit status: 0 done, 2 bad arguments or input, 3 matplotlib missing.
"""
import csv
import os
import sys
import tempfile


def read_columns(path):
    with open(path, newline="") as f:
        rows = list(csv.DictReader(f))
    if not rows:
        raise ValueError(f"{path}: no frames")
    return {k: [float(r[k]) for r in rows] for k in rows[0].keys()}


def smooth(x, n):
    """Moving average over n frames (power domain is not needed for display)."""
    out, acc, q = [], 0.0, []
    for v in x:
        q.append(v)
        acc += v
        if len(q) > n:
            acc -= q.pop(0)
        out.append(acc / len(q))
    return out


def main(argv):
    if len(argv) != 3:
        print(__doc__.strip().splitlines()[2], file=sys.stderr)
        return 2
    try:
        import matplotlib
        matplotlib.use("Agg")
        import matplotlib.pyplot as plt
    except ImportError:
        print("plot_sim.py: matplotlib is not installed", file=sys.stderr)
        return 3
    try:
        c = read_columns(argv[1])
    except (OSError, ValueError, KeyError) as e:
        print(f"plot_sim.py: {e}", file=sys.stderr)
        return 2
    t = c["time_s"]
    fig, ax = plt.subplots(3, 1, figsize=(11, 8), sharex=True)
    for key, label in (("far_db", "far end"), ("echo_db", "echo at mic"),
                       ("mic_db", "microphone"), ("out_db", "send output")):
        ax[0].plot(t, c[key], lw=0.7, label=label)
    ax[0].set_ylabel("level, dBFS")
    ax[0].set_ylim(-110, 0)
    ax[0].legend(loc="lower right", ncol=4, fontsize=8)
    erle = [e if fa and not na else float("nan")
            for e, fa, na in zip(c["erle_db"], c["far_active"], c["near_active"])]
    ax[1].plot(t, erle, lw=0.5, color="0.7", label="ERLE per frame (far end alone)")
    ax[1].plot(t, smooth([0.0 if v != v else v for v in erle], 50), lw=1.2, label="ERLE, 0.5 s mean")
    ax[1].fill_between(t, 0, [60 * d for d in c["double_talk"]], color="tab:red", alpha=0.15,
                       step="post", label="double talk flagged")
    ax[1].fill_between(t, 0, [60 * n for n in c["near_active"]], color="tab:green", alpha=0.10,
                       step="post", label="near talker active")
    ax[1].set_ylabel("dB")
    ax[1].set_ylim(-5, 60)
    ax[1].legend(loc="upper right", ncol=2, fontsize=8)
    ax[2].plot(t, c["adapt_time"], lw=1, label="adaptation time")
    ax[2].set_ylabel("adaptation time")
    a2 = ax[2].twinx()
    a2.plot(t, c["tone_alarm_db"], lw=0.8, color="tab:purple", label="tone alarm, dB")
    a2.plot(t, c["epc_db"], lw=0.8, color="tab:orange", label="echo-path change, dB")
    a2.set_ylabel("dB")
    a2.legend(loc="upper right", fontsize=8)
    ax[2].set_xlabel("time, s")
    fig.tight_layout()
    out = argv[2]
    fd, tmp = tempfile.mkstemp(prefix="." + os.path.basename(out) + ".", suffix=".png",
                               dir=os.path.dirname(os.path.abspath(out)))
    os.close(fd)
    try:
        fig.savefig(tmp, dpi=100)
        os.chmod(tmp, 0o644)
        os.replace(tmp, out)
    except BaseException:
        os.unlink(tmp)
        raise
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
