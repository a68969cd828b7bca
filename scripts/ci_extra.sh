#!/usr/bin/env bash
# Extra CI jobs, run by scripts/test when CI=true (after the normal and the
# 32-bit suites), or by hand:
#   scripts/ci_extra.sh [step...]     steps: i386 asan valgrind armhf aarch64 fuzz soak tsan (default: all)
# Each step prints its wall time. See docs/reliability.md.
#   i386      whole test suite in a 32-bit x86 build (-m32 -msse2 -mfpmath=sse):
#             natively where the kernel runs 32-bit binaries, otherwise
#             under qemu-i386 (the step says which, and fails if neither works;
#             KVAEC_I386_EMULATE=1 takes the emulated path on any machine)
#   asan      whole test suite under AddressSanitizer + UndefinedBehaviorSanitizer (gcc)
#   valgrind  every test binary of the normal build (build/) under memcheck
#   armhf     whole test suite for 32-bit ARM hard-float, run under qemu-arm
#             (includes the bit-exact golden run against tests/golden/golden_hash.txt)
#   aarch64   64-bit ARM with the NEON kernels, under qemu-aarch64: kernel and
#             whole-frame equivalence with the scalar code, the golden run, and
#             the floating-point mode of the entry points (FPCR)
#   fuzz      libFuzzer target, 60 s from the seed corpus (KVAEC_FUZZ_SECONDS)
#   soak      5 minutes of closed-loop audio (KVAEC_SOAK_MINUTES)
#   tsan      the GStreamer plugin and its tests under ThreadSanitizer (gcc): the
#             properties change from another thread while buffers flow, the
#             probe goes away mid-stream; builds only those targets
# The i386, armhf and aarch64 builds leave the GStreamer plugin out
# (-DKVAEC_BUILD_GST=OFF): this machine's GStreamer is 64-bit x86 only. The
# asan build is native and builds and tests it.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
jobs=$(nproc 2>/dev/null || echo 2)
steps=("$@")
[ ${#steps[@]} -gt 0 ] || steps=(i386 asan valgrind armhf aarch64 fuzz soak tsan)

# Packages for these jobs. The armhf build uses clang with Debian's armhf
# cross libraries: the gcc cross compiler (gcc-12-arm-linux-gnueabihf)
# conflicts with gcc-multilib, which the 32-bit x86 build needs, so it is
# deliberately not installed here.
source "$root/scripts/deps.sh"
install_extra_deps() {
  kvaec_install_missing clang libclang-rt-14-dev valgrind qemu-user binutils-arm-linux-gnueabihf \
    libc6-dev-armhf-cross libstdc++-12-dev-armhf-cross libgcc-12-dev-armhf-cross \
    binutils-aarch64-linux-gnu libc6-dev-arm64-cross libstdc++-12-dev-arm64-cross libgcc-12-dev-arm64-cross
}

# How 32-bit x86 binaries run here: prints "native" or "qemu-i386" after one
# probe (a tiny -m32 program). Some kernels are built without 32-bit x86
# execution; their binaries then run under the user-mode emulator. Fails,
# saying why, when neither works: the 32-bit build is part of the promise of
# bit-identical results on every target and is never skipped.
i386_runner() {
  local tmp rc
  tmp=$(mktemp -d)
  printf 'int main(void) { volatile float x = 0.1f; return x * 10.0f == 1.0f ? 0 : 3; }\n' > "$tmp/probe.c"
  if ! gcc -m32 -msse2 -mfpmath=sse "$tmp/probe.c" -o "$tmp/probe" 2> "$tmp/cc.log"; then
    echo "i386: cannot build a 32-bit x86 program (is g++-multilib installed?):" >&2
    cat "$tmp/cc.log" >&2
    rm -rf "$tmp"
    return 1
  fi
  rc=0
  if [ "${KVAEC_I386_EMULATE:-0}" = 1 ]; then
    rc=forced   # KVAEC_I386_EMULATE=1: take the emulated path even where native works
  else
    "$tmp/probe" > /dev/null 2>&1 || rc=$?
  fi
  if [ "$rc" = 0 ]; then
    echo "i386: 32-bit x86 binaries run natively on this kernel" >&2
    echo native
  elif command -v qemu-i386 > /dev/null && qemu-i386 "$tmp/probe" > /dev/null 2>&1; then
    if [ "$rc" = forced ]; then
      echo "i386: KVAEC_I386_EMULATE=1: running 32-bit x86 binaries under qemu-i386" >&2
    else
      echo "i386: this kernel cannot run 32-bit x86 binaries (probe exit $rc); running them under qemu-i386" >&2
    fi
    echo qemu-i386
  else
    echo "i386: this kernel cannot run 32-bit x86 binaries (probe exit $rc) and qemu-i386 (package qemu-user) cannot either" >&2
    rm -rf "$tmp"
    return 1
  fi
  rm -rf "$tmp"
}

timed() {
  local name=$1
  shift
  local t0=$SECONDS
  echo "== ci_extra: $name"
  "$@"
  echo "== ci_extra: $name done in $((SECONDS - t0)) s"
}

step_i386() {
  local runner emu=()
  runner=$(i386_runner)
  if [ "$runner" != native ]; then emu=(-DCMAKE_CROSSCOMPILING_EMULATOR="$runner"); fi
  local flags="-m32 -msse2 -mfpmath=sse"
  # Test discovery bakes the runner into the test list: a build directory
  # made for the other runner starts again from scratch.
  if [ -f "$root/build-i386/CMakeCache.txt" ] && [ "$(cat "$root/build-i386/runner" 2>/dev/null)" != "$runner" ]; then
    rm -rf "$root/build-i386"
  fi
  mkdir -p "$root/build-i386"
  echo "$runner" > "$root/build-i386/runner"
  cmake -S "$root" -B "$root/build-i386" -DKVAEC_WERROR=ON -DKVAEC_GTEST_FROM_SOURCE=ON \
    -DKVAEC_BUILD_TOOLS=OFF -DKVAEC_BUILD_SHARED=OFF -DKVAEC_BUILD_PIPEWIRE=OFF -DKVAEC_BUILD_GST=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" "${emu[@]}" > /dev/null
  cmake --build "$root/build-i386" -j"$jobs" > "$root/build-i386/build.log" 2>&1 \
    || { tail -50 "$root/build-i386/build.log"; return 1; }
  echo "i386: running the suite ($runner)"
  ctest --test-dir "$root/build-i386" --output-on-failure -j"$jobs" -LE long
}

step_asan() {
  # -fno-sanitize=vptr: the vptr check needs RTTI and the library is built
  # without it (it has no polymorphic types anyway).
  local san="-fsanitize=address,undefined -fno-sanitize-recover=all -fno-sanitize=vptr -fno-omit-frame-pointer"
  cmake -S "$root" -B "$root/build-asan" -DKVAEC_WERROR=ON -DKVAEC_BUILD_TOOLS=OFF -DKVAEC_BUILD_SHARED=OFF -DKVAEC_BUILD_PIPEWIRE=OFF \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_FLAGS="$san" -DCMAKE_CXX_FLAGS="$san" \
    -DCMAKE_EXE_LINKER_FLAGS="-fsanitize=address,undefined" > /dev/null
  cmake --build "$root/build-asan" -j"$jobs" > "$root/build-asan/build.log" 2>&1 \
    || { tail -50 "$root/build-asan/build.log"; return 1; }
  ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1:detect_stack_use_after_return=1 \
  UBSAN_OPTIONS=print_stacktrace=1 \
    ctest --test-dir "$root/build-asan" --output-on-failure -j"$jobs" -LE long
}

step_valgrind() {
  # The normal build made by scripts/test; build it if it is not there.
  local build=${KVAEC_VALGRIND_BUILD:-$root/build}
  if [ ! -d "$build/tests" ]; then
    cmake -S "$root" -B "$build" -DKVAEC_WERROR=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
    cmake --build "$build" -j"$jobs" > /dev/null
  fi
  local logs="$build/valgrind"
  mkdir -p "$logs"
  # One memcheck run per test binary, two at a time. Only memcheck errors
  # (exit 99) fail this step; a failing test is reported (the normal run
  # already judged it). The closed-loop scenario binaries run minutes of
  # audio each, 30-50x slower under memcheck: they run one third of their
  # tests here (gtest sharding); the sanitizer step runs all of them. The
  # delay track runs its argument, streaming and short-input cases.
  find "$build/tests" -maxdepth 1 -type f -perm -u+x -name '*_test_*' | sort \
    | xargs -r -P"$jobs" -I{} sh -c '
        b=$(basename "$1"); log="$2/$b.log"
        case "$b" in scenario_*) export GTEST_TOTAL_SHARDS=3 GTEST_SHARD_INDEX=0 ;;
          host_test_track) export GTEST_FILTER="Track.BadArguments*:Track.LatestIsFoundEarly*:Track.SilentFarEndIsNoActivity:Track.OddBlockSizes*" ;; esac
        valgrind -q --error-exitcode=99 --leak-check=full --errors-for-leak-kinds=definite \
          --track-origins=yes "$1" > "$log" 2>&1
        rc=$?
        if [ $rc -eq 0 ]; then echo "valgrind ok: $b"
        elif [ $rc -eq 99 ]; then echo "valgrind FAILED: $b (log: $log)"; grep -A30 "==[0-9]*==" "$log" | head -80; exit 255
        else echo "valgrind ok: $b (no memcheck errors; tests failed with status $rc, log: $log)"; fi' _ {} "$logs"
}

