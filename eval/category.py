#!/usr/bin/python3
"""Double-talk category of every engine, measured with comb-separated talkers.

The near-end and far-end talkers occupy interleaved third-octave bands
(a comb), so that both can be followed through a non-linear canceller: what
the send output carries in the near-end bands is near-end speech, what it
carries in the far-end bands is echo. Each room's scenario runs, in this
order: far-end single talk (convergence), double talk, near-end single talk,
far-end single talk after the double talk.

Per 20 ms frame in which both talkers are active (double talk):
  A_S,dt  send-path attenuation of the near-end talker, rated against the
          terminal's own near-end single-talk response per near-end band:
          sum_b G_st(b) N_b(k) over sum_b S_b(k), where N_b is the near-end
          talker at the microphone in band b, S_b the aligned send output and
          G_st(b) = sum S_b / sum N_b over the near-end single-talk frames of
          the same run. A fixed frequency response of the send path (its
          high-pass, say) is therefore not counted as double-talk loss.
  A_R,dt  receive-path attenuation: far-end input over the aligned played
          output.
Both are summarised by their 95th percentile over the double-talk frames.
Echo loss during double talk: far-end input over send output per far-end
third-octave band with its centre in 300-6700 Hz, summed over the double-talk
frames; the worst band counts.

Categories (the worst of the three criteria decides):
  type        1     2a    2b    2c    (else 3)
  A_S,dt <=   3     6     9     12    dB
  A_R,dt <=   3     5     8     10    dB
  echo loss >= 27    23    17    11    dB  (hands-free terminal ladder)
  echo loss >= 37    33    27    21    dB  (TELR-form ladder)

Measurement floors, measured on each scenario and printed beside the
results: the echo's share of the near-end bands (comb leakage, including
the loudspeaker's distortion products) and the noise in them, which bound
how much send attenuation can be resolved; and the near-end talker plus
noise in the far-end bands, which bounds the echo loss that can be seen.

Usage:
  category.py --driver PATH --work DIR [--short] [--engines a,b,...]
              [--section FILE] [--jobs N]
  category.py --driver PATH --work DIR --sweep [--short] [--section FILE]
The section (Markdown) goes to FILE, or WORK/category.md.
"""
import argparse
import concurrent.futures as cf
import json
import math
import os
import subprocess
import sys

import numpy as np

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)

FS = 16000
FRAME = 320                      # 20 ms rating frames
SEG_ORDER = ("far_st", "dt", "near_st", "far_after")

# Third-octave centres 100 Hz .. 6.3 kHz (base-ten series, nominal names).
CENTRES = [100 * 10 ** (k / 10) for k in range(19)]
NOMINAL = [100, 125, 160, 200, 250, 315, 400, 500, 630, 800, 1000, 1250, 1600, 2000, 2500, 3150,
           4000, 5000, 6300]
NEAR_BANDS = list(range(0, 19, 2))   # 100, 160, 250, 400, ... 6300 Hz
FAR_BANDS = list(range(1, 19, 2))    # 125, 200, 315, 500, ... 5000 Hz
EL_LO, EL_HI = 300.0, 6700.0         # echo-loss bands: centre within this range

TYPES = ["1", "2a", "2b", "2c", "3"]
LADDERS = {
    "hands-free": {"as": [3, 6, 9, 12], "ar": [3, 5, 8, 10], "el": [27, 23, 17, 11]},
    "TELR": {"as": [3, 6, 9, 12], "ar": [3, 5, 8, 10], "el": [37, 33, 27, 21]},
}
EPS = 1e-20


def db(x):
    return 10.0 * np.log10(np.maximum(x, EPS))


# ---------------------------------------------------------------- combs

def band_edges(i, narrow=False):
    """Edges of third-octave band i; `narrow` keeps the middle quarter-octave
    (used to make the talkers, so that neighbouring bands of the two talkers
    are separated by a gap)."""
    fc = CENTRES[i]
    k = 2 ** (1 / 8) if narrow else 10 ** (1 / 20)
    return fc / k, fc * k


def band_masks(n, bands, narrow=False):
    f = np.fft.rfftfreq(n, 1.0 / FS)
    out = []
    for i in bands:
        lo, hi = band_edges(i, narrow)
        out.append((f >= lo) & (f < hi))
    return out


def comb(x, bands):
    """x restricted to the (narrowed) bands, zero-phase."""
    X = np.fft.rfft(x)
    m = np.zeros(len(X), bool)
    for b in band_masks(len(x), bands, narrow=True):
        m |= b
    return np.fft.irfft(X * m, len(x))


