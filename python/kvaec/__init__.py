"""Python binding of libkvaec, the sub-band acoustic echo canceller.

Loads the shared library with ctypes and works on numpy arrays of float32
samples at 16 kHz, full scale +-1.

The library holds one global canceller instance, so this binding allows one
live :class:`Canceller` at a time; creating a second one raises
:class:`CancellerBusyError` until the first is closed. Creation is atomic:
of several threads creating a Canceller at once exactly one succeeds.

Threads: every call into the library holds one package-wide lock, so calls
on a shared :class:`Canceller` from several threads are serialised: each
call runs whole and returns the output of its own input. Two threads feeding
two different streams through one Canceller still share its adaptive state
(they cancel each other's echo badly); give each stream its own turn.

Samples: float arrays (any float dtype) are taken as samples of full scale
1.0. Integer PCM arrays, as ``scipy.io.wavfile.read`` returns them, are
scaled to full scale 1.0: int16 divided by 32768, int32 by 2147483648,
uint8 as (x - 128) / 128. Other dtypes are refused with ``TypeError``.

Configurations are checked by the library (``kvaec_cfg_check``): a field
outside its documented range raises ``ValueError`` naming the field and its
range, when the :class:`Config` is made and again before it is loaded.

The delay estimation is the one of the ``kvaec`` tool: libkvaec_host, found
next to libkvaec (or through ``KVAEC_HOST_LIB``).

Where the library is looked for, in this order:
  1. the environment variable ``KVAEC_LIB`` (path of libkvaec.so);
  2. the installed library: ``ctypes.util.find_library("kvaec")`` (the
     linker's search path), then the ``libdir`` pkg-config gives for
     ``kvaec`` (set ``PKG_CONFIG_PATH`` for a private prefix);
  3. the build directories ``build*/`` of the source tree this package sits in.

Example::

    import numpy as np, kvaec
    out = kvaec.process(far, mic)              # offline, arrays in, array out
    out = kvaec.process(far, mic, preset="default")   # AEC_DefaultCfg instead of
                                               # the full-duplex preset
    with kvaec.Canceller(kvaec.Config(fNrLevelDb=0.5)) as c:
        send, played = c.process_frame(rin_frame, sin_frame)
"""
import ctypes
import ctypes.util
import glob
import math
import numbers
import os
import subprocess
import threading
import warnings
from typing import Dict, Iterator, List, Optional, Sequence, Tuple, Union

import numpy as np

from ._version import __version__

__all__ = [
    "Config", "PRESETS", "DEFAULT_PRESET", "preset_config", "Canceller", "CancellerBusyError", "process",
    "simulate", "estimate_delay", "align_shift", "echo_min_delay",
    "load_library", "library_path", "load_host_library", "__version__", "FRAME", "RATE", "MODE_BYPASS", "MODE_FREEZE", "MODE_SEND_ONLY_LOSS",
    "MODE_NO_NLP", "MODE_NO_NR", "MODE_NO_HIPASS", "MODE_LOOPBACK",
]

# A signal: a 1-D numpy array (converted to float32) or a sequence of floats.
ArrayLike = Union[np.ndarray, Sequence[float]]

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

    def __init__(self, **fields: float) -> None:
        d = _default_cfg()
        for name in _CFG_FIELDS:
            setattr(self, name, getattr(d, name))
        for k, v in fields.items():
            if k not in _CFG_FIELDS:
                raise TypeError(f"unknown configuration field {k!r}; fields: {', '.join(_CFG_FIELDS)}")
            setattr(self, k, v)
        self.check()

    def check(self) -> None:
        """Raises TypeError for a field of the wrong type and ValueError,
        with the library's reason (field name and range), for a field out of
        its documented range; see ``AEC_tCfg`` in kvaec.h."""
        c = self._to_c()
        why = load_library().kvaec_cfg_check(ctypes.byref(c))
        if why:
            raise ValueError("invalid configuration: " + why.decode())

    def _to_c(self):
        c = _Cfg()
        for name in _CFG_FIELDS:
            v = getattr(self, name)
            if name == "iProfile":
                if isinstance(v, bool) or not isinstance(v, numbers.Integral):
                    if isinstance(v, numbers.Real) and float(v).is_integer():
                        v = int(v)
                    else:
                        raise TypeError(f"iProfile must be an integer from 0 to 6, not {v!r}")
                if not -2**31 <= int(v) < 2**31:
                    raise ValueError("invalid configuration: iProfile: must be an integer from 0 to 6")
                setattr(c, name, int(v))
            else:
                if isinstance(v, bool) or not isinstance(v, numbers.Real):
                    raise TypeError(f"{name} must be a number, not {type(v).__name__}")
                setattr(c, name, float(v))
        return c

    @classmethod
    def _from_c(cls, c):
        # The record as it is, unchecked: it may show what a fault did.
        cfg = cls.__new__(cls)
        for name in _CFG_FIELDS:
            setattr(cfg, name, getattr(c, name))
        return cfg

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
_lib_path = None


