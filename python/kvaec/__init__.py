"""Python binding of libkvaec, the sub-band acoustic echo canceller.

Loads the shared library with ctypes and works on numpy arrays of float32
samples at 16 kHz, full scale +-1.

The library holds one global canceller instance, so this binding allows one
live :class:`Canceller` at a time; creating a second one raises
:class:`CancellerBusyError` until the first is closed.

Where the library is looked for, in this order:
  1. the environment variable ``KVAEC_LIB`` (path of libkvaec.so);
  2. ``libkvaec.so`` next to this package (``python/kvaec/``);
  3. the build directories ``build*/`` of the source tree.

Example::

    import numpy as np, kvaec
    out = kvaec.process(far, mic)              # offline, arrays in, array out
    out = kvaec.process(far, mic, preset="default")   # AEC_DefaultCfg instead of
                                               # the full-duplex preset
    with kvaec.Canceller(kvaec.Config(fNrLevelDb=0.5)) as c:
        send, played = c.process_frame(rin_frame, sin_frame)
"""
import ctypes
import glob
import os

import numpy as np

__all__ = [
    "Config", "PRESETS", "DEFAULT_PRESET", "preset_config", "Canceller", "CancellerBusyError", "process", "simulate", "estimate_delay",
    "load_library", "FRAME", "RATE", "MODE_BYPASS", "MODE_FREEZE", "MODE_SEND_ONLY_LOSS",
    "MODE_NO_NLP", "MODE_NO_NR", "MODE_NO_HIPASS", "MODE_LOOPBACK",
]

FRAME = 160          # samples per frame (10 ms)
RATE = 16000         # sample rate, Hz
RIN_DELAY = 40       # receive-path delay through the library, samples
SIN_DELAY = 120      # send-path delay through the library, samples

CMD_RESET = 0x1
CMD_KEEP_FILTERS = 0x2
CMD_SET_NLP_PARAM = 0x4
CMD_LOAD_CFG = 0x8
MODE_BYPASS = 0x10
MODE_FREEZE = 0x20
MODE_SEND_ONLY_LOSS = 0x40
MODE_NO_NLP = 0x100
MODE_NO_NR = 0x200
MODE_NO_HIPASS = 0x400
MODE_LOOPBACK = 0x2000


class CancellerBusyError(RuntimeError):
    """A second canceller was requested while one is live."""


class _Cfg(ctypes.Structure):
    _fields_ = [("fErlInitDb", ctypes.c_float), ("fNlpAttMaxDb", ctypes.c_float),
                ("fNlpAttMinDb", ctypes.c_float), ("fDtdMarginDb", ctypes.c_float),
                ("fLevelFloorDb", ctypes.c_float), ("fNrLevelDb", ctypes.c_float),
                ("fRinLevelRefDb", ctypes.c_float), ("iProfile", ctypes.c_int32)]


# Persistent record: three store pointers, then 32-bit words. Word offsets
# after the pointers of the fields read here (the record's own word numbers
# minus 3).
_DB_WORDS_AFTER_POINTERS = 3469
_W_EPC_DB = 3453 - 3
_W_ADAPT_TIME = 3454 - 3
_W_TD_ALARM_DB = 3458 - 3
_W_FLAGS = 3460 - 3
_W_DOUBLE_TALK = 3461 - 3
_W_CFG = 3464 - 3


class _Db(ctypes.Structure):
    _fields_ = [("pafRef", ctypes.c_void_p), ("pafAdf", ctypes.c_void_p), ("pafAds", ctypes.c_void_p),
                ("words", ctypes.c_uint32 * _W_CFG), ("tCfg", _Cfg)]


_CFG_FIELDS = [f for f, _ in _Cfg._fields_]


