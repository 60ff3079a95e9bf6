#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""man.py OUT: makes the manual: pages of section 3 from the headers, the others from man/*.scd by scdoc.

Pages bear no date, so that the same sources give the same bytes.
"""

import os
import re
import subprocess
import sys
from pathlib import Path

import interface

ROOT = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ.get("KS_BUILD", ROOT / "build/x86_64"))  # whose programs tell their options

FAILURE = """Every operation answers a KsResult, an unsigned number, and KS_SUCCESS is 1: compare, never test for truth.
What holds for all operations is told in ks(7)."""


def version():
  numbers = dict(re.findall(r"#define KS_VERSION_(MAJOR|MINOR|PATCH) (\d+)", (ROOT / "include/ks_version.h").read_text()))
  return ".".join(numbers[part] for part in ("MAJOR", "MINOR", "PATCH"))


def escaped(text):
  return text.replace("\\", "\\e").replace("-", "\\-").replace("'", "\\(aq")


def roff(text):
  """Running text: parameters in italics, functions and codes in bold."""
  pieces = []
  for piece in re.split(r"(`[^`]+`)", text):
    if piece.startswith("`"):
      pieces.append("\\fI" + escaped(piece[1:-1]) + "\\fP")
    else:
      pieces.append(re.sub(r"\b(KS_[A-Z0-9_]+|ksh?_\w+|sksd_\w+|kserr2str)\b", r"\\fB\1\\fP", escaped(piece)))
  joined = "".join(pieces)
  return "\\&" + joined if joined[:1] in ".'" else joined


def paragraphs(texts):
  return "\n.PP\n".join(roff(text) for text in texts) + "\n"


def library_of(function):
  title, name = ("Helpers over the keystore client library", "ks-helpers") if function.name.startswith("ksh_") else \
      ("Keystore client library", "ks")
  return escaped(title) + " (\\fIlib{0}\\fP, \\fI\\-l{0}\\fP; flags by \\fBpkg\\-config {0}\\fP)\n".format(escaped(name))


def described(function):
  page = ".SH DESCRIPTION\n" + paragraphs(function.text)
  if function.base is not None:
    page += ".PP\nWhat it says of " + roff(function.base.name) + " holds here too:\n.RS\n.PP\n"
    page += paragraphs(function.base.text) + ".RE\n"
  return page


def results(function):
  own = list(function.results)
  if function.base is not None:
    told = {code for codes, _ in own for code in re.findall(r"KS_\w+", codes)}
    own += [(codes, when) for codes, when in function.base.results if not told & set(re.findall(r"KS_\w+", codes))]
  page = ".SH RETURN VALUE\n"
  page += roff(" ".join(FAILURE.split())) + "\n" if "KsResult" in function.signature.split("(")[0] else \
      "See above.\n"
  for codes, when in own:
    page += ".TP\n" + roff(codes) + "\n" + roff(when[:1].upper() + when[1:]) + "\n"
  return page


def short(function):
  """What stands behind the name in the page's first section: one clause."""
  summary = function.summary
  if len(summary) > 90:
    summary = re.split(r"[,;] | \(", summary)[0]
  return summary + (f", as {function.base.name}" if function.base is not None else "")


def page_of(function, siblings):
  page = f'.TH {function.name} 3 "" "ks {version()}" "Keystore library"\n'
  page += f".SH NAME\n{function.name} \\- {roff(short(function))}\n"
  page += ".SH LIBRARY\n" + library_of(function)
  signature = escaped(interface.wrapped_signature(function.signature))
  page += f".SH SYNOPSIS\n.nf\n.B #include <{function.header}>\n.PP\n{signature}\n.fi\n"
  page += described(function) + results(function)
  notes = [note[:1].upper() + note[1:] for note in function.notes]
  if function.base is not None and function.base.notes:
    notes.append(f"{function.base.name} has notes that may name this function.")
  if notes:
    page += ".SH NOTES\n" + paragraphs(notes)
  page += ".SH ENVIRONMENT\n.TP\n.B KS_SOCKET\nWhere the service listens, instead of \\fI/run/ks/ksd.sock\\fP. It is "
  page += "read by \\fBks_init\\fP(3).\n"
  page += ".SH EXIT STATUS\nDoesn\\(aqt apply: no function ends the process on purpose.\n"
  also = [name for name in siblings if name != function.name] + \
      ([function.base.name] if function.base is not None else [])
  page += ".SH SEE ALSO\n" + ",\n".join(f"\\fB{name}\\fP(3)" for name in dict.fromkeys(also)) + \
      (",\n" if also else "") + "\\fBks\\fP(7)\n"
  return page


