#!/usr/bin/env bash
# Renders each manual page given and fails when man (or groff) warns about it.
set -uo pipefail
rc=0
for page in "$@"; do
  if command -v man >/dev/null; then
    warn=$(LC_ALL=C.UTF-8 MANROFFSEQ='' MANWIDTH=80 man --warnings -E UTF-8 -l -Tutf8 -Z "$page" 2>&1 >/dev/null)
  else
    warn=$(groff -ww -z -man -Tutf8 "$page" 2>&1)
  fi
  if [ ! -s "$page" ] || [ -n "$warn" ]; then
    echo "$page: ${warn:-empty}"
    rc=1
  fi
done
exit $rc
