# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""What is raised: for arguments that C couldn't count, for results, and where the service is missing or silent."""

import array
import pickle
import tempfile
import unittest

import ks
from support import HANG_UP, OnSession, ScriptedService, answer, run_program

RANDOM = ks.raw.lib.KS_OP_GENERATE_RANDOM
T_PRF = ks.raw.lib.KS_OP_PAC_KEY_T_PRF
NEW_PASSWORD = ks.raw.lib.KS_OP_NEW_PASSWORD_ENCRYPTED

KEY = b"k" * 16
RESPONSE = bytes(24)
CHALLENGES = {"authenticator_challenge": bytes(16), "peer_challenge": bytes(16)}
OPAQUE, INFO = ks.tlv.opaque(b"o"), ks.tlv.info(identity="i")
AID = b"aid"

# Each is refused before anything is sent: in C its length would be cut, its memory be taken over, or a byte be read or
# written that isn't there. The words are what the message says.
REFUSED = [
    (lambda: ks.secrets.store("", KEY), "name has 1 to 31 bytes; this one has 0"),
    (lambda: ks.secrets.store("n" * 32, KEY), "name has 1 to 31 bytes; this one has 32"),
    (lambda: ks.secrets.store("ü" * 16, KEY), "name has 1 to 31 bytes; this one has 32"),
    (lambda: ks.secrets.store("a\0b", KEY), "no NUL byte"),
    (lambda: ks.secrets.store("n", b""), "a secret has 1 to 256 bytes; this has 0"),
    (lambda: ks.secrets.store("n", bytes(257)), "a secret has 1 to 256 bytes; this has 257"),
    (lambda: ks.secrets.store("n", bytes(65537)), "a secret has 1 to 256 bytes; this has 65537"),
    (lambda: ks.secrets.store("n", KEY, metadata=bytes(65536)), "metadata has 0 to 65535 bytes; this has 65536"),
    (lambda: ks.secrets.store("n", KEY, linked_name=""), "name has 1 to 31 bytes; this one has 0"),
    (lambda: ks.secrets.store("n", KEY, linked_name="n" * 32), "name has 1 to 31 bytes"),
    (lambda: ks.secrets.add_metadata("n", bytes(1025)), "metadata has 0 to 1024 bytes"),
    (lambda: ks.secrets.rename("n", "m" * 32), "name has 1 to 31 bytes"),
    (lambda: ks.secrets.rename("n", "m", linked_name="l" * 32), "name has 1 to 31 bytes"),
    (lambda: ks.device.random(0), "1 to 255 random bytes"),
    (lambda: ks.device.random(256), "1 to 255 random bytes"),
    (lambda: ks.device.random(16, out=bytearray(15)), "out has 16 bytes, .* this has 15"),
    (lambda: ks.crypto.des_encrypt("n" * 257, bytes(8)), "name has 1 to 31 bytes; this one has 257"),
    (lambda: ks.crypto.des_encrypt("n", b""), "8 to 1024 bytes; this has 0"),
    (lambda: ks.crypto.des_decrypt("n", bytes(9)), "multiple of 8 bytes; this has 9"),
    (lambda: ks.crypto.triple_des_encrypt("n", bytes(1032)), "8 to 1024 bytes; this has 1032"),
    (lambda: ks.crypto.triple_des_decrypt("n", bytes(16), out=bytearray(8)), "out has 16 bytes"),
    (lambda: ks.crypto.aes_encrypt("n", bytes(65536)), "0 to 65520 bytes; this has 65536"),
    (lambda: ks.crypto.aes_decrypt("n", bytes(17)), "multiple of 16 bytes; this has 17"),
    (lambda: ks.crypto.aes_cbc_encrypt("n", bytes(15), bytes(16)), "an IV has 16 bytes; this has 15"),
    (lambda: ks.crypto.aes_cbc_encrypt("n", bytes(16), b""), "16 to 65504 bytes; this has 0"),
    (lambda: ks.crypto.aes_cbc_decrypt("n", bytes(16), bytes(65520)), "16 to 65504 bytes; this has 65520"),
    (lambda: ks.crypto.aes_cbc_encrypt("n" * 257, bytes(16), bytes(16)), "name has 1 to 31 bytes"),
    (lambda: ks.crypto.md5("n"), "1 to 1024 bytes together; these have 0"),
    (lambda: ks.crypto.md5("n", bytes(1000), bytes(25)), "1 to 1024 bytes together; these have 1025"),
    (lambda: ks.crypto.sha1("n", bytes(65537)), "0 to 1024 bytes; this has 65537"),
    (lambda: ks.crypto.hmac_md5("n", b""), "1 to 1024 bytes; this has 0"),
    (lambda: ks.crypto.hmac_sha1("n", bytes(65536 + 1)), "1 to 1024 bytes; this has 65537"),
    (lambda: ks.mschap.nt_response("n", authenticator_challenge=bytes(15), peer_challenge=bytes(16), user_name=""),
     "an authenticator challenge has 16 bytes; this has 15"),
    (lambda: ks.mschap.nt_response("n", authenticator_challenge=bytes(16), peer_challenge=bytes(17), user_name=""),
     "a peer challenge has 16 bytes; this has 17"),
    (lambda: ks.mschap.nt_response("n", **CHALLENGES, user_name="u" * 256), "user name has 0 to 255 bytes"),
    (lambda: ks.mschap.authenticator_response("n", nt_response=bytes(23), **CHALLENGES, user_name=""),
     "an NT response has 24 bytes; this has 23"),
    (lambda: ks.mschap.authenticator_response("n", nt_response=RESPONSE, **CHALLENGES, user_name="u" * 256),
     "user name has 0 to 255 bytes"),
    (lambda: ks.mschap.master_key("n", bytes(25)), "an NT response has 24 bytes; this has 25"),
    (lambda: ks.mschap.new_password_encrypted("n", ""), "new password has 1 to 256 bytes; this has 0"),
    (lambda: ks.mschap.new_password_encrypted("n", bytes(257)), "new password has 1 to 256 bytes; this has 257"),
    (lambda: ks.mschap.old_hash_encrypted("n", ""), "name has 1 to 31 bytes"),
    (lambda: ks.pacs.store(b"", KEY, opaque=OPAQUE, info=INFO), "an A-ID has 1 to 31 bytes; this has 0"),
    (lambda: ks.pacs.store(b"a" * 32, KEY, opaque=OPAQUE, info=INFO), "an A-ID has 1 to 31 bytes; this has 32"),
    (lambda: ks.pacs.store(AID, b"", opaque=OPAQUE, info=INFO), "a PAC's key has 1 to 65535 bytes"),
    (lambda: ks.pacs.opaque(b"a" * 257), "an A-ID has 1 to 31 bytes; this has 257"),
    (lambda: ks.pacs.t_prf(AID, "", size=1), "label has 1 to 65535 bytes; this has 0"),
    (lambda: ks.pacs.t_prf(AID, bytes(65536), size=1), "label has 1 to 65535 bytes; this has 65536"),
    (lambda: ks.pacs.t_prf(AID, "l", bytes(65536), size=1), "random has 0 to 65535 bytes; this has 65536"),
    (lambda: ks.pacs.t_prf(AID, "l", size=0), "1 to 65535 bytes, not 0"),
    (lambda: ks.pacs.t_prf(AID, "l", size=65536), "1 to 65535 bytes, not 65536"),
    (lambda: ks.pacs.hmac_sha1(b"a" * 257, b"d"), "an A-ID has 1 to 31 bytes; this has 257"),
    (lambda: ks.cache.write(AID, bytes(65536)), "metadata has 0 to 65535 bytes; this has 65536"),
    (lambda: ks.cache.read(b"a" * 32), "an A-ID has 1 to 31 bytes"),
    (lambda: ks.cache.read(AID, vdc=65536), "a VDC id is 0 to 65535, not 65536"),
    (lambda: ks.cache.exists(b""), "an A-ID has 1 to 31 bytes"),
    (lambda: ks.cache.write_t_prf(AID, "l", None, b""), "result has 1 to 65535 bytes"),
    (lambda: ks.cache.pac_info(b"a" * 253), "an A-ID has 1 to 31 bytes; this has 253"),
    (lambda: ks.cache.database_read(b"abc"), "a key of the database has 4 to .* this has 3"),
]


