#!/usr/bin/env bash
# check_exports.sh LIBRARY NODE API_MACRO HEADER...
# Passes when the dynamic symbols that the shared object LIBRARY defines are
# exactly the functions that the public headers HEADER... (files, or
# folders whose *.h are meant) declare with the
# export macro API_MACRO, and every one of them carries the symbol version
# NODE (the version script's node, e.g. TARNAUX_1.0), which LIBRARY defines.
# Environment: CC (the C compiler, to strip the headers' comments), NM (nm).
set -euo pipefail
library=$1 node=$2 api=$3
shift 3
cc=${CC:-cc} nm=${NM:-nm}
status=0

# Declared: every "API_MACRO <type> name(" outside comments and
# preprocessor lines, the name being the last word before the parenthesis.
headers=()
for path in "$@"; do
  if [ -d "$path" ]; then headers+=("$path"/*.h); else headers+=("$path"); fi
done
declared=$(for header in "${headers[@]}"; do
             "$cc" -w -fpreprocessed -dD -E -P -x c "$header" | grep -v '^[[:space:]]*#'
           done | tr '\n' ' ' |
           grep -oE "\b$api\b[^;{}()]*\b[A-Za-z_][A-Za-z0-9_]*[[:space:]]*\(" |
           sed -E 's/[[:space:]]*\($//; s/.*[^A-Za-z0-9_]//' | LC_ALL=C sort -u)
[ -n "$declared" ] || { echo "no function declared with $api in $*"; exit 1; }

# Exported: "name@@NODE" for a default version, "name@NODE" for an older
# one; the node itself is an absolute symbol named NODE.
symbols=$("$nm" -D --defined-only "$library" | awk '{ print $NF }')
grep -qx "$node" <<<"$symbols" || { echo "${library##*/} defines no version node $node"; status=1; }
exported=$(grep -vx "$node" <<<"$symbols" | sed 's/@.*//' | LC_ALL=C sort -u)
unversioned=$(grep -vx "$node" <<<"$symbols" | grep -v "@@$node\$" || true)
if [ -n "$unversioned" ]; then
  echo "exported without the version $node:"
  echo "$unversioned"
  status=1
fi
if [ "$exported" != "$declared" ]; then
  echo "exported names differ from the functions declared with $api (< declared, > exported):"
  diff <(echo "$declared") <(echo "$exported") || true
  status=1
fi
[ $status -eq 0 ] && echo "${library##*/} exports exactly its $(echo "$exported" | wc -l) public names, all as $node"
exit $status
