#!/usr/bin/python3
"""Writes the small seed corpus of the fuzz target into tests/fuzz/corpus/.

Usage: /usr/bin/python3 tests/fuzz/make_seeds.py
Each seed is a short host program in the byte format of tests/fuzz/harness.h.
"""
import os
import struct

import numpy as np

HERE = os.path.dirname(os.path.abspath(__file__))
OUT = os.path.join(HERE, "corpus")

NAN = struct.unpack("<f", struct.pack("<I", 0x7FC00000))[0]
INF = float("inf")


def f32(x):
    return struct.pack("<f", np.float32(x))


def u8(x):
    return struct.pack("<B", x & 0xFF)


def u32(x):
    return struct.pack("<I", x & 0xFFFFFFFF)


def noise(a, b, seed, n):
    return u8(1) + f32(a) + f32(b) + u8(seed) + u8(n - 1)


def pat(a, b, kind, n):
    return u8(2) + f32(a) + f32(b) + u8(kind) + u8(n - 1)


def raw(rin, sin):
    return u8(0) + b"".join(f32(x) for x in rin) + b"".join(f32(x) for x in sin)


def control(flags, value=0.0, cfg=None):
    if cfg is None:
        return u8(3) + u32(flags) + u8(0) + f32(value)
    return u8(3) + u32(flags) + u8(1) + b"".join(f32(x) for x in cfg[:7]) + u32(cfg[7]) + f32(value)


def eq(which, a, seed):
    return u8(4 if which == "spk" else 5) + f32(a) + u8(seed)


def bist():
    return u8(6)


def init(cfg=None):
    if cfg is None:
        return u8(7) + u8(0)
    return u8(7) + u8(1) + b"".join(f32(x) for x in cfg[:7]) + u32(cfg[7])


DEFAULT = [-10.0, 45.0, 30.0, 4.5, -95.0, 0.0, 100.0, 0]

SEEDS = {
    "talk": noise(0.1, 0.05, 1, 32) + noise(0.1, 0.2, 2, 32) + bist(),
    "nan_rin": noise(0.1, 0.05, 3, 8) + raw([NAN] * 160, [0.01] * 160) + bist() + noise(0.1, 0.05, 4, 4),
    "inf_sin": noise(0.1, 0.05, 5, 8) + raw([0.01] * 160, [INF, -INF] * 80) + bist(),
    "huge": noise(3.0e38, 3.0e38, 6, 4) + bist(),
    "dc_mic": pat(0.0, 0.5, 0, 32) + noise(0.1, 0.0, 7, 16),
    "clip": pat(1.0, 1.0, 0b1101, 16) + noise(1.0, 1.0, 8, 16),
    "modes": b"".join(control(m) + noise(0.1, 0.05, i, 3)
                      for i, m in enumerate([0x10, 0x20, 0x40, 0x100, 0x200, 0x400, 0x2000, 0xFFFFFFF0, 0])),
    "reset_dt": noise(0.1, 0.1, 9, 20) + control(0x1 | 0x40) + noise(0.1, 0.1, 10, 10)
                + control(0x1 | 0x2) + noise(0.1, 0.1, 11, 10),
    "cfg_extreme": control(0x8 | 0x1, 0.0, [1e30, -1e30, 1e30, -1e30, 1e30, 1e30, -1e30, 0x7FFFFFFF])
                   + noise(0.1, 0.05, 12, 10) + control(0x8, 0.0, [NAN, INF, -INF, NAN, 0.0, -1.0, NAN, -5]) 
                   + noise(0.1, 0.05, 13, 10),
    "nlp_param": control(0x4, 1e30) + noise(0.1, 0.05, 14, 10) + control(0x4, NAN) + noise(0.1, 0.05, 15, 5),
    "eq_profiles": b"".join(control(0x8, 0.0, DEFAULT[:7] + [p]) + eq("spk", 0.3, p) + eq("mic", 0.3, p)
                            + noise(0.1, 0.05, p, 2) for p in [0, 1, 2, 3, 4, 5, 6, 7, -1, 1 << 30])
                   + eq("spk", NAN, 1) + eq("mic", INF, 2),
    "init_cfg": init([-60.0, 90.0, 0.0, 30.0, -200.0, 1.0, 0.0, 5]) + noise(0.3, 0.3, 16, 20) + init(),
    "tiny": noise(1e-38, 1e-38, 17, 8) + pat(1e-45, -1e-45, 6, 8),
    "tone": pat(0.5, 0.0, 3, 32) + pat(0.5, 0.1, 1, 16),
}


def main():
    os.makedirs(OUT, exist_ok=True)
    for name, data in SEEDS.items():
        with open(os.path.join(OUT, name), "wb") as f:
            f.write(data)
    print(f"{len(SEEDS)} seeds written to {OUT}")


if __name__ == "__main__":
    main()
