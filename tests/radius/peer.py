#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""peer.py SECRET USER PASSWORD: a RADIUS server for one user, to try a client with.

It prints its port and serves until its standard input ends. It has the shared secret in the clear, as the far side of
an exchange has; tests give it answers of their own.
"""

import socket
import sys
import threading

import packets


class Peer:
  """Answers each request with the datagrams that `answers(request)` gives."""

  def __init__(self, answers):
    self.answers = answers
    self.requests = []
    self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    self.socket.bind(("127.0.0.1", 0))
    self.port = self.socket.getsockname()[1]
    self.thread = threading.Thread(target=self._serve, daemon=True)
    self.thread.start()

  def _serve(self):
    while True:
      request, client = self.socket.recvfrom(65536)
      if not request:
        return
      self.requests.append(request)
      for datagram in self.answers(request):
        self.socket.sendto(datagram, client)

  def __enter__(self):
    return self

  def __exit__(self, *_):
    # An empty datagram ends it: closing the socket wouldn't wake the thread.
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as end:
      end.sendto(b"", ("127.0.0.1", self.port))
    self.thread.join()
    self.socket.close()


def one_user(secret, user, password):
  """Answers as a server does that knows one user; requests that don't know the secret get none."""

  def answers(request):
    if not packets.request_is_authentic(secret, request):
      return []
    right = (dict(packets.attributes(request)).get(packets.USER_NAME) == user and
             packets.shown_password(secret, request).rstrip(b"\0") == password)
    message = packets.attribute(packets.REPLY_MESSAGE, b"Welcome" if right else b"No")
    return [packets.reply(secret, request, packets.ACCESS_ACCEPT if right else packets.ACCESS_REJECT, message)]

  return answers


def main():
  secret, user, password = (argument.encode() for argument in sys.argv[1:4])
  with Peer(one_user(secret, user, password)) as peer:
    print(peer.port, flush=True)
    sys.stdin.read()


if __name__ == "__main__":
  main()
