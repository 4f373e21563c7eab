#!/usr/bin/env bash
# Static checks of the Windows DLL, made on the file (no 32-bit program can run
# here): every function of the module definition made from vkkrn.h is
# exported under its plain name and nothing else is; on i686 a sample of
# functions pops its own argument bytes (ret $N, N from the declaration); the
# DLL imports only system DLLs (the runtime is linked in).
# Usage: check_win32_dll.sh OBJDUMP DLL DEF (i686|x86_64)
set -euo pipefail
objdump=$1 dll=$2 def=$3 arch=$4
fail=0
headers=$("$objdump" -p "$dll")

want=$(awk 'NR > 2 {print $1}' "$def" | sed 's/@.*//' | sort)
have=$(printf '%s\n' "$headers" | sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/p' |
       sed -n 's/^[[:space:]]*\[[[:space:]]*[0-9]*\] //p' | sort)
if [ "$want" != "$have" ]; then
  echo "exports differ from the header (< header only, > DLL only):"
  diff <(printf '%s\n' "$want") <(printf '%s\n' "$have") || true
  fail=1
fi
echo "exports: $(printf '%s\n' "$have" | grep -c .) plain names, $(printf '%s\n' "$want" | grep -c .) declared"

imports=$(printf '%s\n' "$headers" | sed -n 's/^[[:space:]]*DLL Name: //p' | sort -u)
echo "imports: $(echo $imports)"
for d in $imports; do
  case ${d,,} in
    kernel32.dll|user32.dll|gdi32.dll|msvcrt.dll|advapi32.dll|ntdll.dll|api-ms-win-crt-*.dll|ucrtbase.dll) ;;
    *) echo "imports a non-system DLL: $d"; fail=1 ;;
  esac
done

if [ "$arch" = i686 ]; then
  # First, last and a spread in between: calls of every argument count.
  sample=$(awk 'NR > 2 {print $1}' "$def" | awk '{a[NR] = $0} END {for (i = 1; i <= NR; i += 11) print a[i]; print a[NR]}')
  disasm=$(mktemp)
  trap 'rm -f "$disasm"' EXIT
  "$objdump" -d --no-show-raw-insn "$dll" > "$disasm"
  checked=0
  for entry in $sample; do
    bytes=${entry##*@}
    rets=$(awk -v f="<_$entry>:" '
      index($0, f) { inside = 1; next }
      inside && /^[0-9a-f]+ </ { exit }
      inside && /\tret/ { sub(/.*\tret[l]?[ \t]*/, ""); print ($0 == "" ? "$0x0" : $0) }' "$disasm")
    if [ -z "$rets" ]; then echo "no code found for $entry"; fail=1; continue; fi
    expect=$(printf '$0x%x' "$bytes")
    for r in $rets; do
      if [ "$r" != "$expect" ]; then echo "$entry returns with 'ret $r', expected 'ret $expect'"; fail=1; fi
    done
    checked=$((checked + 1))
  done
  echo "calling convention: $checked sampled functions pop their argument bytes"
fi
exit $fail
