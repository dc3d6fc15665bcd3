#!/usr/bin/env bash
# fuzz/run.sh [SECONDS] [RUNS]: builds the fuzz targets with clang
# (AddressSanitizer and UndefinedBehaviorSanitizer on, in build-fuzz) and runs
# each one, starting from its seed corpus in fuzz/corpus/<target>: for SECONDS
# in all (default 60, shared out among the targets), or, with RUNS, for RUNS
# executions each. New inputs go to build-fuzz/corpus-work/<target>, crashes to
# build-fuzz/artifacts, each target's progress to build-fuzz/logs/<target>.log.
# Prints one line per target (executions, coverage, findings) and exits
# non-zero when a fuzzer finds a fault.
set -euo pipefail

seconds=${1:-60}
runs=${2:-}
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/.." && pwd)
build="$root/build-fuzz"
targets=(tag_list encap connection_manager connected_reply resolve_reply read_reply write_reply)

if [ ! -f "$build/CMakeCache.txt" ]; then
  CC=clang CXX=clang++ cmake -S "$root" -B "$build" -DPLC_BUILD_FUZZ=ON \
    -DPLC_BUILD_TESTS=OFF -DPLC_BUILD_TOOLS=OFF -DPLC_BUILD_BENCH=OFF >/dev/null
fi
cmake --build "$build" -j2 --target "${targets[@]/%/_fuzz}" >/dev/null

mkdir -p "$build/artifacts" "$build/logs"
per_target=$(( seconds / ${#targets[@]} > 0 ? seconds / ${#targets[@]} : 1 ))
failed=0
for t in "${targets[@]}"; do
  work="$build/corpus-work/$t"
  log="$build/logs/$t.log"
  mkdir -p "$work"
  limit=(-max_total_time="$per_target")
  [ -n "$runs" ] && limit=(-runs="$runs")
  extra=()
  # The tag list target: its dictionary, and the refusal messages of rejected
  # lists kept off stdout.
  [ "$t" = tag_list ] && extra=(-dict="$here/tag_list.dict" -max_len=8192 -close_fd_mask=1)
  rc=0
  "$build/fuzz/${t}_fuzz" "$work" "$here/corpus/$t" "${limit[@]}" "${extra[@]}" \
    -print_final_stats=1 -artifact_prefix="$build/artifacts/${t}-" >"$log" 2>&1 || rc=$?
  execs=$(grep -o 'number_of_executed_units: [0-9]*' "$log" | grep -o '[0-9]*$' || echo 0)
  cov=$(grep -o 'cov: [0-9]*' "$log" | tail -n 1 | grep -o '[0-9]*$' || echo 0)
  if [ "$rc" -eq 0 ]; then
    printf '%-20s %12s executions, coverage %5s, no findings\n' "$t" "$execs" "$cov"
  else
    printf '%-20s FAILED (exit %s) after %s executions; last lines of %s:\n' "$t" "$rc" "$execs" "$log"
    tail -n 30 "$log"
    failed=1
  fi
done
exit $failed
