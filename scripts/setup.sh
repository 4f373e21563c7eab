#!/usr/bin/env bash
# Installs what the build and the tests need on a fresh Debian machine of this
# kind (qemu-user runs the 32-bit tests where the kernel cannot execute
# 32-bit binaries itself; groff checks the manual page).  Installs only what is missing, so it is cheap to run every time.
set -euo pipefail

need=()
for pkg in cmake g++ g++-multilib libgtest-dev googletest libbenchmark-dev libpng-dev libjpeg-dev libtiff-dev libjpeg-turbo-progs pkg-config groff-base qemu-user clang libclang-rt-14-dev; do
  dpkg -s "$pkg" >/dev/null 2>&1 || need+=("$pkg")
done
if [ ${#need[@]} -gt 0 ]; then
  echo "setup: installing ${need[*]}"
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${need[@]}" >/dev/null
fi
