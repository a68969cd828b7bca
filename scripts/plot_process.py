#!/usr/bin/python3
"""Draws the per-frame figures of a `kvaec process` run.

Usage: plot_process.py FRAMES.csv OUT.png

Reads the CSV written by `kvaec process --frames` and draws three panels:
levels (far end as the canceller received it, microphone, output), the echo
reduction of the frames with far-end activity with the double-talk flag, and
the delay track the far end was aligned with. Long recordings are reduced to
about 4000 points per curve (power means for levels, maximum for flags).
The PNG is written to a temporary file next to OUT.png and renamed when
complete. Exit status: 0 done, 2 bad arguments or input, 3 matplotlib missing.
"""
import csv
import math
import os
import sys
import tempfile


def read_columns(path):
    cols = {}
    with open(path, newline="") as f:
        for r in csv.DictReader(f):
            for k, v in r.items():
                cols.setdefault(k, []).append(float(v))
    if not cols:
        raise ValueError(f"{path}: no frames")
    return cols


def reduce(c, points=4000):
    """Groups of frames: power mean of dB columns, max of flags, first time."""
    n = len(c["time_s"])
    step = max(1, n // points)
    if step == 1:
        return c
    out = {k: [] for k in c}
    for i in range(0, n, step):
        for k, v in c.items():
            g = v[i:i + step]
            if k in ("far_active", "double_talk"):
                out[k].append(max(g))
            elif k.endswith("_db") and k not in ("erle_db", "linear_erle_db"):
                out[k].append(10 * math.log10(sum(10 ** (x / 10) for x in g) / len(g) + 1e-30))
            else:
                out[k].append(sum(g) / len(g))
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
        print("plot_process.py: matplotlib is not installed", file=sys.stderr)
        return 3
    try:
        c = reduce(read_columns(argv[1]))
    except (OSError, ValueError, KeyError) as e:
        print(f"plot_process.py: {e}", file=sys.stderr)
        return 2
    t = c["time_s"]
    fig, ax = plt.subplots(3, 1, figsize=(11, 8), sharex=True)
    for key, label in (("far_db", "far end (receive input)"), ("mic_db", "microphone"), ("out_db", "output")):
        ax[0].plot(t, c[key], lw=0.7, label=label)
    ax[0].set_ylabel("level, dBFS")
    ax[0].set_ylim(-110, 0)
    ax[0].legend(loc="lower right", ncol=3, fontsize=8)
    erle = [e if fa else float("nan") for e, fa in zip(c["erle_db"], c["far_active"])]
    lin = [e if fa else float("nan") for e, fa in zip(c["linear_erle_db"], c["far_active"])]
    ax[1].plot(t, erle, lw=0.6, label="echo reduction (microphone over output)")
    ax[1].plot(t, lin, lw=0.6, label="linear echo reduction (filters)")
    ax[1].fill_between(t, 0, [60 * d for d in c["double_talk"]], color="tab:red", alpha=0.15,
                       step="post", label="double talk flagged")
    ax[1].set_ylabel("dB")
    ax[1].set_ylim(-5, 70)
    ax[1].legend(loc="upper right", ncol=2, fontsize=8)
    ax[2].plot(t, c["delay_ms"], lw=1, label="delay of the echo behind the far end")
    ax[2].set_ylabel("delay, ms")
    ax[2].legend(loc="upper right", fontsize=8)
    ax[2].set_xlabel("microphone time, s")
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
