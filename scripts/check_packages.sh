#!/usr/bin/env bash
# Makes the packages of a configured and built build directory with cpack and
# checks them: every package is there, the binaries in the Debian packages and
# the panel tarball are stripped, and their debug information is in the dbgsym
# packages and the debug tarball under the matching build id. Prints each
# package with its size, and the library's size stripped and unstripped.
#
#   check_packages.sh BUILD_DIR
set -euo pipefail

[[ $# -eq 1 ]] || { echo "usage: $0 BUILD_DIR" >&2; exit 2; }
build=$(realpath "$1")
out=$build/packages
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
fail() { echo "FAIL: $*"; exit 1; }

rm -rf "$out"
if ! (cd "$build" && cpack) >"$tmp/cpack.log" 2>&1; then
    tail -n 30 "$tmp/cpack.log"
    fail "cpack"
fi
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")
deb=$(cd "$out" && ls libplc-driver_"$version"_*.deb 2>/dev/null) || fail "no libplc-driver package"
arch=${deb##*_}
arch=${arch%.deb}
tools=0
grep -q '^PLC_BUILD_TOOLS:BOOL=ON' "$build/CMakeCache.txt" && tools=1

expected=(libplc-driver_"$version"_"$arch".deb libplc-driver-dbgsym_"$version"_"$arch".ddeb
    plc_driver-"$version"-linux-"$arch".tar.gz plc_driver-"$version"-linux-"$arch"-debug.tar.gz)
[[ $tools -eq 0 ]] || expected+=(plc-driver-tools_"$version"_"$arch".deb
    plc-driver-tools-dbgsym_"$version"_"$arch".ddeb)
for f in "${expected[@]}"; do
    [[ -f "$out/$f" ]] || fail "missing package $f"
done

# The unpacked packages: binaries in deb/ and tgz/, debug information in
# deb/usr/lib/debug and tgz/*/lib/debug.
mkdir -p "$tmp/deb" "$tmp/tgz"
for f in "$out"/*.deb "$out"/*.ddeb; do dpkg-deb -x "$f" "$tmp/deb"; done
for f in "$out"/*.tar.gz; do tar -xzf "$f" -C "$tmp/tgz"; done

build_id() { readelf -n "$1" 2>/dev/null | sed -n 's/.*Build ID: //p'; }
# grep reads to the end: with -q it would stop at the match, readelf would die
# of SIGPIPE writing the rest, and pipefail would turn the match into a miss.
has_debug_info() { readelf -S "$1" 2>/dev/null | grep '\.debug_info' >/dev/null; }
check_binary() { # FILE DEBUG_ROOT
    local id
    id=$(build_id "$1")
    [[ -n "$id" ]] || fail "${1#"$tmp"/}: no build id"
    ! has_debug_info "$1" || fail "${1#"$tmp"/}: not stripped"
    local debug=$2/.build-id/${id:0:2}/${id:2}.debug
    [[ -f "$debug" ]] && has_debug_info "$debug" ||
        fail "${1#"$tmp"/}: no debug information under build id $id"
}
binaries=$(find "$tmp/deb" "$tmp/tgz" -type f \( -name 'libplc_driver.so.*' -o -name plc-host -o -name plc-sim \) \
    -not -path '*/debug/*')
for b in $binaries; do
    case "$b" in
    "$tmp/deb"/*) check_binary "$b" "$tmp/deb/usr/lib/debug" ;;
    *) check_binary "$b" "$(echo "$tmp"/tgz/*/lib/debug)" ;;
    esac
done
count=$(wc -w <<<"$binaries")
[[ $count -ge 2 ]] || fail "expected the library in both the Debian package and the tarball"

for f in "${expected[@]}"; do printf '  %-50s %9d bytes\n' "$f" "$(stat -c %s "$out/$f")"; done
lib=$(find "$tmp/deb" -type f -name 'libplc_driver.so.*' | head -n 1)
printf '  library: %d bytes stripped, %d bytes as built\n' "$(stat -c %s "$lib")" \
    "$(stat -L -c %s "$build/$(basename "$lib")")"
echo "ok: $count binaries stripped, their debug information kept apart"
