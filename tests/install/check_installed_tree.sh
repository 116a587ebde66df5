#!/usr/bin/env bash
# check_installed_tree.sh install BUILD PREFIX SOURCE VERSION LIBDIR
#   Installs the build BUILD into PREFIX (emptied first) with cmake
#   --install and checks that PREFIX holds exactly the versioned libraries
#   and their links, the headers of SOURCE, the pkg-config files naming
#   PREFIX, the CMake package and the tools tarnctl and tarn-ejs, and that
#   the tools load the libraries of PREFIX.
# check_installed_tree.sh pkg-config|find-package PREFIX LIBDIR WORK SANDBOX CONSUMER
#   Builds the program CONSUMER/consumer.c in WORK (emptied first) against
#   the install in PREFIX, through pkg-config or through the CMake project
#   CONSUMER and find_package(tarnaux), twice: naming the headers of
#   libtarnaux <tarnaux/NAME.h> and by their bare names <NAME.h>. Runs each
#   inside the sandbox runner SANDBOX (it reads the configuration file at
#   its fixed path), and checks its output and that it loads the libraries
#   of PREFIX.
# Environment: TARN_CMAKE (cmake), CC (the C compiler), TARN_CONSUMER_FLAGS
# (extra compile and link flags for the program), TARN_EJS_SECRET_KEY (the
# build's secret key file, with which the program signs its manifest),
# TARN_VERSION (the project's version, which the headers and libraries
# report).
set -euo pipefail
here=$(dirname "$(realpath "$0")")
# shellcheck source-path=SCRIPTDIR source=layout.sh
source "$here/layout.sh"
cmake=${TARN_CMAKE:-cmake}
cc=${CC:-cc}
read -r -a consumer_flags <<<"${TARN_CONSUMER_FLAGS:-}"
unset LD_LIBRARY_PATH
libraries=(libtarnaux.so.1 libtarnbase.so.1 libqiv_ejs.so.1)

fail() { echo "FAILED: $*"; exit 1; }

# check_loads_from BINARY DIR LIBRARY...: BINARY loads each LIBRARY (a
# SONAME) from DIR.
check_loads_from() {
  local binary=$1 dir=$2 library resolved
  shift 2
  for library in "$@"; do
    resolved=$(ldd "$binary" | awk -v name="$library" '$1 == name { print $3 }')
    if [ -z "$resolved" ] || [ "$(realpath "$resolved")" != "$(realpath "$dir/$library")" ]; then
      fail "${binary##*/} loads $library from '$resolved', not from $dir"
    fi
  done
}

# The output of consumer.c on this machine, whose configuration file says
# x86_companion = 1: the companion app home exists only on a 64-bit x86
# machine, and the architecture follows the kernel's machine name.
expected_output() {
  local cpu system companion='(null)'
  case $(uname -m) in
    x86_64) cpu=2 system=x64 companion=x86 ;;
    i?86) cpu=1 system=x86 ;;
    aarch64) cpu=3 system=arm64 ;;
    mips64*) cpu=4 system=mips64 ;;
    *) cpu=0 system='(null)' ;;
  esac
  local version=${TARN_VERSION:?} hex
  IFS=. read -r major minor patch <<<"$version"
  hex=$(printf '0x%02x%02x%02x' "$major" "$minor" "$patch")
  cat <<OUT
libtarnaux: headers $version, library $version, $hex
libtarnbase: headers $version, library $version, $hex
libqiv_ejs: headers $version, library $version, $hex
parse 3.2.17: 0 3.2.17
parse 1..3: 1 0.0.0
compare 1.10.0 1.9.9: 1
compare 1.2.3 1.2.5: -2
sign: 0
manifest version: 0 4.5.6
loaded version: 4.5.6
cpu arch: $cpu
system arch: $system
companion arch: $companion
OUT
}