def band_frame_powers(x, bands):
    """Mean-square power per 20 ms frame in each third-octave band: array
    (len(bands), frames)."""
    n = len(x)
    X = np.fft.rfft(np.asarray(x, np.float64))
    nf = n // FRAME
    out = np.empty((len(bands), nf))
    for j, m in enumerate(band_masks(n, bands)):
        y = np.fft.irfft(X * m, n)[: nf * FRAME]
        out[j] = np.mean(y.reshape(nf, FRAME) ** 2, axis=1)
    return out


def frame_power(x):
    nf = len(x) // FRAME
    return np.mean(np.asarray(x[: nf * FRAME], np.float64).reshape(nf, FRAME) ** 2, axis=1)


# ---------------------------------------------------------------- rating

def send_attenuation(near_b, send_b, st_mask, dt_mask):
    """Per-frame A_S,dt (dB) over the double-talk frames: the near-end
    talker weighted by the single-talk response of the same path, over the
    send output, both summed over the near-end bands. near_b, send_b:
    (bands, frames) powers; st_mask: near-end single-talk frames; dt_mask:
    double-talk frames. Also returns G_st per band (dB)."""
    g = np.sum(send_b[:, st_mask], axis=1) / np.maximum(np.sum(near_b[:, st_mask], axis=1), EPS)
    expected = np.sum(g[:, None] * near_b[:, dt_mask], axis=0)
    actual = np.sum(send_b[:, dt_mask], axis=0)
    return db(expected) - db(actual), db(g)


def band_loss(ref_b, out_b, mask):
    """Loss per band (dB): reference power over output power, summed over the frames of mask."""
    return db(np.sum(ref_b[:, mask], axis=1)) - db(np.sum(out_b[:, mask], axis=1))


def criterion_type(value, limits, higher_is_better):
    if value is None or not np.isfinite(value):
        return "n/a"
    for t, lim in zip(TYPES, limits):
        if (value >= lim) if higher_is_better else (value <= lim):
            return t
    return TYPES[-1]


def category(as_p95, ar_p95, el_worst, ladder):
    """Category on `ladder` ("hands-free" or "TELR"): (category, per-criterion types)."""
    lad = LADDERS[ladder]
    ts = (criterion_type(as_p95, lad["as"], False), criterion_type(ar_p95, lad["ar"], False),
          criterion_type(el_worst, lad["el"], True))
    if "n/a" in ts:
        return "n/a", ts
    return TYPES[max(TYPES.index(t) for t in ts)], ts


def percentile(v, q):
    v = np.asarray(v, np.float64)
    v = v[np.isfinite(v)]
    return float(np.percentile(v, q)) if len(v) else float("nan")


def measure_lag(ref, out, max_lag=960):
    """Lag (samples, 0..max_lag) of out behind ref at the peak of their normalised
    cross-correlation, and the peak."""
    a = np.asarray(ref, np.float64)
    b = np.asarray(out, np.float64)
    n = min(len(a), len(b))
    a, b = a[:n], b[:n]
    F = 1 << int(np.ceil(np.log2(2 * n)))
    c = np.fft.irfft(np.conj(np.fft.rfft(a, F)) * np.fft.rfft(b, F), F)[: max_lag + 1]
    c /= np.sqrt(np.sum(a ** 2) * np.sum(b ** 2)) + EPS
    lag = int(np.argmax(np.abs(c)))
    return lag, float(abs(c[lag]))


def advance(x, d):
    x = np.asarray(x, np.float64)
    return x if d == 0 else np.concatenate([x[d:], np.zeros(d)])