def _source_tree_builds(name: str = "kvaec") -> List[str]:
    here = os.path.dirname(os.path.abspath(__file__))
    root = os.path.dirname(os.path.dirname(here))
    if not os.path.exists(os.path.join(root, "include", "kvaec.h")):
        return []  # an installed package: no source tree around it
    return sorted(glob.glob(os.path.join(root, "build*", "lib%s.so" % name)))


def _pkg_config_libdir() -> Optional[str]:
    try:
        p = subprocess.run(["pkg-config", "--variable=libdir", "kvaec"], capture_output=True, text=True,
                           timeout=10)
    except (OSError, subprocess.SubprocessError):
        return None
    d = p.stdout.strip()
    return d if p.returncode == 0 and d else None


def _candidates(name: str = "kvaec", env_var: str = "KVAEC_LIB") -> Iterator[Tuple[str, str]]:
    """(how it was found, path or name for ctypes) of the library lib``name``,
    in the order of lookup: the environment variable, the installed library
    (linker path, then pkg-config's libdir of kvaec), the source tree."""
    env = os.environ.get(env_var)
    if env:
        yield env_var, env
        return
    found = ctypes.util.find_library(name)
    if found:
        yield "ctypes.util.find_library", found
    libdir = _pkg_config_libdir()
    if libdir:
        for n in ("lib%s.so" % name, "lib%s.so.%s" % (name, __version__.split(".")[0])):
            yield "pkg-config libdir", os.path.join(libdir, n)
    for p in _source_tree_builds(name):
        yield "source tree build", p


def _open_library(name: str = "kvaec", env_var: str = "KVAEC_LIB") -> Tuple[ctypes.CDLL, str]:
    """Opens lib``name`` by the lookup order of :func:`_candidates`; raises
    OSError saying what was tried and how to point at the library."""
    tried = []
    for how, path in _candidates(name, env_var):
        if os.sep in path and not os.path.exists(path):
            tried.append(f"{path} ({how}: no such file)")
            continue
        try:
            return ctypes.CDLL(path), path
        except OSError as e:
            tried.append(f"{path} ({how}: {e})")
    raise OSError(
        f"lib{name}.so not found" + (" (tried: " + "; ".join(tried) + ")" if tried else "") + ". "
        "Install the C library (in the source tree: cmake -S . -B build && cmake --build build && "
        f"cmake --install build --prefix PREFIX), then either set {env_var}=/path/to/lib{name}.so, "
        "or set PKG_CONFIG_PATH=PREFIX/lib/pkgconfig (or install to a prefix the linker searches).")


def library_path() -> str:
    """Path (or linker name) of the libkvaec loaded, loading it if needed."""
    load_library()
    return _lib_path


def load_library() -> ctypes.CDLL:
    """Loads libkvaec once and returns the ctypes handle. Raises OSError,
    saying what was tried and how to point at the library, when none is found."""
    global _lib, _lib_path
    if _lib is not None:
        return _lib
    lib, _lib_path = _open_library()
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
    lib.kvaec_align_shift.argtypes = [ctypes.c_int32, ctypes.c_int32]
    lib.kvaec_align_shift.restype = ctypes.c_int32
    lib.kvaec_cfg_check.argtypes = [ctypes.POINTER(_Cfg)]
    lib.kvaec_cfg_check.restype = ctypes.c_char_p
    _lib = lib
    return lib


_host = None