class Config:
    """The configuration record (``AEC_tCfg``) with the library's field names.

    Unnamed fields take the library's defaults (``AEC_DefaultCfg``).
    """

    def __init__(self, **fields):
        d = _default_cfg()
        for name in _CFG_FIELDS:
            setattr(self, name, getattr(d, name))
        for k, v in fields.items():
            if k not in _CFG_FIELDS:
                raise TypeError(f"unknown configuration field {k!r}; fields: {', '.join(_CFG_FIELDS)}")
            setattr(self, k, v)

    def _to_c(self):
        c = _Cfg()
        for name in _CFG_FIELDS:
            setattr(c, name, int(getattr(self, name)) if name == "iProfile" else float(getattr(self, name)))
        return c

    @classmethod
    def _from_c(cls, c):
        return cls(**{name: getattr(c, name) for name in _CFG_FIELDS})

    def as_dict(self):
        return {name: getattr(self, name) for name in _CFG_FIELDS}

    def __eq__(self, other):
        return isinstance(other, Config) and self._to_c_tuple() == other._to_c_tuple()

    def _to_c_tuple(self):
        c = self._to_c()
        return tuple(getattr(c, n) for n in _CFG_FIELDS)

    def __repr__(self):
        return "Config(" + ", ".join(f"{k}={v!r}" for k, v in self.as_dict().items()) + ")"


PRESETS = ("default", "full-duplex")
# Library record behind each preset name.
_PRESET_SYMBOL = {"default": "AEC_DefaultCfg", "full-duplex": "kvaec_full_duplex_cfg"}


_lib = None


def _candidates():
    env = os.environ.get("KVAEC_LIB")
    if env:
        yield env
        return
    here = os.path.dirname(os.path.abspath(__file__))
    yield os.path.join(here, "libkvaec.so")
    root = os.path.dirname(os.path.dirname(here))
    for p in sorted(glob.glob(os.path.join(root, "build*", "libkvaec.so"))):
        yield p


def load_library():
    """Loads libkvaec once and returns the ctypes handle."""
    global _lib
    if _lib is not None:
        return _lib
    tried = []
    for path in _candidates():
        tried.append(path)
        if os.path.exists(path):
            lib = ctypes.CDLL(path)
            break
    else:
        raise OSError("libkvaec.so not found (tried: " + ", ".join(tried) +
                      "); build the library or set KVAEC_LIB to its path")
    fp = ctypes.POINTER(ctypes.c_float)
    lib.aecx_init.argtypes = [ctypes.POINTER(_Cfg)]
    lib.aecx_init.restype = None
    lib.aecx_control.argtypes = [ctypes.c_uint, ctypes.POINTER(_Cfg), ctypes.c_float]
    lib.aecx_control.restype = None
    lib.aecx_bist.argtypes = []
    lib.aecx_bist.restype = ctypes.c_int
    lib.aecx_process.argtypes = [fp, fp]
    lib.aecx_process.restype = None
    lib.aecx_spkeq.argtypes = [fp]
    lib.aecx_spkeq.restype = None
    lib.aecx_miceq.argtypes = [fp]
    lib.aecx_miceq.restype = None
    _lib = lib
    return lib


def _default_cfg():
    return _Cfg.in_dll(load_library(), "AEC_DefaultCfg")


def preset_config(name):
    """The configuration of a preset: "default" (``AEC_DefaultCfg``) or
    "full-duplex" (``kvaec_full_duplex_cfg``: keeps the near-end talker in
    double talk; see docs/tuning.md)."""
    if name not in _PRESET_SYMBOL:
        raise ValueError(f"unknown preset {name!r}; presets: {', '.join(PRESETS)}")
    return Config._from_c(_Cfg.in_dll(load_library(), _PRESET_SYMBOL[name]))


# Preset used when neither config nor preset is given: "full-duplex" for
# live and offline use alike (measured: double-talk category type 1 where
# the defaults reach 2a, more single-talk echo loss; see docs/tuning.md).
DEFAULT_PRESET = "full-duplex"


def _config_of(config, preset):
    """The record a host call loads: `config` if given, else the preset's
    (None: DEFAULT_PRESET)."""
    if config is not None and preset is not None:
        raise ValueError("give either config or preset, not both "
                         "(start from kvaec.preset_config(name) to change fields of a preset)")
    if config is not None:
        return config
    return preset_config(preset if preset is not None else DEFAULT_PRESET)


