# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""RADIUS packets as RFC 2865 and RFC 3579 have them, by a second implementation that the tests compare with."""

import hashlib
import hmac
import struct

ACCESS_REQUEST, ACCESS_ACCEPT, ACCESS_REJECT, ACCESS_CHALLENGE = 1, 2, 3, 11
USER_NAME, USER_PASSWORD, REPLY_MESSAGE, NAS_IDENTIFIER, MESSAGE_AUTHENTICATOR = 1, 2, 18, 32, 80
HEADER_SIZE = 20


def attribute(kind, value):
  return bytes([kind, 2 + len(value)]) + value


def attributes(packet):
  """(type, value) of each attribute of a packet."""
  found = []
  at = HEADER_SIZE
  while at < len(packet):
    kind, size = packet[at], packet[at + 1]
    assert 2 <= size <= len(packet) - at, packet.hex()
    found.append((kind, packet[at + 2:at + size]))
    at += size
  return found


def header(code, identifier, size, authenticator):
  return struct.pack("!BBH16s", code, identifier, size, authenticator)


def with_message_authenticator(secret, packet):
  """The packet with its Message-Authenticator, which is all zeros so far, filled in."""
  at = HEADER_SIZE
  while packet[at] != MESSAGE_AUTHENTICATOR:
    at += packet[at + 1]
  mac = hmac.new(secret, packet, hashlib.md5).digest()
  return packet[:at + 2] + mac + packet[at + 18:]


def request_is_authentic(secret, packet):
  """Whether who made a request knows the secret."""
  mac = dict(attributes(packet)).get(MESSAGE_AUTHENTICATOR)
  return mac is not None and with_message_authenticator(secret, packet.replace(mac, bytes(16), 1)) == packet


def shown_password(secret, packet):
  """The password of a request, with the zeros behind it."""
  hidden = dict(attributes(packet))[USER_PASSWORD]
  shown, before = b"", packet[4:HEADER_SIZE]
  for at in range(0, len(hidden), 16):
    block = hidden[at:at + 16]
    shown += bytes(a ^ b for a, b in zip(block, hashlib.md5(secret + before).digest()))
    before = block
  return shown


def reply(secret, request, code, more=b"", identifier=None, mac=True):
  """An answer to a request, with the attributes `more`."""
  body = (attribute(MESSAGE_AUTHENTICATOR, bytes(16)) if mac else b"") + more
  identifier = request[1] if identifier is None else identifier
  packet = header(code, identifier, HEADER_SIZE + len(body), request[4:HEADER_SIZE]) + body
  return authenticated(secret, with_message_authenticator(secret, packet) if mac else packet)


def authenticated(secret, packet):
  """A reply that has the request's authenticator so far, with the Response Authenticator."""
  return packet[:4] + hashlib.md5(packet + secret).digest() + packet[HEADER_SIZE:]
