#!/usr/bin/env bash
# The manual page renders without warnings and has an entry for every option
# `vkimg --help` lists (a new option needs its .TP entry in tools/vkimg.1).
# Usage: check_manpage.sh VKIMG MANPAGE
set -euo pipefail
vkimg=$1 page=$2
warnings=$(groff -man -Tutf8 -ww -z "$page" 2>&1)
if [ -n "$warnings" ]; then echo "$page: groff warnings:"; echo "$warnings"; exit 1; fi
entries=$(sed 's/\\-/-/g' "$page")
missing=0
for option in $("$vkimg" --help | sed -nE 's/^  (-[-a-z0-9]+).*/\1/p'); do
  if ! grep -qE "^\.B[IR]? +$option( |\$)" <<<"$entries"; then
    echo "$page: no entry for $option (add a .TP entry like the others)"
    missing=1
  fi
done
exit $missing
