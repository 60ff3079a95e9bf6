# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""What operations raise: one class, and a subclass for each result that programs act on.

docs/codes.md tells of every code when it comes and what to do.
"""

from __future__ import annotations

from ._native import ffi, lib

_RESULTS = (
    "KS_NOT_REGISTERED", "KS_SUCCESS", "KS_FAILURE", "KS_INVALID_ARGS", "KS_NO_MEMORY", "KS_NOT_FOUND",
    "KS_NO_MORE_ENTRIES", "KS_STORE_FULL", "KS_TIMEOUT", "KS_BAD_KEY", "KS_CRYPT_ERROR", "KS_KEY_LEN_UNSUPPORTED",
    "KS_FW_COMM_ERROR", "KS_FW_COMPACT_CORRUPT", "KS_FW_BAD_CELL", "KS_FW_PANIC", "KS_BAD_FRAGMENT_SIZE",
    "KS_BAD_RESPONSE_FORMAT", "KS_VERSION_MISMATCH", "KS_RPC_TOO_LARGE", "KS_RPC_ERROR", "KS_FRAGMENT_UNSUPPORTED",
)
_NAMES = {int(getattr(lib, name)): name for name in _RESULTS}
_WORDS_SIZE = 512  # holds any of the platform's explanations
NO_QUEUE = 0xFFFFFFFF


def text_of(code: int) -> str:
    """The library's text of a result code; "NULL" for one that has none."""
    return str(ffi.string(lib.kserr2str(code)).decode())


class Error(Exception):
    """An operation's result that isn't a success.

    code    the number, one of KS_...
    name    its name, as "KS_NOT_FOUND"; "KS_<number>" for a code without one
    text    the library's text of it
    detail  what the exchange with the service met, and what to do about it; empty where the service itself answered
    """

    def __init__(self, code: int, detail: str = "") -> None:
        super().__init__(code, detail)
        self.code = code
        self.name = self._name_of(code)
        self.text = self._text_of(code)
        self.detail = detail

    @staticmethod
    def _name_of(code: int) -> str:
        return _NAMES.get(code, f"KS_{code}")

    @staticmethod
    def _text_of(code: int) -> str:
        return text_of(code)

    def __str__(self) -> str:
        return f"{self.name} ({self.code}): {self.text}" + (f"; {self.detail}" if self.detail else "")


class PacsHeld(Error):
    """KS_NOT_REGISTERED: the sup state holds every PAC, so none is removed."""


class Failure(Error):
    """KS_FAILURE: a reply or a PAC's metadata isn't as it must be, or the cache isn't open or refused."""


class InvalidArgs(Error, ValueError):
    """KS_INVALID_ARGS: the library or the service refuses an argument, such as a name that is another entry's."""


class NoMemory(Error, MemoryError):
    """KS_NO_MEMORY: this process or the service has no memory left."""


class NotFound(Error, LookupError):
    """KS_NOT_FOUND: there is no entry of that name in the caller's VDC."""


class StoreFull(Error):
    """KS_STORE_FULL: a limit on entries or bytes is reached, or the disk is full."""


class Timeout(Error):
    """KS_TIMEOUT: a device's service waited in vain for its chip. (An exchange that is given up is ExchangeFailed.)"""


class BadKey(Error):
    """KS_BAD_KEY: the secret isn't of a size or kind that the operation takes."""


class KeyLengthUnsupported(BadKey):
    """KS_KEY_LEN_UNSUPPORTED: the secret isn't of 16, 24 or 32 bytes, as AES needs."""


class CryptError(Error):
    """KS_CRYPT_ERROR: the algorithm failed its self-test when the service started."""


class ExchangeFailed(Error):
    """The service wasn't reached or didn't answer: KS_FW_COMM_ERROR, and KS_FAILURE where the platform tells why.

    Whether a change was made before the exchange failed isn't known: look before it is repeated.
    """


class TooLarge(Error):
    """KS_RPC_TOO_LARGE: request or reply is longer than the service takes."""


class RpcError(Error):
    """KS_RPC_ERROR: the service doesn't know the message, or not from this user."""


class DatabaseError(Error):
    """A code of the shared database itself, from cache.database_read and its siblings."""

    @staticmethod
    def _name_of(code: int) -> str:
        return f"0x{code:08x}"

    @staticmethod
    def _text_of(code: int) -> str:
        return str(ffi.string(lib.syserr2str(code)).decode())


_CLASSES: dict[int, type[Error]] = {
    lib.KS_NOT_REGISTERED: PacsHeld,
    lib.KS_FAILURE: Failure,
    lib.KS_INVALID_ARGS: InvalidArgs,
    lib.KS_NO_MEMORY: NoMemory,
    lib.KS_NOT_FOUND: NotFound,
    lib.KS_STORE_FULL: StoreFull,
    lib.KS_TIMEOUT: Timeout,
    lib.KS_BAD_KEY: BadKey,
    lib.KS_KEY_LEN_UNSUPPORTED: KeyLengthUnsupported,
    lib.KS_CRYPT_ERROR: CryptError,
    lib.KS_FW_COMM_ERROR: ExchangeFailed,
    lib.KS_RPC_TOO_LARGE: TooLarge,
    lib.KS_RPC_ERROR: RpcError,
}


def of_exchange(code: int) -> Error:
    """The exception for a result of an operation that asks the service, in the thread that asked."""
    if code not in (lib.KS_FAILURE, lib.KS_FW_COMM_ERROR):
        return of_process(code)
    if lib.ks_mts_q == NO_QUEUE:
        return ExchangeFailed(code, "ks.init hasn't been called, or failed")
    return of_binding(code)


def of_binding(code: int) -> Error:
    """The exception for a failure that the platform may tell more about, in the thread that met it."""
    told = ffi.string(lib.ks_last_error(ffi.new("char[]", _WORDS_SIZE), _WORDS_SIZE)).decode(errors="replace")
    return ExchangeFailed(code, told) if told else of_process(code)


def of_process(code: int) -> Error:
    """The exception for a result that was made without an exchange, or by the service."""
    return _CLASSES.get(code, Error)(code)
