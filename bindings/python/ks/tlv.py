# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""A PAC's metadata, made and read: its opaque and its info, each a TLV with numbers in big-endian order.

opaque() and info() make what pacs.store takes. Wherever an opaque or an info is data, the whole TLV is meant.
"""

from __future__ import annotations

import struct
from typing import Iterable, Iterator, NamedTuple, Optional

from . import _call
from ._native import lib

OPAQUE: int = lib.EAP_FAST_PAC_OPAQUE
INFO: int = lib.EAP_FAST_PAC_INFO
LIFETIME: int = lib.EAP_FAST_PAC_LIFETIME
IDENTITY: int = lib.EAP_FAST_PAC_I_ID
MANDATORY: int = lib.KS_PAC_TLV_MANDATORY

_HEADER = struct.Struct(">HH")
_TIME = struct.Struct(">I")


def make(kind: int, value: _call.Buffer) -> bytes:
    """A TLV of the type `kind`, with a value of at most 65,535 bytes."""
    content = bytes(_call.data(value, "a TLV's value", 0, _call.UINT16_MAX))
    return _HEADER.pack(kind, len(content)) + content


def opaque(value: _call.Buffer) -> bytes:
    """The opaque of a PAC."""
    return make(OPAQUE, value)


def info(*, expires: Optional[_call.Time] = None, identity: Optional[_call.Name] = None,
         others: Iterable[tuple[int, _call.Buffer]] = ()) -> bytes:
    """The info of a PAC: when it expires (seconds since 1970, or a datetime), whom it is for, and other inner TLVs."""
    inner = []
    if expires is not None:
        time = _call.seconds(expires)
        if not 0 <= time <= 0xFFFFFFFF:
            raise ValueError(f"a PAC expires within the 32 bits of seconds since 1970, not at {time}")
        inner.append(make(LIFETIME, _TIME.pack(time)))
    if identity is not None:
        inner.append(make(IDENTITY, _call.text(identity, "an identity", _call.UINT16_MAX)))
    inner += [make(kind, value) for kind, value in others]
    return make(INFO, b"".join(inner))


def items(data: _call.Buffer) -> Iterator[tuple[int, bytes]]:
    """Type and value of each TLV in a sequence. Raises ValueError at one that is cut."""
    view = memoryview(bytes(data))
    while view:
        if len(view) < _HEADER.size:
            raise ValueError(f"{len(view)} bytes are no TLV, whose header alone has {_HEADER.size}")
        kind, size = _HEADER.unpack_from(view)
        if len(view) < _HEADER.size + size:
            raise ValueError(f"a TLV of type {kind} says {size} bytes, and {len(view) - _HEADER.size} are there")
        yield kind, bytes(view[_HEADER.size:_HEADER.size + size])
        view = view[_HEADER.size + size:]


class Info(NamedTuple):
    """What an info says."""

    expires: Optional[int]  # seconds since 1970; None: it doesn't say
    identity: Optional[str]  # None: it is for nobody in particular


def read_info(tlv: _call.Buffer) -> Info:
    """What an info says; the first lifetime and the first identity count. Raises ValueError where it is damaged."""
    outer = list(items(tlv))
    if len(outer) != 1 or outer[0][0] != INFO:
        raise ValueError(f"an info is one TLV of type {INFO}; these are of {[kind for kind, _ in outer]}")
    expires: Optional[int] = None
    identity: Optional[str] = None
    for kind, value in items(outer[0][1]):
        kind &= ~MANDATORY
        if kind == LIFETIME and expires is None:
            if len(value) != _TIME.size:
                raise ValueError(f"a lifetime has {_TIME.size} bytes; this one has {len(value)}")
            expires = _TIME.unpack(value)[0]
        elif kind == IDENTITY and identity is None:
            identity = value.removesuffix(b"\0").decode("utf-8", "surrogateescape")
    return Info(expires, identity)