step_armhf() {
  cmake -S "$root" -B "$root/build-armhf" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-armhf.cmake" \
    -DKVAEC_WERROR=ON -DKVAEC_GTEST_FROM_SOURCE=ON -DKVAEC_BUILD_TOOLS=OFF -DKVAEC_BUILD_SHARED=OFF -DKVAEC_BUILD_PIPEWIRE=OFF -DKVAEC_BUILD_GST=OFF \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
  cmake --build "$root/build-armhf" -j"$jobs" > "$root/build-armhf/build.log" 2>&1 \
    || { tail -50 "$root/build-armhf/build.log"; return 1; }
  # qemu-arm runs about 20x slower than native: the closed-loop scenario
  # tests (minutes of audio, quality checks) and the delay track's
  # simulated recordings are left out; the golden run
  # checks that armhf computes the same bits as x86-64.
  ctest --test-dir "$root/build-armhf" --output-on-failure -j"$jobs" -LE 'scenario|long|host'
}

step_aarch64() {
  cmake -S "$root" -B "$root/build-aarch64" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-aarch64.cmake" \
    -DKVAEC_WERROR=ON -DKVAEC_GTEST_FROM_SOURCE=ON -DKVAEC_BUILD_TOOLS=OFF -DKVAEC_BUILD_SHARED=OFF -DKVAEC_BUILD_PIPEWIRE=OFF -DKVAEC_BUILD_GST=OFF \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
  cmake --build "$root/build-aarch64" -j"$jobs" --target perf_test_kernels perf_test_equivalence golden_test_golden \
    core_test_fpenv \
    > "$root/build-aarch64/build.log" 2>&1 || { tail -50 "$root/build-aarch64/build.log"; return 1; }
  ctest --test-dir "$root/build-aarch64" --output-on-failure -j"$jobs" -L 'perf|golden'
  # The floating-point mode of the entry points (FPCR on AArch64).
  ctest --test-dir "$root/build-aarch64" --output-on-failure -j"$jobs" -R '^FpMode\.'
}

