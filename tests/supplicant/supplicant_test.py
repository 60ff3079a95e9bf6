#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""supplicant_test.py BUILD WORK [TEST...]: contrib/supplicant as its users have it.

eapol_test, built of Debian's source in WORK/source with PAC keys in the keystore, logs in by EAP-FAST to Debian's
hostapd, over RADIUS on the loopback, with a private keystore of the build's. The server's log tells the keys, so
that files and memory can be searched for them. Skipped where the source or hostapd isn't there.
"""

import contextlib
import fcntl
import os
import re
import resource
import select
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
BUILD, WORK = (Path(argument).resolve() for argument in sys.argv[1:3])
PATH = f"{os.environ['PATH']}:/usr/sbin:/sbin"
LIMIT_S = 60
OPAQUE_KEY = "000102030405060708090a0b0c0d0e0f"
TIED = ["setpriv", "--pdeathsig", "TERM"]  # in front of a command: it ends with this process, however that ends
A_ID = "101112131415161718191a1b1c1d1e1f"
MARK = b"ks PAC \x01"

# OpenSSL as it has to be for versions that it would refuse otherwise.
OPENSSL_CONF = """openssl_conf = begin
[begin]
ssl_conf = configurations
[configurations]
system_default = any_version
[any_version]
MinProtocol = TLSv1
CipherString = DEFAULT:@SECLEVEL=0
"""


def free_port():
  with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
    probe.bind(("127.0.0.1", 0))
    return probe.getsockname()[1]


def thread_states(pid):
  for path in Path(f"/proc/{pid}/task").glob("*/stat"):
    with contextlib.suppress(OSError):  # of a thread that has ended
      yield path.read_text().rpartition(")")[2].split()[0]


def freeze(pid):
  """Stops a process. Until the thread that the kernel gave the signal to has run, the others go on answering."""
  os.kill(pid, signal.SIGSTOP)
  end = time.monotonic() + LIMIT_S
  while set(thread_states(pid)) != {"T"}:
    if time.monotonic() > end:
      raise AssertionError(f"process {pid} didn't stop within {LIMIT_S} s")
    time.sleep(0.001)


class Background:
  """A process that ends with the block that it is used in. What it has said, it has said: no pipe holds any of it."""

  def __init__(self, command, **options):
    self.log = tempfile.TemporaryFile()
    self.process = subprocess.Popen(command, stdout=self.log, stderr=subprocess.STDOUT, **options)

  def text(self):
    # Its place in the file is the process's, too, and stays.
    return os.pread(self.log.fileno(), os.fstat(self.log.fileno()).st_size, 0).decode(errors="replace")

  def saw(self, pattern):
    """Waits for a line; False when the process ends without one."""
    end = time.monotonic() + LIMIT_S
    while time.monotonic() < end:
      ended = self.process.poll() is not None
      if re.search(pattern, self.text(), re.M):
        return True
      if ended:
        return False
      time.sleep(0.005)
    raise AssertionError(f"no line {pattern!r} within {LIMIT_S} s")

  def end(self):
    if self.process.poll() is None:
      self.process.terminate()
    self.process.wait(LIMIT_S)
    self.log.close()

  def __enter__(self):
    return self

  def __exit__(self, *_):
    self.end()


class Authority(Background):
  """hostapd as an authentication server: for RADIUS clients, or of an access point at the end of a wire."""

  def __init__(self, folder, a_id=A_ID, lifetime_s=7 * 86400, refresh_s=86400, wire=None):
    folder = Path(folder)
    (folder / "clients").write_text("127.0.0.1 radius\n")
    (folder / "users").write_text('* FAST\n"alice" MSCHAPV2 "password" [2]\n')
    for _ in range(5):  # somebody else may take the port between the two programs
      self.port = free_port()
      place = f"""driver=none
interface=eap
radius_server_clients={folder}/clients
radius_server_auth_port={self.port}
"""
      if wire:
        place = "driver=wired\ninterface=authority\nieee8021x=1\nuse_pae_group_addr=1\n"
      (folder / "hostapd.conf").write_text(f"""{place}eap_server=1
