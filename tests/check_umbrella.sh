#!/usr/bin/env bash
# check_umbrella.sh UMBRELLA HEADER...
# Passes when the header UMBRELLA includes (as #include "NAME") each of the
# headers HEADER... (files, or folders whose *.h are meant) other than
# itself, and nothing else.
set -euo pipefail
umbrella=$1
shift
expected=$(for path in "$@"; do
             if [ -d "$path" ]; then ls "$path"/*.h; else echo "$path"; fi
           done | sed 's|.*/||' | grep -vx "${umbrella##*/}" | LC_ALL=C sort -u)
included=$(sed -nE 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"([^"]+)".*/\1/p' "$umbrella" | LC_ALL=C sort)
if [ "$included" != "$expected" ]; then
  echo "${umbrella##*/} does not include exactly the public headers (< expected, > included):"
  diff <(echo "$expected") <(echo "$included") || true
  exit 1
fi
echo "${umbrella##*/} includes all $(echo "$expected" | wc -l) public headers"
