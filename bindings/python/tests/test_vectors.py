# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""Published values of every algorithm, through Python."""

import unittest

import ks
from support import OnSession

unhex = bytes.fromhex

# NIST SP 800-38A, appendix F.
PLAIN = unhex("6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
              "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710")
IV = unhex("000102030405060708090a0b0c0d0e0f")
KEYS = [unhex(key) for key in ("2b7e151628aed2a6abf7158809cf4f3c", "8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b",
                               "603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4")]
ECB = [unhex(text) for text in (
    "3ad77bb40d7a3660a89ecaf32466ef97f5d3d58503b9699de785895a96fdbaaf"
    "43b1cd7f598ece23881b00e3ed0306887b0c785e27e8ad3f8223207104725dd4",
    "bd334f1d6e45f25ff712a214571fa5cc974104846d0ad3ad7734ecb3ecee4eef"
    "ef7afd2270e2e60adce0ba2face6444e9a4b41ba738d6c72fb16691603c18e0e",
    "f3eed1bdb5d2a03c064b5a7e3db181f8591ccb10d410ed26dc5ba74a31362870"
    "b6ed21b99ca6f4f9f153e7b1beafed1d23304b7a39f9f3ff067d8d8f9e24ecc7")]
CBC = [unhex(text) for text in (
    "7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2"
    "73bed6b8e3c1743b7116e69e222295163ff1caa1681fac09120eca307586e1a7",
    "4f021db243bc633d7178183a9fa071e8b4d9ada9ad7dedf4e5e738763f69145a"
    "571b242012fb7ae07fa9baac3df102e008b0e27988598881d920a9e64f5615cd",
    "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"
    "39f23369a9d9bacfa530e26304231461b2eb05e2c39be9fcda6c19078c6a9d1b")]

# FIPS 197, appendix C.
FIPS_197 = [
    ("000102030405060708090a0b0c0d0e0f", "69c4e0d86a7b0430d8cdb78070b4c55a"),
    ("000102030405060708090a0b0c0d0e0f1011121314151617", "dda97ca4864cdfe06eaf70a0ec0d7191"),
    ("000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f", "8ea2b7ca516745bfeafc49904b496089"),
]

# FIPS 81's example, and SP 800-17's variable plaintext, variable key and substitution tables, a row of each.
DES = [
    ("0123456789abcdef", "4e6f77206973207468652074696d6520666f7220616c6c20",
     "3fa40e8a984d48156a271787ab8883f9893d51ec4b563b53"),
    ("0101010101010101", "8000000000000000", "95f8a5e5dd31d900"),
    ("8001010101010101", "0000000000000000", "95a8d72813daa94d"),
    ("7ca110454a1a6e57", "01a1d6d039776742", "690f5b0d9a26939b"),
]
# SP 800-67, appendix B.
TRIPLE_DES = ("0123456789abcdef23456789abcdef01456789abcdef0123", "54686520717566636b2062726f776e20666f78206a756d70",
              "a826fd8ce53b855fcce21c8112256fe668d5c05dd9b6b900")

# RFC 2202.
LONG_KEY = b"Test Using Larger Than Block-Size Key - Hash Key First"
LONG_BOTH = b"Test Using Larger Than Block-Size Key and Larger Than One Block-Size Data"
COUNTED_KEY = bytes(range(1, 26))
HMAC_MD5 = [
    (b"\x0b" * 16, b"Hi There", "9294727a3638bb1c13f48ef8158bfc9d"),
    (b"Jefe", b"what do ya want for nothing?", "750c783e6ab0b503eaa86e310a5db738"),
    (b"\xaa" * 16, b"\xdd" * 50, "56be34521d144c88dbb8c733f0e8b3f6"),
    (COUNTED_KEY, b"\xcd" * 50, "697eaf0aca3a3aea3a75164746ffaa79"),
    (b"\x0c" * 16, b"Test With Truncation", "56461ef2342edc00f9bab995690efd4c"),
    (b"\xaa" * 80, LONG_KEY, "6b1ab7fe4bd7bf8f0b62e6ce61b9d0cd"),
    (b"\xaa" * 80, LONG_BOTH, "6f630fad67cda0ee1fb1f562db3aa53e"),
]
HMAC_SHA1 = [
    (b"\x0b" * 20, b"Hi There", "b617318655057264e28bc0b6fb378c8ef146be00"),
    (b"Jefe", b"what do ya want for nothing?", "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79"),
    (b"\xaa" * 20, b"\xdd" * 50, "125d7342b9ac11cd91a39af48aa17b4f63f175d3"),
    (COUNTED_KEY, b"\xcd" * 50, "4c9007f4026250c6bc8414f9bf50c86c2d7235da"),
    (b"\x0c" * 20, b"Test With Truncation", "4c1a03424b55e07fe7f27be1d58bb9324a9a5a04"),
    (b"\xaa" * 80, LONG_KEY, "aa4ae5e15272d00e95705637ce8a3b55ed402112"),
    (b"\xaa" * 80, LONG_BOTH, "e8e99d0f45237d786d6bbaa7965c7808bbff1a91"),
]

