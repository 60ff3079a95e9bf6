# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""Cryptography on stored keys: the caller names a secret and gives data, the keystore computes.

Each call is one exchange, with the lengths that one message can have; a longer AES text goes piece by piece. Where a
result is a secret, `out` takes a bytearray or writable memoryview of its size, which is filled and returned instead of
new bytes, so that the program can set it to zeros afterwards.
"""

from __future__ import annotations

from typing import Callable, Optional, overload

from . import _call
from ._native import ffi, lib

_PIECE_MAX = _call.PIECE_MAX
_DES_BLOCK = 8
_AES_BLOCK = 16
_AES_MAX = 65520  # the largest multiple of a block that 16 bits count
_AES_CBC_MAX = 65504  # a reply counts the IV in its 16 bits
_MD5_SIZE: int = lib.KS_MD5_SIZE
_SHA1_SIZE: int = lib.KS_SHA1_SIZE


def _des(operation: Callable[..., int], name: _call.Name, data: _call.Buffer,
         out: Optional[_call.Writable]) -> bytes | _call.Writable:
    view = _call.data(data, "a text for DES", _DES_BLOCK, _PIECE_MAX, _DES_BLOCK)
    output = _call.room(len(view), out)
    _call.check(operation(_call.secret_name(name), view, len(view), output, len(view)))
    return _call.content(output) if out is None else out


def des_encrypt(name: _call.Name, data: _call.Buffer) -> bytes:
    """Encrypts 8 to 1,024 bytes, a multiple of 8, with single DES in ECB mode under a secret of 8 bytes.

    The library prints the whole request, `data` included, to standard error. triple_des_encrypt doesn't, and is the
    same cipher under a key of three times the same 8 bytes.
    """
    return bytes(_des(lib.ks_des_ecb_encrypt, name, data, None))


@overload
def des_decrypt(name: _call.Name, data: _call.Buffer) -> bytes: ...
@overload
def des_decrypt(name: _call.Name, data: _call.Buffer, *, out: _call.Writable) -> _call.Writable: ...
def des_decrypt(name: _call.Name, data: _call.Buffer, *,
                out: Optional[_call.Writable] = None) -> bytes | _call.Writable:
    """Decrypts what des_encrypt made. Nothing is printed."""
    return _des(lib.ks_des_ecb_decrypt, name, data, out)


def triple_des_encrypt(name: _call.Name, data: _call.Buffer) -> bytes:
    """Encrypts 8 to 1,024 bytes, a multiple of 8, with 3DES in ECB mode under a secret of 16 or 24 bytes."""
    return bytes(_des(lib.ks_3des_ecb_encrypt, name, data, None))


@overload
def triple_des_decrypt(name: _call.Name, data: _call.Buffer) -> bytes: ...
@overload
def triple_des_decrypt(name: _call.Name, data: _call.Buffer, *, out: _call.Writable) -> _call.Writable: ...
def triple_des_decrypt(name: _call.Name, data: _call.Buffer, *,
                       out: Optional[_call.Writable] = None) -> bytes | _call.Writable:
    """Decrypts what triple_des_encrypt made."""
    return _des(lib.ks_3des_ecb_decrypt, name, data, out)


def _aes(operation: Callable[..., int], name: _call.Name, data: _call.Buffer,
         out: Optional[_call.Writable]) -> bytes | _call.Writable:
    view = _call.data(data, "a text for AES", 0, _AES_MAX, _AES_BLOCK)
    output = _call.room(len(view), out)
    _call.check(operation(_call.secret_name(name), view, output, len(view)))
    return _call.content(output) if out is None else out


def aes_encrypt(name: _call.Name, data: _call.Buffer) -> bytes:
    """Encrypts up to 65,520 bytes, a multiple of 16, with AES in ECB mode under a secret of 16, 24 or 32 bytes."""
    return bytes(_aes(lib.ks_aes_encrypt, name, data, None))


@overload
def aes_decrypt(name: _call.Name, data: _call.Buffer) -> bytes: ...
@overload
def aes_decrypt(name: _call.Name, data: _call.Buffer, *, out: _call.Writable) -> _call.Writable: ...
def aes_decrypt(name: _call.Name, data: _call.Buffer, *,
                out: Optional[_call.Writable] = None) -> bytes | _call.Writable:
    """Decrypts what aes_encrypt made."""
    return _aes(lib.ks_aes_decrypt, name, data, out)


def _aes_cbc(operation: Callable[..., int], name: _call.Name, iv: _call.Buffer, data: _call.Buffer,
             out: Optional[_call.Writable]) -> tuple[bytes | _call.Writable, bytes]:
    chained = ffi.new("uint8_t[]", _AES_BLOCK)
    ffi.memmove(chained, _call.data(iv, "an IV", _AES_BLOCK, _AES_BLOCK), _AES_BLOCK)
    view = _call.data(data, "a text for one call of AES-CBC", _AES_BLOCK, _AES_CBC_MAX, _AES_BLOCK)
    output = _call.room(len(view), out)
    _call.check(operation(_call.secret_name(name), chained, view, len(view), output))
    return _call.content(output) if out is None else out, _call.content(chained)


def aes_cbc_encrypt(name: _call.Name, iv: _call.Buffer, data: _call.Buffer) -> tuple[bytes, bytes]:
    """Encrypts 16 to 65,504 bytes, a multiple of 16, with AES in CBC mode; gives the text and the next call's IV.

    for start in range(0, len(data), 65504):
        piece, iv = ks.crypto.aes_cbc_encrypt(name, iv, data[start:start + 65504])
    """
    encrypted, chained = _aes_cbc(lib.ks_aes_cbc_encrypt, name, iv, data, None)
    return bytes(encrypted), chained


@overload
def aes_cbc_decrypt(name: _call.Name, iv: _call.Buffer, data: _call.Buffer) -> tuple[bytes, bytes]: ...
@overload
def aes_cbc_decrypt(name: _call.Name, iv: _call.Buffer, data: _call.Buffer, *,
                    out: _call.Writable) -> tuple[_call.Writable, bytes]: ...
def aes_cbc_decrypt(name: _call.Name, iv: _call.Buffer, data: _call.Buffer, *,
                    out: Optional[_call.Writable] = None) -> tuple[bytes | _call.Writable, bytes]:
    """Decrypts what aes_cbc_encrypt made; gives the text and the next call's IV."""
    return _aes_cbc(lib.ks_aes_cbc_decrypt, name, iv, data, out)


