#!/usr/bin/env bash
# check_write_floor.sh BIN_DIR MAKE_ARCHIVE: the write floor must create the
# same files and directories as untgz_file, or its figure means nothing.
# Extracts a 1 MB archive with both and compares the two trees.
set -euo pipefail
bin=$1 make_archive=$2
work=$(mktemp -d "$bin/write_floor_check.XXXXXX")
trap 'rm -rf "$work"' EXIT
"$make_archive" 1 "$work/archive.tgz"
mkdir "$work/floor" "$work/untgz"
"$bin/write_floor" "$work/archive.tgz" "$work/floor"
"$bin/untgz_cli" "$work/archive.tgz" "$work/untgz" >/dev/null
diff -r "$work/floor" "$work/untgz"
[ "$(find "$work/floor" | wc -l)" -gt 20 ]
echo "the write floor and untgz_file made the same $(find "$work/floor" -type f | wc -l) files"
