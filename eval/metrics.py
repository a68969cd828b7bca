"""Metrics of the closed-loop comparison: the same code for every engine.

All levels are power levels in dBFS (10 log10 of the mean square; a
full-scale sine is -3 dBFS). Frames are 10 ms (160 samples at 16 kHz).
The send signal is aligned to the microphone by the engine's send delay,
measured here by cross-correlation of microphone and send signals.
"""
import numpy as np

FS = 16000
N = 160
EPS = 1e-20

# Activity thresholds on frame power (dBFS). The far and near talkers sit at
# -24 and -30 dBFS active level; their pauses are digital silence.
ECHO_ACTIVE_DB = -60.0
NEAR_ACTIVE_DB = -60.0
NEAR_ABSENT_DB = -80.0
FAR_ACTIVE_DB = -55.0
ERLE_WIN = 25          # frames (250 ms) per point of the ERLE curve
ERLE_MIN_FRAMES = 8    # fewest single-talk frames a point needs


def db(x):
    return 10.0 * np.log10(np.maximum(x, EPS))


def frame_power(x):
    n = len(x) // N
    return np.mean(x[: n * N].reshape(n, N).astype(np.float64) ** 2, axis=1)


def measure_delay(near, send, max_lag=480):
    """Lag (samples) at which the send signal best matches the clean near-end:
    the peak of the normalised cross-correlation over 0..max_lag. Returns
    (lag, peak correlation); a weak peak means the engine removed or changed
    the near-end too much for the lag to be trusted."""
    m = near.astype(np.float64)
    s = send.astype(np.float64)
    n = min(len(m), len(s))
    m, s = m[:n], s[:n]
    F = 1 << int(np.ceil(np.log2(2 * n)))
    c = np.fft.irfft(np.conj(np.fft.rfft(m, F)) * np.fft.rfft(s, F), F)[: max_lag + 1]
    c /= np.sqrt(np.sum(m ** 2) * np.sum(s ** 2)) + EPS
    lag = int(np.argmax(np.abs(c)))
    return lag, float(abs(c[lag]))


def shift(x, d):
    """x advanced by d samples (zero-padded at the end)."""
    if d == 0:
        return x.astype(np.float64)
    return np.concatenate([x[d:], np.zeros(d)]).astype(np.float64)


class Run:
    """One engine on one scenario: signals, frame powers and masks."""

    def __init__(self, sc, sig, stats):
        self.sc = sc
        self.stats = stats
        self.far = sc["far"]
        self.near = sc["nearmic"]
        self.noise = sc["noise"]
        self.echo = sig["echo"]
        self.mic = sig["mic"]
        self.played = sig["played"]
        self.delay = int(stats.get("measured_delay", stats["send_delay"]))
        self.send = shift(sig["send"], self.delay)
        self.P = {k: frame_power(v) for k, v in (
            ("far", self.far), ("near", self.near), ("noise", self.noise), ("echo", self.echo),
            ("mic", self.mic), ("played", self.played), ("send", self.send))}
        nf = min(len(v) for v in self.P.values())
        self.P = {k: v[:nf] for k, v in self.P.items()}
        self.nf = nf
        self.t = (np.arange(nf) + 0.5) * N / FS
        self.echo_on = db(self.P["echo"]) > ECHO_ACTIVE_DB
        self.near_on = db(self.P["near"]) > NEAR_ACTIVE_DB
        self.near_off = db(self.P["near"]) < NEAR_ABSENT_DB
        self.far_on = db(self.P["far"]) > FAR_ACTIVE_DB
        # Far-end single talk: echo present, no near-end talker.
        self.fst = self.echo_on & self.near_off

    def frames(self, t0, t1):
        m = np.zeros(self.nf, bool)
        m[int(round(t0 * FS / N)):int(round(t1 * FS / N))] = True
        return m

    def ratio_db(self, num, den, mask):
        if not np.any(mask):
            return float("nan")
        return float(db(np.sum(self.P[num][mask])) - db(np.sum(self.P[den][mask])))

    def level_db(self, key, mask):
        if not np.any(mask):
            return float("nan")
        return float(db(np.mean(self.P[key][mask])))

    # ---- echo cancellation
    def erle_curve(self):
        """ERLE over time: echo power at the microphone over send power,
        summed over the far-end single-talk frames of a trailing 250 ms
        window; NaN where the window has too few such frames."""
        e = np.where(self.fst, self.P["echo"], 0.0)
        s = np.where(self.fst, self.P["send"], 0.0)
        # Trailing window: the point at frame k covers frames k-24..k, so
        # times read off the curve never look ahead.
        k = np.ones(ERLE_WIN)
        ce = np.convolve(e, k)[: self.nf]
        cs = np.convolve(s, k)[: self.nf]
        cnt = np.convolve(self.fst.astype(float), k)[: self.nf]
        out = db(ce) - db(cs)
        out[cnt < ERLE_MIN_FRAMES] = np.nan
        return out

    def erle_db(self, t0, t1):
        return self.ratio_db("echo", "send", self.fst & self.frames(t0, t1))

    def time_to(self, curve, level, t_start):
        """Seconds from t_start until the ERLE curve first reaches `level`."""
        idx = np.where((self.t >= t_start) & (curve >= level))[0]
        return float(self.t[idx[0]] - t_start) if len(idx) else float("nan")

    def total_echo_loss_db(self, t0, t1):
        """Far-end input over send output in far-end single talk."""
        return self.ratio_db("far", "send", self.fst & self.far_on & self.frames(t0, t1))

    def receive_att_db(self, mask):
        """Far-end input over played output, frames with far-end signal."""
        return self.ratio_db("far", "played", mask & self.far_on)

    # ---- near-end quality
    def near_fit(self, t0, t1, taps=17, block_s=1.0):
        """Least-squares fit of the clean near-end (as at the microphone) onto
        the aligned send signal: a 17-tap FIR around the measured delay,
        refitted for every 1 s block. Returns (near-end attenuation dB,
        signal-to-distortion ratio dB) over the near-end-active frames:
        attenuation = near power / fitted-component power, SDR = fitted
        component / (send - fitted component). Everything not explained by a
        short linear filter of the near-end (residual echo, noise, gain
        switching, non-linear distortion) counts as distortion."""
        half = taps // 2
        a, b = int(t0 * FS), int(t1 * FS)
        b = min(b, len(self.send) - half, len(self.near) - half)
        a = max(a, half)
        num_near = num_fit = num_res = 0.0
        act = np.repeat(self.near_on, N)
        blk = int(block_s * FS)
        for s0 in range(a, b, blk):
            s1 = min(b, s0 + blk)
            if s1 - s0 < FS // 4:
                continue
            X = np.stack([self.near[s0 - j + half:s1 - j + half] for j in range(taps)], axis=1).astype(np.float64)
            y = self.send[s0:s1]
            m = act[s0:s1]
            if m.sum() < FS // 10:
                continue
            h, *_ = np.linalg.lstsq(X[m], y[m], rcond=None)
            fit = X[m] @ h
            num_near += np.sum(self.near[s0:s1][m].astype(np.float64) ** 2)
            num_fit += np.sum(fit ** 2)
            num_res += np.sum((y[m] - fit) ** 2)
        if num_near == 0:
            return float("nan"), float("nan")
        return float(db(num_near) - db(num_fit)), float(db(num_fit) - db(num_res))


