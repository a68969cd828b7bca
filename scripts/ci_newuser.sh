#!/usr/bin/env bash
# A new user's first steps, on the commit under test (HEAD of this checkout),
# in a temporary directory outside the source tree:
#   1. a fresh `git clone`, then the README's first command, scripts/demo:
#      it must exit 0, print its figures and write plot.png;
#   2. the library installed into a temporary prefix, and the README's C
#      example compiled and linked with `pkg-config --cflags --libs kvaec`
#      and run;
#   3. the Python package installed into a fresh virtual environment
#      (`pip install --no-build-isolation`, no downloads) and kvaec.process run
#      on 2 s of a simulated echo from outside the source tree (ERLE > 10 dB).
# The Debian packages must be installed already (scripts/deps.sh). Exits
# non-zero on the first failure. KVAEC_KEEP_TMP=1 keeps the directory.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
tmp=$(mktemp -d)
if [ "${KVAEC_KEEP_TMP:-0}" = 1 ]; then echo "work directory: $tmp"; else trap 'rm -rf "$tmp"' EXIT; fi
fail() { echo "ci_newuser: FAIL: $*" >&2; exit 1; }

echo "== fresh clone of $(git -C "$root" rev-parse --short HEAD) and scripts/demo"
git clone -q --no-checkout "$root" "$tmp/kvaec"
git -C "$tmp/kvaec" fetch -q "$root" HEAD
git -C "$tmp/kvaec" checkout -q --detach FETCH_HEAD
[ ! -e "$tmp/kvaec/build" ] && [ ! -e "$tmp/kvaec/out" ] || fail "the clone already holds build/ or out/"
(cd "$tmp/kvaec" && scripts/demo) > "$tmp/demo.log" 2>&1 || { cat "$tmp/demo.log"; fail "scripts/demo exited non-zero"; }
tail -n 25 "$tmp/demo.log"
grep -Eq '^ERLE, whole run: +-?[0-9]+\.[0-9] dB' "$tmp/demo.log" || fail "scripts/demo printed no ERLE figure"
grep -Eq '^total echo loss: +-?[0-9]+\.[0-9] dB' "$tmp/demo.log" || fail "scripts/demo printed no echo-loss figure"
plot="$tmp/kvaec/out/demo/plot.png"
[ -s "$plot" ] || fail "scripts/demo wrote no plot ($plot)"
[ "$(head -c 8 "$plot" | od -An -tx1 | tr -d ' \n')" = 89504e470d0a1a0a ] || fail "$plot is not a PNG file"
grep -q "plot: $plot" "$tmp/demo.log" || fail "scripts/demo did not say where the plot is"
echo "demo: ok (plot $(stat -c %s "$plot") bytes)"

echo "== install into a temporary prefix; the README's C example through pkg-config"
build="$tmp/kvaec/build"
# Everything that installs (tests off, so only what the demo did not build yet).
cmake -S "$tmp/kvaec" -B "$build" -DKVAEC_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j"$(nproc 2>/dev/null || echo 2)" >/dev/null
prefix="$tmp/prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null
pcdir=$(dirname "$(find "$prefix" -name kvaec.pc | head -n 1)")
export PKG_CONFIG_PATH="$pcdir"
# The first C block of the README (the "Using it" example), as a user copies it.
awk '/^```c$/ { on = 1; next } on && /^```$/ { exit } on { print }' "$tmp/kvaec/README.md" > "$tmp/app.c"
[ -s "$tmp/app.c" ] || fail "no C example in README.md"
# shellcheck disable=SC2046
cc -std=c99 -Wall -Wextra -Werror -o "$tmp/app" "$tmp/app.c" $(pkg-config --cflags --libs kvaec) \
  || fail "the README's C example does not build against the installed library"
LD_LIBRARY_PATH=$(pkg-config --variable=libdir kvaec) "$tmp/app" || fail "the README's C example failed when run"
echo "C example: ok ($(pkg-config --cflags --libs kvaec))"

echo "== Python package in a fresh virtual environment"
/usr/bin/python3 -m venv --system-site-packages "$tmp/env"
"$tmp/env/bin/pip" install -q --no-build-isolation --no-index "$tmp/kvaec/python" \
  || fail "pip install of the Python package failed"
mkdir -p "$tmp/elsewhere"
cd "$tmp/elsewhere"
env -u KVAEC_LIB -u PYTHONPATH "$tmp/env/bin/python" - "$prefix" "$(pkg-config --modversion kvaec)" <<'PY' || fail "the installed Python package failed its check"
import os, sys
import numpy as np
import kvaec

prefix, version = sys.argv[1], sys.argv[2]
assert "site-packages" in kvaec.__file__ and not os.path.exists(
    os.path.join(os.path.dirname(kvaec.__file__), "..", "..", "include", "kvaec.h")), kvaec.__file__
assert kvaec.__version__ == version, (kvaec.__version__, version)
lib = os.path.realpath(kvaec.library_path())
assert lib.startswith(os.path.realpath(prefix) + os.sep), lib

# 2 s of a recorded pair: white far end at -26 dBFS, echo through a short
# path 12.5 ms late, microphone noise at -80 dBFS.
rng = np.random.default_rng(1)
n = 2 * kvaec.RATE
far = (rng.standard_normal(n) * 10 ** (-26 / 20)).astype(np.float32)
h = np.zeros(200 + 41)
h[200], h[216], h[240] = 0.3, -0.12, 0.06
mic = (np.convolve(far, h)[:n] + rng.standard_normal(n) * 1e-4).astype(np.float32)
r = kvaec.process(far, mic, mode=kvaec.MODE_NO_NLP)
s = kvaec.RATE  # second half, after convergence
erle = 10 * np.log10(np.sum(mic[s:].astype(float) ** 2) / np.sum(r["out"][s:].astype(float) ** 2))
print("kvaec %s from %s, library %s: bulk delay %d samples, ERLE %.1f dB"
      % (kvaec.__version__, os.path.dirname(kvaec.__file__), lib, r["delay"], erle))
assert r["delay"] == 200, r["delay"]
assert erle > 10.0, erle
PY
echo "ci_newuser: all steps passed"
