# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""Threads: one that waits for the service holds up no other, and each has its own results."""

import threading
import unittest

import ks
from support import LIMIT_S, OnSession, ScriptedService, answer, run_program

WAITING = r"""
import sys, threading
import ks

ks.init(1)
waiting = threading.Thread(target=lambda: print(f"answered {ks.device.random(4)}\n", end=""))
waiting.start()
print(f"asked {ks.crypto.hmac_sha1('name', b'data')}\n", end="")
waiting.join()
"""


class Threads(OnSession):
    def test_go_on_while_one_waits(self):
        came, released = threading.Event(), threading.Event()

        def random(_):
            came.set()
            return answer(b"abcd") if released.wait(LIMIT_S / 2) else None

        def hmac(_):
            # The first thread waits for its answer, and has it only when another one has asked.
            in_time = came.wait(LIMIT_S / 4)
            released.set()
            return answer(b"h" * 20) if in_time else None

        script = {ks.raw.lib.KS_OP_GENERATE_RANDOM: random, ks.raw.lib.KS_OP_HMAC_SHA1: hmac}
        with ScriptedService(script, receive_limit_ms=LIMIT_S * 250) as service:
            said = run_program(WAITING, KS_SOCKET=service.path)
        self.assertEqual(sorted(said.splitlines()), ["answered b'abcd'", f"asked {b'h' * 20!r}"])

    def test_each_get_their_own_results(self):
        keys = [f"thread-{i}" for i in range(8)]
        for i, key in enumerate(keys):
            self.keep(key, b"key %d" % i)
        expected = [ks.crypto.hmac_sha1(key, b"data") for key in keys]
        wrong, started = [], threading.Barrier(len(keys))

        def work(i):
            started.wait(LIMIT_S)
            for round_ in range(100):
                if ks.crypto.hmac_sha1(keys[i], b"data") != expected[i]:
                    wrong.append((i, round_))
                try:
                    ks.secrets.metadata(f"absent-{i}")
                    wrong.append((i, "absent"))
                except ks.NotFound:
                    pass

        threads = [threading.Thread(target=work, args=(i,)) for i in range(len(keys))]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(LIMIT_S)
        self.assertEqual(wrong, [])


if __name__ == "__main__":
    unittest.main()
