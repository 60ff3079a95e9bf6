# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""The keystore's own services: random numbers, and its firmware."""

from __future__ import annotations

import os
from typing import NamedTuple, Optional, overload

from . import _call
from ._native import ffi, lib

_COUNT_MAX = 255


@overload
def random(count: int, *, request_word: int = 0) -> bytes: ...
@overload
def random(count: int, *, request_word: int = 0, out: _call.Writable) -> _call.Writable: ...
def random(count: int, *, request_word: int = 0, out: Optional[_call.Writable] = None) -> bytes | _call.Writable:
    """`count` random bytes, 1 to 255, made by the keystore; into `out`, which has as many, where it is given.

    `request_word`, a number of 32 bits, goes to the service, which gives it no meaning today. A service that sent fewer
    bytes than it was asked for would be taken for a success: bytes of the operating system's generator stand in for
    those that are missing.
    """
    if not 1 <= count <= _COUNT_MAX:
        raise ValueError(f"the keystore makes 1 to {_COUNT_MAX} random bytes at a time, not {count}")
    target = None if out is None else _call.room(count, out)
    # The reply's own count decides how much is written, so there is room for the largest.
    made = bytearray(os.urandom(_COUNT_MAX))
    _call.check(lib.ks_generate_random_number(ffi.from_buffer("uint8_t[]", made), count, request_word))
    if out is None:
        return bytes(made[:count])
    ffi.memmove(target, made, count)
    made[:] = bytes(_COUNT_MAX)
    return out


class Firmware(NamedTuple):
    """What the keystore's firmware says of itself."""

    version: int  # major * 256 + minor with the keystore daemon
    status: int  # bits


def firmware() -> Firmware:
    """Version and status of the firmware. The library prints every byte of the reply to standard error."""
    version, status = ffi.new("uint16_t *"), ffi.new("uint32_t *")
    _call.check(lib.ks_return_fw_version_and_status(version, status))
    return Firmware(version[0], status[0])


def compact() -> None:
    """Has the keystore compact its memory, and waits until that is done."""
    _call.check(lib.ks_compact_fw_memory())
