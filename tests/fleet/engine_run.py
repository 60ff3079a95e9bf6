#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""engine_run.py [MINUTES [SEED]]: engines of three machines that change one header against each other, while members die,
freeze and lose each other. In the end the store's own history tells whether each engine said the truth:

- a change that was told to be made is in the history, at the revision that was told, and once
- a change that was told to be refused, too large or not sent is not in it
- a header that was read was the present one at an instant between question and answer
- a watch has shown the history, without a gap for as long as it wasn't told to be broken

Run by `./dev fleet --engines`, with the build's folder in KS_BUILD.
"""

import os
import random
import sys
import threading
import time

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import own_world  # noqa: E402

if __name__ == "__main__":
  own_world.enter("etcd", "etcdctl")

import cluster  # noqa: E402
from engine import NOT_SENT, NO_SPACE, TOO_LARGE, UNKNOWN, REPORTS, Engine  # noqa: E402

Committed, Refused, Failed, HeaderIs, Changed, WatchBroken = (
    REPORTS[name] for name in ("Committed", "Refused", "Failed", "HeaderIs", "Changed", "WatchBroken"))
PREFIX = "run/"


class Machine(threading.Thread):
  """Changes the header as often as it can, and notes what it is told."""

  def __init__(self, network, etcd, number, until):
    super().__init__()
    endpoints = etcd.endpoints()
    self.engine = Engine(network, endpoints[number - 1:] + endpoints[:number - 1], machine=number, prefix=PREFIX)
    self.engine.next_report(10)  # that it has started
    self.number, self.until = number, until
    self.changes = []  # header's value, report
    self.reads = []    # latest change known before, report
    self.seen = []     # of a watch: its first revision, and all its reports
    self.slowest = 0.0
    self.failure = None

  def run(self):
    try:
      self.work()
    except Exception as error:  # told by whoever waits for the thread
      self.failure = error

  def work(self):
    known = 0
    watch = None
    while time.monotonic() < self.until:
      if watch is None:
        self.seen.append((known + 1, []))
        watch = self.engine.watch(known + 1)
      begun = time.monotonic()
      value = f"{self.number}:{len(self.changes)}"
      rows = [(f"e/{i:016x}", f"{value}/{i}".encode()) for i in range(random.randrange(4))]
      report = self.engine.commit(known, [("h", value.encode()), *rows], limit=1500)
      self.slowest = max(self.slowest, time.monotonic() - begun)
      self.changes.append((value, report))
      if isinstance(report, Committed):
        known = report.revision
      elif isinstance(report, Refused):
        known = report.header.revision if report.header else 0
      else:
        before = known
        header = self.engine.header(limit=1000)
        self.reads.append((before, header))
        if isinstance(header, HeaderIs):
          known = header.header.revision if header.header else 0
      for report in [report for report in self.engine.reports if report.id == watch]:
        self.engine.reports.remove(report)
        if isinstance(report, WatchBroken):
          watch = None
        else:
          self.seen[-1][1].append(report)


def make_trouble(network, etcd, until, say):
  """One fault after the other, each healed before the next."""
  def kill(member):
    etcd.kill(member)

  def freeze(member):
    etcd.pause(member)

  def isolate(member):
    network.isolate(member)

  def cut(member):
    network.cut(member, member % 3 + 1)

  def kill_two(member):
    etcd.kill(member)
    etcd.kill(member % 3 + 1)

  def kill_leader(_):
    etcd.kill(etcd.leader() or 1)

  while time.monotonic() < until - 8:
    time.sleep(random.uniform(0.5, 2))
    fault = random.choice((kill, freeze, isolate, cut, kill_two, kill_leader))
    member = random.choice((1, 2, 3))
    say(f"{fault.__name__} {member}")
    fault(member)
    time.sleep(random.uniform(0.2, 4))
    etcd.repair()


def read_history(network, etcd):
  """All changes of the header, from the store: the value at each revision."""
  reader = Engine(network, etcd.endpoints(), prefix=PREFIX)
  last = reader.header(limit=5000).header.revision
  watch = reader.watch(1)
  history = {}
  while not history or max(history) < last:
    change = reader.answer_to(watch, 30)
    history[change.revision] = change
  reader.close()
  return history


def header_of(change):
  return next((row.value.decode() for row in change.puts if row.key == "h"), None)


def check(machines, history):
  """Gives what isn't so, one line each."""
  at = {header_of(change): revision for revision, change in history.items()}
  wrong = []
  if len(at) != len(history):
    wrong.append("a value is in the history twice")
  for machine in machines:
    who = f"machine {machine.number}"
    for value, report in machine.changes:
      if isinstance(report, Committed) and at.get(value) != report.revision:
        wrong.append(f"{who}: {value} was told to be made at {report.revision}, and is at {at.get(value)}")
      certain = isinstance(report, Refused) or (
          isinstance(report, Failed) and report.kind in (NOT_SENT, NO_SPACE, TOO_LARGE))
      if certain and value in at:
        wrong.append(f"{who}: {value} was told not to be made ({report}), and is at {at[value]}")
    for before, report in machine.reads:
      if isinstance(report, HeaderIs) and report.header and (
          report.header.revision < before or header_of(history[report.header.revision]) != report.header.value.decode()):
        wrong.append(f"{who}: {report} was read when {before} was known")
    for first, changes in machine.seen:
      revisions = sorted(revision for revision in history if revision >= first)[:len(changes)]
      if [change.revision for change in changes] != revisions:
        wrong.append(f"{who}: a watch from {first} on has a gap")
      for change in changes:
        there = history.get(change.revision)
        if there is None or (change.puts, change.deletes) != (there.puts, there.deletes):
          wrong.append(f"{who}: a watch shows another change at {change.revision}")
  return wrong


def main():
  minutes = float(sys.argv[1]) if len(sys.argv) > 1 else 5
  seed = int(sys.argv[2]) if len(sys.argv) > 2 else random.randrange(1 << 32)
  random.seed(seed)
  begun = time.monotonic()

  def say(text):
    print(f"{time.monotonic() - begun:7.1f} s  {text}", flush=True)

  say(f"seed {seed}")
  network = cluster.Network(3)
  etcd = cluster.Cluster(network)
  until = time.monotonic() + 60 * minutes
  machines = [Machine(network, etcd, number, until) for number in (1, 2, 3)]
  for machine in machines:
    machine.start()
  make_trouble(network, etcd, until, say)
  for machine in machines:
    machine.join()
    if machine.failure is not None:
      raise machine.failure
  etcd.repair()
  history = read_history(network, etcd)
  wrong = check(machines, history)
  told = [report for machine in machines for _, report in machine.changes]
  say(f"{len(history)} changes; {sum(isinstance(report, Committed) for report in told)} told to be made, "
      f"{sum(isinstance(report, Refused) for report in told)} refused, "
      f"{sum(isinstance(report, Failed) and report.kind == UNKNOWN for report in told)} unknown, "
      f"{sum(isinstance(report, Failed) and report.kind != UNKNOWN for report in told)} failed; "
      f"{sum(len(machine.seen) for machine in machines)} watches; slowest answer "
      f"{max(machine.slowest for machine in machines):.2f} s")
  for line in wrong[:20]:
    print(line)
  return 1 if wrong else 0


if __name__ == "__main__":
  sys.exit(main())
