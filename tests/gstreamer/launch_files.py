#!/usr/bin/python3
"""gst-launch-1.0 on files: the file pipeline of docs/gstreamer.md.

Makes a far end (48 kHz stereo, speech-like noise, fixed seed) and the
microphone signal it causes (its mono mix through a decaying room response,
10 dB below, 48 kHz mono), runs

    filesrc far.wav ! wavparse ! kvaecechoprobe ! fakesink
    filesrc mic.wav ! wavparse ! kvaecdsp ... ! wavenc ! filesink out.wav

in one gst-launch-1.0 and checks the output file: same rate, channels and
length as the microphone file, and the echo reduced by at least 30 dB over
the last 4 s with only the linear canceller on.

    launch_files.py PLUGIN_DIR
"""
import os
import subprocess
import sys
import tempfile

import numpy as np
from scipy.io import wavfile
from scipy.signal import lfilter

RATE = 48000
SECONDS = 10


def speech_like(rng, n):
    """Noise with a long-term speech spectrum and syllabic modulation."""
    w = rng.standard_normal(n)
    # Resonant low-pass near 500 Hz, high-pass near 100 Hz.
    r, f = 0.97, 500.0 / RATE
    x = lfilter([1.0], [1.0, -2 * r * np.cos(2 * np.pi * f), r * r], w)
    x = lfilter([1.0, -1.0], [1.0, -0.987], x)
    t = np.arange(n) / RATE
    x *= 0.6 + 0.4 * np.sin(2 * np.pi * 4.0 * t + rng.uniform(0, 2 * np.pi))
    return x / np.sqrt(np.mean(x * x))


def room(rng, bulk_ms, tail_ms, erl_db):
    lat = int(bulk_ms * RATE / 1000)
    tail = int(tail_ms * RATE / 1000)
    v = rng.standard_normal(tail) * np.exp(-np.arange(tail) / (tail / (60 / 8.686)))
    v *= 10 ** (-erl_db / 20) / np.sqrt(np.sum(v * v))
    return np.concatenate([np.zeros(lat), v])


def main():
    plugin_dir = sys.argv[1]
    rng = np.random.default_rng(2026)
    n = RATE * SECONDS
    level = 10 ** (-20 / 20)
    left, right = level * speech_like(rng, n), level * speech_like(rng, n)
    far = np.stack([left, right], axis=1).astype(np.float32)
    echo = lfilter(room(rng, 5.0, 60.0, 10.0), [1.0], 0.5 * (left + right)).astype(np.float32)
    with tempfile.TemporaryDirectory() as tmp:
        wavfile.write(os.path.join(tmp, "far.wav"), RATE, far)
        wavfile.write(os.path.join(tmp, "mic.wav"), RATE, echo)
        out = os.path.join(tmp, "out.wav")
        env = dict(os.environ, GST_PLUGIN_PATH=plugin_dir, GST_REGISTRY=os.path.join(tmp, "registry.bin"))
        cmd = ["gst-launch-1.0", "-q",
               "filesrc", "location=" + os.path.join(tmp, "far.wav"), "!", "wavparse", "!",
               "kvaecechoprobe", "!", "fakesink",
               "filesrc", "location=" + os.path.join(tmp, "mic.wav"), "!", "wavparse", "!",
               "kvaecdsp", "echo-suppression=false", "noise-suppression=false", "!",
               "wavenc", "!", "filesink", "location=" + out]
        r = subprocess.run(cmd, env=env, capture_output=True, text=True, timeout=120)
        if r.returncode != 0:
            print(r.stdout, r.stderr)
            print("FAIL: gst-launch-1.0 exited", r.returncode)
            return 1
        rate, y = wavfile.read(out)
    ok = True
    if rate != RATE or y.ndim != 1 or y.dtype != np.float32:
        print(f"FAIL: output {rate} Hz, shape {y.shape}, {y.dtype}; expected {RATE} Hz mono float32")
        return 1
    if len(y) != len(echo):
        print(f"FAIL: output has {len(y)} samples, the microphone file {len(echo)}")
        ok = False
    a, b = (SECONDS - 4) * RATE, min(len(y), len(echo))
    red = 10 * np.log10(np.mean(echo[a:b].astype(np.float64) ** 2) / np.mean(y[a:b].astype(np.float64) ** 2))
    print(f"echo reduction over the last 4 s: {red:.1f} dB")
    if red < 30.0:
        print("FAIL: below 30 dB")
        ok = False
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