eap_user_file={folder}/users
ca_cert={CREDENTIALS}/cert.pem
server_cert={CREDENTIALS}/cert.pem
private_key={CREDENTIALS}/key.pem
dh_file={CREDENTIALS}/dh.pem
pac_opaque_encr_key={OPAQUE_KEY}
eap_fast_a_id={a_id}
eap_fast_a_id_info=test server
eap_fast_prov=3
pac_key_lifetime={lifetime_s}
pac_key_refresh_time={refresh_s}
""")
      super().__init__([*(wire or TIED), "hostapd", "-dd", "-K", str(folder / "hostapd.conf")],
                       env={"PATH": PATH, "OPENSSL_CONF": str(CREDENTIALS / "openssl.cnf")})
      if self.saw("AP-ENABLED"):
        return
      said = self.text()
      self.end()
    raise AssertionError(f"hostapd doesn't start:\n{said[-2000:]}")

  def keys(self):
    """All PAC-Keys that this server gave away or met."""
    found = re.findall(r"PAC-Key\b.* - hexdump\(len=32\): ([0-9a-f ]+)", self.text())
    return {bytes.fromhex(key) for key in found}


class Keystore:
  """A private keystore that keeps what it has from one start to the next."""

  def __init__(self, folder):
    self.folder = Path(folder)
    self.session = None
    self.start()

  def start(self):
    self.session = Background([*TIED, BUILD / "ks-session", "--vdc", "7", "--keep", self.folder, "--", "sh", "-c",
                               "env; echo ready; exec cat"], stdin=subprocess.PIPE)
    if not self.session.saw("^ready$"):
      raise AssertionError(f"no keystore:\n{self.session.text()}")
    self.environment = dict(re.findall(r"^(KS_\w+)=(.*)$", self.session.text(), re.M))

  def stop(self):
    if self.session:
      self.session.process.stdin.close()
      self.session.process.wait(LIMIT_S)
      self.session.end()
      self.session = None

  def configure(self, section, line):
    """Adds to the configuration, until the session is started anew."""
    path = self.folder / "ksd.toml"
    text = path.read_text()
    head = f"[{section}]\n"
    path.write_text(text.replace(head, head + line + "\n") if head in text else f"{text}\n{head}{line}\n")
    self.ctl("reload")

  def pid(self):
    return int((self.folder / "ksd.pid").read_text())

  def ctl(self, *words, **options):
    return subprocess.run([BUILD / "ksctl", *words], env=dict(os.environ, **self.environment), check=True, text=True,
                          capture_output=True, timeout=LIMIT_S, **options).stdout


class SlowPeer:
  """A peer that waits, within 4 KiB of its log, wherever that isn't read any further."""

  def __init__(self, command, environment):
    self.output, end = os.pipe()
    fcntl.fcntl(end, fcntl.F_SETPIPE_SZ, 4096)
    self.process = subprocess.Popen([*TIED, "stdbuf", "-oL", *command], env=environment, stdout=end, stderr=end)
    os.close(end)
    self.text = ""
    self.position = 0

  def reach(self, text):
    """Reads on until behind a text; False when the peer ends before."""
    end = time.monotonic() + LIMIT_S
    while (found := self.text.find(text, self.position)) < 0:
      if not select.select([self.output], [], [], end - time.monotonic())[0]:
        raise AssertionError(f"the peer doesn't say {text!r} within {LIMIT_S} s")
      more = os.read(self.output, 512)
      if not more:
        return False
      self.text += more.decode(errors="replace")
    self.position = found + len(text)
    return True

  def count_in_memory(self, *wanted):
    """How often each of some bytes stands where the process may write."""
    counts = [0] * len(wanted)
    freeze(self.process.pid)
    try:
      with open(f"/proc/{self.process.pid}/maps") as maps, open(f"/proc/{self.process.pid}/mem", "rb", 0) as memory:
        for begin, end in re.findall(r"^(\w+)-(\w+) rw", maps.read(), re.M):
          memory.seek(int(begin, 16))
          with contextlib.suppress(OSError):  # guard pages and the like
            area = memory.read(int(end, 16) - int(begin, 16))
            counts = [count + area.count(bytes_) for count, bytes_ in zip(counts, wanted)]
    except PermissionError as error:
      raise unittest.SkipTest(f"this machine lets nobody see a process's memory: {error}")
    finally:
      os.kill(self.process.pid, signal.SIGCONT)
    return counts

  def __enter__(self):
    return self

  def __exit__(self, *_):
    os.close(self.output)
    self.process.kill()
    self.process.wait(LIMIT_S)


