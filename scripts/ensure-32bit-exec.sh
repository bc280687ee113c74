#!/bin/sh
# Makes sure this machine can run the 32-bit (-m32) build's programs.
#   scripts/ensure-32bit-exec.sh     prints the CMake argument to add, if any
#
# Some kernels are built without 32-bit support. There the tests run under
# qemu-i386 (Debian's qemu-user): ctest starts each test program through it
# (CMAKE_CROSSCOMPILING_EMULATOR, printed on stdout), and a binfmt_misc
# entry lets the programs those tests start in turn (the installed tool,
# re-executed death tests, peer processes) run through it as well.
# Needs root when anything is missing; fails rather than skip the tests.
set -eu

probe_dir=$(mktemp -d)
trap 'rm -rf "$probe_dir"' EXIT
printf 'int main(void) { return 0; }\n' > "$probe_dir/probe.c"
if ! gcc -m32 "$probe_dir/probe.c" -o "$probe_dir/probe" 2>/dev/null; then
  echo "ensure-32bit-exec: cannot build 32-bit programs (install g++-multilib)" >&2
  exit 1
fi
if "$probe_dir/probe" 2>/dev/null; then
  exit 0  # the kernel runs them natively
fi

if ! command -v qemu-i386 >/dev/null 2>&1; then
  echo "ensure-32bit-exec: installing qemu-user for the 32-bit tests" >&2
  apt-get update -qq >&2
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq qemu-user >&2
fi
qemu=$(command -v qemu-i386)

misc=/proc/sys/fs/binfmt_misc
if [ ! -e "$misc/register" ]; then
  mount -t binfmt_misc binfmt_misc "$misc" >&2 || true
fi
if [ -e "$misc/register" ] && [ ! -e "$misc/qemu-i386" ]; then
  # The ELF header of an i386 executable; F opens the interpreter now, so
  # it also serves processes in other mount namespaces.
  printf '%s' ":qemu-i386:M::\\x7fELF\\x01\\x01\\x01\\x00\\x00\\x00\\x00\\x00\\x00\\x00\\x00\\x00\\x02\\x00\\x03\\x00:\\xff\\xff\\xff\\xff\\xff\\xfe\\xfe\\x00\\xff\\xff\\xff\\xff\\xff\\xff\\xff\\xff\\xfe\\xff\\xff\\xff:$qemu:F" \
    > "$misc/register" || true
fi
if ! "$probe_dir/probe" 2>/dev/null; then
  echo "ensure-32bit-exec: 32-bit programs cannot run here, even through $qemu" >&2
  exit 1
fi
echo "ensure-32bit-exec: 32-bit programs run through $qemu" >&2
echo "-DCMAKE_CROSSCOMPILING_EMULATOR=$qemu"
