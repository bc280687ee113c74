#!/bin/sh
# Installs the Debian packages a build needs, if any is missing.
#   scripts/ensure-deps.sh [test] [bench] [m32] [fuzz] [tidy]
# As root it runs apt-get; otherwise it prints the command to run and fails.
set -eu

pkgs="cmake make g++ pkg-config rapidjson-dev"
for profile in "$@"; do
  case "$profile" in
    test) pkgs="$pkgs libgtest-dev googletest tmux less strace" ;;
    bench) pkgs="$pkgs libbenchmark-dev libspdlog-dev libzmq3-dev" ;;
    m32) pkgs="$pkgs g++-multilib googletest" ;;
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
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq $missing
else
  echo "Missing Debian packages:$missing" >&2
  echo "Install them with:  sudo apt-get install -y$missing" >&2
  exit 1
fi