def rate_run(sc, run, meta, nominal_send_delay=0):
    """All figures of one engine on one category scenario. sc: the scenario's
    far, nearmic, noise; run: the engine's played, echo, send."""
    seg = {k: tuple(float(v) for v in meta[k].split(",")) for k in SEG_ORDER}
    # Alignment: send to the near-end talker (over the near-end single talk),
    # played to the far-end input.
    a, b = (int(x * FS) for x in seg["near_st"])
    lag_s, peak_s = measure_lag(sc["nearmic"][a:b], run["send"][a:b])
    send_delay = lag_s if peak_s >= 0.5 else nominal_send_delay
    lag_r, peak_r = measure_lag(sc["far"], run["played"])
    play_delay = lag_r if peak_r >= 0.5 else 0
    send = advance(run["send"], send_delay)
    played = advance(run["played"], play_delay)

    nf = min(len(sc["far"]), len(send)) // FRAME
    t = (np.arange(nf) + 0.5) * FRAME / FS

    def in_seg(k):
        return (t >= seg[k][0]) & (t < seg[k][1])

    P = {k: frame_power(v)[:nf] for k, v in (("far", sc["far"]), ("near", sc["nearmic"]),
                                              ("played", played), ("send", send))}
    near_on = db(P["near"]) > float(meta["near_db"]) - 15.0
    far_on = db(P["far"]) > float(meta["far_db"]) - 15.0
    dt = in_seg("dt") & near_on & far_on
    st = in_seg("near_st") & near_on
    far_st = in_seg("far_st") & far_on & ~near_on
    far_after = in_seg("far_after") & far_on & ~near_on

    # Band powers of the scenario's own signals are the same for every
    # engine: computed once per scenario (cached in sc).
    if "_bands" not in sc:
        sc["_bands"] = ({k: band_frame_powers(sc[v], NEAR_BANDS) for k, v in (
            ("near", "nearmic"), ("noise", "noise"))}, {k: band_frame_powers(sc[v], FAR_BANDS) for k, v in (
                ("far", "far"), ("near", "nearmic"), ("noise", "noise"))})
    nb = {k: v[:, :nf] for k, v in sc["_bands"][0].items()}
    fb = {k: v[:, :nf] for k, v in sc["_bands"][1].items()}
    nb["send"] = band_frame_powers(send, NEAR_BANDS)[:, :nf]
    nb["echo"] = band_frame_powers(run["echo"], NEAR_BANDS)[:, :nf]
    fb["send"] = band_frame_powers(send, FAR_BANDS)[:, :nf]

    a_s, g_st = send_attenuation(nb["near"], nb["send"], st, dt)
    a_r = db(P["far"][dt]) - db(P["played"][dt])
    el_bands = [j for j, i in enumerate(FAR_BANDS) if EL_LO <= CENTRES[i] <= EL_HI]
    el = band_loss(fb["far"], fb["send"], dt)[el_bands]
    floor_el = (db(np.sum(fb["far"][:, dt], axis=1)) -
                db(np.sum(fb["near"][:, dt] + fb["noise"][:, dt], axis=1)))[el_bands]
    el_st = band_loss(fb["far"], fb["send"], far_st)[el_bands]
    el_after = band_loss(fb["far"], fb["send"], far_after)[el_bands]
    worst = int(np.argmin(el))
    r = {
        "dt_frames": int(dt.sum()), "st_frames": int(st.sum()),
        "send_delay": int(send_delay), "send_delay_corr": peak_s,
        "play_delay": int(play_delay), "play_delay_corr": peak_r,
        "as_median": percentile(a_s, 50), "as_p95": percentile(a_s, 95),
        "ar_median": percentile(a_r, 50), "ar_p95": percentile(a_r, 95),
        "el_worst": float(el[worst]), "el_worst_band": NOMINAL[FAR_BANDS[el_bands[worst]]],
        "el_bands": [float(v) for v in el],
        "el_floor_worst": float(np.min(floor_el)),
        "el_st_worst": float(np.min(el_st)), "el_after_worst": float(np.min(el_after)),
        "el_st_broad": float(db(np.sum(P["far"][far_st])) - db(np.sum(P["send"][far_st]))),
        "el_after_broad": float(db(np.sum(P["far"][far_after])) - db(np.sum(P["send"][far_after]))),
        "g_st_db": [float(v) for v in g_st],
        # Floors in the near-end bands during double talk, relative to the near-end talker.
        "leak_echo_db": float(db(np.sum(nb["echo"][:, dt])) - db(np.sum(nb["near"][:, dt]))),
        "leak_noise_db": float(db(np.sum(nb["noise"][:, dt])) - db(np.sum(nb["near"][:, dt]))),
    }
    for lad in LADDERS:
        c, ts = category(r["as_p95"], r["ar_p95"], r["el_worst"], lad)
        r["cat_" + lad] = c
        r["types_" + lad] = ts
    return r


# ---------------------------------------------------------------- scenarios

