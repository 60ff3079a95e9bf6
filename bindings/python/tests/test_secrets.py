# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""The secret store, and the device's own services."""

import os
import subprocess
import sys
import unittest

import ks
from support import LIMIT_S, OnSession


class Secrets(OnSession):
    def test_are_stored_described_listed_and_cleared(self):
        ks.secrets.store("wifi-psk", bytearray(b"horse"), metadata=memoryview(b"ssid=attic"))
        self.assertTrue(ks.secrets.exists("wifi-psk"))
        self.assertEqual(ks.secrets.metadata("wifi-psk"), b"ssid=attic")
        self.assertEqual(list(ks.secrets.names()), ["wifi-psk"])
        ks.secrets.clear("wifi-psk")
        self.assertFalse(ks.secrets.exists("wifi-psk"))
        self.assertEqual(list(ks.secrets.names()), [])

    def test_have_no_metadata_until_some_is_added(self):
        self.keep("bare", b"s")
        self.assertEqual(ks.secrets.metadata("bare"), b"")
        ks.secrets.add_metadata("bare", b"x" * 1024)
        self.assertEqual(ks.secrets.metadata("bare"), b"x" * 1024)
        ks.secrets.add_metadata("bare", b"")
        self.assertEqual(ks.secrets.metadata("bare"), b"")

    def test_are_found_under_a_linked_name(self):
        ks.secrets.store("first", b"Jefe", linked_name="second")
        data = b"what do ya want for nothing?"
        self.assertEqual(ks.crypto.hmac_md5("second", data), ks.crypto.hmac_md5("first", data))
        ks.secrets.clear("first")

    def test_are_renamed(self):
        ks.secrets.store("before", b"s")
        ks.secrets.rename("before", "after")
        self.assertEqual(list(ks.secrets.names()), ["after"])
        ks.secrets.rename("after", "linked", linked_name="alias")
        self.assertTrue(ks.secrets.exists("linked"))
        ks.secrets.rename("nobody", "nobody")
        ks.secrets.clear("linked")

    def test_have_names_of_any_bytes(self):
        for name in ("schlüssel", b"\xff\xfe", "x" * 31):
            self.keep(name, b"s")
        self.assertEqual(set(ks.secrets.names()), {"schlüssel", "\udcff\udcfe", "x" * 31})
        for name in ks.secrets.names():
            self.assertTrue(ks.secrets.exists(name))

    def test_are_listed_however_many(self):
        names = {f"many-{i}" for i in range(300)}
        for name in names:
            self.keep(name, b"s")
        self.assertEqual(set(ks.secrets.names()), names)

    def test_are_temporary_in_a_block(self):
        with self.assertRaises(KeyError):
            with ks.secrets.temporary(b"s", metadata=b"m") as name:
                self.assertEqual(ks.secrets.metadata(name), b"m")
                raise KeyError("of the block")
        self.assertFalse(ks.secrets.exists(name))
        with ks.secrets.temporary(b"s") as name:
            ks.secrets.clear(name)


class Device(OnSession):
    def test_makes_as_many_random_bytes_as_asked_for(self):
        for count in (1, 16, 255):
            self.assertEqual(len(ks.device.random(count)), count)
        self.assertNotEqual(ks.device.random(16), ks.device.random(16, request_word=0xFFFFFFFF))

    def test_fills_a_buffer_with_random_bytes(self):
        out = bytearray(64)
        self.assertIs(ks.device.random(32, out=memoryview(out)[32:]).obj, out)
        self.assertEqual(out[:32], bytes(32))
        self.assertNotEqual(out[32:], bytes(32))

    def test_compacts_its_memory(self):
        ks.device.compact()

    def test_tells_its_firmware(self):
        # The library prints the reply, so a process of its own has it on an error output of its own.
        told = subprocess.run([sys.executable, "-c", "import ks; ks.init(1); print(*ks.device.firmware())"], text=True,
                              capture_output=True, timeout=LIMIT_S, check=True)
        version, status = told.stdout.split()
        self.assertGreaterEqual(int(version), 0x100)
        self.assertEqual(int(status), 0)
        self.assertNotEqual(told.stderr, "")


class Memory(OnSession):
    def resident_kib(self):
        with open("/proc/self/status", encoding="ascii") as status:
            return next(int(line.split()[1]) for line in status if line.startswith("VmRSS:"))

    def test_of_what_is_handed_out_is_released(self):
        self.keep("big", b"s")
        ks.secrets.store("big", b"s", metadata=b"m" * 60000)
        ks.pacs.store(b"big", b"k", opaque=ks.tlv.opaque(b"o" * 30000), info=ks.tlv.info(identity="i" * 30000))
        self.addCleanup(ks.pacs.clear, b"big")
        ks.cache.open()
        ks.cache.write(b"cached", ks.tlv.opaque(b"o" * 60000))
        self.addCleanup(ks.cache.clear, b"cached")

        def read():
            ks.secrets.metadata("big")
            ks.pacs.opaque(b"big")
            ks.pacs.info(b"big")
            ks.cache.read(b"cached")
            ks.cache.pac_opaque(b"cached")

        read()
        before = self.resident_kib()
        for _ in range(500):  # each kind would leave some 15 to 30 MB
            read()
        self.assertLess(self.resident_kib() - before, 8000)


class Processes(OnSession):
    def test_go_on_after_a_fork(self):
        self.keep("forked", b"Jefe")
        mine = ks.crypto.hmac_md5("forked", b"data")
        reading, writing = os.pipe()
        child = os.fork()
        if child == 0:
            try:
                os.write(writing, ks.crypto.hmac_md5("forked", b"data"))
            finally:
                os._exit(0)
        os.close(writing)
        with open(reading, "rb") as told:
            self.assertEqual(told.read(), mine)
        self.assertEqual(os.waitpid(child, 0)[1], 0)
        self.assertEqual(ks.crypto.hmac_md5("forked", b"data"), mine)

    def test_know_what_the_library_knows(self):
        state = ks.state()
        self.assertIsNotNone(state.message_queue)
        self.assertEqual((state.vdc_id, state.app_uuid, state.cache_open), (1, 0xE0A1, True))
        self.assertTrue(state.cache_uri.startswith("lmdb:///"), state.cache_uri)

    def test_are_started_once(self):
        ks.init(0xE0A1)
        with self.assertRaisesRegex(RuntimeError, "app_uuid 57505 before"):
            ks.init(2)
        self.assertEqual(ks.state().app_uuid, 0xE0A1)


if __name__ == "__main__":
    unittest.main()