def write_functions(out):
  for functions in interface.read_interface(ROOT).values():
    for function in functions:
      siblings = [f.name for f in functions if f.operation == function.operation]
      (out / f"{function.name}.3").write_text(page_of(function, siblings))


def keys():
  """The keys of the configuration, from the file that ships: a comment above a key or behind it says what it means."""
  lines, above = [], []
  for line in (ROOT / "service/ksd.toml").read_text().split("\n"):
    key = re.match(r"(# )?(\w+ = [^#]*?)\s*(?:# (.*))?$", line)
    section = re.match(r"(?:# )?(\[+[\w.]+\]+)$", line)
    if section:
      lines += [f"## {section[1]}", ""] + ([" ".join(above), ""] if above else [])
      above = []
    elif key:
      text = " ".join(above + ([key[3]] if key[3] else []))
      lines += ["*" + key[2].replace("_", "\\_") + "*", "\t" + (text[:1].upper() + text[1:] or "See above."), ""]
      above = []
    elif line.startswith("# "):
      above.append(line[2:])
    else:
      above = []
  return "\n".join(lines)


def help_of(program, *words):
  """What a program's own help says: arguments, options and subcommands, as pairs of name and text, and the usage."""
  shown = subprocess.run([str(program), *words, "--help"], capture_output=True, text=True, check=True).stdout
  usage = re.search(r"^Usage: \S+ ?(.*)$", shown, re.M)
  parts = {heading: re.findall(r"^  (\S.*?)(?:  +|(?<= REQUIRED) |\n +)(\S.*(?:\n {10,}\S.*)*)", part, re.M)
           for heading, part in re.findall(r"^(Options|Positionals|Subcommands):\n((?:[ ].*\n)*)", shown, re.M)}
  return usage[1] if usage else "", parts


def literal(text):
  """A text in which nothing is a sign of scdoc's."""
  return re.sub(r"([*_\\])", r"\\\1", " ".join(text.split()))


def terms(entries):
  return "\n".join("*" + re.sub(r",(?=-)", "*, *", name.replace("_", "\\_")) + "*\n\t" + literal(text) + "\n"
                   for name, text in entries)


def options(program):
  return terms(help_of(program)[1]["Options"])


def commands(program, *words):
  """All commands of a program, each under its own words."""
  _, parts = help_of(program, *words)
  lines = []
  for word, text in parts.get("Subcommands", []):
    own = (*words, word)
    _, below = help_of(program, *own)
    if "Subcommands" in below:
      lines.append(commands(program, *own))
      continue
    lines += ["## " + " ".join(own), "", literal(text) + ".", ""]
    entries = [entry for entry in below.get("Positionals", []) + below.get("Options", []) if "--help" not in entry[0]]
    if entries:
      lines += [terms(entries)]
  return "\n".join(lines)


def write_others(out):
  for source in sorted((ROOT / "man").glob("*.scd")):
    text = source.read_text().replace("@VERSION@", version()).replace("@KEYS@", keys())
    program = BUILD / source.name.split(".")[0]
    if "@OPTIONS@" in text:
      text = text.replace("@OPTIONS@", options(program))
    if "@COMMANDS@" in text:
      text = text.replace("@COMMANDS@", commands(program))
    made = subprocess.run(["scdoc"], input=text, capture_output=True, text=True, check=False)
    if made.returncode != 0:
      raise SystemExit(f"{source}: scdoc says {made.stderr.strip()}")
    # scdoc dates a page by the day on which it is made.
    (out / source.stem).write_text(re.sub(r'^(\.TH "[^"]*" "[^"]*") "[^"]*"', r'\1 ""', made.stdout, flags=re.M))


def main():
  out = Path(sys.argv[1])
  out.mkdir(parents=True, exist_ok=True)
  for old in out.glob("*.[1-8]"):
    old.unlink()
  write_functions(out)
  write_others(out)


if __name__ == "__main__":
  main()