def rooms(short):
    """Three rooms: short, medium and long reverberation. The echo path keeps
    `keep_ms` of the room response after the latency (the canceller spans
    about 90-120 ms). The echo at the microphone is as loud as the near-end
    talker or louder (echo return loss 4, 2 and 0 dB for a far end 6 dB
    above the near end), as in a hands-free terminal."""
    full = [
        dict(name="cat_short", title="Short reverberation", rt60=0.2, room=(3.5, 3.0, 2.4),
             spk=(1.2, 1.0, 0.8), mic=(1.5, 1.1, 0.8), near_pos=(2.4, 2.1, 1.2), latency_ms=10,
             keep_ms=80, erl_db=4, noise="pink", noise_db=-72, seed=7101,
             far_voices=[("en-us+m3", 160, 45), ("en-gb+f2", 165, 55)],
             near_voices=[("en-us+f3", 170, 55), ("en-gb+m3", 155, 40)]),
        dict(name="cat_medium", title="Medium reverberation", rt60=0.45, room=(5.0, 4.0, 2.7),
             spk=(2.0, 1.5, 1.0), mic=(2.25, 1.6, 1.0), near_pos=(3.2, 2.4, 1.3), latency_ms=20,
             keep_ms=100, erl_db=2, noise="pink", noise_db=-72, seed=7202,
             far_voices=[("en-gb+f4", 170, 60), ("en-us+m1", 150, 40)],
             near_voices=[("en+m2", 155, 40), ("en-us+f4", 175, 60)]),
        dict(name="cat_long", title="Long reverberation", rt60=0.8, room=(7.0, 5.5, 3.0),
             spk=(3.0, 2.5, 1.1), mic=(3.3, 2.6, 1.1), near_pos=(4.4, 3.6, 1.3), latency_ms=30,
             keep_ms=110, erl_db=0, noise="pink", noise_db=-72, seed=7303,
             far_voices=[("en-us+m4", 145, 35), ("en-gb+f3", 165, 50)],
             near_voices=[("en-gb+f2", 170, 55), ("en-us+m3", 160, 45)]),
    ]
    if short:
        return [dict(full[1])]
    return full


def timeline(short):
    # far single talk (convergence), double talk, near single talk, far single talk after.
    if short:
        return {"far_st": (0, 5), "dt": (5, 11), "near_st": (11, 14), "far_after": (14, 17)}
    return {"far_st": (0, 12), "dt": (12, 42), "near_st": (42, 52), "far_after": (52, 60)}


FAR_DB = -24.0     # far-end input, active level
NEAR_DB = -30.0    # near-end talker at the microphone, active level


def make_room(outdir, rm, short):
    import make_scenarios as ms
    from scipy import signal
    d = os.path.join(outdir, rm["name"])
    os.makedirs(d, exist_ok=True)
    tl = timeline(short)
    n = int(tl["far_after"][1] * FS)
    seed = rm["seed"]
    fv, nv = rm["far_voices"], rm["near_voices"]
    # Far end: voice 0 alone, voice 0 then 1 in the double talk, voice 1 after.
    far = np.zeros(n)
    dt0, dt1 = tl["dt"]
    mid = (dt0 + dt1) / 2
    for i, (v, t0, t1) in enumerate(((fv[0], tl["far_st"][0], tl["far_st"][1]), (fv[0], dt0, mid),
                                     (fv[1], mid, dt1), (fv[1], tl["far_after"][0], tl["far_after"][1]))):
        x = ms.talker(t1 - t0, v[0], v[1], v[2], seed + 10 + i, 0.0)
        far[int(t0 * FS):int(t0 * FS) + len(x)] = x
    far = ms.set_level(comb(far, FAR_BANDS), FAR_DB)
    # Near end: voice 0 then 1 in the double talk, voice 0 alone afterwards;
    # comb-filtered at the mouth, then its room path to the microphone.
    dry = np.zeros(n)
    for i, (v, t0, t1) in enumerate(((nv[0], dt0, mid), (nv[1], mid, dt1),
                                     (nv[0], tl["near_st"][0], tl["near_st"][1]))):
        x = ms.talker(t1 - t0, v[0], v[1], v[2], seed + 20 + i, 0.0)
        dry[int(t0 * FS):int(t0 * FS) + len(x)] = x
    hn = ms.image_method_rir(rm["room"], rm["near_pos"], rm["mic"], rm["rt60"], 0.1, seed + 3)
    near = signal.lfilter(hn, [1.0], comb(dry, NEAR_BANDS))
    near = ms.set_level(near, NEAR_DB)
    noise = ms.noise_of(rm["noise"], n, seed + 4) * 10 ** (rm["noise_db"] / 20)
    h1, cut = ms.echo_path(rm["room"], rm["spk"], rm["mic"], rm["rt60"], rm["latency_ms"], rm["keep_ms"],
                           rm["erl_db"], seed + 5)
    ms.write(d, "far.f32", far)
    ms.write(d, "nearmic.f32", near)
    ms.write(d, "noise.f32", noise)
    ms.write(d, "rir1.f32", h1)
    meta = dict(name=rm["name"], title=rm["title"], seconds=tl["far_after"][1], latency_ms=rm["latency_ms"],
                clip_drive=1.5, erl_db=rm["erl_db"], rt60=rm["rt60"], noise=rm["noise"],
                noise_db=rm["noise_db"], keep_ms=rm["keep_ms"], seed=seed, cut_tail_db="%.1f" % cut,
                change_s=-1, far_db=FAR_DB, near_db=NEAR_DB,
                far_voice=",".join(v[0] for v in fv), near_voice=",".join(v[0] for v in nv))
    for k in SEG_ORDER:
        meta[k] = "%g,%g" % tl[k]
    with open(os.path.join(d, "meta.txt"), "w") as f:
        for k, v in meta.items():
            f.write("%s=%s\n" % (k, v))


