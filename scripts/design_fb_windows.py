#!/usr/bin/python3
"""Design the five filter-bank windows of libkvaec and write src/fb/fb_win_tab.cpp.

Windows (index 0 multiplies the oldest sample of the delay line):
  aecfb_afSndAnaWin / aecfb_afSndSynWin  send pair, 240 taps, pure delay 120
  aecfb_afRcvAnaWin / aecfb_afRcvSynWin  receive pair, 240 taps, pure delay 40
  aecfb_afRefAnaWin                      reference analysis, 480 taps

Bank structure (hop 40, fold by three, unscaled 80-point real DFT, inverse
scaled by 40, output factor 80). With the sub-bands left as analysed, the
output is
    y[n] = 3200 * sum_{q=-2..2} S(c, q) * x[n - 200 - 80 q],   c = n mod 40,
    S(c, q) = sum g[p] h[p - 80 q], p in {c, c+40, ..., c+200}, 0 <= p-80q < 240,
so a pure delay D = 200 + 80 q0 needs S(c, q0) = 1/3200 and S(c, q) = 0 for
the other q: 200 equations, bilinear in (h, g). Delay 120 is q0 = -1, delay 40
is q0 = -2.

Pair design: for a given analysis window h the equations are linear in g; g
is the solution with the least weighted stop-band energy (synthesis stop band
from 300 Hz), found in closed form. The analysis window is then optimised
(L-BFGS, exact gradient by the envelope theorem) for its own weighted
stop-band energy from 200 Hz plus the synthesis cost, with its sum fixed at 1,
its centre of gravity fixed (this places the peak without forcing it) and,
for the send pair, its response at 100 Hz fixed. The stop-band weights of h
are re-weighted a few times towards an equal-ripple (minimax) result against
the limits 0.0055 (200..400 Hz) and 0.00125 (from 400 Hz).

Reference window: weighted least squares to a complex target of delay 90
samples, with unit sum.

Usage:  scripts/design_fb_windows.py            write the table and docs/img plots
        scripts/design_fb_windows.py --check    check the committed table: the
                   reference window reproduced, each synthesis window the closed
                   form for its analysis window, unit sums, centres of gravity,
                   pure delays; exit 1 on a failure
        scripts/design_fb_windows.py --check --exact    also design again and
                   require the identical table
The design uses no random numbers, but the optimiser's path depends on the
last bits of the linear algebra, which differ between processors (the BLAS
kernels chosen for them): designed again on another machine, the pair windows
come out as another, equally valid solution. The committed table is the
library's; --check verifies what every machine computes alike.
"""
import os
os.environ.setdefault("OMP_NUM_THREADS", "1")
os.environ.setdefault("OPENBLAS_NUM_THREADS", "1")
import re
import sys
import argparse
import numpy as np
import scipy.linalg as sl
import scipy.optimize as so
import scipy.interpolate as si

FS = 16000.0
L = 240
ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
TABLE = os.path.join(ROOT, "src", "fb", "fb_win_tab.cpp")
IMGDIR = os.path.join(ROOT, "docs", "img")

# ---- bilinear reconstruction equations ----
PAIRS = [(c, q) for c in range(40) for q in range(-2, 3)]
_P = np.zeros((200, 6), int)    # g index of each product
_H = np.zeros((200, 6), int)    # h index of each product
_M = np.zeros((200, 6))         # 1 where the product exists
for _r, (_c, _q) in enumerate(PAIRS):
    _k = 0
    for _p in range(_c, L, 40):
        if 0 <= _p - 80 * _q < L:
            _P[_r, _k] = _p
            _H[_r, _k] = _p - 80 * _q
            _M[_r, _k] = 1.0
            _k += 1


def a_mat(h):
    """A(h) with A(h) g = [S(c, q)]."""
    A = np.zeros((200, L))
    np.add.at(A, (np.repeat(np.arange(200), 6), _P.ravel()), (h[_H] * _M).ravel())
    return A


def bt_vec(g, lam):
    """B(g)^T lam, where B(g) h = A(h) g."""
    out = np.zeros(L)
    np.add.at(out, _H.ravel(), (g[_P] * _M * lam[:, None]).ravel())
    return out


def rhs(q0):
    b = np.zeros(200)
    b[[r for r, (c, q) in enumerate(PAIRS) if q == q0]] = 1.0 / 3200.0
    return b


