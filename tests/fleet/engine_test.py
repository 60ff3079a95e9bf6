#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""What ksd-engine makes of a daemon's requests, over real etcd on machines that fail.

Run by ctest, with the build's folder in KS_BUILD. Arguments are those of unittest.
"""

import os
import shutil
import socket
import statistics
import subprocess
import sys
import time
import unittest

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import own_world  # noqa: E402

if __name__ == "__main__":
  own_world.enter("etcd", "etcdctl", "openssl")

import cluster  # noqa: E402
import engine  # noqa: E402
from engine import (BUILD, NO_SPACE, NOT_SENT, REPORTS, TOO_LARGE, UNKNOWN, Connection, Engine, Gone,  # noqa: E402
                    Row, memory_of)

Committed, Refused, Failed, HeaderIs, Loaded = (
    REPORTS[name] for name in ("Committed", "Refused", "Failed", "HeaderIs", "Loaded"))
Changed, WatchBroken, Started, Stopped = (REPORTS[name] for name in ("Changed", "WatchBroken", "Started", "Stopped"))

NETWORK = cluster.Network(3) if __name__ == "__main__" else None


class OverEtcd(unittest.TestCase):
  """Three members for all tests of a class. Each test has a prefix of its own, and leaves the members in order."""
  options = ()

  @classmethod
  def setUpClass(cls):
    cls.etcd = cluster.Cluster(NETWORK, options=cls.options)
    cls.prefixes = 0

  @classmethod
  def tearDownClass(cls):
    cls.etcd.stop()
    shutil.rmtree(cls.etcd.folder)

  def setUp(self):
    type(self).prefixes += 1
    self.prefix = f"fleet{self.prefixes}/"
    self.engine = self.open()

  def open(self, **options):
    opened = Engine(NETWORK, options.pop("endpoints", self.etcd.endpoints()), prefix=self.prefix, **options)
    self.addCleanup(opened.close)
    self.assertEqual(opened.next_report(), Started(engine.VERSION))
    return opened

  def commit(self, expected, puts=(), deletes=()):
    """A change that must come about. Gives its revision."""
    done = self.engine.commit(expected, [("h", b"header"), *puts], deletes)
    self.assertIsInstance(done, Committed)
    return done.revision

  def fill(self, revision, rows, size):
    """Puts so many rows, 100 at a time."""
    for first in range(0, rows, 100):
      revision = self.commit(revision, [(f"e/{i:016x}", b"r" * size) for i in range(first, min(first + 100, rows))])
    return revision


class Requests(OverEtcd):
  def test_a_change_is_made_when_the_header_is_as_expected(self):
    first = self.commit(0, [("e/1", b"one"), ("e/2", b"two")])
    second = self.commit(first, [("e/2", b"three")], ["e/1"])
    self.assertGreater(second, first)
    self.assertEqual(self.engine.header(), HeaderIs(2 + 1, Row("h", b"header", second), second))
    pages, loaded = self.engine.load()
    self.assertEqual(pages, [[Row("e/2", b"three", second)]])
    self.assertEqual((loaded.header, loaded.revision), (Row("h", b"header", second), second))

  def test_a_step_of_a_restore_holds_as_long_as_its_claim_is_the_last(self):
    header = self.commit(0)
    claim = self.engine.commit(None, [("r", b"claim")]).revision
    step = self.engine.commit(None, [("e/1", b"one")], restore=claim)
    self.assertIsInstance(step, Committed)
    later = self.engine.commit(None, [("r", b"another")]).revision
    refused = self.engine.commit(None, [("e/2", b"two")], restore=claim)
    self.assertEqual(refused, Refused(refused.id, Row("h", b"header", header), later))
    self.assertIsInstance(self.engine.commit(header, [("h", b"x")], restore=claim), Refused)
    self.assertIsInstance(self.engine.commit(header + 1, [("h", b"x")], restore=later), Refused)
    self.assertIsInstance(self.engine.commit(header, [("h", b"x")], restore=later), Committed)

  def test_a_change_is_refused_as_a_whole_when_the_header_is_another(self):
    first = self.commit(0, [("e/1", b"one")])
    for expected in (0, first - 1, first + 1):
      refused = self.engine.commit(expected, [("h", b"other"), ("e/2", b"two")], ["e/1"])
      self.assertEqual(refused, Refused(refused.id, Row("h", b"header", first), first))
    self.assertEqual(self.engine.load()[0], [[Row("e/1", b"one", first)]])
    self.prefix = "empty/"
    refused = self.open().commit(7, [("h", b"other")])
    self.assertIsInstance(refused, Refused)
    self.assertIsNone(refused.header)

  def test_heartbeats_are_put_whatever_is_there_and_read_together(self):
    self.assertEqual(self.engine.beats().beats, [])
    first = self.engine.beat("a", b"1").revision
    second = self.engine.beat("b", b"2").revision
    third = self.engine.beat("a", b"3").revision
    self.assertLess(first, second)
    beats = self.engine.beats()
    self.assertEqual((beats.beats, beats.revision), ([Row("m/a", b"3", third), Row("m/b", b"2", second)], third))
    self.assertEqual(self.engine.load()[0], [], "heartbeats are no rows")

  def test_a_load_is_of_one_revision_and_in_pages_that_fit(self):
    revision = self.fill(0, 3000, 300)
    revision = self.commit(revision, [(f"f{i}", b"not a row") for i in range(2)])
    for key in ("e/000000000000ffff", "e/zz"):
      revision = self.commit(revision, [(key, b"L" * 1_200_000)])
    request = self.engine.ask("Load")
    # Changes while the rows are read.
    for _ in range(3):
      changed = self.commit(revision, deletes=[f"e/{i:016x}" for i in range(100)])
      self.commit(changed, [(f"e/{i:016x}", b"r" * 300) for i in range(100)])
      revision = self.engine.header().header.revision
    rows, pages = [], 0
    while not isinstance(report := self.engine.answer_to(request), Loaded):
      size = sum(len(row.key) + len(row.value) for row in report.rows)
      self.assertTrue(size <= 1 << 20 or len(report.rows) == 1)
      rows += report.rows
      pages += 1
    self.assertGreater(pages, 2)
    self.assertIn(len(rows), (2902, 3002))
    self.assertEqual([row.key for row in rows], sorted(row.key for row in rows))
    self.assertTrue(all(row.revision <= report.revision for row in rows))
    self.assertEqual(report.header.revision, max([report.header.revision] + [row.revision for row in rows]))

  def test_a_watch_has_all_changes_of_a_revision_in_one_piece(self):
    first = self.commit(0, [("e/1", b"one"), ("e/2", b"two")])
    second = self.commit(first, [("e/3", b"three")], ["e/1", "e/2"])
    beat = self.engine.beat("a", b"alive").revision
    watch = self.engine.watch(first)
    self.assertEqual(self.engine.answer_to(watch), Changed(
        watch, first, [Row("h", b"header", first), Row("e/1", b"one", first), Row("e/2", b"two", first)], []))
    self.assertEqual(self.engine.answer_to(watch), Changed(
        watch, second, [Row("h", b"header", second), Row("e/3", b"three", second)], ["e/1", "e/2"]))
    self.assertEqual(self.engine.answer_to(watch), Changed(watch, beat, [Row("m/a", b"alive", beat)], []))
    third = self.commit(second)
    self.assertEqual(self.engine.answer_to(watch), Changed(watch, third, [Row("h", b"header", third)], []))

  def test_a_revision_stays_whole_when_the_store_sends_it_in_several_parts(self):
    revision = first = self.commit(0)
    sizes = []
    for change in range(6):
      sizes.append([(f"e/{change}{i:02}", bytes([i]) * 9000) for i in range(100)])
      revision = self.commit(revision, sizes[-1])
    watch = self.engine.watch(first + 1)
    for change in range(6):
      report = self.engine.answer_to(watch)
      self.assertEqual(len(report.puts), 101, f"of change {change}")
    self.assertEqual(report.revision, revision)

  def test_a_later_watch_takes_the_place_of_the_one_before(self):
    first = self.commit(0)
    before = self.engine.watch(first)
    self.assertEqual(self.engine.answer_to(before).revision, first)
    after = self.engine.watch(first)
    self.assertEqual(self.engine.answer_to(after).revision, first)
    second = self.commit(first)
    self.assertEqual(self.engine.answer_to(after).revision, second)
    self.engine.header()
    self.assertEqual(self.engine.reports, [], "nothing is said of the one before")

  def test_a_watch_that_would_begin_where_the_store_was_compacted_is_broken(self):
    first = self.commit(0, [("e/1", b"one")])
    gone = self.commit(first, deletes=["e/1"])
    last = self.commit(gone)
    self.etcd.compact(gone)
    # From that very revision on, the store would leave out what was deleted there, and say nothing.
    for start in (first, gone):
      watch = self.engine.watch(start)
      self.assertEqual(self.engine.answer_to(watch), WatchBroken(watch, gone))
    watch = self.engine.watch(last)
    self.assertEqual(self.engine.answer_to(watch).revision, last)
    pages, loaded = self.engine.load()
    self.assertEqual((pages, loaded.revision), ([], last))

  def test_what_the_store_has_no_room_for_is_told_so(self):
    failed = self.engine.commit(0, [("h", b"x" * 1_700_000)])
    self.assertEqual((type(failed), failed.kind), (Failed, TOO_LARGE), failed)
    self.assertEqual(failed.why, "etcdserver: request is too large")
    failed = self.engine.commit(0, [("h", b"x")] + [(f"e/{i}", b"x") for i in range(200)])
    self.assertEqual((type(failed), failed.kind), (Failed, TOO_LARGE), failed)
    self.assertIsNone(self.engine.header().header)

  def test_a_proxy_of_the_environment_is_not_asked(self):
    environment = {name: "http://10.77.0.77:1" for name in ("http_proxy", "https_proxy", "grpc_proxy")}
    asked = self.open(environment=environment.items())
    self.assertIsInstance(asked.header(limit=2000), HeaderIs)

  def test_a_daemon_that_reads_nothing_stops_the_engine_and_nothing_else(self):
    revision = self.fill(0, 200, 9000)
    requests = [self.engine.ask("Load") for _ in range(100)]  # 180 MB, for nobody
    time.sleep(0.5)  # let it run into the wall
    self.assertLess(memory_of(self.engine.process), 150_000)
    self.assertEqual(self.open().header().revision, revision)
    for request in requests:
      while not isinstance(self.engine.answer_to(request), Loaded):
        pass


class Failures(OverEtcd):
  def tearDown(self):
    self.etcd.repair()

  def commit_until_it_works(self, asked, seconds=20):
    """Gives how long that took."""
    begun = time.monotonic()
    while time.monotonic() - begun < seconds:
      header = asked.header(limit=1000)
      if isinstance(header, HeaderIs):
        expected = header.header.revision if header.header else 0
        if isinstance(asked.commit(expected, [("h", b"again")], limit=1500), Committed):
          return time.monotonic() - begun
    self.fail(f"no change comes about within {seconds} s")

  def test_changes_go_on_when_the_leader_is_killed(self):
    took = []
    for _ in range(2):
      self.commit_until_it_works(self.engine)
      self.etcd.kill(self.etcd.leader())
      took.append(self.commit_until_it_works(self.engine))
      self.etcd.repair()
    print("leader killed, changes again after", [f"{t:.2f} s" for t in took], file=sys.stderr)
    self.assertLess(max(took), 8)

  def test_a_member_that_is_frozen_is_left_for_another(self):
    asked = self.open(endpoints=self.etcd.endpoints()[::-1])
    self.commit_until_it_works(asked)
    watch = asked.watch(asked.header().revision + 1)
    asked.beat("a", b"watched")
    self.assertIsInstance(asked.answer_to(watch), Changed)
    self.etcd.pause(3)
    begun = time.monotonic()
    change = asked.ask("Commit", 1, [("h", b"lost?")], [], 10_000, None)
    reads = [asked.ask("ReadHeader", 5000) for _ in range(2)]
    for read in reads:
      self.assertIsInstance(asked.answer_to(read), HeaderIs)
    # What hadn't left yet is asked of another member, where the header is a later one.
    answer = asked.answer_to(change)
    self.assertTrue(isinstance(answer, Refused) or answer.kind == UNKNOWN, answer)
    self.assertEqual(asked.answer_to(watch), WatchBroken(watch, 0))
    print(f"frozen member left after {time.monotonic() - begun:.2f} s", file=sys.stderr)
    self.assertLess(time.monotonic() - begun, 5)

  def test_without_a_majority_requests_fail_in_time(self):
    revision = self.commit(0)
    self.engine.header()
    self.etcd.kill(2)
    self.etcd.kill(3)
    # Once the member that is left knows that it has no leader, no request is passed on.
    end = time.monotonic() + 30
    failed = None
    while (failed is None or failed.why != "etcdserver: no leader") and time.monotonic() < end:
      begun = time.monotonic()
      failed = self.engine.commit(revision, [("h", b"no")], limit=1500)
      self.assertIsInstance(failed, Failed)
      self.assertLess(time.monotonic() - begun, 2)
    self.assertEqual((failed.why, failed.kind), ("etcdserver: no leader", NOT_SENT))
    self.assertIsInstance(self.engine.header(limit=500), Failed)
    self.etcd.repair()
    self.commit_until_it_works(self.engine)

  def test_without_any_member_nothing_is_sent(self):
    self.commit(0)
    self.etcd.stop()
    begun = time.monotonic()
    failed = self.engine.commit(1, [("h", b"no")], limit=1500)
    if failed.kind == UNKNOWN:  # it was on its way when the connection broke
      failed = self.engine.commit(1, [("h", b"no")], limit=1500)
    self.assertEqual(failed.kind, NOT_SENT, failed)
    self.assertLess(time.monotonic() - begun, 4)
    self.etcd.repair()
    self.commit_until_it_works(self.engine)

  def test_a_member_cut_off_from_the_others_is_left_for_another(self):
    asked = self.open()
    self.commit_until_it_works(asked)
    NETWORK.cut(1, 2)
    NETWORK.cut(1, 3)
    took = self.commit_until_it_works(asked)
    print(f"member cut off, changes again after {took:.2f} s", file=sys.stderr)
    self.assertLess(took, 8)

  def test_a_machine_that_is_cut_off_comes_back_without_being_started_again(self):
    self.commit_until_it_works(self.engine)
    NETWORK.isolate(0)
    begun = time.monotonic()
    failed = [self.engine.commit(1, [("h", b"no")], limit=1000) for _ in range(4)]
    self.assertTrue(all(isinstance(report, Failed) for report in failed))
    self.assertLess(time.monotonic() - begun, 6)
    self.assertEqual(failed[-1].kind, NOT_SENT, "no connection can be made any more")
    NETWORK.heal()
    took = self.commit_until_it_works(self.engine)
    print(f"machine back, changes again after {took:.2f} s", file=sys.stderr)
    self.assertLess(took, 5)

  def test_a_watch_that_breaks_is_told_and_the_next_one_stands(self):
    asked = self.open()
    self.commit_until_it_works(asked)
    revision = asked.header().revision
    watch = asked.watch(revision)
    asked.answer_to(watch)
    self.etcd.kill(1)
    self.assertEqual(asked.answer_to(watch), WatchBroken(watch, 0))
    watch = asked.watch(revision)
    self.assertEqual(asked.answer_to(watch).revision, revision)

  def test_a_snapshot_that_is_restored_shows_an_earlier_revision(self):
    first = self.commit(0, [("e/1", b"one")])
    saved = f"{own_world.FOLDER}/saved.db"
    self.etcd.save(saved)
    second = self.commit(first, [("e/2", b"two")])
    self.etcd.restore(saved)
    cluster.wait_until(lambda: isinstance(self.engine.header(limit=1000), HeaderIs), 20, "an answer")
    header = self.engine.header()
    self.assertEqual(header.header, Row("h", b"header", first))
    self.assertLess(header.revision, second)


class SmallQuota(OverEtcd):
  options = ("--quota-backend-bytes", "1500000")

  def test_a_store_without_room_says_so_and_goes_on_once_there_is_some(self):
    revision = self.commit(0)
    for i in range(60):
      report = self.engine.commit(revision, [("h", b"header"), ("e/1", bytes([i]) * 100_000)])
      if isinstance(report, Failed):
        break
      revision = report.revision
    # The store makes the change that uses its quota up, and says that there is no room for it.
    self.assertIn(report.kind, (UNKNOWN, NO_SPACE))
    found = self.engine.header().header.revision
    self.assertEqual(report.kind == NO_SPACE, found == revision, "who is told that there is no room finds no change")
    revision = found
    report = self.engine.commit(revision, [("h", b"header"), ("e/1", bytes(100_000))])
    self.assertEqual((type(report), report.kind), (Failed, NO_SPACE), report)
    self.assertEqual(self.engine.header().header.revision, revision)
    self.etcd.free_space()
    self.commit(revision)


class OverTls(OverEtcd):
  @classmethod
  def setUpClass(cls):
    cls.files = f"{own_world.FOLDER}/tls"
    cluster.make_certificates(cls.files, NETWORK)
    cluster.make_certificates(f"{cls.files}/stranger", NETWORK, name="two")
    cls.etcd = cluster.Cluster(NETWORK, tls=cls.files)
    cls.prefixes = 0

  def open(self, files=None):
    files = files or self.files
    return super().open(tls=(f"{files}/ca.crt", f"{files}/client.crt", f"{files}/client.key"))

  def test_both_sides_show_who_they_are(self):
    self.commit(self.commit(0, [("e/1", b"one")]))

  def test_a_store_of_another_authority_is_told_nothing(self):
    self.assertEqual(self.open(f"{self.files}/stranger").header(limit=1000).kind, NOT_SENT)
    mixed = f"{self.files}/mixed"
    shutil.copytree(f"{self.files}/stranger", mixed)
    shutil.copy(f"{self.files}/ca.crt", mixed)
    self.assertIsInstance(self.open(mixed).header(limit=1000), Failed, "the store knows only its own clients")

  def test_changed_files_are_used_without_a_restart(self):
    changing = f"{self.files}/changing"
    shutil.copytree(f"{self.files}/stranger", changing)
    asked = self.open(changing)
    self.assertIsInstance(asked.header(limit=500), Failed)
    for name in ("ca.crt", "client.crt", "client.key"):
      shutil.copy(f"{self.files}/{name}", f"{changing}/new")
      os.rename(f"{changing}/new", f"{changing}/{name}")
    self.assertIsInstance(cluster.wait_until(
        lambda: isinstance(report := asked.header(limit=500), HeaderIs) and report, 10, "a connection"), HeaderIs)

  def test_files_that_cannot_be_read_are_told_at_once(self):
    opened = Engine(NETWORK, self.etcd.endpoints(), tls=("/none/ca", "/none/c", "/none/k"))
    self.addCleanup(opened.close)
    stopped = opened.next_report()
    self.assertEqual(stopped, Stopped("/none/ca: No such file or directory; the engine's user has to be able to read it"))
    self.assertRaises(Gone, opened.next_report)

  def test_a_watch_keeps_up_beside_loads(self):
    revision = self.fill(0, 3000, 300)
    watch = self.engine.watch(revision + 1)
    loads = [self.engine.ask("Load") for _ in range(10)]
    late = []
    for _ in range(20):
      revision = self.commit(revision)
      begun = time.monotonic()
      self.engine.wait_for(lambda report: isinstance(report, Changed) and report.revision == revision)
      late.append(time.monotonic() - begun)
    for request in loads:
      while not isinstance(self.engine.answer_to(request), Loaded):
        pass
    print(f"watch beside loads: median {statistics.median(late) * 1000:.1f} ms late, at most {max(late) * 1000:.1f} ms",
          file=sys.stderr)
    self.assertLess(statistics.median(late), 0.5)


class Process(unittest.TestCase):
  """The process itself, without a store."""

  def open(self, *arguments, **options):
    opened = Engine(NETWORK, *arguments, **options)
    self.addCleanup(opened.close)
    return opened

  def test_ends_with_its_connection(self):
    opened = self.open(["127.0.0.1:1"])
    self.assertIsInstance(opened.next_report(), Started)
    opened.ask("ReadHeader", 60_000)
    opened.watch(1)
    opened.socket.close()
    self.assertEqual(opened.process.wait(10), 0)

  def test_understands_one_version(self):
    opened = self.open(["127.0.0.1:1"], version=engine.VERSION + 1)
    self.assertIn("both have to be of one version", opened.next_report().why)
    self.assertEqual(opened.process.wait(10), 1)

  def test_ends_when_it_is_told_nonsense(self):
    good = engine.frame("ReadHeader", 1, 1000)
    for nonsense in (b"\xff\xff\xff\x7f", b"\x00\x00\x00\x00", good[:4] + b"\x55" + good[5:],
                     engine.frame("Start", 1, [], "p", "", "", "")[:30].ljust(64, b"\xff")):
      opened = self.open(["127.0.0.1:1"])
      self.assertIsInstance(opened.next_report(), Started)
      opened.socket.sendall(nonsense)
      self.assertIsInstance(opened.next_report(), Stopped)
      self.assertEqual(opened.process.wait(10), 1)

  def test_says_when_nothing_listens(self):
    opened = self.open(["127.0.0.1:1", "[::1]:1", "localhost:1"])
    self.assertIsInstance(opened.next_report(), Started)
    begun = time.monotonic()
    self.assertEqual(opened.commit(1, [("h", b"")], limit=700).kind, NOT_SENT)
    self.assertLess(time.monotonic() - begun, 3)

  def test_gives_each_connection_that_is_passed_a_process(self):
    control, its = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    server = subprocess.Popen([f"{BUILD}/ksd-engine"], stdin=its, stderr=subprocess.DEVNULL)
    self.addCleanup(server.wait)
    its.close()
    for _ in range(6):  # more than are served at once
      connections = []
      for endpoints in ([], ["127.0.0.1:1"]):
        ours, theirs = socket.socketpair()
        socket.send_fds(control, [b"."], [theirs.fileno()])
        theirs.close()
        connections.append(Connection(ours))
        connections[-1].start(endpoints)
      self.assertEqual(connections[0].next_report(), Stopped("there are no endpoints"))
      self.assertIsInstance(connections[1].next_report(), Started)
      for connection in connections:
        connection.close()
    control.close()
    self.assertEqual(server.wait(10), 0)

  def test_is_started_by_the_service_alone(self):
    ran = subprocess.run([f"{BUILD}/ksd-engine"], stdin=subprocess.DEVNULL, capture_output=True, text=True)
    self.assertEqual(ran.returncode, 2)
    self.assertIn("is started by the keystore service", ran.stderr)


if __name__ == "__main__":
  unittest.main(verbosity=2)
