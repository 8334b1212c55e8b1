#!/bin/sh
# Compiles the EXAMPLE of every manual page as a C11 program against the
# headers and links it with the library.
# Usage: check_examples.sh cc include-dir library man-directory scratch-dir [flags...]
# The flags (include paths, libraries) go at the end of the command line.
set -eu
cc=$1
includedir=$2
library=$3
mandir=$4
scratch=$5
shift 5
rm -rf "$scratch"
mkdir -p "$scratch"
libdir=$(dirname "$library")
failed=0
count=0
for page in "$mandir"/*.3.scd; do
    name=$(basename "$page" .scd)
    src="$scratch/$name.c"
    # The first fenced block after the EXAMPLE heading, with scdoc's
    # backslash escapes resolved (a "\\n" in the page is "\n" in C).
    awk '/^# EXAMPLE/ { inside = 1; next }
         inside && /^```/ { if (block) exit; block = 1; next }
         /^# / { inside = 0 }
         block { print }' "$page" | sed 's/\\\(.\)/\1/g' > "$src"
    if [ ! -s "$src" ]; then
        echo "$name: no EXAMPLE block"
        failed=$((failed + 1))
        continue
    fi
    count=$((count + 1))
    if ! "$cc" -std=c11 -Wall -Wextra -Werror -I"$includedir" -o "$scratch/$name" "$src" \
        "$library" -Wl,-rpath,"$libdir" "$@" > "$scratch/$name.log" 2>&1; then
        echo "$name: the example does not compile:"
        cat "$scratch/$name.log"
        failed=$((failed + 1))
    fi
done
[ "$count" -gt 0 ] || { echo "no pages found in $mandir"; exit 1; }
[ "$failed" -eq 0 ] || exit 1
echo "$count examples compile"
