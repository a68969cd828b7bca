"""Recorded pairs swept over their bulk delay, through `kvaec process` and
`kvaec.process`: with the host alignment rule (kvaec_align_shift) the linear
ERLE (NLP off) of every bulk delay stays within 1 dB of the closed-loop
figure of the same echo path and far end with the echo arriving well after
the receive output.

Run by CTest (environment: KVAEC_LIB, KVAEC_TOOL, PYTHONPATH). Run as a
program it prints the table: python3 alignment_sweep_tests.py [--long]
"""
import os
import subprocess
import sys
import tempfile

import numpy as np
import pytest
from scipy.io import wavfile

import kvaec

FS = kvaec.RATE
DELAYS_MS = [0, 1, 5, 10, 12.5, 20, 50, 100, 300]
# Length of a pair (the long run uses 12 s): the speech-like far end, quiet
# in its high bands, needs longer for its ERLE to settle.
SECONDS = {"white": 4.0, "speech": 8.0}
MEASURE_FROM = 2.0     # ERLE from this long after the echo starts (convergence) to the end
MIC_NOISE_DB = -80.0
# Echo arrives this many samples after the receive output in the reference
# closed loop: two frames (320), beyond KVAEC_ECHO_MIN_DELAY.
REFERENCE_LATENCY_FRAMES = 2


def far_end(kind, seconds, seed):
    """Far end at -26 dBFS: white noise, or noise shaped like the long-term
    speech spectrum (two one-pole low-passes at 800 Hz, a high-pass at
    100 Hz) with a 4 Hz syllabic envelope."""
    rng = np.random.default_rng(seed)
    n = int(seconds * FS)
    w = rng.standard_normal(n)
    if kind == "speech":
        from scipy.signal import lfilter
        a = np.exp(-2 * np.pi * 800 / FS)
        w = lfilter([1 - a], [1, -a], lfilter([1 - a], [1, -a], w))
        c = np.exp(-2 * np.pi * 100 / FS)
        w = lfilter([c, -c], [1, -c], w)
        w *= 0.25 + 0.75 * np.abs(np.sin(2 * np.pi * 4 * np.arange(n) / FS))
    return (w * 10 ** (-26 / 20) / np.sqrt(np.mean(w ** 2))).astype(np.float32)


def echo_path(kind, seed=5):
    """Echo path from its first arrival on: `short` is a 0.3 tap with two
    smaller taps 1 and 2.5 ms later; `room` a direct sound followed by a
    reverberant tail decaying by 60 dB in 150 ms (ERL about 8 dB)."""
    if kind == "short":
        h = np.zeros(41)
        h[0], h[16], h[40] = 0.3, -0.12, 0.06
        return h
    rng = np.random.default_rng(seed)
    n = int(0.15 * FS)
    t = np.arange(n)
    h = rng.standard_normal(n) * np.exp(-t / (n / 6.9)) * 0.06
    h[:24] = 0.0
    h[0] = 0.3
    return h


def recorded_pair(far, h, bulk):
    """Microphone recording of `far` through `h` starting `bulk` samples late,
    with microphone noise."""
    e = np.convolve(far.astype(np.float64), h)[: len(far)]
    mic = np.zeros(len(far))
    mic[bulk:] = e[: len(far) - bulk]
    rng = np.random.default_rng(99)
    mic += rng.standard_normal(len(far)) * 10 ** (MIC_NOISE_DB / 20)
    return mic.astype(np.float32)


def erle_db(mic, out, start):
    a = mic[start:].astype(np.float64)
    b = out[start:].astype(np.float64)
    return 10 * np.log10(np.sum(a ** 2) / (np.sum(b ** 2) + 1e-30))


def closed_loop_erle(far, h):
    """Linear ERLE of the closed loop (echo made from the receive output)
    with the echo arriving two frames after the receive output."""
    noise = np.random.default_rng(98).standard_normal(len(far)) * 10 ** (MIC_NOISE_DB / 20)
    r = kvaec.simulate(far, near=noise.astype(np.float32), echo_path=h,
                       latency_frames=REFERENCE_LATENCY_FRAMES, mode=kvaec.MODE_NO_NLP)
    start = int(MEASURE_FROM * FS)
    d = kvaec.SIN_DELAY
    return erle_db(r["mic"][:-d], r["send"][d:], start)


def python_erle(far, mic, bulk):
    r = kvaec.process(far, mic, mode=kvaec.MODE_NO_NLP)
    return erle_db(mic, r["out"], bulk + int(MEASURE_FROM * FS)), r["delay"]


def tool_erle(far, mic, bulk, tool, tmp):
    fp, mp, op = (os.path.join(tmp, n) for n in ("far.wav", "mic.wav", "out.wav"))
    wavfile.write(fp, FS, far)
    wavfile.write(mp, FS, mic)
    p = subprocess.run([tool, "process", "--far", fp, "--mic", mp, "-o", op, "--no-nlp", "-q"],
                       capture_output=True, text=True)
    assert p.returncode == 0, p.stderr
    _, out = wavfile.read(op)
    return erle_db(mic, out, bulk + int(MEASURE_FROM * FS))


def sweep(kind, path, hosts, seconds=None, tool=None):
    far = far_end(kind, seconds or SECONDS[kind], 7 if kind == "white" else 8)
    h = echo_path(path)
    ref = closed_loop_erle(far, h)
    rows = []
    with tempfile.TemporaryDirectory() as tmp:
        for ms in DELAYS_MS:
            bulk = int(round(ms * FS / 1000))
            mic = recorded_pair(far, h, bulk)
            row = {"ms": ms}
            if "python" in hosts:
                row["python"], row["found"] = python_erle(far, mic, bulk)
            if "tool" in hosts:
                row["tool"] = tool_erle(far, mic, bulk, tool, tmp)
            rows.append(row)
    return ref, rows


CASES = [(k, p) for k in ("white", "speech") for p in ("short", "room")]


@pytest.mark.parametrize("kind,path", CASES)
def test_every_bulk_delay_keeps_the_closed_loop_erle(kind, path):
    tool = os.environ.get("KVAEC_TOOL")
    hosts = ("python", "tool") if tool else ("python",)
    ref, rows = sweep(kind, path, hosts, tool=tool)
    print(f"{kind} far end, {path} path: closed loop {ref:.1f} dB")
    for r in rows:
        print("  %5.1f ms:" % r["ms"] + "".join(f"  {h} {r[h]:.1f} dB" for h in hosts))
    for r in rows:
        bulk = int(round(r["ms"] * FS / 1000))
        assert abs(r["found"] - bulk) <= 2, f"{r['ms']} ms: delay estimated as {r['found']} samples"
        for h in hosts:
            assert abs(r[h] - ref) <= 1.0, f"{h}, bulk delay {r['ms']} ms: {r[h]:.1f} dB, closed loop {ref:.1f} dB"


def main():
    seconds = 12.0 if "--long" in sys.argv else None
    tool = os.environ.get("KVAEC_TOOL")
    hosts = ("python", "tool") if tool else ("python",)
    print("| far end | path | closed loop | " + " | ".join(f"{ms:g} ms" for ms in DELAYS_MS) + " |")
    print("|---" * (3 + len(DELAYS_MS)) + "|")
    for kind, path in CASES:
        ref, rows = sweep(kind, path, hosts, seconds, tool)
        for h in hosts:
            print(f"| {kind} | {path} ({h}) | {ref:.1f} | " + " | ".join(f"{r[h]:.1f}" for r in rows) + " |")


if __name__ == "__main__":
    main()
