#!/usr/bin/env bash
# fuzz/run.sh [SECONDS]: builds the fuzz targets with clang in build-fuzz and
# runs the tag list fuzzer for SECONDS (default 60), starting from the seed
# corpus in fuzz/corpus. New inputs go to build-fuzz/corpus-work, crashes to
# build-fuzz/artifacts. Exits non-zero when the fuzzer finds a fault.
set -euo pipefail

seconds=${1:-60}
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/.." && pwd)
build="$root/build-fuzz"

if [ ! -f "$build/CMakeCache.txt" ]; then
  CC=clang CXX=clang++ cmake -S "$root" -B "$build" -DPLC_BUILD_FUZZ=ON \
    -DPLC_BUILD_TESTS=OFF -DPLC_BUILD_TOOLS=OFF -DPLC_BUILD_BENCH=OFF
fi
cmake --build "$build" --target tag_list_fuzz -j2

mkdir -p "$build/corpus-work" "$build/artifacts"
# -close_fd_mask=1: the refusal messages of rejected lists would flood stdout.
"$build/fuzz/tag_list_fuzz" "$build/corpus-work" "$here/corpus" \
  -dict="$here/tag_list.dict" -max_total_time="$seconds" -max_len=8192 \
  -close_fd_mask=1 -print_final_stats=1 -artifact_prefix="$build/artifacts/"
