#!/bin/sh
# Compares the built library with the checked-in ABI baseline. Added
# functions and variables are compatible and pass; a removed one, or a
# change to an exported function, variable or the records they use, fails.
# Usage: check_abi.sh baseline.abi library
set -eu
baseline=$1
library=$2
status=0
abidiff --no-added-syms "$baseline" "$library" || status=$?
if [ "$status" -ne 0 ]; then
    echo "abidiff status $status: the ABI differs from $baseline."
    echo "If the change is intended, run scripts/update-abi and commit the baseline."
    exit 1
fi
echo "the ABI matches $baseline (additions allowed)"
