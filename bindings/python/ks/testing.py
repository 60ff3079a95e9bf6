# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""A keystore service of its own for a test, by ks-session (of the package ks-tools, or of the build's folder)."""

from __future__ import annotations

import contextlib
import json
import os
import subprocess
import sys
from typing import Iterator

from . import _start

# What the session's own process does: it tells its environment and waits for the end of its input.
_HOLD = "import json, os, sys; print(json.dumps(dict(os.environ)), flush=True); sys.stdin.read()"
_END_LIMIT_S = 10
_SET = ("KS_SOCKET", "KS_SESSION_DIR")


@contextlib.contextmanager
def private_keystore(app_uuid: int = 1, *, vdc: int = 1, program: str = "ks-session") -> Iterator[str]:
    """Starts a service and the library on it, and takes both down at the end of the block; gives the service's folder.

    with ks.testing.private_keystore():
        ks.secrets.store("name", b"value")

    A process has one, and begins with it: what the library learns when it starts (the VDC, the place of the cache) is
    the process's for good. Behind the block every operation fails. To run a whole program against a keystore of its
    own, write `ks-session -- python3 program.py` instead.
    """
    if _start.is_started():
        raise RuntimeError("the library has been started in this process, and stays with its service")
    command = [program, "--vdc", str(vdc), "--", sys.executable, "-c", _HOLD]
    before = {name: os.environ.get(name) for name in _SET}
    with subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True) as session:
        assert session.stdin is not None and session.stdout is not None
        try:
            told = session.stdout.readline()
            if not told:
                raise RuntimeError(f"{program} gave no session; it ended with {session.wait()}")
            environment = json.loads(told)
            os.environ.update({name: environment[name] for name in _SET})
            _start.init(app_uuid)
            yield environment["KS_SESSION_DIR"]
        finally:
            for name, value in before.items():
                if value is None:
                    os.environ.pop(name, None)
                else:
                    os.environ[name] = value
            session.stdin.close()
            try:
                session.wait(_END_LIMIT_S)
            except subprocess.TimeoutExpired:
                session.kill()  # the service ends with it
