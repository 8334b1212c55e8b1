#!/bin/sh
# Inspects the Debian packages made by build_packages.sh with dpkg-deb:
# names, versions, dependencies, Multi-Arch, the files each installs and
# where, the library's control files (shlibs, symbols, ldconfig trigger, no
# maintainer scripts), the copyright file and changelog of every package,
# the pkg-config file's paths, and that the manual pages are byte for byte
# those of the other build given (two builds of one commit agree).
# Usage: check_packages.sh packages-dir version multiarch-dir symbols-file [man-build-dir]
set -eu
packages=$1
version=$2
multiarch=$3
symbols=$4
man_build=${5:-}
scratch=$packages/inspect
rm -rf "$scratch"
mkdir -p "$scratch"

failures=0
fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}
deb_of() {
    set -- "$packages"/"$1"_*.deb
    [ -f "$1" ] && echo "$1"
}
field() { dpkg-deb -f "$1" "$2"; }
# The listings are written to files first: a grep -q that stops reading early
# would otherwise break dpkg-deb's pipe.
listing() {
    dpkg-deb -c "$1" > "$scratch/$(basename "$1").contents"
    echo "$scratch/$(basename "$1").contents"
}
has_file() {
    awk '{ print $6 }' "$(listing "$1")" | grep -x -- "$2" > /dev/null ||
        fail "$(basename "$1") lacks $2"
}
lacks_file() {
    if awk '{ print $6 }' "$(listing "$1")" | grep -- "$2" > /dev/null; then
        fail "$(basename "$1") holds $2"
    fi
}
mode_of() {
    awk -v path="$2" '$6 == path { print $1 }' "$(listing "$1")"
}
# Unpacks a package's files and control files under scratch/<package>.
unpack() {
    dpkg-deb -x "$1" "$scratch/$2"
    dpkg-deb -e "$1" "$scratch/$2/DEBIAN"
}

runtime=$(deb_of libqxcommon-util0) || { fail "no libqxcommon-util0 package"; exit 1; }
dev=$(deb_of libqxcommon-util-dev) || { fail "no libqxcommon-util-dev package"; exit 1; }
tools=$(deb_of qxutil) || { fail "no qxutil package"; exit 1; }
libdir=./usr/lib/$multiarch

for deb in "$runtime" "$dev" "$tools"; do
    package=$(field "$deb" Package)
    [ "$(field "$deb" Version)" = "$version" ] || fail "$package Version $(field "$deb" Version)"
    echo "$package Depends: $(field "$deb" Depends)"
    # Every package carries the copyright file and the changelog, whose
    # latest entry is this version.
    has_file "$deb" "./usr/share/doc/$package/copyright"
    has_file "$deb" "./usr/share/doc/$package/changelog.gz"
    unpack "$deb" "$package"
    top=$(gzip -dc "$scratch/$package/usr/share/doc/$package/changelog.gz" | head -n 1)
    echo "$top" | grep -q "^libqxcommon-util ($version) " ||
        fail "$package: the changelog starts with $top"
    field "$deb" Maintainer | grep -q '@localhost' && fail "$package: maintainer at localhost"
done

# Runtime: the soname link and the real name in the multiarch directory,
# nothing for development; dependencies computed, >= only.
[ "$(field "$runtime" Multi-Arch)" = same ] || fail "libqxcommon-util0 is not Multi-Arch: same"
depends=$(field "$runtime" Depends)
echo "$depends" | grep -q '\blibc6 (>= [0-9.]*)' || fail "runtime does not depend on libc6 (>= ...)"
echo "$depends" | grep -q '\blibjsonparser1\.1 (>= [0-9.]*)' ||
    fail "runtime does not depend on libjsonparser1.1 (>= ...)"
has_file "$runtime" "$libdir/libqxcommon-util.so.0"
has_file "$runtime" "$libdir/libqxcommon-util.so.$version"
[ "$(mode_of "$runtime" "$libdir/libqxcommon-util.so.$version")" = "-rw-r--r--" ] ||
    fail "the shared library is not 0644"
lacks_file "$runtime" "\.so$"
lacks_file "$runtime" "/include/"
lacks_file "$runtime" "^\./usr/lib/libqxcommon"
control=$scratch/libqxcommon-util0/DEBIAN
[ "$(cat "$control/shlibs")" = "libqxcommon-util 0 libqxcommon-util0 (>= $version)" ] ||
    fail "shlibs: $(cat "$control/shlibs")"
cmp "$control/symbols" "$symbols" || fail "the symbols control file is not $symbols"
[ "$(cat "$control/triggers")" = "activate-noawait ldconfig" ] ||
    fail "no ldconfig trigger: $(cat "$control/triggers" 2>/dev/null)"
for script in preinst postinst prerm postrm; do
    [ ! -e "$control/$script" ] || fail "the runtime package has a $script"
done

