#!/usr/bin/env bash
# check_tarn_ejs.sh TARN_EJS SECRET_KEY SEALED
# Runs the built tarn-ejs tool: keygen makes a key pair, a sign/unpack round
# trip gives the same bytes, verify prints the signing key's identifier or
# fails with a one-line reason (a changed byte in each region, a cut file,
# an unsigned file, a key not trusted or revoked), inspect names the form,
# convert signs the text of a file of the sealed form, JSON that does not
# parse is refused with its line and column, and wrong usage exits 2.
# SECRET_KEY is the build's secret key file (its .pub beside it), whose
# public key the tool's library trusts; SEALED a sealed-form file under the
# build's sealing key, or "-" when the build has another sealing key.
# Run it inside the sandbox (tarn-sandbox), whose /tmp and /etc are private.
set -uo pipefail
tool=$(realpath "$1")
build_key=$(realpath "$2")
sealed=$3
[ "$sealed" = - ] || sealed=$(realpath "$sealed")
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

# key_id PUBLIC_KEY_FILE: the key's identifier, the first 8 bytes of the
# BLAKE2b-256 digest of its 32 bytes, in hexadecimal.
key_id() {
  printf '%b' "$(tr -d ' \n' <"$1" | sed 's/../\\x&/g')" | b2sum -l 256 | cut -c1-16
}

cd "$work" || exit 1
build_id=$(key_id "${build_key%.key}.pub")
printf '{\n  "package": "tarn_base",\n\t"version" : "1.2.3",\n  "name": "caf\xc3\xa9", "z": [1, 2]\n}' >in.json

# Key pairs.
run keygen own.key own.pub
expect "keygen exits 0" 0 "$status"
expect "keygen prints the key's identifier" "$(key_id own.pub)" "$out"
expect "the secret key is its owner's alone" 600 "$(stat -c %a own.key)"
expect "the public key is readable by all" 644 "$(stat -c %a own.pub)"
own_id=$out
run keygen own.key other.pub
expect "keygen over a key exits 1" 1 "$status"
expect "keygen over a key says why" "tarn-ejs: own.key: File exists" "$err"
expect "keygen over a key leaves no public key" no "$([ -e other.pub ] && echo yes || echo no)"

# Round trip, byte for byte.
run sign --key "$build_key" in.json in.ejs
expect "sign exits 0" 0 "$status"
expect "sign prints nothing" "" "$out$err"
expect "the signed file begins with the header" "QIVEJS" "$(head -c 6 in.ejs)"
expect "the signed file is readable by all" 644 "$(stat -c %a in.ejs)"
run unpack in.ejs out.json
expect "unpack exits 0" 0 "$status"
cmp -s in.json out.json
expect "unpack gives the signed bytes" 0 $?
"$tool" unpack in.ejs - >stdout.json 2>/dev/null
expect "unpack to - exits 0" 0 $?
cmp -s in.json stdout.json
expect "unpack to - writes the signed bytes" 0 $?

# Verify and inspect.
run verify in.ejs
expect "verify of a good file exits 0" 0 "$status"
expect "verify of a good file prints the key's identifier" "$build_id" "$out"
expect "verify of a good file writes no error" "" "$err"
run inspect in.ejs
expect "inspect of a signed file exits 0" 0 "$status"
expect "inspect of a signed file names form, key and size" \
  "$(printf 'form: signed\nkey: %s\ntext: %s bytes' "$build_id" "$(stat -c %s in.json)")" "$out"

not_signed="not a signed file, or changed, cut, or signed by a key that is not trusted"
size=$(stat -c %s in.ejs)
# Header, key identifier, text, signature.
for offset in 0 7 8 15 16 40 $((size - 64)) $((size - 1)); do
  cp in.ejs bad.ejs
  # Flip every bit of the byte, so that it changes whatever it held.
  byte=$(od -An -tu1 -j "$offset" -N1 bad.ejs | tr -d ' ')
  printf "\\$(printf '%03o' $((byte ^ 0xff)))" | dd of=bad.ejs bs=1 seek="$offset" conv=notrunc status=none
  cmp -s in.ejs bad.ejs && { echo "FAILED: the byte at $offset did not change"; exit 1; }
  run verify bad.ejs
  expect "verify of a file changed at $offset exits 1" 1 "$status"
  expect "verify of a file changed at $offset says why" "tarn-ejs: bad.ejs: $not_signed" "$err"
  expect "verify of a file changed at $offset prints nothing" "" "$out"
done
head -c $((size - 1)) in.ejs >cut.ejs
cp in.ejs long.ejs && printf x >>long.ejs
for file in cut.ejs long.ejs in.json; do
  run verify $file
  expect "verify of $file exits 1" 1 "$status"
  expect "verify of $file says why" "tarn-ejs: $file: $not_signed" "$err"
done
run verify missing.ejs
expect "verify of a missing file exits 1" 1 "$status"
expect "verify of a missing file says why" "tarn-ejs: missing.ejs: No such file or directory" "$err"
run unpack cut.ejs cut.json
expect "unpack of a cut file exits 1" 1 "$status"
expect "unpack of a cut file says why" "tarn-ejs: cut.ejs: $not_signed" "$err"
expect "unpack of a cut file writes no output" no "$([ -e cut.json ] && echo yes || echo no)"
run inspect in.json
expect "inspect of plain JSON exits 1" 1 "$status"
expect "inspect of plain JSON says why" "tarn-ejs: in.json: not a protected file" "$err"

