#!/usr/bin/env bash
# Formats each manual page given and fails on any warning from groff (bad macros, broken escapes,
# lines that do not fit).
set -euo pipefail
status=0
for page in "$@"; do
  warnings=$(groff -t -man -Tutf8 -ww -z "$page" 2>&1 || true)
  if [ -n "$warnings" ]; then
    echo "$page:"; echo "$warnings"; status=1
  else
    echo "$page: no warnings"
  fi
done
exit $status
