#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""run_page.py PAGE BUILD: does what a page tells its reader to do, step by step, and compares what comes of it.

Of the page's blocks, "```sh" is run, in one shell for the whole page and inside a private keystore service; "```output"
behind it is what it prints, to the character, but that "…" stands for any text within a line and a line of "…" for any
lines; "```c NAME" and the like are files, written before the next step. The shell starts in an empty folder, with the
programs, headers and libraries of BUILD where an installation has them.
"""

import os
import pty
import re
import subprocess
import sys
import tempfile
import termios
from pathlib import Path

ROOT = Path(__file__).resolve().parents[3]
BLOCK = re.compile(r"^```(\w+)(?: (\S+))?\n(.*?)^```$", re.M | re.S)
END = "-- end of the step --"
STEP_LIMIT_S = 60


def steps(page):
  """(line, kind, name, text) of each block that means something here."""
  text = page.read_text()
  for match in BLOCK.finditer(text):
    kind, name, content = match.groups()
    if kind in ("sh", "output") or (name and kind in ("c", "cpp", "python", "toml")):
      yield text.count("\n", 0, match.start()) + 1, kind, name, content


def pattern(expected):
  """A page's output as a regular expression."""
  lines = []
  for line in expected.rstrip("\n").split("\n"):
    lines.append(r"(?:[^\n]*\n)*?" if line.strip() == "…" else
                 "[^\n]*".join(re.escape(part) for part in line.rstrip().split("…")) + "\n")
  return re.compile("".join(lines))


def installed(build, folder):
  """An environment in which the build's programs and library are found as installed ones are."""
  pc = folder / "pc"
  pc.mkdir()
  (pc / "ks.pc").write_text(f"Name: ks\nDescription: keystore client library\nVersion: 1\n"
                            f"Cflags: -I{ROOT}/include\nLibs: -L{build} -lks -Wl,-rpath-link,{build}\n")
  tools = folder / "bin"
  tools.mkdir()
  for program in ("ks-session", "ksctl", "ksd"):
    (tools / program).symlink_to(build / program)
  (tools / "python3").symlink_to("/usr/bin/python3")  # the one that the package is built for
  return dict(os.environ, PATH=f"{tools}:{os.environ['PATH']}", PKG_CONFIG_PATH=str(pc), LD_LIBRARY_PATH=str(build),
              PYTHONPATH=str(build / "python"),
              LC_ALL="C.UTF-8", NO_COLOR="1")


class Shell:
  """A shell that is given one step after the other, and prints on a terminal if it is to."""

  def __init__(self, command, environment=None, folder=None, terminal=False):
    ours, its_own = pty.openpty() if terminal else os.pipe()
    if terminal:
      modes = termios.tcgetattr(its_own)
      modes[1] &= ~termios.OPOST  # lines end as they do elsewhere
      termios.tcsetattr(its_own, termios.TCSANOW, modes)
    self.output = open(ours)
    self.process = subprocess.Popen(command, cwd=folder, env=environment, stdin=subprocess.PIPE, stdout=its_own,
                                    text=True)
    os.close(its_own)

  def lines(self):
    try:
      for line in self.output:
        yield line
    except OSError:  # a terminal that nobody has any more
      return

  def run(self, commands):
    """The status of the last command, and what all of them printed."""
    self.process.stdin.write(f"{{ {commands}\n}} </dev/null 2>&1; printf '\\n{END} %s\\n' $?\n")
    self.process.stdin.flush()
    printed = []
    for line in self.lines():
      if line.startswith(END):
        return int(line.split()[-1]), "".join(printed)[:-1]
      printed.append(line)
    return self.process.wait(), "".join(printed)

  def end(self):
    self.process.stdin.close()
    return self.process.wait(timeout=STEP_LIMIT_S)


def main():
  page, build = Path(sys.argv[1]).resolve(), Path(sys.argv[2]).resolve()
  with tempfile.TemporaryDirectory() as scratch:
    scratch = Path(scratch)
    work = scratch / "work"
    work.mkdir()
    shell = Shell([build / "ks-session", "--vdc", "7", "--", "bash", "--norc"], installed(build, scratch), work)
    printed, ran = "", 0
    for line, kind, name, text in steps(page):
      if kind == "sh":
        status, printed = shell.run(text)
        ran += 1
        # What ends with "# fails" shows what a failure looks like.
        if (status == 0) == text.rstrip().endswith("# fails"):
          raise SystemExit(f"{page.name}:{line}: the step ended with {status}, and printed\n{printed}")
      elif kind == "output":
        if not pattern(text).fullmatch(printed if printed.endswith("\n") else printed + "\n"):
          raise SystemExit(f"{page.name}:{line}: the page says\n{text}and it printed\n{printed}")
      else:
        (work / name).write_text(text)
    if shell.end() != 0:
      raise SystemExit(f"{page.name}: the session ended with a failure")
    print(f"{page.name}: {ran} steps")


if __name__ == "__main__":
  main()
