#!/usr/bin/env bash
# Regenerates tests/golden/golden_hash.txt from a native build of the golden
# run. Use it only when the library's arithmetic changed on purpose, and
# commit the new value with that change. The same value must then come out
# of the 32-bit and ARM builds (scripts/ci_extra.sh checks it).
#   tests/golden/update_hash.sh [build-dir]   (default: build-golden)
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
build=${1:-$root/build-golden}
cmake -S "$root" -B "$build" -DKVAEC_BUILD_TOOLS=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
cmake --build "$build" -j"$(nproc 2>/dev/null || echo 2)" --target golden_test_golden > /dev/null
out=$(KVAEC_GOLDEN_HASH_FILE=/dev/null "$build/tests/golden_test_golden" \
        --gtest_filter=GoldenRun.OutputsAndFinalStateMatchTheCheckedInHash 2>&1 || true)
hash=$(printf '%s\n' "$out" | sed -n 's/^golden hash: \([0-9a-f]\{16\}\) .*/\1/p')
if [ -z "$hash" ]; then
  printf '%s\n' "$out"
  echo "update_hash: the golden run printed no hash" >&2
  exit 1
fi
file="$root/tests/golden/golden_hash.txt"
{
  echo "# FNV-1a 64 of the 30 s reference run (send and receive output, final state)."
  echo "# Written by tests/golden/update_hash.sh; must be identical on every target."
  echo "$hash"
} > "$file"
echo "golden hash $hash written to $file"
