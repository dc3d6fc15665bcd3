#!/usr/bin/env bash
# Checks that a shared library exports exactly the symbols the global section
# of its linker version script lists: nothing missing, nothing extra.
#
# usage: check_exports.sh LIBRARY VERSION_SCRIPT [NM]
set -euo pipefail

if [[ $# -lt 2 ]]; then
    echo "usage: $0 LIBRARY VERSION_SCRIPT [NM]" >&2
    exit 2
fi
lib=$1
map=$2
nm_tool=${3:-nm}
# CMake passes an empty string when it found no nm of its own.
[[ -n "$nm_tool" ]] || nm_tool=nm

if [[ ! -f "$lib" ]]; then
    echo "FAIL: $lib does not exist (build the plc_driver target first)"
    exit 1
fi
if [[ ! -f "$map" ]]; then
    echo "FAIL: version script $map does not exist"
    exit 1
fi

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

# Names in the global: sections of the version script. Comments are dropped,
# then the script is cut into tokens; version node names (the word before "{")
# and everything under local: are not exported names.
sed -e 's|#.*$||' "$map" \
    | tr '\n' ' ' \
    | sed -e 's|/\*[^*]*\*\+\([^/*][^*]*\*\+\)*/| |g' \
          -e 's/[{};]/ & /g' -e 's/global:/ global: /g' -e 's/local:/ local: /g' \
    | tr -s ' \t' '\n' \
    | awk '
        $0 == "" { next }
        $0 == "global:" { section = "global"; next }
        $0 == "local:" { section = "local"; next }
        $0 == "{" { section = "none"; next }
        $0 == "}" { section = "none"; next }
        $0 == ";" { next }
        section == "global" { print }
      ' \
    | sort -u >"$tmp/listed"

if grep -q '[*?[]' "$tmp/listed"; then
    echo "FAIL: wildcard patterns in the global section are not supported by this check:"
    grep '[*?[]' "$tmp/listed" | sed 's/^/    /'
    exit 1
fi

# Defined dynamic symbols, without the version suffix. Type A entries are the
# version nodes themselves, not code or data.
if ! "$nm_tool" -D --defined-only "$lib" >"$tmp/nm.out" 2>"$tmp/nm.err"; then
    echo "FAIL: $nm_tool -D --defined-only $lib failed:"
    sed 's/^/    /' "$tmp/nm.err"
    exit 1
fi
awk 'NF >= 3 && $2 != "A" { sub(/@.*/, "", $3); print $3 }' "$tmp/nm.out" \
    | sort -u >"$tmp/exported"
awk 'NF >= 3 && $2 != "A" && $2 !~ /^[TtWwi]$/ { sub(/@.*/, "", $3); print $3 }' "$tmp/nm.out" \
    | sort -u >"$tmp/data"

comm -23 "$tmp/listed" "$tmp/exported" >"$tmp/missing"
comm -13 "$tmp/listed" "$tmp/exported" >"$tmp/extra"

listed_count=$(wc -l <"$tmp/listed")
exported_count=$(wc -l <"$tmp/exported")
echo "library:  $lib"
echo "map:      $map"
echo "listed:   $listed_count symbols, exported: $exported_count symbols"

status=0
if [[ -s "$tmp/missing" ]]; then
    echo
    echo "MISSING ($(wc -l <"$tmp/missing")): listed in the version script but not defined and exported:"
    sed 's/^/  - /' "$tmp/missing"
    status=1
fi
if [[ -s "$tmp/extra" ]]; then
    echo
    echo "EXTRA ($(wc -l <"$tmp/extra")): exported but not listed in the version script:"
    while read -r sym; do
        if grep -qxF "$sym" "$tmp/data"; then
            echo "  + $sym   (data)"
        else
            echo "  + $sym"
        fi
    done <"$tmp/extra"
    status=1
fi
if [[ -z "$(comm -12 "$tmp/listed" "$tmp/data")" ]]; then
    :
else
    echo
    echo "NOTE: listed names exported as data, not functions:"
    comm -12 "$tmp/listed" "$tmp/data" | sed 's/^/  * /'
    status=1
fi

if [[ $status -eq 0 ]]; then
    echo "OK: the exported symbols match the version script exactly"
else
    echo
    echo "FAIL: exported symbols differ from the version script"
fi
exit $status
