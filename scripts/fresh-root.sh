#!/usr/bin/env bash
# fresh-root.sh [COMMAND...]: runs COMMAND (default: the README's test
# command) on a clean clone of this checkout inside a fresh minimal Debian
# root made for the run (debootstrap from the package registry this machine
# already uses, then chroot), so that every package the command needs must
# be installed by the project's own scripts.
#
# When no fresh root can be made (not root, no debootstrap, no way to the
# registry) it says so loudly and runs COMMAND in place instead.
set -u
cd "$(dirname "$0")/.."
src=$PWD
cmd=${*:-"bash scripts/test-all.sh"}

in_place() {
  echo "################################################################"
  echo "### WARNING: no fresh Debian root ($1)."
  echo "### Running in place: packages installed by hand are not noticed."
  echo "################################################################"
  exec bash -c "$cmd"
}

[ "$(id -u)" = 0 ] || in_place "not running as root"
. /etc/os-release 2>/dev/null || true
suite=${VERSION_CODENAME:-bookworm}
mirror=$(grep -h -m1 -E '^URIs:' /etc/apt/sources.list.d/*.sources 2>/dev/null | awk '{print $2}')
[ -n "$mirror" ] || mirror=$(grep -h -m1 -E '^deb ' /etc/apt/sources.list 2>/dev/null | awk '{print $2}')
[ -n "$mirror" ] || in_place "no package registry found in the apt sources"
export PATH=$PATH:/usr/sbin:/sbin
if ! command -v debootstrap >/dev/null; then
  apt-get install -y -qq debootstrap >/dev/null 2>&1 ||
    { apt-get update -qq >/dev/null 2>&1 && apt-get install -y -qq debootstrap >/dev/null 2>&1; } ||
    in_place "debootstrap cannot be installed"
fi

root=$(mktemp -d /tmp/baselib-root.XXXXXX)
# The root folder is the chroot's "/": every user must be able to pass it.
chmod 755 "$root"
cleanup() {
  for m in dev/pts dev/shm dev proc sys; do umount -l "$root/$m" 2>/dev/null; done
  rm -rf --one-file-system "$root"
}
trap cleanup EXIT

echo "=== fresh root: debootstrap $suite from $mirror"
start=$SECONDS
if ! debootstrap --variant=minbase "$suite" "$root" "$mirror" >"$root.log" 2>&1; then
  tail -5 "$root.log"
  rm -f "$root.log"
  cleanup
  trap - EXIT
  in_place "debootstrap failed"
fi
rm -f "$root.log"
mount -t proc proc "$root/proc"
mount --rbind /dev "$root/dev"
mount -t sysfs sys "$root/sys"
cp /etc/resolv.conf "$root/etc/" 2>/dev/null
chroot "$root" bash -c 'apt-get update -qq && apt-get install -y -qq git ca-certificates >/dev/null' ||
  { echo "=== fresh root: git cannot be installed"; exit 98; }
git clone -q "$src" "$root/build/BaseLib"
echo "=== fresh root ready in $((SECONDS - start)) s: $cmd"
chroot "$root" env -i PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin HOME=/root \
  CI="${CI:-}" LANG=C.UTF-8 bash -c "cd /build/BaseLib && $cmd"
