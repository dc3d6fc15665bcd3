#!/usr/bin/env bash
# fuzz/long_run.sh [RUNS]: every fuzz target for RUNS executions (default
# 10,000,000) under AddressSanitizer and UndefinedBehaviorSanitizer, each from
# its seed corpus and what earlier runs added (build-fuzz/corpus-work); prints
# per target the executions, the coverage reached and the findings. The figures
# in the README come from this script.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
runs=${1:-10000000}
start=$(date +%s)
bash "$here/run.sh" 0 "$runs"
echo "($(( $(date +%s) - start )) s in all)"