class Arguments(OnSession):
    def test_that_c_could_not_count_are_refused(self):
        for call, words in REFUSED:
            with self.subTest(words), self.assertRaisesRegex(ValueError, words) as raised:
                call()
            self.assertNotIsInstance(raised.exception, ks.Error)

    def test_of_another_kind_are_refused(self):
        for call in (lambda: ks.crypto.hmac_sha1("n", "text"), lambda: ks.secrets.store(5, KEY),
                     lambda: ks.secrets.store("n", None), lambda: ks.secrets.clear(bytearray(b"n")),
                     lambda: ks.device.random(2, out=[0, 0])):
            self.assertRaises(TypeError, call)
        self.assertRaises(BufferError, lambda: ks.device.random(2, out=b"ab"))
        self.assertRaises(BufferError, lambda: ks.crypto.hmac_sha1("n", memoryview(b"abcd")[::2]))
        self.assertRaises(OverflowError, lambda: ks.device.random(2, request_word=1 << 32))

    def test_may_be_any_buffer(self):
        self.keep("n", b"Jefe")
        digest = ks.crypto.hmac_sha1("n", b"abcd")
        for data in (bytearray(b"abcd"), memoryview(b"xabcdx")[1:5], array.array("I", b"abcd")):
            self.assertEqual(ks.crypto.hmac_sha1("n", data), digest)

    def test_take_outputs_of_all_operations_that_make_secrets(self):
        with ks.secrets.temporary(KEY) as name:
            for encrypt, decrypt in ((ks.crypto.aes_encrypt, ks.crypto.aes_decrypt),
                                     (ks.crypto.triple_des_encrypt, ks.crypto.triple_des_decrypt)):
                out = bytearray(16)
                self.assertIs(decrypt(name, encrypt(name, b"sixteen bytes !!"), out=out), out)
                self.assertEqual(out, b"sixteen bytes !!")
            out, iv = bytearray(16), bytes(16)
            sealed, _ = ks.crypto.aes_cbc_encrypt(name, iv, b"sixteen bytes !!")
            opened, chained = ks.crypto.aes_cbc_decrypt(name, iv, sealed, out=memoryview(out))
            self.assertEqual((bytes(opened), out, chained), (b"sixteen bytes !!", b"sixteen bytes !!", sealed))
            out = bytearray(16)
            self.assertIs(ks.mschap.master_key(name, RESPONSE, out=out), out)
            self.assertEqual(out, ks.mschap.master_key(name, RESPONSE))
        with ks.secrets.temporary(b"8 bytes!") as name:
            out = bytearray(8)
            sealed = ks.crypto.triple_des_encrypt(self.keep("three", b"8 bytes!" * 3), b"the text")
            ks.crypto.des_decrypt(name, sealed, out=out)
            self.assertEqual(out, b"the text")