def _digest(operation: Callable[..., int], size: int, name: _call.Name, first: Optional[_call.Buffer],
            second: Optional[_call.Buffer]) -> bytes:
    head, head_size = _call.optional(first, "the first piece of a digest", _PIECE_MAX)
    tail, tail_size = _call.optional(second, "the second piece of a digest", _PIECE_MAX)
    if not 1 <= head_size + tail_size <= _PIECE_MAX:
        raise ValueError(f"the pieces of a digest have 1 to {_PIECE_MAX} bytes together; these have "
                         f"{head_size + tail_size}")
    output = ffi.new("uint8_t[]", size)
    _call.check(operation(_call.secret_name(name), head, head_size, tail, tail_size, output))
    return _call.content(output)


def md5(name: _call.Name, first: Optional[_call.Buffer] = None, second: Optional[_call.Buffer] = None) -> bytes:
    """The MD5 digest of `first`, the secret, `second`, in this order; one of the two pieces may be absent.

    Both together have 1 to 1,024 bytes. The library keeps as many bytes as the name has, and four, for each call.
    """
    return _digest(lib.ks_md5_hash, _MD5_SIZE, name, first, second)


def sha1(name: _call.Name, first: Optional[_call.Buffer] = None, second: Optional[_call.Buffer] = None) -> bytes:
    """The SHA-1 digest of `first`, the secret, `second`, with the rules of md5."""
    return _digest(lib.ks_sha1_hash, _SHA1_SIZE, name, first, second)


def hmac_md5(name: _call.Name, data: _call.Buffer) -> bytes:
    """The HMAC-MD5 of 1 to 1,024 bytes. The library keeps 35 bytes for each call that can't be sent."""
    view = _call.hmac_input(data)
    output = ffi.new("uint8_t[]", _MD5_SIZE)
    _call.check(lib.ks_hmac_md5(_call.secret_name(name), view, len(view), output))
    return _call.content(output)


def hmac_sha1(name: _call.Name, data: _call.Buffer) -> bytes:
    """The HMAC-SHA1 of 1 to 1,024 bytes."""
    view = _call.hmac_input(data)
    output = ffi.new("uint8_t[]", _SHA1_SIZE)
    _call.check(lib.ks_hmac_sha1(_call.secret_name(name), view, len(view), output))
    return _call.content(output)
