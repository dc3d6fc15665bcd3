#!/usr/bin/env bash
# Checks that a built library runs on the oldest C library (and C++ runtime)
# the release states: no dynamic symbol may need a newer GLIBC_ (or GLIBCXX_)
# version than given. With the C++ runtime linked in (GLIBCXX_MAX "static"),
# the library must need nothing at all from libstdc++ or libgcc_s.
#
#   check_runtime_versions.sh [--objdump TOOL] LIBRARY GLIBC_MAX GLIBCXX_MAX|static
#
# Prints one verdict line (the newest versions needed) and, on failure, the
# symbols that need too new a version. Exit status 0 ok, 1 too new, 2 usage.
set -euo pipefail

objdump=objdump
if [[ "${1:-}" == "--objdump" ]]; then
    objdump=${2:?--objdump needs a program}
    shift 2
fi
if [[ $# -ne 3 ]]; then
    echo "usage: $0 [--objdump TOOL] LIBRARY GLIBC_MAX GLIBCXX_MAX|static" >&2
    exit 2
fi
lib=$1 glibc_max=$2 glibcxx_max=$3
name=$(basename "$lib")

if ! symbols=$("$objdump" -T "$lib" 2>&1); then
    echo "FAIL: $objdump -T $lib: $symbols"
    exit 1
fi
# The version a symbol needs stands in parentheses on its undefined entry:
#   00000000      DF *UND*  00000000 (GLIBC_2.33) fstat
needs() { { grep -F '*UND*' <<<"$symbols" || true; } | { grep -oE "\(${1}_[0-9.]+\)" || true; } | tr -d '()' | sort -uV; }
newest() { needs "$1" | tail -n 1 | sed "s/^${1}_//"; }
# True when version $1 is newer than version $2.
newer() { [[ "$1" != "$2" && "$(printf '%s\n%s\n' "$1" "$2" | sort -V | tail -n 1)" == "$1" ]]; }

problems=()
glibc=$(newest GLIBC)
glibcxx=$(newest GLIBCXX)
for v in $(needs GLIBC | sed 's/^GLIBC_//'); do
    if newer "$v" "$glibc_max"; then
        problems+=("GLIBC_$v: $(grep -F "(GLIBC_$v)" <<<"$symbols" | awk '{print $NF}' | tr '\n' ' ')")
    fi
done
if [[ "$glibcxx_max" == "static" ]]; then
    runtime=$(grep -oE '\((GLIBCXX|CXXABI|GCC)_[0-9.]+\)' <<<"$symbols" | sort -u | tr -d '()' | tr '\n' ' ' || true)
    [[ -z "$runtime" ]] || problems+=("needs the shared C++ runtime: $runtime")
    needed=$("$objdump" -p "$lib" | awk '$1 == "NEEDED" && $2 ~ /^lib(stdc\+\+|gcc_s)/ {print $2}' | tr '\n' ' ')
    [[ -z "$needed" ]] || problems+=("linked to $needed")
    stated="GLIBC <= $glibc_max, C++ runtime linked in"
    found="GLIBC_${glibc:-none}"
else
    for v in $(needs GLIBCXX | sed 's/^GLIBCXX_//'); do
        if newer "$v" "$glibcxx_max"; then
            problems+=("GLIBCXX_$v: $(grep -F "(GLIBCXX_$v)" <<<"$symbols" | awk '{print $NF}' | tr '\n' ' ')")
        fi
    done
    stated="GLIBC <= $glibc_max, GLIBCXX <= $glibcxx_max"
    found="GLIBC_${glibc:-none}, GLIBCXX_${glibcxx:-none}"
fi

if [[ ${#problems[@]} -eq 0 ]]; then
    echo "ok: $name needs $found ($stated)"
    exit 0
fi
echo "FAIL: $name needs more than stated ($stated):"
printf '  %s\n' "${problems[@]}"
exit 1
