#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""systemctl start|restart|stop [--no-block] UNIT: stands in for a service manager on a machine of a test's own.

Of the real units, in the folders of UNITS, it heeds what decides whether a service works: command, user, environment,
readiness, and a socket that gives each connection a process. Programs are those of PROGRAMS where it has them. What
confines a service and what starts it at boot are left out.
"""

import os
import pwd
import signal
import socket
import subprocess
import sys
import time

STATE = "/run/units"
READY_LIMIT_S = 90


def unit_file(name):
  for folder in os.environ["UNITS"].split(":"):
    path = f"{folder}/{name}"
    if os.path.exists(path):
      return path
  raise SystemExit(f"systemctl: there is no unit {name}")


def settings_of(*paths):
  """All values of each key, in their order."""
  found = {}
  for path in paths:
    with open(path) as lines:
      for line in lines:
        key, equals, value = line.strip().partition("=")
        if equals and not key.startswith("#"):
          found.setdefault(key, []).append(value)
  return found


def environment_of(settings, unit):
  environment = {"PATH": os.environ["PATH"]}
  texts = list(settings.get("Environment", []))
  for path in settings.get("EnvironmentFile", []):
    path = path.removeprefix("-").replace("%p", unit.removesuffix(".service"))
    with open(path) as lines:
      texts += [line.strip() for line in lines if line.strip() and not line.startswith("#")]
  for text in texts:
    name, _, value = text.partition("=")
    environment[name] = value.replace("%H", os.uname().nodename)
  return environment


def start_process(settings, unit, further, **options):
  command = settings["ExecStart"][-1].replace("$DAEMON_ARGS", "").split()
  own = f"{os.environ['PROGRAMS']}/{os.path.basename(command[0])}"
  program = own if os.path.exists(own) else os.path.basename(command[0])
  user = pwd.getpwnam(settings["User"][-1])
  return subprocess.Popen([program, *command[1:]], user=user.pw_uid, group=user.pw_gid, extra_groups=[],
                          env=environment_of(settings, unit) | further, **options)


def become_keeper(unit):
  """Goes on as a process of its own, which keeps a unit running; the caller goes on as well, and is told so by True."""
  if os.fork() != 0:
    return True
  os.setsid()
  with open(f"{STATE}/{unit}.log", "a") as log:
    os.dup2(log.fileno(), 1)
    os.dup2(log.fileno(), 2)
  with open(f"{STATE}/{unit}.pid", "w") as file:
    file.write(str(os.getpid()))
  return False


def keep_service(unit):
  """Tells in a file when the service is ready, and ends with it."""
  drop_ins = [unit_file(f"{unit}.engine.conf")] if unit == "ksd.service" else []
  settings = settings_of(unit_file(unit), *drop_ins)
  notified = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
  notified.bind(f"{STATE}/{unit}.notify")
  os.chmod(f"{STATE}/{unit}.notify", 0o666)
  notified.settimeout(0.2)
  process = start_process(settings, unit, {"NOTIFY_SOCKET": f"{STATE}/{unit}.notify"}, stdin=subprocess.DEVNULL)
  signal.signal(signal.SIGTERM, lambda *_: process.terminate())
  while process.poll() is None:
    try:
      if b"READY=1" in notified.recv(4096):
        open(f"{STATE}/{unit}.ready", "w").close()
    except TimeoutError:
      pass


def keep_socket(unit):
  settings = settings_of(unit_file(unit))
  path, user = settings["ListenStream"][-1], pwd.getpwnam(settings["SocketUser"][-1])
  os.makedirs(os.path.dirname(path), exist_ok=True)
  listening = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
  listening.bind(path)
  os.chmod(path, int(settings["SocketMode"][-1], 8))
  os.chown(path, user.pw_uid, user.pw_gid)
  listening.listen()
  open(f"{STATE}/{unit}.ready", "w").close()
  signal.signal(signal.SIGCHLD, signal.SIG_IGN)
  service = unit.replace(".socket", "@.service")
  while True:
    connection, _ = listening.accept()
    start_process(settings_of(unit_file(service)), service, {}, stdin=connection)
    connection.close()


def keeper_of(unit):
  """The process that keeps the unit running, or None."""
  try:
    with open(f"{STATE}/{unit}.pid") as file:
      pid = int(file.read())
    with open(f"/proc/{pid}/stat") as stat:
      return None if stat.read().rpartition(")")[2].split()[0] == "Z" else pid
  except (OSError, ValueError):
    return None


def wait_until(condition, what):
  end = time.monotonic() + READY_LIMIT_S
  while not condition():
    if time.monotonic() > end:
      raise SystemExit(f"systemctl: after {READY_LIMIT_S} s still not: {what}")
    time.sleep(0.02)


def stop(unit):
  pid = keeper_of(unit)
  if pid is not None:
    os.kill(pid, signal.SIGTERM)
    wait_until(lambda: keeper_of(unit) is None, f"the end of {unit}")
  for kind in ("pid", "ready", "notify"):
    if os.path.lexists(f"{STATE}/{unit}.{kind}"):
      os.unlink(f"{STATE}/{unit}.{kind}")


def start(unit, wait):
  os.makedirs(STATE, exist_ok=True)
  if keeper_of(unit) is None:
    stop(unit)
    if not become_keeper(unit):
      keep_service(unit) if unit.endswith(".service") else keep_socket(unit)
      os._exit(0)
    wait_until(lambda: os.path.exists(f"{STATE}/{unit}.pid"), f"that {unit} begins")
  if wait:
    wait_until(lambda: os.path.exists(f"{STATE}/{unit}.ready") or keeper_of(unit) is None, f"that {unit} is ready")
    if not os.path.exists(f"{STATE}/{unit}.ready"):
      with open(f"{STATE}/{unit}.log") as log:
        raise SystemExit(f"systemctl: {unit} has ended: {log.read()[-2000:]}")


def main():
  action, *words = sys.argv[1:]
  wait = "--no-block" not in words
  for unit in [word for word in words if not word.startswith("-")]:
    if action in ("stop", "restart"):
      stop(unit)
    if action in ("start", "restart"):
      start(unit, wait)


if __name__ == "__main__":
  main()