def read_kv(path):
    d = {}
    with open(path) as f:
        for line in f:
            if "=" in line:
                k, v = line.rstrip("\n").split("=", 1)
                d[k] = v
    return d


def load(path):
    return np.fromfile(path, dtype=np.float32).astype(np.float64)


def run_driver(driver, sdir, engine, odir):
    os.makedirs(odir, exist_ok=True)
    p = subprocess.run([driver, sdir, engine, odir], capture_output=True, text=True)
    if p.returncode != 0:
        raise RuntimeError("%s on %s failed: %s" % (engine, sdir, p.stderr))


def run_all(driver, sdir, rdir, scen, engines, jobs):
    todo = [(s, e) for s in scen for e in engines
            if not os.path.exists(os.path.join(rdir, s, e, "stats.txt"))]
    with cf.ThreadPoolExecutor(max_workers=jobs) as ex:
        for f in cf.as_completed([ex.submit(run_driver, driver, os.path.join(sdir, s), e,
                                            os.path.join(rdir, s, e)) for s, e in todo]):
            f.result()


def rate_all(sdir, rdir, scen, engines):
    res, metas = {}, {}
    for s in scen:
        meta = read_kv(os.path.join(sdir, s, "meta.txt"))
        metas[s] = meta
        sc = {k: load(os.path.join(sdir, s, k + ".f32")) for k in ("far", "nearmic", "noise")}
        for e in engines:
            d = os.path.join(rdir, s, e)
            run = {k: load(os.path.join(d, k + ".f32")) for k in ("played", "echo", "send")}
            st = read_kv(os.path.join(d, "stats.txt"))
            r = rate_run(sc, run, meta, int(st["send_delay"]))
            r["describe"] = st["describe"]
            res[(s, e)] = r
    return res, metas


# ---------------------------------------------------------------- report

LABEL = {
    "kvaec": "libkvaec default", "kvaec_fd": "libkvaec full-duplex",
    "kvaec_sendonly": "libkvaec send-only loss", "speex": "SpeexDSP AEC",
    "speex_pp": "SpeexDSP AEC + preprocess", "webrtc": "WebRTC AEC", "webrtc_ns": "WebRTC AEC + NS",
    "passthrough": "no processing",
}


def label(e):
    if e.startswith("kvaec_cfg:"):
        v = e.split(":", 1)[1].split(",")
        out = "libkvaec E %s / max %s / min %s / DTD %s" % tuple(v[:4])
        return out + (" / mode %s" % v[4] if len(v) > 4 else "")
    return LABEL.get(e, e)


def f1(x):
    return "n/a" if x is None or not np.isfinite(x) else "%.1f" % x


def table(head, rows):
    out = ["| " + " | ".join(head) + " |", "|" + "|".join("---" for _ in head) + "|"]
    out += ["| " + " | ".join(r) + " |" for r in rows]
    return "\n".join(out) + "\n"


def overall(res, scen, e, lad):
    cats = [res[(s, e)]["cat_" + lad] for s in scen]
    if "n/a" in cats:
        return "n/a"
    return TYPES[max(TYPES.index(c) for c in cats)]


