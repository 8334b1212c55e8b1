#!/bin/sh
# The deliberate-behaviour check must notice every kind of drift between the
# "Deliberate:" comments of src/, docs/deliberate.md and the tests. Each case
# doctors a fresh copy of the tree and expects the check to fail, and to say
# why; a pristine copy and a tag wrapped by a formatter must pass.
# Usage: check_deliberate_detects_drift.sh deliberate-script source-root scratch-dir
set -eu
script=$1
root=$2
scratch=$3

rm -rf "$scratch"
mkdir -p "$scratch/pristine/docs"
cp -R "$root/src" "$root/tests" "$scratch/pristine/"
cp "$root/docs/deliberate.md" "$scratch/pristine/docs/"

failures=0
copy=

fresh() {
    copy=$scratch/$1
    rm -rf "$copy"
    # Linked, not copied: every change below goes through sed -i, which
    # writes a new file and leaves the pristine one alone.
    cp -Rl "$scratch/pristine" "$copy"
}

# expect_pass NAME / expect_fail NAME TEXT: run the check on the copy.
expect_pass() {
    if ! sh "$script" check "$copy" >"$copy.out" 2>&1; then
        echo "FAIL $1: the check refused it"
        sed 's/^/    /' "$copy.out"
        failures=$((failures + 1))
    else
        echo "ok   $1"
    fi
}
expect_fail() {
    if sh "$script" check "$copy" >"$copy.out" 2>&1; then
        echo "FAIL $1: the check accepted it"
        failures=$((failures + 1))
    elif ! grep -qF -- "$2" "$copy.out"; then
        echo "FAIL $1: the check failed without saying \"$2\""
        sed 's/^/    /' "$copy.out"
        failures=$((failures + 1))
    else
        echo "ok   $1"
    fi
}

# A tagged line of the tree: its file and line number.
first_tag=$(cd "$scratch/pristine" && grep -rn '^[[:space:]]*// Deliberate: .*\.$' src | head -n 1)
tag_file=$(printf '%s' "$first_tag" | cut -d: -f1)
tag_line=$(printf '%s' "$first_tag" | cut -d: -f2)
[ -n "$tag_file" ] || { echo "no tagged comment in $root/src"; exit 1; }

# The first test named in the list of tagged comments.
listed_test=$(awk '/^## Tagged in the sources/ { inside = 1; next }
    /^## / { inside = 0 }
    inside && /^\| `src\// { n = split($0, cell, "|"); print cell[n - 1]; exit }' \
    "$scratch/pristine/docs/deliberate.md" | grep -o '`[^`]*`' | head -n 1 | tr -d '`')
[ -n "$listed_test" ] || { echo "no test named in the list"; exit 1; }
suite=${listed_test%%.*}
name=${listed_test#*.}

fresh pristine-copy
expect_pass "the tree as it is"

fresh new-tag
sed -i "${tag_line}i\\// Deliberate: a behaviour nobody has listed yet." "$copy/$tag_file"
expect_fail "a tagged comment missing from the list" "missing from docs/deliberate.md"
expect_fail "the failure says how to add one" "scripts/deliberate rows"

fresh removed-tag
sed -i "${tag_line}d" "$copy/$tag_file"
expect_fail "a listed comment that no longer exists" "no longer exists"

fresh reworded-tag
sed -i "${tag_line}s/Deliberate: /Deliberate: reworded, /" "$copy/$tag_file"
expect_fail "a reworded tag" "no longer exists"

fresh unknown-test
sed -i "s/\`$listed_test\`/\`$suite.NoSuchTestAnywhere\`/" "$copy/docs/deliberate.md"
expect_fail "a listed test that does not exist" "$suite.NoSuchTestAnywhere is not in tests/"

fresh renamed-test
grep -rl "$name" "$copy/tests" | while IFS= read -r file; do
    sed -i "s/\\b$name\\b/${name}Renamed/g" "$file"
done
expect_fail "a listed test renamed in the tests" "$listed_test is not in tests/"

fresh no-test
sed -i "s/| \`$listed_test\`[^|]*|\$/| |/" "$copy/docs/deliberate.md"
expect_fail "a row without a test" "no test named"

fresh safety-file
sed -i '/^## Safety rules/,$ s|`src/libqxcommon-util/dirtree.cpp`|`src/libqxcommon-util/no_such_file.cpp`|' \
    "$copy/docs/deliberate.md"
expect_fail "a safety rule in a file that does not exist" "no_such_file.cpp does not exist"

fresh safety-test
sed -i '/^## Safety rules/,$ s|`QxRrmdir\.|`QxRrmdirGone.|' "$copy/docs/deliberate.md"
expect_fail "a safety rule pinned by a test that does not exist" "is not in tests/"

fresh no-full-stop
sed -i -e '$a // Deliberate: a sentence that never ends' -e '$a int after_the_tag;' "$copy/$tag_file"
expect_fail "a tag without its full stop" "must end with a full stop"

# A formatter that wraps a long tag does not change what it says.
fresh wrapped-tag
sed -i "${tag_line}s|^\\([[:space:]]*\\)// Deliberate: \\([^ ]*\\) \\(.*\\)\$|\\1// Deliberate: \\2\\n\\1// \\3|" \
    "$copy/$tag_file"
if [ "$(grep -c 'Deliberate: [^ ]*$' "$copy/$tag_file")" -eq 0 ]; then
    echo "FAIL could not wrap the tag for the test"
    failures=$((failures + 1))
fi
expect_pass "a tag wrapped over two lines"

[ "$failures" -eq 0 ] || { echo "$failures cases went wrong"; exit 1; }
rm -rf "$scratch"
echo "the deliberate-behaviour check catches every kind of drift"
