#!/usr/bin/env bash
# check_debian_package.sh BUILD WORK SOURCE VERSION LIBDIR SHLIBDEPS
#   Makes the Debian package of the build BUILD with its CPack
#   configuration in WORK (emptied first), and checks its control fields
#   (name, version, architecture, maintainer, the shlibs file and, when
#   SHLIBDEPS is ON, the dependencies that dpkg-shlibdeps found), that it
#   holds exactly the install of the sources at SOURCE under /usr (the
#   versioned libraries and their links, the headers, the pkg-config files,
#   the CMake package, tarnctl and tarn-ejs), and that its pkg-config files
#   name /usr.
#   cpack normally runs the build tool's preinstall step first, which builds
#   whatever is out of date; here it runs BUILD's install script directly
#   instead, so that it packs the build as it stands, as `cmake --install`
#   does, and strips the programs as CPACK_STRIP_FILES has it.
# Environment: TARN_CPACK (cpack).
set -euo pipefail
here=$(dirname "$(realpath "$0")")
# shellcheck source-path=SCRIPTDIR source=layout.sh
source "$here/layout.sh"
build=$1 work=$2 source=$3 version=$4 libdir=$5 shlibdeps=$6
cpack=${TARN_CPACK:-cpack}

fail() { echo "FAILED: $*"; exit 1; }

rm -rf "$work"
mkdir -p "$work"
status=0
"$cpack" -G DEB --config "$build/CPackConfig.cmake" -B "$work" -D CPACK_INSTALL_CMAKE_PROJECTS= \
  -D CPACK_INSTALL_SCRIPTS="$build/cmake_install.cmake" -D CMAKE_INSTALL_DO_STRIP=1 \
  >"$work/cpack.log" 2>&1 || status=$?
[ $status -eq 0 ] || { cat "$work/cpack.log"; fail "cpack exited with status $status"; }
debs=("$work"/*.deb)
if [ ${#debs[@]} -ne 1 ] || [ ! -f "${debs[0]}" ]; then
  fail "cpack made no package or more than one: ${debs[*]}"
fi
deb=${debs[0]}
arch=$(dpkg --print-architecture)
[ "${deb##*/}" = "libtarnaux_${version}_$arch.deb" ] || fail "package file named ${deb##*/}"

# expect_field FIELD VALUE
expect_field() {
  local actual
  actual=$(dpkg-deb -f "$deb" "$1")
  [ "$actual" = "$2" ] || fail "field $1 is '$actual', not '$2'"
}
expect_field Package libtarnaux
expect_field Version "$version"
expect_field Architecture "$arch"
expect_field Section libs
[ -n "$(dpkg-deb -f "$deb" Maintainer)" ] || fail "no Maintainer"
[ -n "$(dpkg-deb -f "$deb" Description)" ] || fail "no Description"

# Packages built against the libraries depend on this package.
shlibs=$(dpkg-deb -I "$deb" shlibs | LC_ALL=C sort)
expected_shlibs=$(for library in libqiv_ejs libtarnaux libtarnbase; do
  echo "$library ${version%%.*} libtarnaux (>= $version)"; done)
[ "$shlibs" = "$expected_shlibs" ] || fail "shlibs file is '$shlibs', not '$expected_shlibs'"

if [ "$shlibdeps" = ON ]; then
  depends=$(dpkg-deb -f "$deb" Depends)
  for package in libc6 libstdc++6 libjansson4 libsodium libuuid1 zlib1g; do
    [[ ", $depends" == *", $package"* ]] || fail "Depends '$depends' lacks $package"
  done
  # The base library reads ini text itself.
  [[ "$depends" != *libinih* ]] || fail "Depends '$depends' names libinih"
fi

listing=$(dpkg-deb -c "$deb" | awk '$1 !~ /^d/ { $1 = $2 = $3 = $4 = $5 = ""; sub(/^ +/, ""); print }' |
          sed 's|^\./usr/||' | normalize_layout)
compare_layout "the package" "$(expected_layout "$source" "$libdir" "$version")" "$listing" || exit 1

for pc in tarnaux tarnbase qiv_ejs; do
  dpkg-deb --fsys-tarfile "$deb" | tar -xO "./usr/$libdir/pkgconfig/$pc.pc" | grep -qx 'prefix=/usr' ||
    fail "$pc.pc in the package does not name /usr"
done
echo "ok: ${deb##*/}"
