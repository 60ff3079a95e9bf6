#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""fault_run.py [MINUTES [SEED]]: three machines with real services, engines and members of the store, and programs on each
that change and read the same entries through libks, while members, engines, services and the network fail. What the
programs were told is held to the store's history in the end, by fleet_check.

Run by `./dev fleet`, with the build's folder in KS_BUILD. KS_FLEET_MUTANT=N runs services with a fault, by the number
that it has in service/fleet/mutants.h: the run should fail then.
"""

import json
import os
import random
import shutil
import signal
import subprocess
import sys
import time

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import own_world  # noqa: E402

if __name__ == "__main__":
  own_world.enter("etcd", "etcdctl", "openssl")

import cluster  # noqa: E402
import machine  # noqa: E402
from engine import BUILD  # noqa: E402

# Of programs on each machine. The more there are, the more changes go together.
THREADS = int(os.environ.get("KS_FLEET_THREADS", "24"))
ROUND = 150  # seconds; each has a fleet of its own
MAX_AGE = 3
ANSWERED_WITHIN = 5.5
QUOTA = 64 << 20
GRACE = 3  # seconds after a fault in which changes may still fail
KEPT = "build/fleet-run"  # what is left of a run that failed


class Round:
  """One fleet, from its making to its end."""

  def __init__(self, network, number, seed, say):
    self.network, self.say = network, say
    self.random = random.Random(f"{seed}/{number}")
    self.folder = f"{own_world.FOLDER}/round{number}"
    tls = f"{self.folder}/tls"
    cluster.make_certificates(tls, network)
    self.etcd = cluster.Cluster(network, folder=self.folder, tls=tls, options=[
        f"--quota-backend-bytes={QUOTA}", "--max-wals=2", "--max-snapshots=2"])
    self.journal = [f"max_age {MAX_AGE * 10**9}", f"answered_within {round(ANSWERED_WITHIN * 10**9)}"]
    sections = """[limits]
