# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""FreeRADIUS of Debian's packages, as a test's own server: on loopback, in the foreground, in a folder of its own."""

import os
import re
import socket
import subprocess
import threading
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
READY_LIMIT_S = 30


class Installation:
  """Where FreeRADIUS is: unpacked by ./dev, which doesn't start it, or installed."""

  def __init__(self):
    for root in (ROOT / "build" / "unpacked", Path("/")):
      self.root = root
      self.server = root / "usr/sbin/freeradius"
      self.radclient = root / "usr/bin/radclient"
      self.libraries = root / "usr/lib/freeradius"
      self.dictionaries = root / "usr/share/freeradius"
      if all(path.exists() for path in (self.server, self.radclient, self.libraries / "rlm_python3.so",
                                        self.dictionaries / "dictionary")):
        self.found = True
        break
    else:
      self.found = False

  def environment(self, **more):
    environment = dict(os.environ, **more)
    if self.root != Path("/"):
      known = [str(self.libraries)] + environment.get("LD_LIBRARY_PATH", "").split(":")
      environment["LD_LIBRARY_PATH"] = ":".join(filter(None, known))
    return environment


def free_port():
  """A UDP port of loopback that nobody has at this moment."""
  with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as taken:
    taken.bind(("127.0.0.1", 0))
    return taken.getsockname()[1]


class Server:
  """A running FreeRADIUS. In the configuration, @folder@ is its folder, and each @port:NAME@ a port of its own."""

  def __init__(self, installation, folder, configuration, threads=False, environment=None):
    self.installation = installation
    self.folder = Path(folder)
    self.changed = threading.Condition()
    for _ in range(5):  # until the ports that were free still are when the server takes them
      self.lines = []
      self.ports = {}
      (self.folder / "dictionary").write_text("")
      (self.folder / "radiusd.conf").write_text(self._filled(configuration))
      self.process = subprocess.Popen(
          [installation.server, "-f", "-l", "stdout", "-d", self.folder, "-D", installation.dictionaries] +
          ["-n", "radiusd"] + ([] if threads else ["-s"]),
          cwd=self.folder, env=installation.environment(**(environment or {})), stdin=subprocess.DEVNULL,
          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
      self.reader = threading.Thread(target=self._read, daemon=True)
      self.reader.start()
      if self.wait_for("Ready to process requests"):
        return
      self.stop()
      if "Failed binding" not in self.log():
        break
    raise RuntimeError(f"FreeRADIUS doesn't start:\n{self.log()}")

  def _filled(self, configuration):
    def port(match):
      return str(self.ports.setdefault(match[1], free_port()))

    head = (f"raddbdir = {self.folder}\nlogdir = {self.folder}\nrun_dir = {self.folder}\n"
            f"libdir = {self.installation.libraries}\nmax_request_time = 10\ncleanup_delay = 0\n"
            "security {\n  reject_delay = 0\n  allow_core_dumps = no\n}\n")
    return head + re.sub(r"@port:(\w+)@", port, configuration.replace("@folder@", str(self.folder)))

  def _read(self):
    for line in self.process.stdout:
      with self.changed:
        self.lines.append(line)
        self.changed.notify_all()
    with self.changed:
      self.lines.append("")
      self.changed.notify_all()

  def log(self):
    with self.changed:
      return "".join(self.lines)

  def wait_for(self, pattern):
    """Whether a line of the log has the pattern before the server ends, or a limit is over."""
    with self.changed:
      self.changed.wait_for(lambda: any(re.search(pattern, line) for line in self.lines) or "" in self.lines,
                            READY_LIMIT_S)
      return any(re.search(pattern, line) for line in self.lines)

  def stop(self):
    self.process.terminate()
    try:
      self.process.wait(READY_LIMIT_S)
    except subprocess.TimeoutExpired:
      self.process.kill()
      self.process.wait()
    self.reader.join()
    self.process.stdout.close()

  def __enter__(self):
    return self

  def __exit__(self, *_):
    self.stop()