def load_host_library() -> ctypes.CDLL:
    """Loads libkvaec_host (the hosts' shared delay estimation) once: from
    ``KVAEC_HOST_LIB``, else next to the libkvaec loaded, else by the lookup
    of :func:`load_library`."""
    global _host
    if _host is not None:
        return _host
    lib = None
    env = os.environ.get("KVAEC_HOST_LIB")
    if not env:
        load_library()
        d = os.path.dirname(_lib_path) if _lib_path and os.sep in _lib_path else ""
        for n in ("libkvaec_host.so", "libkvaec_host.so." + __version__.split(".")[0]):
            if d and os.path.exists(os.path.join(d, n)):
                lib = ctypes.CDLL(os.path.join(d, n))
                break
    if lib is None:
        lib, _ = _open_library("kvaec_host", "KVAEC_HOST_LIB")
    fp = ctypes.POINTER(ctypes.c_float)
    lib.kvaec_host_estimate_delay.argtypes = [fp, ctypes.c_int64, fp, ctypes.c_int64, ctypes.c_int32,
                                              ctypes.c_int32, ctypes.c_double, ctypes.POINTER(_DelayResult)]
    lib.kvaec_host_estimate_delay.restype = ctypes.c_int
    lib.kvaec_host_usable_frames.argtypes = [fp, ctypes.c_int64, ctypes.c_int32, ctypes.POINTER(ctypes.c_uint8)]
    lib.kvaec_host_usable_frames.restype = ctypes.c_int64
    _host = lib
    return lib


class _DelayResult(ctypes.Structure):
    _fields_ = [("found", ctypes.c_int32), ("delay", ctypes.c_int32), ("start_sec", ctypes.c_double),
                ("length_sec", ctypes.c_double), ("peak_to_mean", ctypes.c_double),
                ("far_excluded_frames", ctypes.c_int64), ("mic_excluded_frames", ctypes.c_int64)]


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
# Held by every call into the library's one instance, and while a Canceller
# is created or closed: creation is atomic and calls are serialised.
_lock = threading.RLock()


def _check_nlp_param(nlp_param):
    if nlp_param is None:
        return None
    if isinstance(nlp_param, bool) or not isinstance(nlp_param, numbers.Real):
        raise TypeError(f"nlp_param must be a number of dB or None, not {type(nlp_param).__name__}")
    if not math.isfinite(nlp_param):
        raise ValueError(f"nlp_param must be a finite number of dB, not {nlp_param!r}")
    return float(nlp_param)


def _check_mode(mode):
    if isinstance(mode, bool) or not isinstance(mode, numbers.Integral):
        raise TypeError(f"mode must be an int of MODE_* bits, not {type(mode).__name__}")
    if not 0 <= int(mode) < 2**32:
        raise ValueError(f"mode must be a 32-bit word of MODE_* bits, not {mode!r}")
    return int(mode) & ~0xF


def _check_config(config):
    if config is None:
        return Config()
    if not isinstance(config, Config):
        raise TypeError(f"config must be a kvaec.Config or None, not {type(config).__name__} ({config!r})")
    config.check()
    return config


