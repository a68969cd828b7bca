#!/bin/sh
# Every place that carries the version agrees with the CMake project version:
# the header macros (as compiled), the shared library's file name and soname,
# the pkg-config and CMake package files of an installed copy, the tool's
# --version and the Python package's __version__.
#   check_versions.sh VERSION BUILD_DIR SOURCE_DIR LIBRARY TOOL CC
set -eu
want=$1 build=$2 src=$(cd "$3" && pwd) lib=$(readlink -f "$4") tool=$5 cc=$6
major=${want%%.*}
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
fail=0
check() {  # what, got
  if [ "$2" = "$want" ]; then echo "ok   $1: $2"; else echo "FAIL $1: '$2', project version $want"; fail=1; fi
}
cat > "$tmp/v.c" <<'C'
#include <stdio.h>
#include <kvaec.h>
int main(void) { printf("%d.%d.%d\n", KVAEC_VERSION_MAJOR, KVAEC_VERSION_MINOR, KVAEC_VERSION_PATCH); return 0; }
C
"$cc" -I"$src/include" -o "$tmp/v" "$tmp/v.c"
check "kvaec.h KVAEC_VERSION_*" "$("$tmp/v")"
real=$(basename "$(readlink -f "$lib")")
check "shared library file" "${real#libkvaec.so.}"
soname=$(objdump -p "$lib" | awk '$1 == "SONAME" { print $2 }')
if [ "$soname" = "libkvaec.so.$major" ]; then echo "ok   soname: $soname"; else echo "FAIL soname: $soname, want libkvaec.so.$major"; fail=1; fi
cmake --install "$build" --prefix "$tmp/prefix" >/dev/null
pc=$(find "$tmp/prefix" -name kvaec.pc | head -n 1)
check "kvaec.pc" "$(PKG_CONFIG_PATH=$(dirname "$pc") pkg-config --modversion kvaec)"
cv=$(find "$tmp/prefix" -name kvaecConfigVersion.cmake | head -n 1)
check "kvaecConfigVersion.cmake" "$(sed -n 's/^set(PACKAGE_VERSION "\(.*\)")$/\1/p' "$cv")"
check "kvaec --version" "$("$tool" --version | sed 's/^kvaec //')"
check "python kvaec.__version__" "$(cd "$tmp" && PYTHONPATH="$src/python" KVAEC_LIB="$lib" /usr/bin/python3 -c 'import kvaec; print(kvaec.__version__)')"
check "python/pyproject.toml (dynamic version from kvaec._version)" \
  "$(grep -q 'version = {attr = "kvaec._version.__version__"}' "$src/python/pyproject.toml" && echo "$want" || echo missing)"
exit $fail
