#!/usr/bin/env bash
# Installs a build into a temporary prefix and builds two programs against the
# installed tree alone: a C program with pkg-config and a C++ program with
# find_package(plc_driver). Both must build and run.
#
#   check_install.sh BUILD_DIR
set -euo pipefail

[[ $# -eq 1 ]] || { echo "usage: $0 BUILD_DIR" >&2; exit 2; }
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=$(realpath "$1")
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
prefix=$tmp/prefix

echo "--- cmake --install $build --prefix <tmp>/prefix"
cmake --install "$build" --prefix "$prefix" >"$tmp/install.log" || { cat "$tmp/install.log"; exit 1; }
pc=$(find "$prefix" -name plc_driver.pc)
[[ -n "$pc" ]] || { echo "no plc_driver.pc installed"; exit 1; }
libdir=$(dirname "$(dirname "$pc")")
for f in "$libdir/libplc_driver.so" "$libdir/libplc_driver.so.1" "$prefix/include/plc_driver_version.h"; do
    [[ -e "$f" ]] || { echo "missing: ${f#"$prefix"/}"; exit 1; }
done

echo "--- C, pkg-config"
export PKG_CONFIG_PATH=$(dirname "$pc")
cc -std=c99 -Wall -Wextra -pedantic -Werror "$root/tests/install/consumer.c" \
    $(pkg-config --cflags --libs plc_driver) -o "$tmp/c-consumer"
LD_LIBRARY_PATH=$libdir "$tmp/c-consumer"

echo "--- C++, find_package(plc_driver)"
cmake -S "$root/tests/install" -B "$tmp/cxx" -DCMAKE_PREFIX_PATH="$prefix" >"$tmp/cxx.log" ||
    { cat "$tmp/cxx.log"; exit 1; }
cmake --build "$tmp/cxx" >>"$tmp/cxx.log" 2>&1 || { cat "$tmp/cxx.log"; exit 1; }
"$tmp/cxx/cxx-consumer"
echo "ok: the installed tree builds and runs C and C++ consumers"