_live = None  # the live Canceller, if any


class Canceller:
    """The library's one canceller instance, frame by frame.

    ``mode`` is the mode word (``MODE_*`` bits). ``config`` is a
    :class:`Config`, or ``preset`` names one ("default" or "full-duplex";
    neither given: "full-duplex"). Use as a context manager or call
    :meth:`close`; only one Canceller may be live at a time.
    """

    def __init__(self, config=None, mode=0, nlp_param=None, equalizers=True, preset=None):
        global _live
        if _live is not None:
            raise CancellerBusyError(
                "libkvaec holds a single global canceller and one is already live "
                f"({_live!r}); close it (or leave its 'with' block) before creating another")
        self._lib = load_library()
        self.config = _config_of(config, preset)
        self.equalizers = equalizers
        self._mode = int(mode) & ~0xF
        cfg = self.config._to_c()
        self._lib.aecx_init(ctypes.byref(cfg))
        flags = self._mode | (CMD_SET_NLP_PARAM if nlp_param is not None else 0)
        self._lib.aecx_control(flags, None, float(nlp_param or 0.0))
        self._db = _Db.in_dll(self._lib, "AEC_Db")
        self._rin = np.zeros(FRAME, np.float32)
        self._sin = np.zeros(FRAME, np.float32)
        self.resets = []   # (frame, non-finite output samples, self-test count)
        self.frames = 0
        self._closed = False
        _live = self

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def close(self):
        global _live
        if not self._closed:
            self._closed = True
            if _live is self:
                _live = None

    def __del__(self):
        try:
            self.close()
        except Exception:
            pass

    def _check(self):
        if self._closed:
            raise RuntimeError("this canceller is closed")

    @property
    def mode(self):
        return self._mode

    @mode.setter
    def mode(self, value):
        self._check()
        self._mode = int(value) & ~0xF
        self._lib.aecx_control(self._mode, None, 0.0)

    def load_config(self, config):
        """Loads a configuration (takes effect at the next frame)."""
        self._check()
        self.config = config
        cfg = config._to_c()
        self._lib.aecx_control(CMD_LOAD_CFG | self._mode, ctypes.byref(cfg), 0.0)

    def active_config(self):
        """The configuration record in force inside the library."""
        self._check()
        return Config._from_c(self._db.tCfg)

    def reset(self, keep_filters=False):
        self._check()
        self._lib.aecx_control(CMD_RESET | (CMD_KEEP_FILTERS if keep_filters else 0) | self._mode, None, 0.0)

    def bist(self):
        self._check()
        return int(self._lib.aecx_bist())

    def state(self):
        """A few per-frame figures of the instance (double talk, alarms, adaptation)."""
        self._check()
        w = self._db.words
        f = lambda i: ctypes.c_float.from_buffer_copy(ctypes.c_uint32(w[i])).value
        return {"double_talk": int(ctypes.c_int32(w[_W_DOUBLE_TALK]).value), "epc_db": f(_W_EPC_DB),
                "td_alarm_db": f(_W_TD_ALARM_DB), "adapt_time": f(_W_ADAPT_TIME), "mode": int(w[_W_FLAGS])}

    def process_frame(self, rin, sin):
        """Processes one frame (160 samples per path); returns (send, played).

        Runs the microphone equalizer before and the loudspeaker equalizer
        after the canceller when ``equalizers`` is true. Non-finite outputs
        and a failing self-test (once a second) reset the canceller with the
        mode word kept; non-finite output samples become 0.
        """
        self._check()
        self._rin[:] = rin
        self._sin[:] = sin
        fp = ctypes.POINTER(ctypes.c_float)
        prin = self._rin.ctypes.data_as(fp)
        psin = self._sin.ctypes.data_as(fp)
        if self.equalizers:
            self._lib.aecx_miceq(psin)
        self._lib.aecx_process(prin, psin)
        bad = int(np.count_nonzero(~np.isfinite(self._rin)) + np.count_nonzero(~np.isfinite(self._sin)))
        bist = self._lib.aecx_bist() if (self.frames + 1) % 100 == 0 else -1
        if bad or bist > 0:
            np.nan_to_num(self._rin, copy=False, nan=0.0, posinf=0.0, neginf=0.0)
            np.nan_to_num(self._sin, copy=False, nan=0.0, posinf=0.0, neginf=0.0)
            if bist < 0:
                bist = self._lib.aecx_bist()
            self._lib.aecx_control(CMD_RESET | self._mode, None, 0.0)
            self.resets.append((self.frames, bad, int(bist)))
        if self.equalizers:
            self._lib.aecx_spkeq(prin)
        self.frames += 1
        return self._sin.copy(), self._rin.copy()

    def __repr__(self):
        return f"<kvaec.Canceller mode=0x{self._mode:x} frames={self.frames}{' closed' if self._closed else ''}>"


