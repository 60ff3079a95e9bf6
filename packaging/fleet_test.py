#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""fleet_test.py PACKAGES WORK: docs/fleet.md as its reader follows it, on three bare Debians with service managers.

The packages are those of the folder PACKAGES; the machines lie in the folder WORK, and begin with what a Debian has
that was just installed. They are containers on a network of their own, which leads nowhere: what apt needs is fetched
before. For scp stands in what copies between the machines' folders. Needs root and what bare_debian.sh needs.
"""

import os
import shutil
import subprocess
import sys
import time
from pathlib import Path

sys.dont_write_bytecode = True
HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "tests/fleet"))

import book  # noqa: E402
import cluster  # noqa: E402
import own_world  # noqa: E402
import run_page  # noqa: E402

PACKAGES = ("libks1", "ks-platform-host", "ksd", "ksd-shared", "ks-tools")
FETCHED = ("etcd-server", "etcd-client", "openssl")
ENVIRONMENT = {"PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/root",
               "LC_ALL": "C.UTF-8", "DEBIAN_FRONTEND": "noninteractive", "TERM": "dumb", "NO_COLOR": "1"}

def say(text):
  print(f"==> {text}", file=sys.stderr, flush=True)


def run(*command, **options):
  """Shows what a command said only when it fails."""
  done = subprocess.run([str(word) for word in command], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                        stderr=subprocess.STDOUT, text=True, **options)
  if done.returncode != 0:
    raise SystemExit(f"fleet_test.py: {' '.join(map(str, command))} failed: {done.stdout[-4000:]}")
  return done.stdout


def prepare(packages, machines):
  """A machine's folder for each, with everything but the network."""
  first, *others = [machines / name for name in book.MACHINES]
  run(HERE / "bare_debian.sh", machines.parent, first)
  folder = first / "root/packages"
  folder.mkdir()
  for name in PACKAGES:
    shutil.copy(next(packages.glob(f"{name}_*_amd64.deb")), folder)
  apt = ["chroot", first, "apt-get", "-y", "install"]
  run(*apt, "--no-install-recommends", "systemd", "systemd-sysv", env=ENVIRONMENT)
  run(*apt, "--download-only", *(f"/root/packages/{file.name}" for file in folder.iterdir()), *FETCHED,
      env=ENVIRONMENT)
  (first / "usr/local/bin/scp").write_text(book.scp("/machines"))
  (first / "usr/local/bin/scp").chmod(0o755)
  (first / "etc/hosts").write_text(book.hosts())
  (first / "etc/machine-id").unlink(missing_ok=True)
  for other in others:
    run("cp", "-a", first, other)
  for name in book.MACHINES:
    (machines / name / "etc/hostname").write_text(f"{name}\n")


class Container:
  """A machine that was just switched on."""

  def __init__(self, machines, name, number):
    # What the units' own sandboxes and locked memory need of a container.
    calls = "@memlock landlock_create_ruleset landlock_add_rule landlock_restrict_self"
    self.log = open(machines / f"{name}.log", "w")
    self.process = subprocess.Popen(
        ["systemd-nspawn", "-q", "--register=no", "--keep-unit", f"--directory={machines / name}",
         f"--uuid={number:032x}", f"--network-namespace-path=/run/netns/m{number}",
         f"--bind={machines}:/machines", f"--system-call-filter={calls}", "/usr/lib/systemd/systemd"],
        stdin=subprocess.DEVNULL, stdout=self.log, stderr=self.log, env=os.environ | {"SYSTEMD_NSPAWN_TMPFS_TMP": "0"})
    self.inside = ["nsenter", "-t", str(cluster.wait_until(self.first_process, 60, f"the first process of {name}")),
                   "-m", "-u", "-i", "-n", "-p", "-r", "-w"]
    cluster.wait_until(self.is_up, 120, f"that {name} is up")

  def first_process(self):
    """The container's own, whose parent is the program that made it."""
    if self.process.poll() is not None:
      raise SystemExit(f"fleet_test.py: the container has ended: {Path(self.log.name).read_text()[-2000:]}")
    with open(f"/proc/{self.process.pid}/task/{self.process.pid}/children") as children:
      return next((int(pid) for pid in children.read().split()
                   if os.readlink(f"/proc/{pid}/exe").endswith("systemd/systemd")), None)

  def is_up(self):
    said = subprocess.run([*self.inside, "systemctl", "is-system-running"], capture_output=True, text=True,
                          env=ENVIRONMENT)
    return said.stdout.strip() in ("running", "degraded")

  def shell(self):
    return run_page.Shell([*self.inside, "bash", "--norc", "-eu", "-c", "cd /root/packages; exec bash --norc -eu"],
                          ENVIRONMENT, terminal=True)

  def journal(self):
    return subprocess.run([*self.inside, "journalctl", "--no-pager", "-n", "40"], capture_output=True, text=True,
                          env=ENVIRONMENT).stdout


def main():
  packages, work = (Path(argument).resolve() for argument in sys.argv[1:3])
  work.mkdir(parents=True, exist_ok=True)
  machines = work / "fleet"
  if not own_world.is_inside():
    shutil.rmtree(machines, ignore_errors=True)
    machines.mkdir()
    say("three bare Debians")
    prepare(packages, machines)
  own_world.enter("systemd-nspawn", "nsenter")
  os.chmod("/run", 0o755)
  network = cluster.Network(len(book.MACHINES))
  containers = {name: Container(machines, name, number) for number, name in enumerate(book.MACHINES, 1)}
  say("docs/fleet.md, step by step")
  begun = time.monotonic()
  try:
    count = book.Book({name: container.shell() for name, container in containers.items()}).follow()
  except BaseException:
    for name, container in containers.items():
      print(f"---- {name}\n{container.journal()}", file=sys.stderr)
    raise
  say(f"{count} steps, the last of them {time.monotonic() - begun:.0f} s after the first; all is well")
  for container in containers.values():
    container.process.kill()
    container.process.wait()
  shutil.rmtree(machines)


if __name__ == "__main__":
  main()