def response(w, f):
    """|W(f)| for frequencies f in Hz."""
    n = np.arange(len(w))
    return np.abs(np.exp(-2j * np.pi * np.outer(np.atleast_1d(f) / FS, n)) @ w)


def pure_delay_error(h, g, q0):
    """Largest |3200 S(c, q) - target| over all c, q, in double precision."""
    return np.abs(3200.0 * (a_mat(h) @ g) - 3200.0 * rhs(q0)).max()


def make_gopt(q0, g_stop=300.0, ridge=1e-6):
    """The synthesis window for an analysis window h, in closed form: the g
    of least weighted stop-band energy (from g_stop Hz) that makes the pair a
    pure delay (A(h) g = b). Returns gopt(h) -> (g, lam, J)."""
    fg = np.arange(200.0, 8000.0, 4.0)
    E = np.exp(-2j * np.pi * np.outer(fg / FS, np.arange(L)))
    wgs = np.where(fg < g_stop, 0.0, 1.0)
    wgs /= wgs.sum()
    Qg = np.real(E.conj().T @ (wgs[:, None] * E)) + ridge * np.eye(L)
    Qgi = np.linalg.inv(Qg)
    Rgi = np.linalg.inv(np.linalg.cholesky(Qg).T)
    b = rhs(q0)

    def gopt(h):
        # least g' Qg g subject to A(h) g = b. Fast path: K = A Qg^-1 A'
        # from the sparse rows of A (at most six products each) and a
        # Cholesky solve; if K is numerically singular (rows of A nearly
        # dependent), the minimum-norm solution through an SVD instead.
        V = h[_H] * _M
        AQ = np.einsum("rk,rkj->rj", V, Qgi[_P])
        K = np.einsum("rk,srk->sr", V, AQ[:, _P])
        K = 0.5 * (K + K.T)
        try:
            cf = sl.cho_factor(K)
            lam = sl.cho_solve(cf, b)
            g = AQ.T @ lam
            if np.abs(a_mat(h) @ g - b).max() * 3200.0 < 1e-10:
                return g, lam, lam @ b
        except np.linalg.LinAlgError:
            pass
        U, s, Vt = np.linalg.svd(a_mat(h) @ Rgi, full_matrices=False)
        keep = s > 1e-13 * s[0]
        c = U[:, keep].T @ b
        lam = U[:, keep] @ (c / s[keep] ** 2)
        u = Vt[keep].T @ (c / s[keep])
        return Rgi @ u, lam, u @ u

    return gopt


def design_pair(q0, cog, h100, wg=0.1, g_stop=300.0, ridge=1e-6, rounds=6, power=0.5):
    fg = np.arange(200.0, 8000.0, 4.0)
    E = np.exp(-2j * np.pi * np.outer(fg / FS, np.arange(L)))

    def qgrid(w):
        return np.real(E.conj().T @ (w[:, None] * E))

    lim = np.where(fg < 400.0, 0.0055, 0.00125)
    wh = 1.0 / lim ** 2
    wh /= wh.sum()
    n = np.arange(L)
    rows = [np.ones(L), n.astype(float)]
    vals = [1.0, cog]
    if h100 is not None:
        ph = np.exp(-2j * np.pi * 100.0 / FS * (n - cog))
        rows += [ph.real, ph.imag]
        vals += [h100, 0.0]
    C = np.vstack(rows)
    hp = np.linalg.lstsq(C, np.array(vals), rcond=None)[0]
    N = sl.null_space(C)
    gopt = make_gopt(q0, g_stop, ridge)

    h = np.exp(-0.5 * ((n - cog) / 25.0) ** 2)
    h /= h.sum()
    for it in range(rounds):
        Qh = qgrid(wh)

        def f(z):
            hh = hp + N @ z
            g, lam, J = gopt(hh)
            return hh @ Qh @ hh + wg * J, N.T @ (2.0 * Qh @ hh - wg * 2.0 * bt_vec(g, lam))

        r = so.minimize(f, N.T @ (h - hp), jac=True, method="L-BFGS-B",
                        options=dict(maxiter=MAXITER, gtol=1e-14, ftol=1e-15))
        h = hp + N @ r.x
        Hh = np.abs(E @ h)
        print("  round %d: %4d steps, worst stop band / limit %.3f" % (it, r.nit, (Hh / lim).max()), flush=True)
        wh *= (Hh / lim) ** power
        wh /= wh.sum()
    g = gopt(h)[0]
    return h, g