class Supplicant(unittest.TestCase):

  def setUp(self):
    self.folder = Path(tempfile.mkdtemp(prefix="ks-supplicant-"))
    self.addCleanup(shutil.rmtree, self.folder)
    self.keystore = Keystore(self.folder / "keystore")
    self.addCleanup(lambda: self.keystore.stop())
    self.pacs = self.folder / "pacs"

  def authority(self, **options):
    authority = Authority(tempfile.mkdtemp(dir=self.folder), **options)
    self.addCleanup(authority.end)
    return authority

  def configuration(self, provisioning=0, binary=False, tls=None, pacs=None, more=""):
    phase1 = [f"fast_provisioning={provisioning}"] + ["fast_pac_format=binary"] * binary
    if tls is not None:
      phase1 += [f"tls_disable_tlsv1_{minor}={int(minor != tls)}" for minor in (0, 1, 2)]
    configuration = Path(tempfile.mkdtemp(dir=self.folder)) / "network"
    configuration.write_text(f"""ap_scan=0
network={{
  key_mgmt=IEEE8021X
  eapol_flags=0
  eap=FAST
  identity="alice"
  anonymous_identity="anonymous"
  password="password"
  phase1="{' '.join(phase1)}"
  phase2="auth=MSCHAPV2"
  pac_file="{pacs or self.pacs}"
  {more}
}}
""")
    return configuration

  def command(self, authority, *options, **network):
    return [WORK / "bin" / "eapol_test", "-c", self.configuration(**network), "-p", str(authority.port), "-s", "radius",
            "-t", str(LIMIT_S - 10), *options]

  def environment(self):
    return {"LD_LIBRARY_PATH": str(BUILD), "OPENSSL_CONF": str(CREDENTIALS / "openssl.cnf"),
            "XDG_RUNTIME_DIR": str(self.folder), **self.keystore.environment}

  def slow_peer(self, authority, **network):
    """A peer that logs in again and again."""
    return SlowPeer(self.command(authority, "-r", "1000000", **network), self.environment())

  def run_peer(self, authority, *options, file_limit=None, **network):
    """Runs eapol_test; its exit status tells whether the login succeeded."""

    def limit():
      if file_limit is not None:
        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)  # so that a write fails, as on a full disk
        resource.setrlimit(resource.RLIMIT_FSIZE, (file_limit, file_limit))

    run = subprocess.run(self.command(authority, *options, **network), env=self.environment(), preexec_fn=limit,
                         text=True, errors="replace", stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=LIMIT_S)
    self.said = run.stdout
    return run.returncode == 0

  def said_of_keystore(self):
    return "\n".join(line for line in self.said.splitlines() if "keystore:" in line)

  def assert_said(self, *texts):
    for text in texts:
      if text not in self.said:
        self.fail(f"{text!r} wasn't said, but:\n{self.said_of_keystore()}\n...\n{self.said[-1500:]}")

  def provision(self, authority, **network):
    """Provisions without a certificate, which always ends in a refusal: the login comes after it."""
    self.run_peer(authority, **{"provisioning": 1, **network})
    self.assert_said("keystore: stored the PAC")

  def assert_succeeds(self, authority, **network):
    self.assertTrue(self.run_peer(authority, **network), f"{self.said_of_keystore()}\n...\n{self.said[-1500:]}")

  def assert_logs_in(self, authority, **network):
    self.assert_succeeds(authority, **network)
    self.assert_said("keystore: derived the master secret")

  def assert_fails(self, authority, *texts, **network):
    self.assertFalse(self.run_peer(authority, **network), "it succeeded")
    self.assert_said(*texts)

  def assert_no_key_in_files(self, authority):
    keys = authority.keys()
    self.assertTrue(keys)
    for path in self.folder.iterdir():
      if path.is_file():
        content = path.read_bytes()
        for key in keys:
          self.assertNotIn(key, content, path)
          self.assertNotIn(key.hex().encode(), content.lower(), path)

  def references(self, pacs=None):
    return re.findall(r"^PAC-Key=(\w+)$", (pacs or self.pacs).read_text(), re.M)


