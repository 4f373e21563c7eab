#!/usr/bin/env bash
# Installs what the build and the tests need on a fresh Debian machine of this
# kind (qemu-user runs the 32-bit tests where the kernel cannot execute
# 32-bit binaries itself; mingw-w64 cross-builds the Windows library, whose
# 64-bit tests run under wine64 with no display; groff checks the manual page).  Installs only what is
# missing, so it is cheap to run every time.
set -euo pipefail

SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO="sudo"
updated=0
# install [apt-get options] -- packages...: the missing ones only.
install() {
  local opts=()
  while [ "$1" != -- ]; do opts+=("$1"); shift; done
  shift
  local need=()
  for pkg in "$@"; do dpkg -s "$pkg" >/dev/null 2>&1 || need+=("$pkg"); done
  [ ${#need[@]} -gt 0 ] || return 0
  echo "setup: installing ${need[*]}"
  [ $updated = 1 ] || { $SUDO apt-get update -qq; updated=1; }
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${opts[@]}" "${need[@]}" >/dev/null
}

install -- cmake g++ g++-multilib libgtest-dev googletest libbenchmark-dev libpng-dev libjpeg-dev \
  libtiff-dev libjpeg-turbo-progs pkg-config groff-base qemu-user clang libclang-rt-14-dev
# The Windows builds: the cross compilers (posix thread model) and a headless
# wine64; its recommended desktop packages are not needed.
install --no-install-recommends -- g++-mingw-w64-x86-64-posix g++-mingw-w64-i686-posix \
  binutils-mingw-w64 wine wine64