def design_ref(L2=480, delay=90.0):
    f = np.arange(0.0, 8000.0, 2.0)
    shape = si.PchipInterpolator([0.0, 100.0, 200.0, 300.0, 8000.0], [1.0, 1.17, 0.21, 0.0, 0.0])(f)
    W = np.where(f < 300.0, 1.0, 30.0)
    lag = (L2 - 1) - np.arange(L2)
    E = np.exp(-2j * np.pi * np.outer(f / FS, lag))
    D = shape * np.exp(-2j * np.pi * f * delay / FS)
    Q = np.real(E.conj().T @ (W[:, None] * E))
    p = np.real(E.conj().T @ (W * D))
    K = np.block([[Q, np.ones((L2, 1))], [np.ones((1, L2)), np.zeros((1, 1))]])
    return np.linalg.solve(K, np.concatenate([p, [1.0]]))[:L2]


def figures(name, w):
    w32 = np.asarray(w, np.float32)
    w64 = w32.astype(np.float64)
    f = np.arange(0.0, 8000.0, 1.0)
    H = response(w64, f) / abs(w64.sum())
    return dict(name=name, sum=float(w64.sum()), peak=int(np.argmax(w64)), peakval=float(w32.max()),
                back=len(w) - 1 - int(np.argmax(w64)), minidx=int(np.argmin(w64)), minval=float(w32.min()),
                cog=float((len(w) - 1) - (np.arange(len(w)) @ w64) / w64.sum()),
                r100=float(H[100]), r200=float(H[200]), r400=float(H[400]),
                max200=float(H[200:].max()), max400=float(H[400:].max()), first=w32[:3], last=w32[-3:])


def alias_level(h, g, gain_db=20.0):
    """Aliasing of the pair when neighbouring bands get gains gain_db apart
    (even bands 1, odd bands lower): the largest spurious output component
    relative to the output tone, in dB, over test tones 300..7700 Hz kept 30 Hz
    or more away from the band centres and band edges (where a tone and its
    mirror image fall together)."""
    gk = np.where(np.arange(41) % 2 == 0, 1.0, 10.0 ** (-gain_db / 20.0))
    worst = 0.0
    nsamp = 16000
    for fin in [200.0 * m + o for m in range(1, 38) for o in (30.0, 70.0, 100.0, 130.0, 170.0)]:
        x = np.cos(2 * np.pi * fin / FS * np.arange(nsamp))
        seg = run_chain(x, h, g, gk)[-8000:]
        mag = np.abs(np.fft.rfft(seg * np.hanning(len(seg))))
        k = int(round(fin / FS * len(seg)))
        main = mag[k - 6:k + 7].max()
        mag[k - 6:k + 7] = 0.0
        worst = max(worst, mag.max() / main)
    return 20 * np.log10(worst)


