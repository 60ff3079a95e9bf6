# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""A keystore of a test's own, and what its service does: ks-session and ksctl are on the path."""

import os
import unittest

from support import OnSession, run_program

BEGIN = r"""
import os, pathlib, signal, subprocess, sys, time
import ks, ks.testing

def reconfigure(folder, line):
    config = pathlib.Path(folder, "ksd.toml")
    config.write_text(config.read_text().replace("[service]", "[service]\n" + line, 1))
    subprocess.run(["ksctl", "reload"], check=True, stdout=subprocess.DEVNULL)

def service():
    return int(pathlib.Path(os.environ["KS_SESSION_DIR"], "ksd.pid").read_text())
"""

OWN = BEGIN + """
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

NONE = BEGIN + """
try:
    with ks.testing.private_keystore(program="false"):
        pass
except RuntimeError as error:
    print(error)
"""

HELD = BEGIN + """
with ks.testing.private_keystore() as folder:
    ks.pacs.store(b"aid", b"key", opaque=ks.tlv.opaque(b"o"), info=ks.tlv.info(expires=1))
    reconfigure(folder, "supstate = 2")
    for clear in (lambda: ks.pacs.clear(b"aid"), ks.pacs.clear_all, ks.pacs.clear_expired):
        try:
            clear()
        except ks.PacsHeld as error:
            print(error.code, list(ks.pacs.aids()))
"""

KILLED = BEGIN + """
with ks.testing.private_keystore() as folder:
    ks.secrets.store("name", b"value")
    before = service()
    os.kill(before, signal.SIGKILL)
    deadline = time.monotonic() + 30
    while time.monotonic() < deadline:
        try:
            found = ks.secrets.exists("name")
            if service() != before:
                print("found", found)
                break
        except ks.ExchangeFailed:
            pass
"""

# A process learns how long to wait when it connects. Until the thread that the kernel gave the signal to has run, the
# others go on answering.
STOPPED = BEGIN + """
def goes_on(pid):
    stats = [path.read_text() for path in pathlib.Path(f"/proc/{pid}/task").glob("*/stat")]
    return any(stat.rpartition(")")[2].split()[0] != "T" for stat in stats)

if len(sys.argv) == 1:
    with ks.testing.private_keystore() as folder:
        reconfigure(folder, "receive_limit_ms = 1000")
        subprocess.run([*sys.orig_argv, "in the session"], check=True)
else:
    ks.init(1)
    stopped = service()
    os.kill(stopped, signal.SIGSTOP)
    while goes_on(stopped):
        time.sleep(0.001)
    try:
        ks.secrets.exists("name")
    except ks.ExchangeFailed as error:
        print(error.code, error.detail)
    finally:
        os.kill(stopped, signal.SIGCONT)
    print(ks.secrets.exists("name"))
"""


class PrivateKeystore(OnSession):
    def test_is_a_programs_own_and_goes_with_its_block(self):
        said = run_program(OWN).splitlines()
        self.assertEqual(said[:4], ["9 7 [] True", "['name'] b'metadata'", f"False {os.environ['KS_SOCKET']}", "True"])
        self.assertRegex(said[4], "the library has been started in this process")

    def test_that_cannot_start_says_so(self):
        self.assertEqual(run_program(NONE), "false gave no session; it ended with 1\n")

    def test_holds_pacs_in_its_sup_state(self):
        self.assertEqual(run_program(HELD), "0 [b'aid']\n" * 3)

    def test_comes_back_when_its_service_is_killed(self):
        self.assertRegex(run_program(KILLED), "\nfound True\n$")

    def test_that_is_stopped_is_given_up_and_found_again(self):
        self.assertRegex(run_program(STOPPED), "^12 .*1000 ms.*It is stopped or busy.*\nFalse\n$")


if __name__ == "__main__":
    unittest.main()
