#!/usr/bin/python3
"""A real, headless PipeWire daemon loads the plugin through
libpipewire-module-echo-cancel (library.name = aec/libspa-aec-kvaec, found in
the build tree through SPA_PLUGIN_DIR): the echo-cancel nodes appear, the
module takes the plugin's reported latency as node latency, and a second
echo-cancel module in the same process is refused in words while the first
keeps its nodes. Own XDG_RUNTIME_DIR, no session bus; the daemon is stopped
by its process id whatever happens.

usage: daemon_nodes.py BUILD_PLUGIN_DIR SYSTEM_PLUGIN_DIR
"""
import os
import re
import signal
import subprocess
import sys
import tempfile
import time

CONF = """
context.properties = {
  core.daemon = true
  core.name = pipewire-0
  default.clock.rate = 48000
  default.clock.quantum = 1024
  support.dbus = false
}
context.spa-libs = {
  audio.convert.* = audioconvert/libspa-audioconvert
  support.*       = support/libspa-support
}
context.modules = [
  { name = libpipewire-module-protocol-native }
  { name = libpipewire-module-profiler }
  { name = libpipewire-module-metadata }
  { name = libpipewire-module-access }
  { name = libpipewire-module-client-node }
  { name = libpipewire-module-adapter }
  { name = libpipewire-module-link-factory }
  { name = libpipewire-module-spa-node-factory }
  { name = libpipewire-module-echo-cancel
    args = {
      library.name = aec/libspa-aec-kvaec
      audio.rate = 48000
      audio.channels = 1
      audio.position = [ MONO ]
      aec.args = { kvaec.preset = full-duplex }
      capture.props = { node.name = ec-capture }
      source.props = { node.name = ec-source }
      sink.props = { node.name = ec-sink }
      playback.props = { node.name = ec-playback }
    }
  }
  { name = libpipewire-module-echo-cancel
    flags = [ nofail ]
    args = {
      library.name = aec/libspa-aec-kvaec
      audio.rate = 48000
      capture.props = { node.name = ec2-capture }
      source.props = { node.name = ec2-source }
      sink.props = { node.name = ec2-sink }
      playback.props = { node.name = ec2-playback }
    }
  }
]
context.objects = [
  { factory = spa-node-factory
    args = { factory.name = support.node.driver node.name = Dummy-Driver
             node.group = pipewire.dummy priority.driver = 20000 } }
]
"""


def main():
    build_dir, system_dir = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])
    with tempfile.TemporaryDirectory(prefix="kvaec-pw-") as tmp:
        run = os.path.join(tmp, "run")
        spa = os.path.join(tmp, "spa")
        os.makedirs(run, mode=0o700)
        os.makedirs(spa)
        # The plugin tree: the built aec/ beside the installed support plugins.
        os.symlink(os.path.join(build_dir, "aec"), os.path.join(spa, "aec"))
        for sub in ("support", "audioconvert", "audiomixer"):
            os.symlink(os.path.join(system_dir, sub), os.path.join(spa, sub))
        conf = os.path.join(tmp, "pipewire.conf")
        with open(conf, "w") as f:
            f.write(CONF)
        env = {"PATH": os.environ.get("PATH", "/usr/bin:/bin"), "HOME": tmp, "XDG_RUNTIME_DIR": run,
               "SPA_PLUGIN_DIR": spa, "PIPEWIRE_DEBUG": "3"}
        log_path = os.path.join(tmp, "daemon.log")
        log = open(log_path, "w")
        daemon = subprocess.Popen(["pipewire", "-c", conf], env=env, stdout=log, stderr=subprocess.STDOUT,
                                  stdin=subprocess.DEVNULL, start_new_session=True)
        try:
            names = set()
            wanted = {"ec-capture", "ec-source", "ec-sink", "ec-playback"}
            deadline = time.monotonic() + 20
            while time.monotonic() < deadline and not wanted <= names:
                if daemon.poll() is not None:
                    break
                time.sleep(0.3)
                try:
                    out = subprocess.run(["pw-cli", "ls", "Node"], env=env, capture_output=True, text=True,
                                         timeout=5).stdout
                except subprocess.TimeoutExpired:
                    continue
                names = set(re.findall(r'node\.name = "([^"]+)"', out))
            text = open(log_path).read()
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
            if daemon.poll() is not None:
                print("FAIL: the daemon exited with %s" % daemon.returncode)
                ok = False
            if not ok:
                sys.stdout.write(text[-4000:])
                return 1
            print("nodes %s; latency %s/48000; second instance refused" % (sorted(names), m.group(1)))
            return 0
        finally:
            if daemon.poll() is None:
                os.kill(daemon.pid, signal.SIGTERM)
                try:
                    daemon.wait(timeout=5)
                except subprocess.TimeoutExpired:
                    os.kill(daemon.pid, signal.SIGKILL)
                    daemon.wait()
            log.close()


if __name__ == "__main__":
    sys.exit(main())