changes_per_user = 512
"""
    program = "tests/fleet_faulty_ksd" if "KS_FLEET_MUTANT" in os.environ else "ksd"
    self.machines = [
        machine.Machine(network, self.etcd, n, f"max_age_s = {MAX_AGE}\n" + ("create = true" if n == 1 else ""),
                        self.folder, sections, program) for n in (1, 2, 3)]
    machine.start_fleet(self.machines, self.start)
    self.frozen = []  # processes
    self.routine = time.monotonic()
    self.witness = self.start_witness(seed)
    self.clients = [subprocess.Popen(
        [*network.on(each.number), f"{BUILD}/tests/fleet_clients", "load", self.notes_of(each), str(each.number),
         str(THREADS), str(self.random.randrange(1 << 32))], stdin=subprocess.PIPE,
        env=dict(os.environ, KS_SOCKET=each.socket)) for each in self.machines]

  def notes_of(self, each):
    return f"{self.folder}/operations{each.number}"

  def start(self, each):
    self.journal.append(f"start {each.number} {time.monotonic_ns()}")
    each.start()

  def start_witness(self, seed):
    tls = self.etcd.tls
    return subprocess.Popen(
        [*self.network.on(0), f"{BUILD}/tests/fleet_witness", f"{self.folder}/versions", f"{self.folder}/progress",
         self.machines[0].master_key, os.path.abspath(f"{BUILD}/ksd-engine"), "ks/", f"{tls}/ca.crt",
         f"{tls}/client.crt", f"{tls}/client.key", *self.etcd.endpoints()],
        stderr=open(f"{self.folder}/witness.log", "w"))

  def witnessed(self):
    """The revision up to which the witness has noted all."""
    try:
      with open(f"{self.folder}/progress") as progress:
        return int(progress.read() or 0)
    except FileNotFoundError:
      return 0

  # ---- Faults, on a machine or the member there. repair undoes what they leave. ----

  def kill_member(self, member):
    self.etcd.kill(member)

  def freeze_member(self, member):
    self.etcd.pause(member)

  def kill_leader(self, _):
    self.etcd.kill(self.etcd.leader() or 1)

  def freeze_leader(self, _):
    self.etcd.pause(self.etcd.leader() or 1)

  def kill_two_members(self, member):
    self.etcd.kill(member)
    self.etcd.kill(member % 3 + 1)

  def kill_leader_and_service(self, number):
    self.kill_leader(number)
    self.kill_service(number)

  def kill_service(self, number):
    self.machines[number - 1].kill()

  def restart_service(self, number):
    """Again and again: it comes back with what its mirror has."""
    for _ in range(3):
      self.machines[number - 1].kill()
      self.start(self.machines[number - 1])

  def freeze_service(self, number):
    self.freeze(self.machines[number - 1].process.pid)

  def kill_engine(self, number):
    for _ in range(self.random.randrange(1, 4)):
      for pid in self.machines[number - 1].engines()[1:]:
        os.kill(pid, signal.SIGKILL)
      time.sleep(self.random.uniform(0.05, 0.5))

  def freeze_engine(self, number):
    for pid in self.machines[number - 1].engines()[1:]:
      self.freeze(pid)

  def isolate(self, number):
    self.network.isolate(number)

  def isolate_leader(self, _):
    self.network.isolate(self.etcd.leader() or 1)

  def cut(self, number):
    self.network.cut(number, number % 3 + 1)

  def cut_one_way(self, number):
    others = [n for n in (1, 2, 3) if n != number]
    self.network.cut_one_way(number, self.random.choice(others))

  def compact_behind_one_that_is_cut_off(self, number):
    self.network.isolate(number)
    time.sleep(self.random.uniform(0.5, 2))
    others = [n for n in (1, 2, 3) if n != number]
    self.etcd.wait_for_leader(others)
    self.etcd.compact(self.witnessed(), members=others)
    self.etcd.defragment(others)

  def compact(self, _):
    self.etcd.compact(self.witnessed())
    self.etcd.defragment()

  def use_up_space(self, _):
    begun = time.monotonic_ns()
    try:
      for i in range(2 * (QUOTA >> 20)):
        self.etcd.ctl("put", f"ballast/{i}", input=b"b" * (1 << 20), text=False)
    except subprocess.CalledProcessError:
      pass  # no space, which is what was wanted
    time.sleep(self.random.uniform(0.2, 2))
    self.etcd.ctl("del", "ballast/", "--prefix")
    self.etcd.free_space(self.witnessed)
    self.journal.append(f"full 0 {begun} {time.monotonic_ns() + 10**9}")

  FAULTS = (kill_member, freeze_member, kill_leader, freeze_leader, kill_two_members, kill_leader_and_service,
            kill_service, restart_service, freeze_service, kill_engine, freeze_engine, isolate, isolate_leader, cut,
            cut_one_way, compact_behind_one_that_is_cut_off, compact, use_up_space)

  def freeze(self, pid):
    os.kill(pid, signal.SIGSTOP)
    self.frozen.append(pid)

  def repair(self):
    for pid in self.frozen:
      try:
        os.kill(pid, signal.SIGCONT)
      except ProcessLookupError:
        pass
    self.frozen.clear()
    self.etcd.repair()
    for each in self.machines:
      if each.process.poll() is not None:
        self.start(each)

  def make_trouble(self, faults):
    """One or two faults, and their repair."""
    begun = time.monotonic_ns()
    told = []
    for fault in faults:
      number = self.random.randrange(1, 4)
      told.append(f"{fault.__name__} {number}")
      fault(self, number)
      if len(faults) > 1:
        time.sleep(self.random.uniform(0, 1))
    time.sleep(self.random.choice((self.random.uniform(0.1, 2), self.random.uniform(2, 7))))
    self.repair()
    now = time.monotonic_ns()
    self.say(f"{', '.join(told)}: {(now - begun) / 1e9:.1f} s")
    services = [n for line in told for name, n in [line.split()] if "service" in name]
    for number in services:
      self.journal.append(f"frozen {number} {begun} {now}")
    self.journal.append(f"trouble 0 {begun} {now + GRACE * 10**9}")

  def work(self, until):
    """Faults one after the other, each kind in turn before it comes again."""
    waiting = []
    while time.monotonic() < until:
      self.look_after_processes()
      if time.monotonic() - self.routine > 20:  # what an administrator has etcd do every hour
        self.routine = time.monotonic()
        self.etcd.compact(self.witnessed())
      time.sleep(self.random.uniform(0.3, 2))
      if not waiting:
        waiting = self.random.sample(self.FAULTS, len(self.FAULTS))
      faults = [waiting.pop()]
      if self.random.random() < 0.2:
        faults.append(self.random.choice(self.SECOND))
      self.make_trouble(faults)

  # On top of another one.
  SECOND = (kill_service, kill_engine, freeze_engine, isolate, cut_one_way, freeze_service)

  def look_after_witness(self):
    if self.witness.poll() is not None:
      with open(f"{self.folder}/witness.log") as log:
        raise RuntimeError(f"the witness has ended: {log.read()}")

  def look_after_processes(self):
    self.look_after_witness()
    for client in self.clients:
      if client.poll() is not None:
        raise RuntimeError("the programs of a machine have ended")

  # ---- The end ----

  def finish(self):
    """Gives what fleet_check counts, and the lines of what isn't so."""
    self.look_after_processes()
    cluster.wait_until(lambda: all(each.status()["well"] for each in self.machines), 30, "a fleet that is well")
    for client in self.clients:
      client.stdin.close()
    for client in self.clients:
      if client.wait(60) != 0:
        raise RuntimeError("the programs of a machine have failed")
    revision = self.etcd.revision()
    cluster.wait_until(lambda: self.witnessed() >= revision or self.witness.poll() is not None, 30,
                       "all that has happened noted")
    self.look_after_witness()
    cluster.wait_until(lambda: len({each.status()["version"] for each in self.machines}) == 1, 10,
                       "the same version on all machines")
    walks = []
    for each in self.machines:
      walks.append(f"{self.folder}/walk{each.number}")
      with open(walks[-1], "w") as walk:
        subprocess.run([f"{BUILD}/tests/fleet_clients", "walk"], stdout=walk, check=True,
                       env=dict(os.environ, KS_SOCKET=each.socket))
    with open(f"{self.folder}/journal", "w") as journal:
      journal.write("\n".join(self.journal) + "\n")
    checked = subprocess.run(
        [f"{BUILD}/tests/fleet_check", f"{self.folder}/journal", f"{self.folder}/versions", *walks, "--",
         *(self.notes_of(each) for each in self.machines)], capture_output=True, text=True)
    if checked.returncode not in (0, 1):
      raise RuntimeError(f"fleet_check failed: {checked.stderr}")
    first, *wrong = checked.stdout.splitlines()
    return json.loads(first), wrong

  def restore_snapshot(self):
    """What has happened since it was taken is gone: all machines leave the store alone. Gives what isn't so."""
    saved = f"{self.folder}/saved.db"
    self.etcd.save(saved)
    assert self.machines[0].put("behind the snapshot") == 0
    for each in self.machines:
      cluster.wait_until(lambda: "behind the snapshot" in (each.names() or []), 10, "a change on all machines")
    self.witness.kill()
    self.etcd.restore(saved)
    begun = time.monotonic()
    wrong = []
    for each in self.machines:
      try:
        cluster.wait_until(lambda: each.status()["left_alone"], 10, "it")
      except TimeoutError:
        wrong.append(f"machine {each.number} takes a store that was set back for a good one: {each.status()}")
    self.say(f"snapshot restored: found after {time.monotonic() - begun:.2f} s")
    for each in self.machines:
      if each.put("too late") == 0:
        wrong.append(f"machine {each.number} changes a store that was set back")
    return wrong

  def end(self):
    for client in self.clients:
      client.kill()
    self.witness.kill()
    for each in self.machines:
      each.process.kill()
      each.process.wait()
    self.etcd.stop()

  def keep(self):
    """Leaves what tells of a failure where it outlives this world."""
    shutil.rmtree(KEPT, ignore_errors=True)
    shutil.copytree(self.folder, KEPT, ignore=shutil.ignore_patterns("etcd", "tls", "s", "notify"))


