# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""A keystore of a test's own, and what its service does: ks-session and ksctl are on the path."""

import os
import unittest

from support import OnSession, run_program

HELD = """
import pathlib, subprocess, sys
import ks, ks.testing

with ks.testing.private_keystore() as folder:
    ks.pacs.store(b"aid", b"key", opaque=ks.tlv.opaque(b"o"), info=ks.tlv.info(expires=1))
    config = pathlib.Path(folder, "ksd.toml")
    config.write_text(config.read_text().replace("[service]", "[service]\\nsupstate = 2", 1))
    subprocess.run(["ksctl", "reload"], check=True, stdout=subprocess.DEVNULL)
    for clear in (lambda: ks.pacs.clear(b"aid"), ks.pacs.clear_all, ks.pacs.clear_expired):
        try:
            clear()
        except ks.PacsHeld as error:
            print(error.code, list(ks.pacs.aids()))
"""

OWN = """
import os
import ks, ks.testing

with ks.testing.private_keystore(7, vdc=9) as folder:
    print(ks.state().vdc_id, ks.state().app_uuid, list(ks.secrets.names()), os.path.isdir(folder))
    ks.secrets.store("name", b"value")
    ks.cache.write(b"aid", b"metadata")
    print(list(ks.secrets.names()), ks.cache.read(b"aid"))
print(os.path.exists(folder), os.environ.get("KS_SOCKET"))
try:
    ks.secrets.exists("name")
except ks.ExchangeFailed as error:
    print("no keystore service is there" in error.detail)
try:
    with ks.testing.private_keystore():
        pass
except RuntimeError as error:
    print(error)
"""


KILLED = """
import os, pathlib, signal, time
import ks, ks.testing

with ks.testing.private_keystore() as folder:
    ks.secrets.store("name", b"value")
    before = pathlib.Path(folder, "ksd.pid").read_text()
    os.kill(int(before), signal.SIGKILL)
    deadline = time.monotonic() + 30
    while time.monotonic() < deadline:
        try:
            found = ks.secrets.exists("name")
            if pathlib.Path(folder, "ksd.pid").read_text() != before:
                print("found", found)
                break
        except ks.ExchangeFailed:
            pass
"""


class PrivateKeystore(OnSession):
    def test_comes_back_when_its_service_is_killed(self):
        self.assertRegex(run_program(KILLED), "\nfound True\n$")

    def test_is_a_programs_own_and_goes_with_its_block(self):
        said = run_program(OWN).splitlines()
        self.assertEqual(said[:4], ["9 7 [] True", "['name'] b'metadata'", f"False {os.environ['KS_SOCKET']}", "True"])
        self.assertRegex(said[4], "the library has been started in this process")

    def test_that_cannot_start_says_so(self):
        said = run_program("import ks.testing\ntry:\n  ks.testing.private_keystore(program='false').__enter__()\n"
                           "except RuntimeError as error:\n  print(error)\n")
        self.assertEqual(said, "false gave no session; it ended with 1\n")

    def test_holds_pacs_in_its_sup_state(self):
        self.assertEqual(run_program(HELD), "0 [b'aid']\n" * 3)


if __name__ == "__main__":
    unittest.main()
