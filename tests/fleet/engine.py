# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""A real ksd-engine, and what a daemon says to it and hears from it over their socket, byte by byte."""

import itertools
import os
import select
import socket
import struct
import subprocess
import time
from collections import namedtuple

BUILD = os.environ.get("KS_BUILD", "build/x86_64")
VERSION = 2

# How a field is written: q a number of 8 bytes, o one that may be missing, b one of 1, s a text, v a value, S a list of
# texts, R one of rows, r a row that may be missing.
TO_ENGINE = {"Start": (0, "qSssss"), "Commit": (1, "qoRSqo"), "ReadHeader": (2, "qq"), "Load": (3, "q"),
             "Watch": (4, "qq"), "Beat": (5, "qsvq"), "ReadBeats": (6, "qq")}
FROM_ENGINE = {
    0x80: ("Started", "q", "version"),
    0x81: ("Committed", "qq", "id revision"),
    0x82: ("Refused", "qrq", "id header revision"),
    0x83: ("Failed", "qbs", "id kind why"),
    0x84: ("HeaderIs", "qrq", "id header revision"),
    0x85: ("LoadedRows", "qR", "id rows"),
    0x86: ("Loaded", "qrq", "id header revision"),
    0x87: ("Changed", "qqRS", "id revision puts deletes"),
    0x88: ("WatchBroken", "qq", "id compacted"),
    0x89: ("BeatsAre", "qRq", "id beats revision"),
    0x8a: ("Stopped", "s", "why"),
}
REPORTS = {name: namedtuple(name, fields) for name, _, fields in FROM_ENGINE.values()}
NOT_SENT, UNKNOWN, TOO_LARGE, NO_SPACE, DENIED = range(5)

Row = namedtuple("Row", "key value revision", defaults=[0])


def put(form, value):
  if form == "q":
    return struct.pack("<Q", value)
  if form == "o":
    return b"\0" if value is None else b"\1" + put("q", value)
  if form in "sv":
    data = value.encode() if isinstance(value, str) else value
    return struct.pack("<I", len(data)) + data
  if form == "S":
    return struct.pack("<I", len(value)) + b"".join(put("s", text) for text in value)
  return struct.pack("<I", len(value)) + b"".join(put("s", key) + put("v", data) + put("q", 0) for key, data in value)


class Fields:
  def __init__(self, data):
    self.data, self.at = data, 0

  def bytes(self, size):
    taken = self.data[self.at:self.at + size]
    assert len(taken) == size, "a field goes past the end of its frame"
    self.at += size
    return taken

  def take(self, form):
    if form == "q":
      return struct.unpack("<Q", self.bytes(8))[0]
    if form == "b":
      return self.bytes(1)[0]
    if form == "v":
      return self.bytes(struct.unpack("<I", self.bytes(4))[0])
    if form == "s":
      return self.take("v").decode()
    if form == "r":
      return self.row() if self.bytes(1)[0] else None
    count = struct.unpack("<I", self.bytes(4))[0]
    return [self.take("s") if form == "S" else self.row() for _ in range(count)]

  def row(self):
    return Row(self.take("s"), self.take("v"), self.take("q"))


def frame(name, *values):
  kind, forms = TO_ENGINE[name]
  body = bytes([kind]) + b"".join(put(form, value) for form, value in zip(forms, values, strict=True))
  return struct.pack("<I", len(body)) + body


def parse(body):
  name, forms, _ = FROM_ENGINE[body[0]]
  fields = Fields(body[1:])
  report = REPORTS[name](*(fields.take(form) for form in forms))
  assert fields.at == len(fields.data), "bytes are left behind the last field"
  return report


class Gone(Exception):
  """The engine has closed the connection."""


PATIENCE = 60  # seconds, of an engine that is starved by other tests


class Connection:
  """One end of a connection to an engine."""

  def __init__(self, connected):
    self.socket = connected
    self.ids = itertools.count(1)
    self.received = bytearray()
    self.reports = []  # received and not yet asked for

  def send(self, name, *values):
    self.socket.sendall(frame(name, *values))

  def start(self, endpoints, prefix="ks/", tls=("", "", ""), version=VERSION):
    self.send("Start", version, endpoints, prefix, *tls)

  def ask(self, name, *values):
    """Sends a request with the next id, which it gives."""
    request = next(self.ids)
    self.send(name, request, *values)
    return request

  def next_frame(self, seconds):
    """The next report as it came, without its size."""
    end = time.monotonic() + seconds
    while True:
      if len(self.received) >= 4:
        size = struct.unpack_from("<I", self.received)[0]
        if len(self.received) >= 4 + size:
          body = bytes(self.received[4:4 + size])
          del self.received[:4 + size]
          return body
      left = end - time.monotonic()
      if left <= 0 or not select.select([self.socket], [], [], left)[0]:
        raise TimeoutError(f"the engine says nothing for {seconds} s")
      try:
        data = self.socket.recv(1 << 20)
      except ConnectionResetError:
        data = b""
      if not data:
        raise Gone
      self.received += data

  def next_report(self, seconds=PATIENCE):
    return parse(self.next_frame(seconds))

  def wait_for(self, wanted, seconds=PATIENCE):
    """The next report that `wanted` is true of. Others are kept for whoever asks for them."""
    end = time.monotonic() + seconds
    for at, report in enumerate(self.reports):
      if wanted(report):
        return self.reports.pop(at)
    while True:
      report = self.next_report(max(end - time.monotonic(), 0))
      if wanted(report):
        return report
      self.reports.append(report)

  def answer_to(self, request, seconds=PATIENCE):
    return self.wait_for(lambda report: getattr(report, "id", None) == request, seconds)

  # Requests with their answers.

  def commit(self, expected, puts=(), deletes=(), limit=5000, restore=None):
    return self.answer_to(self.ask("Commit", expected, puts, deletes, limit, restore), limit / 1000 + PATIENCE)

  def header(self, limit=5000):
    return self.answer_to(self.ask("ReadHeader", limit), limit / 1000 + PATIENCE)

  def beat(self, machine, value, limit=5000):
    return self.answer_to(self.ask("Beat", machine, value, limit), limit / 1000 + PATIENCE)

  def beats(self, limit=5000):
    return self.answer_to(self.ask("ReadBeats", limit), limit / 1000 + PATIENCE)

  def load(self, seconds=PATIENCE):
    """All pages, and the report at the end."""
    request = self.ask("Load")
    pages = []
    while True:
      report = self.answer_to(request, seconds)
      if not isinstance(report, REPORTS["LoadedRows"]):
        return pages, report
      pages.append(report.rows)

  def watch(self, start):
    return self.ask("Watch", start)

  def close(self):
    self.socket.close()


def memory_of(process):
  """Its resident memory, in kB."""
  with open(f"/proc/{process.pid}/status") as status:
    return next(int(line.split()[1]) for line in status if line.startswith("VmRSS"))


class Engine(Connection):
  """An engine process on a machine of the network, with a connection to it."""

  def __init__(self, network, endpoints, machine=0, environment=(), **start):
    ours, its = socket.socketpair()
    super().__init__(ours)
    self.log = open(f"/run/world/engine{ours.fileno()}.log", "w+")
    self.process = subprocess.Popen([*network.on(machine), f"{BUILD}/ksd-engine"], stdin=its, stderr=self.log,
                                    env=dict(os.environ, **dict(environment)))
    its.close()
    if endpoints is not None:
      self.start(endpoints, **start)

  def close(self):
    super().close()
    self.process.kill()
    self.process.wait()
    self.log.close()
