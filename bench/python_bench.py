#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""python_bench.py BUILD: HMAC-SHA1 of 64 bytes from Python beside the same call from C, in turns, under ks-session.

Both programs and the service are kept on one core, since waking another one would cost more than what is measured.
"""

import json
import os
import statistics
import subprocess
import sys
import time
from pathlib import Path

BUILD = Path(sys.argv[1]).resolve()
sys.path.insert(0, str(BUILD / "python"))

import ks  # noqa: E402

TURNS = 301
ROUNDS = 200
AIM = 1.5
NAME = "python-bench"


def keep_on_one_core(pid):
    core = {max(os.sched_getaffinity(0))}
    for thread in os.listdir(f"/proc/{pid}/task"):
        os.sched_setaffinity(int(thread), core)


def from_c(program):
    program.stdin.write(f"{ROUNDS}\n")
    program.stdin.flush()
    return int(program.stdout.readline())


def from_python(data):
    start = time.perf_counter_ns()
    for _ in range(ROUNDS):
        ks.crypto.hmac_sha1(NAME, data)
    return time.perf_counter_ns() - start


def main():
    ks.init(1)
    keep_on_one_core(os.getpid())
    keep_on_one_core(Path(os.environ["KS_SESSION_DIR"], "ksd.pid").read_text().strip())
    ks.secrets.store(NAME, b"Jefe")
    data = b"x" * 64
    with subprocess.Popen([BUILD / "bench/hmac_rounds", NAME], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                          text=True) as program:
        pairs = [(from_c(program), from_python(data)) for _ in range(TURNS)]
        program.stdin.close()
    ks.secrets.clear(NAME)
    c, python = (statistics.median(turn) / ROUNDS / 1000 for turn in zip(*pairs))
    print(f"  HMAC-SHA1 of 64 bytes: {python:.2f} µs from Python, {c:.2f} µs from C: {python / c:.2f} times, "
          f"to stay under {AIM}")
    if report := os.environ.get("KS_BENCH_REPORT"):
        row = {"program": "python_bench", "kind": "ratio", "row": "HmacSha1FromPython", "ns": python * 1000,
               "floor": "HmacSha1FromC", "floor_ns": c * 1000, "aim": AIM}
        with open(report, "a", encoding="utf-8") as file:
            file.write(json.dumps(row) + "\n")


if __name__ == "__main__":
    main()
