# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""The PAC store, its cache, and PACs' metadata."""

import datetime
import sys
import time
import unittest

import ks
from support import OnSession, ScriptedService, answer, run_program

AID = b"\0authority\xff"
KEY = bytes(range(32))
OPAQUE = ks.tlv.opaque(b"\x0a" * 40)
LIVES = 0x7FFFFF00
INFO = ks.tlv.info(expires=LIVES, identity="alice")


class OnPacs(OnSession):
    def setUp(self):
        ks.cache.open()
        self.addCleanup(ks.cache.purge_all)
        self.addCleanup(ks.pacs.clear_all)

    def store(self, aid=AID, info=INFO):
        ks.pacs.store(aid, KEY, opaque=OPAQUE, info=info)


class Pacs(OnPacs):
    def test_are_stored_read_listed_and_cleared(self):
        self.store()
        self.store(b"other")
        self.assertEqual(ks.pacs.opaque(AID), OPAQUE)
        self.assertEqual(ks.pacs.info(bytearray(AID)), INFO)
        self.assertEqual(ks.pacs.expiration(AID), LIVES)
        self.assertEqual(sorted(ks.pacs.aids()), [AID, b"other"])
        ks.pacs.clear(AID)
        self.assertEqual(list(ks.pacs.aids()), [b"other"])
        ks.pacs.clear_all()
        self.assertEqual(list(ks.pacs.aids()), [])

    def test_exist_in_every_state_of_the_cache(self):
        self.assertFalse(ks.pacs.exists(AID))
        self.store()
        self.assertTrue(ks.cache.is_open())
        self.assertTrue(ks.pacs.exists(AID))  # in the keystore alone, where the library's own operation faults
        ks.cache.write(AID, OPAQUE + INFO)
        self.assertTrue(ks.pacs.exists(AID))
        ks.pacs.clear(AID)
        self.assertTrue(ks.pacs.exists(AID))  # in the cache alone
        ks.cache.clear(AID)
        self.assertFalse(ks.pacs.exists(AID))

    def test_without_a_lifetime_have_no_expiration(self):
        self.store(info=ks.tlv.info(identity="alice"))
        self.assertIsNone(ks.pacs.expiration(AID))
        with self.assertRaises(ks.NotFound):
            ks.pacs.expiration(b"nobody")

    def test_that_have_expired_are_cleared_with_their_copies(self):
        now = int(time.time())
        for i in range(6):  # by turns and in a row, so that a walk which passes over any leaves one
            self.store(b"new-%d" % i, ks.tlv.info(expires=now + 1000 + i, identity="bob"))
            self.store(b"old-%d" % i, ks.tlv.info(expires=now - 1 - i, identity="bob"))
            self.store(b"old-%d" % (i + 6), ks.tlv.info(expires=now - 1 - i, identity="bob"))
        self.store(b"never", ks.tlv.info(identity="bob"))
        ks.cache.write(b"old-0", OPAQUE + ks.tlv.info(expires=now - 1))
        self.assertEqual(sorted(ks.pacs.clear_expired()), sorted(b"old-%d" % i for i in range(12)))
        self.assertEqual(sorted(ks.pacs.aids()), [b"never"] + [b"new-%d" % i for i in range(6)])
        self.assertFalse(ks.cache.exists(b"old-0"))
        later = datetime.datetime.fromtimestamp(now + 1000, datetime.timezone.utc)
        self.assertEqual(ks.pacs.clear_expired(later), [b"new-0"])
        self.assertEqual(ks.pacs.clear_expired(), [])

    def test_are_valid_by_identity_and_time(self):
        valid = ks.pacs.still_valid
        self.assertTrue(valid(OPAQUE + INFO, "alice"))
        self.assertFalse(valid(OPAQUE + INFO, "bob"))
        self.assertFalse(valid(OPAQUE + INFO, "alice", now=LIVES))
        # A byte-reversed comparison, as the library makes it, would say the opposite of both.
        now = 0x6B000080
        self.assertFalse(valid(ks.tlv.info(expires=0x6B000070, identity="a"), "a", now=now))
        self.assertTrue(valid(ks.tlv.info(expires=0x6B000100, identity="a"), "a", now=now))
        self.assertTrue(valid(ks.tlv.info(identity="a"), "a"))
        self.assertFalse(valid(ks.tlv.info(expires=LIVES), "a"))
        self.assertFalse(valid(OPAQUE, "a"))
        self.assertFalse(valid(INFO[:-1], "alice"))
        self.assertFalse(valid(b"", "a"))


