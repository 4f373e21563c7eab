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
# No global of the library may be set up by ordinary static initialisation:
# the library's constructor runs first and would have its work undone.
# (Prioritised initialisers, such as a sanitizer's, are not ours.)
inits=$(nm "$lib" 2>/dev/null | awk '{print $NF}' | grep '^_GLOBAL__sub_I_' | grep -v '^_GLOBAL__sub_I_0' || true)
if [ -n "$inits" ]; then
  echo "globals with dynamic initialisation in $lib:"; echo "$inits"; exit 1
fi
echo "exports ok: $count V_ functions"
[ "$count" -gt 0 ]
