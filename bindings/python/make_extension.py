#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""make_extension.py INCLUDE OUT: writes the C source of ks._native, by which Python calls libks.

What is declared to Python is read from the public headers, so that there is no second list of functions, records and
codes. The compiler sees the headers themselves and refuses what doesn't agree with them.
"""

import re
import sys
from pathlib import Path

import cffi

HEADERS = ("ks_types.h", "ks_device.h", "ks_secret.h", "ks_crypto.h", "ks_pac.h", "ks_cache.h", "ks_api.h")
COMMENT = re.compile(r"/\*.*?\*/", re.S)
NUMBER = re.compile(r"^#define (\w+) (?:UINT32_C\()?(0x[0-9a-f]+|[0-9]+)\)?\s*$", re.M)
DIRECTIVE = re.compile(r"^#(?:[^\n\\]|\\.|\\\n)*$", re.M)
ASSERTION = re.compile(r"^KS_STATIC_ASSERT\(.*?\);$", re.M)
PACKED = re.compile(r"typedef struct \{[^}]*\} __attribute__\(\(packed\)\) \w+;")

# Beside the headers: memory that is handed out, and what the platform tells in words.
OTHERS = """
void free(void *);
const char *ks_last_error(char *text, size_t size);
const char *syserr2str(uint32_t code);
"""
SOURCE = """
#include <host_mts.h>
#include <ks_api.h>
#include <sdb.h>
#include <stdlib.h>

/* Where another platform is underneath there are no words. */
static const char *ks_last_error(char *text, size_t size) {
  if (mts_last_error_get != NULL) return mts_last_error_get(text, size);
  text[0] = '\\0';
  return text;
}
"""


def declarations(include):
    """(numbers and records that are packed, all else) of the public headers, as cffi reads them."""
    numbers, packed, others = [], [], []
    for header in HEADERS:
        text = COMMENT.sub("", (include / header).read_text())
        numbers += [f"#define {name} {value}" for name, value in NUMBER.findall(text)]
        text = ASSERTION.sub("", DIRECTIVE.sub("", text))
        packed += [record.replace("__attribute__((packed)) ", "") for record in PACKED.findall(text)]
        others.append(PACKED.sub("", text).replace("KS_EXPORT ", "extern "))
    return numbers, packed, others


def main():
    include, out = Path(sys.argv[1]), sys.argv[2]
    numbers, packed, others = declarations(include)
    ffi = cffi.FFI()
    ffi.cdef("\n".join(numbers))
    # A packed record may hold records of the others.
    ffi.cdef(others[0])
    ffi.cdef("\n".join(packed), packed=True)
    ffi.cdef("\n".join(others[1:]) + OTHERS)
    ffi.set_source("ks._native", SOURCE)
    ffi.emit_c_code(out)


if __name__ == "__main__":
    main()
