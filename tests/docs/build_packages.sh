#!/bin/sh
# Builds the Debian packages the way they are meant to be made: a tree of
# its own configured like the `package` preset (optimised, with debugging
# symbols, without tests and examples), then cpack -G DEB. The packaging
# checks inspect what lands in scratch-dir/packages.
# Usage: build_packages.sh source-dir scratch-dir c-compiler c++-compiler
set -eu
source=$1
scratch=$2
cc=$3
cxx=$4
# A umask that leaves files group-writable, as many systems have: the
# permissions in the packages must not depend on it.
umask 002
# The build tree is kept between runs, so that a run after a small change
# builds only what changed; the packages are made afresh each time.
rm -rf "$scratch/packages" "$scratch/build.log"
mkdir -p "$scratch"
log=$scratch/build.log
run() {
    "$@" >> "$log" 2>&1 || {
        cat "$log"
        echo "failed: $*"
        exit 1
    }
}
run cmake -S "$source" -B "$scratch/build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" \
    -DQX_BUILD_TESTS=OFF -DQX_BUILD_EXAMPLES=OFF -DQX_BUILD_TOOLS=ON
run cmake --build "$scratch/build"
# What is compiled for the packages compiles without warnings.
if grep -n 'warning:' "$log"; then
    echo "the package build has warnings"
    exit 1
fi
run cpack -G DEB --config "$scratch/build/CPackConfig.cmake" -B "$scratch/packages"
ls "$scratch/packages"/*.deb "$scratch/packages"/*.ddeb
