# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""The PAC store: Protected Access Credentials of EAP-FAST (RFC 4851).

A PAC is named by its A-ID, 1 to 31 bytes of any value. Its key goes into the keystore and never comes back; its
metadata, an opaque and an info (see ks.tlv), does. Reads are answered from the PAC cache when that has the PAC. Nothing
here but clear_expired changes the cache: a PAC that is stored or cleared leaves a cached copy as it was (see ks.cache).
"""

from __future__ import annotations

import contextlib
import time
from typing import Any, Callable, Iterator, Optional, overload

from . import _call, cache, errors, tlv
from ._native import ffi, lib

_KEY_MAX = 65535  # what the service takes


def store(aid: _call.Buffer, key: _call.Buffer, *, opaque: _call.Buffer, info: _call.Buffer) -> None:
    """Makes or replaces the PAC: its key, and its opaque and info, each one whole TLV as ks.tlv makes it."""
    name = _call.aid(aid)
    secret = _call.data(key, "a PAC's key", 1, _KEY_MAX)
    first = _call.data(opaque, "an opaque", 1, _call.UINT16_MAX)
    second = _call.data(info, "an info", 1, _call.UINT16_MAX)
    _call.check(lib.ks_store_pac(name, len(name), secret, len(secret), first, len(first), second, len(second)))


def _read(operation: Callable[..., int], aid: _call.Buffer) -> bytes:
    name = _call.aid(aid)
    block, size = ffi.new("uint8_t **"), ffi.new("uint32_t *")
    _call.check(operation(name, len(name), block, size))
    return _call.taken(block[0], size[0])


def opaque(aid: _call.Buffer) -> bytes:
    """The opaque of the PAC, a whole TLV, expired or not."""
    return _read(lib.ks_return_pac_opaque, aid)


def info(aid: _call.Buffer) -> bytes:
    """The info of the PAC, a whole TLV, for tlv.read_info."""
    return _read(lib.ks_return_pac_info, aid)


def expiration(aid: _call.Buffer) -> Optional[int]:
    """When the PAC expires, in seconds since 1970, or None where its info doesn't say. Compare it with time.time().

    The answer comes from the cache where that has the PAC: write the cache anew whenever a PAC is replaced.
    """
    name = _call.aid(aid)
    expires = int(lib.ks_get_pac_expiration(name, len(name)))
    if expires != 0:
        return expires
    info(aid)  # 0 stands for every failure, too: this one raises
    return None


def exists(aid: _call.Buffer) -> bool:
    """Whether there is such a PAC, in the cache or in the keystore.

    It reads the PAC's info: the library's own operation ends the process in an ordinary state of the cache. Raises
    Failure where the PAC's metadata is damaged.
    """
    try:
        info(aid)
    except errors.NotFound:
        return False
    return True


def aids() -> Iterator[bytes]:
    """The A-IDs of the caller's PACs in the keystore, each asked for when it is wanted.

    An entry that comes or goes meanwhile moves the others: take list(aids()) before you change anything.
    """
    position = ffi.new("uint16_t *")
    while True:
        before = position[0]
        aid = _next(position)
        if aid is None:
            return
        yield aid
        if position[0] <= before:  # behind the last position that 16 bits count
            return


def _next(position: Any) -> Optional[bytes]:
    """The A-ID from a position on, which moves behind it; None at the end of the table."""
    block, size = ffi.new("uint8_t **"), ffi.new("uint16_t *")
    code = lib.ks_return_aid_by_index(position, block, size)
    if code == lib.KS_NO_MORE_ENTRIES:
        return None
    _call.check(code)
    return _call.taken(block[0], size[0])


def clear(aid: _call.Buffer) -> None:
    """Removes the PAC from the keystore. A cached copy stays, and is still found: cache.clear removes it.

    Raises PacsHeld while the sup state holds every PAC.
    """
    name = _call.aid(aid)
    _call.check(lib.ks_clear_pac(name, len(name)))


def clear_all() -> None:
    """Removes all of the caller's PACs from the keystore, up to the first that can't be removed. Cached copies stay."""
    _call.check(lib.ks_clear_all_pacs())


def clear_expired(now: Optional[_call.Time] = None) -> list[bytes]:
    """Removes the PACs that expired before or at `now`, the present unless given, and their cached copies.

    Gives the A-IDs that it removed. PACs that don't say when they expire stay. It stands for the library's
    ks_clear_old_pacs, which compares times byte-reversed and removes most PACs that still live.
    """
    limit = _call.seconds(time.time() if now is None else now)
    gone: list[bytes] = []
    position = ffi.new("uint16_t *")
    while True:
        before = position[0]
        aid = _next(position)
        if aid is None:
            return gone
        if 0 < lib.ks_get_pac_expiration(aid, len(aid)) <= limit:
            with contextlib.suppress(errors.NotFound):  # when another process was quicker
                clear(aid)
                gone.append(aid)
            if cache.is_open() and cache.exists(aid):
                cache.clear(aid)
            position[0] -= 1  # the table closed up
        elif position[0] <= before:
            return gone


def still_valid(metadata: _call.Buffer, identity: str, now: Optional[_call.Time] = None) -> bool:
    """Whether a PAC with this metadata is to be kept for `identity`: its info has that identity, and hasn't expired.

    An info without a lifetime doesn't expire. Damaged metadata isn't kept. It stands for the library's
    ks_sw_pac_still_valid, which compares times byte-reversed.
    """
    try:
        whole = next(tlv.make(kind, value) for kind, value in tlv.items(metadata) if kind == tlv.INFO)
        said = tlv.read_info(whole)
    except (StopIteration, ValueError):
        return False
    limit = _call.seconds(time.time() if now is None else now)
    return said.identity == identity and (said.expires is None or said.expires > limit)


@overload
def t_prf(aid: _call.Buffer, label: _call.Label, random: Optional[_call.Buffer] = None, *, size: int) -> bytes: ...
@overload
def t_prf(aid: _call.Buffer, label: _call.Label, random: Optional[_call.Buffer] = None, *, size: int,
          out: _call.Writable) -> _call.Writable: ...
def t_prf(aid: _call.Buffer, label: _call.Label, random: Optional[_call.Buffer] = None, *, size: int,
          out: Optional[_call.Writable] = None) -> bytes | _call.Writable:
    """The T-PRF of RFC 4851 on the PAC's key: `size` bytes, 1 to 65,535; into `out` where it is given.

    `label` and `random`, if any, are the seed; the service takes up to 1,024 bytes of each. A result that the cache has
    for the same seed comes from there. One of another size than `size` raises Failure, because the library would take
    a shorter one for a success, and never asks the keystore: write the cache anew with cache.write.
    """
    if not 1 <= size <= _call.UINT16_MAX:
        raise ValueError(f"a T-PRF has 1 to {_call.UINT16_MAX} bytes, not {size}")
    name = _call.aid(aid)
    raw_label = _call.label(label)
    seed, seed_size = _call.seed(random)
    output = _call.room(size, out)
    if lib.is_cache_present() == 1 or lib.ks_sdb_init(lib.app_uuid) == lib.KS_SUCCESS:
        # Where the library itself finds one that is too long, or opens the cache, it keeps the copy for good.
        try:
            cached = cache.pac_t_prf(aid, label, random)
        except errors.Error:
            pass
        else:
            if len(cached) != size:
                raise errors.Failure(lib.KS_FAILURE, f"the cache has a T-PRF of {len(cached)} bytes for this label and "
                                     f"random, not of {size}; cache.write makes the entry anew without it")
            ffi.memmove(output, cached, size)
            return cached if out is None else out
    _call.whole(output, size, lambda: int(lib.ks_pac_key_t_prf(
        name, len(name), raw_label, len(raw_label), seed, seed_size, output, size)))
    return _call.content(output) if out is None else out


def hmac_sha1(aid: _call.Buffer, data: _call.Buffer) -> bytes:
    """The HMAC-SHA1 of 1 to 1,024 bytes under the PAC's key. It always asks the keystore."""
    name = _call.aid(aid)
    view = _call.hmac_input(data)
    output = ffi.new("uint8_t[]", lib.KS_SHA1_SIZE)
    _call.check(lib.ks_hmac_sha1_for_pac(name, len(name), view, len(view), output))
    return _call.content(output)