class Logins(Supplicant):

  def test_provisions_without_a_certificate_and_logs_in_twice(self):
    authority = self.authority()
    self.assert_fails(authority, "Using anonymous (unauthenticated) provisioning", "stored the PAC", provisioning=1)
    self.assert_no_key_in_files(authority)
    before = self.pacs.read_bytes()
    for _ in range(2):
      self.assert_logs_in(authority)
    self.assert_no_key_in_files(authority)
    self.assertEqual(before, self.pacs.read_bytes())
    self.assertIn(A_ID, self.keystore.ctl("pac", "list"))
    self.assertIn("alice", self.keystore.ctl("pac", "list"))

  def test_provisions_with_a_certificate_within_a_login(self):
    authority = self.authority()
    authenticated = {"provisioning": 2, "more": f'ca_cert="{CREDENTIALS}/cert.pem"'}
    self.assert_succeeds(authority, **authenticated)
    self.assert_said("keystore: stored the PAC")
    self.assert_no_key_in_files(authority)
    for _ in range(2):
      self.assert_logs_in(authority, **authenticated)

  def test_keeps_no_key_in_a_binary_file(self):
    authority = self.authority()
    self.provision(authority, binary=True)
    self.assertEqual(b"\x6a\xe4\x92\x0c\x00\x00\x00\x01" + MARK, self.pacs.read_bytes()[:16])
    self.assert_no_key_in_files(authority)
    for _ in range(2):
      self.assert_logs_in(authority, binary=True)

  def test_takes_a_new_pac_in_the_place_of_the_old_one(self):
    for binary in (False, True):
      with self.subTest(binary=binary):
        self.pacs.unlink(missing_ok=True)
        authority = self.authority(refresh_s=8 * 86400)  # longer than a PAC lives: each login brings a new one
        self.provision(authority, binary=binary)
        files = {self.pacs.read_bytes()}
        for _ in range(3):
          self.assert_logs_in(authority, binary=binary)
          self.assert_said("PAC refreshing completed successfully")
          files.add(self.pacs.read_bytes())
        self.assertEqual(4, len(files))
        self.assertEqual(4, len(authority.keys()))
        self.assert_no_key_in_files(authority)
        self.assertEqual(1, len(self.keystore.ctl("pac", "list").splitlines()))

  def test_speaks_every_version_of_tls_that_eap_fast_has(self):
    authority = self.authority()
    for minor, name in ((0, "TLSv1"), (1, "TLSv1.1"), (2, "TLSv1.2")):
      for provisioning in (1, 2):
        with self.subTest(version=name, provisioning=provisioning):
          self.pacs.unlink(missing_ok=True)
          network = {"tls": minor, "more": f'ca_cert="{CREDENTIALS}/cert.pem"'}
          self.provision(authority, provisioning=provisioning, **network)
          self.assert_said(f"SSL: Using TLS version {name}\n")
          self.assert_logs_in(authority, **network)
          self.assert_said(f"SSL: Using TLS version {name}\n")

  def test_knows_authorities_of_1_to_31_bytes(self):
    for size in (1, 2, 15, 17, 30, 31):
      with self.subTest(size=size):
        a_id = bytes((255 - 85 * i) % 256 for i in range(size)).hex()  # ff aa 55 00 ...
        authority = self.authority(a_id=a_id)
        self.provision(authority)
        self.assert_logs_in(authority)
        self.assertIn(f"{a_id}\t", self.keystore.ctl("pac", "list"))
    self.assertEqual(6, len(self.references()))

  def test_refuses_an_authority_whose_name_is_too_long(self):
    authority = self.authority(a_id=bytes(range(32)).hex())
    self.assert_fails(authority, "A-ID of 32 bytes can't name a PAC", "1 to 31 can", provisioning=1)
    self.assert_no_key_in_files(authority)
    self.assertEqual("", self.keystore.ctl("pac", "list"))

  def test_uses_the_pac_of_each_authority_of_one_file(self):
    first, second = self.authority(), self.authority(a_id="20")
    self.provision(first)
    self.provision(second)
    for authority in (first, second, first):
      self.assert_logs_in(authority)
      self.assert_no_key_in_files(authority)

  def test_drops_the_oldest_pac_of_a_full_list_from_the_keystore(self):
    network = {"provisioning": "1 fast_max_pac_list_len=2"}
    for a_id in ("a1", "a2", "a3", "a4"):
      self.provision(self.authority(a_id=a_id), **network)
    self.assertEqual(["a3", "a4"], sorted(line.split()[0] for line in self.keystore.ctl("pac", "list").splitlines()))
    self.assertEqual(2, len(self.references()))

  def test_keeps_a_blob_of_the_configuration_without_keys(self):
    authority = self.authority()
    network = {"pacs": "blob://pacs", "more": f'ca_cert="{CREDENTIALS}/cert.pem"'}
    with self.slow_peer(authority, provisioning=2, **network) as peer:
      for text in ("No PAC blob", "stored the PAC", "derived the master secret", "Authentication completed"):
        self.assertTrue(peer.reach(text), peer.text[-1500:])
      keys = authority.keys()
      self.assertEqual(1, len(keys))
      self.assertEqual([0, 0], peer.count_in_memory(*keys, keys.pop().hex().encode()))

  def test_logs_in_by_wpa_supplicant_on_a_wire(self):
    link = "ip link add peer type veth peer name authority && ip link set peer up && ip link set authority up"
    network = Background(["unshare", "-rn", *TIED, "sh", "-c", f"{link} && echo ready && exec cat"],
                         stdin=subprocess.PIPE, env={"PATH": PATH})
    self.addCleanup(network.end)
    self.addCleanup(network.process.stdin.close)
    if not network.saw("^ready$"):
      self.skipTest(f"no network of its own: {network.text()}")
    wire = ["nsenter", "-t", str(network.process.pid), "-U", "-n", "--preserve-credentials", *TIED]
    authority = self.authority(wire=wire)
    configuration = self.configuration(provisioning=2, more=f'ca_cert="{CREDENTIALS}/cert.pem"')
    for text in ("stored the PAC", "derived the master secret"):
      with Background([*wire, WORK / "bin" / "wpa_supplicant", "-D", "wired", "-i", "peer", "-c", configuration, "-d"],
                      env=dict(self.environment(), PATH=PATH)) as peer:
        self.assertTrue(peer.saw("CTRL-EVENT-EAP-SUCCESS"), peer.text()[-1500:])
        self.assertIn(text, peer.text())
      self.assert_no_key_in_files(authority)

  def test_takes_less_than_a_millisecond_of_a_login(self):
    authority = self.authority()
    self.provision(authority)
    self.assertTrue(self.run_peer(authority, "-r", "30"), self.said[-1500:])
    looked_up, derived = (re.findall(rf"keystore: {what} .*in (\d+) us", self.said) for what in ("looked", "derived"))
    first, *others = (int(one) + int(other) for one, other in zip(looked_up, derived, strict=True))
    others.sort()
    print(f"the keystore's share of a login: {others[len(others) // 2]} us, and {first} us of the first one, which "
          "connects", file=sys.stderr)
    self.assertGreater(len(others), 20)
    self.assertLess(others[0], 1000)  # the machine may have other things to do during most of them


