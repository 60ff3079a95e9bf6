#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""Puts small faults into a copy of the tree, one at a time, and tells which of them no test notices.

`./dev mutate` runs it; docs/testing.md says what for, and how to read what it prints. The working tree is only read:
each job has a copy of it, and a build of its own, below build/mutate/. What an interrupted run left there is put right
by the next one, which goes on where that one stopped if nothing has changed and it is given the same seed.
"""

import argparse
import concurrent.futures
import fcntl
import hashlib
import json
import os
import random
import re
import resource
import shutil
import signal
import subprocess
import sys
import threading
import time
from dataclasses import dataclass
from pathlib import Path

# By the beginning of a path, the longest that fits: the tests that can notice a fault there, by the beginnings of their
# names (scripts by their whole names), and in the order in which they are asked.
COVERED_BY = {
    "src/": ("unit_", "contract", "system_", "docs_", "hostile_"),
    "platform/host/": ("host_", "system_spine", "system_session", "system_device"),
    "platform/host/common/host_database.h": ("host_sdb", "system_cache", "tools_ksctl"),
    "platform/host/common/host_wire.h": ("host_mts", "host_sysmgr", "host_sdwrap", "docs_client"),
    "platform/host/mts/": ("host_mts", "system_spine", "system_session", "system_device"),
    "platform/host/sdb/": ("host_sdb", "system_cache", "system_pac", "docs_cache"),
    "platform/host/sdwrap/": ("host_sdwrap", "system_spine", "system_session"),
    "platform/host/sysmgr/": ("host_sysmgr", "system_spine", "system_session", "system_cache"),
    "service/": ("service_", "system_", "docs_", "hostile_"),
    # The rooms below these know nothing of them.
    "service/handlers/": ("service_handlers", "service_server", "system_", "docs_", "hostile_"),
    "service/server/": ("service_server", "system_", "docs_", "hostile_", "tools_ksctl", "fleet"),
    "service/fleet/": ("service_fleet", "service_link", "fleet"),
    "service/link/": ("service_link", "fleet"),
    "service/engine/": ("fleet_engine", "fleet_engine_choices", "service_link", "fleet"),
}
# Tests that are scripts, and what they run.
SCRIPTS = {
    "fleet": ("ksd", "ksctl", "ksd-engine"),
    "fleet_engine": ("ksd-engine",),
}
# Almost everything includes these, and takes minutes to build. So the fault is put into these targets alone, which the
# tests load when they run: one end of the wire has it, the other one doesn't.
BUILT_ALONE = {
    "platform/host/common/host_database.h": ("host_sdb", "system_cache", "tools_ksctl"),
    "platform/host/common/host_wire.h": ("mts", "sysmgr", "sdwrap"),
}
# The tests of a program that take less are run before the others.
QUICK_SECONDS = 0.1
# So many are judged file by file, so that an interrupted run has judged a fair draw of all files.
LOT = 60


def tests_of(path):
  fitting = [start for start in COVERED_BY if path.startswith(start)]
  return COVERED_BY[max(fitting, key=len)] if fitting else ()


def group_of(name, groups):
  """Which of the groups a test is of, or None."""
  fitting = (number for number, start in enumerate(groups)
             if (name == start if start in SCRIPTS else name.startswith(start)))
  return next(fitting, None)


# ---------------------------------------------------------------------------------------------------------------------
# Mutants

RESULT_CODES = """KS_NOT_REGISTERED KS_SUCCESS KS_FAILURE KS_INVALID_ARGS KS_NO_MEMORY KS_NOT_FOUND KS_NO_MORE_ENTRIES
    KS_STORE_FULL KS_TIMEOUT KS_BAD_KEY KS_CRYPT_ERROR KS_KEY_LEN_UNSUPPORTED KS_FW_COMM_ERROR KS_FW_COMPACT_CORRUPT
    KS_FW_BAD_CELL KS_FW_PANIC KS_BAD_FRAGMENT_SIZE KS_BAD_RESPONSE_FORMAT KS_VERSION_MISMATCH KS_RPC_TOO_LARGE
    KS_RPC_ERROR KS_FRAGMENT_UNSUPPORTED""".split()
CACHE_CODES = """kOk kRetry kNotOpen kBadUri kNoKey kUnsafe kDamaged kValueDamaged kFull kBusy kBadArgument kNoMemory
    kSystem kNoIteration kWrongFormat kOutgrown kNoMoreKeys""".split()

SWAPS = {
    "comparison": {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "=="},
    "and-or": {"&&": "||", "||": "&&"},
    "arithmetic": {"+": "-", "-": "+", "+=": "-=", "-=": "+=", "<<": ">>", ">>": "<<", "|": "&", "&": "|"},
}
# The formatter puts spaces round operators, and none into template brackets, references and unary signs.
OPERATOR = re.compile(r"(?<= )(<=|>=|==|!=|&&|\|\||\+=|-=|<<|>>|<|>|\+|-|\||&)(?=[ \n])")
NUMBER = re.compile(r"(?<![\w.'])(0[xX][0-9a-fA-F']+|0[bB][01']+|[0-9][0-9']*)([uUlLzZ]*)(?![\w.'])")
WORD = re.compile(r"\b[A-Za-z_]\w*\b")
NOT = re.compile(r"!(?=[A-Za-z_(])")
# How long something waits isn't asserted by any test, and what is reserved ahead shows nowhere.
UNASSERTED_NUMBER = re.compile(r"Ms\b|_ms\b|Ns\b|_ns\b|[Dd]eadline|tv_n?u?sec|\breserve\b|nanoseconds|microseconds"
                               r"|milliseconds|\bseconds\b")
# How large a buffer is may be seen by reading the source only.
ARRAY = re.compile(r"^\s*(?:(?:static|const|constinit|mutable) )*[\w:]+ \w+\[[^\]]*\](?:;| = )")
EXPRESSION = re.compile(r"(?:\(?\*|\+\+|--)?[A-Za-z_][\w:]*(?:<[^;=]*>)?\s*"
                        r"(?:\(|\.|->|\[|=[^=]|[-+|&^*/%]=|<<=|>>=|\+\+|--)")
NO_EXPRESSION = re.compile(r"(?:if|for|while|switch|do|else|goto|using|namespace|typedef|struct|class|enum|union|"
                           r"template|const|constexpr|constinit|auto|static|extern|inline|explicit|friend|virtual|"
                           r"case|default|public|private|protected|operator|KS_STATIC_ASSERT|return)\b")


@dataclass(frozen=True)
class Mutant:
  path: str
  line: int
  kind: str
  start: int
  end: int
  text: str  # what stands there instead of [start, end)
  before: str
  after: str

  @property
  def name(self):
    return f"{self.path}:{self.line}: {self.kind}: {self.before} -> {self.after}"

  def apply(self, source):
    return source[:self.start] + self.text + source[self.end:]


def blanked(match):
  return re.sub(r"[^\n]", " ", match.group(0))


def closing(code, opening):
  """The place behind the bracket that closes the one at `opening`, or None."""
  depth = 0
  for at in range(opening, len(code)):
    depth += code[at] in "([{"
    depth -= code[at] in ")]}"
    if depth == 0:
      return at + 1
  return None


def blank_calls(code, start):
  """Blanks `name(...)` wherever `start`, a pattern that ends with the opening bracket, matches."""
  for match in reversed(list(re.finditer(start, code))):
    end = closing(code, match.end() - 1)
    if end is not None:
      code = code[:match.start()] + re.sub(r"[^\n]", " ", code[match.start():end]) + code[end:]
  return code


def code_of(source):
  """The source with everything blanked, place for place, that is no code or that no test could see."""
  code = re.sub(
      r"//[^\n]*|/\*.*?\*/|\"(?:\\.|[^\"\\\n])*\"|(?<![0-9a-fA-F])'(?:\\.|[^'\\\n])+'|[0-9][0-9a-fA-FxX']*",
      lambda match: match.group(0) if match.group(0)[0].isdigit() else blanked(match), source, flags=re.DOTALL)
  code = re.sub(r"^[ \t]*#(?:[^\n]*\\\n)*[^\n]*", blanked, code, flags=re.MULTILINE)
  code = re.sub(r"\[\[.*?\]\]", blanked, code, flags=re.DOTALL)
  code = re.sub(r"^[ \t]*(?:template <.*|requires .*)$", blanked, code, flags=re.MULTILINE)
  return blank_calls(code, r"\b(?:static_assert|KS_STATIC_ASSERT|__attribute__|alignas|noexcept|decltype)\s*\(")


def other_number(text, suffix, up):
  digits = text.replace("'", "")
  if digits[:2] in ("0x", "0X"):
    value, form = int(digits, 16), "{:#x}"
  elif digits[:2] in ("0b", "0B"):
    value, form = int(digits, 2), "{:#b}"
  elif len(digits) > 1 and digits[0] == "0":
    value, form = int(digits, 8), "0{:o}"
  else:
    value, form = int(digits), "{}"
  value += 1 if up or value == 0 else -1
  return form.format(value) + suffix


def statement_start(code, end):
  """Where the statement begins that ends with the semicolon at `end`, or None for one within brackets."""
  at, depth, start = end - 1, 0, end
  while at >= 0:
    char = code[at]
    if depth == 0 and (char in ";{" or (char == "}" and re.match(r"[ \t]*\n", code[at + 1:start]))):
      return at + 1
    if depth == 0 and char in "([":
      return None
    if depth == 0 and char == ")":
      opening, level = at, 0
      while opening >= 0:
        level += code[opening] in ")]}"
        level -= code[opening] in "([{"
        if level == 0:
          break
        opening -= 1
      if re.search(r"\b(?:if(?: constexpr)?|for|while|switch) $", code[max(0, opening - 16):opening]):
        return at + 1
      at = opening - 1
      continue
    depth += char in "]}"
    depth -= char in "[{"
    at -= 1
  return None


def dropped_statements(code):
  for match in re.finditer(";", code):
    start = statement_start(code, match.start())
    if start is None:
      continue
    lead = re.match(r"\s*(?:(?:case\s+[\w:]*\w\s*:|default\s*:)\s*)*(?:else\b\s*)?", code[start:match.start()])
    start += lead.end()
    text = code[start:match.start()]
    if text in ("break", "continue", "return") or text.startswith("throw "):
      yield start, match.start()
    elif EXPRESSION.match(text) and not NO_EXPRESSION.match(text) and \
        not re.search(r"=\s*(?:default|delete|0)$", text) and not re.fullmatch(r"static_cast<void>\(\w+\)", text):
      yield start, match.start()


def negated_conditions(code):
  for match in re.finditer(r"\bif \(", code):
    end = closing(code, match.end() - 1)
    if end is None:
      continue
    start, depth = match.end(), 0
    for at in range(match.end(), end - 1):  # behind the declaration, if there is one
      depth += code[at] in "([{"
      depth -= code[at] in ")]}"
      if code[at] == ";" and depth == 0:
        start = at + 2
    condition = code[start:end - 1]
    joined = "&&" in condition or "||" in condition
    # These are what another swap makes, too.
    if not joined and re.search(r" (?:[<>!=]=|[<>]) |^!", condition):
      continue
    if " = " not in condition:
      yield start, end - 1


def edits(path, code):
  """Gives (kind, start, end, new text) of every fault."""
  def line_of(match):
    start = code.rfind("\n", 0, match.start()) + 1
    return code[start:code.find("\n", match.start())], match.start() - start

  for match in OPERATOR.finditer(code):
    operator = match.group(1)
    if operator in ("<", ">=") and re.match(r"[<>=]+ 0\b(?![.x])", code[match.start():]):
      # Whether a call failed: none gives what lies on the boundary.
      yield "comparison", match.start(), match.end(), ">=" if operator == "<" else "<"
      continue
    for kind, swap in SWAPS.items():
      if operator in swap and not (kind == "arithmetic" and ARRAY.match(line_of(match)[0])):
        yield kind, match.start(), match.end(), swap[operator]
  for match in NOT.finditer(code):
    yield "negation", match.start(), match.end(), ""
  for start, end in negated_conditions(code):
    yield "negation", start, end, None
  for match in NUMBER.finditer(code):
    line, column = line_of(match)
    if UNASSERTED_NUMBER.search(line) or ARRAY.match(line) or \
        re.search(r"(?:[=(,{:]|return|[=!]=) -$|[({]-$| (?:<|>=) $" if match.group(1) == "0" else
                  r"(?:[=(,{:]|return|[=!]=) -$|[({]-$", line[:column]):
      continue
    # One of the two neighbours, by place: both would make every second fault a number.
    yield "constant", match.start(), match.end(), other_number(*match.groups(), match.start() % 2 == 0)
  for match in WORD.finditer(code):
    word, other, kind = match.group(0), None, "code"
    if word in RESULT_CODES:
      other = "KS_NO_MEMORY" if word == "KS_FAILURE" else "KS_FAILURE"
    elif word in CACHE_CODES and path.startswith("platform/host/sdb/"):
      other = "kSystem" if word == "kNoMemory" else "kNoMemory"
    elif re.fullmatch(r"E(?:[A-Z]{3,}|2BIG|IO)", word) and word != "EOF":
      other = "EINVAL" if word == "EIO" else "EIO"
    elif word in ("true", "false"):
      other, kind = ("false" if word == "true" else "true"), "constant"
    elif word in ("KS_SUBTYPE_NORMAL", "KS_SUBTYPE_CACHE_ALERT"):
      other = "KS_SUBTYPE_CACHE_ALERT" if word == "KS_SUBTYPE_NORMAL" else "KS_SUBTYPE_NORMAL"
      kind = "subtype"
    if other is not None:
      yield kind, match.start(), match.end(), other
  for start, end in dropped_statements(code):
    yield "dropped", start, end, ""


def mutants_of(path, source):
  found = {}
  for kind, start, end, text in edits(path, code_of(source)):
    old = source[start:end]
    if text is None:
      text = f"!({old})"
    # Reports tell the line: all that follows keeps its own.
    text += "\n" * (old.count("\n") - text.count("\n"))
    first, last = source.rfind("\n", 0, start) + 1, source.find("\n", end)
    before = " ".join(source[first:last].split())
    after = " ".join((source[first:start] + text + source[end:last]).split())
    found.setdefault((start, end, text), Mutant(path, source.count("\n", 0, start) + 1, kind, start, end, text, before,
                                                after))
  return sorted(found.values(), key=lambda mutant: (mutant.start, mutant.end, mutant.text))


# ---------------------------------------------------------------------------------------------------------------------
# Builds and runs

class Failure(Exception):
  """What stops the whole run; its text is for the user."""


def files_of(root):
  """All files that are part of the tree, committed or not."""
  listed = subprocess.run(["git", "ls-files", "-co", "--exclude-standard", "-z"], cwd=root, capture_output=True,
                          check=False)
  if listed.returncode == 0 and listed.stdout:
    names = [name for name in listed.stdout.decode().split("\0") if name]
  else:  # an unpacked archive
    names = [str(path.relative_to(root)) for path in root.rglob("*")
             if path.parts[len(root.parts)] not in ("build", ".git")]
  return sorted(name for name in set(names) if (root / name).is_file())


def isolation(root):
  """The command in front of a test that gives it its own /tmp, and ends whatever it started together with it."""
  own_tmp = [] if str(root).startswith("/tmp/") else ["mount -t tmpfs -o size=2g,mode=1777 tmpfs /tmp &&"]
  for who in ([], ["--user", "--map-current-user"], ["--user", "--map-root-user"]):
    command = ["unshare", *who, "--mount", "--pid", "--fork", "--mount-proc", "--kill-child", "sh", "-c",
               " ".join([*own_tmp, 'exec "$@"']), "sh"]
    try:
      if subprocess.run([*command, "true"], capture_output=True, check=False).returncode == 0:
        return command
    except FileNotFoundError:
      break
  print("mutate: unshare is not allowed here: tests share /tmp, and daemons they leave behind stay", file=sys.stderr)
  return []


def limit_resources():
  """In the child: a fault must not fill memory or disk."""
  resource.setrlimit(resource.RLIMIT_CORE, (0, resource.getrlimit(resource.RLIMIT_CORE)[1]))  # a test looks at its own
  resource.setrlimit(resource.RLIMIT_DATA, (4 << 30, 4 << 30))
  resource.setrlimit(resource.RLIMIT_FSIZE, (1 << 30, 1 << 30))


RUNNING = set()
RUNNING_LOCK = threading.Lock()


def run(command, seconds, **options):
  """Runs a command in a session of its own, all of which ends at the limit. Gives its status, or None at the limit."""
  process = subprocess.Popen(command, stdin=subprocess.DEVNULL, start_new_session=True, **options)
  with RUNNING_LOCK:
    RUNNING.add(process)
  try:
    return process.wait(seconds)
  except subprocess.TimeoutExpired:
    return None
  finally:
    end(process)
    with RUNNING_LOCK:
      RUNNING.discard(process)


def end(process):
  try:
    os.killpg(process.pid, signal.SIGKILL)
  except (ProcessLookupError, PermissionError):
    pass
  process.wait()


def object_of(compilation):
  return re.search(r" -o (\S+)", compilation["command"]).group(1)


@dataclass
class Program:
  name: str
  targets: tuple  # that it runs
  folder: str
  environment: dict


@dataclass
class Step:
  """A run of a program, or of some of its tests."""
  program: Program
  arguments: list
  seconds: float


class Site:
  """A copy of the tree and its build."""

  def __init__(self, root, place, isolate):
    self.root, self.place, self.isolate = root, place, isolate
    self.tree, self.build = place / "tree", place / "build"
    self.log = place / "log"
    self.changed = None
    self.known_targets = None
    self.optimized = {}
    # Compiled objects are kept apart from everybody else's, and found again by every job.
    self.environment = dict(os.environ, CCACHE_DIR=str(place.parent / "ccache"), CCACHE_MAXSIZE="2G",
                            CCACHE_BASEDIR=str(place), CCACHE_NOHASHDIR="1")

  def synchronize(self, files):
    kept = set(files)
    for path in sorted(self.tree.rglob("*"), reverse=True) if self.tree.exists() else ():
      if path.is_dir() and not path.is_symlink():
        if not any(path.iterdir()):
          path.rmdir()
      elif str(path.relative_to(self.tree)) not in kept:
        path.unlink()
    for name in files:
      data = (self.root / name).read_bytes()
      if name.endswith("CMakeLists.txt"):
        data = data.replace(b" CONFIGURE_DEPENDS", b"")  # nothing is added here: no need to look at each build
      target = self.tree / name
      if not target.exists() or target.read_bytes() != data:
        target.parent.mkdir(parents=True, exist_ok=True)
        target.write_bytes(data)
      shutil.copymode(self.root / name, target)

  def make(self, targets, jobs=1, seconds=3600):
    with open(self.log, "wb") as log:
      return run(["ninja", "-C", str(self.build), "-j", str(jobs), *targets], seconds, stdout=log, stderr=log,
                 env=self.environment) == 0

  def configure(self):
    plain = "-O0 -DNDEBUG"
    # Clang takes two thirds of GCC's time, and its linker a third of the usual one's.
    linker = ["-DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=lld"] if shutil.which("ld.lld") else []
    with open(self.log, "wb") as log:
      status = run(["cmake", "--fresh", "-S", str(self.tree), "-B", str(self.build), "-G", "Ninja", *linker,
                    "-DCMAKE_C_COMPILER=clang", "-DCMAKE_CXX_COMPILER=clang++",
                    "-DCMAKE_BUILD_TYPE=RelWithDebInfo", f"-DCMAKE_C_FLAGS_RELWITHDEBINFO={plain}",
                    f"-DCMAKE_CXX_FLAGS_RELWITHDEBINFO={plain}", "-DCMAKE_C_FLAGS=-w", "-DCMAKE_CXX_FLAGS=-w",
                    "-DKS_ASSERTIONS=ON", "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON",
                    "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON"], 600, stdout=log, stderr=log, env=self.environment)
    if status != 0:
      raise Failure(f"cmake failed; all it said is in {self.log}")

  def targets_of(self, name):
    """What a test runs: a program of its name, or, where several tests share one, of the beginning of it."""
    if name in SCRIPTS:
      return SCRIPTS[name]
    if self.known_targets is None:
      listed = subprocess.run(["ninja", "-C", str(self.build), "-t", "targets", "all"], capture_output=True, text=True,
                              check=True)
      self.known_targets = {line.split(":")[0] for line in listed.stdout.splitlines()}
    words = name.split("_")
    beginnings = ("_".join(words[:count]) for count in range(len(words), 0, -1))
    return (next((beginning for beginning in beginnings if beginning in self.known_targets), name),)

  def programs(self, groups):
    listed = subprocess.run(["ctest", "--test-dir", str(self.build), "--show-only=json-v1"], capture_output=True,
                            check=True, env=self.environment)
    found = []
    for test in json.loads(listed.stdout)["tests"]:
      # A program that is built here. Most others are scripts that look at sources or at the shape of a library.
      command = test.get("command", [])
      if group_of(test["name"], groups) is not None and \
          (not command or command[0].startswith(f"{self.build}/") or test["name"] in SCRIPTS):
        properties = {entry["name"]: entry["value"] for entry in test.get("properties", [])}
        environment = dict(entry.split("=", 1) for entry in properties.get("ENVIRONMENT", ()))
        folder = properties.get("WORKING_DIRECTORY") or str(self.build)
        found.append(Program(test["name"], self.targets_of(test["name"]), folder, environment))
    return found

  def find_commands(self, programs):
    """ctest names a program's file once it is built."""
    listed = subprocess.run(["ctest", "--test-dir", str(self.build), "--show-only=json-v1"], capture_output=True,
                            check=True, env=self.environment)
    commands = {test["name"]: test.get("command", []) for test in json.loads(listed.stdout)["tests"]}
    return {program.name: commands[program.name] for program in programs}

  def test(self, command, program, seconds):
    environment = {name: value for name, value in self.environment.items() if not name.startswith("GTEST_")}
    environment.update(program.environment)
    return run([*self.isolate, *command], seconds, cwd=program.folder, stdout=subprocess.DEVNULL,
               stderr=subprocess.DEVNULL, env=environment, preexec_fn=limit_resources)

  def restore(self):
    if self.changed is not None:
      (self.tree / self.changed).write_bytes((self.root / self.changed).read_bytes())
      self.changed = None

  def write(self, mutant, source):
    if self.changed not in (None, mutant.path):
      self.restore()
    self.changed = mutant.path
    (self.tree / mutant.path).write_text(mutant.apply(source))

  def compilations(self, path):
    """The commands that compile what the file is part of."""
    full = str(self.tree / path)
    commands = json.loads((self.build / "compile_commands.json").read_text())
    if path.endswith(".cc"):
      return [entry for entry in commands if entry["file"] == full]
    listed = subprocess.run(["ninja", "-C", str(self.build), "-t", "deps"], capture_output=True, text=True, check=True)
    users = [block.split(":")[0] for block in listed.stdout.split("\n\n")
             if any(os.path.normpath(os.path.join(self.build, line.strip())) == full
                    for line in block.splitlines()[1:])]
    return [entry for entry in commands if object_of(entry) in users and "/tests/" not in entry["file"]]

  def changes_code(self, mutant, source):
    """Whether the optimizing compiler makes anything else of the mutant. What it doesn't is no fault at all."""
    compilations = self.compilations(mutant.path)
    if not compilations or len(compilations) > 12:
      return True
    def compiled(entry):
      target = self.place / "optimized.o"
      command = re.sub(r"^\S*ccache ", "", re.sub(r" -o \S+", "", entry["command"]))
      status = run(["sh", "-c", f"{command} -O2 -g0 -o {target}"], 600, cwd=entry["directory"],
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env=self.environment)
      return hashlib.sha256(target.read_bytes()).digest() if status == 0 else status
    for entry in compilations:
      key = object_of(entry)
      if key not in self.optimized:
        (self.tree / mutant.path).write_text(source)
        self.optimized[key] = compiled(entry)
        (self.tree / mutant.path).write_text(mutant.apply(source))
      if compiled(entry) != self.optimized[key]:
        return True
    return False