step_fuzz() {
  "$root/tests/fuzz/run.sh" "${KVAEC_FUZZ_SECONDS:-60}" "$root/build-fuzz"
}

step_tsan() {
  # Only the plugin and its test binary, built with -fsanitize=thread; only
  # the GstHarness tests whose threads meet in the plugin run: properties
  # changed from another thread while buffers flow, the probe freed from
  # another thread mid-stream, the delay estimate's worker thread. GLib's
  # own code is not instrumented: the test binary tells the sanitizer about
  # GLib's futex-based locks (tests/gstreamer/tsan_glib.cpp); tests built on
  # GStreamer's own streaming threads (real pipelines) are left out, since
  # GLib's internal locking is invisible there.
  local san="-fsanitize=thread -fno-omit-frame-pointer"
  cmake -S "$root" -B "$root/build-tsan" -DKVAEC_WERROR=ON -DKVAEC_BUILD_TOOLS=OFF -DKVAEC_BUILD_SHARED=OFF \
    -DKVAEC_BUILD_PIPEWIRE=OFF -DKVAEC_BUILD_GST=ON \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_FLAGS="$san" -DCMAKE_CXX_FLAGS="$san" \
    -DCMAKE_EXE_LINKER_FLAGS="-fsanitize=thread" -DCMAKE_SHARED_LINKER_FLAGS="-fsanitize=thread" > /dev/null
  cmake --build "$root/build-tsan" -j"$jobs" --target gstkvaec gstreamer_kvaec_elements \
    > "$root/build-tsan/build.log" 2>&1 || { tail -50 "$root/build-tsan/build.log"; return 1; }
  # G_SLICE=always-malloc: GLib's slice allocator hands memory between
  # threads behind locks the sanitizer does not see; plain malloc instead.
  G_SLICE=always-malloc TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
    ctest --test-dir "$root/build-tsan" --output-on-failure -j"$jobs" -L gstreamer \
      -R 'ProbeRemovedMidStream|LivePropertyChanges|AutoEchoDelay'
}

step_soak() {
  "$root/scripts/soak" --minutes "${KVAEC_SOAK_MINUTES:-5}"
}

install_extra_deps
for s in "${steps[@]}"; do
  case "$s" in
    i386|asan|valgrind|armhf|aarch64|fuzz|soak|tsan) timed "$s" "step_$s" ;;
    *) echo "ci_extra: unknown step $s" >&2; exit 2 ;;
  esac
done
