#!/bin/sh
# Installs the built library into a scratch prefix, then builds and runs a
# small C consumer twice: once through pkg-config, once through CMake's
# find_package(qxcommon-util).
set -eu
build_dir=$1
consumer_dir=$2
cc=$3
sanitize=${4:-}

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
prefix=$scratch/prefix

cmake --install "$build_dir" --prefix "$prefix" >/dev/null

flags=""
if [ -n "$sanitize" ]; then
    flags="-fsanitize=$sanitize"
fi

pcdir=$(dirname "$(find "$prefix" -name qxcommon-util.pc | head -n 1)")
libdir=$(dirname "$(find "$prefix" -name 'libqxcommon-util.so.0' | head -n 1)")
[ -L "$libdir/libqxcommon-util.so" ] || { echo "no development link libqxcommon-util.so" >&2; exit 1; }
[ -f "$libdir/libqxcommon-util.so.0.11.6" ] || { echo "no libqxcommon-util.so.0.11.6" >&2; exit 1; }

# pkg-config
# shellcheck disable=SC2046
"$cc" -std=c11 -Wall -Wextra -Werror $flags "$consumer_dir/consumer.c" -o "$scratch/by-pkg-config" \
    $(PKG_CONFIG_PATH=$pcdir pkg-config --cflags --libs qxcommon-util)
LD_LIBRARY_PATH=$libdir "$scratch/by-pkg-config" >"$scratch/out1"
grep -qx 'consumer: unknown key' "$scratch/out1"

# CMake package
cmake -S "$consumer_dir" -B "$scratch/cmake-build" -G Ninja \
    -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_COMPILER="$cc" -DCMAKE_C_FLAGS="$flags" >/dev/null
cmake --build "$scratch/cmake-build" >/dev/null
LD_LIBRARY_PATH=$libdir "$scratch/cmake-build/consumer" >"$scratch/out2"
grep -qx 'consumer: unknown key' "$scratch/out2"
echo "2 passed, 0 failed"
