#!/bin/sh
# The Debian symbols file lists exactly the exported names of the checked-in
# list, each once, unversioned (@Base) and with the version it appeared in:
# a release no later than the library's own version.
# Usage: check_symbols_file.sh symbols-file exported-symbols.txt soname package version
set -eu
symbols=$1
exported=$2
soname=$3
package=$4
version=$5
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
status=0

header=$(head -n 1 "$symbols")
if [ "$header" != "$soname $package #MINVER#" ]; then
    echo "first line is \"$header\", not \"$soname $package #MINVER#\"" >&2
    status=1
fi
# The package that builds against it, for dpkg-shlibdeps' diagnostics.
grep -qx '\* Build-Depends-Package: libqxcommon-util-dev' "$symbols" || {
    echo "no \"* Build-Depends-Package: libqxcommon-util-dev\" line" >&2
    status=1
}
# Every other line: one blank, name@Base, one blank, a version.
if tail -n +2 "$symbols" | grep -v '^\* ' | grep -v -E '^ [A-Za-z_][A-Za-z0-9_]*@Base [0-9]+(\.[0-9]+)*$'; then
    echo "the lines above are not \" name@Base version\"" >&2
    status=1
fi
tail -n +2 "$symbols" | sed -n 's/^ \([^@]*\)@Base .*/\1/p' | LC_ALL=C sort > "$scratch/listed"
LC_ALL=C sort -u "$exported" > "$scratch/exported"
if ! diff -u "$scratch/exported" "$scratch/listed"; then
    echo "the symbols file differs from $exported (- exported, + in the symbols file)" >&2
    status=1
fi
if [ -n "$(uniq -d "$scratch/listed")" ]; then
    echo "listed twice: $(uniq -d "$scratch/listed" | tr '\n' ' ')" >&2
    status=1
fi
# No name can have appeared in a version later than this one.
later=$(tail -n +2 "$symbols" | awk '/^ / { print $2 }' | sort -u | while read -r appeared; do
    newest=$(printf '%s\n%s\n' "$appeared" "$version" | sort -V | tail -n 1)
    [ "$newest" = "$version" ] || echo "$appeared"
done)
if [ -n "$later" ]; then
    echo "versions later than $version: $later" >&2
    status=1
fi
[ $status -eq 0 ] && echo "1 passed, 0 failed" || echo "0 passed, 1 failed"
exit $status
