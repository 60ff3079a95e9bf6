# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""What every call of the library takes: arguments of the lengths that it can count, outputs, and results checked."""

from __future__ import annotations

import datetime
from typing import Any, Callable, Optional, TypeVar, Union

from . import errors
from ._native import ffi, lib

Buffer = Union[bytes, bytearray, memoryview]
Name = Union[str, bytes]
Label = Union[str, Buffer]
Time = Union[int, float, datetime.datetime]
Writable = TypeVar("Writable", bytearray, memoryview)

NAME_MAX: int = lib.KS_NAME_MAX
AID_MAX: int = lib.KS_PAC_NAME_MAX
UINT16_MAX = 0xFFFF
PIECE_MAX = 1024  # bytes of a DES text, and of what digests and HMACs are made of

_BYTES = ffi.typeof("uint8_t[]")
_SUCCESS: int = lib.KS_SUCCESS
_new = ffi.new
_buffer = ffi.buffer
_from_buffer = ffi.from_buffer


def check(code: int) -> None:
    """Raises unless an operation that asks the service succeeded."""
    if code != _SUCCESS:
        raise errors.of_exchange(code)


def check_local(code: int) -> None:
    """Raises unless an operation that asks nobody succeeded."""
    if code != _SUCCESS:
        raise errors.of_process(code)


def text(value: Name, what: str, most: int, least: int = 1) -> bytes:
    """A text as C takes it: UTF-8 of `least` to `most` bytes without a NUL."""
    raw = value.encode("utf-8", "surrogateescape") if isinstance(value, str) else value
    if not isinstance(raw, bytes):
        raise TypeError(f"{what} is a str or bytes, not {type(value).__name__}")
    if not least <= len(raw) <= most:
        raise ValueError(f"{what} has {least} to {most} bytes; this one has {len(raw)}")
    if b"\0" in raw:
        raise ValueError(f"{what} has no NUL byte; this one has")
    return raw


def secret_name(value: Name) -> bytes:
    """The name of a secret."""
    return text(value, "a secret's name", NAME_MAX)


def data(value: Buffer, what: str, least: int, most: int, multiple_of: int = 1) -> Any:
    """The bytes of any buffer, where they lie. While the result lives the buffer isn't resized."""
    try:
        view = _from_buffer(_BYTES, value)
    except TypeError:
        raise TypeError(f"{what} is bytes, a bytearray or a memoryview, not {type(value).__name__}") from None
    if not least <= len(view) <= most:
        limits = f"{least} to {most}" if least != most else str(most)
        raise ValueError(f"{what} has {limits} bytes; this has {len(view)}")
    if len(view) % multiple_of != 0:
        raise ValueError(f"{what} is a multiple of {multiple_of} bytes; this has {len(view)}")
    return view


def optional(value: Optional[Buffer], what: str, most: int) -> tuple[Any, int]:
    """Pointer and length of bytes that may be absent."""
    if value is None:
        return ffi.NULL, 0
    view = data(value, what, 0, most)
    return view, len(view)


def aid(value: Buffer) -> Any:
    """A PAC's name."""
    return data(value, "an A-ID", 1, AID_MAX)


def hmac_input(value: Buffer) -> Any:
    """What an HMAC is made of."""
    return data(value, "what an HMAC is made of", 1, PIECE_MAX)


def label(value: Label) -> Any:
    """The label of a T-PRF."""
    return data(value.encode() if isinstance(value, str) else value, "a T-PRF's label", 1, UINT16_MAX)


def seed(value: Optional[Buffer]) -> tuple[Any, int]:
    """Pointer and length of a T-PRF's random: an empty one is none."""
    view, size = optional(value, "a T-PRF's random", UINT16_MAX)
    return (view, size) if size else (ffi.NULL, 0)


def room(size: int, out: Optional[Union[bytearray, memoryview]] = None) -> Any:
    """Where an output of `size` bytes goes: into `out`, or into zeroed memory of its own."""
    if out is None:
        return _new(_BYTES, size)
    view = _from_buffer(_BYTES, out, True)  # writable
    if len(view) != size:
        raise ValueError(f"out has {size} bytes, as many as the result; this has {len(view)}")
    return view


def content(output: Any) -> bytes:
    """The bytes of an output."""
    return _buffer(output)[:]  # type: ignore[no-any-return]


def taken(block: Any, size: int) -> bytes:
    """The bytes of a block that the library handed out, which is released."""
    try:
        return bytes(_buffer(block, size)) if block else b""
    finally:
        lib.free(block)


def whole(output: Any, size: int, operation: Callable[[], int]) -> None:
    """Runs an operation that takes a reply shorter than asked for as a success, and raises where it was shorter.

    The last byte tells: it is set before the call and is another one behind it. Where the result happens to have the
    same byte there, the operation is run again with another.
    """
    for fill in b"\x00\xff\x55\xaa":
        output[size - 1] = fill
        check(operation())
        if output[size - 1] != fill:
            return
    raise errors.Failure(lib.KS_FAILURE, f"the result is shorter than {size} bytes")


def seconds(time: Time) -> int:
    """A time in whole seconds since 1970."""
    return int(time.timestamp() if isinstance(time, datetime.datetime) else time)
