#!/usr/bin/env bash
# The shared library exports the V_ interface (and the VKP_ platform helpers)
# and nothing else.
set -euo pipefail
lib=$1
extra=$(nm -D --defined-only "$lib" | awk '$2 ~ /^[TDBRVW]$/ {print $3}' | grep -Ev '^(V_|VKP_)' | grep -Ev '^(_init|_fini|_edata|_end|__bss_start)$' || true)
if [ -n "$extra" ]; then
  echo "unexpected exports from $lib:"; echo "$extra"; exit 1
fi
count=$(nm -D --defined-only "$lib" | awk '{print $3}' | grep -c '^V_' || true)
echo "exports ok: $count V_ functions"
[ "$count" -gt 0 ]