class Keys(Supplicant):

  def test_are_never_in_a_process_that_logs_in_later(self):
    authority = self.authority()
    self.provision(authority)
    (key,) = authority.keys()
    reference = bytes.fromhex(self.references()[0])
    with self.slow_peer(authority) as peer:
      for _ in range(3):
        for where in ("looked through", "derived the master secret", "entering state SEND_RESPONSE",
                      "Authentication completed successfully"):
          self.assertTrue(peer.reach(where), peer.text[-1500:])
          self.assertEqual([0, 0], peer.count_in_memory(key, key.hex().encode()), where)
      self.assertGreater(peer.count_in_memory(reference)[0], 0)

  def test_have_gone_from_a_process_that_has_stored_them(self):
    authority = self.authority(refresh_s=8 * 86400)
    with self.slow_peer(authority, provisioning=2, more=f'ca_cert="{CREDENTIALS}/cert.pem"') as peer:
      for _ in range(3):  # the first PAC, and new ones in its place
        for where in ("stored the PAC", "PAC-Acknowledgement", "entering state SEND_RESPONSE"):
          self.assertTrue(peer.reach(where), peer.text[-1500:])
        keys = list(authority.keys())
        reference = bytes.fromhex(self.references()[0])
        *found, references = peer.count_in_memory(*keys, reference)
        self.assertEqual([0] * len(keys), found)
        self.assertGreater(references, 0)
      self.assertGreater(len(keys), 2)

  def test_are_taken_over_from_a_file_of_before(self):
    authority = self.authority()
    self.provision(authority)
    (key,) = authority.keys()
    text = self.pacs.read_text()
    for binary in (False, True):
      with self.subTest(binary=binary):
        self.keystore.ctl("context", "clear", "--yes")
        if binary:
          opaque, info = (bytes.fromhex(re.search(rf"^{field}=(\w+)$", text, re.M)[1])
                          for field in ("PAC-Opaque", "PAC-Info"))
          self.pacs.write_bytes(bytes.fromhex("6ae4920c 0000 0001") + key + len(opaque).to_bytes(2, "big") + opaque +
                                len(info).to_bytes(2, "big") + info)
        else:
          self.pacs.write_text(re.sub(r"^PAC-Key=.*", f"PAC-Key={key.hex()}", text, flags=re.M))
        self.pacs.chmod(0o640)
        self.assert_logs_in(authority, binary=binary)
        self.assert_no_key_in_files(authority)
        self.assertEqual(0o640, self.pacs.stat().st_mode & 0o777)
        self.assertIn("alice", self.keystore.ctl("pac", "list"))
        with self.slow_peer(authority, binary=binary) as peer:
          self.assertTrue(peer.reach("Authentication completed successfully"), peer.text[-1500:])
          self.assertEqual([0], peer.count_in_memory(key))

  def test_stay_in_a_file_of_before_that_cant_be_taken_over(self):
    authority = self.authority()
    self.provision(authority)
    (key,) = authority.keys()
    before = re.sub(r"^PAC-Key=.*", f"PAC-Key={key.hex()}", self.pacs.read_text(), flags=re.M)
    self.pacs.write_text(before)
    self.keystore.stop()
    self.assert_fails(authority, "no keystore service is there")
    self.assertEqual(before, self.pacs.read_text())


