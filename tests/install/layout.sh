# shellcheck shell=bash
# layout.sh: sourced by the install checks. expected_layout SOURCE LIBDIR
# VERSION prints, sorted, every file and link that an install of the
# sources at SOURCE holds, relative to the prefix (a link as "path ->
# target"); the configuration-specific targets file is named
# tarnauxTargets-CONFIG.cmake. installed_layout DIR prints a tree in the
# same form.

expected_layout() {
  local source=$1 libdir=$2 version=$3 library file header
  {
    for library in tarnaux tarnbase qiv_ejs; do
      echo "$libdir/lib$library.so -> lib$library.so.${version%%.*}"
      echo "$libdir/lib$library.so.${version%%.*} -> lib$library.so.$version"
      echo "$libdir/lib$library.so.$version"
      echo "$libdir/pkgconfig/$library.pc"
    done
    for file in tarnauxConfig tarnauxConfigVersion tarnauxTargets tarnauxTargets-CONFIG; do
      echo "$libdir/cmake/tarnaux/$file.cmake"
    done
    echo bin/tarn-ejs
    echo bin/tarnctl
    for header in "$source"/include/*.h; do echo "include/tarnaux/${header##*/}"; done
    for header in "$source"/libtarnbase/include/tarnbase/*.h; do echo "include/tarnbase/${header##*/}"; done
    echo include/qiv_ejs/qiv_ejs.h
  } | LC_ALL=C sort
}

# normalize_layout: reads "path" and "path -> target" lines, names the
# targets file of any configuration tarnauxTargets-CONFIG.cmake, and sorts.
normalize_layout() {
  sed -E 's|/tarnauxTargets-[a-z]+\.cmake$|/tarnauxTargets-CONFIG.cmake|' | LC_ALL=C sort
}

installed_layout() {
  find "$1" \( -type f -printf '%P\n' \) -o \( -type l -printf '%P -> %l\n' \) | normalize_layout
}

# compare_layout NAME EXPECTED ACTUAL: prints the differences and fails
# when the two listings differ.
compare_layout() {
  if [ "$2" != "$3" ]; then
    echo "FAILED: $1 differs from the expected layout (< expected, > actual):"
    diff <(echo "$2") <(echo "$3") || true
    return 1
  fi
}