class Canceller:
    """The library's one canceller instance, frame by frame.

    ``mode`` is the mode word (``MODE_*`` bits). ``config`` is a
    :class:`Config`, or ``preset`` names one ("default" or "full-duplex";
    neither given: "full-duplex"). Use as a context manager or call
    :meth:`close`; only one Canceller may be live at a time.
    """

    def __init__(self, config: Optional["Config"] = None, mode: int = 0, nlp_param: Optional[float] = None,
                 equalizers: bool = True, preset: Optional[str] = None) -> None:
        global _live
        self._closed = True  # until this one is the live canceller
        self._lib = load_library()
        # Arguments are checked before anything touches the instance.
        config = _check_config(_config_of(config, preset))
        self._mode = _check_mode(mode)
        self._nlp_param = _check_nlp_param(nlp_param)
        if not isinstance(equalizers, bool):
            raise TypeError(f"equalizers must be True or False, not {type(equalizers).__name__}")
        with _lock:
            if _live is not None:
                raise CancellerBusyError(
                    "libkvaec holds a single global canceller and one is already live "
                    f"({_live!r}); close it (or leave its 'with' block) before creating another")
            self.config = config
            self.equalizers = equalizers
            self._cfg = config._to_c()  # the checked record a reset reloads
            self._lib.aecx_init(ctypes.byref(self._cfg))
            flags = self._mode | (CMD_SET_NLP_PARAM if self._nlp_param is not None else 0)
            self._lib.aecx_control(flags, None, self._nlp_param or 0.0)
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

    def close(self) -> None:
        global _live
        with _lock:
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
        mode = _check_mode(value)
        with _lock:
            self._check()
            self._mode = mode
            self._lib.aecx_control(self._mode, None, 0.0)

    def load_config(self, config: "Config") -> None:
        """Loads a configuration (takes effect at the next frame); a bad one
        raises ValueError naming the field and its range, and is not loaded."""
        if not isinstance(config, Config):
            raise TypeError(f"config must be a kvaec.Config, not {type(config).__name__} ({config!r})")
        config.check()
        cfg = config._to_c()
        with _lock:
            self._check()
            self.config = config
            self._cfg = cfg
            self._lib.aecx_control(CMD_LOAD_CFG | self._mode, ctypes.byref(cfg), 0.0)

    def active_config(self) -> "Config":
        """The configuration record in force inside the library."""
        with _lock:
            self._check()
            return Config._from_c(self._db.tCfg)

    def reset(self, keep_filters: bool = False) -> None:
        with _lock:
            self._check()
            self._lib.aecx_control(CMD_RESET | (CMD_KEEP_FILTERS if keep_filters else 0) | self._mode, None, 0.0)

    def bist(self) -> int:
        with _lock:
            self._check()
            return int(self._lib.aecx_bist())

    def state(self) -> Dict[str, float]:
        """A few per-frame figures of the instance (double talk, alarms, adaptation)."""
        with _lock:
            self._check()
            return self._state()

    def _state(self):
        w = self._db.words
        f = lambda i: ctypes.c_float.from_buffer_copy(ctypes.c_uint32(w[i])).value
        return {"double_talk": int(ctypes.c_int32(w[_W_DOUBLE_TALK]).value), "epc_db": f(_W_EPC_DB),
                "td_alarm_db": f(_W_TD_ALARM_DB), "adapt_time": f(_W_ADAPT_TIME), "mode": int(w[_W_FLAGS])}

    def process_frame(self, rin: ArrayLike, sin: ArrayLike) -> Tuple[np.ndarray, np.ndarray]:
        """Processes one 10 ms frame: ``rin`` 160 receive (loudspeaker) samples,
        ``sin`` 160 microphone samples, float, full scale 1.0. Returns (send,
        played): the send frame (120 samples of delay) and the receive frame to
        play (40 samples of delay), float32.

        Runs the microphone equalizer before and the loudspeaker equalizer
        after the canceller when ``equalizers`` is true. Non-finite outputs
        and a failing self-test (once a second) reset the canceller and reload
        its checked configuration, NLP value and mode word; non-finite output
        samples become 0. Calls from several threads are serialised.
        """
        rin = _as_signal(rin, "rin")
        sin = _as_signal(sin, "sin")
        for name, a in (("rin", rin), ("sin", sin)):
            if len(a) != FRAME:
                raise ValueError(f"{name} must hold {FRAME} samples (one 10 ms frame), not {len(a)}")
        with _lock:
            self._check()
            return self._process_frame(rin, sin)

    def _process_frame(self, rin, sin):
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
            # Reset and reload: whatever a fault left in the active
            # configuration does not survive it.
            flags = CMD_RESET | CMD_LOAD_CFG | self._mode
            if self._nlp_param is not None:
                flags |= CMD_SET_NLP_PARAM
            self._lib.aecx_control(flags, ctypes.byref(self._cfg), self._nlp_param or 0.0)
            self.resets.append((self.frames, bad, int(bist)))
        if self.equalizers:
            self._lib.aecx_spkeq(prin)
        self.frames += 1
        return self._sin.copy(), self._rin.copy()

    def __repr__(self):
        return f"<kvaec.Canceller mode=0x{self._mode:x} frames={self.frames}{' closed' if self._closed else ''}>"


# Integer PCM: divisor to full scale 1.0 and offset (the WAV convention).
_PCM_SCALE = {np.dtype(np.int16): (32768.0, 0.0), np.dtype(np.int32): (2147483648.0, 0.0),
              np.dtype(np.uint8): (128.0, 128.0)}


