#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""What a user of three machines sees of their fleet: real services, engines and etcd, with mutual TLS, and faults.

Run by ctest, with the build's folder in KS_BUILD. Arguments are those of unittest.
"""

import glob
import json
import os
import pathlib
import signal
import sys
import threading
import time
import unittest

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import own_world  # noqa: E402

if __name__ == "__main__":
  own_world.enter("etcd", "etcdctl", "openssl")

import cluster  # noqa: E402
import machine  # noqa: E402
from machine import Machine  # noqa: E402

NETWORK = cluster.Network(3) if __name__ == "__main__" else None


def validate(document, command):
  """Holds what a command has printed to its schema, where there is a module that can."""
  try:
    import jsonschema
  except ImportError:
    return
  with open(f"tools/ksctl/schemas/{command}.json") as schema:
    jsonschema.validate(document, json.load(schema))


class Fleet(unittest.TestCase):
  """One fleet for all tests; each begins with everything in order, and no entries."""

  @classmethod
  def setUpClass(cls):
    cls.network = NETWORK
    tls = f"{own_world.FOLDER}/tls"
    cluster.make_certificates(tls, cls.network)
    cls.etcd = cluster.Cluster(cls.network, tls=tls)
    named = '[shared.owners]\nradius = "root"'
    cls.machines = [Machine(cls.network, cls.etcd, 1, "create = true\n" + named),
                    Machine(cls.network, cls.etcd, 2, named), Machine(cls.network, cls.etcd, 3)]
    machine.start_fleet(cls.machines)

  @classmethod
  def tearDownClass(cls):
    for each in cls.machines:
      each.kill()
    cls.etcd.stop()

  def setUp(self):
    self.one, self.two, self.three = self.machines
    self.addCleanup(self.put_in_order)

  def put_in_order(self):
    self.etcd.repair()
    for each in self.machines:
      if each.process.poll() is not None:
        each.start()
    cluster.wait_until(lambda: all(each.status()["well"] for each in self.machines), 30, "a fleet that is well")
    for name in self.one.names():
      self.assertEqual(self.one.ctl("secret", "rm", name).returncode, 0)
    for each in self.machines:
      each.wait_for([])

  def test_has_the_same_entries_on_all_machines(self):
    self.assertEqual(self.one.put("a"), 0)
    self.two.wait_for(["a"])
    self.assertEqual(self.two.put("b"), 0)
    self.three.wait_for(["a", "b"])
    self.assertEqual(self.three.ctl("secret", "rename", "a", "c").returncode, 0)
    self.one.wait_for(["b", "c"])
    self.assertEqual(self.one.ctl("secret", "rm", "b").returncode, 0)
    for each in self.machines:
      each.wait_for(["c"])

  def test_lists_what_many_make_at_once_in_one_order(self):
    def make(each):
      for i in range(10):
        self.assertEqual(each.put(f"{each.number}-{i}"), 0)

    makers = [threading.Thread(target=make, args=(each,)) for each in self.machines]
    for maker in makers:
      maker.start()
    for maker in makers:
      maker.join()
    wanted = {f"{each.number}-{i}" for each in self.machines for i in range(10)}
    for each in self.machines:
      each.wait_for(wanted)
    self.assertEqual(self.one.names(), self.two.names())
    self.assertEqual(self.one.names(), self.three.names())
    # Each change waited for a commit of its machine's; some of those found that another machine had come before.
    counts = [each.status() for each in self.machines]
    self.assertGreaterEqual(min(count["commits"] for count in counts), 10)
    self.assertGreater(sum(count["lost"] for count in counts), 0)

  def test_goes_on_whichever_process_of_its_engine_dies(self):
    names = []
    for i, dying in enumerate(((2,), (0,), (1,), (0, 2), (1, 2))):
      engines = cluster.wait_until(lambda: self.three_processes(self.one), 10, "an engine and who starts it")
      for role in dying:
        os.kill(engines[role], 9)
      self.assertEqual(self.two.put(f"{i}"), 0)
      names.append(f"{i}")
      self.one.wait_for(names)
      cluster.wait_until(lambda: self.one.put(f"own {i}") == 0, 10, "a change")  # the first may come before the engine
      names.append(f"own {i}")

  @staticmethod
  def three_processes(of):
    engines = of.engines()
    return engines if len(engines) == 3 and len(os.listdir(f"/proc/{engines[2]}/task")) > 1 else None

  def test_says_so_when_no_process_is_left_that_starts_engines(self):
    engines = cluster.wait_until(lambda: self.three_processes(self.one), 10, "an engine and who starts it")
    for stroke in (signal.SIGSTOP, signal.SIGKILL):
      for engine in engines:
        os.kill(engine, stroke)
    cluster.wait_until(lambda: not self.one.status()["well"], 10, "word of it")
    self.assertIn("no process is left that starts engines; restart the service", self.one.status()["standing"])
    found = self.one.doctor()
    self.assertEqual(found["fleet engine"][0], "fault")
    self.assertEqual(found["fleet"][0], "not looked at")
    self.one.kill()
    self.one.start()
    cluster.wait_until(lambda: self.one.put("after") == 0, 10, "a change")

  def test_names_owners_as_the_fleet_does(self):
    self.assertEqual(self.one.put("a"), 0)
    self.assertEqual(self.three.put("bc", "two"), 0)
    self.one.wait_for(["a", "bc"])
    owners = {owner["owner"]: owner for owner in json.loads(self.one.ctl("owners", "--json").stdout)["owners"]}
    self.assertEqual((owners["radius"]["uid"], owners["radius"]["user"], owners["radius"]["entries"]), (0, "root", 1))
    self.assertEqual((owners["others"]["uid"], owners["others"]["user"], owners["others"]["bytes"]), (None, None, 3))
    limits = {limit["key"]: limit for limit in json.loads(self.three.ctl("limits", "--json").stdout)["limits"]}
    self.assertEqual((limits["bytes_per_user"]["owner"], limits["bytes_per_user"]["uid"]), ("radius", None))
    self.assertEqual((limits["connections_per_user"]["owner"], limits["connections_per_user"]["uid"]), (None, 0))

  def test_status_tells_of_the_fleet_and_of_no_vault(self):
    status = json.loads(self.one.ctl("status", "--json").stdout)
    self.assertIsNone(status["vault"])
    self.assertEqual((status["fleet"]["machine"], status["fleet"]["well"]), ("m1", True))
    self.assertEqual(status["fleet"]["mirror"], f"{self.one.folder}/mirror.db")
    self.assertGreater(status["fleet"]["mirror_size"], 0)

  def test_refuses_what_is_for_a_vault_and_says_what_to_do(self):
    refused = self.one.ctl("vault", "rekey")
    self.assertEqual(refused.returncode, 7)
    self.assertIn("ksctl fleet rotate", refused.stderr)

  def test_doctor_finds_a_machine_that_is_well(self):
    found = self.one.doctor()
    for check in ("fleet engine", "fleet", "fleet age", "fleet files", "fleet certificates", "vault", "disk"):
      self.assertEqual(found[check][0], "good", check)
    self.assertIn("ca.crt is good until", found["fleet certificates"][1])

  def test_doctor_finds_keys_and_certificates_that_are_wrong(self):
    tls = self.etcd.tls
    os.chmod(f"{tls}/client.key", 0o644)
    verdict, finding, repair = self.one.doctor()["fleet files"]
    os.chmod(f"{tls}/client.key", 0o600)
    self.assertEqual((verdict, "others may read" in finding, "chmod 0400" in repair), ("fault", True, True))

    os.rename(f"{tls}/ca.crt", f"{tls}/ca.kept")
    self.addCleanup(os.rename, f"{tls}/ca.kept", f"{tls}/ca.crt")
    with open(f"{tls}/ca.crt", "w") as empty:
      empty.write("no certificate")
    self.assertIn("there is no certificate in it", self.one.doctor()["fleet certificates"][1])
    short = f"{own_world.FOLDER}/short"
    cluster.make_certificates(short, self.network, days=13)
    os.rename(f"{short}/ca.crt", f"{tls}/ca.crt")
    self.assertRegex(self.one.doctor()["fleet certificates"][1], "ca.crt expires on .*, in 1[23] days")
    os.unlink(f"{tls}/ca.crt")
    self.assertIn("isn't there", self.one.doctor()["fleet files"][1])

  def test_keeps_what_was_acknowledged_when_services_and_members_are_killed(self):
    for i in range(3):
      self.assertEqual(self.one.put(f"{i}"), 0)
      self.machines[i].kill()
      self.machines[i].start()
      leader = self.etcd.leader()
      self.etcd.kill(leader)
      begun = time.monotonic()
      cluster.wait_until(lambda: self.two.put(f"after {i}") == 0, 20, "a change")
      print(f"leader killed, a change again after {time.monotonic() - begun:.2f} s", file=sys.stderr)
      self.etcd.repair()
    for each in self.machines:
      each.wait_for(["0", "1", "2", "after 0", "after 1", "after 2"])

  def test_without_a_majority_reads_go_on_and_changes_fail_in_time(self):
    self.assertEqual(self.one.put("before"), 0)
    self.two.wait_for(["before"])
    self.etcd.kill(1)
    self.etcd.kill(2)
    cluster.wait_until(lambda: not self.two.status()["well"], 10, "word of it")
    begun = time.monotonic()
    self.assertNotEqual(self.two.put("meanwhile"), 0)
    self.assertLess(time.monotonic() - begun, 6.5)
    self.assertEqual(self.two.names(), ["before"])
    self.assertIn("doesn't answer", self.two.status()["standing"])
    found = self.two.doctor()
    self.assertEqual((found["fleet engine"][0], found["fleet"][0]), ("good", "fault"))
    self.assertEqual(found["fleet"][1], self.two.status()["standing"])
    warnings = json.loads(self.two.ctl("status", "--json").stdout)["warnings"]
    self.assertEqual(warnings, ["the fleet: " + self.two.status()["standing"]])
    # A restart is served by what the machine has kept of the fleet.
    self.two.kill()
    self.two.start()
    self.assertEqual(self.two.names(), ["before"])
    self.etcd.repair()
    cluster.wait_until(lambda: self.two.put("after") == 0, 20, "a change")
    self.assertNotIn("meanwhile", self.two.names())

  def test_a_machine_that_was_cut_off_catches_up(self):
    self.network.isolate(3)
    cluster.wait_until(lambda: self.one.put("meanwhile") == 0, 20, "a change")
    self.assertEqual(self.three.names(), [])
    begun = time.monotonic()
    self.network.heal()
    self.three.wait_for(["meanwhile"])
    print(f"cut off, caught up after {time.monotonic() - begun:.2f} s", file=sys.stderr)

  def test_tells_how_it_is_as_its_schema_says(self):
    status = self.one.status()
    self.assertEqual((status["shared"], status["machine"], status["well"], status["standing"]), (True, "m1", True, ""))
    self.assertEqual(status["fleet"], self.two.status()["fleet"])
    self.assertEqual(self.one.put("a"), 0)
    for words in (("fleet", "status"), ("status",), ("owners",), ("limits",)):
      validate(json.loads(self.one.ctl(*words, "--json").stdout), "-".join(words))

  def test_takes_in_the_entries_of_a_machines_vault(self):
    self.assertEqual(self.one.put("a"), 0)
    self.assertEqual(self.one.put("b"), 0)
    self.one.backup("own")
    # A fleet's backup makes a vault of one machine as well.
    vault, key = f"{self.one.folder}/vault.db", f"{self.one.folder}/own.key"
    made = self.one.ctl("restore", f"{self.one.folder}/own", "--vault", vault, "--master-key-file", key, given="p\n")
    self.assertEqual(made.returncode, 0, made.stderr)
    for name in ("a", "b"):
      self.assertEqual(self.one.ctl("secret", "rm", name).returncode, 0)
    self.assertEqual(self.two.put("first"), 0)
    self.one.wait_for(["first"])

    def take_in(*options):
      return self.one.ctl("fleet", "import", "--vault-key-file", key, "--json", *options)

    planned = json.loads(take_in("--dry-run").stdout)
    self.assertEqual((planned["added"], planned["refused"]), (2, 0))
    self.assertEqual(self.one.names(), ["first"])
    done = json.loads(take_in().stdout)
    self.assertEqual((done["added"], done["same"]), (2, 0))
    self.three.wait_for(["first", "a", "b"])
    self.assertEqual(self.three.names(), ["first", "a", "b"])
    self.assertEqual(json.loads(take_in().stdout)["same"], 2, "asked for again")

    self.assertEqual(self.two.put("a", "another secret", "--replace"), 0)
    cluster.wait_until(lambda: json.loads(take_in("--dry-run").stdout)["refused"] == 1, 10, "the change")
    planned = json.loads(take_in("--dry-run").stdout)
    self.assertEqual(planned["taken"], [{"vdc": 7, "kind": "secret", "name": "a"}])
    refused = take_in()
    self.assertEqual(refused.returncode, 7)
    self.assertIn("secret a of VDC 7 is there already with other content", refused.stderr)
    self.assertEqual(json.loads(take_in("--skip-existing").stdout)["skipped"], 1)
    self.assertEqual(json.loads(take_in("--replace").stdout)["replaced"], 1)
    self.assertEqual(json.loads(take_in().stdout)["same"], 2)
    self.assertEqual(self.one.told().count(" takes 2 entries of a vault into the fleet\n"), 5, "a line for each")
    for name in ("a", "b"):
      self.assertEqual(self.one.ctl("secret", "rm", name).returncode, 0)
    self.network.isolate(1)
    stopped = take_in()
    self.network.heal()
    self.assertEqual(stopped.returncode, 1)
    self.assertRegex(stopped.stderr, "stopped after 0 of 2 entries: the store (doesn't answer|hasn't said in time)")
    for document in (planned, done):
      validate(document, "fleet-import")
    wrong = self.one.ctl("fleet", "import", "--vault-key-file", f"{self.one.folder}/master.key")
    self.assertIn("belongs to another master key", wrong.stderr)
    for file in glob.glob(f"{vault}*"):
      os.unlink(file)
    missing = take_in()
    self.assertEqual(missing.returncode, 1)
    self.assertIn("there is no vault", missing.stderr)

  def test_a_backup_takes_the_place_of_all_entries_on_all_machines(self):
    self.assertEqual(self.one.put("a"), 0)
    self.two.wait_for(["a"])
    stop = threading.Event()

    def change():
      while not stop.is_set():
        self.two.put("changing", str(time.monotonic()), "--replace")

    changer = threading.Thread(target=change)
    changer.start()
    kept = self.one.backup("while others change")
    stop.set()
    changer.join()
    checked = self.one.ctl("restore", f"{self.one.folder}/while others change", "--verify", "--json", given="p\n")
    self.assertEqual(json.loads(checked.stdout)["entries"], kept["entries"])
    names = ["a", "changing"][:kept["entries"]]
    self.assertEqual(self.two.put("later"), 0)
    self.assertEqual(self.two.ctl("secret", "rm", "a").returncode, 0)

    incarnation = self.one.status()["incarnation"]
    restored = self.one.restore("while others change")
    self.assertEqual(restored["incarnation"], incarnation + 1)
    for key in ("entries", "version"):
      self.assertEqual(restored[key], kept[key])
    self.assertEqual(self.one.names(), names)
    for each in (self.two, self.three):
      cluster.wait_until(lambda: each.status()["left_alone"], 10, "that it stops")
      self.assertIn(f"ksctl fleet accept {incarnation + 1}", each.status()["standing"])
      self.assertIn("later", each.names(), "what it had is read on")
      self.assertNotEqual(each.put("more"), 0)
      self.assertEqual(each.ctl("fleet", "accept", str(incarnation + 2)).returncode, 7)
    accepted = self.two.ctl("fleet", "accept", str(incarnation + 1), "--json")
    self.assertEqual(accepted.returncode, 0, accepted.stderr)
    self.assertEqual(self.two.names(), names)
    # A restart doesn't take the question back, nor the answer.
    for each in (self.two, self.three):
      each.kill()
      each.start()
    self.assertEqual(self.two.put("after"), 0)
    self.assertTrue(cluster.wait_until(lambda: self.three.status()["left_alone"], 10, "that it stops"))
    self.assertEqual(self.three.ctl("fleet", "accept", str(incarnation + 1)).returncode, 0)
    self.three.wait_for([*names, "after"])
    rows = [key for key in self.etcd.ctl("get", "ks/e/", "--prefix", "--keys-only").split() if key]
    self.assertEqual(len(rows), len(names) + 1, "nothing is left of what was there before")
    self.assertEqual(self.etcd.ctl("get", "ks/r"), "")
    validate(restored, "fleet-restore")
    validate(json.loads(accepted.stdout), "fleet-accept")

  def test_a_restore_that_is_killed_leaves_the_fleet_as_it_was(self):
    self.assertEqual(self.one.put("a"), 0)
    self.one.backup("first")
    self.assertEqual(self.one.put("b"), 0)
    incarnation = self.one.status()["incarnation"]
    self.network.isolate(1)
    restoring = self.one.begin_restore("first")
    cluster.wait_until(lambda: self.one.told().count("restores a backup") == 1, 10, "a restore that is under way")
    self.one.kill()
    self.assertNotEqual(restoring.wait(10), 0)
    self.network.heal()
    self.one.start()
    self.two.wait_for(["a", "b"])
    self.one.wait_for(["a", "b"])
    # An interrupted command gives up what it has begun, as long as nothing has changed.
    self.network.isolate(1)
    restoring = self.one.begin_restore("first")
    cluster.wait_until(lambda: self.one.told().count("restores a backup") == 2, 10, "a restore that is under way")
    restoring.terminate()
    self.assertNotEqual(restoring.wait(10), 0)
    self.network.heal()
    cluster.wait_until(lambda: self.one.put("c") == 0, 20, "a change")
    self.two.wait_for(["a", "b", "c"])
    self.assertEqual(self.two.status()["incarnation"], incarnation)


class OwnFleet(unittest.TestCase):
  """Each test has a fleet of its own, over etcd of its own, which it spoils."""

  def make_fleet(self, numbers, names):
    self.network = NETWORK
    self.addCleanup(self.network.heal)
    folder = f"{own_world.FOLDER}/{self.id().rsplit('.', 1)[1]}"
    tls = f"{folder}/tls"
    os.makedirs(folder)
    cluster.make_certificates(tls, self.network)
    self.etcd = cluster.Cluster(self.network, folder=folder, tls=tls)
    self.addCleanup(self.etcd.stop)
    self.machines = [Machine(self.network, self.etcd, i, "create = true" if i == 1 else "", folder) for i in numbers]
    for each in self.machines:
      self.addCleanup(lambda each=each: each.process and each.kill())
    machine.start_fleet(self.machines)
    for name in names:
      self.assertEqual(self.machines[0].put(name), 0)
    for each in self.machines:
      each.wait_for(names)


class Members(OwnFleet):
  """Machines that leave, and another master key."""

  def setUp(self):
    self.make_fleet((1, 2, 3), ["a"])
    self.one, self.two, self.three = self.machines
    for each in self.machines:
      cluster.wait_until(lambda each=each: set(self.listed(each)) == {"m1", "m2", "m3"}, 10, "all machines")

  def json(self, each, *words):
    done = each.ctl(*words, "--json")
    self.assertEqual(done.returncode, 0, done.stderr)
    document = json.loads(done.stdout)
    validate(document, f"{words[0]}-{words[1]}")
    return document

  def listed(self, each):
    return {row["machine"]: row for row in self.json(each, "fleet", "list")["machines"]}

  def rotate(self, each):
    prints = {self.json(one, "fleet", "status")["fingerprint"] for one in self.machines if one.process.poll() is None}
    self.assertEqual(len(prints), 1, "all machines show one fingerprint")
    return each.ctl("fleet", "rotate", "--fingerprint", prints.pop(), "--json")

  def keys(self):
    return [pathlib.Path(each.folder, "master.key").read_bytes() for each in self.machines]

  def assert_all_have(self, names):
    for each in self.machines:
      each.wait_for(names)

  def test_lists_its_machines(self):
    listed = self.listed(self.two)
    self.assertEqual([name for name, row in listed.items() if row["this"]], ["m2"])
    self.assertTrue(all(row["member"] for row in listed.values()))
    self.assertEqual(len({row["keys"] for row in listed.values()}), 1)
    self.assertEqual(len({row["fingerprint"] for row in listed.values()}), 3)
    self.assertIn("this machine", self.two.ctl("fleet", "list").stdout)

  def test_a_machine_leaves_and_comes_back_as_another(self):
    alive = self.one.ctl("fleet", "leave", "--machine", "m3")
    self.assertEqual(alive.returncode, 7, alive.stderr)
    self.json(self.three, "fleet", "leave")
    self.assertIsNone(self.three.names(), "it serves nothing of the fleet any more")
    self.assertNotEqual(self.three.put("late"), 0)
    self.assertIn("it has left", self.three.status()["standing"])
    cluster.wait_until(lambda: set(self.listed(self.one)) == {"m1", "m2"}, 10, "two machines")
    self.three.kill()
    self.three.start()
    cluster.wait_until(lambda: self.three.status()["left_alone"], 10, "that it is out, after a start")
    self.assertIsNone(self.three.names())

    self.three.kill()
    for name in ("master.key.machine", "mirror.db", "master.key"):
      os.unlink(f"{self.three.folder}/{name}")
    for name in ("request", "answer"):
      os.unlink(f"{self.three.folder}/{name}")
    machine.join(self.three, to=self.one)
    self.three.start()
    self.three.wait_for(["a"])
    self.assertEqual(self.three.put("b"), 0)
    self.assert_all_have(["a", "b"])

  def test_a_machine_that_is_gone_is_taken_out_and_stops_when_it_is_back(self):
    self.network.isolate(3)
    self.assertEqual(self.one.ctl("fleet", "leave", "--machine", "m3", "--even-if-alive").returncode, 0)
    self.network.heal()
    cluster.wait_until(lambda: "taken out" in self.three.status()["standing"], 30, "that it was taken out")
    self.assertIsNone(self.three.names())
    self.assertEqual(self.one.put("b"), 0)
    self.assertEqual(self.two.put("c"), 0)

  def test_changes_the_master_key_while_machines_are_killed(self):
    names = {"a", *(f"n{i}" for i in range(120))}  # of more than one change
    for name in names - {"a"}:
      self.assertEqual(self.one.put(name), 0)
    self.assert_all_have(names)
    before = self.keys()
    self.assertEqual(self.one.ctl("fleet", "rotate", "--fingerprint", "-".join(["0000"] * 8)).returncode, 4)
    self.assertEqual(self.one.ctl("vault", "rekey").returncode, 7, "a fleet's key isn't one machine's business")

    self.three.kill()
    self.assertEqual(self.rotate(self.one).returncode, 1, "it waits for m3")
    progress = self.json(self.two, "fleet", "rotate", "--status")
    self.assertEqual((progress["changing"], progress["waits_for"], progress["begun_by"]), (True, ["m3"], "m1"))
    self.assertEqual(self.two.put("meanwhile"), 0)
    self.assertEqual(self.keys(), before)

    self.one.kill()  # who began it is gone as soon as it could go on
    self.three.start()
    cluster.wait_until(lambda: not self.json(self.two, "fleet", "rotate", "--status")["changing"], 60, "its end")
    self.one.start()
    cluster.wait_until(lambda: len(set(self.keys())) == 1 and self.keys()[0] != before[0], 30, "one key everywhere")
    for each in self.machines:
      self.assertFalse(os.path.exists(f"{each.folder}/master.key.next"))
      self.assertEqual(os.stat(f"{each.folder}/master.key").st_mode & 0o777, 0o600)
    self.assertEqual(self.etcd.ctl("get", "ks/k/", "--prefix", "--keys-only").strip(), "")
    self.assert_all_have(names | {"meanwhile"})
    for each in self.machines:
      each.kill()
      each.start()
    self.assert_all_have(names | {"meanwhile"})
    self.assertEqual(self.rotate(self.three).returncode, 0)
    self.assert_all_have(names | {"meanwhile"})

  def test_says_what_to_do_where_the_next_key_cant_be_kept(self):
    os.mkdir(f"{self.two.folder}/master.key.next")  # which can't be replaced by a file
    self.assertEqual(self.rotate(self.one).returncode, 1)
    self.assertIn("can't take it", self.two.status()["standing"])
    self.assertIn("master.key.next", self.two.status()["standing"])
    self.assertEqual(self.two.put("b"), 0, "all else goes on")
    os.rmdir(f"{self.two.folder}/master.key.next")
    cluster.wait_until(lambda: not self.json(self.one, "fleet", "rotate", "--status")["changing"], 30, "its end")
    cluster.wait_until(lambda: self.two.status()["well"], 10, "a machine that is well")
    self.assert_all_have(["a", "b"])


class Tampering(OwnFleet):
  """What somebody changes in the store behind the machines' backs."""

  def setUp(self):
    self.make_fleet((1, 2), ["a", "b"])
    self.one, self.two = self.machines

  def rows(self):
    keys = self.etcd.ctl("get", "ks/e/", "--prefix", "--keys-only").split()
    return [key for key in keys if key]

  def assert_found_by(self, *machines):
    begun = time.monotonic()
    for each in machines:
      cluster.wait_until(lambda: each.status()["left_alone"], 10, "that it is found")
    print(f"found after {time.monotonic() - begun:.2f} s: {machines[0].status()['standing']}", file=sys.stderr)
    for each in machines:
      self.assertNotEqual(each.put("c"), 0)
      verdict, finding, repair = each.doctor()["fleet"]
      self.assertEqual((verdict, finding), ("fault", each.status()["standing"]))
      self.assertIn("`ksctl fleet restore`", finding, "it is told to its end")
      self.assertIn("systemctl restart ksd", repair)

  def test_a_row_that_is_removed_is_found(self):
    self.etcd.ctl("del", self.rows()[0])
    self.assert_found_by(self.one, self.two)

  def test_rows_that_are_exchanged_are_found(self):
    first, second = self.rows()
    self.etcd.put(first, self.etcd.value_of(second))
    self.assert_found_by(self.one, self.two)

  def test_a_snapshot_that_is_put_back_is_found_also_by_a_machine_that_starts(self):
    saved = f"{self.one.folder}/saved.db"
    self.etcd.save(saved)
    self.assertEqual(self.one.put("c"), 0)
    self.two.wait_for(["a", "b", "c"])
    self.two.stop()
    self.etcd.restore(saved)
    self.assert_found_by(self.one)
    self.two.start()
    self.assert_found_by(self.two)

  def test_a_store_that_was_emptied_is_found_and_mended_by_a_restore(self):
    self.one.backup("before")
    self.etcd.ctl("del", "ks/", "--prefix")
    self.assert_found_by(self.one, self.two)
    # `create` stands in its configuration still, but it knows that there was a fleet.
    self.one.stop()
    os.unlink(f"{self.one.folder}/mirror.db")
    self.one.start()
    self.assertIn("belongs to a fleet", self.one.status()["standing"])
    self.assertNotEqual(self.one.put("c"), 0)
    restored = self.two.restore(f"{self.one.folder}/before")
    self.assertEqual(restored["incarnation"], 2)
    for each in (self.one, self.two):
      each.wait_for(["a", "b"])
      cluster.wait_until(lambda: each.status()["well"], 10, "a fleet that is well")
    for each in (self.one, self.two):
      self.assertEqual(each.put(f"after {each.number}"), 0)


if __name__ == "__main__":
  unittest.main(verbosity=2)