class Results(OnSession):
    def test_have_a_class_for_what_programs_act_on(self):
        self.keep("ten", b"ten bytes!")
        for call, kind, base, code in (
                (lambda: ks.secrets.metadata("nobody"), ks.NotFound, LookupError, 5),
                (lambda: ks.crypto.des_decrypt("ten", bytes(8)), ks.BadKey, ks.Error, 9),
                (lambda: ks.crypto.aes_encrypt("ten", bytes(16)), ks.KeyLengthUnsupported, ks.BadKey, 11),
                (lambda: ks.secrets.rename("ten", self.keep("taken", b"s")), ks.InvalidArgs, ValueError, 3),
                (lambda: ks.pacs.t_prf(AID, bytes(1025), size=1), ks.TooLarge, ks.Error, 25)):
            with self.assertRaises(kind) as raised:
                call()
            self.assertIsInstance(raised.exception, base)
            self.assertEqual(raised.exception.code, code)
            self.assertEqual(raised.exception.detail, "")

    def test_tell_code_name_and_text(self):
        with self.assertRaises(ks.Error) as raised:
            ks.secrets.clear("nobody")
        error = raised.exception
        self.assertEqual((error.code, error.name, error.text),
                         (5, "KS_NOT_FOUND", "Handle not found in keystore, i.e. no such entry"))
        self.assertEqual(str(error), "KS_NOT_FOUND (5): Handle not found in keystore, i.e. no such entry")
        copy = pickle.loads(pickle.dumps(error))
        self.assertEqual((type(copy), copy.args, str(copy)), (type(error), error.args, str(error)))

    def test_have_texts_and_names_for_every_code(self):
        for code in [*range(15), *range(21, 28)]:
            error = ks.Error(code)
            self.assertEqual(getattr(ks.raw.lib, error.name), code)
            self.assertEqual(error.text, ks.text_of(code))
            self.assertNotEqual(error.text, "NULL")
        self.assertEqual((ks.text_of(1), ks.text_of(15), ks.Error(15).name), ("Success", "NULL", "KS_15"))


