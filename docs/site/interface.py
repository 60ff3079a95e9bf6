# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""Reads the public headers: every exported function with its comment, taken apart into what the manual needs.

The headers are the one place where a function is described. A comment begins with the function's name; paragraphs that
begin with a result code say when it is given, and those that begin with NOTE: what to mind. A function that is
described by its difference to one before it ("does the same", "likewise") is shown with that one's description.
"""

import re
from dataclasses import dataclass, field
from pathlib import Path

DECLARATION = re.compile(r"(/\*(?:(?!\*/).)*\*/\n)KS_EXPORT ([^;]*\([^;]*\));", re.S)
BY_DIFFERENCE = re.compile(r"\blikewise\b|\bdoes the same\b|\bthe same request\b|\bthe same reply\b")
CODE = re.compile(r"(?:(?<=^)|(?<=\. ))(KS_[A-Z0-9_]+(?:(?:,| and| or) KS_[A-Z0-9_]+)*): ")


@dataclass
class Function:
  name: str
  header: str
  signature: str  # on one line
  text: list  # paragraphs of description
  results: list = field(default_factory=list)  # (codes, when)
  notes: list = field(default_factory=list)
  base: "Function" = None  # the one that it is described by its difference to

  @property
  def summary(self):
    """What it does, without its name, to the first full stop or colon."""
    sentence = re.split(r"(?<=[^.])\.(?: |$)|: ", self.text[0], maxsplit=1)[0]
    return re.sub(r"^%s,? " % re.escape(self.name), "", sentence)

  @property
  def operation(self):
    return re.sub(r"_(req|resp)$", "", self.name)


def plain(comment):
  """The text of a comment, by paragraphs. A line that begins with NOTE: begins a paragraph."""
  lines = [re.sub(r"^ ?\* ?", "", line) for line in comment.strip()[2:-2].strip().split("\n")]
  text = re.sub(r"\n(?=NOTE:)", "\n\n", "\n".join(lines))
  return [" ".join(paragraph.split()) for paragraph in re.split(r"\n\s*\n", text) if paragraph.strip()]


def take_apart(function, paragraphs):
  for paragraph in paragraphs:
    if paragraph.startswith("NOTE: "):
      function.notes.append(paragraph[len("NOTE: "):])
    elif CODE.match(paragraph):
      pieces = CODE.split(paragraph)[1:]
      function.results += [(codes, when.strip()) for codes, when in zip(pieces[::2], pieces[1::2])]
    else:
      function.text.append(paragraph)


def kind_of(name):
  return name.rsplit("_", 1)[1] if name.endswith(("_req", "_resp")) else ""


def read_header(path):
  """All functions of a header, in its order."""
  functions = []
  for comment, declaration in DECLARATION.findall(path.read_text()):
    signature = " ".join(declaration.split())
    name = re.search(r"(\w+)\(", signature)[1]
    function = Function(name, path.name, signature, [])
    take_apart(function, plain(comment))
    if not function.text or not function.text[0].startswith(name):
      raise SystemExit(f"{path}: the comment above {name} doesn't begin with its name")
    if BY_DIFFERENCE.search(function.text[0]):
      named = re.findall(r"\bks\w+", " ".join(function.text[0].split()[1:]))
      earlier = [f for f in functions if f.base is None]
      of_name = [f for f in earlier if f.name in named]
      of_kind = [f for f in earlier if kind_of(f.name) == kind_of(name)]
      function.base = (of_name or of_kind or [None])[-1] if of_name else (of_kind[-1] if of_kind else None)
    functions.append(function)
  return functions


def about(path):
  """What the comment at a header's start says."""
  comment = re.match(r"/\*.*?\*/", path.read_text(), re.S)[0]
  paragraphs = plain(comment)
  text = re.sub(r"^\w+\.h: ", "", paragraphs[0])
  paragraphs[0] = text[:1].upper() + text[1:]
  return paragraphs


def read_interface(root):
  """All headers of the two libraries that declare functions, by path, with their functions."""
  headers = {path: read_header(path) for folder in ("include", "helpers/include")
             for path in sorted((Path(root) / folder).glob("ks_*.h"))}
  return {path: functions for path, functions in headers.items() if functions}


def wrapped_signature(signature, width=100):
  """The declaration as a programmer would lay it out."""
  head, arguments = signature.split("(", 1)
  opened = head + "("
  lines = [opened]
  for argument in arguments.split(", "):
    if len(lines[-1]) + len(argument) + 2 > width:
      lines[-1] = lines[-1].rstrip()
      lines.append(" " * len(opened))
    lines[-1] += argument + ", "
  return "\n".join(lines)[:-2] + ";"
