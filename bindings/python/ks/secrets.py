# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""The secret store: secrets are kept under names, used by name, and never given back.

A name is a str (UTF-8) or bytes of 1 to 31 bytes without a NUL. Names belong to the caller's VDC.
"""

from __future__ import annotations

import contextlib
import os
from typing import Iterator, Optional

from . import _call, errors
from ._native import ffi, lib

_SECRET_MAX = 256
_ADDED_METADATA_MAX = 1024


def store(name: _call.Name, secret: _call.Buffer, *, metadata: Optional[_call.Buffer] = None,
          linked_name: Optional[_call.Name] = None) -> None:
    """Stores `secret`, 1 to 256 bytes, under `name`. An entry of that name is replaced by the keystore daemon.

    `metadata` is kept with it and can be read back, at most 65,535 bytes. `linked_name` is a further name for the
    entry. A secret in a bytearray or memoryview is read where it lies: set it to zeros afterwards. (Of a bytes object
    no program can say how many copies there are.)
    """
    raw_name = _call.secret_name(name)
    # The library takes over the memory of a secret with an empty linked name: there is none.
    linked = ffi.NULL if linked_name is None else _call.secret_name(linked_name)
    view = _call.data(secret, "a secret", 1, _SECRET_MAX)
    described, described_size = _call.optional(metadata, "metadata", _call.UINT16_MAX)
    _call.check(lib.ks_store_secret_and_metadata(raw_name, linked, view, len(view), described, described_size))


def add_metadata(name: _call.Name, metadata: _call.Buffer) -> None:
    """Gives the secret metadata, at most 1,024 bytes, in place of what it may have."""
    view = _call.data(metadata, "added metadata", 0, _ADDED_METADATA_MAX)
    _call.check(lib.ks_add_metadata(_call.secret_name(name), view, len(view)))


def metadata(name: _call.Name) -> bytes:
    """The metadata of the secret; empty where it has none."""
    block, size = ffi.new("uint8_t **"), ffi.new("uint16_t *")
    _call.check(lib.ks_return_metadata(_call.secret_name(name), block, size))
    return _call.taken(block[0], size[0])


def exists(name: _call.Name) -> bool:
    """Whether the caller's VDC has a secret of that name."""
    found = ffi.new("uint32_t *")
    _call.check(lib.ks_secret_exists(_call.secret_name(name), found))
    return bool(found[0])


def names() -> Iterator[str]:
    """The names of the caller's secrets, each asked for when it is wanted.

    An entry that comes or goes meanwhile moves the others: one may be told twice, or passed over. Take list(names())
    before you change anything. Bytes of a name that aren't UTF-8 come as surrogates, and lead to the same secret.
    """
    position, block = ffi.new("uint16_t *"), ffi.new("char **")
    while True:
        before = position[0]
        code = lib.ks_return_secret_handle_by_index(position, block)
        if code == lib.KS_NO_MORE_ENTRIES:
            return
        _call.check(code)
        try:
            name = ffi.string(block[0])
        finally:
            lib.free(block[0])
        yield name.decode("utf-8", "surrogateescape")
        if position[0] <= before:  # behind the last position that 16 bits count
            return


def rename(old_name: _call.Name, new_name: _call.Name, *, linked_name: Optional[_call.Name] = None) -> None:
    """Gives the secret another name. Two equal names are a success, whether there is such a secret or not.

    Of `linked_name` the library sends one byte, to which the service gives no meaning today.
    """
    linked = ffi.NULL if linked_name is None else _call.secret_name(linked_name)
    _call.check(lib.ks_rename_secret(_call.secret_name(old_name), _call.secret_name(new_name), linked))


def clear(name: _call.Name) -> None:
    """Removes the secret."""
    _call.check(lib.ks_clear_secret(_call.secret_name(name)))


@contextlib.contextmanager
def temporary(secret: _call.Buffer, *, metadata: Optional[_call.Buffer] = None) -> Iterator[str]:
    """Keeps a secret under a name of its own for as long as the block runs.

    with ks.secrets.temporary(key) as name:
        tag = ks.crypto.hmac_sha1(name, data)

    A program that is killed in the block leaves the secret behind; its name begins with "tmp-".
    """
    name = "tmp-" + os.urandom(12).hex()
    store(name, secret, metadata=metadata)
    try:
        yield name
    finally:
        with contextlib.suppress(errors.NotFound):
            clear(name)
