# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""MS-CHAPv2 (RFC 2759) in FreeRADIUS's rlm_python3, with passwords that stay in the keystore.

`authorize` claims requests that have a challenge and a response, `authenticate` checks the response and adds the proof
for the peer and the keys of MPPE (RFC 3079). README.md tells how to set it up.

What comes of a request is told by the code: ok, or reject with an MS-CHAP-Error, when the keystore has decided;
invalid when the request's attributes are none of MS-CHAPv2; fail when the keystore couldn't be asked. Only a reject
says that the password is wrong.

Any of FreeRADIUS's threads calls these functions. The library takes calls from all threads and gives up the
interpreter's lock while it waits, so that requests are checked side by side.
"""

import hashlib
import hmac
import secrets
from typing import NamedTuple

import ks
import radiusd
from ks import mschap

APPLICATION = 0x7261646D
LONGEST_NAME = 31  # bytes of a secret's name
LONGEST_USER = 255
PREFIX = getattr(radiusd, "config", {}).get("prefix", "mschap-")

# RFC 3079, section 3.3: the keys of both directions, as the side that authenticates has them.
PAD = (bytes(40), b"\xf2" * 40)
SEND = b"On the client side, this is the receive key; on the server side, it is the send key."
RECEIVE = b"On the client side, this is the send key; on the server side, it is the receive key."


class Malformed(Exception):
    """The request's attributes are none of MS-CHAPv2."""


class Response(NamedTuple):
    """What the request says: the peer's account, the challenge that it was given, and its response."""

    identifier: int
    user: bytes
    authenticator_challenge: bytes
    peer_challenge: bytes
    nt_response: bytes


def _octets(values, name, size):
    """The value of an attribute that stands once; rlm_python3 writes it as 0x and digits."""
    given = values.get(name, [])
    if len(given) != 1:
        raise Malformed(f"{name} stands {len(given)} times")
    value = bytes.fromhex(given[0].removeprefix("0x"))
    if len(value) != size:
        raise Malformed(f"{name} has {len(value)} bytes, and {size} are needed")
    return value


def _account(values, name):
    """A user's name without a Windows domain, which takes no part in the response."""
    given = values.get(name, [])
    if len(given) != 1:
        raise Malformed(f"{name} stands {len(given)} times")
    return given[0].encode("utf-8", "surrogateescape").rpartition(b"\\")[2]


def _read(request):
    values = {}
    for name, value in request:
        values.setdefault(name, []).append(value)
    user = _account(values, "User-Name")
    # EAP-MSCHAPv2 brings the name once more. Another one would let a user in under somebody else's.
    if "MS-CHAP-User-Name" in values and _account(values, "MS-CHAP-User-Name") != user:
        raise Malformed("MS-CHAP-User-Name is another user than User-Name")
    challenge = _octets(values, "MS-CHAP-Challenge", 16)
    # identifier, flags, peer challenge, 8 bytes that are reserved, NT response
    response = _octets(values, "MS-CHAP2-Response", 50)
    return Response(response[0], user, challenge, response[2:18], response[26:50])


def _start_key(master_key, magic):
    digest = hashlib.sha1(master_key)
    digest.update(PAD[0] + magic + PAD[1])
    return digest.hexdigest()[:32]


def _rejected(response):
    """The answer to who doesn't know the password, the same whether there is such a user or not."""
    error = f"E=691 R=0 C={secrets.token_hex(16).upper()} V=3 M=Authentication rejected"
    # FreeRADIUS reads the value as a quoted text.
    return radiusd.RLM_MODULE_REJECT, (("MS-CHAP-Error", f"\\{response.identifier:03o}{error}"),), ()


def _checked(response):
    secret = PREFIX.encode() + response.user
    if not response.user or len(response.user) > LONGEST_USER or len(secret) > LONGEST_NAME:
        radiusd.radlog(radiusd.L_AUTH, f"ks: {secret!r} can't be the name of a secret, which has at most 31 bytes")
        return _rejected(response)
    challenges = {"authenticator_challenge": response.authenticator_challenge,
                  "peer_challenge": response.peer_challenge, "user_name": response.user}
    expected = mschap.nt_response(secret, **challenges)
    if not hmac.compare_digest(expected, response.nt_response):
        return _rejected(response)
    proof = mschap.authenticator_response(secret, nt_response=response.nt_response, **challenges)
    master_key = mschap.master_key(secret, response.nt_response, out=bytearray(16))
    reply = (
        ("MS-CHAP2-Success", "0x" + (bytes([response.identifier]) + proof).hex()),
        ("MS-MPPE-Send-Key", "0x" + _start_key(master_key, SEND)),
        ("MS-MPPE-Recv-Key", "0x" + _start_key(master_key, RECEIVE)),
        ("MS-MPPE-Encryption-Policy", "Encryption-Allowed"),
        ("MS-MPPE-Encryption-Types", "RC4-128bit-Allowed"),
    )
    master_key[:] = bytes(16)
    return radiusd.RLM_MODULE_OK, reply, ()


# --- what FreeRADIUS calls


def instantiate(_):
    """Says at start whether the keystore can be reached. If it can't, requests are tried all the same."""
    try:
        ks.init(APPLICATION)
        ks.device.random(1)
    except ks.Error as error:
        radiusd.radlog(radiusd.L_WARN, f"ks: no keystore at start: {error}")
    return radiusd.RLM_MODULE_OK


def authorize(request):
    """Has MS-CHAPv2 requests authenticated by the section `Auth-Type MS-CHAP`."""
    names = {name for name, _ in request}
    if not {"MS-CHAP-Challenge", "MS-CHAP2-Response"} <= names:
        return radiusd.RLM_MODULE_NOOP
    return radiusd.RLM_MODULE_UPDATED, (), (("Auth-Type", "MS-CHAP"),)


def authenticate(request):
    try:
        response = _read(request)
    except (Malformed, ValueError) as error:
        radiusd.radlog(radiusd.L_AUTH, f"ks: malformed request: {error}")
        return radiusd.RLM_MODULE_INVALID
    try:
        ks.init(APPLICATION)
        return _checked(response)
    except ks.NotFound:
        radiusd.radlog(radiusd.L_AUTH, f"ks: the keystore has no {PREFIX.encode() + response.user!r}")
        return _rejected(response)
    except ks.Error as error:
        radiusd.radlog(radiusd.L_ERR, f"ks: can't tell whether the password is right: {error}")
        return radiusd.RLM_MODULE_FAIL
