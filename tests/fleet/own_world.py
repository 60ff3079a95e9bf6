# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""A world of a test's own: processes, network, mounts and files that are gone with it, however it ends.

enter() runs the calling script again as the first process of new namespaces, whose end is the end of all others there.
Whoever kills the script, or the command that runs it, leaves nothing behind. It needs no root where the kernel lets
users have namespaces of their own.
"""

import os
import shutil
import subprocess
import sys
from pathlib import Path

SKIPPED = 77  # what ctest takes for a test that was skipped
FOLDER = "/run/world"  # for files; in memory, and only there inside
# Where programs are that tests need, beside those of the user: an administrator's, and servers that `./dev` unpacks.
UNPACKED = Path(__file__).resolve().parents[2] / "build/unpacked/usr/bin"
PATH = f"{os.environ['PATH']}:/usr/sbin:/sbin:{UNPACKED}"


def skip(reason):
  print(f"skipped: {reason}")
  sys.exit(SKIPPED)


def is_inside():
  return os.environ.get("KS_OWN_WORLD") == str(os.getpid())


def enter(*programs):
  """Returns inside; outside it ends with the exit status of the script inside."""
  if is_inside():
    subprocess.run(["mount", "-t", "tmpfs", "tmpfs", "/run"], check=True)
    for folder in ("/run/netns", FOLDER):
      os.mkdir(folder)
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    return
  for program in ("unshare", "ip", *programs):
    if shutil.which(program, path=PATH) is None:
      skip(f"{program} isn't installed")
  unshare = ["unshare", "--net", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc"]
  if os.geteuid() != 0:
    unshare.append("--map-root-user")
  probe = subprocess.run([*unshare, "true"], capture_output=True, text=True)
  if probe.returncode != 0:
    skip(f"there can be no namespaces here: {probe.stderr.strip()}")
  # Inside, its process has the number 1.
  environment = dict(os.environ, KS_OWN_WORLD="1", PATH=PATH)
  sys.exit(subprocess.run([*unshare, sys.executable, *sys.argv], env=environment).returncode)