# run_consumer SANDBOX PROGRAM WORK: runs the program in the sandbox with a
# configuration file of its own and checks what it prints.
run_consumer() {
  local sandbox=$1 program=$2 work=$3 status=0
  "$sandbox" bash -c 'mkdir -p /etc/velmora &&
      printf "[platform]\nx86_companion = 1\n" >/etc/velmora/tarnbase.conf && exec "$@"' \
    consumer "$program" "$work/manifest.ejs" "${TARN_EJS_SECRET_KEY:?}" >"$work/stdout" 2>"$work/stderr" || status=$?
  [ $status -eq 0 ] || { cat "$work/stderr"; fail "${program##*/} exited with status $status"; }
  [ ! -s "$work/stderr" ] || { cat "$work/stderr"; fail "${program##*/} wrote on standard error"; }
  if [ "$(cat "$work/stdout")" != "$(expected_output)" ]; then
    echo "FAILED: the output of ${program##*/} differs (< expected, > actual):"
    diff <(expected_output) "$work/stdout" || true
    exit 1
  fi
}

mode=$1; shift
case $mode in
  install)
    build=$1 prefix=$2 source=$3 version=$4 libdir=$5
    rm -rf "$prefix"
    "$cmake" --install "$build" --prefix "$prefix" >/dev/null
    compare_layout "the installed tree" "$(expected_layout "$source" "$libdir" "$version")" \
      "$(installed_layout "$prefix")" || exit 1
    # The version headers are generated; the others are the sources'.
    diff -r -x tarnaux_version.h "$source/include" "$prefix/include/tarnaux" ||
      fail "installed libtarnaux headers differ"
    diff -r -x tarnbase_version.h "$source/libtarnbase/include/tarnbase" "$prefix/include/tarnbase" ||
      fail "installed libtarnbase headers differ"
    diff -r -x qiv_ejs_version.h "$source/libqiv_ejs/include/qiv_ejs" "$prefix/include/qiv_ejs" ||
      fail "installed libqiv_ejs headers differ"
    for pc in tarnaux tarnbase qiv_ejs; do
      grep -qx "prefix=$prefix" "$prefix/$libdir/pkgconfig/$pc.pc" || fail "$pc.pc does not name $prefix"
    done
    check_loads_from "$prefix/bin/tarnctl" "$prefix/$libdir" "${libraries[@]}"
    check_loads_from "$prefix/bin/tarn-ejs" "$prefix/$libdir" libqiv_ejs.so.1
    ;;
  pkg-config|find-package)
    prefix=$1 libdir=$2 work=$3 sandbox=$4 consumer=$5
    rm -rf "$work"
    mkdir -p "$work"
    if [ "$mode" = pkg-config ]; then
      export PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig
      read -r -a flags <<<"$(pkg-config --cflags --libs tarnaux qiv_ejs)"
      programs=("$work/consumer" "$work/consumer-flat")
      "$cc" -std=c99 -Wall -Wextra -Werror "${consumer_flags[@]}" "$consumer/consumer.c" \
        "${flags[@]}" -Wl,-rpath,"$prefix/$libdir" -o "${programs[0]}"
      "$cc" -std=c99 -Wall -Wextra -Werror -DTARN_CONSUMER_FLAT_INCLUDES "${consumer_flags[@]}" \
        "$consumer/consumer.c" "${flags[@]}" -Wl,-rpath,"$prefix/$libdir" -o "${programs[1]}"
    else
      "$cmake" -S "$consumer" -B "$work/build" -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_FLAGS="-Wall -Wextra -Werror ${consumer_flags[*]}" \
        -DCMAKE_EXE_LINKER_FLAGS="${consumer_flags[*]}" >"$work/configure.log" ||
        { cat "$work/configure.log"; fail "the consumer project does not configure"; }
      found=$(sed -n 's/^tarnaux_DIR:PATH=//p' "$work/build/CMakeCache.txt")
      [ "$found" = "$prefix/$libdir/cmake/tarnaux" ] || fail "find_package found tarnaux in '$found'"
      "$cmake" --build "$work/build" >"$work/build.log" ||
        { cat "$work/build.log"; fail "the consumer project does not build"; }
      programs=("$work/build/consumer" "$work/build/consumer-flat")
    fi
    for program in "${programs[@]}"; do
      check_loads_from "$program" "$prefix/$libdir" "${libraries[@]}"
      run_consumer "$sandbox" "$program" "$work"
    done
    ;;
  *) echo "usage: $0 install|pkg-config|find-package ARGS..." >&2; exit 2 ;;
esac
echo "ok: $mode"
