#!/usr/bin/env bash
# check_tarn_ejs.sh TARN_EJS
# Runs the built tarn-ejs tool: a pack/unpack round trip gives the same
# bytes, verify answers "ok" or fails with a one-line reason, JSON that does
# not parse is refused with its line and column, and wrong usage exits 2.
# Run it inside the sandbox (tarn-sandbox), whose /tmp is private.
set -uo pipefail
tool=$(realpath "$1")
work=$(mktemp -d /tmp/tarn_ejs_XXXXXX)
failures=0

# run ARGS...: runs the tool, keeping its exit status, stdout and stderr.
run() {
  "$tool" "$@" >"$work/stdout" 2>"$work/stderr"
  status=$?
  out=$(cat "$work/stdout")
  err=$(cat "$work/stderr")
}

# expect NAME EXPECTED ACTUAL
expect() {
  if [ "$2" != "$3" ]; then
    echo "FAILED: $1"
    echo "  expected: $2"
    echo "  actual:   $3"
    failures=$((failures + 1))
  fi
}

cd "$work" || exit 1
printf '{\n  "package": "tarn_base",\n\t"version" : "1.2.3",\n  "name": "caf\xc3\xa9", "z": [1, 2]\n}' >in.json

# Round trip, byte for byte.
run pack in.json in.ejs
expect "pack exits 0" 0 "$status"
expect "pack prints nothing" "" "$out$err"
expect "the packed file begins with the header" "QIVEJS" "$(head -c 6 in.ejs)"
expect "the packed file is readable by all" 644 "$(stat -c %a in.ejs)"
run unpack in.ejs out.json
expect "unpack exits 0" 0 "$status"
cmp -s in.json out.json
expect "unpack gives the packed bytes" 0 $?
"$tool" unpack in.ejs - >stdout.json 2>/dev/null
expect "unpack to - exits 0" 0 $?
cmp -s in.json stdout.json
expect "unpack to - writes the packed bytes" 0 $?

# Verify.
run verify in.ejs
expect "verify of a good file exits 0" 0 "$status"
expect "verify of a good file prints ok" "ok" "$out"
expect "verify of a good file writes no error" "" "$err"

not_protected="not a protected file, or changed, cut or sealed with another key"
size=$(stat -c %s in.ejs)
for offset in 0 20 40 $((size - 1)); do
  cp in.ejs bad.ejs
  # Flip every bit of the byte, so that it changes whatever it held.
  byte=$(od -An -tu1 -j "$offset" -N1 bad.ejs | tr -d ' ')
  printf "\\$(printf '%03o' $((byte ^ 0xff)))" | dd of=bad.ejs bs=1 seek="$offset" conv=notrunc status=none
  cmp -s in.ejs bad.ejs && { echo "FAILED: the byte at $offset did not change"; exit 1; }
  run verify bad.ejs
  expect "verify of a file changed at $offset exits 1" 1 "$status"
  expect "verify of a file changed at $offset says why" "tarn-ejs: bad.ejs: $not_protected" "$err"
  expect "verify of a file changed at $offset prints nothing" "" "$out"
done
head -c $((size - 1)) in.ejs >cut.ejs
run verify cut.ejs
expect "verify of a cut file exits 1" 1 "$status"
expect "verify of a cut file says why" "tarn-ejs: cut.ejs: $not_protected" "$err"
run verify in.json
expect "verify of plain JSON exits 1" 1 "$status"
expect "verify of plain JSON says why" "tarn-ejs: in.json: $not_protected" "$err"
run verify missing.ejs
expect "verify of a missing file exits 1" 1 "$status"
expect "verify of a missing file says why" "tarn-ejs: missing.ejs: No such file or directory" "$err"
run unpack cut.ejs cut.json
expect "unpack of a cut file exits 1" 1 "$status"
expect "unpack of a cut file says why" "tarn-ejs: cut.ejs: $not_protected" "$err"
expect "unpack of a cut file writes no output" no "$([ -e cut.json ] && echo yes || echo no)"

# JSON that does not parse is not packed.
printf '{\n  "a": 1,\n  "b": ]\n}\n' >bad.json
run pack bad.json bad_out.ejs
expect "pack of bad JSON exits 1" 1 "$status"
expect "pack of bad JSON names its line and column" \
  "tarn-ejs: bad.json: not JSON: line 3, column 8: unexpected token near ']'" "$err"
expect "pack of bad JSON writes nothing" no "$([ -e bad_out.ejs ] && echo yes || echo no)"
printf '"bare"' >bare.json
run pack bare.json bare.ejs
expect "pack of a bare value exits 1" 1 "$status"
expect "pack of a bare value says why" \
  "tarn-ejs: bare.json: not JSON: line 1, column 6: '[' or '{' expected near '\"bare\"'" "$err"
run pack missing.json x.ejs
expect "pack of a missing file exits 1" 1 "$status"
expect "pack of a missing file says why" "tarn-ejs: missing.json: No such file or directory" "$err"
run pack in.json no/such/dir/x.ejs
expect "pack into a missing directory exits 1" 1 "$status"
expect "pack into a missing directory names the output" \
  "tarn-ejs: no/such/dir/x.ejs: No such file or directory" "$err"

# Wrong usage.
for args in "" "pack" "pack in.json" "pack a b c" "unpack in.ejs" "verify" "verify a b" "seal a b"; do
  # shellcheck disable=SC2086
  run $args
  expect "'tarn-ejs $args' exits 2" 2 "$status"
  expect "'tarn-ejs $args' prints the usage" "usage: tarn-ejs pack IN.json OUT.ejs" "$(head -n 1 "$work/stderr" | sed 's/  *seal.*//')"
done
run --help
expect "--help exits 0" 0 "$status"
expect "--help prints the usage on stdout" "usage: tarn-ejs pack IN.json OUT.ejs" "$(echo "$out" | head -n 1 | sed 's/  *seal.*//')"

rm -rf "$work"
if [ $failures -ne 0 ]; then
  echo "$failures check(s) failed"
  exit 1
fi
echo "tarn-ejs: all checks passed"
