#!/usr/bin/env bash
# Builds the libFuzzer target with clang (AddressSanitizer + UndefinedBehavior-
# Sanitizer) and runs it on the seed corpus for a bounded time.
#   tests/fuzz/run.sh [seconds] [build-dir]       (default 60 s, build-fuzz)
# New interesting inputs go to <build-dir>/corpus (the checked-in seeds in
# tests/fuzz/corpus are only read). A failing input is written as
# <build-dir>/crash-* (or leak-*, timeout-*); replay it with
#   <build-dir>/fuzz_process <file>
# and, once the defect is fixed, copy it into tests/fuzz/corpus: the corpus
# test of the normal suite replays every file there.
# Longer runs, e.g. an hour on two cores:
#   tests/fuzz/run.sh 0 && <build-dir>/fuzz_process -fork=2 -max_total_time=3600 \
#       <build-dir>/corpus tests/fuzz/corpus
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
secs=${1:-60}
build=${2:-$root/build-fuzz}
cxx=${CXX_FUZZ:-clang++}
jobs=$(nproc 2>/dev/null || echo 2)
mkdir -p "$build/obj" "$build/corpus"
flags=(-std=c++17 -O1 -g -ffp-contract=off -fno-strict-aliasing -fno-exceptions -fno-rtti
       -fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all -fno-sanitize=vptr
       -I"$root/include" -I"$root/src")
# Library objects, rebuilt when the source (or this script) is newer.
objs=()
for src in "$root"/src/*/*.cpp; do
  rel=${src#"$root"/src/}
  obj="$build/obj/${rel//\//_}.o"
  objs+=("$obj")
  if [ ! -f "$obj" ] || [ "$src" -nt "$obj" ] || [ "$0" -nt "$obj" ]; then
    while [ "$(jobs -rp | wc -l)" -ge "$jobs" ]; do wait -n; done
    "$cxx" "${flags[@]}" -c "$src" -o "$obj" &
  fi
done
while [ "$(jobs -rp | wc -l)" -gt 0 ]; do wait -n; done
"$cxx" "${flags[@]}" -fsanitize=fuzzer -I"$root/tests/fuzz" \
  "$root/tests/fuzz/fuzz_process.cpp" "${objs[@]}" -o "$build/fuzz_process"
[ "$secs" -gt 0 ] || exit 0
echo "== fuzzing aecx_process and friends for ${secs} s"
cd "$build"
# -rss_limit_mb: the target needs a few MB; 2 GB catches runaway growth.
./fuzz_process -max_total_time="$secs" -timeout=20 -rss_limit_mb=2048 -max_len=8192 \
  -print_final_stats=1 corpus "$root/tests/fuzz/corpus"