# RFC 2759, section 9.2, and RFC 3079, which goes on with the same user.
CHALLENGES = {"authenticator_challenge": unhex("5b5d7c7d7b3f2f3e3c2c602132262628"),
              "peer_challenge": unhex("21402324255e262a28295f2b3a337c7e")}
NT_RESPONSE = unhex("82309ecd8d708b5ea08faa3981cd83544233114a3d85d6df")
AUTHENTICATOR_RESPONSE = b"S=407A5589115FD0D6209F510FE9C04566932CDA56"
MASTER_KEY = unhex("fdece3717a8c838cb388e527ae3cdd31")

# RFC 4851, appendix B: key, label, seed, output.
T_PRF = [
    ("0b97390f37517809811efd9c6e65942b632ce953893808ba360b037cd185e414", "PAC to master secret label hash",
     "3ffb11c46cbfa57a5440dae822d311d3f76de41dd933e5937097eba9b366f42a"
     "000000026a66432a8d14432cec582d2fc79c3364ba04ad3a5254d6a579ad1e00",
     "4a1a512c0160bc023ccfbc833f03bc6488c1312f0ba9a27716a8d8e8bdc9d229384b7a85be164d2733d5247987b1c5a2"),
    ("d64b7d7217592805aff9b7ff666da1968f0b5e06467a448464c1c80c96440998ff92a8b4c6422871", "Inner Methods Compound Keys",
     "00" * 32,
     "16153c3f2155efd97f34aec81a4e66804cc376f28aa96f96c2545f8cab6502e118407b56beeaa7c5765d8f0bc507c6b904d06956728b6bb8"
     "15ec577b"),
    ("16153c3f2155efd97f34aec81a4e66804cc376f28aa96f96c2545f8cab6502e118407b56beeaa7c5",
     "Session Key Generating Function", "",
     "4d83a9be6f8a74ed6a02660a634d2c33c2da6015c6370451903863da543e14b92799181e07bf0f5a5e3c3293808c6c4967ed24fe4540a059"
     "5e37c2e9d05d0ae3"),
]


