#!/usr/bin/env bash
# Builds the command-line program (only it: no tests, no benchmarks) and runs
# its demo on the built-in default input.
# Usage: scripts/run.sh [output-folder]   (default: out/)
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
out=${1:-out}
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release -DVK_BUILD_TESTS=OFF -DVK_BUILD_BENCH=OFF >/dev/null
cmake --build build/release --target vkimg -j"$(nproc 2>/dev/null || echo 2)"
exec build/release/tools/vkimg --demo "$out"