def _as_signal(x, name):
    """A 1-D float32 signal of full scale 1.0 from ``x``: float arrays and
    sequences as they are, int16/int32/uint8 PCM scaled (see the module
    text); anything else raises TypeError naming the argument."""
    if x is None or isinstance(x, (str, bytes, numbers.Number)):
        raise TypeError(f"{name} must be a 1-D array of samples, not {type(x).__name__}")
    try:
        a = np.asarray(x)
    except Exception as e:  # ragged sequences and the like
        raise TypeError(f"{name} must be a 1-D array of samples ({e})") from None
    if a.dtype in _PCM_SCALE:
        div, off = _PCM_SCALE[a.dtype]
        a = ((a.astype(np.float64) - off) / div).astype(np.float32)
    elif a.dtype.kind == "f":
        a = a.astype(np.float32)
    elif a.dtype.kind in "iu" and a.size == 0:
        a = a.astype(np.float32)
    else:
        raise TypeError(f"{name} must hold float samples (full scale 1.0) or int16/int32/uint8 PCM, "
                        f"not {a.dtype}")
    if a.ndim != 1:
        raise ValueError(f"{name} must be a one-dimensional array of samples (pick a channel first)")
    return a


def _check_number(v, name, lo=None, hi=None, unit=""):
    if isinstance(v, bool) or not isinstance(v, numbers.Real):
        raise TypeError(f"{name} must be a number{unit}, not {type(v).__name__} ({v!r})")
    v = float(v)
    if not math.isfinite(v) or (lo is not None and v < lo) or (hi is not None and v > hi):
        rng = f" from {lo:g} to {hi:g}" if lo is not None and hi is not None else \
            f" of at least {lo:g}" if lo is not None else ""
        raise ValueError(f"{name} must be a finite number{rng}{unit}, not {v!r}")
    return v


def _usable(x, name, silence_nonfinite):
    """Refuses a signal without one finite sample; non-finite samples become
    silence (with a RuntimeWarning) when ``silence_nonfinite``."""
    finite = np.isfinite(x)
    n = int(len(x) - np.count_nonzero(finite))
    if len(x) == 0:
        raise ValueError(f"{name} holds no samples")
    if n == len(x):
        raise ValueError(f"{name} holds no usable samples (all {n} are NaN or infinite)")
    if n and silence_nonfinite:
        warnings.warn(f"{name} holds {n} non-finite samples: processed as silence", RuntimeWarning, stacklevel=3)
        x = np.where(finite, x, np.float32(0)).astype(np.float32)
    return x


def estimate_delay(far: ArrayLike, mic: ArrayLike, max_delay_ms: float = 500.0,
                   seconds: float = 5.0) -> Optional[int]:
    """Bulk delay, in samples at 16 kHz, of the echo in ``mic`` behind ``far``
    (both 1-D, 16 kHz), by GCC-PHAT on the first ``seconds`` (s) with far-end
    activity, searched over 0..``max_delay_ms`` (ms); None when the far end
    has no usable activity. The estimation of the ``kvaec`` tool
    (libkvaec_host): non-finite samples and short bursts of huge values are
    left out."""
    far = _as_signal(far, "far")
    mic = _as_signal(mic, "mic")
    max_delay_ms = _check_number(max_delay_ms, "max_delay_ms", 0.0, 60000.0, " (ms)")
    seconds = _check_number(seconds, "seconds", 0.01, 3600.0, " (s)")
    far = np.ascontiguousarray(far, np.float32)
    mic = np.ascontiguousarray(mic, np.float32)
    fp = ctypes.POINTER(ctypes.c_float)
    r = _DelayResult()
    rc = load_host_library().kvaec_host_estimate_delay(
        far.ctypes.data_as(fp), len(far), mic.ctypes.data_as(fp), len(mic), RATE,
        int(max_delay_ms * RATE / 1000), seconds, ctypes.byref(r))
    if rc == -2:
        raise MemoryError("delay estimation: out of memory")
    if rc != 0:
        raise ValueError("delay estimation: bad arguments")
    return int(r.delay) if r.found else None


def align_shift(bulk_delay: int, margin: int = 0) -> int:
    """The library's alignment rule (``kvaec_align_shift``): samples by which
    a host delays the microphone relative to the far end (negative: delays the
    far end by minus that many) so that an echo ``bulk_delay`` samples behind
    the far end reaches the canceller ``ECHO_MIN_DELAY + margin`` samples after
    the library's receive output."""
    return int(load_library().kvaec_align_shift(int(bulk_delay), int(margin)))


def echo_min_delay() -> int:
    """``KVAEC_ECHO_MIN_DELAY``, samples: the least delay from the receive
    output to its echo at the microphone input that the canceller models."""
    return align_shift(0, 0) - RIN_DELAY


