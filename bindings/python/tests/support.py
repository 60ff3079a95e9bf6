# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""What the tests share: the library started on the session's service, programs of their own, and a scripted service."""

import os
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import unittest
from pathlib import Path

import ks

ROOT = Path(__file__).resolve().parents[3]
LIMIT_S = 60

HEADER = struct.Struct("=4sHHIIIIII")  # magic, version, descriptor size, opcode, token, node, sap, application, payload
HELLO = 1
SUCCESS = 1
HANG_UP = object()  # instead of an answer


class OnSession(unittest.TestCase):
    """Tests on the service of the session that they run in."""

    @classmethod
    def setUpClass(cls):
        if "KS_SESSION_DIR" not in os.environ:
            raise unittest.SkipTest("these tests run under ks-session")
        ks.init(0xE0A1)

    def keep(self, name, secret):
        """A secret for the length of the test."""
        ks.secrets.store(name, secret)
        self.addCleanup(ks.secrets.clear, name)
        return name


def run_program(text, *arguments, **environment):
    """Runs a Python program of its own; gives what it printed, errors included."""
    return subprocess.run([sys.executable, "-c", text, *arguments], env={**os.environ, **environment}, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=LIMIT_S, check=False).stdout


def answer(data, result=SUCCESS):
    """The payload of a reply with data, or with a result alone."""
    return struct.pack("=IH", result, len(data)) + data


class ScriptedService:
    """A service that answers each opcode as its script says: with bytes, or with what a function of the request gives.

    None leaves a request without an answer, HANG_UP closes the connection.
    """

    def __init__(self, script, receive_limit_ms=LIMIT_S * 1000):
        self.script = script
        self.receive_limit_ms = receive_limit_ms
        self.folder = tempfile.TemporaryDirectory()
        self.path = os.path.join(self.folder.name, "socket")
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.listener.bind(self.path)
        self.listener.listen()
        self.threads = []
        self.connections = []

    def __enter__(self):
        self.start(self.accept)
        return self

    def __exit__(self, *_):
        self.listener.shutdown(socket.SHUT_RDWR)
        for thread in self.threads:
            thread.join(LIMIT_S)
        self.listener.close()
        self.folder.cleanup()

    def start(self, run, *arguments):
        thread = threading.Thread(target=run, args=arguments, daemon=True)
        self.threads.append(thread)
        thread.start()

    def accept(self):
        while True:
            try:
                connection, _ = self.listener.accept()
            except OSError:
                return
            self.start(self.serve, connection)

    def serve(self, connection):
        with connection:
            while request := connection.recv(1 << 18):
                magic, version, _, opcode, token, node, sap, application, _ = HEADER.unpack_from(request)
                if opcode == HELLO:
                    payload = struct.pack("=IIII224s", SUCCESS, 7, self.receive_limit_ms, 256, b"")
                else:
                    payload = self.script[opcode]
                    if callable(payload):
                        payload = payload(request[HEADER.size:])
                if payload is HANG_UP:
                    return
                if payload is not None:
                    connection.sendall(HEADER.pack(magic, version, 0, opcode, token, node, sap, application,
                                                   len(payload)) + payload)
