#!/bin/sh
# Checks with readelf that the packaged library and tool are built with the
# hardening flags: a read-only relocation table (RELRO) bound at start-up
# (BIND_NOW), the stack protector, checked string and memory functions
# (_FORTIFY_SOURCE), and a position-independent tool. Then runs the given
# tests that capture syslog against the packaged library: a fortified
# library calls __syslog_chk and __vsyslog_chk, which the test support must
# capture like syslog and vsyslog.
# Usage: check_hardening.sh packages-dir [test-program gtest-filter]...
set -eu
packages=$1
shift
scratch=$packages/hardening
rm -rf "$scratch"
mkdir -p "$scratch"

failures=0
fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}
for package in libqxcommon-util0 qxutil; do
    deb=$(ls "$packages/${package}"_*.deb 2> /dev/null) || { fail "no $package package"; exit 1; }
    dpkg-deb -x "$deb" "$scratch"
done
library=$(find "$scratch/usr/lib" -name 'libqxcommon-util.so.*.*.*' -type f)
tool=$scratch/usr/bin/qxutil
[ -f "$library" ] || { fail "no library in the package"; exit 1; }

for binary in "$library" "$tool"; do
    name=$(basename "$binary")
    readelf -lW "$binary" > "$scratch/$name.segments"
    readelf -dW "$binary" > "$scratch/$name.dynamic"
    readelf --dyn-syms -W "$binary" > "$scratch/$name.symbols"
    grep -q 'GNU_RELRO' "$scratch/$name.segments" || fail "$name: no RELRO segment"
    grep -Eq '\(FLAGS\).*BIND_NOW|\(FLAGS_1\).*NOW' "$scratch/$name.dynamic" ||
        fail "$name: not bound at start-up (no BIND_NOW)"
    grep -q ' UND __stack_chk_fail' "$scratch/$name.symbols" || fail "$name: no stack protector"
    fortified=$(awk '$7 == "UND" && $8 ~ /^__.*_chk(@|$)/ { sub(/@.*/, "", $8); print $8 }' \
        "$scratch/$name.symbols" | sort -u | tr '\n' ' ')
    [ -n "$fortified" ] || fail "$name: no fortified functions"
    echo "$name: fortified functions called: ${fortified:-none}"
done
grep -Eq '\(FLAGS_1\).*PIE' "$scratch/qxutil.dynamic" || fail "qxutil is not a PIE"
grep -Eq ' UND __v?syslog_chk' "$scratch/$(basename "$library").symbols" ||
    fail "the library does not call the fortified syslog"

# The test programs were linked against the tree's own library; the
# packaged one takes its place through the loader's search path.
packaged=$(dirname "$library")
while [ "$#" -ge 2 ]; do
    program=$1
    filter=$2
    shift 2
    name=$(basename "$program")
    LD_LIBRARY_PATH=$packaged LD_TRACE_LOADED_OBJECTS=1 "$program" > "$scratch/$name.loads"
    grep -q "libqxcommon-util.so.0 => $packaged/" "$scratch/$name.loads" ||
        fail "$name does not load the packaged library"
    if LD_LIBRARY_PATH=$packaged "$program" --gtest_filter="$filter" > "$scratch/$name.log" 2>&1 &&
        grep -q '\[  PASSED  \] [1-9]' "$scratch/$name.log"; then
        echo "$name $filter, against the fortified library: $(grep '\[  PASSED  \]' "$scratch/$name.log")"
    else
        cat "$scratch/$name.log"
        fail "$name $filter fails against the fortified library"
    fi
done
[ "$failures" -eq 0 ] || exit 1
