#!/bin/sh
# Installs the build into a temporary prefix, then builds and runs a small
# consumer through find_package(kvaec) and through pkg-config.
set -eu
build=$1 src=$2 cc=$3
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
cmake --install "$build" --prefix "$tmp/prefix" >/dev/null
cmake -S "$src" -B "$tmp/build" -DCMAKE_PREFIX_PATH="$tmp/prefix" -DCMAKE_C_COMPILER="$cc" >/dev/null
cmake --build "$tmp/build" >/dev/null
libdir=$(dirname "$(find "$tmp/prefix" -name 'libkvaec.so' | head -n 1)")
LD_LIBRARY_PATH="$libdir" "$tmp/build/consumer_shared"
"$tmp/build/consumer_static"
pc=$(find "$tmp/prefix" -name kvaec.pc)
export PKG_CONFIG_PATH=$(dirname "$pc")
flags=$(pkg-config --cflags --libs kvaec)
"$cc" -o "$tmp/consumer_pc" "$src/consumer.c" $flags
LD_LIBRARY_PATH=$(pkg-config --variable=libdir kvaec) "$tmp/consumer_pc"
echo "pkg-config flags: $flags"
