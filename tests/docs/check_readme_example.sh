#!/bin/sh
# Compiles the C program of the README's "A first program" section against
# the headers, runs it from the top of the tree and compares what it prints
# with the text block that follows it there.
# Usage: check_readme_example.sh cc include-dir library readme scratch-dir [flags...]
set -eu
cc=$1
includedir=$2
library=$3
readme=$4
scratch=$5
shift 5
rm -rf "$scratch"
mkdir -p "$scratch"
section() {
    # The first fenced block of the given language in the section.
    awk -v lang="$1" '/^## A first program/ { inside = 1; next }
         inside && /^## / { exit }
         inside && !block && $0 == "```" lang { block = 1; next }
         block && /^```/ { exit }
         block { print }' "$readme"
}
section c > "$scratch/first.c"
section text > "$scratch/expected"
[ -s "$scratch/first.c" ] || { echo "no C block in the README's first program"; exit 1; }
[ -s "$scratch/expected" ] || { echo "no output block in the README's first program"; exit 1; }
"$cc" -std=c11 -Wall -Wextra -Werror -I"$includedir" -o "$scratch/first" "$scratch/first.c" \
    "$library" -Wl,-rpath,"$(dirname "$library")" "$@"
cd "$(dirname "$readme")"
"$scratch/first" > "$scratch/actual"
diff -u "$scratch/expected" "$scratch/actual"
echo "the README's first program prints what the README says"
