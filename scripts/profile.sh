#!/bin/sh
# Instruction counts per stage for one frame of aecx_process.
#
# Builds the profiling driver (bench/profile_frames.cpp) in a build directory
# of its own, runs it under callgrind counting only inside aecx_process after
# the warm-up, and prints the inclusive instruction count (Ir) per frame of
# every function called by the frame driver.
#
#   scripts/profile.sh [build-dir] [frames] [mode] [extra cmake args...]
#   e.g. scripts/profile.sh build-profile 300 0            (normal frames)
#        scripts/profile.sh build-profile 300 0x10         (bypass frames)
#        scripts/profile.sh build-profile-scalar 300 0 -DKVAEC_FORCE_SCALAR=ON
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-build-profile}
frames=${2:-300}
mode=${3:-0}
shift $(( $# < 3 ? $# : 3 ))
case $build in /*) ;; *) build=$root/$build ;; esac

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKVAEC_BUILD_BENCH=ON \
      -DKVAEC_BUILD_TOOLS=OFF -DKVAEC_BUILD_TESTS=OFF -DKVAEC_BUILD_SHARED=OFF "$@" >/dev/null
cmake --build "$build" -j2 --target kvaec_profile_frames >/dev/null

out=$build/callgrind.out.profile
valgrind --tool=callgrind --callgrind-out-file="$out" --toggle-collect=aecx_process \
    "$build/bench/kvaec_profile_frames" "$frames" 100 "$mode" >/dev/null 2>"$build/callgrind.log"

# Inclusive counts of aecx_process and of every function it reaches, per
# frame (entries with an object name only: one line per function).
echo "Ir per frame (inclusive), $frames frames, mode $mode, $(basename "$build")"
callgrind_annotate --inclusive=yes --auto=no --threshold=100 "$out" 2>/dev/null |
  awk -v n="$frames" '
    /^ *[0-9,]+ \( *[0-9.]+%\) +[^ ].*\[.*\]$/ {
      c = $1; gsub(",", "", c)
      name = $0; sub(/^ *[0-9,]+ \( *[0-9.]+%\) +/, "", name); sub(/ \[[^]]*\]$/, "", name)
      if (name ~ /below main|ClosedLoop|libc_start|:main$|^\?\?\?/) next
      gsub(/\(anonymous namespace\)::/, "", name)
      sub(/\(.*$/, "", name); sub(/^.*:/, "", name)
      if (name == "") next
      if (seen[name]++) next
      if (c + 0 >= n * 100) printf "%10.0f  %s\n", c / n, name
    }'
