#!/bin/sh
# Compares the dynamic symbols defined by the shared library with the list.
set -eu
lib=$1 list=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
nm -D --defined-only "$lib" | awk 'NF == 3 {print $3}' | sort -u > "$tmp/actual"
grep -v '^#' "$list" | grep -v '^$' | sort -u > "$tmp/expected"
if ! diff "$tmp/expected" "$tmp/actual" > "$tmp/diff"; then
  echo "exported symbols differ from $list (< expected only, > exported only):"
  cat "$tmp/diff"
  exit 1
fi
echo "$(wc -l < "$tmp/actual") exported symbols match the list"
