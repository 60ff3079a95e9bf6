# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""Members of an etcd cluster, each on a machine of its own, and what may happen to them.

The machines are network namespaces on one bridge, and live within own_world. Machine 0 has no member; programs that
only ask run there.
"""

import base64
import ctypes
import json
import os
import shutil
import signal
import subprocess
import time

import own_world

PORT = 2379


def run(*command, text=True, **options):
  return subprocess.run([str(word) for word in command], check=True, capture_output=True, text=text, **options).stdout


def wait_until(condition, seconds, what):
  """Asks again and again, and gives the first answer that isn't false."""
  end = time.monotonic() + seconds
  while True:
    answer = condition()
    if answer:
      return answer
    if time.monotonic() > end:
      raise TimeoutError(f"after {seconds} s still not: {what}")
    time.sleep(0.02)


class Network:
  """Machines 0 to `last`, with the addresses 10.77.0.100 for the first and 10.77.0.N for the others."""

  def __init__(self, last):
    self.machines = range(last + 1)
    run("ip", "link", "add", "bridge", "type", "bridge")
    run("ip", "link", "set", "bridge", "up")
    for machine in self.machines:
      run("ip", "netns", "add", f"m{machine}")
      run("ip", "link", "add", f"v{machine}", "type", "veth", "peer", "name", "eth0", "netns", f"m{machine}")
      run("ip", "-n", f"m{machine}", "addr", "add", f"{self.address(machine)}/24", "dev", "eth0")
      for link in ("lo", "eth0"):
        run("ip", "-n", f"m{machine}", "link", "set", link, "up")
      run("ip", "link", "set", f"v{machine}", "master", "bridge", "up")

  @staticmethod
  def address(machine):
    return f"10.77.0.{machine or 100}"

  @staticmethod
  def on(machine):
    """What to put before a command so that it runs on a machine."""
    return ["ip", "netns", "exec", f"m{machine}"]

  @staticmethod
  def enter(machine):
    """Has this thread's own connections begin on a machine."""
    with open(f"/run/netns/m{machine}") as namespace:
      if ctypes.CDLL(None, use_errno=True).setns(namespace.fileno(), 0) != 0:
        raise OSError(ctypes.get_errno(), "setns")

  def isolate(self, machine):
    """Nothing comes from it or to it any more, and nobody is told."""
    run("ip", "link", "set", f"v{machine}", "nomaster")

  def cut(self, one, other):
    """These two don't hear each other any more; everybody else hears both."""
    self.cut_one_way(one, other)
    self.cut_one_way(other, one)

  def cut_one_way(self, here, there):
    """Nothing goes from here to there any more."""
    run("ip", "-n", f"m{here}", "route", "replace", "blackhole", f"{self.address(there)}/32")

  def heal(self):
    for machine in self.machines:
      run("ip", "link", "set", f"v{machine}", "master", "bridge")
      for other in self.machines:
        subprocess.run(["ip", "-n", f"m{machine}", "route", "del", "blackhole", f"{self.address(other)}/32"],
                       capture_output=True)