ASK = "import ks\nks.init(1)\n"
SAY = """
try:
    {}
except ks.Error as error:
    print(type(error).__name__, error.code, error)
"""


class WithoutService(unittest.TestCase):
    def test_start_says_what_was_met_and_what_to_do(self):
        with tempfile.TemporaryDirectory() as folder:
            said = run_program("import ks" + SAY.format("ks.init(1)"), KS_SOCKET=f"{folder}/none")
            self.assertRegex(said, f"^ExchangeFailed 2 KS_FAILURE \\(2\\): .*{folder}/none: .* Start the service, ksd")

    def test_operation_before_the_start_says_so(self):
        for operation in ("ks.device.random(4)", "ks.secrets.exists('n')", "ks.pacs.info(b'a')"):
            said = run_program("import ks" + SAY.format(operation))
            self.assertRegex(said, "^ExchangeFailed (2|12) .*; ks.init hasn't been called")

    def test_service_that_hangs_up_is_told_and_found_again(self):
        replies = iter([answer(b"abcd"), HANG_UP, answer(b"efgh")])
        with ScriptedService({RANDOM: lambda _: next(replies)}) as service:
            said = run_program(ASK + 3 * SAY.format("print(ks.device.random(4))"), KS_SOCKET=service.path)
        self.assertRegex(said, f"^b'abcd'\nExchangeFailed 2 .*; {service.path}: .*\nb'efgh'\n$")

    def test_service_that_does_not_answer_is_given_up(self):
        script = {RANDOM: None, ks.raw.lib.KS_OP_SECRET_EXISTS: None}
        with ScriptedService(script, receive_limit_ms=100) as service:
            said = run_program(ASK + SAY.format("ks.device.random(4)") + SAY.format("ks.secrets.exists('n')"),
                               KS_SOCKET=service.path)
        self.assertRegex(said, "^ExchangeFailed 2 .*; .*100 ms.*\nExchangeFailed 12 .*; .*100 ms")

    def test_cache_has_no_words_of_an_earlier_exchange(self):
        with ScriptedService({RANDOM: None}, receive_limit_ms=100) as service:
            said = run_program(ASK + SAY.format("ks.device.random(4)") + SAY.format("ks.cache.read(b'a')"),
                               KS_SOCKET=service.path)
        self.assertRegex(said, "\nFailure 2 KS_FAILURE \\(2\\): Failure, unknown.\n$")


class ShortReplies(unittest.TestCase):
    """A service is believed by the library when it sends less than was asked for; Python hands out nothing unset."""

    def test_random_bytes_that_are_missing_are_random_all_the_same(self):
        with ScriptedService({RANDOM: answer(b"ab")}) as service:
            said = run_program(ASK + "for _ in range(2): print(ks.device.random(18).hex())", KS_SOCKET=service.path)
        first, second = said.split()
        self.assertEqual((first[:4], second[:4], len(first)), ("6162", "6162", 36))
        self.assertNotEqual(first[4:], second[4:])
        self.assertNotEqual(first[4:], "00" * 16)

    def test_t_prf_that_is_short_is_a_failure(self):
        call = "print(ks.pacs.t_prf(b'aid', 'label', size=8).hex())"
        for data in (b"", b"7 bytes", bytes(7)):
            with ScriptedService({T_PRF: answer(data)}) as service:
                said = run_program(ASK + SAY.format(call), KS_SOCKET=service.path)
            self.assertRegex(said, "^Failure 2 .*; the result is shorter than 8 bytes\n$")
        for data in (bytes(8), b"\xff" * 8):  # an end that is what the place was filled with
            with ScriptedService({T_PRF: answer(data)}) as service:
                self.assertEqual(run_program(ASK + call, KS_SOCKET=service.path), data.hex() + "\n")

    def test_encrypted_password_has_its_length(self):
        call = "print(len(ks.mschap.new_password_encrypted('n', 'new')))"
        for size, expected in ((515, "^Failure 2 .*; the result is shorter than 516 bytes\n$"), (516, "^516\n$")):
            with ScriptedService({NEW_PASSWORD: answer(b"x" * size)}) as service:
                self.assertRegex(run_program(ASK + SAY.format(call), KS_SOCKET=service.path), expected)


if __name__ == "__main__":
    unittest.main()
