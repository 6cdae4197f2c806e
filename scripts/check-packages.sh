#!/usr/bin/env bash
# Checks the Debian packages scripts/package.sh built (build/packages/):
# what each holds, then, on a system of its own, that they install with
# apt-get, that programs build and run against them (pkg-config, the CMake
# package, the examples), that vektool, its manual page and its bash
# completion work from the installed files, and that removing and purging
# them leaves nothing of theirs behind.
#
# Installing changes the system, so that part runs only where the system is
# a throwaway one: inside a chroot (CI's fresh Debian root) or when
# BASELIB_PACKAGE_INSTALL=1 says so.
set -euo pipefail
cd "$(dirname "$0")/.."
src=$PWD
dir=$src/build/packages
work=$src/build/package-check
rm -rf "$work"
mkdir -p "$work"
fail() { echo "check-packages: $*"; exit 1; }
bash scripts/deps.sh package

debs=("$dir"/*.deb)
[ -e "${debs[0]}" ] || fail "no packages in $dir (bash scripts/package.sh deb)"
version=$(sed -n 's/^project(BaseLib VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
major=${version%%.*}
lib=libbaselib$major
names=("$lib" libbaselib-dev vektool)
triplet=$(gcc -print-multiarch)
libdir=/usr/lib/$triplet

# ---- what each package holds ----
contents() {  # contents PACKAGE: its files and links, one a line
  dpkg-deb -c "$dir/$1"_*.deb | awk '$1 !~ /^d/ {print $6}' | sed 's|^\./|/|'
}
for p in "${names[@]}"; do
  [ -f "$(ls "$dir/$p"_*.deb 2>/dev/null | head -n1)" ] || fail "no $p package"
  contents "$p" >"$work/$p.files"
done
expect() {  # expect PACKAGE REGEX...: every file matches one, each one matches
  local p=$1 re
  shift
  while read -r f; do
    local hit=0
    for re in "$@"; do [[ $f =~ ^$re$ ]] && hit=1; done
    [ $hit = 1 ] || fail "$p holds $f, which belongs elsewhere"
  done <"$work/$p.files"
  for re in "$@"; do
    grep -q -E "^$re\$" "$work/$p.files" || fail "$p lacks $re"
  done
}
expect "$lib" "$libdir/libBaseLib\.so\.$major" "$libdir/libBaseLib\.so\.$version"
expect libbaselib-dev "$libdir/libBaseLib\.so" "/usr/include/BaseLib/[A-Za-z0-9_]+\.h" \
  "$libdir/cmake/BaseLib/[A-Za-z0-9_-]+\.cmake" "$libdir/pkgconfig/BaseLib\.pc"
expect vektool /usr/bin/vektool /usr/share/man/man1/vektool\.1\.gz \
  /usr/share/bash-completion/completions/vektool
dpkg-deb -f "$dir/libbaselib-dev"_*.deb Depends | grep "^$lib (= $version)" >/dev/null ||
  fail "libbaselib-dev does not depend on $lib $version exactly"
dpkg-deb -f "$dir/vektool"_*.deb Depends | grep "$lib (>= $version)" >/dev/null ||
  fail "vektool does not depend on $lib"
echo "package contents: as split"

# A chroot: debianutils' ischroot says so, or, where it cannot tell (no
# access to /proc/1/root in a sandbox), the process's root is no mount
# point of its own (the kernel lists no mount at "/" for a process whose
# root is a plain folder, as a debootstrapped root is).
in_chroot() {
  ischroot 2>/dev/null && return 0
  [ -r /proc/self/mountinfo ] && ! awk '$5 == "/" { found = 1 } END { exit !found }' /proc/self/mountinfo
}
if [ "${BASELIB_PACKAGE_INSTALL:-}" != 1 ] && ! in_chroot; then
  echo "################################################################"
  echo "### check-packages: install, use and removal NOT checked here:"
  echo "### this system is not a throwaway one (CI runs them in its fresh"
  echo "### root; BASELIB_PACKAGE_INSTALL=1 runs them anyway)."
  echo "################################################################"
  exit 0
fi

sudo=""
[ "$(id -u)" = 0 ] || sudo=sudo
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get purge -y -qq "${names[@]}" >/dev/null 2>&1 || true

# ---- install ----
$sudo apt-get install -y -qq "${debs[@]}" >"$work/install.log" 2>&1 ||
  { cat "$work/install.log"; fail "apt-get install failed"; }
for p in "${names[@]}"; do
  dpkg-query -L "$p" >"$work/$p.list"
done

# ---- use ----
[ "$(pkg-config --modversion BaseLib)" = "$version" ] || fail "pkg-config BaseLib: wrong version"
pc=$(pkg-config --cflags --libs BaseLib)
[[ $pc == *-I/usr/include/BaseLib* && $pc == *-lBaseLib* ]] || fail "pkg-config BaseLib: $pc"
# shellcheck disable=SC2086
gcc -std=c99 tests/install/consumer.c -o "$work/consumer-pc" $pc
"$work/consumer-pc" | grep "^BaseLib $version from $libdir\$" >/dev/null || fail "the pkg-config program did not run"
# find_package(BaseLib) from the system's own places: the examples.
cmake -S examples -B "$work/examples" >"$work/examples.log" &&
  cmake --build "$work/examples" >>"$work/examples.log" ||
  { cat "$work/examples.log"; fail "the examples do not build against the packages"; }
ctest --test-dir "$work/examples" --output-on-failure >>"$work/examples.log" ||
  { cat "$work/examples.log"; fail "the examples fail against the packages"; }
grep -q "BaseLib_DIR:PATH=$libdir/cmake/BaseLib" "$work/examples/CMakeCache.txt" ||
  fail "the examples found another BaseLib"
[ "$(command -v vektool)" = /usr/bin/vektool ] || fail "vektool is not on the path"
vektool --version | grep "(BaseLib) $version" >/dev/null || fail "vektool --version"
vektool info | grep "base folder: *$libdir\$" >/dev/null || fail "vektool info: wrong base folder"
readelf -d /usr/bin/vektool | grep -E 'RPATH|RUNPATH' >/dev/null && fail "vektool carries a run path"

# The manual page: found by man, free of formatting warnings, and naming
# every command vektool lists.
[ "$(man -w vektool)" = /usr/share/man/man1/vektool.1.gz ] || fail "man does not find vektool(1)"
MANWIDTH=80 man --warnings vektool >"$work/man.txt" 2>"$work/man.err" || fail "man vektool failed"
[ ! -s "$work/man.err" ] || { cat "$work/man.err"; fail "man vektool: warnings"; }
grep -q "^VEKTOOL(1)" "$work/man.txt" || fail "man vektool: no page header"
for c in $(vektool --help | awk '/^commands:$/ { f = 1; next } f && /^$/ { exit } f { print $1 }' | sort -u); do
  grep -q "vektool $c" "$work/man.txt" || fail "man vektool: no command $c"
done
# The completion offers the commands.
words=$(bash -c 'source /usr/share/bash-completion/completions/vektool
  COMP_WORDS=(vektool i); COMP_CWORD=1; _vektool; echo "${COMPREPLY[*]}"')
[[ " $words " == *" info "* && " $words " == *" ini "* ]] || fail "completion of \"vektool i\": $words"
echo "installed packages: pkg-config, find_package, examples, vektool, man page and completion work"

# ---- removal ----
left() {  # left: what the packages' lists name that is still there
  cat "$work"/*.list | sort -u | while read -r f; do
    if [ -L "$f" ] || [ -f "$f" ]; then
      echo "$f"
    elif [ -d "$f" ] && [ -z "$(ls -A "$f")" ] && ! dpkg-query -S "$f" >/dev/null 2>&1; then
      echo "$f (empty folder)"
    fi
  done
}
$sudo apt-get remove -y -qq "${names[@]}" >"$work/remove.log" 2>&1 ||
  { cat "$work/remove.log"; fail "apt-get remove failed"; }
rest=$(left)
[ -z "$rest" ] || { echo "$rest"; fail "apt-get remove left the above behind"; }
! ldconfig -p | grep libBaseLib >/dev/null || fail "the loader's cache still names libBaseLib"
# Purged with dpkg: a package without configuration files is gone entirely
# after its removal, and apt, which had it from a file, no longer knows it.
$sudo dpkg --purge "${names[@]}" >"$work/purge.log" 2>&1 ||
  { cat "$work/purge.log"; fail "dpkg --purge failed"; }
for p in "${names[@]}"; do
  ! dpkg-query -W -f='${Status}\n' "$p" 2>/dev/null | grep -v "not-installed" >/dev/null ||
    fail "$p is still known to dpkg after purge"
  ! ls /var/lib/dpkg/info/"$p".* >/dev/null 2>&1 || fail "dpkg still keeps $p's files"
done
[ -z "$(left)" ] || fail "the purge left files behind"
echo "removal: apt-get remove and the purge leave nothing behind"
