#!/usr/bin/env bash
# check_debian_packages.sh make BUILD WORK
#   Makes the Debian packages of the build BUILD with its CPack
#   configuration in WORK (emptied first).
# check_debian_packages.sh contents WORK SOURCE VERSION LIBDIR SHLIBDEPS
#   Checks the packages in WORK: one per install component, named as Debian
#   names them; their control fields (version, architecture, section,
#   maintainer, description, the dependencies among them and, when SHLIBDEPS
#   is ON, on the system's libraries); the shlibs file and the ldconfig
#   trigger of each runtime package and that no package has maintainer
#   scripts; that together they hold exactly the install of the sources at
#   SOURCE under /usr, each file in its own package; that the changelog's
#   latest entry is VERSION's; and that the pkg-config files name /usr.
# check_debian_packages.sh lintian WORK
#   Runs lintian on the packages in WORK: it must report no error and no
#   warning.
# Environment: TARN_CPACK (cpack).
set -euo pipefail
here=$(dirname "$(realpath "$0")")
# shellcheck source-path=SCRIPTDIR source=layout.sh
source "$here/layout.sh"

fail() { echo "FAILED: $*"; exit 1; }

# package_of PATH LIBDIR VERSION: the package that the file PATH (relative
# to /usr) belongs in.
package_of() {
  local path=$1 libdir=$2 major=${3%%.*} library
  case $path in
    share/doc/*) path=${path#share/doc/}; echo "${path%%/*}" ;;
    bin/* | share/man/* | share/bash-completion/*) echo tarnaux-tools ;;
    "$libdir"/lib*.so.*)
      library=${path#"$libdir"/lib}
      library=${library%%.so.*}
      echo "lib${library//_/-}$major" ;;
    *) echo libtarnaux-dev ;;
  esac
}

mode=$1; shift
case $mode in
  make)
    build=$1 work=$2
    cpack=${TARN_CPACK:-cpack}
    rm -rf "$work"
    mkdir -p "$work"
    status=0
    "$cpack" -G DEB --config "$build/CPackConfig.cmake" -B "$work" >"$work/cpack.log" 2>&1 || status=$?
    [ $status -eq 0 ] || { cat "$work/cpack.log"; fail "cpack exited with status $status"; }
    ls "$work"/*.deb
    ;;
  contents)
    work=$1 source=$2 version=$3 libdir=$4 shlibdeps=$5
    arch=$(dpkg --print-architecture)
    expected_files=$(for package in $(debian_packages "$version"); do
                       echo "${package}_${version}_$arch.deb"; done | LC_ALL=C sort)
    actual_files=$(cd "$work" && ls -- *.deb | LC_ALL=C sort)
    [ "$actual_files" = "$expected_files" ] ||
      fail "the packages are '$(echo $actual_files)', not '$(echo $expected_files)'"
    major=${version%%.*}
    at_least="(>= $version)" exactly="(= $version)"
    all_listing=""
    for package in $(debian_packages "$version"); do
      deb=$work/${package}_${version}_$arch.deb
      field() { dpkg-deb -f "$deb" "$1"; }
      expect_field() {
        [ "$(field "$1")" = "$2" ] || fail "$package: field $1 is '$(field "$1")', not '$2'"
      }
      expect_field Package "$package"
      expect_field Version "$version"
      expect_field Architecture "$arch"
      expect_field Priority optional
      [ -n "$(field Maintainer)" ] || fail "$package: no Maintainer"
      [ -n "$(field Description)" ] || fail "$package: no Description"
      depends=$(field Depends)
      case $package in
        libtarnaux-dev)
          expect_field Section libdevel
          own="libtarnaux$major $exactly, libtarnbase$major $exactly, libqiv-ejs$major $exactly, libjansson-dev"
          system=() ;;
        tarnaux-tools)
          expect_field Section admin
          own="libtarnaux$major $at_least, libtarnbase$major $at_least, libqiv-ejs$major $at_least"
          system=(libc6 libstdc++6 libjansson4) ;;
        libtarnaux"$major")
          expect_field Section libs
          own="libtarnbase$major $at_least, libqiv-ejs$major $at_least"
          system=(libc6 libstdc++6 libsodium zlib1g) ;;
        libtarnbase"$major")
          expect_field Section libs
          own=""
          system=(libc6 libstdc++6 libuuid1) ;;
        libqiv-ejs"$major")
          expect_field Section libs
          own=""
          system=(libc6 libstdc++6 libjansson4 libsodium) ;;
      esac
      [[ "$depends" == "$own"* ]] || fail "$package: Depends '$depends' does not begin with '$own'"
      if [ "$shlibdeps" = ON ]; then
        for dependency in "${system[@]}"; do
          [[ ", $depends" == *", $dependency"* ]] || fail "$package: Depends '$depends' lacks $dependency"
        done
      fi
      # Only the runtime packages have control files beyond md5sums: their
      # shlibs file and the ldconfig trigger, and never a maintainer script.
      controls=$(dpkg-deb --ctrl-tarfile "$deb" | tar -t | sed 's|^\./||' | { grep -vxE 'control|md5sums|' || true; } |
                 LC_ALL=C sort | tr '\n' ' ')
      case $package in
        lib*-dev | tarnaux-tools) [ -z "$controls" ] || fail "$package: control files $controls" ;;
        *)
          [ "$controls" = "shlibs triggers " ] || fail "$package: control files '$controls'"
          library=${package%"$major"}
          library=${library//-/_}
          shlibs=$(dpkg-deb -I "$deb" shlibs)
          [ "$shlibs" = "$library $major $package $at_least" ] || fail "$package: shlibs file is '$shlibs'"
          triggers=$(dpkg-deb -I "$deb" triggers)
          [ "$triggers" = "activate-noawait ldconfig" ] || fail "$package: triggers file is '$triggers'" ;;
      esac
      listing=$(dpkg-deb -c "$deb" | awk '$1 !~ /^d/ { $1 = $2 = $3 = $4 = $5 = ""; sub(/^ +/, ""); print }' |
                sed 's|^\./usr/||')
      while IFS= read -r entry; do
        [ -n "$entry" ] || continue
        [ "$(package_of "${entry%% -> *}" "$libdir" "$version")" = "$package" ] ||
          fail "$package holds ${entry%% -> *}, which belongs in $(package_of "${entry%% -> *}" "$libdir" "$version")"
      done <<<"$listing"
      all_listing+=$listing$'\n'
    done
    compare_layout "the packages together" "$(expected_layout "$source" "$libdir" "$version")" \
      "$(grep -v '^$' <<<"$all_listing" | normalize_layout)" || exit 1
    # A new version needs its entry at the top of cmake/debian/changelog.
    top=$(dpkg-deb --fsys-tarfile "$work/libtarnaux1_${version}_$arch.deb" |
          tar -xO "./usr/share/doc/libtarnaux$major/changelog.gz" | gzip -dc | head -n 1)
    [[ "$top" == "libtarnaux ($version) "* ]] || fail "the changelog begins '$top', not with version $version"
    for pc in tarnaux tarnbase qiv_ejs; do
      dpkg-deb --fsys-tarfile "$work/libtarnaux-dev_${version}_$arch.deb" |
        tar -xO "./usr/$libdir/pkgconfig/$pc.pc" | grep -qx 'prefix=/usr' ||
        fail "$pc.pc in the package does not name /usr"
    done
    ;;
  lintian)
    work=$1
    status=0
    lintian --fail-on error,warning --tag-display-limit 0 "$work"/*.deb || status=$?
    [ $status -eq 0 ] || fail "lintian exited with status $status"
    ;;
  *) echo "usage: $0 make|contents|lintian ARGS..." >&2; exit 2 ;;
esac
echo "ok: $mode"