# A key that the library does not trust: trusted through --keys, or once
# in /etc/velmora/keys.d, until it is revoked.
run sign --key own.key in.json own.ejs
expect "sign with another key exits 0" 0 "$status"
run verify own.ejs
expect "verify of an untrusted key's file exits 1" 1 "$status"
expect "verify of an untrusted key's file says why" "tarn-ejs: own.ejs: $not_signed" "$err"
mkdir keys && cp own.pub keys/
run verify --keys keys own.ejs
expect "verify --keys trusts the directory's keys" "0 $own_id" "$status $out"
mkdir -p /etc/velmora/keys.d && cp own.pub /etc/velmora/keys.d/own.pub
run verify own.ejs
expect "verify trusts the keys of /etc/velmora/keys.d" "0 $own_id" "$status $out"
run verify in.ejs
expect "verify still trusts the build's key" "0 $build_id" "$status $out"
mkdir /etc/velmora/keys.d/revoked && : >"/etc/velmora/keys.d/revoked/$own_id"
run verify own.ejs
expect "verify of a revoked key's file exits 1" 1 "$status"
expect "verify of a revoked key's file says why" "tarn-ejs: own.ejs: $not_signed" "$err"
rm -rf /etc/velmora/keys.d

# Conversion of the sealed form.
if [ "$sealed" != - ]; then
  run inspect "$sealed"
  expect "inspect of a sealed file names the form" "form: sealed (not signed)" "$(echo "$out" | head -n 1)"
  run verify "$sealed"
  expect "verify of a sealed file exits 1" 1 "$status"
  run convert --key "$build_key" "$sealed" converted.ejs
  expect "convert exits 0" 0 "$status"
  expect "convert prints nothing" "" "$out$err"
  run verify converted.ejs
  expect "the converted file verifies" "0 $build_id" "$status $out"
  "$tool" unpack converted.ejs - >converted.json 2>/dev/null
  expect "the converted file holds the sealed text" '"package": "tarn_base",' "$(sed -n 2p converted.json | tr -d ' ' | sed 's/:/: /')"
fi
run convert --key "$build_key" in.ejs again.ejs
expect "convert of a signed file exits 1" 1 "$status"
expect "convert of a signed file says why" "tarn-ejs: in.ejs: not a sealed file, or changed or cut" "$err"
expect "convert of a signed file writes nothing" no "$([ -e again.ejs ] && echo yes || echo no)"

# JSON that does not parse, or a key that is no key, is not signed.
printf '{\n  "a": 1,\n  "b": ]\n}\n' >bad.json
run sign --key "$build_key" bad.json bad_out.ejs
expect "sign of bad JSON exits 1" 1 "$status"
expect "sign of bad JSON names its line and column" \
  "tarn-ejs: bad.json: not JSON: line 3, column 8: unexpected token near ']'" "$err"
expect "sign of bad JSON writes nothing" no "$([ -e bad_out.ejs ] && echo yes || echo no)"
printf '"bare"' >bare.json
run sign --key "$build_key" bare.json bare.ejs
expect "sign of a bare value exits 1" 1 "$status"
expect "sign of a bare value says why" \
  "tarn-ejs: bare.json: not JSON: line 1, column 6: '[' or '{' expected near '\"bare\"'" "$err"
run sign --key "$build_key" missing.json x.ejs
expect "sign of a missing file exits 1" 1 "$status"
expect "sign of a missing file says why" "tarn-ejs: missing.json: No such file or directory" "$err"
run sign --key "$build_key" in.json no/such/dir/x.ejs
expect "sign into a missing directory exits 1" 1 "$status"
expect "sign into a missing directory names the output" \
  "tarn-ejs: no/such/dir/x.ejs: No such file or directory" "$err"
for key in own.pub.missing in.json; do
  run sign --key $key in.json x.ejs
  expect "sign with $key exits 1" 1 "$status"
  expect "sign with $key says why" "tarn-ejs: $key: not a usable secret key file" "$err"
done

# Wrong usage.
for args in "" "sign" "sign in.json x.ejs" "sign --key k in.json" "sign -k k a b" "keygen a" "unpack in.ejs" \
  "verify" "verify a b" "verify --keys d" "inspect" "convert a b" "pack in.json x.ejs"; do
  # shellcheck disable=SC2086
  run $args
  expect "'tarn-ejs $args' exits 2" 2 "$status"
  expect "'tarn-ejs $args' prints the usage" "usage: tarn-ejs keygen SECRET PUBLIC" "$(head -n 1 "$work/stderr" | sed 's/  *make.*//')"
done
run --help
expect "--help exits 0" 0 "$status"
expect "--help prints the usage on stdout" "usage: tarn-ejs keygen SECRET PUBLIC" "$(echo "$out" | head -n 1 | sed 's/  *make.*//')"

rm -rf "$work"
if [ $failures -ne 0 ]; then
  echo "$failures check(s) failed"
  exit 1
fi
echo "tarn-ejs: all checks passed"
