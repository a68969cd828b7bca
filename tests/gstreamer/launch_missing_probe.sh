#!/bin/sh
# gst-launch-1.0 with a kvaecdsp whose probe does not exist: the command
# fails (non-zero exit) and its error names the missing probe.
#   launch_missing_probe.sh PLUGIN_DIR
set -u
dir=$1
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
export GST_PLUGIN_PATH="$dir"
export GST_REGISTRY="$tmp/registry.bin"
rc=0
timeout 30 gst-launch-1.0 audiotestsrc num-buffers=10 ! audio/x-raw,rate=16000,channels=1 \
  ! kvaecdsp probe=no-such-probe ! fakesink > "$tmp/out" 2> "$tmp/err" || rc=$?
cat "$tmp/out" "$tmp/err"
if [ "$rc" -eq 0 ]; then
  echo "FAIL: gst-launch-1.0 exited 0 without a probe"
  exit 1
fi
if [ "$rc" -eq 124 ]; then
  echo "FAIL: gst-launch-1.0 did not stop within 30 s"
  exit 1
fi
if ! grep -q "no-such-probe" "$tmp/out" "$tmp/err"; then
  echo "FAIL: the error does not name the missing probe"
  exit 1
fi
if grep -q "no element \"kvaecdsp\"" "$tmp/err"; then
  echo "FAIL: the plugin did not load"
  exit 1
fi
echo "ok: exit $rc, error names the probe"