class Trouble(Supplicant):

  def setUp(self):
    super().setUp()
    self.server = self.authority()
    self.provision(self.server)

  def test_of_a_stopped_service_is_told(self):
    before = self.pacs.read_bytes()
    self.keystore.stop()
    self.assert_fails(self.server, "keystore: starting failed", self.keystore.environment["KS_SOCKET"],
                      "Start the service")
    self.assertEqual(before, self.pacs.read_bytes())
    self.keystore.start()
    self.assert_logs_in(self.server)

  def test_of_a_stopped_service_is_told_before_a_server_gives_away_a_pac(self):
    self.pacs.unlink()
    self.keystore.stop()
    self.assert_fails(self.server, str(self.keystore.environment["KS_SOCKET"]), provisioning=1)
    self.assertNotIn("Phase 2", self.said)
    # The same when it goes while the peer is running.
    self.keystore.start()
    authenticated = {"provisioning": 2, "more": f'ca_cert="{CREDENTIALS}/cert.pem"'}
    with self.slow_peer(self.server, **authenticated) as peer:
      self.assertTrue(peer.reach("stored the PAC"), peer.text[-1500:])
      self.assertTrue(peer.reach("Authentication completed successfully"), peer.text[-1500:])
      self.keystore.stop()
      self.pacs.unlink()
      self.assertTrue(peer.reach("a first request failed"), peer.text[-1500:])
      self.assertTrue(peer.reach("FAILURE"), peer.text[-1500:])

  def test_of_a_service_that_goes_during_a_login_is_told(self):
    with self.slow_peer(self.server) as peer:
      self.assertTrue(peer.reach("looked through"), peer.text[-1500:])
      self.keystore.stop()
      for text in ("deriving the master secret with the PAC", self.keystore.environment["KS_SOCKET"], "FAILURE"):
        self.assertTrue(peer.reach(text), f"no {text}: {peer.text[-1500:]}")
      self.assertNotEqual(0, peer.process.wait(LIMIT_S))

  def test_of_a_service_that_doesnt_move_is_told_in_time(self):
    self.keystore.configure("service", "receive_limit_ms = 300")
    pid = self.keystore.pid()
    with self.slow_peer(self.server) as peer:
      self.assertTrue(peer.reach("looked through"), peer.text[-1500:])
      try:
        freeze(pid)
        for text in ("keystore: deriving", "300 ms", "FAILURE"):
          self.assertTrue(peer.reach(text), f"no {text}: {peer.text[-1500:]}")
      finally:
        os.kill(pid, signal.SIGCONT)
    self.assert_logs_in(self.server)

  def test_of_a_reference_of_another_keystore_is_told_and_mended_by_provisioning(self):
    self.keystore.stop()
    home, self.keystore = self.keystore, Keystore(self.folder / "other")
    self.assert_fails(self.server, f"has no PAC of A-ID {A_ID}, which '{self.pacs}' names", "provisioned anew",
                      "KS_SOCKET")
    before = self.pacs.read_bytes()
    self.provision(self.server)
    self.assertNotEqual(before, self.pacs.read_bytes())
    self.assert_logs_in(self.server)
    # Back home the keystore has a PAC of that name, and not this one.
    self.keystore.stop()
    self.keystore = home
    home.start()
    self.assert_fails(self.server, f"the PAC of A-ID {A_ID} isn't the one that '{self.pacs}' names", "provisioned anew")

  def test_of_a_removed_entry_is_told_and_mended_by_provisioning(self):
    self.keystore.ctl("pac", "rm", A_ID)
    self.assert_fails(self.server, f"has no PAC of A-ID {A_ID}")
    self.provision(self.server)
    self.assert_logs_in(self.server)

  def test_of_an_entry_that_only_the_cache_has_is_told_and_mended_by_the_next_login(self):
    self.keystore.ctl("cache", "warm")
    files = [path for path in (self.keystore.folder).rglob("*-64.mdb*")]
    self.assertTrue(files, "no cache")
    copies = {path: path.read_bytes() for path in files}
    self.keystore.ctl("pac", "rm", A_ID)
    for path, content in copies.items():
      path.write_bytes(content)
    self.assert_fails(self.server, "deriving the master secret with the PAC", "no such entry")
    self.assert_fails(self.server, f"has no PAC of A-ID {A_ID}")

  def test_of_a_pac_of_another_program_is_told(self):
    (key,) = self.server.keys()
    stock = self.folder / "stock"
    stock.write_text(re.sub(r"^PAC-Key=.*", f"PAC-Key={key.hex()}", self.pacs.read_text(), flags=re.M))
    self.keystore.ctl("pac", "import", str(stock), "--replace")
    self.assert_fails(self.server, "was stored by another program", "provisioned anew")

  def test_of_two_files_for_one_authority_is_told(self):
    other = self.folder / "other-pacs"
    self.provision(self.server, pacs=other)
    self.assert_logs_in(self.server, pacs=other)
    self.assert_fails(self.server, "isn't the one that", "another file")

  def test_of_two_types_of_pac_for_one_authority_is_told(self):
    (key,) = self.server.keys()
    before = re.sub(r"^PAC-Key=.*", f"PAC-Key={key.hex()}", self.pacs.read_text(), flags=re.M)
    before += re.sub(r"^PAC-Type=.*", "PAC-Type=2", before.split("\n", 1)[1], flags=re.M)
    self.pacs.write_text(before)
    self.assert_fails(self.server, f"PACs of the types 2 and 1 for A-ID {A_ID}", "remove one")
    self.assertEqual(before, self.pacs.read_text())

  def test_of_a_cut_file_is_told(self):
    for binary in (False, True):
      self.pacs.unlink()
      self.provision(self.server, binary=binary)
      whole = self.pacs.read_bytes()
      # Cut in the head, behind it, in the key, in what follows, before the end.
      for size in (1, 20, 60, 100, 150, len(whole) - 40, len(whole) - 2):
        with self.subTest(binary=binary, size=size):
          self.pacs.write_bytes(whole[:size])
          self.assert_fails(self.server, f"'{self.pacs}' is damaged", "Put back a copy, or remove it", binary=binary)
          self.assertEqual(whole[:size], self.pacs.read_bytes())
      self.pacs.write_bytes(whole)
      self.assert_logs_in(self.server, binary=binary)

  def test_of_a_full_disk_is_told_and_loses_nothing(self):
    before = self.pacs.read_bytes()
    renewing = self.authority(refresh_s=8 * 86400)
    for _ in range(2):  # each time the keystore gets a new PAC, and the file can't be written
      self.assert_succeeds(renewing, file_limit=300)
      self.assert_said("stored the PAC")
      self.assert_said(f"'{self.pacs}' can't be written anew, and stays as it was")
      self.assertEqual(before, self.pacs.read_bytes())
    self.assert_logs_in(self.server)
    self.assertNotEqual(before, self.pacs.read_bytes())
    after = self.pacs.read_bytes()
    self.assert_logs_in(self.server)
    self.assertEqual(after, self.pacs.read_bytes())
    self.assertEqual([], list(self.folder.glob("pacs.*")))

  def test_of_a_full_disk_at_the_first_provisioning_is_told(self):
    self.pacs.unlink()
    self.run_peer(self.server, provisioning=1, file_limit=300)
    self.assert_said("can't be written anew")
    self.assertFalse(self.pacs.exists())
    self.provision(self.server)
    self.assert_logs_in(self.server)

  def test_of_a_full_keystore_is_told_and_loses_nothing(self):
    self.keystore.configure("limits", "entries_per_user = 1")
    before = self.pacs.read_bytes()
    other = self.authority(a_id="20")
    self.assert_fails(other, "storing the PAC of A-ID 20 failed: Key store out of memory", "ksctl explain 7",
                      provisioning=1)
    self.assertEqual(before, self.pacs.read_bytes())
    self.assert_no_key_in_files(self.server)
    self.assert_logs_in(self.server)

  def test_of_a_folder_that_isnt_there_is_told(self):
    pacs = self.folder / "nowhere" / "pacs"
    self.run_peer(self.server, provisioning=1, pacs=pacs)
    self.assert_said(f"no file can be made beside '{pacs}': No such file or directory")

  def test_of_a_link_is_none(self):
    target = self.folder / "target"
    self.pacs.rename(target)
    self.pacs.symlink_to(target)
    self.assert_succeeds(self.authority(refresh_s=8 * 86400))
    self.assertTrue(self.pacs.is_symlink())
    self.assert_logs_in(self.server)


