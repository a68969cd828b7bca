#!/bin/sh
# Cross-builds the static library for a Cortex-M4F at -Os and -O2 and prints
# .text, .rodata, .data and .bss per subsystem (src/<sub>). Fails when the
# library's RAM (.data + .bss) differs from the size of its global records
# and strip tables; exits 77 (skipped) when the cross toolchain is absent.
#   tests/perf/footprint_cortex_m4.sh <source-dir> <work-dir>
set -eu
src=$1
work=$2
command -v arm-none-eabi-g++ >/dev/null 2>&1 || { echo "arm-none-eabi-g++ not found: skipped"; exit 77; }
# Records on a 32-bit target: AEC_Db, AEC_Sc (words), the reference and two
# coefficient stores (floats), 8 strip tables of 30 entries and the band map
# of 41 (ints), the two counters _Test and _Frame and the private int that
# records that the strip tables are built.
words() { sed -n "s/^#define $1 \([0-9]*\).*/\1/p" "$src/include/kvaec_records.h"; }
expect=$(( 4 * ( $(words AEC_DB_WORDS) + $(words AEC_SC_WORDS) + $(words AEC_REF_FLOATS) \
                 + 2 * $(words AEC_ADF_FLOATS) + 8 * 30 + 41 + 2 + 1 ) ))
status=0
for opt in Os O2; do
  b=$work/m4-$opt
  cmake -S "$src" -B "$b" -DCMAKE_TOOLCHAIN_FILE="$src/cmake/toolchain-cortex-m4.cmake" \
        -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS_RELEASE="-$opt -DNDEBUG" \
        -DKVAEC_BUILD_TESTS=OFF -DKVAEC_BUILD_TOOLS=OFF -DKVAEC_BUILD_SHARED=OFF -DKVAEC_WERROR=ON >/dev/null
  cmake --build "$b" --target kvaec_static -j2 >/dev/null
  echo "Cortex-M4F (-mcpu=cortex-m4 -mfpu=fpv4-sp-d16 -mfloat-abi=hard), -$opt, bytes:"
  printf '%-6s %8s %8s %8s %8s\n' sub .text .rodata .data .bss
  ram=0
  for sub in $(ls "$src/src"); do
    objs=$(find "$b/CMakeFiles/kvaec_objects.dir/src/$sub" \( -name '*.o' -o -name '*.obj' \) 2>/dev/null | sort)
    [ -n "$objs" ] || continue
    set -- $(arm-none-eabi-size -A $objs | awk '
      $1 ~ /^\.text/ {t += $2} $1 ~ /^\.rodata/ {r += $2} $1 ~ /^\.data/ {d += $2} $1 ~ /^\.bss/ {z += $2}
      END {printf "%d %d %d %d", t, r, d, z}')
    printf '%-6s %8d %8d %8d %8d\n' "$sub" "$1" "$2" "$3" "$4"
    ram=$((ram + $3 + $4))
  done
  echo "RAM (.data + .bss) $ram, records $expect"
  [ "$ram" -eq "$expect" ] || status=1
done
exit $status
