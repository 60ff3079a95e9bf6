#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""make_seeds.py: writes the seeds of all fuzz targets anew, each named for what it shows. Bytes are spelt out here, as
they travel; the layout of an input stands in the opening comment of its target. What a run has found is no part of
this: such a seed is added to its folder by hand, under a name of its own."""

import struct
from pathlib import Path

HERE = Path(__file__).parent


def seeds(target, contents):
    folder = HERE / target
    folder.mkdir(exist_ok=True)
    for name, content in contents.items():
        (folder / name).write_bytes(content)


def counted(content):
    return bytes([len(content)]) + content


# --- PAC metadata, big-endian

def tlv(kind, value, length=None):
    return struct.pack(">HH", kind, len(value) if length is None else length) + value


OPAQUE, INFO = 2, 9
LIFETIME, A_ID, I_ID = 3, 4, 5
NEVER = tlv(LIFETIME, b"\x7f\xff\xff\xff")
GOOD_INFO = tlv(INFO, NEVER + tlv(A_ID, b"aid") + tlv(I_ID, b"user"))
GOOD_METADATA = tlv(OPAQUE, b"opaque bytes") + GOOD_INFO


def pac_metadata(metadata, identity=b"user"):
    return counted(identity) + metadata


seeds("pac_metadata", {
    "opaque_and_info": pac_metadata(GOOD_METADATA),
    "info_before_opaque": pac_metadata(GOOD_INFO + tlv(OPAQUE, b"opaque bytes")),
    "no_metadata": pac_metadata(b""),
    "opaque_alone": pac_metadata(tlv(OPAQUE, b"opaque bytes")),
    "two_opaques": pac_metadata(tlv(OPAQUE, b"a") + tlv(OPAQUE, b"b")),
    "two_infos": pac_metadata(GOOD_INFO + GOOD_INFO),
    "unknown_type_behind_good_ones": pac_metadata(GOOD_METADATA + tlv(7, b"x")),
    "opaque_one_byte_too_long": pac_metadata(tlv(OPAQUE, b"abc", 4)),
    "info_of_65535_bytes_that_has_none": pac_metadata(tlv(INFO, b"", 65535)),
    "type_without_length": pac_metadata(b"\x00\x09"),
    "half_a_type": pac_metadata(b"\x00"),
    "lifetime_of_three_bytes": pac_metadata(tlv(INFO, tlv(LIFETIME, b"\x7f\xff\xff") + tlv(I_ID, b"user"))),
    "lifetime_that_has_passed": pac_metadata(tlv(INFO, tlv(LIFETIME, b"\x00\x00\x00\x01") + tlv(I_ID, b"user"))),
    "info_without_identity": pac_metadata(tlv(INFO, tlv(LIFETIME, b"\x7f\xff\xff\x7f"))),
    "identity_with_nul_behind_it": pac_metadata(tlv(INFO, NEVER + tlv(I_ID, b"user\0rest"))),
    "identity_of_somebody_else": pac_metadata(GOOD_METADATA, b"other"),
    "empty_identity": pac_metadata(tlv(INFO, tlv(I_ID, b"")), b""),
    "mandatory_inner_types": pac_metadata(tlv(INFO, tlv(0x8000 | LIFETIME, b"\x7f\xff\xff\xff") +
                                              tlv(0x8000 | I_ID, b"user"))),
    "inner_tlv_past_the_end_of_the_info": pac_metadata(tlv(INFO, tlv(I_ID, b"user", 5))),
})


# --- Values of the cache, in the processor's byte order

def cache_head(meta_len, label=(0, 0), random=(0, 0), output=(0, 0)):
    return struct.pack("<IIHIHIH", meta_len, *label, *random, *output)


def cache_record(value, label=b"label", random=b"random"):
    return counted(label) + counted(random) + value


WITH_TPRF = cache_head(4, (4, 5), (9, 6), (15, 3)) + b"meta" + b"label" + b"random" + b"out"

seeds("cache_record", {
    "metadata_alone": cache_record(cache_head(4) + b"meta"),
    "metadata_and_tprf_result": cache_record(WITH_TPRF),
    "tprf_result_without_random": cache_record(cache_head(1, (1, 5), (0, 0), (6, 1)) + b"mlabelo", random=b""),
    "tprf_result_of_another_label": cache_record(WITH_TPRF, label=b"lebal"),
    "tprf_result_of_another_random": cache_record(WITH_TPRF, random=b"rondam"),
    "empty_value": cache_record(b""),
    "value_one_byte_short_of_its_head": cache_record(WITH_TPRF[:21]),
    "head_alone": cache_record(cache_head(0)),
    "regions_that_overlap": cache_record(cache_head(18, (0, 5), (3, 6), (0, 18)) + b"labrandommetadata!", label=b"labra"),
    "output_up_to_the_last_byte": cache_record(cache_head(1, (1, 5), (6, 6), (12, 1)) + b"mlabelrandomo"),
    "empty_output": cache_record(cache_head(4, (4, 5), (9, 6), (15, 0)) + b"metalabelrandomout"),
    "metadata_of_65536_bytes": cache_record(cache_head(65536) + bytes(65536)),
    "metadata_without_zero_bytes": cache_record(cache_head(600) + b"m" * 600),
    "no_label_asked_for": cache_record(WITH_TPRF, label=b""),
})


# --- Stored values of the shared database

WHOLE, IN_VALUE, IN_KEY, CUT, LENGTHENED = range(5)


def sdb_record(kind, position=0, pattern=b"\0\0\0\0", value=b"value", key=b"key"):
    return counted(key) + struct.pack("<BH", kind, position) + pattern + value


seeds("sdb_record", {
    "whole_value": sdb_record(WHOLE, value=WITH_TPRF),
    "empty_value": sdb_record(WHOLE, value=b""),
    "value_of_four_words_twice": sdb_record(WHOLE, value=bytes(range(64))),
    "bit_of_the_check": sdb_record(IN_VALUE, 0, b"\x01\0\0\0"),
    "bit_of_the_value": sdb_record(IN_VALUE, 10, b"\x10\0\0\0"),
    "bytes_of_two_words": sdb_record(IN_VALUE, 14, b"\xff\xff\xff\xff", value=bytes(40)),
    # Whether one is noticed may depend on the value. The check in front has the machine's word size.
    **{f"top_bit_of_the_last_word_{i}": sdb_record(IN_VALUE, 15, b"\x80\0\0\0", value=bytes([i] * 8)) for i in range(4)},
    **{f"top_bit_of_the_last_short_word_{i}": sdb_record(IN_VALUE, 11, b"\x80\0\0\0", value=bytes([i] * 8))
       for i in range(4)},
    "another_key": sdb_record(IN_KEY, 1, b"\x01\0\0\0"),
    "cut_into_the_check": sdb_record(CUT, 3),
    "cut_by_a_byte": sdb_record(CUT, 12),
    "lengthened_by_zeros": sdb_record(LENGTHENED, value=bytes(8)),
})


# --- Replies of a false service

OPERATIONS = """random firmware compact store_secret add_metadata return_metadata secret_by_index secret_exists
clear_secret rename store_pac pac_opaque pac_info pac_expiration aid_by_index clear_pac t_prf clear_old_pacs
clear_all_pacs des_encrypt triple_des_decrypt aes_encrypt cbc_encrypt cbc_decrypt md5 sha1 hmac_md5 hmac_sha1
nt_response authenticator_response new_password old_hash master_key""".split()
WELL, OTHER_OPCODE, OTHER_TOKEN, OTHER_SIZE, HEADERLESS, HANG_UP = range(6)
SUCCESS, NOT_FOUND, NO_MORE_ENTRIES = 1, 5, 6


def result(code):
    return struct.pack("<I", code)


def data(content, length=None):
    return result(SUCCESS) + struct.pack("<H", len(content) if length is None else length) + content


def answer(payload, kind=WELL):
    return struct.pack("<BH", kind, len(payload)) + payload


def reply(operation, asked, *answers):
    return bytes([OPERATIONS.index(operation), asked]) + b"".join(answers)


A_NAME = b"\x30\0\0\x07name"
AN_AID = b"\x31\0\0\x07aid"

seeds("reply", {
    "random_as_asked_for": reply("random", 5, answer(data(b"abcde"))),
    "random_fewer_than_asked_for": reply("random", 5, answer(data(b"abc"))),
    "firmware_version": reply("firmware", 0, answer(data(b"\x00\x01\x00"))),
    "compaction_done": reply("compact", 0, answer(result(SUCCESS))),
    "secret_stored": reply("store_secret", 16, answer(result(SUCCESS))),
    "metadata_added": reply("add_metadata", 4, answer(result(SUCCESS))),
    "metadata_returned": reply("return_metadata", 0, answer(data(b"metadata"))),
    "no_metadata": reply("return_metadata", 0, answer(data(b""))),
    "not_found": reply("return_metadata", 0, answer(result(NOT_FOUND))),
    "secret_at_the_second_position": reply("secret_by_index", 0, answer(data(AN_AID)), answer(data(A_NAME))),
    "masked_entry_then_the_end": reply("secret_by_index", 0, answer(data(b"\0\0\xff\xff")),
                                       answer(result(NO_MORE_ENTRIES))),
    "secret_exists": reply("secret_exists", 0, answer(data(b"\x01"))),
    "secret_cleared_in_six_bytes": reply("clear_secret", 0, answer(result(SUCCESS) + b"\0\0")),
    "renamed": reply("rename", 0, answer(result(SUCCESS))),
    "pac_stored": reply("store_pac", 32, answer(result(SUCCESS))),
    "pac_opaque": reply("pac_opaque", 0, answer(data(GOOD_METADATA))),
    "pac_info_of_two_opaques": reply("pac_info", 0, answer(data(tlv(OPAQUE, b"a") + tlv(OPAQUE, b"b")))),
    "pac_expiration": reply("pac_expiration", 0, answer(data(GOOD_METADATA))),
    "aid_at_the_second_position": reply("aid_by_index", 0, answer(data(A_NAME)), answer(data(AN_AID))),
    "aid_without_bytes": reply("aid_by_index", 0, answer(data(AN_AID[:4]))),
    "pac_cleared": reply("clear_pac", 0, answer(result(SUCCESS) + b"\0\0")),
    "t_prf": reply("t_prf", 16, answer(data(b"t" * 16))),
    "old_pacs_cleared": reply("clear_old_pacs", 0, answer(data(AN_AID)), answer(data(b"damaged")),
                              answer(result(SUCCESS) + b"\0\0"), answer(result(NO_MORE_ENTRIES))),
    "all_pacs_cleared": reply("clear_all_pacs", 0, answer(data(AN_AID)), answer(result(SUCCESS) + b"\0\0"),
                              answer(result(NO_MORE_ENTRIES))),
    "des_block": reply("des_encrypt", 8, answer(data(b"d" * 8))),
    "triple_des_block_too_short": reply("triple_des_decrypt", 16, answer(data(b"d" * 8))),
    "aes_block": reply("aes_encrypt", 16, answer(data(b"a" * 16))),
    "cbc_iv_and_block": reply("cbc_encrypt", 16, answer(data(b"i" * 16 + b"b" * 16))),
    "cbc_block_without_iv": reply("cbc_decrypt", 16, answer(data(b"b" * 16))),
    "md5": reply("md5", 1, answer(data(b"5" * 16))),
    "sha1_of_md5_size": reply("sha1", 1, answer(data(b"1" * 16))),
    "hmac_md5": reply("hmac_md5", 1, answer(data(b"5" * 16))),
    "hmac_sha1": reply("hmac_sha1", 1, answer(data(b"1" * 20))),
    "nt_response": reply("nt_response", 0, answer(data(b"n" * 24))),
    "authenticator_response": reply("authenticator_response", 0, answer(data(b"S=" + b"A" * 40))),
    "new_password_block": reply("new_password", 8, answer(data(b"p" * 516))),
    "old_hash": reply("old_hash", 0, answer(data(b"o" * 16))),
    "master_key": reply("master_key", 0, answer(data(b"m" * 16))),
    "reply_to_another_opcode": reply("md5", 1, answer(data(b"5" * 16), OTHER_OPCODE)),
    "reply_to_another_token": reply("md5", 1, answer(data(b"5" * 16), OTHER_TOKEN)),
    "payload_of_another_size": reply("md5", 1, answer(data(b"5" * 16), OTHER_SIZE)),
    "no_header": reply("md5", 1, answer(data(b"5" * 16), HEADERLESS)),
    "empty_datagram": reply("md5", 1, answer(b"", HEADERLESS)),
    "hang_up": reply("md5", 1, answer(b"", HANG_UP)),
    # What the library would believe, and the host platform doesn't hand on.
    "random_more_than_asked_for": reply("random", 5, answer(data(b"r" * 6))),
    "random_longer_than_its_reply": reply("random", 255, answer(data(b"abc", 255))),
    "metadata_longer_than_its_reply": reply("return_metadata", 0, answer(data(b"meta", 65535))),
    "opaque_longer_than_its_reply": reply("pac_opaque", 0, answer(data(GOOD_METADATA, 400))),
    "name_longer_than_its_reply": reply("secret_by_index", 0, answer(data(A_NAME, 300))),
    "aid_longer_than_its_reply": reply("aid_by_index", 0, answer(data(AN_AID, 300))),
    "new_password_block_of_517_bytes": reply("new_password", 8, answer(data(b"p" * 517))),
    "success_without_length": reply("return_metadata", 0, answer(result(SUCCESS))),
    "digest_longer_than_its_reply": reply("md5", 1, answer(data(b"5" * 15, 16))),
    "reply_of_three_bytes": reply("md5", 1, answer(b"\x01\0\0")),
})


# --- What an engine and its daemon say to each other

def frame(kind, *fields):
    body = bytes([kind]) + b"".join(struct.pack("<Q", field) if isinstance(field, int) else field for field in fields)
    return struct.pack("<I", len(body)) + body


def sized(content, size=None):
    return struct.pack("<I", len(content) if size is None else size) + content


def listed(*elements):
    return struct.pack("<I", len(elements)) + b"".join(elements)


def row(key=b"e/0000000000000001", value=b"sealed", revision=44):
    return sized(key) + sized(value) + struct.pack("<Q", revision)


def stream(*frames, pieces=256):
    return bytes([pieces - 1]) + b"".join(frames)


FAILED, CHANGED, LOADED = 0x83, 0x87, 0x86
seeds("engine_reports", {
    "nothing": b"",
    "started": stream(frame(0x80, 1)),
    "committed_byte_by_byte": stream(frame(0x81, 1, 2), frame(0x81, 3, 4), pieces=1),
    "refused_with_a_header": stream(frame(0x82, 1, b"\x01", row(b"h"), 3)),
    "refused_without_a_header": stream(frame(0x82, 1, b"\x00", 3)),
    "header_that_is_neither_there_nor_not": stream(frame(0x84, 1, b"\x02", 3)),
    "failed": stream(frame(FAILED, 1, b"\x03", sized(b"no space"))),
    "failed_for_no_known_kind": stream(frame(FAILED, 1, b"\x05", sized(b"why"))),
    "failed_with_a_line_end": stream(frame(FAILED, 1, b"\x01", sized(b"two\nlines"))),
    "failed_with_a_reason_of_201_bytes": stream(frame(FAILED, 1, b"\x01", sized(b"x" * 201))),
    "rows_and_the_end_of_a_load": stream(frame(0x85, 1, listed(row(), row(b"e/2"))), frame(LOADED, 1, b"\x01", row(), 9)),
    "more_rows_announced_than_there_are": stream(frame(0x85, 1, struct.pack("<I", 8192), row())),
    "more_rows_announced_than_a_list_has": stream(frame(0x85, 1, struct.pack("<I", 8193))),
    "changed": stream(frame(CHANGED, 1, 4, listed(row()), listed(sized(b"e/2"), sized(b"e/3")))),
    "key_longer_than_its_frame": stream(frame(CHANGED, 1, 4, listed(sized(b"e", 0xffffffff)), listed())),
    "byte_behind_the_last_field": stream(frame(0x88, 1, 5, b"\x00")),
    "watch_broken": stream(frame(0x88, 1, 5)),
    "heartbeats": stream(frame(0x89, 1, listed(row(b"m/a")), 6)),
    "stopped": stream(frame(0x8a, sized(b"why"))),
    "kind_that_there_is_not": stream(frame(0x8b, 1), frame(0x7f, 1)),
    "size_of_nothing": stream(struct.pack("<I", 0), frame(0x81, 1, 2)),
    "size_larger_than_any": stream(struct.pack("<I", 2 << 20), frame(0x81, 1, 2)),
    "start": stream(frame(0, 1, listed(sized(b"a:1"), sized(b"b:2")), sized(b"ks/"), sized(b""), sized(b""), sized(b""))),
    "commit": stream(frame(1, 1, b"\x01", 2, listed(row(b"h")), listed(sized(b"e/1")), 5000, b"\x00")),
    "step_of_a_restore": stream(frame(1, 1, b"\x00", listed(row()), listed(), 5000, b"\x01", 3)),
    "limit_of_more_than_an_hour": stream(frame(2, 1, 3600001)),
})


# --- Configurations

seeds("config", {
    "nothing": b"",
    "all_sections": b"""[service]