class WithoutCache(unittest.TestCase):
    """A scripted service, which names no place for a cache; another process clears one of its PACs at the same time."""

    def test_pacs_that_have_expired_are_cleared(self):
        entries = [b"a", b"b", b"c", b"d"]

        def by_index(request):
            position = int.from_bytes(request, sys.byteorder)
            return answer(b"1\0\0\7" + entries[position]) if position < len(entries) else answer(b"", 6)

        def clear(request):
            aid = request[-1:]
            entries.remove(aid)
            return answer(b"", 5 if aid == b"b" else 1)

        def metadata(request):
            return answer(OPAQUE + ks.tlv.info(expires=LIVES if request.endswith(b"c") else 1))

        lib = ks.raw.lib
        script = {lib.KS_OP_HANDLE_BY_INDEX: by_index, lib.KS_OP_CLEAR: clear, lib.KS_OP_RETURN_METADATA: metadata}
        with ScriptedService(script) as service:
            said = run_program("import ks\nks.init(1)\nprint(ks.cache.is_open(), ks.pacs.clear_expired())",
                               KS_SOCKET=service.path)
        self.assertEqual((said, entries), ("False [b'a', b'd']\n", [b"c"]))


class TPrf(OnPacs):
    def test_comes_from_the_cache_that_has_it(self):
        self.store()
        ks.cache.write(AID, OPAQUE + INFO)
        ks.cache.write_t_prf(AID, "label", b"random", b"cached")
        self.assertEqual(ks.pacs.t_prf(AID, "label", b"random", size=6), b"cached")
        out = bytearray(6)
        self.assertIs(ks.pacs.t_prf(AID, b"label", bytearray(b"random"), size=6, out=out), out)
        self.assertEqual(out, b"cached")
        self.assertNotEqual(ks.pacs.t_prf(AID, "label", b"random2", size=6), b"cached")

    def test_of_another_size_in_the_cache_is_refused(self):
        self.store()
        ks.cache.write(AID, OPAQUE + INFO)
        ks.cache.write_t_prf(AID, "label", None, b"cached")
        for size in (5, 7):
            with self.assertRaisesRegex(ks.Failure, f"has a T-PRF of 6 bytes .* not of {size}"):
                ks.pacs.t_prf(AID, "label", size=size)
        ks.cache.write(AID, OPAQUE + INFO)
        self.assertEqual(len(ks.pacs.t_prf(AID, "label", size=7)), 7)

    def test_needs_a_pac(self):
        with self.assertRaises(ks.NotFound):
            ks.pacs.t_prf(b"nobody", "label", size=6)