class Values(OnSession):
    def key(self, secret):
        return self.keep("key", secret)

    def test_aes_is_that_of_fips_197(self):
        for key, cipher in FIPS_197:
            with ks.secrets.temporary(unhex(key)) as name:
                plain = unhex("00112233445566778899aabbccddeeff")
                self.assertEqual(ks.crypto.aes_encrypt(name, plain).hex(), cipher)
                self.assertEqual(ks.crypto.aes_decrypt(name, unhex(cipher)), plain)

    def test_aes_modes_are_those_of_sp_800_38a(self):
        for key, ecb, cbc in zip(KEYS, ECB, CBC):
            with ks.secrets.temporary(key) as name:
                self.assertEqual(ks.crypto.aes_encrypt(name, PLAIN), ecb)
                self.assertEqual(ks.crypto.aes_decrypt(name, ecb), PLAIN)
                self.assertEqual(ks.crypto.aes_cbc_encrypt(name, IV, PLAIN), (cbc, cbc[-16:]))
                self.assertEqual(ks.crypto.aes_cbc_decrypt(name, IV, cbc), (PLAIN, cbc[-16:]))

    def test_aes_cbc_goes_on_with_the_iv_that_it_gives(self):
        self.key(KEYS[0])
        first, chained = ks.crypto.aes_cbc_encrypt("key", IV, PLAIN[:16])
        rest, _ = ks.crypto.aes_cbc_encrypt("key", chained, PLAIN[16:])
        self.assertEqual(first + rest, CBC[0])
        first, chained = ks.crypto.aes_cbc_decrypt("key", IV, CBC[0][:48])
        rest, _ = ks.crypto.aes_cbc_decrypt("key", chained, CBC[0][48:])
        self.assertEqual(first + rest, PLAIN)

    def test_des_is_that_of_fips_81_and_sp_800_17(self):
        for key, plain, cipher in DES:
            with ks.secrets.temporary(unhex(key)) as name:
                self.assertEqual(ks.crypto.des_encrypt(name, unhex(plain)).hex(), cipher)
                self.assertEqual(ks.crypto.des_decrypt(name, unhex(cipher)).hex(), plain)

    def test_triple_des_is_that_of_sp_800_67(self):
        key, plain, cipher = TRIPLE_DES
        self.key(unhex(key))
        self.assertEqual(ks.crypto.triple_des_encrypt("key", unhex(plain)).hex(), cipher)
        self.assertEqual(ks.crypto.triple_des_decrypt("key", unhex(cipher)).hex(), plain)

    def test_triple_des_under_one_key_three_times_is_des(self):
        key, plain, cipher = DES[0]
        self.key(unhex(key) * 3)
        self.assertEqual(ks.crypto.triple_des_encrypt("key", unhex(plain)).hex(), cipher)

    def test_hmacs_are_those_of_rfc_2202(self):
        for operation, vectors in ((ks.crypto.hmac_md5, HMAC_MD5), (ks.crypto.hmac_sha1, HMAC_SHA1)):
            for key, data, digest in vectors:
                with ks.secrets.temporary(key) as name:
                    self.assertEqual(operation(name, data).hex(), digest)

    def test_hmac_of_a_pac_is_that_of_rfc_2202(self):
        for key, data, digest in HMAC_SHA1:
            ks.pacs.store(b"hmac", key, opaque=ks.tlv.opaque(b"o"), info=ks.tlv.info(identity="u"))
            self.assertEqual(ks.pacs.hmac_sha1(b"hmac", data).hex(), digest)
        ks.pacs.clear(b"hmac")

    def test_digests_are_those_of_rfc_1321_and_fips_180(self):
        for first, secret, second in ((b"", b"a", b"bc"), (b"ab", b"c", b"")):  # the secret stands in the middle
            with ks.secrets.temporary(secret) as name:
                self.assertEqual(ks.crypto.md5(name, first, second).hex(), "900150983cd24fb0d6963f7d28e17f72")
                self.assertEqual(ks.crypto.sha1(name, first, second).hex(), "a9993e364706816aba3e25717850c26c9cd0d89d")
        self.key(b"c")
        self.assertEqual(ks.crypto.md5("key", b"ab").hex(), "900150983cd24fb0d6963f7d28e17f72")

    def test_digest_makes_the_authenticator_of_rfc_2865(self):
        self.key(b"xyzzy5461")
        packet = unhex("020000260f403f9473978057bd83d5cb98f4227a0606000000010f06000000000e06c0a80103")
        self.assertEqual(ks.crypto.md5("key", packet).hex(), "86fe220e7624ba2a1005f6bf9b55e0b2")

    def test_mschap_is_that_of_rfc_2759(self):
        self.key(b"clientPass")
        self.assertEqual(ks.mschap.nt_response("key", **CHALLENGES, user_name="User"), NT_RESPONSE)
        proof = ks.mschap.authenticator_response("key", nt_response=NT_RESPONSE, **CHALLENGES, user_name=b"User")
        self.assertEqual(proof, AUTHENTICATOR_RESPONSE)

    def test_master_key_is_that_of_rfc_3079(self):
        self.key(b"clientPass")
        self.assertEqual(ks.mschap.master_key("key", NT_RESPONSE), MASTER_KEY)

    def test_t_prf_is_that_of_rfc_4851(self):
        for key, label, seed, output in T_PRF:
            ks.pacs.store(b"t-prf", unhex(key), opaque=ks.tlv.opaque(b"o"), info=ks.tlv.info(identity="u"))
            made = ks.pacs.t_prf(b"t-prf", label, unhex(seed) or None, size=len(output) // 2)
            self.assertEqual(made.hex(), output)
            made = ks.pacs.t_prf(b"t-prf", label.encode(), unhex(seed), size=len(output) // 2)
            self.assertEqual(made.hex(), output)
        ks.pacs.clear(b"t-prf")


class PasswordChange(OnSession):
    """RFC 2759, sections 8.9 to 8.13, taken apart by other implementations of what they are made of."""

    # Section 9.3: a password and its hash. Section 9.2: another one.
    OLD, OLD_HASH = b"MyPw", unhex("fc156af7edcd6c0edde3337d427f4eac")
    NEW, NEW_HASH = b"clientPass", unhex("44ebba8d5312b8d611474411f56989ae")

    def setUp(self):
        self.keep("old", self.OLD)
        self.keep("new", self.NEW)

    @staticmethod
    def rc4(key, data):
        state, j = list(range(256)), 0
        for i in range(256):
            j = (j + state[i] + key[i % len(key)]) % 256
            state[i], state[j] = state[j], state[i]
        out, i, j = bytearray(), 0, 0
        for byte in data:
            i = (i + 1) % 256
            j = (j + state[i]) % 256
            state[i], state[j] = state[j], state[i]
            out.append(byte ^ state[(state[i] + state[j]) % 256])
        return bytes(out)

    def test_new_password_opens_under_the_old_hash(self):
        for password in ("clientPass", b"clientPass", bytearray(b"x" * 256)):
            block = ks.mschap.new_password_encrypted("old", password)
            self.assertEqual(len(block), 516)
            opened = self.rc4(self.OLD_HASH, block)
            plain = (password if isinstance(password, str) else password.decode()).encode("utf-16-le")
            self.assertEqual(opened[512:], len(plain).to_bytes(4, "little"))
            self.assertEqual(opened[512 - len(plain):512], plain)

    def test_old_hash_opens_under_the_new_hash(self):
        """Two blocks of DES, each under 7 bytes of the new hash with parity bits between: the keystore's opens them."""
        def spread(seven):
            bits = int.from_bytes(seven, "big")
            return bytes((bits >> (49 - 7 * i) & 0x7F) << 1 for i in range(8))

        made = ks.mschap.old_hash_encrypted("new", "old")
        opened = b""
        for i in range(2):
            with ks.secrets.temporary(spread(self.NEW_HASH[7 * i:7 * i + 7])) as name:
                opened += ks.crypto.des_decrypt(name, made[8 * i:8 * i + 8])
        self.assertEqual(opened, self.OLD_HASH)


if __name__ == "__main__":
    unittest.main()