# Development: headers, the .so link, pkg-config file, CMake package and
# pages; exactly this version of the library.
[ "$(field "$dev" Multi-Arch)" = same ] || fail "libqxcommon-util-dev is not Multi-Arch: same"
depends=$(field "$dev" Depends)
echo "$depends" | grep -q "libqxcommon-util0 (= $version)" ||
    fail "dev does not depend on libqxcommon-util0 (= $version)"
echo "$depends" | grep -q '\blibjsonparser-dev\b' || fail "dev does not depend on libjsonparser-dev"
has_file "$dev" "$libdir/libqxcommon-util.so"
has_file "$dev" "./usr/include/qxcommon-util/strbuf.h"
has_file "$dev" "./usr/include/qxcommon-util/export.h"
has_file "$dev" "$libdir/pkgconfig/qxcommon-util.pc"
has_file "$dev" "$libdir/cmake/qxcommon-util/qxcommon-util-config.cmake"
has_file "$dev" "$libdir/cmake/qxcommon-util/qxcommon-util-targets.cmake"
lacks_file "$dev" "\.so\.0"
has_file "$dev" "./usr/share/man/man3/qxcommon-util-strbuf.3.gz"
has_file "$dev" "./usr/share/man/man7/qxcommon-util.7.gz"
# Each function name leads to its family's page.
grep ' ./usr/share/man/man3/strbuf_append.3.gz -> qxcommon-util-strbuf.3.gz$' \
    "$(listing "$dev")" > /dev/null || fail "no strbuf_append(3) link to the strbuf page"

# The pkg-config file names its directories from ${prefix}, so pkg-config
# leaves the system directories out of what it prints.
unpacked=$scratch/libqxcommon-util-dev
pc=$unpacked/usr/lib/$multiarch/pkgconfig/qxcommon-util.pc
grep -qx 'prefix=/usr' "$pc" || fail "pkg-config prefix: $(grep '^prefix=' "$pc")"
grep -qx "libdir=\${exec_prefix}/lib/$multiarch" "$pc" || fail "pkg-config $(grep '^libdir=' "$pc")"
grep -qx 'includedir=${prefix}/include' "$pc" || fail "pkg-config $(grep '^includedir=' "$pc")"
cflags=$(PKG_CONFIG_PATH=$(dirname "$pc") pkg-config --cflags qxcommon-util)
libs=$(PKG_CONFIG_PATH=$(dirname "$pc") pkg-config --libs qxcommon-util)
echo "pkg-config --cflags: $cflags"
echo "pkg-config --libs: $libs"
[ "$cflags" = "$(pkg-config --cflags json-parser)" ] || fail "pkg-config --cflags gives $cflags"
[ "$libs" = "-lqxcommon-util $(pkg-config --libs json-parser)" ] || fail "pkg-config --libs gives $libs"
# The CMake package finds everything relative to itself, each directory once.
targets=$unpacked/usr/lib/$multiarch/cmake/qxcommon-util/qxcommon-util-targets.cmake
grep -q 'INTERFACE_INCLUDE_DIRECTORIES "${_IMPORT_PREFIX}/include"$' "$targets" ||
    fail "CMake package include directories: $(grep INTERFACE_INCLUDE_DIRECTORIES "$targets")"
if grep -rn "$(cd "$(dirname "$0")/../.." && pwd)" "$unpacked/usr/lib/$multiarch/cmake"; then
    fail "the CMake package names the source or build tree"
fi

# Two builds of one commit give the same manual pages.
if [ -n "$man_build" ]; then
    compared=0
    for page in "$unpacked"/usr/share/man/man3/qxcommon-util-*.3.gz "$unpacked"/usr/share/man/man7/*.7.gz \
        "$scratch"/qxutil/usr/share/man/man1/*.1.gz; do
        [ -L "$page" ] && continue
        name=$(basename "$page")
        if cmp "$page" "$man_build/$name" > /dev/null; then
            compared=$((compared + 1))
        else
            fail "$name differs between the package and $man_build"
        fi
    done
    [ "$compared" -gt 0 ] || fail "no manual pages compared"
    echo "$compared manual pages are the same bytes in both builds"
fi

# The tool: its own page, the library of at least this version, and what
# dpkg-shlibdeps found for the rest.
[ "$(field "$tools" Multi-Arch)" = foreign ] || fail "qxutil is not Multi-Arch: foreign"
depends=$(field "$tools" Depends)
echo "$depends" | grep -q "libqxcommon-util0 (>= $version)" ||
    fail "qxutil does not depend on libqxcommon-util0 (>= $version)"
echo "$depends" | grep -q '\blibc6 (>= [0-9.]*)' || fail "qxutil does not depend on libc6"
has_file "$tools" "./usr/bin/qxutil"
has_file "$tools" "./usr/share/man/man1/qxutil.1.gz"

[ "$failures" -eq 0 ] || exit 1
echo "packages: $(cd "$packages" && ls ./*.deb | tr '\n' ' ')"