def run_round(network, number, seed, seconds, say):
  """Gives what was counted, and what is wrong."""
  fleet = Round(network, number, seed, say)
  begun = time.monotonic()
  wrong = []
  try:
    fleet.work(begun + seconds)
    counted, wrong = fleet.finish()
    say(f"{counted}")
    if not wrong:
      wrong = fleet.restore_snapshot()
    return counted, wrong
  except BaseException:
    wrong = ["it ended early"]
    raise
  finally:
    fleet.end()
    if wrong:
      fleet.keep()
    shutil.rmtree(fleet.folder)


def main():
  minutes = float(sys.argv[1]) if len(sys.argv) > 1 else 5
  seed = int(sys.argv[2]) if len(sys.argv) > 2 else random.randrange(1 << 32)
  begun = time.monotonic()

  def say(text):
    print(f"{time.monotonic() - begun:7.1f} s  {text}", flush=True)

  say(f"seed {seed}")
  network = cluster.Network(3)
  end = begun + 60 * minutes
  total = {}
  number = 0
  wrong = []
  while not wrong and (number == 0 or time.monotonic() + 30 < end):
    number += 1
    counted, wrong = run_round(network, number, seed, min(ROUND, end - time.monotonic()), say)
    for name, count in counted.items():
      total[name] = max(total.get(name, 0), count) if name == "slowest_change" else total.get(name, 0) + count
  say(f"in all: {total}")
  for line in wrong:
    print(line)
  if wrong:
    print(f"{KEPT} has what was noted. Faults are drawn again by: ./dev fleet {minutes:g} {seed}")
  return 1 if wrong else 0


if __name__ == "__main__":
  sys.exit(main())
