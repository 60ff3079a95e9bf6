# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""MS-CHAP version 2 (RFC 2759) and its master key (RFC 3079), with the name of a stored password for the password.

Passwords are stored in UTF-8. What could be mistaken for another is given by name: the standard, and the library after
it, have the two challenges in one order for one operation and in the other for the next.
"""

from __future__ import annotations

from typing import Any, Optional, Union, overload

from . import _call
from ._native import ffi, lib

_CHALLENGE_SIZE: int = lib.KS_CHALLENGE_SIZE
_NT_RESPONSE_SIZE: int = lib.KS_NT_RESPONSE_SIZE
_AUTHENTICATOR_RESPONSE_SIZE: int = lib.KS_AUTHENTICATOR_RESPONSE_SIZE
_PASSWORD_HASH_SIZE: int = lib.KS_PASSWORD_HASH_SIZE
_MASTER_KEY_SIZE: int = lib.KS_MASTER_KEY_SIZE
_NEW_PASSWORD_MAX: int = lib.KS_NEW_PASSWORD_MAX
_USER_NAME_MAX = 255  # a longer one is cut to its length modulo 256
_ENCRYPTED_PASSWORD_SIZE = 516  # RFC 2759, section 8.9
_REPLY_MAX = 65535


def _challenge(value: _call.Buffer, what: str) -> Any:
    return _call.data(value, what, _CHALLENGE_SIZE, _CHALLENGE_SIZE)


def _response(value: _call.Buffer) -> Any:
    return _call.data(value, "an NT response", _NT_RESPONSE_SIZE, _NT_RESPONSE_SIZE)


def _user(value: _call.Name) -> bytes:
    return _call.text(value, "a user name", _USER_NAME_MAX, least=0)


def nt_response(name: _call.Name, *, authenticator_challenge: _call.Buffer, peer_challenge: _call.Buffer,
                user_name: _call.Name) -> bytes:
    """The NT response, 24 bytes, of the password to two challenges of 16 bytes. `user_name` may be empty."""
    output = ffi.new("uint8_t[]", _NT_RESPONSE_SIZE)
    _call.check(lib.ks_GenerateNTResponse(
        _call.secret_name(name), _challenge(authenticator_challenge, "an authenticator challenge"),
        _challenge(peer_challenge, "a peer challenge"), _user(user_name), output))
    return _call.content(output)


def authenticator_response(name: _call.Name, *, nt_response: _call.Buffer, peer_challenge: _call.Buffer,
                           authenticator_challenge: _call.Buffer, user_name: _call.Name) -> bytes:
    """The authenticator's answer to an NT response: 42 bytes, "S=" and 40 hexadecimal digits."""
    output = ffi.new("uint8_t[]", _AUTHENTICATOR_RESPONSE_SIZE)
    _call.check(lib.ks_GenerateAuthenticatorResponse(
        _call.secret_name(name), _response(nt_response), _challenge(peer_challenge, "a peer challenge"),
        _challenge(authenticator_challenge, "an authenticator challenge"), _user(user_name), output))
    return _call.content(output)


def new_password_encrypted(name: _call.Name, new_password: Union[str, _call.Buffer]) -> bytes:
    """A new password, 1 to 256 bytes, encrypted under the hash of the stored old one: 516 bytes.

    A str is taken in UTF-8. A password in a bytearray can be set to zeros afterwards.
    """
    plain = new_password.encode() if isinstance(new_password, str) else new_password
    view = _call.data(plain, "a new password", 1, _NEW_PASSWORD_MAX)
    raw_name = _call.secret_name(name)
    # As many bytes are written as the reply says it has.
    output = ffi.new("uint8_t[]", _REPLY_MAX)
    _call.whole(output, _ENCRYPTED_PASSWORD_SIZE, lambda: int(
        lib.ks_NewPasswordEncryptedWithOldNtPasswordHash(raw_name, view, len(view), output)))
    return _call.content(output)[:_ENCRYPTED_PASSWORD_SIZE]


def old_hash_encrypted(new_name: _call.Name, old_name: _call.Name) -> bytes:
    """The hash of the stored old password encrypted under that of the stored new one: 16 bytes."""
    output = ffi.new("uint8_t[]", _PASSWORD_HASH_SIZE)
    _call.check(lib.ks_OldNtPasswordHashEncryptedWithNewNtPasswordHash(
        _call.secret_name(new_name), _call.secret_name(old_name), output))
    return _call.content(output)


@overload
def master_key(name: _call.Name, nt_response: _call.Buffer) -> bytes: ...
@overload
def master_key(name: _call.Name, nt_response: _call.Buffer, *, out: _call.Writable) -> _call.Writable: ...
def master_key(name: _call.Name, nt_response: _call.Buffer, *,
               out: Optional[_call.Writable] = None) -> bytes | _call.Writable:
    """The master key, 16 bytes, that MPPE derives its session keys from; into `out` where it is given."""
    view = _response(nt_response)
    output = _call.room(_MASTER_KEY_SIZE, out)
    _call.check(lib.ks_GetMasterKey(_call.secret_name(name), view, output))
    return _call.content(output) if out is None else out