def _as_signal(x, name):
    a = np.asarray(x, dtype=np.float32)
    if a.ndim != 1:
        raise ValueError(f"{name} must be a one-dimensional array of samples (pick a channel first)")
    return a


def estimate_delay(far, mic, max_delay_ms=500.0, seconds=5.0):
    """Bulk delay (samples) of the echo in ``mic`` behind ``far``, by GCC-PHAT on
    the first ``seconds`` with far-end activity; None when the far end is silent."""
    far = _as_signal(far, "far").astype(np.float64)
    mic = _as_signal(mic, "mic").astype(np.float64)
    n = len(far) // FRAME
    if n == 0:
        return None
    lev = 10 * np.log10(np.mean(far[: n * FRAME].reshape(n, FRAME) ** 2, axis=1) + 1e-30)
    thr = max(-60.0, lev.max() - 40.0)
    active = np.nonzero(lev > thr)[0]
    if len(active) == 0:
        return None
    start = int(active[0]) * FRAME
    max_delay = int(max_delay_ms * RATE / 1000)
    x = far[start: start + int(seconds * RATE)]
    y = mic[start: start + len(x) + max_delay]
    nfft = 1 << int(np.ceil(np.log2(len(x) + len(y))))
    g = np.fft.rfft(y, nfft) * np.conj(np.fft.rfft(x, nfft))
    m = np.abs(g)
    g = np.where(m > m.max() * 1e-6, g / np.maximum(m, 1e-300), 0)
    r = np.abs(np.fft.irfft(g, nfft)[: max_delay + 1])
    return int(np.argmax(r))


