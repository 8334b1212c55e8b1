#!/bin/sh
# Makes the Debian packages of this tree, installs them into the system it
# runs on with apt-get, and builds the README's first program against the
# installed copy twice, once through pkg-config and once through CMake's
# find_package, then runs both from the top of the tree and compares what
# they print with the README. Run from the top of the tree, as root, in a
# system that may be changed: scripts/fresh-root runs it in its throwaway
# Debian root after the README's two commands.
# Usage: check_installed_packages.sh --into-this-system [scratch-dir]
set -eu
[ "${1:-}" = --into-this-system ] || {
    echo "usage: check_installed_packages.sh --into-this-system [scratch-dir]" >&2
    echo "(it installs packages into the running system)" >&2
    exit 2
}
scratch=$(realpath -m "${2:-build/installed-packages}")
readme=$(pwd)/README.md
rm -rf "$scratch"
mkdir -p "$scratch"

echo "== the packages, made as the README says"
cmake --preset package > "$scratch/package.log"
cmake --build --preset package >> "$scratch/package.log"
cpack -G DEB --config build/package/CPackConfig.cmake -B "$scratch/packages" >> "$scratch/package.log"
ls "$scratch"/packages/*.deb
DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
    -o Dpkg::Use-Pty=0 "$scratch"/packages/*.deb
dpkg-query -W libqxcommon-util0 libqxcommon-util-dev qxutil

section() {
    # The first fenced block of the given language in "A first program".
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

echo "== the README's first program, through pkg-config"
# shellcheck disable=SC2046
cc -std=c11 -Wall -Wextra -Werror "$scratch/first.c" -o "$scratch/first-pkg-config" \
    $(pkg-config --cflags --libs qxcommon-util)

echo "== the README's first program, through find_package"
mkdir -p "$scratch/cmake-project"
cp "$scratch/first.c" "$scratch/cmake-project/first.c"
cat > "$scratch/cmake-project/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.22)
project(first LANGUAGES C)
find_package(qxcommon-util 0.11 REQUIRED)
add_executable(first first.c)
target_link_libraries(first PRIVATE qxcommon-util::qxcommon-util)
CMAKE
cmake -S "$scratch/cmake-project" -B "$scratch/cmake-build" -G Ninja > "$scratch/cmake.log"
cmake --build "$scratch/cmake-build" >> "$scratch/cmake.log"

failed=0
for program in "$scratch/first-pkg-config" "$scratch/cmake-build/first"; do
    # The installed library, not one of a build tree (with a merged /usr,
    # the loader may name it through /lib).
    ldd "$program" | grep -Eq "libqxcommon-util.so.0 => (/usr)?/lib/[^ ]*/libqxcommon-util.so.0 " || {
        echo "$program does not load the installed library:"
        ldd "$program"
        failed=1
    }
    "$program" > "$scratch/actual"
    if diff -u "$scratch/expected" "$scratch/actual"; then
        echo "$(basename "$program"): prints what the README says"
    else
        failed=1
    fi
done
echo "== the installed qxutil"
printf qx | qxutil encode hex | grep -qx 7178 || { echo "qxutil encode hex of qx does not print 7178"; failed=1; }
man -w qxutil > /dev/null 2>&1 || [ -f /usr/share/man/man1/qxutil.1.gz ] || {
    echo "no qxutil(1) installed"
    failed=1
}
[ "$failed" -eq 0 ] || exit 1
echo "the installed packages build and run the README's first program both ways"