socket = "/run/ks/a.sock"
socket_mode = 0o660
socket_group = 0
vault = "/var/lib/ks/vault.db"
master_key_file = "/etc/ks/master.key"
cache_uri = "lmdb:///run/user/{uid}/{vdc}"
log_level = "debug"
receive_limit_ms = 10
send_limit_ms = 3600000
silence_limit_ms = 100
supstate = 2
[limits]
connections = 1
connections_per_user = 1
entries = 0
entries_per_user = 65535
bytes = 0
bytes_per_user = 1099511627776
[trace]
record = [100, 103]
debug = []
[administrators]
users = [0, "root"]
groups = ["root"]
[[vdc]]
id = 7
users = [1000, 1001]
groups = [1000]
[[vdc]]
id = 65534
[shared]
endpoints = ["https://store1:2379", "https://10.0.0.2:2379", "https://[fd00::3]:2379"]
prefix = "ks/fleet"
ca = "/etc/ca"
certificate = "/etc/c"
key = "/etc/k"
machine = "a"
mirror = "/var/lib/ks/mirror.db"
create = true
accept_incarnation = 3
write_wait_ms = 5000
max_age_s = 900
[shared.owners]
radius = 1000
"eap daemon" = "root"
""",
    "store_on_this_machine": b'[shared]\nmachine = "a"\nendpoints = ["http://127.8.0.1:1", "http://[::1]:65535", '
                             b'"http://localhost:2379"]\n',
    "endpoints_that_are_none": b'[shared]\nendpoints = ["https://", "http://:1", "https://a:", "https://[::1:1", '
                               b'"https://a:65536", 1, "ftp://a:1"]\nprefix = ""\nmachine = "A b"\n',
    "problem_that_quotes_a_line_end": b"1J=i\n",
    "user_whose_name_has_a_line_end": b'[[vdc]]\nid = 7\nusers = ["a\\nb"]\n',
    "unknown_key": b"[service]\nsockets = 1\n",
    "section_that_is_a_number": b"service = 1\n",
    "dotted_keys": b"service.socket = 'relative'\nlimits.entries = 65536\n",
    "inline_tables": b"service = {socket = '', log_level = 'loud'}\nvdc = [{id = 1}, {id = 1}, 3]\n",
    "vdc_without_id": b"[[vdc]]\nusers = []\n",
    "vdc_of_none": b"[[vdc]]\nid = 65535\n",
    "user_of_two_vdcs": b"[[vdc]]\nid=1\nusers=[5]\n[[vdc]]\nid=2\nusers=[5]\n",
    "unknown_placeholder": b"[service]\ncache_uri = 'lmdb:///{home}'\n",
    "placeholders_that_grow_too_long": b"[service]\ncache_uri = 'lmdb:///" + b"{uid}" * 30 + b"'\n",
    "placeholder_of_a_placeholder": b"[service]\ncache_uri = 'lmdb:///{{uid}vdc}'\n",
    "user_of_all_ones": b"[administrators]\nusers = [4294967295, -1]\n",
    "text_that_ends_in_a_string": b"[service]\nsocket = '/a",
    "bytes_that_are_no_utf8": b"[service]\nsocket = '\xff'\n",
    "deeply_nested_arrays": b"a = " + b"[" * 300 + b"]" * 300,
    "number_past_64_bits": b"[limits]\nbytes = 99999999999999999999\n",
})


# --- Records of a vault, little-endian

WHOLE, CHANGED, CUT_SHORT, OTHER_ROW, OTHER_KIND, OTHER_VAULT = range(6)


def vault_record(plain, damage=WHOLE, position=0, pattern=0):
    return struct.pack("<BHB", damage, position, pattern) + plain


def vault_entry(name, alias=b"", secret=b"secret", metadata=b"metadata", version=3, owner=1000):
    return struct.pack("<QIBBII", version, owner, len(name), len(alias), len(secret), len(metadata)) + \
        name + alias + secret + metadata


AN_ENTRY = vault_entry(A_NAME, b"\x30\0\0\x07alias")
A_HEADER = struct.pack("<QQQ", 5, 9, 2) + bytes(range(32))

seeds("vault_record", {
    "entry_with_alias": vault_record(AN_ENTRY),
    "entry_of_a_pac": vault_record(vault_entry(AN_AID)),
    "entry_without_metadata": vault_record(vault_entry(A_NAME, metadata=b"")),
    "entry_of_a_user_above_65535": vault_record(vault_entry(A_NAME, owner=70000)),
    "entry_without_name": vault_record(vault_entry(b"")),
    "entry_without_secret": vault_record(vault_entry(A_NAME, secret=b"")),
    "name_of_36_bytes": vault_record(vault_entry(A_NAME + b"n" * 28)),
    "alias_of_an_unknown_kind": vault_record(vault_entry(A_NAME, b"\x32\0\0\x07alias")),
    "secret_longer_than_the_entry": vault_record(AN_ENTRY[:14] + b"\xff\xff\xff\xff" + AN_ENTRY[18:]),
    "sizes_that_add_up_past_32_bits": vault_record(AN_ENTRY[:14] + b"\xff\xff\xff\xff\x0f\0\0\0" + AN_ENTRY[22:]),
    "one_byte_behind_the_entry": vault_record(AN_ENTRY + b"x"),
    "header": vault_record(A_HEADER),
    "header_of_a_vault_in_use": vault_record(A_HEADER + b"\x01"),
    "header_with_an_unknown_mark": vault_record(A_HEADER + b"\x02"),
    "header_one_byte_short": vault_record(A_HEADER[:-1]),
    "seal_with_a_changed_nonce": vault_record(AN_ENTRY, CHANGED, 0, 1),
    "seal_with_a_changed_text": vault_record(AN_ENTRY, CHANGED, 30, 0x80),
    "seal_cut_to_its_nonce": vault_record(AN_ENTRY, CUT_SHORT, 24),
    "seal_in_another_row": vault_record(AN_ENTRY, OTHER_ROW),
    "seal_of_another_kind": vault_record(A_HEADER, OTHER_KIND),
    "seal_in_another_vault": vault_record(AN_ENTRY, OTHER_VAULT),
    "seal_of_nothing": vault_record(b""),
})


# --- Requests to the service

VDC_7, VDC_8, UNMAPPED, ADMINISTRATOR, WHOLE_DATAGRAM, SENT_LARGER, ADMINISTRATION = 0, 1, 2, 3, 4, 8, 16
OPCODES = """random store_secret add_metadata clear secret_exists by_index return_metadata rename store_pac pac_exists
t_prf nt_response authenticator_response new_password old_hash master_key aes_encrypt aes_decrypt cbc_encrypt
cbc_decrypt hmac_md5 hmac_sha1 md5 sha1 des_encrypt des_decrypt triple_des_encrypt triple_des_decrypt""".split()
OPCODE = {name: 66561 + i for i, name in enumerate(OPCODES)} | {"firmware": 66593, "compact": 66594}
AT_THE_END_OPEN_ANEW = 255


def requests(*messages, first=0):
    return bytes([first]) + b"".join(messages)


def message(opcode, descriptor, *sections, by=VDC_7):
    payload = descriptor + b"".join(sections)
    return struct.pack("<BBBH", by, OPCODE[opcode] - 66561, len(descriptor), len(payload)) + payload


def administration(opcode, descriptor=b"", by=ADMINISTRATOR):
    return struct.pack("<BBBH", by | ADMINISTRATION, opcode - 1, len(descriptor), len(descriptor)) + descriptor


def datagram(content, by=VDC_7 | WHOLE_DATAGRAM):
    return struct.pack("<BH", by, len(content)) + content


def header(opcode, descriptor_size=0, payload_size=0, magic=0x3173776b, version=1, token=1):
    return struct.pack("<IHHIIIIII", magic, version, descriptor_size, opcode, token, 0xfe000000, 11, 1, payload_size)


def wire(text, vdc=7, tag=0x30):
    return struct.pack(">BBH", tag, 0, vdc) + text


def named(opcode, name, by=VDC_7):
    return message(opcode, bytes([len(name), 2]), name, by=by)


def name_and_data(opcode, name, content, by=VDC_7):
    return message(opcode, struct.pack("<BBHH", len(name), 6, len(content), 6 + len(name)), name, content, by=by)


def store(name, secret=b"secret", metadata=b"", alias=b"", by=VDC_7):
    at = 12 + len(name)
    return message("store_secret", struct.pack("<BBBBHHHH", len(name), 12, len(alias), at, len(secret), at + len(alias),
                                               len(metadata), at + len(alias) + len(secret)),
                   name, alias, secret, metadata, by=by)


def rename(old, new, by=VDC_7):
    return message("rename", bytes([len(old), 6, len(new), 6 + len(old), 0, 0]), old, new, by=by)


def at_index(position, by=VDC_7):
    return message("by_index", struct.pack("<H", position), by=by)


def store_pac(aid, key, metadata, by=VDC_7):
    at = 20 + len(aid)
    return message("store_pac", struct.pack("<BBxxIIII", len(aid), 20, len(key), at, len(metadata), at + len(key)),
                   aid, key, metadata, by=by)


def t_prf(aid, label, random, wanted, by=VDC_7):
    at = 20 + len(aid)
    return message("t_prf", struct.pack("<HBBHxxIHxxI", wanted, len(aid), 20, len(label), at, len(random),
                                        at + len(label)), aid, label, random, by=by)


def aes(opcode, name, content, by=VDC_7):
    return message(opcode, struct.pack("<BBHI", len(name), 8, len(content), 8 + len(name)), name, content, by=by)


def cbc(opcode, name, iv, content, by=VDC_7):
    at = 12 + len(name)
    return message(opcode, struct.pack("<BBBBHHI", len(name), 12, len(iv), 0, at, len(content), at + len(iv)),
                   name, iv, content, by=by)


def digest(opcode, name, first, second, by=VDC_7):
    at = 10 + len(name)
    return message(opcode, struct.pack("<BBHHHH", len(name), 10, len(first), at, len(second), at + len(first)),
                   name, first, second, by=by)


def challenges(name, wanted, user):
    at = 28 + len(name)
    return struct.pack("<HBBB3xIB3xIB3xI", wanted, len(name), 28, 16, at, 16, at + 16, len(user), at + 32)


KEY, KEY_OF_8, AID = wire(b"key"), wire(b"key", 8), wire(b"aid", 7, 0x31)
NORTH, SOUTH = wire(b"north", 9), wire(b"south", 9)
ALL_OF_9 = [named("secret_exists", NORTH), named("return_metadata", NORTH), named("clear", NORTH),
            store(NORTH), rename(NORTH, wire(b"x")), rename(KEY, NORTH), aes("aes_encrypt", NORTH, bytes(16)),
            digest("md5", NORTH, b"x", b""), at_index(3)]

seeds("requests", {
    "nothing": requests(),
    "hello_then_random": requests(datagram(header(1)), message("random", struct.pack("<B3xI", 16, 0))),
    "datagram_of_one_byte": requests(datagram(b"k")),
    "header_of_another_version": requests(datagram(header(66593, version=2))),
    "header_of_another_protocol": requests(datagram(header(66593, magic=1))),
    "payload_size_past_the_datagram": requests(datagram(header(66593, payload_size=1))),
    "descriptor_past_the_payload": requests(datagram(header(66593, descriptor_size=1))),
    "token_of_zero": requests(datagram(header(66593, token=0))),
    "datagram_cut_by_the_kernel": requests(datagram(header(66593), WHOLE_DATAGRAM | SENT_LARGER)),
    "unknown_opcode": requests(datagram(header(66590))),
    "firmware_and_compaction": requests(message("firmware", b""), message("compact", b"", by=UNMAPPED)),
    "no_random_numbers": requests(message("random", bytes(8))),
    "store_find_and_clear": requests(store(wire(b"a"), b"secret", b"meta"), named("return_metadata", wire(b"a")),
                                     named("secret_exists", wire(b"a")), named("clear", wire(b"a")),
                                     named("clear", wire(b"a"))),
    "store_with_alias": requests(store(wire(b"a"), alias=wire(b"b")), named("return_metadata", wire(b"b")),
                                 rename(wire(b"b"), wire(b"a")), named("clear", wire(b"b")),
                                 first=AT_THE_END_OPEN_ANEW),
    "store_with_empty_linked_name": requests(store(wire(b"a"), alias=b"\x30")),
    "store_with_alias_in_another_vdc": requests(store(wire(b"a"), alias=wire(b"b", 8), by=ADMINISTRATOR)),
    "store_without_secret": requests(store(wire(b"a"), b"")),
    "secret_past_the_message": requests(message("store_secret", struct.pack("<BBBBHHHH", 5, 12, 0, 17, 7, 17, 0, 24), wire(b"a"), b"secret")),
    "store_until_full": requests(*[store(wire(bytes([97 + i])), b"s") for i in range(8)], first=AT_THE_END_OPEN_ANEW),
    "store_more_bytes_than_a_user_may": requests(store(wire(b"a"), b"s" * 4001)),
    "replaced_content_is_used": requests(aes("aes_encrypt", KEY, bytes(16)), store(KEY, b"another key here"),
                                         aes("aes_encrypt", KEY, bytes(16)), first=AT_THE_END_OPEN_ANEW),
    "metadata_added": requests(name_and_data("add_metadata", KEY, b"new"), named("return_metadata", KEY)),
    "rename_to_a_name_that_is_taken": requests(store(wire(b"a")), rename(wire(b"a"), KEY)),
    "rename_to_itself": requests(rename(KEY, KEY)),
    "rename_into_another_vdc": requests(rename(KEY, wire(b"key", 9), by=ADMINISTRATOR)),
    "all_positions": requests(*[at_index(i, by) for i in range(5) for by in (VDC_7, VDC_8, UNMAPPED, ADMINISTRATOR)]),
    "entries_of_vdc_9_by_vdc_7": requests(*ALL_OF_9),
    "entries_of_vdc_7_by_vdc_8": requests(named("return_metadata", KEY, VDC_8), named("clear", KEY, VDC_8),
                                          aes("aes_encrypt", KEY, bytes(16), VDC_8), named("return_metadata", KEY)),
    "entries_of_vdc_9_by_the_administrator": requests(named("return_metadata", NORTH, ADMINISTRATOR),
                                                      named("clear", SOUTH, ADMINISTRATOR),
                                                      named("clear", NORTH, ADMINISTRATOR)),
    "administration": requests(*[administration(opcode, descriptor) for opcode in range(2, 34)
                                 for descriptor in (b"", bytes(4))]),
    "administration_for_nobody_else": requests(*[administration(opcode, descriptor, by) for opcode in range(2, 34)
                                                 for descriptor in (b"", bytes(4)) for by in (VDC_7, VDC_8, UNMAPPED)]),
    "administration_with_payloads_of_other_sizes": requests(*[administration(opcode, b"\xff" * size)
                                                              for opcode in range(2, 10) for size in (1, 3, 5, 8)]),
    "administration_page_by_page": requests(*[administration(5, struct.pack("<I", uid)) for uid in
                                              (0, 256, 512, 599, 600, 0xffffffff)],
                                            *[administration(6, struct.pack("<I", uid)) for uid in
                                              (0, 4711, 4712, 0xffffffff)]),
    "nothing_for_the_unmapped": requests(store(KEY, by=UNMAPPED), named("secret_exists", KEY, UNMAPPED)),
    "pac_stored_and_used": requests(store_pac(wire(b"p", 7, 0x31), bytes(32), b"meta"),
                                    named("pac_exists", wire(b"p", 7, 0x31)), t_prf(AID, b"label", b"random", 40),
                                    t_prf(AID, b"label", b"", 0)),
    "des_with_a_key_of_8_bytes": requests(name_and_data("des_encrypt", KEY_OF_8, bytes(16), VDC_8),
                                          name_and_data("des_decrypt", KEY_OF_8, bytes(8), VDC_8)),
    "triple_des_with_a_key_that_is_none": requests(store(wire(b"a"), b"seven b"),
                                                   name_and_data("triple_des_encrypt", wire(b"a"), bytes(8))),
    "aes_of_no_data": requests(aes("aes_encrypt", KEY, b""), aes("aes_decrypt", KEY, bytes(32))),
    "cbc_there_and_back": requests(cbc("cbc_encrypt", KEY, bytes(16), bytes(32)),
                                   cbc("cbc_decrypt", KEY, bytes(16), bytes(32))),
    "cbc_with_an_iv_of_15_bytes": requests(cbc("cbc_encrypt", KEY, bytes(15), bytes(32))),
    "digests": requests(digest("md5", KEY, b"a", b"b"), digest("sha1", KEY, b"", b"b"), digest("md5", KEY, b"", b"")),
    "hmacs_of_secret_and_pac": requests(name_and_data("hmac_md5", KEY, b"x"), name_and_data("hmac_sha1", AID, b"x")),
    "nt_response": requests(message("nt_response", challenges(KEY, 24, b"user"), KEY, bytes(32), b"user")),
    "authenticator_response": requests(message(
        "authenticator_response",
        struct.pack("<HBBB3xIB3xIB3xIB3xI", 42, 7, 36, 16, 43, 16, 59, 4, 75, 24, 79), KEY, bytes(32), b"user",
        bytes(24))),
    "new_password_of_256_bytes": requests(message("new_password", struct.pack("<BBBxI", 7, 8, 0, 15), KEY, b"p" * 256)),
    "new_password_that_is_no_utf8": requests(message("new_password", struct.pack("<BBBxI", 7, 8, 1, 15), KEY, b"\xff")),
    "old_hash_of_two_names": requests(message("old_hash", struct.pack("<BBBxI", 7, 8, 7, 15), KEY, KEY)),
    "master_key": requests(message("master_key", struct.pack("<BBBxH", 7, 6, 24, 13), KEY, bytes(24))),
})
