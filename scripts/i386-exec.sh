#!/usr/bin/env bash
# Makes sure this machine can run the linux-x86 leg's 32-bit programs.
#   i386-exec.sh start   nothing when they run natively; on a kernel that
#                        refuses them ("Exec format error": some VMs and
#                        containers) it says so and, as root, registers
#                        qemu-i386 (user-mode emulation) with binfmt_misc
#                        for 32-bit x86 programs, so that the build's own
#                        steps, ctest and the tests' child processes all
#                        run them alike
#   i386-exec.sh stop    takes that registration away again
# The registration is the kernel's, not this shell's: stop runs on exit.
set -euo pipefail
cd "$(dirname "$0")/.."
entry=/proc/sys/fs/binfmt_misc/baselib-i386

runs() {  # whether a trivial -m32 program starts
  local dir
  dir=$(mktemp -d)
  printf 'int main(void) { return sizeof(void*) == 4 ? 0 : 1; }\n' >"$dir/p.c"
  gcc -m32 "$dir/p.c" -o "$dir/p" && "$dir/p" 2>/dev/null
  local rc=$?
  rm -rf "$dir"
  return $rc
}

case "${1:-}" in
  start)
    runs && exit 0
    echo "################################################################"
    echo "### This kernel does not run 32-bit x86 programs: the linux-x86"
    echo "### leg runs them under qemu-i386 (user-mode emulation)."
    echo "################################################################"
    if [ "$(id -u)" != 0 ]; then
      echo "i386-exec.sh: registering qemu-i386 with binfmt_misc needs root" >&2
      exit 2
    fi
    bash scripts/deps.sh i386-emu
    [ -e /proc/sys/fs/binfmt_misc/register ] || mount -t binfmt_misc binfmt_misc /proc/sys/fs/binfmt_misc
    if [ ! -e "$entry" ]; then
      # An i386 ELF executable or shared object (ET_EXEC or ET_DYN); F opens
      # the emulator now, so it is found in a chroot too.
      printf '%s' ':baselib-i386:M::\x7fELF\x01\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\x03\x00:\xff\xff\xff\xff\xff\xfe\xfe\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff:/usr/bin/qemu-i386:F' \
        >/proc/sys/fs/binfmt_misc/register
    fi
    runs || { echo "i386-exec.sh: 32-bit programs do not run under qemu-i386 either" >&2; exit 2; }
    ;;
  stop)
    if [ -e "$entry" ]; then
      echo -1 >"$entry"
    fi
    ;;
  *)
    echo "usage: i386-exec.sh start|stop" >&2
    exit 2
    ;;
esac
