#!/usr/bin/env bash
# Builds everything and runs the main program on its built-in default input.
# Usage: scripts/run.sh [output-folder]   (default: out/)
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
out=${1:-out}
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build/release -j"$(nproc 2>/dev/null || echo 2)"
if [ -x build/release/tools/vkimg ]; then
  exec build/release/tools/vkimg --demo "$out"
else
  exec build/release/basic
fi
