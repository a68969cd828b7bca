#!/usr/bin/python3
"""A real, headless PipeWire daemon loads the plugin through
libpipewire-module-echo-cancel (library.name = aec/libspa-aec-kvaec, found in
the build tree through SPA_PLUGIN_DIR): the echo-cancel nodes appear, the
module takes the plugin's reported latency as node latency, the module's
aec.args reach the plugin, and a second echo-cancel module in the same
process is refused in words while the first keeps its nodes.

usage: daemon_nodes.py BUILD_PLUGIN_DIR SYSTEM_PLUGIN_DIR
"""
import os
import re
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import pw_daemon  # noqa: E402


def main():
    modules = (pw_daemon.echo_cancel("ec", "kvaec.preset = full-duplex")
               + pw_daemon.echo_cancel("ec2", "", nofail=True))
    with pw_daemon.Daemon(sys.argv[1], sys.argv[2], modules) as d:
        wanted = {"ec-capture", "ec-source", "ec-sink", "ec-playback"}
        names = set(d.wait_nodes(wanted))
        text = d.text()
        ok = True
        if not wanted <= names:
            print("FAIL: echo-cancel nodes missing: %s (found %s)" % (sorted(wanted - names), sorted(names)))
            ok = False
        m = re.search(r"fixed latency (\d+) samples", text)
        n = re.search(r"Setting node latency to (\d+)/48000", text)
        if not m or not n or m.group(1) != n.group(1):
            print("FAIL: the module did not take the plugin's latency (plugin %s, module %s)"
                  % (m and m.group(1), n and n.group(1)))
            ok = False
        if "preset full-duplex" not in text:
            print("FAIL: aec.args did not reach the plugin")
            ok = False
        if "libkvaec supports one echo canceller per process" not in text:
            print("FAIL: the second echo-cancel module was not refused in words")
            ok = False
        if any(x.startswith("ec2-") for x in names):
            print("FAIL: the second echo-cancel module made nodes")
            ok = False
        if not d.alive():
            print("FAIL: the daemon exited")
            ok = False
        if not ok:
            sys.stdout.write(text[-4000:])
            return 1
        print("nodes %s; latency %s/48000; second instance refused" % (sorted(names), m.group(1)))
        return 0


if __name__ == "__main__":
    sys.exit(main())
