#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""What a program in Python does with a keystore: secrets, cryptography on them, a PAC, and a result in words."""

import hmac

import ks


def main() -> None:
    ks.init(1)

    # A secret in a bytearray is gone from this program's memory when it has set it to zeros.
    password = bytearray(b"clientPass")
    ks.secrets.store("alice", password, metadata=b"user=alice")
    password[:] = bytes(len(password))
    print(f"  stored {list(ks.secrets.names())}, metadata {ks.secrets.metadata('alice').decode()}")

    # RFC 2759, section 9.2.
    challenges = {
        "authenticator_challenge": bytes.fromhex("5b5d7c7d7b3f2f3e3c2c602132262628"),
        "peer_challenge": bytes.fromhex("21402324255e262a28295f2b3a337c7e"),
    }
    response = ks.mschap.nt_response("alice", **challenges, user_name="User")
    published = bytes.fromhex("82309ecd8d708b5ea08faa3981cd83544233114a3d85d6df")
    print(f"  NT response {response.hex()}")
    if not hmac.compare_digest(response, published):
        raise SystemExit("  NOT the published value")
    print("    equal to the published value")

    info = ks.tlv.info(expires=2000000000, identity="alice")
    ks.pacs.store(b"authority", ks.device.random(32), opaque=ks.tlv.opaque(b"opaque"), info=info)
    keys = ks.pacs.t_prf(b"authority", "Session Key Generating Function", size=64)
    print(f"  stored a PAC for {ks.tlv.read_info(ks.pacs.info(b'authority')).identity}, "
          f"and made {len(keys)} bytes of keys from it")

    ks.pacs.clear(b"authority")
    ks.secrets.clear("alice")
    try:
        ks.crypto.hmac_sha1("alice", b"data")
    except ks.NotFound as error:
        print(f"  cleared both; the next use raises {type(error).__name__}: {error}")


if __name__ == "__main__":
    main()