@dataclass
class Verdict:
  outcome: str  # killed, survived, invalid (doesn't compile) or same (the same code, optimized)
  how: str = ""


class Session:
  def __init__(self, arguments):
    self.root = arguments.root
    self.base = self.root / "build" / "mutate"
    self.arguments = arguments
    self.files = files_of(self.root)
    self.sites, self.free = [], []
    self.commands, self.programs, self.steps = {}, {}, []
    self.guard = threading.Lock()

  def sources(self):
    folder = self.arguments.folder.rstrip("/")
    if folder.startswith("./"):
      folder = folder[2:]
    chosen = [name for name in self.files if name.endswith((".cc", ".h")) and
              (name == folder or name.startswith(folder + "/"))]
    covered = [name for name in chosen if tests_of(name)]
    if not covered:
      raise Failure(f"'{folder}' has no sources; give src, platform/host, service, or a folder or file in one of them")
    return {name: (self.root / name).read_text() for name in covered}

  def lock(self):
    self.base.mkdir(parents=True, exist_ok=True)
    self.locked = open(self.base / "lock", "w", encoding="ascii")
    try:
      fcntl.flock(self.locked, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
      raise Failure("another run is at work in this tree") from None

  def prepare(self, paths):
    self.lock()
    isolate = isolation(self.root)
    self.sites = [Site(self.root, self.base / str(number), isolate) for number in range(self.arguments.jobs)]
    self.free = list(self.sites)
    groups = sorted({group for path in paths for group in tests_of(path)})
    for site in self.sites:
      site.place.mkdir(exist_ok=True)
      site.synchronize(self.files)
      site.configure()
      programs = site.programs(groups)
      if not programs:
        raise Failure("no test covers that")
      targets = sorted({target for program in programs for target in program.targets})
      note(f"building {len(programs)} test programs in {site.build.relative_to(self.root)}")
      if not site.make(targets, jobs=self.arguments.jobs):
        raise Failure(f"the tree doesn't build as it is; all of it is in {site.log}")
      self.commands[site] = site.find_commands(programs)
      # Each site has its own: a script is told by its environment where the programs are.
      self.programs[site] = {program.name: program for program in programs}
    for program in self.programs[self.sites[0]].values():
      self.steps += self.steps_of(program)
    if not self.steps:
      raise Failure("no test that covers that passes as the tree is")

  def steps_of(self, program):
    """How the program is run, by how long each test takes as the tree is. One that fails already tells nothing."""
    site = self.sites[0]
    command = self.commands[site][program.name]
    report = site.place / "report.json"
    report.unlink(missing_ok=True)
    is_script = program.name in SCRIPTS
    arguments = ["--failfast"] if is_script else []
    output = [f"--gtest_output=json:{report}"] if not is_script and self.is_gtest(site, program) else []
    began = time.monotonic()
    status = site.test([*command, *arguments, *output], program, 300)
    seconds = time.monotonic() - began
    if not output and status == 0:
      return [Step(program, arguments, seconds)]
    if not report.exists():
      note(f"{program.name} fails as the tree is, and is left out")
      return []
    lots = {True: [], False: []}
    times = {True: 0.0, False: 0.0}
    for suite in json.loads(report.read_text())["testsuites"]:
      for test in suite["testsuite"]:
        name, taken = f"{suite['name']}.{test['name']}", float(test["time"].rstrip("s"))
        if test.get("failures"):
          note(f"{program.name}: {name} fails as the tree is, and is left out")
          continue
        quick = taken < QUICK_SECONDS
        lots[quick].append(name)
        times[quick] += taken
    start = max(0.0, seconds - sum(times.values()))
    return [Step(program, ["--gtest_fail_fast", "--gtest_brief=1", f"--gtest_filter={':'.join(names)}"],
                 start + times[quick]) for quick, names in lots.items() if names]

  def is_gtest(self, site, program):
    listed = subprocess.run([*self.commands[site][program.name], "--gtest_list_tests"], cwd=program.folder,
                            capture_output=True, text=True, check=False, timeout=60)
    return bool(re.search(r"^\w[\w/]*\.", listed.stdout, re.MULTILINE))

  def order(self, path):
    """What covers a file: first what is called as its folder or itself, then group by group, the quickest first."""
    words = set(Path(path).with_suffix("").parts)
    groups = tests_of(path)
    def place(step):
      name = step.program.name
      return (name.split("_", 1)[-1] not in words, group_of(name, groups), step.seconds)
    return sorted((step for step in self.steps if group_of(step.program.name, groups) is not None), key=place)

  def judge(self, mutant, source):
    with self.guard:
      site = self.free.pop()
    try:
      return self.judge_in(site, mutant, source)
    finally:
      with self.guard:
        self.free.append(site)

  def judge_in(self, site, mutant, source):
    steps = self.order(mutant.path)
    alone = BUILT_ALONE.get(mutant.path)
    if alone and site.changed != mutant.path:  # the fault of before goes out of the tests
      site.restore()
      if not site.make(sorted({target for step in steps for target in step.program.targets})):
        raise Failure(f"the tree doesn't build as it is; all of it is in {site.log}")
    site.write(mutant, source)
    built = set()
    for step in steps:
      program = self.programs[site][step.program.name]
      targets = alone or program.targets
      if not built.issuperset(targets) and not site.make(targets, seconds=900):
        return Verdict("invalid")
      built.update(targets)
      limit = max(15.0, 5 * step.seconds)
      status = site.test([*self.commands[site][program.name], *step.arguments], program, limit)
      if status != 0:
        return Verdict("killed", program.name if status is not None else f"{program.name}, which hangs")
    return Verdict("survived" if site.changes_code(mutant, source) else "same")


def note(text):
  print(f"mutate: {text}", file=sys.stderr, flush=True)


class Journal:
  """The verdicts of a run as they come, for one that goes on after an interruption, and for --again."""

  def __init__(self, path, key):
    self.path, self.verdicts = path, {}
    try:
      lines = path.read_text().splitlines()
    except FileNotFoundError:
      lines = []
    if lines and lines[0] == key:
      for line in lines[1:]:
        try:
          entry = json.loads(line)
        except json.JSONDecodeError:  # cut off in the middle of a line
          break
        self.verdicts[entry["name"]] = Verdict(entry["outcome"], entry["how"])
    with open(path, "w", encoding="utf-8") as file:
      file.write(key + "\n")
    self.file = open(path, "a", encoding="utf-8")
    for name, verdict in self.verdicts.items():
      self.append(name, verdict)

  def append(self, name, verdict):
    self.file.write(json.dumps({"name": name, "outcome": verdict.outcome, "how": verdict.how}) + "\n")
    self.file.flush()


def run_key(session, arguments):
  digest = hashlib.sha256(Path(__file__).read_bytes())
  for name in session.files:
    digest.update(name.encode() + b"\0" + hashlib.sha256((session.root / name).read_bytes()).digest())
  return f"{digest.hexdigest()} {arguments.folder} {arguments.seed}"


def last_survivors(base, folder):
  path = base / f"survivors-{folder.strip('/').replace('/', '-')}.json"
  try:
    return json.loads(path.read_text())
  except FileNotFoundError:
    raise Failure(f"no run of {folder} has ended here yet") from None


def report(session, arguments, judged, complete):
  lines = []
  killed = [mutant for mutant, verdict in judged.items() if verdict.outcome == "killed"]
  survivors = [mutant for mutant, verdict in judged.items() if verdict.outcome == "survived"]
  for mutant in sorted(survivors, key=lambda mutant: (mutant.path, mutant.line)):
    lines += [f"survived {mutant.path}:{mutant.line} ({mutant.kind})", f"  - {mutant.before}", f"  + {mutant.after}"]
  kinds = {}
  for mutant in killed + survivors:
    kinds.setdefault(mutant.kind, [0, 0])
    kinds[mutant.kind][0] += judged[mutant].outcome == "killed"
    kinds[mutant.kind][1] += 1
  lines.append("")
  for kind, (dead, total) in sorted(kinds.items()):
    lines.append(f"{kind:<12} {dead:>4} of {total:>4}")
  total = len(killed) + len(survivors)
  hanging = sum(verdict.how.endswith("hangs") for verdict in judged.values())
  outcomes = [verdict.outcome for verdict in judged.values()]
  lines.append(f"{arguments.folder}: {len(killed)} of {total} killed "
               f"({100 * len(killed) / total if total else 0:.1f} %), {hanging} of them by hanging; seed "
               f"{arguments.seed}; not counted: {outcomes.count('invalid')} that don't compile, "
               f"{outcomes.count('same')} that are the same code" + ("" if complete else "; interrupted"))
  print("\n".join(lines), flush=True)
  name = arguments.folder.strip("/").replace("/", "-")
  (session.base / f"report-{name}.txt").write_text("\n".join(lines) + "\n")
  if complete:
    (session.base / f"survivors-{name}.json").write_text(json.dumps([mutant.name for mutant in survivors], indent=1))


def run_all(session, arguments):
  sources = session.sources()
  candidates = [mutant for path in sorted(sources) for mutant in mutants_of(path, sources[path])]
  wanted = arguments.count
  if arguments.again:
    names = set(last_survivors(session.base, arguments.folder))
    candidates = [mutant for mutant in candidates if mutant.name in names]
    wanted = len(candidates)
  random.Random(arguments.seed).shuffle(candidates)
  note(f"{min(wanted, len(candidates))} of {len(candidates)} faults in {len(sources)} files of {arguments.folder}, "
       f"seed {arguments.seed}")
  if arguments.list:
    for mutant in sorted(candidates[:wanted], key=lambda mutant: (mutant.path, mutant.start)):
      print(mutant.name)
    return
  session.prepare(list(sources))
  journal = Journal(session.base / f"journal-{arguments.folder.strip('/').replace('/', '-')}.txt",
                    run_key(session, arguments))
  judged, taken, complete = {}, 0, True
  counted = lambda: sum(verdict.outcome in ("killed", "survived") for verdict in judged.values())
  began = time.monotonic()
  try:
    with concurrent.futures.ThreadPoolExecutor(arguments.jobs) as pool:
      while counted() < wanted and taken < len(candidates):
        # In the place of those that turn out to be none, the next ones; each lot file by file, which compiles least.
        lot = candidates[taken:taken + min(LOT, wanted - counted())]
        taken += len(lot)
        known = [mutant for mutant in lot if mutant.name in journal.verdicts]
        judged.update({mutant: journal.verdicts[mutant.name] for mutant in known})
        lot = sorted((mutant for mutant in lot if mutant not in judged), key=lambda mutant: (mutant.path, mutant.start))
        futures = {pool.submit(session.judge, mutant, sources[mutant.path]): mutant for mutant in lot}
        try:
          for future in concurrent.futures.as_completed(futures):
            mutant, verdict = futures[future], future.result()
            judged[mutant] = verdict
            journal.append(mutant.name, verdict)
            elapsed = int(time.monotonic() - began)
            print(f"[{counted():>3}/{wanted}] {elapsed // 60:>3}:{elapsed % 60:02} {verdict.outcome:<8} {mutant.name}"
                  f"{'  (' + verdict.how + ')' if verdict.how else ''}", file=sys.stderr, flush=True)
        except BaseException:
          for future in futures:
            future.cancel()
          with RUNNING_LOCK:
            for process in RUNNING:
              os.killpg(process.pid, signal.SIGKILL)
          raise
  except KeyboardInterrupt:
    complete = False
  finally:
    for site in session.sites:
      site.restore()
  report(session, arguments, judged, complete)
  if not complete:
    raise Failure(f"interrupted; the same command with KS_TEST_SEED={arguments.seed} goes on from here")


def main():
  parser = argparse.ArgumentParser(prog="./dev mutate", description=__doc__,
                                   formatter_class=argparse.RawDescriptionHelpFormatter)
  parser.add_argument("count", nargs="?", type=int, default=100, metavar="N", help="how many faults (100)")
  parser.add_argument("folder", nargs="?", default="src", metavar="FOLDER",
                      help="src (default), platform/host, service, or a folder or file in one of them")
  parser.add_argument("--seed", type=int, default=os.environ.get("KS_TEST_SEED"),
                      help="which faults; also KS_TEST_SEED, otherwise drawn and printed")
  parser.add_argument("--again", action="store_true", help="only what survived the last run of FOLDER")
  parser.add_argument("--list", action="store_true", help="print the faults, and run nothing")
  parser.add_argument("--jobs", type=int, default=int(os.environ.get("JOBS", 2)), help="also JOBS; otherwise 2")
  parser.add_argument("--root", type=Path, default=Path(__file__).resolve().parents[2], help=argparse.SUPPRESS)
  arguments = parser.parse_args()
  if arguments.count < 1 or arguments.jobs < 1:
    parser.error("N and the number of jobs are at least 1")
  if arguments.seed is None:
    arguments.seed = random.SystemRandom().randrange(1, 1 << 31)
  arguments.root = arguments.root.resolve()
  signal.signal(signal.SIGTERM, signal.default_int_handler)
  try:
    run_all(Session(arguments), arguments)
  except Failure as failure:
    sys.exit(f"mutate: {failure}")


if __name__ == "__main__":
  main()
