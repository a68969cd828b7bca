#!/usr/bin/python3
"""Generates the evaluation scenarios for the closed-loop comparison.

Every scenario is a directory holding 16 kHz mono float32 raw files
(native byte order) and a key=value description:

  far.f32      far-end signal handed to each engine's receive input
  nearmic.f32  near-end talker as it arrives at the microphone (after its room path)
  noise.f32    background noise at the microphone
  rir1.f32     loudspeaker-to-microphone path: pure latency, then the room response
  rir2.f32     second path after an echo-path change (only where there is one)
  meta.txt     latency_ms, change_s, clip_drive, erl_db, segment times, ...

The echo itself is not made here: the driver makes it from each engine's
played output (soft-clipped loudspeaker, then rir1/rir2), because an engine
may attenuate its receive path.

Everything is deterministic: speech from espeak-ng (fixed voices, texts and
rates), rooms from a seeded image method, noise from seeded generators.

Usage: make_scenarios.py OUTDIR [--short]
"""
import argparse
import os
import subprocess
import sys
import tempfile

import numpy as np
from scipy import signal

FS = 16000

SENTENCES = [
    "The quiet harbour woke slowly as the first boats pushed out into the grey water.",
    "Please bring the blue folder to the meeting room before ten o'clock.",
    "A warm breeze carried the smell of bread across the empty market square.",
    "We checked the numbers twice, and the second total matched the first.",
    "Turn left after the old mill and follow the river until you reach the bridge.",
    "Nobody expected the little train to arrive on time during the storm.",
    "She painted the fence green because the neighbours had painted theirs white.",
    "The engineer measured the signal level at every point along the cable.",
    "Seven tall ships were anchored just outside the narrow entrance of the bay.",
    "He read the long letter aloud, pausing now and then to find his glasses.",
    "Our garden produced more tomatoes this summer than we could ever eat.",
    "The committee will announce its decision at the end of next week.",
    "Bright lights flickered on the hills as the evening grew darker and colder.",
    "Could you repeat the last part of the question a little more slowly?",
    "The children built a sandcastle with towers, walls and a deep moat.",
    "Heavy rain is expected tomorrow, so take an umbrella when you leave.",
]


# ---------------------------------------------------------------- speech

