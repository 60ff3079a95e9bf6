# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""The C interface as it stands, by cffi: `lib` has the headers' functions, numbers and variables, `ffi` their records.

It is for the companions ks_x_req and ks_x_resp, which build requests and read replies for programs that run exchanges
themselves. Nothing is checked on the way: lengths are cut, and what docs/conventions.md tells of leaks and faults
happens here. A block that is handed out is released with lib.free.

    from ks.raw import ffi, lib

    descriptor = ffi.new("KsRandomDescriptor *")
    lib.ks_generate_random_number_req(16, 0, descriptor)
"""

from ._native import ffi, lib

__all__ = ["ffi", "lib"]
