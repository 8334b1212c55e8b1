#!/bin/sh
# Checks with readelf that the packaged library and tool are built with the
# hardening flags: a read-only relocation table (RELRO) bound at start-up
# (BIND_NOW), the stack protector, checked string and memory functions
# (_FORTIFY_SOURCE), and a position-independent tool. Then, when a test
# program that captures syslog is given, runs its syslog tests against the
# packaged library: a fortified library calls __syslog_chk and
# __vsyslog_chk, which the test support must capture like syslog itself.
# Usage: check_hardening.sh packages-dir [syslog-test-program gtest-filter]
set -eu
packages=$1
syslog_test=${2:-}
filter=${3:-}
scratch=$packages/hardening
rm -rf "$scratch"
mkdir -p "$scratch"

failures=0
fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}
for package in libqxcommon-util0 qxutil; do
    set -- "$packages/${package}"_*.deb
    [ -f "$1" ] || { fail "no $package package"; exit 1; }
    dpkg-deb -x "$1" "$scratch"
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

if [ -n "$syslog_test" ]; then
    # The test program was linked against the tree's own library; the
    # packaged one takes its place through the loader's search path.
    LD_LIBRARY_PATH=$(dirname "$library") "$syslog_test" --gtest_filter="$filter" \
        > "$scratch/syslog-test.log" 2>&1 || {
        cat "$scratch/syslog-test.log"
        fail "the syslog tests fail against the fortified library"
    }
    grep -q '\[  PASSED  \] [1-9]' "$scratch/syslog-test.log" || fail "no syslog test ran"
    LD_LIBRARY_PATH=$(dirname "$library") LD_TRACE_LOADED_OBJECTS=1 "$syslog_test" |
        grep -q "libqxcommon-util.so.0 => $(dirname "$library")/" ||
        fail "the syslog tests did not load the packaged library"
    echo "the syslog tests pass against the fortified library: $(grep '\[  PASSED  \]' "$scratch/syslog-test.log")"
fi
[ "$failures" -eq 0 ] || exit 1