def espeak(text, voice, rate, pitch):
    with tempfile.NamedTemporaryFile(suffix=".wav", delete=False) as f:
        path = f.name
    try:
        subprocess.run(["espeak-ng", "-v", voice, "-s", str(rate), "-p", str(pitch),
                        "-w", path, text], check=True)
        from scipy.io import wavfile
        sr, x = wavfile.read(path)
    finally:
        os.unlink(path)
    x = x.astype(np.float64) / 32768.0
    # espeak-ng writes 22050 Hz; 16000/22050 = 320/441.
    if sr != FS:
        g = np.gcd(FS, sr)
        x = signal.resample_poly(x, FS // g, sr // g)
    return x


def active_level_db(x):
    """Level over the 20 ms blocks within 35 dB of the loudest block (dBFS, power)."""
    n = len(x) // 320
    if n == 0:
        return -200.0
    p = np.mean(x[: n * 320].reshape(n, 320) ** 2, axis=1)
    act = p > p.max() * 10 ** (-35 / 10)
    return 10 * np.log10(np.mean(p[act]) + 1e-30)


def set_level(x, level_db):
    return x * 10 ** ((level_db - active_level_db(x)) / 20)


def talker(seconds, voice, rate, pitch, seed, level_db):
    """Sentences of one voice with seeded pauses, cut or padded to `seconds`."""
    rng = np.random.default_rng(seed)
    order = rng.permutation(len(SENTENCES))
    parts, total, i = [], 0, 0
    target = int(seconds * FS)
    while total < target:
        s = espeak(SENTENCES[order[i % len(order)]], voice, rate, pitch)
        gap = np.zeros(int(rng.uniform(0.25, 0.9) * FS))
        parts += [s, gap]
        total += len(s) + len(gap)
        i += 1
    x = np.concatenate(parts)[:target]
    return set_level(x, level_db)


# ---------------------------------------------------------------- noise

def white(n, rng):
    return rng.standard_normal(n)


def pink(n, rng):
    shaped = np.fft.rfft(rng.standard_normal(n))
    f = np.fft.rfftfreq(n, 1 / FS)
    f[0] = f[1]
    shaped /= np.sqrt(f)
    return np.fft.irfft(shaped, n)


def babble(n, seed):
    voices = [("en-us+m1", 150, 45), ("en-gb+f2", 170, 55), ("en-us+m4", 140, 35),
              ("en-gb+f4", 165, 60), ("en+m2", 155, 40), ("en-us+f3", 175, 50)]
    x = np.zeros(n)
    rng = np.random.default_rng(seed)
    for k, (v, r, p) in enumerate(voices):
        t = talker(n / FS + 3, v, r, p, seed + 17 * k, -30)
        off = int(rng.uniform(0, 3) * FS)
        x += t[off:off + n]
    return x


def noise_of(kind, n, seed):
    rng = np.random.default_rng(seed)
    if kind == "white":
        x = white(n, rng)
    elif kind == "pink":
        x = pink(n, rng)
    elif kind == "babble":
        x = babble(n, seed)
    else:
        raise ValueError(kind)
    return x / np.sqrt(np.mean(x ** 2))


# ---------------------------------------------------------------- rooms

def image_method_rir(room, src, mic, rt60, seconds, seed):
    """Shoebox room by the image method with fractional-delay (windowed sinc)
    taps and one common wall reflection factor from Sabine's formula.
    A small seeded jitter of the image positions breaks the perfectly
    regular reflection pattern of an ideal shoebox."""
    L = np.asarray(room, float)
    V = np.prod(L)
    S = 2 * (L[0] * L[1] + L[0] * L[2] + L[1] * L[2])
    alpha = min(0.95, 0.161 * V / (S * rt60))
    beta = np.sqrt(1 - alpha)
    c = 343.0
    n = int(seconds * FS)
    max_d = seconds * c
    N = np.ceil(max_d / L).astype(int) + 1
    rng = np.random.default_rng(seed)
    h = np.zeros(n + 64)
    half = 16
    taps = np.arange(-half, half + 1)
    for q in ((0, 0, 0), (1, 0, 0), (0, 1, 0), (0, 0, 1), (1, 1, 0), (1, 0, 1), (0, 1, 1), (1, 1, 1)):
        q = np.asarray(q)
        gx, gy, gz = np.meshgrid(np.arange(-N[0], N[0] + 1), np.arange(-N[1], N[1] + 1),
                                 np.arange(-N[2], N[2] + 1), indexing="ij")
        m = np.stack([gx.ravel(), gy.ravel(), gz.ravel()], axis=1)
        img = (1 - 2 * q) * np.asarray(src) + 2 * m * L
        d = np.linalg.norm(img - np.asarray(mic), axis=1)
        refl = np.abs(m - q).sum(axis=1) + np.abs(m).sum(axis=1)
        keep = d < max_d
        d, refl = d[keep], refl[keep]
        d = d + rng.uniform(-0.02, 0.02, size=d.shape) * (refl > 0)
        amp = beta ** refl / (4 * np.pi * np.maximum(d, 0.1))
        t = d / c * FS
        t0 = np.floor(t).astype(int)
        frac = t - t0
        idx = t0[:, None] + taps[None, :]
        x = taps[None, :] - frac[:, None]
        w = np.sinc(x) * (0.5 + 0.5 * np.cos(np.pi * x / (half + 1)))
        ok = (idx >= 0) & (idx < len(h))
        np.add.at(h, idx[ok], (amp[:, None] * w)[ok])
    h = h[:n]
    # Rooms pass no DC: a gentle high-pass at 80 Hz.
    b, a = signal.butter(2, 80 / (FS / 2), "high")
    return signal.lfilter(b, a, h)


def echo_path(room, src, mic, rt60, latency_ms, keep_ms, erl_db, seed):
    """Pure latency followed by the room response truncated to `keep_ms`
    (a 10 ms half-cosine fade at the end), scaled so that white noise
    at the loudspeaker arrives `erl_db` weaker at the microphone."""
    full = image_method_rir(room, src, mic, rt60, 0.25, seed)
    h = full.copy()
    # Drop the acoustic flight time before the direct sound beyond 1 ms, so
    # the latency stated is the latency seen.
    first = max(0, int(np.argmax(np.abs(h) > 0.05 * np.abs(h).max())) - 16)
    h = h[first:first + int(keep_ms * FS / 1000)]
    full = full[first:]
    # Share of the energy of the first 250 ms that the truncation leaves out.
    k = int((keep_ms - 10) * FS / 1000)
    cut_db = 10 * np.log10(np.sum(full[k:] ** 2) / np.sum(full ** 2) + 1e-30)
    fade = int(0.010 * FS)
    h[-fade:] *= 0.5 + 0.5 * np.cos(np.pi * np.arange(fade) / fade)
    h *= 10 ** (-erl_db / 20) / np.sqrt(np.sum(h ** 2))
    return np.concatenate([np.zeros(int(latency_ms * FS / 1000)), h]), cut_db


# ---------------------------------------------------------------- scenarios

def write(dirpath, name, x):
    np.asarray(x, dtype=np.float32).tofile(os.path.join(dirpath, name))


def build(outdir, sc):
    d = os.path.join(outdir, sc["name"])
    os.makedirs(d, exist_ok=True)
    n = int(sc["seconds"] * FS)
    seed = sc["seed"]
    far = np.zeros(n)
    for i, (v, r, p, lvl, t0, t1) in enumerate(sc.get("far", [])):
        seg = talker(t1 - t0, v, r, p, seed + 1 + 100 * i, lvl)
        far[int(t0 * FS):int(t0 * FS) + len(seg)] = seg
    for (f1, f2, lvl, t0, t1) in sc.get("tones", []):
        t = np.arange(int((t1 - t0) * FS)) / FS
        x = np.sin(2 * np.pi * f1 * t) + np.sin(2 * np.pi * f2 * t)
        x *= 10 ** (lvl / 20) / np.sqrt(np.mean(x ** 2))
        ramp = int(0.005 * FS)
        x[:ramp] *= np.linspace(0, 1, ramp)
        x[-ramp:] *= np.linspace(1, 0, ramp)
        far[int(t0 * FS):int(t0 * FS) + len(x)] = x
    near = np.zeros(n)
    if "near" in sc:
        v, r, p, lvl, t0, t1 = sc["near"]
        seg = talker(t1 - t0, v, r, p, seed + 2, 0.0)
        hn = image_method_rir(sc["room"], sc["near_pos"], sc["mic"], sc["rt60"], 0.1, seed + 3)
        seg = signal.lfilter(hn, [1.0], seg)
        seg = set_level(seg, lvl)
        near[int(t0 * FS):int(t0 * FS) + len(seg)] = seg
    noise = noise_of(sc["noise"], n, seed + 4) * 10 ** (sc["noise_db"] / 20)
    h1, cut1 = echo_path(sc["room"], sc["spk"], sc["mic"], sc["rt60"], sc["latency_ms"], sc["keep_ms"],
                   sc["erl_db"], seed + 5)
    write(d, "far.f32", far)
    write(d, "nearmic.f32", near)
    write(d, "noise.f32", noise)
    write(d, "rir1.f32", h1)
    # Echo delay after the output: samples from an engine's played output to
    # the first arrival of its echo at the microphone (first tap within 20 dB
    # of the largest); libkvaec needs KVAEC_ECHO_MIN_DELAY (280) or more.
    echo_delay = int(np.argmax(np.abs(h1) >= 0.1 * np.abs(h1).max()))
    meta = dict(name=sc["name"], title=sc["title"], seconds=sc["seconds"], latency_ms=sc["latency_ms"],
                echo_delay=echo_delay,
                clip_drive=sc["clip_drive"], erl_db=sc["erl_db"], rt60=sc["rt60"], noise=sc["noise"],
                noise_db=sc["noise_db"], keep_ms=sc["keep_ms"], seed=seed,
                cut_tail_db="%.1f" % cut1,
                change_s=-1)
    if "spk2" in sc:
        h2, cut2 = echo_path(sc["room"], sc["spk2"], sc["mic2"], sc["rt60"], sc["latency_ms"], sc["keep_ms"],
                       sc["erl_db"], seed + 6)
        write(d, "rir2.f32", h2)
        meta["change_s"] = sc["change_s"]
        meta["cut_tail2_db"] = "%.1f" % cut2
    for k in ("near_t", "dt_t", "tone_t", "steady_t", "after_t"):
        if k in sc:
            meta[k] = "%g,%g" % tuple(sc[k])
    if "near" in sc:
        meta["near_t"] = "%g,%g" % (sc["near"][4], sc["near"][5])
        meta["near_voice"] = sc["near"][0]
    if sc.get("far"):
        meta["far_voice"] = ",".join(f[0] for f in sc["far"])
    with open(os.path.join(d, "meta.txt"), "w") as f:
        for k, v in meta.items():
            f.write("%s=%s\n" % (k, v))


def scenarios(short):
    # Far-end talkers sit at -24 dBFS active level; near-end talkers reach the
    # microphone at -30 dBFS; noise levels are absolute (dBFS, power).
    base_room = dict(room=(5.0, 4.0, 2.7), spk=(2.0, 1.5, 1.0), mic=(2.25, 1.6, 1.0),
                     near_pos=(3.2, 2.4, 1.3))
    full = [
        dict(name="far_single", title="Far-end single talk", seconds=30, seed=101, rt60=0.3,
             latency_ms=20, erl_db=8, clip_drive=1.5, keep_ms=90, noise="pink", noise_db=-70,
             far=[("en-us+m3", 160, 45, -24, 0, 30)], steady_t=(10, 30), **base_room),
        dict(name="double_talk", title="Double talk", seconds=36, seed=202, rt60=0.4,
             latency_ms=30, erl_db=6, clip_drive=1.5, keep_ms=80, noise="babble", noise_db=-60,
             far=[("en-gb+f2", 165, 55, -24, 0, 36)], near=("en-us+m1", 150, 40, -30, 14, 28),
             dt_t=(14, 28), steady_t=(6, 14), after_t=(28, 36), room=(4.0, 3.5, 2.5), spk=(1.5, 1.2, 0.9), mic=(1.8, 1.3, 0.9),
             near_pos=(2.6, 2.2, 1.2)),
        dict(name="path_change", title="Echo-path change", seconds=36, seed=303, rt60=0.2,
             latency_ms=10, erl_db=8, clip_drive=1.5, keep_ms=90, noise="white", noise_db=-70,
             far=[("en-us+f4", 170, 60, -24, 0, 36)], change_s=18, steady_t=(10, 18), after_t=(28, 36),
             room=(6.0, 5.0, 3.0), spk=(2.5, 2.0, 1.0), mic=(2.8, 2.1, 1.0),
             spk2=(3.4, 2.9, 1.1), mic2=(3.0, 2.6, 1.2), near_pos=(4.0, 3.5, 1.3)),
        dict(name="tones", title="Two tones between speech", seconds=30, seed=404, rt60=0.15,
             latency_ms=15, erl_db=8, clip_drive=1.5, keep_ms=90, noise="pink", noise_db=-65,
             far=[("en-gb+m3", 160, 40, -24, 0, 12), ("en-gb+m3", 160, 40, -24, 16, 30)],
             tones=[(440.0, 480.0, -24, 12.5, 15.5)], tone_t=(12.5, 15.5), steady_t=(6, 12), after_t=(16, 30),
             room=(3.5, 3.0, 2.4), spk=(1.2, 1.0, 0.8), mic=(1.5, 1.1, 0.8), near_pos=(2.5, 2.2, 1.2)),
        dict(name="near_only", title="Near-end only", seconds=20, seed=505, rt60=0.25,
             latency_ms=20, erl_db=8, clip_drive=1.5, keep_ms=90, noise="pink", noise_db=-55,
             near=("en-gb+m3", 155, 40, -30, 1, 20), **base_room),
        dict(name="silence", title="Silence (microphone self-noise only)", seconds=15, seed=606,
             rt60=0.25, latency_ms=20, erl_db=8, clip_drive=1.5, keep_ms=90, noise="white",
             noise_db=-80, **base_room),
    ]
    if not short:
        return full
    a = dict(full[0], seconds=6, far=[("en-us+m3", 160, 45, -24, 0, 6)], steady_t=(3, 6))
    b = dict(full[1], seconds=10, noise="pink", far=[("en-gb+f2", 165, 55, -24, 0, 10)],
             near=("en-us+m1", 150, 40, -30, 4, 8), dt_t=(4, 8), steady_t=(2, 4),
             after_t=(8, 10))
    return [a, b]


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("outdir")
    ap.add_argument("--short", action="store_true")
    args = ap.parse_args()
    for sc in scenarios(args.short):
        build(args.outdir, sc)
        print("scenario", sc["name"], file=sys.stderr)


if __name__ == "__main__":
    main()