def section(res, metas, scen, engines, command, short):
    L = ["## Double-talk category\n"]
    L.append("Generated by `%s`%s.\n" % (command, " (short run: one room, a smoke test, not a result)"
                                          if short else ""))
    L.append(
        "Method (`eval/category.py`): the far-end and near-end talkers occupy interleaved "
        "third-octave bands (far end: 125, 200, 315, ... 5000 Hz; near end: 100, 160, 250, ... 6300 Hz; "
        "each talker keeps the middle quarter-octave of its bands, so neighbouring bands of the two are "
        "separated by a gap). Far end at %g dBFS active level at the receive input, near end at %g dBFS "
        "at the microphone; several espeak-ng voices per talker; the closed loop of the comparison "
        "(soft-clipping loudspeaker, echo path, noise). Each room runs far-end single talk, double talk, "
        "near-end single talk and far-end single talk after the double talk. Per 20 ms frame with both "
        "talkers active (each within 15 dB of its active level): **A_S,dt**, the near-end talker's send "
        "attenuation rated against the same engine's near-end single-talk response per near-end band "
        "(a fixed send frequency response is not double-talk loss); **A_R,dt**, far-end input over the "
        "played output. Both are the 95th percentile over the double-talk frames. **Echo loss in double "
        "talk**: far-end input over send output per far-end band with its centre in 300-6700 Hz over the "
        "double-talk frames, worst band. Category: the worst criterion; hands-free ladder "
        "A_S <= 3/6/9/12 dB, A_R <= 3/5/8/10 dB, echo loss >= 27/23/17/11 dB for types 1/2a/2b/2c; the "
        "TELR-form ladder asks echo loss >= 37/33/27/21 dB. Margins are to type 1 (positive: met).\n"
        % (FAR_DB, NEAR_DB))

    L.append("### Rooms and measurement floors\n")
    L.append("Floors, measured on each room's signals over its double-talk frames: the echo at the "
             "microphone in the near-end bands (comb leakage and loudspeaker distortion) and the noise in "
             "them, relative to the near-end talker there (they bound the send attenuation that can be "
             "resolved: an engine that passes them unchanged lowers its A_S,dt by at most "
             "10 log10(1 + 10^(floor/10)) dB); the echo loss a canceller that removes all echo and passes "
             "the near end and noise unchanged would show (near end and noise in the far-end bands), "
             "worst band. The pass-through engine shows the rating of an untouched loop.\n")
    rows = []
    ref = "passthrough" if "passthrough" in engines else engines[0]
    for s in scen:
        m, r = metas[s], res[(s, ref)]
        rows.append([m["title"], "`%s`" % s, m["rt60"] + " s", m["latency_ms"] + " ms", m["keep_ms"] + " ms",
                     m["cut_tail_db"] + " dB", m["erl_db"] + " dB", "%s %s dBFS" % (m["noise"], m["noise_db"]),
                     m["far_voice"], m["near_voice"], "%d" % r["dt_frames"],
                     f1(r["leak_echo_db"]) + " dB", f1(r["leak_noise_db"]) + " dB",
                     f1(r["el_floor_worst"]) + " dB"])
    L.append(table(["room", "id", "RT60", "latency", "keep", "cut", "ERL", "noise", "far voices",
                    "near voices", "DT frames", "echo in near bands", "noise in near bands",
                    "echo-loss floor (worst band)"], rows))

    L.append("### Category per engine\n")
    rows = []
    for e in engines:
        rows.append([label(e), overall(res, scen, e, "hands-free"), overall(res, scen, e, "TELR")] +
                    ["%s / %s" % (res[(s, e)]["cat_hands-free"], res[(s, e)]["cat_TELR"]) for s in scen])
    L.append(table(["engine", "category, hands-free ladder (all rooms)", "category, TELR-form ladder (all rooms)"] +
                   ["%s (hands-free / TELR)" % metas[s]["title"] for s in scen], rows))

    for s in scen:
        L.append("### %s (`%s`)\n" % (metas[s]["title"], s))
        rows = []
        for e in engines:
            r = res[(s, e)]
            rows.append([label(e), f1(r["as_median"]), f1(r["as_p95"]), f1(r["ar_median"]), f1(r["ar_p95"]),
                         "%s (%d Hz)" % (f1(r["el_worst"]), r["el_worst_band"]),
                         f1(r["el_st_worst"]), f1(r["el_after_worst"]),
                         "/".join(r["types_hands-free"]), r["cat_hands-free"], r["cat_TELR"],
                         "%s / %s / %s / %s" % (f1(3 - r["as_p95"]), f1(3 - r["ar_p95"]), f1(r["el_worst"] - 27),
                                                f1(r["el_worst"] - 37))])
        L.append(table(["engine", "A_S,dt median", "A_S,dt p95", "A_R,dt median", "A_R,dt p95",
                        "echo loss in DT, worst band (dB)", "echo loss far single talk before DT (from the start, convergence included), worst band",
                        "after DT, worst band", "types A_S/A_R/echo loss", "category hands-free",
                        "category TELR", "margins A_S / A_R / loss-27 / loss-37 (dB)"], rows))
    return "\n".join(L)


def check_floors(res, scen, engines):
    """The pass-through loop must rate as untouched: no send or receive attenuation."""
    bad = []
    if "passthrough" in engines:
        for s in scen:
            r = res[(s, "passthrough")]
            if not abs(r["as_p95"]) < 1.0:
                bad.append("%s: pass-through A_S,dt p95 %.2f dB, expected about 0" % (s, r["as_p95"]))
            if not abs(r["ar_p95"]) < 0.1:
                bad.append("%s: pass-through A_R,dt p95 %.2f dB, expected 0" % (s, r["ar_p95"]))
            if not r["dt_frames"] > 50:
                bad.append("%s: only %d double-talk frames" % (s, r["dt_frames"]))
    return bad


# ---------------------------------------------------------------- sweep

