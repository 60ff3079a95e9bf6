#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""client_test.py BUILD [SESSION]: examples/radius_client against a peer of the test's own, which answers as it
shouldn't, and against FreeRADIUS where that is there. SESSION is ks-session, or else that of BUILD.

The secret that client and server share is put into the keystore once, by ksctl; the client knows its name alone.
"""

import os
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path

import freeradius
import packets
from peer import Peer, one_user

BUILD = Path(sys.argv[1]).resolve()
SESSION = Path(sys.argv[2] if len(sys.argv) > 2 else BUILD / "ks-session").resolve()
SECRET = b"xyzzy5461"
OTHER_SECRET = b"plugh5461"
ACCEPTED, FAILED, WRONG_USE, REJECTED, CHALLENGED = 0, 1, 2, 3, 4
# Long enough for a loaded machine where an answer comes, and short where none does.
PATIENT, BRIEF = 20000, 300
LIMIT_S = 60


def put(name, secret):
  subprocess.run([SESSION.parent / "ksctl", "secret", "put", name, "--replace"], input=secret, check=True,
                 stdout=subprocess.DEVNULL)


def ask(port, user=b"alice", password=b"arctangent", secret="radius", wait=PATIENT, **environment):
  return subprocess.run([BUILD / "examples" / "radius_client", f"127.0.0.1:{port}", secret, user, str(wait)],
                        input=password, capture_output=True, timeout=LIMIT_S, env=dict(os.environ, **environment))


class ClientTest(unittest.TestCase):

  def assert_ends(self, run, status, said=b""):
    self.assertEqual(run.returncode, status, run.stderr.decode())
    self.assertIn(said, run.stdout + run.stderr)


class Requests(ClientTest):

  def request(self, **what):
    with Peer(one_user(SECRET, b"alice", b"arctangent")) as peer:
      ask(peer.port, **what)
      return peer.requests[0]

  def test_are_as_the_standard_has_them(self):
    request = self.request()
    self.assertEqual(request[0], packets.ACCESS_REQUEST)
    self.assertEqual(int.from_bytes(request[2:4], "big"), len(request))
    self.assertTrue(packets.request_is_authentic(SECRET, request))
    kinds = [kind for kind, _ in packets.attributes(request)]
    self.assertEqual(kinds[0], packets.MESSAGE_AUTHENTICATOR)
    self.assertCountEqual(kinds[1:], [packets.USER_NAME, packets.USER_PASSWORD, packets.NAS_IDENTIFIER])
    self.assertEqual(dict(packets.attributes(request))[packets.USER_NAME], b"alice")

  def test_hide_passwords_of_every_number_of_blocks(self):
    for size, hidden in ((1, 16), (15, 16), (16, 16), (17, 32), (128, 128)):
      password = bytes(33 + n % 90 for n in range(size))
      shown = packets.shown_password(SECRET, self.request(password=password))
      self.assertEqual(shown, password.ljust(hidden, b"\0"))

  def test_take_no_newline_at_the_end_for_a_part_of_the_password(self):
    self.assertEqual(packets.shown_password(SECRET, self.request(password=b"one\n")), b"one".ljust(16, b"\0"))

  def test_are_never_twice_the_same(self):
    first, second = self.request(), self.request()
    self.assertNotEqual(first[4:20], second[4:20])

  def test_are_sent_again_as_they_were(self):
    seen = []

    def third_time(request):
      seen.append(request)
      return [packets.reply(SECRET, request, packets.ACCESS_ACCEPT)] if len(seen) == 3 else []

    with Peer(third_time) as peer:
      self.assert_ends(ask(peer.port, wait=3 * BRIEF), ACCEPTED)
    self.assertEqual(len(set(seen)), 1)

  def test_of_impossible_lengths_are_refused(self):
    self.assert_ends(ask(9, password=b""), WRONG_USE, b"a password has 1 to 128 bytes")
    self.assert_ends(ask(9, password=b"x" * 129), WRONG_USE, b"a password has 1 to 128 bytes")
    self.assert_ends(ask(9, password=b"x" * 5000), WRONG_USE, b"a password has 1 to 128 bytes")
    self.assert_ends(ask(9, user=b"x" * 254), WRONG_USE, b"a user name has 1 to 253 bytes")
    self.assert_ends(ask(9, user=b""), WRONG_USE, b"a user name has 1 to 253 bytes")
    self.assert_ends(ask(9, wait=0), WRONG_USE, b"usage")

  def test_of_the_longest_name_and_password_are_answered(self):
    user, password = b"u" * 253, b"p" * 128
    with Peer(one_user(SECRET, user, password)) as peer:
      self.assert_ends(ask(peer.port, user=user, password=password), ACCEPTED)


class Keystore(ClientTest):

  def test_without_the_secret_is_told_apart(self):
    self.assert_ends(ask(9, secret="nowhere"), FAILED, b"no secret 'nowhere'; store it with `ksctl secret put nowhere`")

  def test_that_is_not_there_is_told(self):
    self.assert_ends(ask(9, KS_SOCKET="/nonexistent/ksd.sock"), FAILED, b"/nonexistent/ksd.sock: no keystore service")


class Replies(ClientTest):

  def test_say_by_the_exit_status_what_the_server_decided(self):
    for code, status in ((packets.ACCESS_ACCEPT, ACCEPTED), (packets.ACCESS_REJECT, REJECTED),
                         (packets.ACCESS_CHALLENGE, CHALLENGED)):
      with Peer(lambda request: [packets.reply(SECRET, request, code)]) as peer:
        self.assert_ends(ask(peer.port), status)

  def test_have_their_messages_shown_without_what_a_terminal_obeys(self):
    message = packets.attribute(packets.REPLY_MESSAGE, b"a\x1b[2Jb\nc")
    with Peer(lambda request: [packets.reply(SECRET, request, packets.ACCESS_ACCEPT, message)]) as peer:
      self.assert_ends(ask(peer.port), ACCEPTED, rb"Reply-Message: a\x1b[2Jb\x0ac")

  def test_may_have_padding_behind_them(self):
    with Peer(lambda request: [packets.reply(SECRET, request, packets.ACCESS_ACCEPT) + b"padding"]) as peer:
      self.assert_ends(ask(peer.port), ACCEPTED)

  def test_of_up_to_1024_bytes_can_be_checked(self):
    most = packets.attribute(26, b"x" * 253) * 3 + packets.attribute(26, b"x" * 219)
    with Peer(lambda request: [packets.reply(SECRET, request, packets.ACCESS_ACCEPT, most)]) as peer:
      self.assert_ends(ask(peer.port), ACCEPTED)
    with Peer(lambda request: [packets.reply(SECRET, request, packets.ACCESS_ACCEPT, most + b"\x12\x02")]) as peer:
      self.assert_ends(ask(peer.port, wait=BRIEF), FAILED, b"longer than the 1024 bytes that the keystore can check")

  def test_that_are_forged_are_passed_over_and_the_right_one_is_found(self):
    def with_bytes(request, at, more):
      whole = packets.reply(SECRET, request, packets.ACCESS_ACCEPT)
      return whole[:at] + more + whole[at + len(more):]

    def right_but_for(change):
      """A reply with a right Response Authenticator over what `change` made of it."""
      def answer(request):
        whole = packets.reply(SECRET, request, packets.ACCESS_ACCEPT)
        return packets.authenticated(SECRET, change(whole[:4] + request[4:20] + whole[20:]))
      return answer

    def long(packet, more):
      return packet[:2] + (len(packet) + len(more)).to_bytes(2, "big") + packet[4:] + more

    mac = packets.attribute(packets.MESSAGE_AUTHENTICATOR, bytes(16))
    forgeries = {
        b"its Response Authenticator is wrong": lambda r: with_bytes(r, 4, b"f" * 16),
        b"its Message-Authenticator is wrong": right_but_for(lambda p: p[:22] + b"f" * 16),
        b"its Response Authenticator is wrong ": lambda r: packets.reply(OTHER_SECRET, r, packets.ACCESS_ACCEPT),
        b"it has no Message-Authenticator":
            lambda r: packets.reply(SECRET, r, packets.ACCESS_ACCEPT, mac=False),
        b"it has two Message-Authenticators": right_but_for(lambda p: long(p, mac)),
        b"its Message-Authenticator has not 16 bytes": right_but_for(lambda p: long(p, b"\x50\x03x")),
        b"its identifier is another request's":
            lambda r: packets.reply(SECRET, r, packets.ACCESS_ACCEPT, identifier=r[1] ^ 1),
        b"its code is no reply's": lambda r: packets.reply(SECRET, r, 5),
        b"its code is no reply's ": lambda r: r,
        b"it is shorter than a header": lambda r: packets.reply(SECRET, r, packets.ACCESS_ACCEPT)[:19],
        b"it is shorter than a header ": lambda r: b"",
        b"it is shorter than its length says": lambda r: packets.reply(SECRET, r, packets.ACCESS_ACCEPT)[:-1],
        b"its length is less than a header's": lambda r: with_bytes(r, 3, b"\x13"),
        b"an attribute is shorter than its own header": right_but_for(lambda p: long(p, b"\x12\x01")),
        b"an attribute is shorter than its own header ": right_but_for(lambda p: long(p, b"\x12\x00")),
        b"an attribute is shorter than its own header  ": right_but_for(lambda p: long(p, b"\x12")),
        b"an attribute goes on behind the packet's end": right_but_for(lambda p: long(p, b"\x12\x04x")),
        b"it is longer than the 1024 bytes":
            lambda r: packets.reply(SECRET, r, packets.ACCESS_ACCEPT, packets.attribute(26, b"x" * 253) * 15),
    }
    for why, forge in forgeries.items():
      with self.subTest(why):
        answers = lambda request: [forge(request), packets.reply(SECRET, request, packets.ACCESS_REJECT)]
        with Peer(answers) as peer:
          run = ask(peer.port)
        self.assert_ends(run, REJECTED, b"passed over a reply: " + why.rstrip())
        self.assertEqual(run.stderr.count(b"passed over"), 1, run.stderr)

  def test_that_are_all_forged_end_in_time_with_the_reason(self):
    with Peer(one_user(OTHER_SECRET, b"alice", b"arctangent")) as peer:  # the secret of another client, theirs or ours
      self.assert_ends(ask(peer.port, wait=BRIEF), FAILED, b"is the secret its own?")
    with Peer(lambda r: [packets.reply(OTHER_SECRET, r, packets.ACCESS_ACCEPT)] * 3) as peer:
      self.assert_ends(ask(peer.port, wait=BRIEF), FAILED, b"no answer that can be believed in 300 ms: its Response")

  def test_that_do_not_come_are_waited_for_no_longer_than_said(self):
    with Peer(lambda request: []) as peer:
      start = time.monotonic()
      self.assert_ends(ask(peer.port, wait=BRIEF), FAILED, b"the server doesn't answer")
      self.assertGreaterEqual(time.monotonic() - start, BRIEF / 1000)
      self.assertEqual(len(peer.requests), 3)
    self.assert_ends(ask(freeradius.free_port(), wait=BRIEF), FAILED, b"nothing listens there")


INSTALLATION = freeradius.Installation()
PASSWORDS = {b"one": b"1", b"sixteen": b"p" * 16, b"seventeen": b"q" * 17,
             b"longest": bytes(33 + n % 90 for n in range(128))}


def radius_configuration(folder):
  # In this file a backslash is a backslash, and only quotation marks need one.
  quoted = {user: password.decode().replace("\\", "\\\\").replace('"', '\\"') for user, password in PASSWORDS.items()}
  (folder / "users").write_text("".join(
      f'{user.decode()} Cleartext-Password := "{password}"\n' for user, password in quoted.items()))
  secrets = {"right": SECRET, "other": OTHER_SECRET}
  clients = "".join(f"""
    clients {name} {{
      client test {{
        ipaddr = 127.0.0.1
        secret = "{secret.decode()}"
        require_message_authenticator = yes
      }}
    }}""" for name, secret in secrets.items())
  listeners = "".join(f"""
      listen {{
        type = auth
        ipaddr = 127.0.0.1
        port = @port:{name}@
        clients = {name}
      }}""" for name in secrets)
  return """
    modules {
      files {
        usersfile = @folder@/users
      }
      pap {
      }
    }""" + clients + """
    server default {""" + listeners + """
      authorize {
        files
        pap
      }
      authenticate {
        pap
      }
      post-auth {
        update reply {
          &Message-Authenticator := 0x00
        }
        Post-Auth-Type REJECT {
          update reply {
            &Message-Authenticator := 0x00
          }
        }
      }
    }"""


@unittest.skipUnless(INSTALLATION.found, "FreeRADIUS isn't there; ./dev setup gets it")
class FreeRadius(ClientTest):

  @classmethod
  def setUpClass(cls):
    temporary = tempfile.TemporaryDirectory()
    cls.addClassCleanup(temporary.cleanup)
    folder = Path(temporary.name)
    cls.server = freeradius.Server(INSTALLATION, folder, radius_configuration(folder))
    cls.addClassCleanup(cls.server.stop)

  def test_accepts_passwords_of_every_number_of_blocks(self):
    for user, password in PASSWORDS.items():
      with self.subTest(user):
        self.assert_ends(ask(self.server.ports["right"], user, password), ACCEPTED, b"Access-Accept")

  def test_rejects_what_is_no_password(self):
    self.assert_ends(ask(self.server.ports["right"], b"sixteen", b"p" * 15), REJECTED, b"Access-Reject")
    self.assert_ends(ask(self.server.ports["right"], b"nobody", b"p"), REJECTED, b"Access-Reject")

  def test_does_not_answer_who_has_another_secret(self):
    self.assert_ends(ask(self.server.ports["right"], b"one", b"1", secret="other", wait=BRIEF), FAILED,
                     b"the server doesn't answer")
    self.assert_ends(ask(self.server.ports["other"], b"one", b"1", wait=BRIEF), FAILED, b"the server doesn't answer")
    self.assert_ends(ask(self.server.ports["other"], b"one", b"1", secret="other"), ACCEPTED)


if __name__ == "__main__":
  if "KS_SESSION_DIR" not in os.environ:
    os.execv(SESSION, [SESSION, "--vdc", "7", "--", sys.executable, *sys.argv])
  put("radius", SECRET)
  put("other", OTHER_SECRET)
  unittest.main(argv=sys.argv[:1])
