#!/bin/sh
# Every exported name must be mentioned by some manual page.
# Usage: check_documented.sh exported-symbols.txt man-directory
set -eu
list=$1
mandir=$2
missing=0
while IFS= read -r name; do
    [ -n "$name" ] || continue
    if ! grep -qw -- "$name" "$mandir"/*.scd; then
        echo "not in any manual page: $name"
        missing=$((missing + 1))
    fi
done < "$list"
[ "$missing" -eq 0 ] || { echo "$missing exported names undocumented"; exit 1; }
echo "every exported name is documented"