class Cluster:
  def __init__(self, network, members=3, folder=own_world.FOLDER, options=(), tls=None):
    self.network = network
    self.members = range(1, members + 1)
    self.folder = f"{folder}/etcd"
    self.options = list(options)
    self.tls = tls  # a folder with ca.crt, server.crt, server.key, client.crt and client.key
    self.processes = {}
    for member in self.members:
      self.start(member)
    self.wait_for_leader()

  def endpoint(self, member):
    return f"{self.network.address(member)}:{PORT}"

  def endpoints(self):
    return [self.endpoint(member) for member in self.members]

  def _url(self, member, port=PORT):
    secure = "s" if self.tls and port == PORT else ""
    return f"http{secure}://{self.network.address(member)}:{port}"

  def start(self, member):
    command = ["etcd", "--name", f"e{member}", "--data-dir", f"{self.folder}/{member}", "--log-level", "error",
               "--listen-client-urls", self._url(member), "--advertise-client-urls", self._url(member),
               "--listen-peer-urls", self._url(member, 2380), "--initial-advertise-peer-urls", self._url(member, 2380),
               "--initial-cluster", ",".join(f"e{m}={self._url(m, 2380)}" for m in self.members), *self.options]
    if self.tls:
      command += ["--client-cert-auth", "--trusted-ca-file", f"{self.tls}/ca.crt", "--cert-file",
                  f"{self.tls}/server.crt", "--key-file", f"{self.tls}/server.key"]
    os.makedirs(self.folder, mode=0o700, exist_ok=True)
    with open(f"{self.folder}/{member}.log", "a") as log:
      self.processes[member] = subprocess.Popen(self.network.on(member) + command, stdout=log, stderr=log)

  def kill(self, member):
    self.processes[member].kill()
    self.processes[member].wait()

  def pause(self, member):
    self.processes[member].send_signal(signal.SIGSTOP)
    # Until one thread of it has met the signal, the others go on answering.
    os.waitid(os.P_PID, self.processes[member].pid, os.WSTOPPED)

  def resume(self, member):
    self.processes[member].send_signal(signal.SIGCONT)

  def repair(self):
    """Everything as it was at first, but for what is stored."""
    self.network.heal()
    for member in self.members:
      if self.processes[member].poll() is not None:
        self.start(member)
      self.resume(member)
    self.wait_for_leader()

  def stop(self):
    for member in self.members:
      self.kill(member)

  def ctl(self, *words, member=None, members=None, timeout=10, **options):
    """etcdctl, at one member, at some or at all, from machine 0."""
    asked = [member] if member else members or self.members
    command = self.network.on(0) + ["etcdctl", f"--command-timeout={timeout}s", "--endpoints",
                                    ",".join(self._url(m) for m in asked)]
    if self.tls:
      command += ["--cacert", f"{self.tls}/ca.crt", "--cert", f"{self.tls}/client.crt", "--key",
                  f"{self.tls}/client.key"]
    return run(*command, *words, env=dict(os.environ, ETCDCTL_API="3"), **options)

  def _status(self, member):
    try:
      return json.loads(self.ctl("endpoint", "status", "-w", "json", member=member, timeout=2))[0]["Status"]
    except subprocess.CalledProcessError:
      return None

  def leader(self, members=None):
    """The member that all of these agree on, or None."""
    members = members or self.members
    said = [self._status(member) for member in members]
    leaders = {status and status.get("leader") for status in said}
    if len(leaders) != 1 or not leaders & {status["header"]["member_id"] for status in said if status}:
      return None
    return next(m for m, status in zip(members, said) if status["header"]["member_id"] == status["leader"])

  def wait_for_leader(self, members=None):
    return wait_until(lambda: self.leader(members), 60, "a leader of the cluster")

  def revision(self):
    return max(self._status(member)["header"]["revision"] for member in self.members)

  def compact(self, revision, members=None):
    """Returns when the space is free. (Otherwise it would be later, and a member that is defragmented not smaller.)"""
    self.ctl("compact", revision, "--physical", members=members, timeout=30)

  def defragment(self, members=None):
    for member in members or self.members:
      self.ctl("defrag", member=member)

  def free_space(self, revision=None):
    """What an administrator does about a quota that is used up; again, where it is used up meanwhile. `revision` gives
    up to where the history isn't needed, all of it if it isn't given."""
    compacted = 0

    def free():
      nonlocal compacted
      upto = (revision or self.revision)()
      if upto > compacted:
        self.compact(upto)
        compacted = upto
      self.defragment()
      self.ctl("alarm", "disarm")
      return not self.ctl("alarm", "list").strip()

    wait_until(free, 60, "a cluster without an alarm")

  def value_of(self, key):
    return base64.b64decode(json.loads(self.ctl("get", key, "-w", "json"))["kvs"][0]["value"])

  def put(self, key, value):
    self.ctl("put", key, input=value, text=False)

  def save(self, path):
    self.ctl("snapshot", "save", path, member=self.members[0])

  def restore(self, path):
    """All members anew from a snapshot."""
    self.stop()
    for member in self.members:
      shutil.rmtree(f"{self.folder}/{member}")
      self.ctl("snapshot", "restore", path, "--name", f"e{member}", "--data-dir", f"{self.folder}/{member}",
               "--initial-cluster", ",".join(f"e{m}={self._url(m, 2380)}" for m in self.members),
               "--initial-advertise-peer-urls", self._url(member, 2380))
      self.start(member)
    self.wait_for_leader()


def make_certificates(folder, network, members=3, name="one", days=30):
  """An authority, a certificate for all members and one for a client, by openssl, as Cluster(tls=) takes them."""
  os.makedirs(folder, exist_ok=True)
  names = ",".join(f"IP:{network.address(m)}" for m in range(1, members + 1))
  new_key = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days", str(days)]
  run("openssl", "req", "-x509", *new_key, "-subj", f"/CN=authority {name}", "-keyout", f"{folder}/ca.key", "-out",
      f"{folder}/ca.crt")
  for who, usage in (("server", "serverAuth,clientAuth"), ("client", "clientAuth")):
    run("openssl", "req", *new_key, "-subj", f"/CN={who} {name}", "-keyout", f"{folder}/{who}.key", "-out",
        f"{folder}/{who}.csr")
    with open(f"{folder}/{who}.ext", "w") as extensions:
      extensions.write(f"extendedKeyUsage={usage}\n" + (f"subjectAltName={names}\n" if who == "server" else ""))
    run("openssl", "x509", "-req", "-in", f"{folder}/{who}.csr", "-CA", f"{folder}/ca.crt", "-CAkey",
        f"{folder}/ca.key", "-CAcreateserial", "-days", str(days), "-extfile", f"{folder}/{who}.ext", "-out",
        f"{folder}/{who}.crt")
