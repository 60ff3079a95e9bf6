# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""Starting the library, and what it knows of this process."""

from __future__ import annotations

import threading
from typing import NamedTuple, Optional

from . import errors
from ._native import ffi, lib

_lock = threading.Lock()
_started: Optional[tuple[int, int, int]] = None


def init(app_uuid: int, *, first: int = 0, third: int = 0) -> None:
    """Starts the library for this process, once, before its first operation.

    `app_uuid` is the caller's application identifier; `first` and `third` go to the message service unseen. All three
    are unsigned numbers of 32 bits. A second call with the same arguments does nothing; one with others raises
    RuntimeError, because a process has one identity. After a failure it may be called again. Nothing ends the library:
    connections close with the process, and a child of fork makes its own.

    Raises ExchangeFailed, which says what was met and what to do about it, when the message service can't be bound.
    """
    global _started
    with _lock:
        arguments = (first, app_uuid, third)
        if _started == arguments:
            return
        if _started is not None:
            raise RuntimeError(f"ks.init was called with app_uuid {_started[1]} before; a process is started once")
        code = lib.ks_init(*arguments)
        if code != lib.KS_SUCCESS:
            raise errors.of_binding(code)
        _started = arguments


def is_started() -> bool:
    """Whether ks.init has succeeded in this process."""
    return _started is not None


class State(NamedTuple):
    """What the library knows of this process."""

    message_queue: Optional[int]  # None before ks.init
    vdc_id: int  # 0 before ks.init
    app_uuid: int
    cache_open: bool
    cache_uri: str


def state() -> State:
    """What the library knows of this process, as ks.init and the opening of the cache left it."""
    queue = lib.ks_mts_q
    return State(None if queue == errors.NO_QUEUE else queue, lib.vdc_id, lib.app_uuid, lib.ks_cache_present == 1,
                 ffi.string(lib.ks_cache_uri).decode(errors="replace"))