def run_chain(x, h, g, gains=None):
    """The bank exactly as the library runs it, in double precision."""
    d = np.zeros(240)
    a = np.zeros(240)
    y = np.zeros_like(x)
    for m in range(len(x) // 40):
        d = np.concatenate([d[40:], x[40 * m:40 * m + 40]])
        X = np.fft.rfft((h * d).reshape(3, 80).sum(0))
        if gains is not None:
            X = X * gains
        t = np.fft.irfft(X, 80) * 40.0
        a += np.tile(t, 3) * g
        y[40 * m:40 * m + 40] = 80.0 * a[:40]
        a = np.concatenate([a[40:], np.zeros(40)])
    return y


def c_float(v):
    """A C float literal that round-trips the single-precision value."""
    t = "%.9g" % v
    if "." not in t and "e" not in t:
        t += ".0"
    return t + "f"


def fmt_table(name, w, comment):
    w32 = np.asarray(w, np.float32)
    lines = ["// %s" % comment, "const float %s[%d] = {" % (name, len(w32))]
    for i in range(0, len(w32), 4):
        lines.append("    " + " ".join(c_float(v) + "," for v in w32[i:i + 4]))
    lines.append("};")
    return "\n".join(lines)


def build():
    print("send pair (delay 120):", flush=True)
    hs, gs = design_pair(q0=-1, cog=SEND_COG, h100=SEND_H100, wg=PAIR_WG, rounds=SEND_ROUNDS)
    print("receive pair (delay 40):", flush=True)
    hr, gr = design_pair(q0=-2, cog=RCV_COG, h100=None, wg=PAIR_WG, rounds=RCV_ROUNDS)
    print("reference window:", flush=True)
    wr = design_ref()
    wins = [("aecfb_afSndAnaWin", hs, "send analysis window, 240 taps"),
            ("aecfb_afSndSynWin", gs, "send synthesis window, 240 taps"),
            ("aecfb_afRcvAnaWin", hr, "receive analysis window, 240 taps"),
            ("aecfb_afRcvSynWin", gr, "receive synthesis window, 240 taps"),
            ("aecfb_afRefAnaWin", wr, "reference analysis window, 480 taps")]
    head = ("// Filter-bank windows. Generated by scripts/design_fb_windows.py (no arguments);\n"
            "// do not edit: change the script and run it again. Index 0 of every window\n"
            "// multiplies the oldest sample of its delay line.\n"
            "#include \"fb.h\"\n")
    body = "\n\n".join(fmt_table(n, w, c) for n, w, c in wins)
    return head + "\n" + body + "\n", dict((n, np.asarray(w, np.float32).astype(np.float64)) for n, w, c in wins)


# Design parameters (the generated file names none: the script has no options
# that change the result).
SEND_COG = 150.0     # centre of gravity of the send analysis window (index)
SEND_H100 = None     # response of the send analysis window at 100 Hz, if fixed
SEND_ROUNDS = 14     # re-weighting rounds of the send pair
RCV_COG = 178.0      # centre of gravity of the receive analysis window (index)
RCV_ROUNDS = 10      # re-weighting rounds of the receive pair
PAIR_WG = 0.03       # weight of the synthesis stop band against the analysis one
MAXITER = 3000       # L-BFGS steps per re-weighting round at most


def report(T):
    print()
    print("%-20s %9s %5s %4s %11s %5s %11s %6s %7s %7s %9s %9s" % (
        "window", "sum", "peak", "back", "peak value", "min@", "min value", "cog", "100Hz", "200Hz", "max>=200", "max>=400"))
    for n, w in T.items():
        f = figures(n, w)
        print("%-20s %9.6f %5d %4d %11.7g %5d %11.7g %6.1f %7.4f %7.4f %9.6f %9.6f" % (
            n, f["sum"], f["peak"], f["back"], f["peakval"], f["minidx"], f["minval"], f["cog"],
            f["r100"], f["r200"], f["max200"], f["max400"]))
        print("%-20s first %s last %s" % ("", " ".join("%.8g" % v for v in f["first"]), " ".join("%.8g" % v for v in f["last"])))
    for q0, a, g, dl in ((-1, "aecfb_afSndAnaWin", "aecfb_afSndSynWin", 120), (-2, "aecfb_afRcvAnaWin", "aecfb_afRcvSynWin", 40)):
        print("pair %s/%s: delay %d, largest |3200 S - target| with the float tables %.3g" % (
            a, g, dl, pure_delay_error(T[a], T[g], q0)))
        print("   aliasing with neighbouring bands 20 dB apart: %.1f dB" % alias_level(T[a], T[g]))


def plots(T):
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt
    os.makedirs(IMGDIR, exist_ok=True)
    f = np.arange(0.0, 2000.0, 1.0)
    for fname, names in (("fb_send.png", ("aecfb_afSndAnaWin", "aecfb_afSndSynWin")),
                         ("fb_receive.png", ("aecfb_afRcvAnaWin", "aecfb_afRcvSynWin")),
                         ("fb_reference.png", ("aecfb_afRefAnaWin",))):
        fig, ax = plt.subplots(2, 1, figsize=(8, 7))
        for n in names:
            w = T[n]
            ax[0].plot(np.arange(len(w)), w, label=n)
            ax[1].plot(f, 20 * np.log10(np.maximum(response(w, f) / abs(w.sum()), 1e-9)), label=n)
        ax[0].set_xlabel("tap (0 = oldest sample)")
        ax[0].legend()
        ax[0].grid(True)
        ax[1].axhline(20 * np.log10(0.0055), color="k", lw=0.5, ls="--")
        ax[1].axhline(20 * np.log10(0.00125), color="k", lw=0.5, ls=":")
        ax[1].set_xlabel("Hz from the band centre")
        ax[1].set_ylabel("dB (0 dB = response at the centre)")
        ax[1].set_ylim(-100, 10)
        ax[1].legend()
        ax[1].grid(True)
        fig.tight_layout()
        fig.savefig(os.path.join(IMGDIR, fname), dpi=80, metadata={"Software": None})
        plt.close(fig)


def read_table():
    """The committed windows, by name, as float32 values in float64."""
    with open(TABLE) as fh:
        text = fh.read()
    T = {}
    for m in re.finditer(r"const float (\w+)\[(\d+)\] = \{(.*?)\};", text, re.S):
        vals = [float(v[:-1]) for v in re.findall(r"[-+0-9.e]+f", m.group(3))]
        assert len(vals) == int(m.group(2)), m.group(1)
        T[m.group(1)] = np.asarray(vals, np.float32).astype(np.float64)
    return text, T


# Largest difference allowed between a committed synthesis window and the
# closed-form synthesis window of the committed analysis window: the float32
# rounding of both windows (an ulp of the largest tap, about 0.07, is 7.5e-9)
# moves the closed form by a few ulps.
SYN_TOL = 5e-8
# Largest pure-delay error and centre-of-gravity error allowed for a
# committed pair: what rounding the designed windows to float32 leaves (about
# 8e-8 and 4e-8 for the committed tables), with room to spare; changing one
# tap by a few hundred ulps exceeds them.
DELAY_TOL = 2e-7
COG_TOL = 2e-7


def check_committed():
    """Checks the committed table against what the design fixes on any
    machine: the reference window (a closed form) is reproduced exactly; each
    analysis window has unit sum and its centre of gravity; each synthesis
    window is the closed-form one for the committed analysis window; each
    pair is a pure delay. Returns True when all hold."""
    _, T = read_table()
    ok = True
    wr = np.asarray(design_ref(), np.float32).astype(np.float64)
    same = np.array_equal(wr, T["aecfb_afRefAnaWin"])
    print("reference window reproduced exactly: %s" % ("yes" if same else "NO"))
    ok &= same
    for q0, a, g, cog in ((-1, "aecfb_afSndAnaWin", "aecfb_afSndSynWin", SEND_COG),
                          (-2, "aecfb_afRcvAnaWin", "aecfb_afRcvSynWin", RCV_COG)):
        h = T[a]
        gc = make_gopt(q0)(h)[0]
        dg = np.abs(gc - T[g]).max()
        sum_err = abs(h.sum() - 1.0)
        cog_err = abs((np.arange(L) @ h) / h.sum() - cog)
        de = pure_delay_error(h, T[g], q0)
        print("%s/%s: sum - 1 = %.2g, centre of gravity - %.0f = %.2g, synthesis window against its closed form "
              "%.2g (limit %.0e), pure-delay error %.2g (limit %.0e)" % (a, g, sum_err, cog, cog_err, dg, SYN_TOL, de, DELAY_TOL))
        ok &= sum_err < 1e-6 and cog_err <= COG_TOL and dg <= SYN_TOL and de <= DELAY_TOL
    return ok


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--check", action="store_true",
                    help="check the committed table against the design's closed forms and constraints, exit 1 on a "
                         "failure (any machine)")
    ap.add_argument("--exact", action="store_true",
                    help="with --check: also design again and require the identical table (only where the "
                         "optimiser's floating-point path is the one that made the table)")
    args = ap.parse_args()
    if args.check:
        ok = check_committed()
        if args.exact:
            text, T = build()
            report(T)
            with open(TABLE) as fh:
                same = fh.read() == text
            print("designed again: %s" % ("identical" if same else "DIFFERENT"))
            ok &= same
        print("%s %s" % (TABLE, "is consistent with the design" if ok else "does NOT match the design"))
        return 0 if ok else 1
    text, T = build()
    report(T)
    with open(TABLE, "w") as fh:
        fh.write(text)
    plots(T)
    print("wrote %s and plots in %s" % (TABLE, IMGDIR))
    return 0


if __name__ == "__main__":
    sys.exit(main())
