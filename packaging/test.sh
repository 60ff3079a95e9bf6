#!/usr/bin/env bash
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

# Usage: test.sh PACKAGES WORK
# Installs the packages of the folder PACKAGES into a bare Debian in the folder WORK, as somebody would who has nothing
# else, and uses, upgrades, removes and purges them there. Needs root, debootstrap and a mirror ($KS_MIRROR; that of the machine). What
# debootstrap made is kept in WORK for the next run.
set -euo pipefail
packages=$(cd "$1" && pwd)
mkdir -p "$2"
work=$(cd "$2" && pwd)
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
[ "$(id -u)" = 0 ] || exec sudo "$0" "$@"

# Mounts and processes of its own, which end with it.
if [ -z "${KS_TEST_INSIDE:-}" ]; then
  KS_TEST_INSIDE=1 exec unshare --mount --pid --fork --kill-child --mount-proc "$0" "$@"
fi

say() { printf '==> %s\n' "$*" >&2; }
fail() {
  printf 'test.sh: %s\n' "$*" >&2
  exit 1
}
root=$work/root
in_root() {
  chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive "$@"
}
# quietly shows what a command said only when it fails.
quietly() {
  "$@" >"$work/log" 2>&1 || fail "$* failed: $(tail -n 40 "$work/log")"
}

