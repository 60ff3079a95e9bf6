#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""module_test.py BUILD: contrib/freeradius in a FreeRADIUS with threads, asked by radclient, with a keystore service
that comes and goes.

The values are those of RFC 2759, section 9.2, and of RFC 3079, section 3.5, which has the key of one direction; that of
the other is what FreeRADIUS's own rlm_mschap derives, which has the password in the clear.
"""

import array
import itertools
import os
import re
import signal
import socket
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

import freeradius
from freeradius import ROOT

BUILD = Path(sys.argv[1]).resolve()
INSTALLATION = freeradius.Installation()
PACKAGE = BUILD / "python"
SHIPPED = ROOT / "contrib" / "freeradius"
LIMIT_S = 60
SHARED = "the shared secret of server and client"

CHALLENGE = "5b5d7c7d7b3f2f3e3c2c602132262628"
PEER_CHALLENGE = "21402324255e262a28295f2b3a337c7e"
NT_RESPONSE = "82309ecd8d708b5ea08faa3981cd83544233114a3d85d6df"
PROOF = "S=407A5589115FD0D6209F510FE9C04566932CDA56"
PASSWORD_HASH = bytes.fromhex("44ebba8d5312b8d611474411f56989ae")
ACCEPTED_REPLY = {
    "MS-CHAP2-Success": "0x07" + PROOF.encode().hex(),
    "MS-MPPE-Send-Key": "0x8b7cdc149b993a1ba118cb153f56dccb",
    "MS-MPPE-Recv-Key": "0xd5f0e9521e3ea9589645e86051c82226",
}
# Put together here, so that no file has it, this one included.
PASSWORD = "client" + "Pass"

CONFIGURATION = """
  modconfdir = @folder@
  thread pool {
    start_servers = 4
    max_servers = 4
    min_spare_servers = 1
    max_spare_servers = 4
  }
  clients all {
    client test {
      ipaddr = 127.0.0.1
      secret = "@shared@"
    }
  }
  modules {
    always handled {
      rcode = handled
    }
    $INCLUDE @config@
    mschap {
      use_mppe = yes
    }
    files {
      usersfile = @folder@/users
    }
  }
  server silent {
    listen {
      type = auth
      ipaddr = 127.0.0.1
      port = @port:silent@
      clients = all
    }
    authorize {
      ks
    }
    authenticate {
      Auth-Type MS-CHAP {
        # As EAP-MSCHAPv2 does with the name that the peer gives there.
        if (&Calling-Station-Id) {
          update request {
            &MS-CHAP-User-Name := "%{Calling-Station-Id}"
          }
        }
        ks {
          fail = 1
        }
        if (fail) {
          update control {
            &Response-Packet-Type := Do-Not-Respond
          }
          handled
        }
      }
    }
  }
  server plain {
    listen {
      type = auth
      ipaddr = 127.0.0.1
      port = @port:plain@
      clients = all
    }
    authorize {
      ks
    }
    authenticate {
      Auth-Type MS-CHAP {
        ks
      }
    }
  }
  server clear {
    listen {
      type = auth
      ipaddr = 127.0.0.1
      port = @port:clear@
      clients = all
    }
    authorize {
      files
      mschap
    }
    authenticate {
      Auth-Type MS-CHAP {
        mschap
      }
    }
  }
