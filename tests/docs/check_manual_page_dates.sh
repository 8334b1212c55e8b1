#!/bin/sh
# The built manual pages carry the date of the last commit (or of
# SOURCE_DATE_EPOCH when it is set), not the day they were built, so that
# two builds of one commit give the same pages.
# Usage: check_manual_page_dates.sh source-dir man-build-dir
# Exits with 77 (skipped) when neither git history nor SOURCE_DATE_EPOCH
# tells the date.
set -eu
source=$1
pages=$2
if [ -n "${SOURCE_DATE_EPOCH:-}" ]; then
    epoch=$SOURCE_DATE_EPOCH
elif command -v git > /dev/null && epoch=$(git -C "$source" log -1 --format=%ct 2> /dev/null); then
    :
else
    echo "no git history and no SOURCE_DATE_EPOCH: nothing to compare the dates with"
    exit 77
fi
expected=$(date -u -d "@$epoch" +%Y-%m-%d)
checked=0
failed=0
for page in "$pages"/*.[137]; do
    [ -f "$page" ] || continue
    date=$(sed -n 's/^\.TH "[^"]*" "[0-9]" "\([^"]*\)".*/\1/p' "$page")
    if [ "$date" != "$expected" ]; then
        echo "$(basename "$page") is dated \"$date\", not $expected"
        failed=$((failed + 1))
    fi
    checked=$((checked + 1))
done
[ "$checked" -gt 0 ] || { echo "no manual pages in $pages"; exit 1; }
[ "$failed" -eq 0 ] || exit 1
echo "$checked manual pages are dated $expected"
