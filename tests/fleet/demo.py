#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""demo.py: three machines that share their entries, on one. Run by `./dev demo-fleet`; every step has to succeed."""

import json
import os
import sys
import time

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import own_world  # noqa: E402

if __name__ == "__main__":
  own_world.enter("etcd", "etcdctl", "openssl")

import cluster  # noqa: E402
import machine  # noqa: E402

BOLD, PLAIN = ("\033[1m", "\033[0m") if sys.stdout.isatty() and not os.environ.get("NO_COLOR") else ("", "")


def title(text):
  print(f"\n{BOLD}{text}{PLAIN}", flush=True)


def show(*machines):
  for each in machines:
    print(f"  machine {each.number}: {', '.join(each.names())}")


def timed(wait):
  begun = time.monotonic()
  wait()
  return f"{time.monotonic() - begun:.2f} s"


def main():
  title("Three machines on a network of their own, each with a member of an etcd cluster, and mutual TLS")
  network = cluster.Network(3)
  tls = f"{own_world.FOLDER}/tls"
  cluster.make_certificates(tls, network)
  etcd = cluster.Cluster(network, tls=tls)
  one, two, three = machines = [machine.Machine(network, etcd, 1, "create = true"),
                                machine.Machine(network, etcd, 2), machine.Machine(network, etcd, 3)]
  for each in machines:
    print(f"  machine {each.number}: {network.address(each.number)}")

  title("The first makes the fleet; the others get its master key, sealed for each of them alone")
  machine.start_fleet(machines)
  print(f"  all of them serve fleet {three.status()['fleet']}")

  title("What is stored on one is found on all, in one order")
  for each, name in zip(machines, ("radius-password", "eap-key", "vpn-key")):
    assert each.put(name) == 0
  for each in machines:
    each.wait_for(["radius-password", "eap-key", "vpn-key"])
  show(*machines)

  title("The store sees rows without names, and sealed values")
  key = etcd.ctl("get", "ks/e/", "--prefix", "--keys-only").split()[0]
  print(f"  {key}: {etcd.value_of(key)[:24].hex(' ')} ...")

  title("The master key is changed on all of them, while they go on")
  rotated = one.ctl("fleet", "rotate", "--fingerprint", one.status()["fingerprint"])
  assert rotated.returncode == 0, rotated.stderr
  cluster.wait_until(lambda: not json.loads(two.ctl("fleet", "rotate", "--status", "--json").stdout)["changing"], 30,
                     "the end of the change")
  print("\n".join("  " + line for line in two.ctl("fleet", "list").stdout.splitlines()))

  title("The store's leader is killed: changes go on")
  etcd.kill(etcd.leader())
  print("  a change again after " + timed(lambda: cluster.wait_until(lambda: one.put("after") == 0, 20, "a change")))
  etcd.repair()

  title("Machine 3 is cut off: it serves what it has, changes nothing, and catches up")
  network.isolate(3)
  cluster.wait_until(lambda: one.put("meanwhile") == 0, 20, "a change")
  show(one, three)
  print(f"  a change on machine 3 failed after {timed(lambda: three.put('nowhere'))}: {three.status()['standing']}")
  network.heal()
  print("  it has caught up after " + timed(lambda: three.wait_for(one.names(), 20)))

  title("All entries are backed up, sealed under a passphrase")
  print(f"  {one.backup('fleet.backup')['entries']} entries")

  title("Somebody removes a row from the store: every machine notices, and leaves the store alone")
  etcd.ctl("del", key)
  for each in machines:
    cluster.wait_until(lambda: each.status()["left_alone"], 10, "that it is noticed")
  print(f"  {one.status()['standing']}")
  show(*machines)

  title("The backup is restored on one machine; the others follow when they are told that it was meant")
  restored = one.restore("fleet.backup")
  for other in (two, three):
    accepted = other.ctl("fleet", "accept", str(restored["incarnation"]))
    assert accepted.returncode == 0, accepted.stderr
    other.wait_for(one.names())
  show(*machines)


if __name__ == "__main__":
  main()
