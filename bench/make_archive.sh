#!/usr/bin/env bash
# make_archive.sh MEGABYTES OUTPUT: writes a tar-gzip archive of at least
# MEGABYTES megabytes (10^6 bytes) of file data taken from /usr/include:
# regular files and directories only, names below 100 characters, no links.
# When the folder holds less than asked, copies of it follow under the top
# folders c1/, c2/, ... (one copy per top folder, walked in the same order).
set -euo pipefail
megabytes=$1 output=$2
source=/usr/include
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# One line per entry: kind, size, path relative to $source (in walk order,
# so every directory comes before what it holds).
find "$source" -mindepth 1 \( -type d -o -type f \) -printf '%y %s %P\n' >"$work/entries"
total=$(awk '$1 == "f" { sum += $2 } END { print sum + 0 }' "$work/entries")
[ "$total" -gt 0 ] || { echo "make_archive.sh: no files in $source" >&2; exit 1; }

# The top folders c1 ... cN each name $source; tar follows those links, and
# stores every copy's data again instead of a hard link to the first copy.
mkdir "$work/top"
awk -v want=$((megabytes * 1000000)) -v total="$total" -v top="$work/top" -v source="$source" '
  BEGIN { copies = int((want + total - 1) / total); if (copies < 1) copies = 1 }
  { kind[NR] = $1; size[NR] = $2; sub(/^[^ ]+ [^ ]+ /, ""); path[NR] = $0 }
  END {
    for (c = 1; c <= copies && sum < want; c++) {
      system("ln -s " source " " top "/c" c)
      print "c" c > (top "/../list")
      for (i = 1; i <= NR && sum < want; i++) {
        name = "c" c "/" path[i]
        # A directory is stored with a trailing slash: it must fit as well.
        if (length(name) + (kind[i] == "d") >= 100 || name ~ /[\\\n]/) continue
        print name > (top "/../list")
        if (kind[i] == "f") sum += size[i]
      }
    }
  }' "$work/entries"

tar --format=ustar --no-recursion --dereference --hard-dereference -C "$work/top" -czf "$output" -T "$work/list"
