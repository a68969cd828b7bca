"""A headless PipeWire daemon for the plugin's tests: its own
XDG_RUNTIME_DIR, no session bus, a plugin tree that holds the built aec/
beside the installed support plugins (SPA_PLUGIN_DIR). Without a session
manager nothing configures ports or links them; the tests do it themselves
(port configuration by pw-cli, links by pw-link), as a session manager would.
The daemon and every client started here are stopped by their process ids
whatever happens.
"""
import os
import re
import signal
import subprocess
import tempfile
import time

BASE_MODULES = """
  { name = libpipewire-module-protocol-native }
  { name = libpipewire-module-profiler }
  { name = libpipewire-module-metadata }
  { name = libpipewire-module-access }
  { name = libpipewire-module-client-node }
  { name = libpipewire-module-adapter }
  { name = libpipewire-module-link-factory }
  { name = libpipewire-module-spa-node-factory }
"""

CONF = """
context.properties = {
  core.daemon = true
  core.name = pipewire-0
  default.clock.rate = 48000
  default.clock.quantum = 1024
  default.clock.min-quantum = 1024
  default.clock.max-quantum = 1024
  support.dbus = false
}
context.spa-libs = {
  audio.convert.* = audioconvert/libspa-audioconvert
  support.*       = support/libspa-support
}
context.modules = [
%(modules)s
]
context.objects = [
  { factory = spa-node-factory
    args = { factory.name = support.node.driver node.name = Dummy-Driver
             node.group = pipewire.dummy priority.driver = 20000 } }
]
"""

ECHO_CANCEL = """
  { name = libpipewire-module-echo-cancel
    %(flags)s
    args = {
      library.name = aec/libspa-aec-kvaec
      audio.rate = 48000
      audio.channels = 1
      audio.position = [ MONO ]
      aec.args = { %(aec_args)s }
      capture.props = { node.name = %(p)s-capture }
      source.props = { node.name = %(p)s-source }
      sink.props = { node.name = %(p)s-sink }
      playback.props = { node.name = %(p)s-playback }
    }
  }
"""


def echo_cancel(prefix, aec_args="", nofail=False):
    return ECHO_CANCEL % {"p": prefix, "aec_args": aec_args, "flags": "flags = [ nofail ]" if nofail else ""}


class Daemon:
    def __init__(self, build_plugin_dir, system_plugin_dir, modules):
        self.build_dir = os.path.abspath(build_plugin_dir)
        self.system_dir = os.path.abspath(system_plugin_dir)
        self.modules = modules
        self.procs = []

    def __enter__(self):
        self.tmpobj = tempfile.TemporaryDirectory(prefix="kvaec-pw-")
        self.tmp = self.tmpobj.name
        run = os.path.join(self.tmp, "run")
        spa = os.path.join(self.tmp, "spa")
        os.makedirs(run, mode=0o700)
        os.makedirs(spa)
        os.symlink(os.path.join(self.build_dir, "aec"), os.path.join(spa, "aec"))
        for sub in ("support", "audioconvert", "audiomixer"):
            os.symlink(os.path.join(self.system_dir, sub), os.path.join(spa, sub))
        conf = os.path.join(self.tmp, "pipewire.conf")
        with open(conf, "w") as f:
            f.write(CONF % {"modules": BASE_MODULES + self.modules})
        self.env = {"PATH": os.environ.get("PATH", "/usr/bin:/bin"), "HOME": self.tmp, "XDG_RUNTIME_DIR": run,
                    "SPA_PLUGIN_DIR": spa, "PIPEWIRE_DEBUG": "3"}
        self.log_path = os.path.join(self.tmp, "daemon.log")
        self.log = open(self.log_path, "w")
        self.daemon = self.spawn(["pipewire", "-c", conf], self.log)
        return self

    def spawn(self, cmd, out=None):
        p = subprocess.Popen(cmd, env=self.env, stdout=out or subprocess.DEVNULL, stderr=subprocess.STDOUT,
                             stdin=subprocess.DEVNULL, start_new_session=True, cwd=self.tmp)
        self.procs.append(p)
        return p

    def stop(self, p, sig=signal.SIGTERM):
        if p.poll() is None:
            os.kill(p.pid, sig)
            try:
                p.wait(timeout=5)
            except subprocess.TimeoutExpired:
                os.kill(p.pid, signal.SIGKILL)
                p.wait()

    def __exit__(self, *exc):
        # Clients first, the daemon last; each by its own process id.
        for p in reversed(self.procs):
            self.stop(p)
        self.log.close()
        self.tmpobj.cleanup()
        return False

    def alive(self):
        return self.daemon.poll() is None

    def text(self):
        with open(self.log_path) as f:
            return f.read()

    def cli(self, *args):
        try:
            return subprocess.run(["pw-cli", *args], env=self.env, capture_output=True, text=True, timeout=10).stdout
        except subprocess.TimeoutExpired:
            return ""

    def nodes(self):
        """node.name -> id"""
        out = self.cli("ls", "Node")
        ids = {}
        cur = None
        for line in out.splitlines():
            m = re.match(r"\s*id (\d+), type PipeWire:Interface:Node", line)
            if m:
                cur = int(m.group(1))
            m = re.search(r'node\.name = "([^"]+)"', line)
            if m and cur is not None:
                ids[m.group(1)] = cur
        return ids

    def wait_nodes(self, names, seconds=20):
        deadline = time.monotonic() + seconds
        ids = {}
        while time.monotonic() < deadline and self.alive():
            ids = self.nodes()
            if set(names) <= set(ids):
                return ids
            time.sleep(0.2)
        return ids

    def port_config(self, node_id, direction, positions):
        """Gives a node its ports (what a session manager does): one port per channel, 32-bit float."""
        pos = ", ".join('"%s"' % p for p in positions)
        self.cli("s", str(node_id), "PortConfig",
                 '{ "direction": "%s", "mode": "dsp", "format": { "mediaType": "audio", "mediaSubtype": "raw", '
                 '"format": "F32P", "rate": 48000, "channels": %d, "position": [ %s ] } }'
                 % (direction, len(positions), pos))

    def ports(self):
        try:
            out = subprocess.run(["pw-link", "-io"], env=self.env, capture_output=True, text=True,
                                 timeout=10).stdout
        except subprocess.TimeoutExpired:
            return set()
        return set(line.strip() for line in out.splitlines() if line.strip())

    def wait_ports(self, names, seconds=10):
        deadline = time.monotonic() + seconds
        have = set()
        while time.monotonic() < deadline and self.alive():
            have = self.ports()
            if set(names) <= have:
                return True
            time.sleep(0.2)
        return False

    def link(self, out_port, in_port):
        r = subprocess.run(["pw-link", out_port, in_port], env=self.env, capture_output=True, text=True,
                           timeout=10)
        if r.returncode != 0:
            raise RuntimeError("pw-link %s %s: %s" % (out_port, in_port, r.stderr.strip()))
