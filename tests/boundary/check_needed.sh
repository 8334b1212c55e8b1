#!/bin/sh
# Checks that every NEEDED entry of the library matches one of the allowed
# patterns (shell globs), so that no C++ runtime is pulled in.
set -eu
library=$1
shift
status=0
for needed in $(readelf -d "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
    ok=0
    for allowed in "$@"; do
        case $needed in
            $allowed) ok=1 ;;
        esac
    done
    if [ $ok -eq 0 ]; then
        echo "unexpected NEEDED entry: $needed" >&2
        status=1
    fi
done
readelf -d "$library" | grep -q 'SONAME.*\[libqxcommon-util\.so\.0\]' || {
    echo "soname is not libqxcommon-util.so.0" >&2
    status=1
}
[ $status -eq 0 ] && echo "1 passed, 0 failed" || echo "0 passed, 1 failed"
exit $status
