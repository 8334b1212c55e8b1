#!/bin/sh
# Builds the Debian packages of a configured and built tree into a scratch
# directory and inspects them with dpkg-deb.
# Usage: check_packages.sh build-dir scratch-dir version
set -eu
build=$1
scratch=$2
version=$3
rm -rf "$scratch"
mkdir -p "$scratch"
cpack -G DEB --config "$build/CPackConfig.cmake" -B "$scratch" > "$scratch/cpack.log" 2>&1 || {
    cat "$scratch/cpack.log"
    exit 1
}

failures=0
fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}
deb_of() {
    set -- "$scratch"/"$1"_*.deb
    [ -f "$1" ] && echo "$1"
}
field() { dpkg-deb -f "$1" "$2"; }
# The listings are written to files first: a grep -q that stops reading early
# would otherwise break dpkg-deb's pipe.
listing() {
    dpkg-deb -c "$1" > "$1.contents"
    echo "$1.contents"
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

runtime=$(deb_of libqxcommon-util0) || { fail "no libqxcommon-util0 package"; exit 1; }
dev=$(deb_of libqxcommon-util-dev) || { fail "no libqxcommon-util-dev package"; exit 1; }

[ "$(field "$runtime" Package)" = libqxcommon-util0 ] || fail "runtime Package field"
[ "$(field "$runtime" Version)" = "$version" ] || fail "runtime Version $(field "$runtime" Version)"
[ "$(field "$dev" Package)" = libqxcommon-util-dev ] || fail "dev Package field"
[ "$(field "$dev" Version)" = "$version" ] || fail "dev Version $(field "$dev" Version)"

depends=$(field "$runtime" Depends)
echo "libqxcommon-util0 Depends: $depends"
echo "$depends" | grep -q '\blibc6\b' || fail "runtime does not depend on libc6"
echo "$depends" | grep -q '\blibjsonparser1\.1\b' || fail "runtime does not depend on libjsonparser1.1"
depends=$(field "$dev" Depends)
echo "libqxcommon-util-dev Depends: $depends"
echo "$depends" | grep -q "libqxcommon-util0 (= $version)" ||
    fail "dev does not depend on libqxcommon-util0 (= $version)"
echo "$depends" | grep -q '\blibjsonparser-dev\b' || fail "dev does not depend on libjsonparser-dev"

# Runtime: the soname link and the real name, nothing for development.
has_file "$runtime" "./usr/lib/libqxcommon-util.so.0"
has_file "$runtime" "./usr/lib/libqxcommon-util.so.$version"
lacks_file "$runtime" "\.so$"
lacks_file "$runtime" "/include/"
dpkg-deb --ctrl-tarfile "$runtime" > "$scratch/runtime-control.tar"
tar -tf "$scratch/runtime-control.tar" | grep -x './shlibs' > /dev/null || fail "runtime has no shlibs file"

# Development: headers, the .so link, pkg-config, CMake package, pages.
has_file "$dev" "./usr/lib/libqxcommon-util.so"
has_file "$dev" "./usr/include/qxcommon-util/strbuf.h"
has_file "$dev" "./usr/include/qxcommon-util/export.h"
has_file "$dev" "./usr/lib/pkgconfig/qxcommon-util.pc"
has_file "$dev" "./usr/lib/cmake/qxcommon-util/qxcommon-util-config.cmake"
has_file "$dev" "./usr/lib/cmake/qxcommon-util/qxcommon-util-targets.cmake"
if [ -n "${QX_EXPECT_MAN:-}" ]; then
    has_file "$dev" "./usr/share/man/man3/qxcommon-util-strbuf.3.gz"
    has_file "$dev" "./usr/share/man/man7/qxcommon-util.7.gz"
    # Each function name leads to its family's page.
    grep ' ./usr/share/man/man3/strbuf_append.3.gz -> qxcommon-util-strbuf.3.gz$' \
        "$(listing "$dev")" > /dev/null ||
        fail "no strbuf_append(3) link to the strbuf page"
fi
lacks_file "$dev" "\.so\.0"

# The tool's package exists once the tool has an install rule.
if tools=$(deb_of qxutil); then
    [ "$(field "$tools" Package)" = qxutil ] || fail "tool Package field"
    field "$tools" Depends | grep libqxcommon-util0 > /dev/null ||
        fail "qxutil does not depend on the library"
    has_file "$tools" "./usr/bin/qxutil"
fi

[ "$failures" -eq 0 ] || exit 1
echo "packages: $(cd "$scratch" && ls ./*.deb | tr '\n' ' ')"