def process(far, mic, config=None, mode=0, delay="auto", delay_margin_ms=2.0, nlp_param=None,
            equalizers=True, preset=None):
    """Offline echo cancellation of a microphone recording made while ``far``
    played, both 1-D arrays at 16 kHz. Works like ``kvaec process``: all loss
    on the send path (``MODE_SEND_ONLY_LOSS`` always set), the far end or the
    microphone delayed so that the echo lands ``delay_margin_ms`` behind the
    library's reference, outputs realigned.

    ``preset``: "default" or "full-duplex" instead of ``config`` (neither
    given: "full-duplex").
    ``delay``: "auto" (estimated) or milliseconds. Returns a dict with
    ``out`` (send signal aligned with ``mic``), ``played`` (receive output
    aligned with ``far``), ``delay`` (bulk delay in samples) and ``resets``.
    """
    far = _as_signal(far, "far")
    mic = _as_signal(mic, "mic")
    if delay == "auto":
        bulk = estimate_delay(far, mic)
        bulk = 0 if bulk is None else bulk
    else:
        bulk = int(round(float(delay) * RATE / 1000))
        if bulk < 0:
            raise ValueError("delay must be 'auto' or a non-negative number of milliseconds")
    s = bulk - RIN_DELAY - int(round(delay_margin_ms * RATE / 1000))
    far_shift, mic_shift = max(s, 0), max(-s, 0)
    need = max(len(mic) + SIN_DELAY + mic_shift, len(far) + RIN_DELAY + far_shift)
    frames = -(-need // FRAME)
    fin = np.zeros(frames * FRAME, np.float32)
    fin[far_shift: far_shift + len(far)] = far[: frames * FRAME - far_shift]
    min_ = np.zeros(frames * FRAME, np.float32)
    min_[mic_shift: mic_shift + len(mic)] = mic[: frames * FRAME - mic_shift]
    send = np.zeros_like(fin)
    played = np.zeros_like(fin)
    with Canceller(config, mode | MODE_SEND_ONLY_LOSS, nlp_param, equalizers, preset) as c:
        for k in range(frames):
            sl = slice(k * FRAME, (k + 1) * FRAME)
            send[sl], played[sl] = c.process_frame(fin[sl], min_[sl])
        resets = list(c.resets)
    out = np.zeros(len(mic), np.float32)
    src = send[SIN_DELAY + mic_shift:]
    out[: min(len(mic), len(src))] = src[: len(mic)]
    pl = np.zeros(len(far), np.float32)
    src = played[RIN_DELAY + far_shift:]
    pl[: min(len(far), len(src))] = src[: len(far)]
    return {"out": out, "played": pl, "delay": bulk, "resets": resets}


def simulate(far, near=None, echo_path=None, latency_frames=1, config=None, mode=0,
             nonlinear=0.0, equalizers=True, preset=None):
    """Closed loop: ``far`` goes through the canceller to the loudspeaker; the
    echo is ``echo_path`` (FIR, default a 0.5 tap 2 ms late) applied to what
    the library played, ``latency_frames`` whole frames later (at least one),
    optionally through a soft-clipping loudspeaker tanh(d x)/d; the microphone
    takes echo plus ``near``. ``preset``: "default" or "full-duplex" instead
    of ``config`` (neither given: "full-duplex").

    Returns a dict of arrays: ``mic``, ``send``, ``played``, ``echo`` and a
    per-frame ``double_talk`` flag, plus ``resets``.
    """
    far = _as_signal(far, "far")
    n = len(far) // FRAME * FRAME
    far = far[:n]
    near = np.zeros(n, np.float32) if near is None else _as_signal(near, "near")[:n]
    if len(near) < n:
        near = np.concatenate([near, np.zeros(n - len(near), np.float32)])
    h = np.zeros(33, np.float64) if echo_path is None else np.asarray(echo_path, np.float64)
    if echo_path is None:
        h[32] = 0.5
    lat = max(1, int(latency_frames)) * FRAME
    hist = np.zeros(lat + len(h) + n, np.float64)  # played (through the loudspeaker), with lead-in
    out = {k: np.zeros(n, np.float32) for k in ("mic", "send", "played", "echo")}
    dt = np.zeros(n // FRAME, np.int32)
    with Canceller(config, mode, None, equalizers, preset) as c:
        off = lat + len(h)  # hist index of played sample 0
        for k in range(n // FRAME):
            sl = slice(k * FRAME, (k + 1) * FRAME)
            # Echo sample m sees played samples m - lat - i, i = 0..len(h)-1.
            seg = hist[off + k * FRAME - lat - len(h) + 1: off + (k + 1) * FRAME - lat]
            echo = np.convolve(seg, h, mode="valid").astype(np.float32)
            mic = (echo + near[sl]).astype(np.float32)
            send, played = c.process_frame(far[sl], mic)
            p = played.astype(np.float64)
            if nonlinear > 0:
                p = np.tanh(nonlinear * p) / nonlinear
            hist[off + k * FRAME: off + (k + 1) * FRAME] = p
            out["mic"][sl], out["send"][sl], out["played"][sl], out["echo"][sl] = mic, send, played, echo
            dt[k] = c.state()["double_talk"]
        out["resets"] = list(c.resets)
    out["double_talk"] = dt
    return out