def parse_pair(s):
    a, b = s.split(",")
    return float(a), float(b)


def scenario_metrics(name, meta, run):
    """The figures of one run, keyed by metric name (NaN when not defined)."""
    r = {}
    curve = run.erle_curve()
    r["erle_curve"] = curve
    if "steady_t" in meta:
        s0, s1 = parse_pair(meta["steady_t"])
        r["erle_steady"] = run.erle_db(s0, s1)
        r["echo_loss"] = run.total_echo_loss_db(s0, s1)
        r["rx_att_st"] = run.receive_att_db(run.fst & run.frames(s0, s1))
        first = run.t[np.argmax(run.echo_on)] if run.echo_on.any() else 0.0
        for lvl in (10, 20, 30):
            r["t%d" % lvl] = run.time_to(curve, lvl, first)
    if "after_t" in meta:
        a0, a1 = parse_pair(meta["after_t"])
        r["erle_after"] = run.erle_db(a0, a1)
    if "dt_t" in meta:
        d0, d1 = parse_pair(meta["dt_t"])
        att, sdr = run.near_fit(d0, d1)
        r["dt_near_att"] = att
        r["dt_sdr"] = sdr
        m = run.frames(d0, d1)
        r["dt_rx_att"] = run.receive_att_db(m & run.near_on)
        r["dt_send_db"] = run.level_db("send", m & run.near_on)
    if float(meta.get("change_s", -1)) >= 0:
        c = float(meta["change_s"])
        pre = r.get("erle_steady", float("nan"))
        post = curve[(run.t >= c) & (run.t < c + 2.0)]
        r["epc_min_erle"] = float(np.nanmin(post)) if np.any(np.isfinite(post)) else float("nan")
        r["epc_loss_2s"] = run.total_echo_loss_db(c, c + 2.0)
        # Recovery: first time after the change from which the ERLE curve
        # stays within 3 dB of the pre-change steady state for 1 s (NaN-gaps
        # of the curve do not break the second).
        ok = (curve >= pre - 3.0) | np.isnan(curve)
        valid = np.isfinite(curve)
        rec = float("nan")
        # Without a converged state before the change there is nothing to recover.
        if not pre >= 10.0:
            ok = np.zeros_like(ok)
        for i in np.where((run.t >= c) & valid & ok)[0]:
            j = i + int(FS / N)
            if j <= run.nf and ok[i:j].all():
                rec = float(run.t[i] - c)
                break
        r["epc_recovery"] = rec
    if "tone_t" in meta:
        t0, t1 = parse_pair(meta["tone_t"])
        m = run.frames(t0, t1)
        r["tone_erle"] = run.ratio_db("echo", "send", m & run.echo_on)
        r["tone_send_db"] = run.level_db("send", m)
        r["tone_rx_att"] = run.receive_att_db(m)
        r["tone_echo_loss"] = run.ratio_db("far", "send", m & run.echo_on)
    if name == "near_only":
        n0, n1 = parse_pair(meta["near_t"])
        att, sdr = run.near_fit(n0, n1)
        r["no_near_att"] = att
        r["no_sdr"] = sdr
        pauses = run.near_off & run.frames(n0, n1)
        r["no_noise_in"] = run.level_db("mic", pauses)
        r["no_noise_out"] = run.level_db("send", pauses)
    if name == "silence":
        allf = run.frames(1.0, 1e9)
        r["sil_in"] = run.level_db("mic", allf)
        r["sil_out"] = run.level_db("send", allf)
    return r
