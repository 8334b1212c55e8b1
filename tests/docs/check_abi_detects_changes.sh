#!/bin/sh
# The ABI check must fail when a function disappears or a record changes:
# run it against two doctored copies of the baseline, one that lists an
# exported function the library lacks, one whose strbuf record has a member
# renamed and a different size.
# Usage: check_abi_detects_changes.sh check_abi.sh baseline.abi library scratch-dir
set -eu
check=$1
baseline=$2
library=$3
scratch=$4
rm -rf "$scratch"
mkdir -p "$scratch"

grep -q "<elf-symbol name='strbuf_len'" "$baseline" || { echo "baseline lacks strbuf_len"; exit 1; }
sed "/<elf-symbol name='strbuf_len'/{p;s/strbuf_len/strbuf_len_withdrawn/g}" "$baseline" \
    > "$scratch/removed.abi"
grep -q "<class-decl name='strbuf' size-in-bits='192'" "$baseline" || { echo "baseline lacks strbuf"; exit 1; }
sed "s/<class-decl name='strbuf' size-in-bits='192'/<class-decl name='strbuf' size-in-bits='256'/;
     s/<var-decl name='length' /<var-decl name='used' /" "$baseline" > "$scratch/changed.abi"

failures=0
for doctored in removed changed; do
    if "$check" "$scratch/$doctored.abi" "$library" > "$scratch/$doctored.log" 2>&1; then
        echo "FAIL: the ABI check accepted a $doctored interface"
        failures=$((failures + 1))
    fi
done
[ "$failures" -eq 0 ] || exit 1
echo "the ABI check rejects a removed function and a changed record"
