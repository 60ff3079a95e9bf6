# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""A machine of a fleet: a real ksd with its engine on a machine of the network, and ksctl there."""

import json
import os
import signal
import socket
import subprocess
import time

import cluster
import own_world
from engine import BUILD

ENGINE = os.path.abspath(f"{BUILD}/ksd-engine")


class Machine:
  """Its files lie in a folder of its own. The test's user is its administrator and in VDC 7."""

  def __init__(self, network, etcd, number, further="", folder=own_world.FOLDER, sections="", program="ksd",
               shared=True):
    self.network, self.etcd, self.number, self.program = network, etcd, number, program
    self.folder = f"{folder}/machine{number}"
    os.makedirs(self.folder, mode=0o700)
    endpoints = etcd.endpoints()
    endpoints = [f"https://{endpoint}" for endpoint in endpoints[number - 1:] + endpoints[:number - 1]]
    self.master_key = f"{self.folder}/master.key"
    self.socket = f"{self.folder}/s"
    with open(f"{self.folder}/ksd.toml", "w") as config:
      config.write(f"""[service]
socket = "{self.socket}"
vault = "{self.folder}/vault.db"
master_key_file = "{self.master_key}"
cache_uri = ""
""")
      if shared:
        config.write(f"""[shared]
endpoints = {json.dumps(endpoints)}
ca = "{etcd.tls}/ca.crt"
certificate = "{etcd.tls}/client.crt"
key = "{etcd.tls}/client.key"
machine = "m{number}"
mirror = "{self.folder}/mirror.db"
{further}
""")
      config.write(f"""{sections}
[administrators]
users = ["root"]
[[vdc]]
id = 7
users = ["root"]
""")
    self.process = None
    self.log = f"{self.folder}/log"

  def start(self, seconds=60):
    """Returns when the service says that it is ready."""
    notified = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    path = f"{self.folder}/notify"
    if os.path.exists(path):
      os.unlink(path)
    notified.bind(path)
    notified.settimeout(1)
    environment = dict(os.environ, KSD_ENGINE=ENGINE, NOTIFY_SOCKET=path)
    with open(self.log, "a") as log:
      self.process = subprocess.Popen([*self.network.on(self.number), f"{BUILD}/{self.program}", "--allow-root", "--config",
                                       f"{self.folder}/ksd.toml"], stderr=log, env=environment)
    end = time.monotonic() + seconds
    while True:
      if self.process.poll() is not None:
        raise RuntimeError(f"ksd ended: {self.told()}")
      try:
        if b"READY=1" in notified.recv(4096):
          return notified.close()
      except TimeoutError:
        if time.monotonic() > end:
          raise RuntimeError(f"ksd isn't ready: {self.told()}") from None

  def told(self):
    with open(self.log) as log:
      return log.read()

  def kill(self):
    self.process.kill()
    self.process.wait()

  def stop(self):
    self.process.send_signal(signal.SIGTERM)
    return self.process.wait(60)

  def engines(self):
    """Processes that serve this machine's daemon: one that starts engines, one that stands by, and the engine."""
    found = subprocess.run(["ip", "netns", "pids", f"m{self.number}"], capture_output=True, text=True).stdout.split()
    pids = [int(pid) for pid in found if os.readlink(f"/proc/{pid}/exe").endswith("/ksd-engine")]
    parent = {pid: int(stat_of(pid)[1]) for pid in pids}
    # Of those who stand by none has threads or children.
    role = {pid: 2 if len(os.listdir(f"/proc/{pid}/task")) > 1 else 0 if pid in parent.values() else 1 for pid in pids}
    return sorted(pids, key=role.get)

  def doctor(self):
    """What is found to be wrong or good, by the check's name; the last of each, and its repair."""
    found = json.loads(self.ctl("doctor", "--config", f"{self.folder}/ksd.toml", "--json").stdout)["checks"]
    return {row["check"]: (row["verdict"], row["finding"], row["repair"]) for row in found}

  def ctl(self, *words, given=None):
    return subprocess.run([f"{BUILD}/ksctl", "--socket", self.socket, *words], input=given,
                          capture_output=True, text=True, env=dict(os.environ, KSD_ENGINE=ENGINE))

  def put(self, name, secret="a secret", *options):
    return self.ctl("secret", "put", name, *options, given=secret).returncode

  def names(self):
    """All names that are there, or None when that isn't known."""
    listed = self.ctl("secret", "list", "--json")
    if listed.returncode != 0:
      return None
    return [entry["name"] for entry in json.loads(listed.stdout)["secrets"]]

  def backup(self, name):
    """To a file of that name in the machine's folder; gives what is told of it."""
    done = self.ctl("backup", f"{self.folder}/{name}", "--passphrase-cost", "interactive", "--json", given="p\n")
    assert done.returncode == 0, done.stderr
    return json.loads(done.stdout)

  def restore(self, name):
    """The other way round, into the fleet."""
    done = self.ctl("fleet", "restore", os.path.join(self.folder, name), "--yes", "--json", given="p\n")
    assert done.returncode == 0, done.stderr
    return json.loads(done.stdout)

  def begin_restore(self, name):
    process = subprocess.Popen([f"{BUILD}/ksctl", "--socket", f"{self.folder}/s", "fleet", "restore",
                                f"{self.folder}/{name}", "--yes"], stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL)
    process.stdin.write(b"p\n")
    process.stdin.close()
    return process

  def status(self):
    return json.loads(self.ctl("fleet", "status", "--json").stdout)

  def wait_for(self, names, seconds=60):
    cluster.wait_until(lambda: set(self.names() or []) == set(names), seconds, f"{names} on machine {self.number}")


def stat_of(pid):
  """The fields of /proc/PID/stat behind the name."""
  with open(f"/proc/{pid}/stat") as stat:
    return stat.read().rpartition(")")[2].split()


def join(machine, to):
  """As an operator does it, with files carried from one to the other."""
  request, answer, key = (f"{machine.folder}/{name}" for name in ("request", "answer", "join.key"))
  asked = json.loads(machine.ctl("fleet", "request", request, "--join-key-file", key, "--json").stdout)
  answered = json.loads(to.ctl("fleet", "admit", request, answer, "--fingerprint", asked["fingerprint"],
                               "--master-key-file", f"{to.folder}/master.key", "--json").stdout)
  done = machine.ctl("fleet", "join", answer, "--fingerprint", answered["fingerprint"], "--join-key-file", key,
                     "--master-key-file", f"{machine.folder}/master.key")
  assert done.returncode == 0, done.stderr


def start_fleet(machines, start=Machine.start):
  """The first makes it, and the others join that."""
  first, *others = machines
  start(first)
  for other in others:
    join(other, to=first)
    start(other)