def sweep_configs():
    """(fErlInitDb, fNlpAttMaxDb, fNlpAttMinDb, fDtdMarginDb): one field at a
    time around the defaults, and around the smaller margin."""
    d = (-10.0, 45.0, 30.0, 4.5)
    out = []
    for v in (2.0, 2.5, 3.0, 3.5, 4.0, 4.5, 6.0):
        out.append((d[0], d[1], d[2], v))
    for base in (4.5, 3.0):
        for v in (40.0, 50.0, 55.0):
            out.append((d[0], v, d[2], base))
        for v in (20.0, 25.0, 35.0):
            out.append((d[0], d[1], v, base))
        for v in (-15.0, -6.0):
            out.append((v, d[1], d[2], base))
    # Combinations near the chosen record.
    out += [(d[0], 50.0, d[2], 3.0), (d[0], 50.0, d[2], 2.5), (d[0], 50.0, d[2], 2.0), (d[0], 50.0, 25.0, 3.0),
            (d[0], 55.0, d[2], 2.5), (d[0], 55.0, 25.0, 3.0), (d[0], 60.0, d[2], 3.0), (d[0], 60.0, 25.0, 3.0),
            (d[0], 60.0, 25.0, 2.5), (d[0], 60.0, 20.0, 3.0)]
    seen, uniq = set(), []
    for c in out:
        if c not in seen:
            seen.add(c)
            uniq.append(c)
    return uniq


def cfg_id(c):
    return "kvaec_cfg:%g,%g,%g,%g" % c


def run_sweep(args, work, sdir, rdir, cat_scen):
    import evaluate as ev
    import metrics
    esdir = os.path.join(work, "eval_scenarios")
    if not os.path.isdir(esdir):
        subprocess.run([sys.executable, os.path.join(HERE, "make_scenarios.py"), esdir], check=True)
    escen = ["far_single", "path_change", "near_only", "double_talk"]
    cfgs = sweep_configs()
    engines = [cfg_id(c) for c in cfgs]
    run_all(args.driver, sdir, rdir, cat_scen, engines, args.jobs)
    erdir = os.path.join(work, "eval_runs")
    run_all(args.driver, esdir, erdir, escen, engines, args.jobs)
    res, metas = rate_all(sdir, rdir, cat_scen, engines)
    rows = []
    for c, e in zip(cfgs, engines):
        ev_res = {}
        for s in escen:
            meta = ev.read_kv(os.path.join(esdir, s, "meta.txt"))
            sigs = {k: ev.load_f32(os.path.join(esdir, s, k + ".f32")) for k in ("far", "nearmic", "noise")}
            d = os.path.join(erdir, s, e)
            st = ev.read_kv(os.path.join(d, "stats.txt"))
            sig = {k: ev.load_f32(os.path.join(d, k + ".f32")) for k in ("played", "echo", "mic", "send")}
            st["measured_delay"] = st["send_delay"]
            ev_res[s] = metrics.scenario_metrics(s, meta, metrics.Run(sigs, sig, st))
        row = {"cfg": c, "engine": e,
               "cat": overall(res, cat_scen, e, "hands-free"), "cat_telr": overall(res, cat_scen, e, "TELR"),
               "as_p95": [res[(s, e)]["as_p95"] for s in cat_scen],
               "ar_p95": [res[(s, e)]["ar_p95"] for s in cat_scen],
               "el_dt": [res[(s, e)]["el_worst"] for s in cat_scen],
               "el_after": [res[(s, e)]["el_after_worst"] for s in cat_scen],
               "erle": ev_res["far_single"]["erle_steady"],
               "echo_loss": ev_res["far_single"]["echo_loss"],
               "near_only": ev_res["near_only"]["no_near_att"],
               "dt_near": ev_res["double_talk"]["dt_near_att"],
               "epc_min": ev_res["path_change"]["epc_min_erle"],
               "epc_rec": ev_res["path_change"]["epc_recovery"],
               "epc_erle": ev_res["path_change"]["erle_steady"]}
        rows.append(row)
    with open(os.path.join(work, "sweep.json"), "w") as f:
        json.dump(rows, f, indent=1, default=float)
    return rows, metas


