#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""fleet_figures.py [FOLDER]: what programs on three machines see of their fleet: how long changes take, beside the same
changes sent to etcd directly in turn with them, when others see them, and how long it takes to get over a fault. FOLDER
is where the members keep their data, in memory if it isn't given.

Run by `./dev fleet --figures`, with the build's folder in KS_BUILD.
"""

import http.client
import os
import ssl
import statistics
import subprocess
import sys
import threading
import time

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import own_world  # noqa: E402

if __name__ == "__main__":
  own_world.enter("etcd", "etcdctl", "openssl")

import cluster  # noqa: E402
import machine  # noqa: E402
from engine import BUILD, memory_of  # noqa: E402
from engine_figures import Direct, figures  # noqa: E402

ENTRIES = 65_535
LIMITS = f"""[limits]
entries = {ENTRIES}
entries_per_user = {ENTRIES}
changes_per_user = 512
"""


class Programs:
  """fleet_clients on one machine, which does what it is told."""

  def __init__(self, each):
    self.process = subprocess.Popen(
        [*each.network.on(each.number), f"{BUILD}/tests/fleet_clients", "serve"], stdin=subprocess.PIPE,
        stdout=subprocess.PIPE, text=True, env=dict(os.environ, KS_SOCKET=each.socket))

  def tell(self, *words):
    self.process.stdin.write(" ".join(map(str, words)) + "\n")
    self.process.stdin.flush()

  def hear(self):
    return [int(number) for number in self.process.stdout.readline().split()]

  def ask(self, *words):
    self.tell(*words)
    return self.hear()


def seconds(microseconds):
  return [number / 1e6 for number in microseconds]


def percentile(times, percent):
  times = sorted(times)
  return times[min(len(times) * percent // 100, len(times) - 1)]


class Fleet:
  def __init__(self, folder):
    self.network = cluster.Network(3)
    tls = f"{own_world.FOLDER}/tls"
    cluster.make_certificates(tls, self.network)
    self.etcd = cluster.Cluster(self.network, folder=folder, tls=tls)
    self.machines = [machine.Machine(self.network, self.etcd, n, "create = true" if n == 1 else "", sections=LIMITS)
                     for n in (1, 2, 3)]
    machine.start_fleet(self.machines)
    self.programs = [Programs(each) for each in self.machines]
    self.content = 0

  def next_content(self):
    self.content += 1
    return self.content

  def wait_until_well(self):
    cluster.wait_until(lambda: all(each.status()["well"] for each in self.machines), 30, "a fleet that is well")

  def direct(self, member, timeout=None):
    """A connection to a member, as the engines have one."""
    tls = self.etcd.tls
    context = ssl.create_default_context(cafile=f"{tls}/ca.crt")
    context.load_cert_chain(f"{tls}/client.crt", f"{tls}/client.key")
    connection = http.client.HTTPSConnection(self.network.address(member), cluster.PORT, timeout=timeout, context=context)

    def connect():
      self.network.enter(0)
      connection.connect()

    there = threading.Thread(target=connect)  # a thread is on one machine alone
    there.start()
    there.join()
    return Direct(connection)

  # ---- Figures. ----

  def changes_one_after_the_other(self):
    leader = self.etcd.leader()
    direct = self.direct(leader)
    at_leader, elsewhere = self.programs[leader - 1], self.programs[leader % 3]
    times = {"on the leader's machine": [], "on another machine": [], "etcd directly": []}
    past = 0
    for turn in range(60):
      times["on the leader's machine"] += seconds(at_leader.ask("put", f"entry{turn % 10}", 20)[1:])
      times["on another machine"] += seconds(elsewhere.ask("put", f"entry{turn % 10}", 20)[1:])
      for i in range(20):
        begun = time.perf_counter()
        past = direct.commit(past, [("h", b"h" * 300), (f"e/{turn % 10:016x}", b"r" * 150)])
        times["etcd directly"].append(time.perf_counter() - begun)
    for where, took in times.items():
      print(f"a change, {where}: {figures(took)}")

  def contention(self):
    for threads in (1, 8):
      for one in self.programs:
        one.tell("busy", threads, 5000)
      heard = [one.hear() for one in self.programs]
      took = [number / 1e6 for failures, *times in heard for number in times]
      shares = ", ".join(str(len(times) // 5) for failures, *times in heard)
      failed = sum(failures for failures, *times in heard)
      print(f"{threads} threads on each of three machines: {len(took) / 5:.0f} changes a second ({shares}), "
            f"{figures(took)}, {failed} failed")

  def visibility(self):
    one, *others = self.programs
    took = []
    for _ in range(300):
      content = self.next_content()
      for other in others:
        other.tell("until", "seen", content)
      _, ended, _ = one.ask("store", "seen", content)
      took += [max(0, other.hear()[0] - ended) / 1e9 for other in others]
    print(f"seen on the other machines after it was acknowledged: {figures(took)}")

  def changed_directly(self, member):
    """When etcd itself takes a change again."""
    while True:
      try:
        self.direct(member, 0.3).ask("put", {"key": "YQ==", "value": "YQ=="})["header"]
        return time.monotonic_ns()
      except (OSError, http.client.HTTPException, KeyError):
        time.sleep(0.02)

  def leader_killed(self):
    took = {"by a program": [], "directly": []}
    for _ in range(12):
      leader = self.etcd.wait_for_leader()
      self.etcd.kill(leader)
      killed = time.monotonic_ns()
      for i, one in enumerate(self.programs):
        one.tell("change", f"after{i}")
      took["directly"].append((self.changed_directly(leader % 3 + 1) - killed) / 1e9)
      took["by a program"] += [(one.hear()[1] - killed) / 1e9 for one in self.programs]
      self.etcd.repair()
      self.wait_until_well()
    for who, times in took.items():
      print(f"leader killed, a change {who} again after: median {statistics.median(times):.2f} s, "
            f"p95 {percentile(times, 95):.2f} s, most {max(times):.2f} s")

  def partition(self):
    took = []
    for _ in range(5):
      self.network.isolate(3)
      content = self.next_content()
      end = time.monotonic() + 5
      while time.monotonic() < end:
        self.programs[0].ask("change", "meanwhile")
      self.programs[0].ask("store", "behind", content)
      begun = time.monotonic_ns()
      self.network.heal()
      took.append((self.programs[2].ask("until", "behind", content)[0] - begun) / 1e9)
      self.wait_until_well()
    print(f"cut off for 5 s, caught up after: median {statistics.median(took):.2f} s, most {max(took):.2f} s")

  def answers(self):
    took = []
    for _ in range(3):
      self.etcd.kill(1)
      self.etcd.kill(2)
      end = time.monotonic() + 8
      while time.monotonic() < end:
        for one in self.programs:
          one.tell("store", "nowhere", 1)
        for one in self.programs:
          begun, ended, _ = one.hear()
          took.append((ended - begun) / 1e9)
      self.etcd.repair()
      self.wait_until_well()
    print(f"two members killed, a change is answered after {max(took):.2f} s at most")

  def many_entries(self):
    plain = machine.Machine(self.network, self.etcd, 1, folder=f"{own_world.FOLDER}/plain", sections=LIMITS,
                            shared=False)
    plain.start()
    two = self.machines[1]
    starts = {"alone": [], "in a fleet": []}
    for _ in range(10):
      for which, each in (("alone", plain), ("in a fleet", two)):
        each.stop()
        begun = time.monotonic()
        each.start()
        starts[which].append(time.monotonic() - begun)
    print("start of a service, " + ", ".join(
        f"{which}: median {statistics.median(took) * 1000:.0f} ms" for which, took in starts.items()))
    self.check_that_it_is_alone(plain)
    for each in (self.machines[0], plain):
      begun = time.monotonic()
      subprocess.run([f"{BUILD}/tests/fleet_clients", "fill", str(ENTRIES - 100), "64"], check=True,
                     env=dict(os.environ, KS_SOCKET=each.socket))
      print(f"{ENTRIES - 100} entries stored by 64 threads, {'in a fleet' if each is not plain else 'alone'}: "
            f"{time.monotonic() - begun:.1f} s")
    for which, mirror in (("without a mirror", False), ("with a mirror", True)):
      took = []
      for _ in range(3):
        two.stop()
        if not mirror:
          for name in os.listdir(two.folder):
            if name.startswith("mirror.db"):
              os.unlink(f"{two.folder}/{name}")
        begun = time.monotonic()
        two.start()
        cluster.wait_until(lambda: two.status()["age_ms"] is not None, 30, "entries")
        took.append(time.monotonic() - begun)
        self.wait_until_well()
      print(f"start with all entries, {which}: median {statistics.median(took):.2f} s, most {max(took):.2f} s")
    plain.stop()
    plain.start()
    content = self.next_content()
    self.programs[0].ask("store", "seen", content)
    self.programs[1].ask("until", "seen", content)  # so the load is over
    sizes = {which: memory_of(each.process) for which, each in (("alone", plain), ("in a fleet", two))}
    print("memory of the service with all entries, " + ", ".join(f"{w}: {kb / 1024:.1f} MiB" for w, kb in sizes.items()))
    plain.stop()

  @staticmethod
  def check_that_it_is_alone(plain):
    linked = subprocess.run(["ldd", f"{BUILD}/ksd"], capture_output=True, text=True, check=True).stdout
    children = subprocess.run(["ps", "--ppid", str(plain.process.pid), "-o", "comm="], capture_output=True,
                              text=True).stdout.split()
    libraries = [word for word in ("grpc", "protobuf") if word in linked]
    print(f"a service without [shared]: processes of its own {children or 'none'}, of gRPC it links "
          f"{libraries or 'nothing'}")

  def tampering(self):
    """Puts it right again, too, and has the machines go on."""
    took = []
    for _ in range(3):
      row = self.etcd.ctl("get", "ks/e/", "--prefix", "--keys-only", "--limit=1").split()[0]
      value = self.etcd.value_of(row)
      self.etcd.ctl("del", row)
      begun = time.monotonic()
      cluster.wait_until(lambda: all(each.status()["left_alone"] for each in self.machines), 30, "it found")
      took.append(time.monotonic() - begun)
      self.etcd.put(row, value)
      for each in self.machines:
        each.stop()
        each.start()
      self.wait_until_well()
    entries = len(self.machines[0].names())
    print(f"a row of {entries} removed, found by all machines after: median {statistics.median(took):.2f} s, "
          f"most {max(took):.2f} s")


def main():
  print(f"load before: {' '.join(map(str, os.getloadavg()))}; {os.cpu_count()} processors")
  fleet = Fleet(sys.argv[1] if len(sys.argv) > 1 else own_world.FOLDER)
  for figure in (fleet.changes_one_after_the_other, fleet.contention, fleet.visibility, fleet.leader_killed,
                 fleet.partition, fleet.answers, fleet.tampering, fleet.many_entries, fleet.tampering):
    figure()
    sys.stdout.flush()
  print(f"load after: {' '.join(map(str, os.getloadavg()))}")


if __name__ == "__main__":
  main()