class Cache(OnPacs):
    def test_entries_are_written_read_and_cleared(self):
        self.assertFalse(ks.cache.exists(AID))
        ks.cache.write(AID, OPAQUE + INFO)
        self.assertTrue(ks.cache.exists(AID))
        self.assertEqual(ks.cache.read(AID), OPAQUE + INFO)
        self.assertEqual(ks.cache.pac_opaque(AID), OPAQUE)
        self.assertEqual(ks.cache.pac_info(AID), INFO)
        self.assertEqual(ks.pacs.opaque(AID), OPAQUE)  # without a PAC in the keystore
        ks.cache.clear(AID)
        with self.assertRaises(ks.NotFound):
            ks.cache.read(AID)

    def test_entries_without_metadata_are_empty(self):
        ks.cache.write(AID, b"")
        self.assertEqual(ks.cache.read(AID), b"")

    def test_entries_belong_to_a_vdc(self):
        ks.cache.write(AID, OPAQUE, vdc=9)
        self.assertFalse(ks.cache.exists(AID))
        self.assertEqual(ks.cache.read(AID, vdc=9), OPAQUE)
        ks.cache.clear(AID, vdc=9)
        with self.assertRaises(ks.NotFound):
            ks.cache.read(AID, vdc=9)

    def test_entries_hold_one_t_prf(self):
        with self.assertRaises(ks.NotFound):
            ks.cache.write_t_prf(AID, "label", b"random", b"output")
        ks.cache.write(AID, OPAQUE)
        ks.cache.write_t_prf(AID, "label", b"random", b"output")
        self.assertEqual(ks.cache.read_t_prf(AID, b"label", b"random"), b"output")
        self.assertEqual(ks.cache.pac_t_prf(AID, "label", b"random"), b"output")
        self.assertEqual(ks.cache.read(AID), OPAQUE)
        for label, random in (("other", b"random"), ("label", b"other"), ("label", None)):
            with self.assertRaises(ks.Failure):
                ks.cache.read_t_prf(AID, label, random)

    def test_is_purged(self):
        for purge in (ks.cache.purge_all, ks.cache.purge_vdc_keys):
            ks.cache.write(AID, OPAQUE)
            purge()
            self.assertFalse(ks.cache.exists(AID))

    def test_database_keeps_keys_of_other_kinds(self):
        ks.cache.database_write(b"\2key", b"value")
        self.assertEqual(ks.cache.database_read(bytearray(b"\2key")), b"value")
        ks.cache.database_delete(b"\2key")
        with self.assertRaisesRegex(ks.DatabaseError, "0x40480003.*No such key") as raised:
            ks.cache.database_read(b"\2key")
        self.assertEqual(raised.exception.code, 0x40480003)
        with self.assertRaisesRegex(ValueError, "cache.write"):
            ks.cache.database_write(b"\1\0\0\0" + bytes(35), b"value")


class Metadata(unittest.TestCase):
    def test_is_made_byte_by_byte(self):
        self.assertEqual(ks.tlv.opaque(b"\x0a\x0b").hex(), "000200020a0b")
        self.assertEqual(ks.tlv.info(expires=0x01020304, identity="ab", others=[(4, b"z")]).hex(),
                         "00090013" "0003000401020304" "000500026162" "000400017a")

    def test_is_read_back(self):
        when = datetime.datetime(2030, 1, 1, tzinfo=datetime.timezone.utc)
        self.assertEqual(ks.tlv.read_info(ks.tlv.info(expires=when, identity="älice")), (1893456000, "älice"))
        self.assertEqual(ks.tlv.read_info(ks.tlv.info()), (None, None))
        # Inside, the mandatory bit is nothing, nor is a NUL at an identity's end, and the first of a kind counts.
        inner = bytes.fromhex("80030004000000058005000361620000030004000000060005000163")
        self.assertEqual(ks.tlv.read_info(ks.tlv.make(ks.tlv.INFO, inner)), (5, "ab"))

    def test_is_refused_when_damaged(self):
        for damaged in (b"", b"\0\x09", INFO[:-1], INFO + b"\0", OPAQUE, INFO + INFO, ks.tlv.make(9, b"\0\3\0\1x")):
            with self.assertRaises(ValueError):
                ks.tlv.read_info(damaged)
        for expires in (-1, 1 << 32):
            with self.assertRaisesRegex(ValueError, "32 bits"):
                ks.tlv.info(expires=expires)
        with self.assertRaisesRegex(ValueError, "0 to 65535 bytes"):
            ks.tlv.opaque(bytes(65536))


if __name__ == "__main__":
    unittest.main()