def sweep_section(rows, metas, cat_scen, command):
    L = ["### Configuration sweep\n",
         "Generated by `%s`. Each configuration is the defaults with the four fields shown replaced; "
         "category and double-talk figures from the category rooms (%s), single-talk figures from the "
         "comparison's scenarios: steady ERLE and total echo loss in far-end single talk (`far_single`), "
         "near-end attenuation with the far end silent (`near_only`), lowest ERLE in the 2 s after an "
         "echo-path change and the recovery time (`path_change`).\n"
         % (command, ", ".join(metas[s]["title"].lower() for s in cat_scen))]
    head = ["fErlInitDb", "fNlpAttMaxDb", "fNlpAttMinDb", "fDtdMarginDb", "category (hands-free / TELR)",
            "A_S,dt p95 per room", "A_R,dt p95 per room", "echo loss in DT per room", "steady ERLE",
            "total echo loss", "near end alone", "ERLE after path change, lowest", "recovery"]
    out = []
    for r in rows:
        c = r["cfg"]
        out.append(["%g" % c[0], "%g" % c[1], "%g" % c[2], "%g" % c[3], "%s / %s" % (r["cat"], r["cat_telr"]),
                    " / ".join(f1(v) for v in r["as_p95"]), " / ".join(f1(v) for v in r["ar_p95"]),
                    " / ".join(f1(v) for v in r["el_dt"]), f1(r["erle"]), f1(r["echo_loss"]),
                    f1(r["near_only"]), f1(r["epc_min"]),
                    "never" if not np.isfinite(r["epc_rec"]) else "%.2f s" % r["epc_rec"]])
    L.append(table(head, out))
    return "\n".join(L)


# ---------------------------------------------------------------- main

def splice(path, name, text):
    """Puts text between the markers <!-- NAME:begin --> and <!-- NAME:end -->
    of the Markdown file at path (appended with its markers when absent)."""
    b, e = "<!-- %s:begin -->" % name, "<!-- %s:end -->" % name
    old = open(path).read() if os.path.exists(path) else ""
    block = "%s\n%s\n%s" % (b, text.rstrip("\n"), e)
    if b in old and e in old:
        new = old[:old.index(b)] + block + old[old.index(e) + len(e):]
    else:
        new = old.rstrip("\n") + ("\n\n" if old else "") + block + "\n"
    tmp = path + ".tmp"
    with open(tmp, "w") as f:
        f.write(new)
    os.replace(tmp, path)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--driver", required=True)
    ap.add_argument("--work", required=True)
    ap.add_argument("--short", action="store_true")
    ap.add_argument("--engines", help="engine ids separated by spaces (default: every engine of the driver)")
    ap.add_argument("--section", help="write the Markdown section here (default WORK/category.md)")
    ap.add_argument("--sweep", action="store_true", help="also run the configuration sweep")
    ap.add_argument("--splice", help="also put the section between its markers in this Markdown file")
    ap.add_argument("--splice-sweep", help="put the sweep table between its markers in this Markdown file")
    ap.add_argument("--jobs", type=int, default=2)
    ap.add_argument("--command", default="scripts/evaluate --dt-category")
    args = ap.parse_args()
    work = os.path.abspath(args.work)
    sdir, rdir = os.path.join(work, "cat_scenarios"), os.path.join(work, "cat_runs")
    scen = [rm["name"] for rm in rooms(args.short)]
    for rm in rooms(args.short):
        if not os.path.exists(os.path.join(sdir, rm["name"], "meta.txt")):
            make_room(sdir, rm, args.short)
    engines = args.engines.split() if args.engines else subprocess.run(
        [args.driver, "--list"], capture_output=True, text=True, check=True).stdout.split()
    run_all(args.driver, sdir, rdir, scen, engines, args.jobs)
    res, metas = rate_all(sdir, rdir, scen, engines)
    text = section(res, metas, scen, engines, args.command, args.short)
    sweep_text = ""
    if args.sweep:
        rows, _ = run_sweep(args, work, sdir, rdir, scen)
        sweep_text = sweep_section(rows, metas, scen, args.command)
    with open(args.section or os.path.join(work, "category.md"), "w") as f:
        f.write(text + ("\n" + sweep_text if sweep_text else ""))
    if args.splice:
        splice(args.splice, "dt-category", text)
    if args.splice_sweep and sweep_text:
        splice(args.splice_sweep, "dt-category-sweep", sweep_text)
    # Console summary with the floors, so that nobody mistakes a floor for a result.
    for s in scen:
        r0 = res[(s, engines[-1])] if "passthrough" not in engines else res[(s, "passthrough")]
        print("%s: floors: echo in near bands %.1f dB, noise in near bands %.1f dB (re near end); "
              "echo-loss floor %.1f dB (worst band)" % (s, r0["leak_echo_db"], r0["leak_noise_db"],
                                                        r0["el_floor_worst"]))
        for e in engines:
            r = res[(s, e)]
            print("  %-28s A_S p95 %5.1f  A_R p95 %5.1f  EL_dt %5.1f (%d Hz)  -> %s / TELR %s"
                  % (label(e)[:28], r["as_p95"], r["ar_p95"], r["el_worst"], r["el_worst_band"],
                     r["cat_hands-free"], r["cat_TELR"]))
    bad = check_floors(res, scen, engines)
    for b in bad:
        print("CHECK FAILED:", b, file=sys.stderr)
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