"""


def start(folder, keystore, prefix="mschap-", **how):
  """FreeRADIUS with the module as it is set up by the page that ships with it."""
  folder = Path(folder)
  modules = folder / "python3"
  if not modules.exists():
    modules.mkdir()
    (modules / "ks_mschap.py").symlink_to(SHIPPED / "ks_mschap.py")
    (folder / "users").write_text("")
  (folder / "ks").write_text((SHIPPED / "ks").read_text().replace('"mschap-"', f'"{prefix}"'))
  configuration = CONFIGURATION.replace("@shared@", SHARED).replace("@config@", str(folder / "ks"))
  return freeradius.Server(INSTALLATION, folder, configuration, environment={
      "KS_SOCKET": str(keystore.socket), "PYTHONPATH": str(PACKAGE), "PYTHONDONTWRITEBYTECODE": "1"}, **how)


class Keystore:
  """A service that is started and killed at will, over one vault."""

  def __init__(self, folder, receive_limit_ms=30000):
    self.folder = Path(folder)
    self.socket = self.folder / "s"
    self.process = None
    (self.folder / "ksd.toml").write_text(f"[service]\ncache_uri = \"\"\nreceive_limit_ms = {receive_limit_ms}\n"
                                          f"[[vdc]]\nid = 7\nusers = [{os.getuid()}]\n")

  def start(self):
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as told:
      told.settimeout(LIMIT_S)
      told.bind(str(self.folder / "notify"))
      self.process = subprocess.Popen(
          [BUILD / "ksd", "--config", self.folder / "ksd.toml", "--socket", self.socket,
           "--vault", self.folder / "vault", "--master-key-file", self.folder / "key"] +
          (["--allow-root"] if os.geteuid() == 0 else []),
          env=dict(os.environ, NOTIFY_SOCKET=str(self.folder / "notify")), stdin=subprocess.DEVNULL,
          stderr=subprocess.DEVNULL)
      while b"READY=1" not in told.recv(4096):
        pass
    (self.folder / "notify").unlink()

  def kill(self):
    if self.process:
      self.process.kill()
      self.process.wait()
      self.process = None

  def put(self, name, secret):
    subprocess.run([BUILD / "ksctl", "--socket", self.socket, "secret", "put", name, "--replace"], input=secret,
                   check=True, stdout=subprocess.DEVNULL)


def response(identifier=7, nt_response=NT_RESPONSE):
  return f"0x{identifier:02x}00{PEER_CHALLENGE}{'00' * 8}{nt_response}"


def request(user='"User"', challenge="0x" + CHALLENGE, answer=response()):
  given = {"User-Name": user, "MS-CHAP-Challenge": challenge, "MS-CHAP2-Response": answer}
  return ",".join(f"{name}={value}" for name, value in given.items() if value is not None)


class Reply:
  """What radclient printed about one reply."""

  def __init__(self, text):
    received = re.search(r"^Received (\S+) .*\n((?:\t.*\n)*)", text, re.M)
    self.code = received[1] if received else None
    self.attributes = dict(re.findall(r"^\t(\S+) = (.*)$", received[2], re.M)) if received else {}


def ask(server, port, *requests, parallel=1, wait=LIMIT_S):
  text = "".join(request + "\n\n" for request in requests)
  run = subprocess.run([INSTALLATION.radclient, "-D", INSTALLATION.dictionaries, "-x", "-r", "1", "-t", str(wait), "-p",
                        str(parallel), f"127.0.0.1:{server.ports[port]}", "auth", SHARED], input=text, text=True,
                       capture_output=True, env=INSTALLATION.environment(), timeout=LIMIT_S + 2)
  return [Reply(part) for part in re.split(r"^(?=Received )", run.stdout, flags=re.M)[1:]] or [Reply(run.stdout)]


def resident(memory, pagemap, first, last):
  """What is there of a mapping: of a thread's stack, most isn't."""
  page = os.sysconf("SC_PAGE_SIZE")
  there = array.array("Q", os.pread(pagemap, (last - first) // page * 8, first // page * 8))
  content = []
  for present, run in itertools.groupby(range(len(there)), lambda at: there[at] >> 62 != 0):
    run = list(run)
    if present:
      try:
        content.append(os.pread(memory, len(run) * page, first + run[0] * page))
      except OSError:
        pass  # such as [vvar], which is given to nobody to read
  return b"\0".join(content)


def places(pid, wanted):
  """The mappings (as lines of smaps) of a process that hold one of some texts."""
  memory, pagemap = (os.open(f"/proc/{pid}/{name}", os.O_RDONLY) for name in ("mem", "pagemap"))
  try:
    found = []
    for mapping in re.split(r"^(?=[0-9a-f]+-[0-9a-f]+ )", Path(f"/proc/{pid}/smaps").read_text(), flags=re.M)[1:]:
      first, last = (int(part, 16) for part in mapping.split(maxsplit=1)[0].split("-"))
      if first >> 63:
        continue  # the kernel's
      content = resident(memory, pagemap, first, last)
      if any(text in content for text in wanted):
        found.append(mapping)
    return found
  finally:
    os.close(memory)
    os.close(pagemap)


@unittest.skipUnless(INSTALLATION.found, "FreeRADIUS isn't there; ./dev setup gets it")
class Module(unittest.TestCase):

  @classmethod
  def setUpClass(cls):
    cls.folders = [tempfile.TemporaryDirectory(), tempfile.TemporaryDirectory()]
    for folder in cls.folders:
      cls.addClassCleanup(folder.cleanup)
    cls.keystore = Keystore(cls.folders[0].name)
    cls.addClassCleanup(cls.keystore.kill)
    cls.keystore.start()
    cls.keystore.put("mschap-User", PASSWORD.encode())
    cls.keystore.put("mschap-other", b"another")
    cls.keystore.put("aes-key", PASSWORD.encode())
    cls.server = start(cls.folders[1].name, cls.keystore, threads=True)
    cls.addClassCleanup(cls.server.stop)

  def ask(self, *requests, port="silent", **how):
    return ask(self.server, port, *requests, **how)

  def assert_accepted(self, reply):
    self.assertEqual(reply.code, "Access-Accept", self.server.log())
    self.assertEqual({name: reply.attributes.get(name) for name in ACCEPTED_REPLY}, ACCEPTED_REPLY)
    self.assertEqual(reply.attributes["MS-MPPE-Encryption-Types"], "RC4-128bit-Allowed")

  def assert_rejected(self, reply, identifier="\\007"):
    self.assertEqual(reply.code, "Access-Reject", self.server.log())
    self.assertRegex(reply.attributes.get("MS-CHAP-Error", ""), r"^\"" + re.escape(identifier) +
                     r"E=691 R=0 C=[0-9A-F]{32} V=3 M=Authentication rejected\"$")
    self.assertNotIn("MS-MPPE-Send-Key", reply.attributes)

  def assert_invalid(self, reply, why):
    self.assertEqual((reply.code, reply.attributes), ("Access-Reject", {}))
    self.assertTrue(self.server.wait_for("malformed request: " + re.escape(why)), self.server.log())

  def test_accepts_the_published_response_with_proof_and_keys(self):
    self.assert_accepted(self.ask(request())[0])

  def test_leaves_the_domain_out(self):
    self.assert_accepted(self.ask(request(user=r'"BIGCO\\User"'))[0])

  def test_answers_as_freeradius_does_with_the_password_in_the_clear(self):
    (self.server.folder / "users").write_text(f'"User" Cleartext-Password := "{PASSWORD}"\n')
    try:
      with start(self.server.folder, self.keystore) as server:
        own, clear = (ask(server, port, request())[0] for port in ("silent", "clear"))
    finally:
      (self.server.folder / "users").write_text("")
    for name in ACCEPTED_REPLY:
      self.assertEqual(own.attributes[name], clear.attributes[name], name)

  def test_rejects_a_wrong_response(self):
    wrong = NT_RESPONSE[:-1] + "e"
    self.assert_rejected(self.ask(request(answer=response(nt_response=wrong)))[0])
    self.assert_rejected(self.ask(request(answer=response(0, wrong)))[0], "\\000")
    self.assert_rejected(self.ask(request(challenge="0x" + CHALLENGE[:-1] + "9"))[0])

  def test_rejects_other_users_and_those_that_are_not_there_alike(self):
    for user in ("other", "nobody", "x" * 25, "x" * 200, r"DOMAIN\\", "aes-key"):
      with self.subTest(user):
        self.assert_rejected(self.ask(request(user=f'"{user}"'))[0])

  def test_rejects_a_name_that_is_not_utf8_and_goes_on(self):
    self.assertEqual(self.ask(request(user='"\\377\\376"'))[0].code, "Access-Reject")
    self.assert_accepted(self.ask(request())[0])

  def test_refuses_malformed_attributes(self):
    for why, malformed in (
        ("MS-CHAP2-Response has 49 bytes", request(answer=response()[:-2])),
        ("MS-CHAP2-Response has 51 bytes", request(answer=response() + "00")),
        ("MS-CHAP2-Response stands 2 times", request() + ",MS-CHAP2-Response=" + response()),
        ("MS-CHAP-Challenge has 8 bytes", request(challenge="0x" + CHALLENGE[:16])),
        ("MS-CHAP-Challenge stands 2 times", request() + ",MS-CHAP-Challenge=0x" + CHALLENGE),
        ("User-Name stands 0 times", request(user=None)),
        ("User-Name stands 2 times", request() + ",User-Name=other"),
    ):
      with self.subTest(why):
        self.assert_invalid(self.ask(malformed)[0], why)

  def test_takes_no_second_name_that_is_another_users(self):
    self.assert_accepted(self.ask(request() + ',Calling-Station-Id="BIGCO\\\\User"')[0])
    self.assert_invalid(self.ask(request() + ",Calling-Station-Id=other")[0], "MS-CHAP-User-Name is another user")

  def test_leaves_other_requests_to_others(self):
    for other in ("User-Name=User,User-Password=x", request(challenge=None), request(answer=None)):
      reply = self.ask(other)[0]
      self.assertEqual((reply.code, reply.attributes), ("Access-Reject", {}))  # as nobody else is there
    self.assert_rejected(self.ask(request(user="behind-them"))[0])
    self.assertTrue(self.server.wait_for("the keystore has no .*mschap-behind-them"), self.server.log())
    self.assertNotIn("stands 0 times", self.server.log().replace("User-Name stands 0 times", ""))

  def test_answers_from_all_threads(self):
    wrong = request(answer=response(nt_response="00" * 24))
    replies = self.ask(*[request(), wrong] * 100, parallel=40)
    codes = [reply.code for reply in replies]
    self.assertEqual((codes.count("Access-Accept"), codes.count("Access-Reject")), (100, 100))
    for reply in replies:
      (self.assert_accepted if reply.code == "Access-Accept" else self.assert_rejected)(reply)

  def test_survives_a_restart_of_the_service_and_says_nothing_while_it_is_away(self):
    self.assert_accepted(self.ask(request())[0])
    self.keystore.kill()
    try:
      # Not a word about the password: the client asks its next server.
      self.assertIsNone(self.ask(request(), wait=1)[0].code)
      self.assertTrue(self.server.wait_for("can't tell whether the password is right: .*no keystore service"))
      # FreeRADIUS answers a failure by a reject, unless it is told not to; a MS-CHAP-Error isn't there.
      reply = self.ask(request(), port="plain")[0]
      self.assertEqual((reply.code, reply.attributes), ("Access-Reject", {}))
    finally:
      self.keystore.start()
    self.assert_accepted(self.ask(request())[0])
    self.keystore.kill()
    self.keystore.start()
    self.assert_accepted(self.ask(request())[0])

  def test_starts_without_a_service_uses_another_prefix_and_survives_one_that_hangs(self):
    with tempfile.TemporaryDirectory() as own, tempfile.TemporaryDirectory() as folder:
      keystore = Keystore(own, receive_limit_ms=1000)
      with start(folder, keystore, prefix="vpn-") as server:
        self.assertTrue(server.wait_for("no keystore at start"), server.log())
        self.assertIsNone(ask(server, "silent", request(), wait=1)[0].code)
        keystore.start()
        try:
          keystore.put("vpn-User", PASSWORD.encode())
          self.assert_accepted(ask(server, "silent", request())[0])
          keystore.process.send_signal(signal.SIGSTOP)
          os.waitid(os.P_PID, keystore.process.pid, os.WSTOPPED)  # until then it may go on answering
          self.assertIsNone(ask(server, "silent", request(), wait=2)[0].code)
          self.assertTrue(server.wait_for("can't tell whether the password is right: .*(?i:time)"), server.log())
          keystore.process.send_signal(signal.SIGCONT)
          self.assert_accepted(ask(server, "silent", request())[0])
        finally:
          keystore.kill()

  def test_has_the_password_neither_in_memory_nor_in_a_file(self):
    # That of the standard is in the service's program, too, which tests itself with it.
    drawn = os.urandom(8).hex()
    self.keystore.put("mschap-drawn", drawn.encode())
    secret = [drawn.encode(), drawn.encode("utf-16-le")]
    published = [PASSWORD.encode(), PASSWORD.encode("utf-16-le"), PASSWORD_HASH]
    self.assert_accepted(self.ask(request())[0])
    self.assert_rejected(self.ask(request(user="drawn"))[0])

    self.assertTrue(places(self.server.process.pid, [SHARED.encode()]), "nothing is found, not even what is there")
    self.assertEqual(places(self.server.process.pid, secret + published), [])
    for folder in (self.server.folder, self.keystore.folder):
      for path in filter(Path.is_file, folder.rglob("*")):
        content = path.read_bytes()
        self.assertFalse(any(text in content for text in secret + published), path)

    # The service computes with it, and so has it: locked, and where no core has it. It lets nobody but root look.
    if os.geteuid() != 0:
      self.skipTest("but for the service's memory, which is shown to root alone")
    kept = places(self.keystore.process.pid, secret)
    self.assertNotEqual(kept, [])
    for mapping in kept:
      self.assertRegex(mapping, r"VmFlags:(?=.* lo\b)(?=.* dd\b)")


if __name__ == "__main__":
  if not (PACKAGE / "ks").is_dir():
    print("skipped: the Python package isn't built")
    sys.exit(77)
  unittest.main(argv=sys.argv[:1])
