#!/usr/bin/env bash
# check_exports.sh LIBRARY VERSION_SCRIPT INCLUDE_DIR
# Passes when the dynamic symbols that LIBRARY defines are exactly the names
# that VERSION_SCRIPT makes global, and each of them is declared in a public
# header under INCLUDE_DIR.
set -euo pipefail
library=$1 map=$2 include_dir=$3

exported=$(nm -D --defined-only "$library" | awk '{print $3}' | sed 's/@.*//' | sort)
listed=$(sed -n '/global:/,/local:/p' "$map" | grep -oE '^[[:space:]]*[A-Za-z_][A-Za-z0-9_]*;' |
         tr -d ' \t;' | sort)

status=0
if [ "$exported" != "$listed" ]; then
  echo "exported names differ from the version script:"
  diff <(echo "$listed") <(echo "$exported") || true
  status=1
fi
for name in $exported; do
  if ! grep -qE "\b$name\(" "$include_dir"/*.h; then
    echo "exported but not declared in a public header: $name"
    status=1
  fi
done
[ $status -eq 0 ] && echo "${library##*/} exports exactly its $(echo "$exported" | wc -l) public names"
exit $status
