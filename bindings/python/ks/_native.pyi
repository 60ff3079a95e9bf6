# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

# What cffi makes has no types that a checker could read: ks.raw tells what is there.
from typing import Any

ffi: Any
lib: Any
