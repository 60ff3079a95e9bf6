#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""docs/fleet.md as its reader follows it, on three machines with the build's programs.

The machines are those of cluster.Network with files of their own: /etc, /var/lib, /tmp and what runs. Packages are taken
for installed; for systemctl service_manager.py stands in, with the real units, and for scp a copy. Run by ctest, with
the build's folder in KS_BUILD.
"""

import os
import shutil
import subprocess
import sys
import time
from pathlib import Path

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import own_world  # noqa: E402

if __name__ == "__main__":
  own_world.enter("etcd", "etcdctl", "openssl", "runuser", "systemd-sysusers", "systemd-tmpfiles")

import book  # noqa: E402
import cluster  # noqa: E402
import run_page  # noqa: E402

BUILD = Path(os.environ.get("KS_BUILD", "build/x86_64")).resolve()
FOLDER = own_world.FOLDER
ETCD_UNITS = ("/lib/systemd/system", book.ROOT / "build/unpacked/lib/systemd/system")

# What makes a namespace a machine of its own, before its shell. As installing the packages would, it makes users and
# folders, and starts what waits for connections.
MACHINE = f"""
set -eu
echo $me >/proc/sys/kernel/hostname
cp -a /etc {FOLDER}/$me-etc
mount --bind {FOLDER}/$me-etc /etc
for folder in /var/lib /tmp /run/ks /run/ks-engine /run/units; do
  mkdir -p $folder
  mount -t tmpfs -o mode=755 tmpfs $folder
done
chmod 1777 /tmp
cp {FOLDER}/hosts /etc/hosts
rm -rf /etc/ks /etc/etcd
mkdir -p /etc/ks/ksd.toml.d {FOLDER}/$me-root
cp {FOLDER}/units/ksd.toml /etc/ks  # the vendor's, elsewhere
mount --bind {FOLDER}/$me-root /root
systemd-sysusers {FOLDER}/units/sysusers.conf {FOLDER}/units/ksd-engine.sysusers.conf 2>{FOLDER}/$me-log
systemd-sysusers --inline 'u etcd - "etcd"' 2>{FOLDER}/$me-log
systemd-tmpfiles --create {FOLDER}/units/tmpfiles.conf
install -d -m 0700 -o etcd /var/lib/etcd
export UNITS={FOLDER}/units PROGRAMS={FOLDER}/build PATH={FOLDER}/stand-ins:{FOLDER}/build:$PATH
export LD_LIBRARY_PATH={FOLDER}/build  # the build itself may lie below /tmp
systemctl start ksd-engine.socket
ln -s /proc/$$/root {FOLDER}/machines/$me
exec bash --norc -eu
"""

def write_program(path, text):
  path.write_text(text)
  path.chmod(0o755)


def prepare():
  """What the machines have in common."""
  folder = Path(FOLDER)
  units = folder / "units"
  for name in ("units", "stand-ins", "machines", "build"):
    (folder / name).mkdir()
  os.chmod("/run", 0o755)
  # Users of the machines' own may not be let into the folders that programs lie in.
  subprocess.run(["mount", "--bind", BUILD, folder / "build"], check=True)
  for program in ("etcd", "etcdctl"):
    (folder / "stand-ins" / program).touch()
    subprocess.run(["mount", "--bind", shutil.which(program), folder / "stand-ins" / program], check=True)
  for file in (book.ROOT / "service/systemd").iterdir():
    shutil.copy(file, units)
  shutil.copy(book.ROOT / "service/ksd.toml", units)
  for name in ("ksd.service", "ksd-engine@.service"):
    shutil.copy(BUILD / name, units)
  found = [Path(place) / "etcd.service" for place in ETCD_UNITS if (Path(place) / "etcd.service").exists()]
  if not found:
    own_world.skip("there is no unit of etcd's")
  shutil.copy(found[0], units)
  shutil.copy(Path(__file__).parent / "service_manager.py", folder / "stand-ins/systemctl")
  write_program(folder / "stand-ins/scp", book.scp(f"{FOLDER}/machines"))
  write_program(folder / "stand-ins/apt-get", "#!/bin/sh\n")
  (folder / "hosts").write_text(book.hosts())


def main():
  with open("/proc/self/uid_map") as users:
    if sum(int(line.split()[2]) for line in users) == 1:
      own_world.skip("services run as users of their own, which needs root here")
  prepare()
  network = cluster.Network(len(book.MACHINES))
  shells = {}
  for number, machine in enumerate(book.MACHINES, 1):
    command = network.on(number) + ["unshare", "--mount", "--uts", "env", f"me={machine}", "bash", "-c", MACHINE]
    shells[machine] = run_page.Shell(command, dict(os.environ, NO_COLOR="1", LC_ALL="C.UTF-8"), terminal=True)
  begun = time.monotonic()
  count = book.Book(shells).follow()
  print(f"{count} steps, {time.monotonic() - begun:.1f} s")


if __name__ == "__main__":
  main()
