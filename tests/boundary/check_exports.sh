#!/bin/sh
# Compares the dynamic symbols the library defines with the checked-in list,
# and checks that no C++ symbol and no stray data symbol is exported.
set -eu
library=$1
expected=$2
actual=$(mktemp)
trap 'rm -f "$actual"' EXIT

# Linker-defined markers and the odr indicators of an ASan build are not part
# of the interface.
not_interface='_init|_fini|_edata|_end|__bss_start|__odr_asan\..*'
nm -D --defined-only "$library" | awk '{ print $3 }' |
    grep -v -x -E "$not_interface" | LC_ALL=C sort -u >"$actual"

status=0
if ! diff -u "$expected" "$actual"; then
    echo "exported symbols differ from $expected (- listed, + exported)" >&2
    status=1
fi
if grep -E '^_Z' "$actual" >/dev/null; then
    echo "C++ symbols are exported:" >&2
    grep -E '^_Z' "$actual" >&2
    status=1
fi
# qx_errno is the one exported variable; every other export is a function.
data=$(nm -D --defined-only "$library" | awk '$2 ~ /^[BDGSbdgs]$/ { print $3 }' |
    grep -v -x -E "$not_interface" || true)
if [ "$data" != "qx_errno" ]; then
    echo "exported data symbols should be exactly qx_errno, found: $data" >&2
    status=1
fi
[ $status -eq 0 ] && echo "1 passed, 0 failed" || echo "0 passed, 1 failed"
exit $status
