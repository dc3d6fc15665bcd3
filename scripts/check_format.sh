#!/usr/bin/env bash
# scripts/check_format.sh [--fix]: checks every tracked C and C++ source
# against .clang-format (clang-format --dry-run -Werror); with --fix, formats
# them in place. Exit status 0 when all are formatted.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
command -v clang-format >/dev/null || { echo "clang-format not installed"; exit 1; }
mapfile -t files < <(git ls-files '*.c' '*.cpp' '*.h')
if [[ "${1:-}" == "--fix" ]]; then
    clang-format -i "${files[@]}"
    exit 0
fi
if clang-format --dry-run -Werror "${files[@]}" 2>/tmp/plc_format.$$; then
    echo "${#files[@]} sources formatted"
    rm -f /tmp/plc_format.$$
    exit 0
fi
grep -c 'code should be clang-formatted' /tmp/plc_format.$$ | sed 's/$/ places not formatted/'
grep 'code should be clang-formatted' /tmp/plc_format.$$ | cut -d: -f1 | sort -u | head -n 20
rm -f /tmp/plc_format.$$
exit 1
