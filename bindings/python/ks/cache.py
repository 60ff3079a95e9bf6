# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""The PAC cache: PACs' metadata and T-PRF results in a shared database, read without asking the keystore.

The library's own operations only read it: programs that store PACs fill it. An entry belongs to a VDC and an A-ID and
doesn't expire: it may outlive the keystore's PAC. `vdc` is the caller's own unless given. Nothing is locked; a writer
deletes the old entry first, and readers find none until it is done.
"""

from __future__ import annotations

import sys
from typing import Any, Callable, Literal, Optional

from . import _call, errors
from ._native import ffi, lib

_TAG: int = lib.KS_NAME_TAG_PAC
_KEY_MIN = 4  # what a report reads of a key
_PAC_KEY_TYPE: int = lib.KS_CACHE_KEY_TYPE_PAC
_UINT32_MAX = 0xFFFFFFFF
_BYTE_ORDER: Literal["little", "big"] = sys.byteorder


def _name(aid: _call.Buffer, vdc: Optional[int]) -> bytes:
    """A PAC as the entries' functions name it."""
    number = lib.vdc_id if vdc is None else vdc
    if not 0 <= number <= _call.UINT16_MAX:
        raise ValueError(f"a VDC id is 0 to {_call.UINT16_MAX}, not {number}")
    return bytes([_TAG, 0, number >> 8, number & 0xFF]) + bytes(_call.aid(aid))


def open(app_uuid: Optional[int] = None) -> None:
    """Opens the cache, which ks.init and each read of a PAC try as well. Raises Failure where it won't open.

    A cache that was open counts as closed after a failure.
    """
    _call.check_local(lib.ks_sdb_init(lib.app_uuid if app_uuid is None else app_uuid))


def is_open() -> bool:
    """Whether the cache is open in this process. It neither opens nor probes anything."""
    return bool(lib.is_cache_present() == 1)


def write(aid: _call.Buffer, metadata: _call.Buffer, *, vdc: Optional[int] = None) -> None:
    """Replaces the PAC's entry with one that holds `metadata` (its opaque and info) and no T-PRF result.

    When it fails the old entry is gone all the same; where the database refused, the library keeps the value's memory.
    """
    name = _name(aid, vdc)
    view = _call.data(metadata, "metadata", 0, _call.UINT16_MAX)
    _call.check_local(lib.ks_cache_pac_write(name, len(name), view, len(view)))


def _taken(operation: Callable[..., int], *arguments: Any) -> bytes:
    """What an operation hands out of the cache."""
    block, size = ffi.new("uint8_t **"), ffi.new("uint16_t *")
    _call.check_local(operation(*arguments, block, size))
    return _call.taken(block[0], size[0])


def read(aid: _call.Buffer, *, vdc: Optional[int] = None) -> bytes:
    """The metadata in the PAC's entry. Raises NotFound where there is no entry."""
    name = _name(aid, vdc)
    return _taken(lib.ks_cache_read_pac, name, len(name))


def exists(aid: _call.Buffer) -> bool:
    """Whether the caller's VDC has an entry for the PAC."""
    name = _call.aid(aid)
    found = ffi.new("uint32_t *")
    code = lib.ks_cache_find_pac(name, len(name), found)
    if code not in (lib.KS_SUCCESS, lib.KS_NOT_FOUND):
        raise errors.of_process(code)
    return bool(found[0])


def clear(aid: _call.Buffer, *, vdc: Optional[int] = None) -> None:
    """Deletes the PAC's entry. Raises Failure when the database refused, which may be for want of an entry."""
    name = _name(aid, vdc)
    _call.check_local(lib.ks_cache_pac_clear(name, len(name)))


def write_t_prf(aid: _call.Buffer, label: _call.Label, random: Optional[_call.Buffer],
                output: _call.Buffer, *, vdc: Optional[int] = None) -> None:
    """Puts a T-PRF result into the PAC's entry, in place of the one that may be there. Its metadata stays.

    Raises NotFound where there is no entry. After another failure the entry is gone. Each call keeps two copies of the
    metadata in memory for good: this is for programs that write when a PAC is stored, not for each use.
    """
    name = _name(aid, vdc)
    view = _call.label(label)
    chosen, chosen_size = _call.seed(random)
    result = _call.data(output, "a T-PRF result", 1, _call.UINT16_MAX)
    _call.check_local(lib.ks_cache_pac_write_tprf(name, len(name), view, len(view), chosen, chosen_size, result,
                                                  len(result)))


def read_t_prf(aid: _call.Buffer, label: _call.Label, random: Optional[_call.Buffer] = None, *,
               vdc: Optional[int] = None) -> bytes:
    """The T-PRF result in the PAC's entry, when it was stored with this label and random.

    Raises NotFound where there is no entry, and Failure where it has no result or that of another label or random.
    """
    name = _name(aid, vdc)
    view = _call.label(label)
    return _taken(lib.ks_cache_read_tprf, name, len(name), view, len(view), *_call.seed(random))


def pac_opaque(aid: _call.Buffer) -> bytes:
    """The opaque of the PAC as pacs.opaque gives it, from the cache alone."""
    name = _call.aid(aid)
    return _taken(lib.ks_cache_get_pac_opaque, name, len(name))


def pac_info(aid: _call.Buffer) -> bytes:
    """The info of the PAC as pacs.info gives it, from the cache alone."""
    name = _call.aid(aid)
    return _taken(lib.ks_cache_get_pac_info, name, len(name))


def pac_t_prf(aid: _call.Buffer, label: _call.Label, random: Optional[_call.Buffer] = None) -> bytes:
    """The T-PRF result for the PAC that pacs.t_prf would find, from the cache alone."""
    name = _call.aid(aid)
    view = _call.label(label)
    return _taken(lib.ks_cache_get_pac_tprf, name, len(name), view, len(view), *_call.seed(random))


def purge_all() -> None:
    """Deletes every key of the cache. A key that couldn't be deleted isn't told."""
    _call.check_local(lib.ks_cache_purge_all())


def purge_vdc_keys() -> None:
    """Deletes the caller's keys and, as things are, those of all other VDCs' PACs."""
    _call.check_local(lib.ks_cache_purge_vdc_keys())


def _key(value: _call.Buffer) -> Any:
    return _call.data(value, "a key of the database", _KEY_MIN, _UINT32_MAX)


def _check_database(code: int) -> None:
    if code != 0:
        raise errors.DatabaseError(code)


def database_read(key: _call.Buffer) -> bytes:
    """The value of a key of any kind. Raises DatabaseError with the database's own code."""
    view = _key(key)
    error = ffi.new("uint32_t *")
    value = lib.sksd_sdb_read(view, len(view), error)
    _check_database(error[0])
    return bytes(ffi.buffer(value.data, value.size)) if value and value.size else b""


def database_write(key: _call.Buffer, value: _call.Buffer) -> None:
    """Stores a value under a key that isn't a PAC's. Raises DatabaseError with the database's own code.

    The readers of PACs believe the lengths in an entry: PACs' entries come from write and write_t_prf.
    """
    view = _key(key)
    if int.from_bytes(bytes(view[0:_KEY_MIN]), _BYTE_ORDER) == _PAC_KEY_TYPE:
        raise ValueError("the key is a PAC's; use cache.write")
    content = _call.data(value, "a value of the database", 0, _UINT32_MAX)
    _check_database(lib.sksd_sdb_write(view, len(view), content, len(content)))


def database_delete(key: _call.Buffer) -> None:
    """Removes a key of any kind. Raises DatabaseError with the database's own code."""
    view = _key(key)
    _check_database(lib.sksd_sdb_delete(view, len(view)))
