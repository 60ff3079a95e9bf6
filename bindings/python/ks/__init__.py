# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""Secrets and EAP-FAST PACs in a keystore, and cryptography on keys that never leave it.

    import ks

    ks.init(1)
    ks.secrets.store("wifi-psk", b"correct horse battery staple")
    print(ks.crypto.hmac_sha1("wifi-psk", b"data").hex())

Operations stand in modules by family: secrets, crypto, mschap, pacs, cache and device. ks.tlv makes and reads a PAC's
metadata, and ks.raw is the C interface as it is. ks.testing, to be imported by name, gives tests their own keystore.
Whatever isn't a success raises ks.Error or a subclass. Arguments that C couldn't count raise ValueError before anything
is sent.

ks.init comes first and ends before other threads enter. After it any thread may call anything: other threads run while
a call waits for the service. A child of fork goes on where its parent was, over connections of its own.
"""

from . import cache, crypto, device, mschap, pacs, raw, secrets, tlv
from ._start import State, init, state
from .errors import (
    BadKey, CryptError, DatabaseError, Error, ExchangeFailed, Failure, InvalidArgs, KeyLengthUnsupported, NoMemory,
    NotFound, PacsHeld, RpcError, StoreFull, Timeout, TooLarge, text_of,
)

__all__ = [
    "BadKey", "CryptError", "DatabaseError", "Error", "ExchangeFailed", "Failure", "InvalidArgs",
    "KeyLengthUnsupported", "NoMemory", "NotFound", "PacsHeld", "RpcError", "State", "StoreFull", "Timeout", "TooLarge",
    "cache", "crypto", "device", "init", "mschap", "pacs", "raw", "secrets", "state", "text_of", "tlv",
]
