#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""engine_figures.py [FOLDER]: how long changes and loads take through an engine, beside the same requests sent to etcd
directly, in turn with them. FOLDER is where the members keep their data, in memory if it isn't given.

Run by `./dev fleet --figures`, with the build's folder in KS_BUILD.
"""

import base64
import http.client
import json
import os
import statistics
import struct
import sys
import time

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import own_world  # noqa: E402

if __name__ == "__main__":
  own_world.enter("etcd", "etcdctl")

import cluster  # noqa: E402
from engine import FROM_ENGINE, Engine, memory_of  # noqa: E402

CHANGES = 1000
ROWS = 65_535
ROW = 300  # bytes


class Direct:
  """etcd's own gateway for JSON, over one connection."""

  def __init__(self, connection):
    self.connection = connection

  def ask(self, what, body):
    self.connection.request("POST", f"/v3/kv/{what}", json.dumps(body))
    return json.load(self.connection.getresponse())

  def commit(self, expected, puts):
    text = lambda value: base64.b64encode(value).decode()  # noqa: E731
    done = self.ask("txn", {
        "compare": [{"key": text(b"direct/h"), "target": "MOD", "result": "EQUAL", "mod_revision": expected}],
        "success": [{"request_put": {"key": text(b"direct/" + key.encode()), "value": text(value)}}
                    for key, value in puts]})
    assert done["succeeded"]
    return int(done["header"]["revision"])


def figures(times):
  times = sorted(times)
  return f"median {statistics.median(times) * 1000:.2f} ms, p99 {times[len(times) * 99 // 100] * 1000:.2f} ms"


def main():
  network = cluster.Network(3)
  etcd = cluster.Cluster(network, folder=sys.argv[1] if len(sys.argv) > 1 else own_world.FOLDER)
  leader = etcd.leader()
  network.enter(0)  # where the direct connection is made from
  direct = Direct(http.client.HTTPConnection(network.address(leader), cluster.PORT))
  engine = Engine(network, [etcd.endpoint(leader)])
  engine.next_report(10)

  times = {"engine": [], "direct": []}
  through, past = 0, 0
  for i in range(CHANGES):
    puts = [("h", b"h" * 200), (f"e/{i % 100:016x}", b"r" * ROW)]
    begun = time.perf_counter()
    through = engine.commit(through, puts).revision
    between = time.perf_counter()
    past = direct.commit(past, puts)
    times["engine"].append(between - begun)
    times["direct"].append(time.perf_counter() - between)
  for way, took in times.items():
    print(f"a change, {way}: {figures(took)}")

  begun = time.perf_counter()
  for first in range(0, ROWS, 100):
    through = engine.commit(through, [("h", b"h" * 200)] + [
        (f"e/{i:016x}", os.urandom(ROW)) for i in range(first, min(first + 100, ROWS))]).revision
  print(f"{ROWS} rows put, 100 at a time: {time.perf_counter() - begun:.1f} s")
  loads = []
  for _ in range(5):
    begun = time.perf_counter()
    engine.ask("Load")
    rows = 0
    while FROM_ENGINE[(body := engine.next_frame(60))[0]][0] == "LoadedRows":
      rows += struct.unpack_from("<I", body, 1 + 8)[0]  # behind kind and id
    loads.append(time.perf_counter() - begun)
    assert rows == ROWS, rows
  print(f"{ROWS} rows loaded: median {statistics.median(loads):.2f} s, most {max(loads):.2f} s")
  print(f"the engine's memory: {memory_of(engine.process)} kB")


if __name__ == "__main__":
  main()
