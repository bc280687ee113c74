#!/bin/sh
# Installs the Debian packages a build needs, if any is missing.
#   scripts/ensure-deps.sh [test] [bench] [bench-m32] [m32] [fuzz] [tidy]
# As root it runs apt-get; otherwise it prints the command to run and fails.
set -eu

pkgs="cmake make g++ pkg-config rapidjson-dev"
for profile in "$@"; do
  case "$profile" in
    test) pkgs="$pkgs libgtest-dev googletest tmux less strace" ;;
    bench) pkgs="$pkgs libbenchmark-dev libspdlog-dev libzmq3-dev" ;;
    m32) pkgs="$pkgs g++-multilib googletest" ;;
    # Google Benchmark as 32-bit code (Debian's multiarch package); spdlog
    # and fmt are compiled from their headers there, so the 64-bit
    # packages' headers serve.
    bench-m32) pkgs="$pkgs g++-multilib libbenchmark-dev:i386 libspdlog-dev libfmt-dev" ;;
    fuzz) pkgs="$pkgs clang-14 libfuzzer-14-dev libclang-rt-14-dev g++-multilib" ;;
    tidy) pkgs="$pkgs clang-tidy-14" ;;
    *) echo "ensure-deps: unknown profile '$profile'" >&2; exit 2 ;;
  esac
done

missing=""
for p in $pkgs; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing="$missing $p"
  fi
done
[ -z "$missing" ] && exit 0

if [ "$(id -u)" -eq 0 ]; then
  echo "Installing:$missing"
  case "$missing" in
    *:i386*)
      if ! dpkg --print-foreign-architectures | grep -qx i386; then
        dpkg --add-architecture i386
      fi
      ;;
  esac
  # An index that fails to download (a mirror mid-sync) is not fatal by
  # itself: the install below fails, naming the package, if it mattered.
  apt-get update -qq || echo "ensure-deps: apt-get update reported errors; going on" >&2
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq $missing
else
  echo "Missing Debian packages:$missing" >&2
  echo "Install them with:  sudo apt-get install -y$missing" >&2
  exit 1
fi
