#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""pppd_test.py BUILD: the plug-in in pppd itself: loaded, and, where the kernel does PPP and the test is root, with two
pppd that authenticate each other over a pseudo-terminal, in a network and with an /etc/ppp of their own.
"""

import os
import re
import shlex
import signal
import subprocess
import sys
import threading
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
BUILD = Path(sys.argv[1]).resolve()
PLUGIN = BUILD / "ppp" / "ks.so"
PPPD = next((path for path in (ROOT / "build/unpacked/usr/sbin/pppd", Path("/usr/sbin/pppd")) if path.exists()), None)
ETC = Path("/etc/ppp")
NO_KERNEL_SUPPORT, HANGUP, TO_PEER_FAILED = 4, 16, 19
LIMIT_S = 60
PASSWORD = "clientPass"

QUIET = ["nodetach", "logfd", "2", "debug", "noauth", "nodeflate", "nobsdcomp", "novj", "noipv6", "lcp-restart", "1"]
WITH_KEYSTORE = ["plugin", str(PLUGIN)]
CLIENT = ["noipdefault", "refuse-pap", "refuse-eap"]
SERVER = ["notty", "auth", "require-mschap-v2", "10.9.8.1:10.9.8.2"]
ENCRYPTED = ["require-mppe-128"]


def ppp_is_missing():
  """Why pppd can't make a link here, or None."""
  if PPPD is None:
    return "pppd isn't there; ./dev setup gets it"
  if os.geteuid() != 0:
    return "pppd needs root to make a link"
  try:
    os.close(os.open("/dev/ppp", os.O_RDWR))
  except OSError as error:
    return f"the kernel does no PPP here: /dev/ppp: {error.strerror}"
  if subprocess.run(["unshare", "--net", "--mount", "true"], stderr=subprocess.DEVNULL).returncode != 0:
    return "no network of the test's own can be made"
  return None


def link(client, server, secrets=""):
  """The client's exit status, or 0 once the link is up, and what both of them logged. The server is its terminal.

  In the two's own view of the machine /etc/ppp has nothing but the file of `secrets`.
  """
  own_etc = (f"mount -t tmpfs -o mode=700 ppp {ETC} && printf %s {shlex.quote(secrets)} >{ETC}/chap-secrets && "
             if ETC.is_dir() else "")
  server = shlex.join([str(PPPD), *QUIET, *SERVER, *server])
  client = shlex.join([str(PPPD), *QUIET, *CLIENT, *client, "pty", server])
  process = subprocess.Popen(["unshare", "--net", "--mount", "sh", "-c", own_etc + "exec " + client], text=True,
                             stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                             start_new_session=True)
  limit = threading.Timer(LIMIT_S, lambda: os.killpg(process.pid, signal.SIGKILL))
  limit.start()
  lines, up = [], False
  for line in process.stderr:
    lines.append(line)
    if not up and re.match("local  IP address 10.9.8.2", line):
      up = True
      process.terminate()
  status = process.wait()
  limit.cancel()
  process.stderr.close()
  return 0 if up else status, "".join(lines)


@unittest.skipIf(PPPD is None, "pppd isn't there; ./dev setup gets it")
@unittest.skipIf(os.geteuid() != 0, "pppd takes plug-ins from root alone")
class Loading(unittest.TestCase):

  def run_pppd(self, *options):
    return subprocess.run([PPPD, "nodetach", "notty", *options], stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, timeout=LIMIT_S)

  def test_finds_everything_that_the_plug_in_refers_to(self):
    run = self.run_pppd(*WITH_KEYSTORE, "ks-prefix", "dialin-", "ks-secret", "own", "dryrun")
    self.assertIn(run.returncode, (0, NO_KERNEL_SUPPORT), run.stderr)  # it looks at the kernel behind its options
    self.assertIn("ks.so loaded", run.stdout + run.stderr)

  def test_without_the_plug_in_its_options_are_unknown(self):
    run = self.run_pppd("ks-prefix", "dialin-", "dryrun")
    self.assertIn("unrecognized option 'ks-prefix'", run.stdout + run.stderr)


@unittest.skipIf(ppp_is_missing(), ppp_is_missing())
class Links(unittest.TestCase):

  def assert_up(self, link, *logged):
    status, log = link
    self.assertEqual(status, 0, log)
    for text in logged:
      self.assertIn(text, log)
    self.assertNotIn(PASSWORD, log)

  def assert_denied(self, link):
    status, log = link
    self.assertIn(status, (TO_PEER_FAILED, HANGUP), log)  # the peer may be gone before
    self.assertIn("MS-CHAPv2 authentication failed: E=691", log)

  def test_come_up_between_two_keystores(self):
    self.assert_up(link([*WITH_KEYSTORE, "user", "alice"], WITH_KEYSTORE), "CHAP authentication succeeded")

  def test_are_encrypted_when_that_is_required(self):
    self.assert_up(link([*WITH_KEYSTORE, *ENCRYPTED, "user", "alice"], [*WITH_KEYSTORE, *ENCRYPTED]),
                   "MPPE 128-bit stateless compression enabled")

  def test_come_up_with_a_client_that_has_the_password_in_the_clear(self):
    self.assert_up(link([*ENCRYPTED, "user", "alice", "password", PASSWORD], [*WITH_KEYSTORE, *ENCRYPTED]),
                   "MPPE 128-bit stateless compression enabled")

  @unittest.skipUnless(ETC.is_dir(), f"there is no {ETC} to put chap-secrets in")
  def test_come_up_with_a_server_that_has_the_password_in_the_clear(self):
    self.assert_up(link([*WITH_KEYSTORE, *ENCRYPTED, "user", "alice"], ENCRYPTED, f"alice * {PASSWORD} *\n"),
                   "MPPE 128-bit stateless compression enabled")

  def test_do_not_come_up_with_another_password(self):
    self.assert_denied(link([*WITH_KEYSTORE, "user", "alice", "ks-secret", "other"], WITH_KEYSTORE))

  def test_do_not_come_up_for_a_user_that_is_not_there(self):
    self.assert_denied(link([*WITH_KEYSTORE, "user", "nobody", "ks-secret", "other"], WITH_KEYSTORE))

  @unittest.skipUnless(ETC.is_dir(), f"there is no {ETC} to put chap-secrets in")
  def test_do_not_come_up_with_a_server_that_has_another_password(self):
    self.assert_denied(link([*WITH_KEYSTORE, "user", "alice"], [], "alice * another *\n"))


if __name__ == "__main__":
  if "KS_SESSION_DIR" not in os.environ:
    os.execv(BUILD / "ks-session", [BUILD / "ks-session", "--vdc", "7", "--", sys.executable, *sys.argv])
  for name, secret in (("mschap-alice", PASSWORD), ("other", "another")):
    subprocess.run([BUILD / "ksctl", "secret", "put", name, "--replace"], input=secret.encode(), check=True,
                   stdout=subprocess.DEVNULL)
  unittest.main(argv=sys.argv[:1])