def process(far: ArrayLike, mic: ArrayLike, config: Optional["Config"] = None, mode: int = 0,
            delay: Union[str, float] = "auto", delay_margin_ms: float = 2.0, nlp_param: Optional[float] = None,
            equalizers: bool = True, preset: Optional[str] = None) -> Dict[str, object]:
    """Offline echo cancellation of a microphone recording made while ``far``
    played, both 1-D arrays at 16 kHz. Works like ``kvaec process``: all loss
    on the send path (``MODE_SEND_ONLY_LOSS`` always set); the microphone (or
    the far end) is delayed by the library's alignment rule (:func:`align_shift`)
    so that the echo reaches the canceller ``delay_margin_ms`` beyond the least
    delay after its receive output it needs (:func:`echo_min_delay`); outputs
    realigned.

    ``far``, ``mic``: 1-D signals at 16 kHz, float, full scale 1.0.
    ``config``: :class:`Config`, or ``preset``: "default" or "full-duplex"
    (neither given: :data:`DEFAULT_PRESET`). ``mode``: mode
    word (``MODE_*`` bits). ``delay``: "auto" (estimated by
    :func:`estimate_delay`) or the bulk delay of the echo behind the far end
    in milliseconds. ``delay_margin_ms``: ms beyond the least echo delay.
    ``nlp_param``: NLP value in dB (None: not set). ``equalizers``: run the
    profile equalizers around the canceller.

    Returns a dict with ``out`` (send signal aligned with ``mic``, float32),
    ``played`` (receive output aligned with ``far``), ``delay`` (bulk delay,
    samples), ``shift`` (samples the microphone was delayed; negative: the
    far end) and ``resets`` (list of (frame, non-finite samples, self-test
    count)).
    """
    far = _as_signal(far, "far")
    mic = _as_signal(mic, "mic")
    # Every argument is checked before anything is processed.
    config = _check_config(_config_of(config, preset))
    mode = _check_mode(mode)
    nlp_param = _check_nlp_param(nlp_param)
    delay_margin_ms = _check_number(delay_margin_ms, "delay_margin_ms", 0.0, 50.0, " (ms)")
    if not isinstance(equalizers, bool):
        raise TypeError(f"equalizers must be True or False, not {type(equalizers).__name__}")
    if isinstance(delay, str):
        if delay != "auto":
            raise ValueError(f"delay must be 'auto' or a non-negative number of milliseconds, not {delay!r}")
    else:
        delay = _check_number(delay, "delay", 0.0, None, " (ms)")
        if delay * RATE / 1000 >= len(mic):
            raise ValueError(f"delay {delay:g} ms is beyond the end of mic ({1000 * len(mic) / RATE:.1f} ms): "
                             "its echo would never appear in it")
    far = _usable(far, "far", True)
    mic = _usable(mic, "mic", True)
    if delay == "auto":
        bulk = estimate_delay(far, mic)
        bulk = 0 if bulk is None else bulk
    else:
        bulk = int(round(delay * RATE / 1000))
    shift = align_shift(bulk, int(round(delay_margin_ms * RATE / 1000)))
    far_shift, mic_shift = max(-shift, 0), max(shift, 0)
    need = max(len(mic) + SIN_DELAY + mic_shift, len(far) + RIN_DELAY + far_shift)
    frames = -(-need // FRAME)
    fin = np.zeros(frames * FRAME, np.float32)
    fin[far_shift: far_shift + len(far)] = far[: frames * FRAME - far_shift]
    min_ = np.zeros(frames * FRAME, np.float32)
    min_[mic_shift: mic_shift + len(mic)] = mic[: frames * FRAME - mic_shift]
    send = np.zeros_like(fin)
    played = np.zeros_like(fin)
    with Canceller(config, mode | MODE_SEND_ONLY_LOSS, nlp_param, equalizers) as c, _lock:
        for k in range(frames):
            sl = slice(k * FRAME, (k + 1) * FRAME)
            send[sl], played[sl] = c._process_frame(fin[sl], min_[sl])
        resets = list(c.resets)
    out = np.zeros(len(mic), np.float32)
    src = send[SIN_DELAY + mic_shift:]
    out[: min(len(mic), len(src))] = src[: len(mic)]
    pl = np.zeros(len(far), np.float32)
    src = played[RIN_DELAY + far_shift:]
    pl[: min(len(far), len(src))] = src[: len(far)]
    return {"out": out, "played": pl, "delay": bulk, "shift": shift, "resets": resets}


def simulate(far: ArrayLike, near: Optional[ArrayLike] = None, echo_path: Optional[ArrayLike] = None,
             latency_frames: int = 2, config: Optional["Config"] = None, mode: int = 0,
             nonlinear: float = 0.0, equalizers: bool = True,
             preset: Optional[str] = None) -> Dict[str, object]:
    """Closed loop: ``far`` goes through the canceller to the loudspeaker; the
    echo is ``echo_path`` (FIR, default a 0.5 tap 2 ms late) applied to what
    the library played, ``latency_frames`` whole frames later (at least one),
    optionally through a soft-clipping loudspeaker tanh(d x)/d; the microphone
    takes echo plus ``near``. ``preset``: "default" or "full-duplex" instead
    of ``config`` (neither given: "full-duplex").

    The echo's first arrival (first tap within 20 dB of the largest) should
    come at least :func:`echo_min_delay` samples after the receive output:
    the default (two frames, 352 samples with the default path) does; a
    shorter loop gives a ``RuntimeWarning``, as the canceller misses the
    early part of such an echo.

    Returns a dict of arrays: ``mic``, ``send``, ``played``, ``echo`` and a
    per-frame ``double_talk`` flag, plus ``resets``.
    """
    far = _usable(_as_signal(far, "far"), "far", True)
    config = _check_config(_config_of(config, preset))
    mode = _check_mode(mode)
    nonlinear = _check_number(nonlinear, "nonlinear", 0.0, 100.0)
    if isinstance(latency_frames, bool) or not isinstance(latency_frames, numbers.Integral) or latency_frames < 1:
        raise ValueError(f"latency_frames must be an integer of at least 1, not {latency_frames!r}")
    if not isinstance(equalizers, bool):
        raise TypeError(f"equalizers must be True or False, not {type(equalizers).__name__}")
    n = len(far) // FRAME * FRAME
    far = far[:n]
    near = np.zeros(n, np.float32) if near is None else _usable(_as_signal(near, "near"), "near", True)[:n]
    if len(near) < n:
        near = np.concatenate([near, np.zeros(n - len(near), np.float32)])
    if echo_path is None:
        h = np.zeros(33, np.float64)
        h[32] = 0.5
    else:
        h = _as_signal(echo_path, "echo_path").astype(np.float64)
        if len(h) == 0 or not np.all(np.isfinite(h)) or np.max(np.abs(h)) > 100.0:
            raise ValueError("echo_path must hold at least one tap, all finite and within +-100")
    lat = int(latency_frames) * FRAME
    peak = np.max(np.abs(h)) if len(h) else 0.0
    first = int(np.argmax(np.abs(h) >= 0.1 * peak)) if peak > 0 else 0
    if lat + first < echo_min_delay():
        import warnings
        warnings.warn(f"the echo reaches the microphone {lat + first} samples after the receive output, less "
                      f"than the {echo_min_delay()} the canceller needs: its early part is not cancelled "
                      "(raise latency_frames)", RuntimeWarning, stacklevel=2)
    hist = np.zeros(lat + len(h) + n, np.float64)  # played (through the loudspeaker), with lead-in
    out = {k: np.zeros(n, np.float32) for k in ("mic", "send", "played", "echo")}
    dt = np.zeros(n // FRAME, np.int32)
    with Canceller(config, mode, None, equalizers) as c, _lock:
        off = lat + len(h)  # hist index of played sample 0
        for k in range(n // FRAME):
            sl = slice(k * FRAME, (k + 1) * FRAME)
            # Echo sample m sees played samples m - lat - i, i = 0..len(h)-1.
            seg = hist[off + k * FRAME - lat - len(h) + 1: off + (k + 1) * FRAME - lat]
            echo = np.convolve(seg, h, mode="valid").astype(np.float32)
            mic = (echo + near[sl]).astype(np.float32)
            send, played = c._process_frame(far[sl], mic)
            p = played.astype(np.float64)
            if nonlinear > 0:
                p = np.tanh(nonlinear * p) / nonlinear
            hist[off + k * FRAME: off + (k + 1) * FRAME] = p
            out["mic"][sl], out["send"][sl], out["played"][sl], out["echo"][sl] = mic, send, played, echo
            dt[k] = c._state()["double_talk"]
        out["resets"] = list(c.resets)
    out["double_talk"] = dt
    return out
