# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""Does what docs/fleet.md tells its reader to do on three machines, step by step, and compares what comes of it.

A block "```sh MACHINE" is run there, on all with "each". Steps from the first to the last of those on "new" are taken
for one further machine after the other. Each machine has one shell, which a step that fails ends. The fingerprints in
the page stand for those that the machines show.
"""

import re
import sys
import time
from collections import namedtuple
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests/docs/steps"))

import cluster  # noqa: E402
import run_page  # noqa: E402

PAGE = ROOT / "docs/fleet.md"
MACHINES = ("ks1", "ks2", "ks3")
FURTHER = MACHINES[1:]
FINGERPRINT = re.compile(r"(?:[0-9a-f]{4}-){7}[0-9a-f]{4}")
# What only looks is looked at again until it shows what it should, as somebody would who waits for it.
LOOKS = re.compile(r"ksctl (fleet status|secret list)\n")
LOOK_LIMIT_S = 60

Step = namedtuple("Step", "line where commands expected")


def hosts():
  """What each machine knows the others by."""
  return "127.0.0.1 localhost\n" + "".join(f"{cluster.Network.address(number)} {machine}.example\n"
                                           for number, machine in enumerate(MACHINES, 1))


def scp(folder):
  """A program that stands in for `scp [-r] FROM TO`, one of them HOST:PATH: each machine's files lie in the folder."""
  return f"""#!/bin/bash
set -eu
place() {{ sed -E 's|^([a-z0-9]+)\\.example:|{folder}/\\1|' <<<"$1"; }}
[ "$1" != -r ] || shift
umask 022
cp -r "$(place "$1")" "$(place "$2")"
"""


def steps_of(page):
  steps = []
  for line, kind, name, text in run_page.steps(page):
    if kind == "sh":
      steps.append(Step(line, name, text, None))
    elif kind == "output":
      steps[-1] = steps[-1]._replace(expected=text)
  return steps


class Book:
  """The page, for machines whose shells are given by their names."""

  def __init__(self, shells, page=PAGE):
    self.page, self.shells = page, shells
    self.shown = {}  # fingerprints of the machines, by those of the page

  def follow(self):
    """Takes all steps; gives how many there were."""
    steps = steps_of(self.page)
    of_new = [i for i, step in enumerate(steps) if step.where == "new"]
    first, last = of_new[0], of_new[-1] + 1
    taken = [(step, step.where) for step in steps[:first]]
    for machine in FURTHER:
      taken += [(step, machine if step.where == "new" else step.where) for step in steps[first:last]]
    taken += [(step, step.where) for step in steps[last:]]
    for step, where in taken:
      for machine in MACHINES if where == "each" else (where,):
        self.take(step, machine)
    return len(taken)

  def take(self, step, machine):
    commands = FINGERPRINT.sub(lambda shown: self.shown.get(shown[0], shown[0]), step.commands)
    end = time.monotonic() + LOOK_LIMIT_S
    while True:
      status, printed = self.shells[machine].run(commands)
      if status != 0:
        raise SystemExit(f"{self.page.name}:{step.line}: on {machine} the step ended with {status} and\n{printed}")
      if step.expected is None or self.compare(step.expected, printed):
        return
      if not LOOKS.fullmatch(commands) or time.monotonic() > end:
        raise SystemExit(f"{self.page.name}:{step.line}: {machine} should show\n{step.expected}and showed\n{printed}")
      time.sleep(0.1)

  def compare(self, expected, printed):
    if not run_page.pattern(FINGERPRINT.sub("…", expected)).fullmatch(printed):
      return False
    of_page = FINGERPRINT.findall(expected)
    if of_page:
      self.shown.update(zip(of_page, FINGERPRINT.findall(printed), strict=True))
    return True