def skip(why):
  print(f"skipped: {why}")
  sys.exit(77)


def build():
  """What contrib/supplicant says to do, with this build's library."""
  environment = dict(os.environ, KS_CFLAGS=f"-I{ROOT}/include -I{ROOT}/platform/host/include",
                     KS_LIBS=f"-L{BUILD} -lks -Wl,-rpath-link,{BUILD}", CFLAGS="-O1 -MMD -Wno-deprecated-declarations",
                     CC="ccache cc" if shutil.which("ccache") else "cc")
  built = subprocess.run([ROOT / "contrib/supplicant/build.sh", WORK / "source", WORK / "bin"],
                         env=environment, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
  if built.returncode != 0:
    sys.exit(f"the build failed:\n{built.stdout[-4000:]}")
  if re.search(r"contrib/supplicant/\S+ (warning|error):", built.stdout):
    sys.exit(f"the compiler warns of our part:\n{built.stdout}")


def make_credentials(folder):
  (folder / "openssl.cnf").write_text(OPENSSL_CONF)
  quiet = {"check": True, "stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
  subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", folder / "key.pem", "-out",
                  folder / "cert.pem", "-days", "2", "-subj", "/CN=authority"], **quiet)
  subprocess.run(["openssl", "genpkey", "-genparam", "-algorithm", "DH", "-pkeyopt", "group:ffdhe2048", "-out",
                  folder / "dh.pem"], **quiet)
  return folder


if __name__ == "__main__":
  if not (WORK / "source").is_dir():
    skip(f"{WORK}/source isn't there: './dev setup' fetches it from Debian's mirror")
  for program in ("hostapd", "openssl"):
    if not shutil.which(program, path=PATH):
      skip(f"{program} isn't installed")
  build()
  with tempfile.TemporaryDirectory(prefix="ks-supplicant-") as credentials:
    CREDENTIALS = make_credentials(Path(credentials))
    unittest.main(argv=[sys.argv[0], *sys.argv[3:]])