"$here/bare_debian.sh" "$work" "$root"
mount -t proc proc "$root/proc"
mount -t tmpfs -o mode=755 tmpfs "$root/run"
mkdir "$root/packages"
cp "$packages"/*.deb "$root/packages"
rm -f "$root"/packages/*-dbgsym_*

# Programs of a stranger's, built against the packages alone.
say "programs of both widths, built against the packages"
for width in amd64 i386; do
  quietly dpkg-deb -x "$packages"/libks-dev_*_"$width".deb "$work/$width"
  for package in libks1 ks-platform-host; do
    quietly dpkg-deb -x "$packages/$package"_*_"$width".deb "$work/$width"
  done
done
compile() {
  local width=$1 triplet=$2 name
  shift 2
  for name in secrets crypto; do
    quietly g++ -std=c++20 "$@" "$work/$width/usr/share/doc/libks-dev/examples/$name.cc" -I"$work/$width/usr/include/ks" \
      -L"$work/$width/usr/lib/$triplet" -Wl,-rpath-link,"$work/$width/usr/lib/$triplet" -lks -static-libstdc++ \
      -static-libgcc -o "$root/root/$name-$width"
  done
}
compile amd64 x86_64-linux-gnu
compile i386 i386-linux-gnu -m32

say "four commands: install, start, store, compute"
started=$SECONDS
quietly in_root sh -c 'apt-get install -y --no-install-recommends /packages/libks1_*_amd64.deb \
  /packages/ks-platform-host_*_amd64.deb /packages/ksd_*.deb /packages/ks-tools_*.deb'
start() {
  quietly in_root start-stop-daemon --start --background --notify-await --chuid ksd --exec /usr/sbin/ksd
}
start
quietly in_root /root/secrets-amd64 store
quietly in_root /root/crypto-amd64
say "they took $((SECONDS - started)) s"
[ "$(in_root stat -c '%a %U' /var/lib/ks/vault.db /var/lib/ks-key/master.key | xargs)" = '600 ksd 600 ksd' ] ||
  fail "vault or key belong to others, or others may read them"

say "a 32-bit program talks to the 64-bit service"
quietly in_root sh -c 'apt-get install -y --no-install-recommends /packages/libks1_*_i386.deb \
  /packages/ks-platform-host_*_i386.deb'
in_root /root/secrets-i386 list | grep -q radius-secret || fail "it doesn't see what the 64-bit program stored"
quietly in_root /root/crypto-i386

say "an upgrade keeps the vault"
rm -rf "$work/before"
mkdir -p "$work/before" "$root/before"
for package in libks1 ks-platform-host ksd ks-tools; do
  # The version before, as long as none was released: this one under a lower number.
  quietly dpkg-deb -R "$packages/$package"_*_amd64.deb "$work/before/$package"
  sed -i -E '/^(Version|Depends):/s/\b([0-9]+\.[0-9]+\.[0-9]+)(\)|$)/\1~before\2/g' "$work/before/$package/DEBIAN/control"
  quietly dpkg-deb --root-owner-group -b "$work/before/$package" "$root/before"
done
install -D "$here/debian/tests/upgrade" "$root/tests/upgrade"
mkdir "$root/tests/tmp"
quietly in_root env AUTOPKGTEST_TMP=/tests/tmp KS_BEFORE=/before KS_NOW=/packages /tests/upgrade
in_root /root/secrets-amd64 list | grep -q radius-secret || fail "the upgrade lost a secret"

say "under a service manager"
quietly in_root start-stop-daemon --stop --oknodo --retry 30 --user ksd --exec /usr/sbin/ksd
umount "$root/run" "$root/proc"
cat >"$root/root/under_systemd" <<'END'
#!/bin/sh
# What systemctl says and does, in a machine that was just started.
set -eux
systemctl start ksd.socket
/root/secrets-amd64 list | grep radius-secret
/root/secrets-i386 list | grep radius-secret
[ "$(systemctl show -P StatusText ksd.service)" = serving ]
printf '[servise]\n' >/etc/ks/ksd.toml.d/10.toml
systemctl reload ksd.service
systemctl show -P StatusText ksd.service | grep 'refused: /etc/ks/ksd.toml.d/10.toml:1:2: unknown key servise; the nearest'
journalctl MESSAGE_ID=2138ae5dd94f4f2c90a0d1233abafd4f | grep "wasn't reloaded"
printf '[service]\nsandbox = "required"\n' >/etc/ks/ksd.toml.d/10.toml
systemctl restart ksd.service
/root/secrets-amd64 list | grep radius-secret
rm /etc/ks/ksd.toml.d/10.toml
systemctl stop ksd.socket
! systemctl --quiet is-active ksd.service
touch /root/under_systemd.passed
END
chmod +x "$root/root/under_systemd"
cat >"$root/etc/systemd/system/under-systemd.service" <<'END'
[Unit]
After=sockets.target systemd-journald.service
SuccessAction=poweroff
FailureAction=poweroff
[Service]
Type=oneshot
ExecStart=/bin/sh -c "/root/under_systemd >/root/under_systemd.log 2>&1"
END
mkdir -p "$root/etc/systemd/system/multi-user.target.wants"
ln -sf ../under-systemd.service "$root/etc/systemd/system/multi-user.target.wants/"
rm -f "$root/etc/machine-id"
# What the unit's own sandbox and locked memory need of the container.
timeout 300 systemd-nspawn -q --register=no --keep-unit --uuid=0123456789abcdef0123456789abcdef --directory="$root" \
  --system-call-filter='@memlock landlock_create_ruleset landlock_add_rule landlock_restrict_self' \
  /usr/lib/systemd/systemd >"$work/log" 2>&1 || true
[ -e "$root/root/under_systemd.passed" ] || fail "$(tail -n 20 "$work/log" "$root/root/under_systemd.log")"
mount -t proc proc "$root/proc"
mount -t tmpfs -o mode=755 tmpfs "$root/run"
quietly in_root systemd-tmpfiles --create ksd.conf
start

say "removal leaves the vault and says so"
in_root apt-get remove -y ksd >"$work/log" 2>&1 || fail "$(cat "$work/log")"
grep -q 'the vault stays in /var/lib/ks' "$work/log" || fail "it says nothing of the vault: $(cat "$work/log")"
for left in ks/vault.db ks-key/master.key; do
  [ -e "$root/var/lib/$left" ] || fail "/var/lib/$left is gone"
done
! pgrep -x ksd >/dev/null || fail "the service goes on without its program"

say "the vault opens again after a new installation"
quietly in_root sh -c 'apt-get install -y --no-install-recommends /packages/ksd_*.deb /packages/ks-tools_*.deb'
start
in_root /root/secrets-amd64 list | grep -q radius-secret || fail "it has lost a secret"

say "purge says what it removes, then removes it"
in_root apt-get purge -y ksd >"$work/log" 2>&1 || fail "$(cat "$work/log")"
grep -q 'removing the vault in /var/lib/ks and its master key' "$work/log" || fail "it doesn't say so: $(cat "$work/log")"
for left in var/lib/ks var/lib/ks-key etc/ks run/ks usr/lib/ks; do
  [ ! -e "$root/$left" ] || fail "it leaves /$left"
done

# As autopkgtest would: with what each says that it needs. The one of an upgrade ran above.
say "the packages' own tests"
needed=$(sed -n 's/^Depends: //p' "$here/debian/tests/control" | tr -d , | xargs -n 1 | sort -u | xargs)
# shellcheck disable=SC2086 # a list
quietly in_root sh -c 'apt-get install -y --no-install-recommends "$@" /packages/*_amd64.deb' install $needed
# One of them reads of the source what Python's own tests are.
mkdir -p "$root/tests/source/bindings"
cp -r "$here/../bindings/python" "$root/tests/source/bindings"
for test in build python round-trip; do
  install -D "$here/debian/tests/$test" "$root/tests/$test"
  rm -rf "$root/tests/tmp"
  mkdir "$root/tests/tmp"
  quietly in_root env AUTOPKGTEST_TMP=/tests/tmp sh -c "cd /tests/source && exec /tests/$test"
done
say "all is well"
