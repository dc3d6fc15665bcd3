#!/usr/bin/env bash
# Builds bench_poll and plc-sim, then measures the everyday poll inside a
# private network namespace (lo up, and an eth0 from which the driver takes the
# panel's address): plc-sim serves bench/poll_tags.csv on 127.0.0.1:44818 with
# the values bench_poll asks for; a first run counts the exchanges per poll
# with plc-sim's counters, a second one times the polls and the floor.
#
# usage: bench/run_poll_bench.sh [--sim-stats] [bench_poll options...]
#   --sim-stats  keep plc-sim's counter file on during the timed polls too
#   e.g.         bench/run_poll_bench.sh --polls 2000 --rounds 7
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${PLC_BENCH_BUILD_DIR:-$root/build-bench}

# ------------------------------------------------------------------ outside
if [[ "${1:-}" != "--inside" ]]; then
    if [[ -f "$build/CMakeCache.txt" ]]; then
        cmake -S "$root" -B "$build" >/dev/null
    else
        cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release >/dev/null
    fi
    cmake --build "$build" -j2 --target bench_poll plc-sim >/dev/null
    exec "$root/scripts/in_netns.sh" eth0 bash "${BASH_SOURCE[0]}" --inside "$@"
fi
shift

# ------------------------------------------------------------------ inside
sim_stats=
args=()
for a in "$@"; do
    if [[ "$a" == "--sim-stats" ]]; then sim_stats=1; else args+=("$a"); fi
done

# A memory-backed directory keeps the simulator's counter file off the disk.
base=/dev/shm
[[ -d "$base" && -w "$base" ]] || base=${TMPDIR:-/tmp}
work=$(mktemp -d "$base/plc_poll_bench.XXXXXX")
sim_pid=
stop_sim() {
    if [[ -n "$sim_pid" ]]; then
        kill "$sim_pid" 2>/dev/null || true
        wait "$sim_pid" 2>/dev/null || true
        sim_pid=
    fi
}
trap 'stop_sim; rm -rf "$work"' EXIT

# The driver opens PLC<address in hex>_<device>.csv in its working directory.
cp "$root/bench/poll_tags.csv" "$work/PLC7F000001_1.csv"
sets=()
while IFS= read -r set; do
    sets+=(--set "$set")
done < <("$build/bench/bench_poll" --sim-sets)

# start_sim [plc-sim options...]
start_sim() {
    "$build/sim/plc-sim" --address 127.0.0.1 --port 44818 --tags "$work/PLC7F000001_1.csv" \
        "${sets[@]}" "$@" >"$work/plc-sim.log" 2>&1 &
    sim_pid=$!
    for ((i = 0; i < 200; ++i)); do
        grep -q 'listening on' "$work/plc-sim.log" && return 0
        kill -0 "$sim_pid" 2>/dev/null || break
        sleep 0.05
    done
    echo "plc-sim did not start:" >&2
    cat "$work/plc-sim.log" >&2
    exit 1
}

# bench [bench_poll options...]: runs in the work dir; shows what the driver
# and the simulator printed when the bench fails.
bench() {
    local status=0
    (cd "$work" && "$build/bench/bench_poll" "$@") || status=$?
    if [[ $status -ne 0 ]]; then
        echo "--- driver output" >&2
        cat "$work/driver.log" >&2 || true
        echo "--- plc-sim output" >&2
        cat "$work/plc-sim.log" >&2
        exit $status
    fi
}

# The simulator rewrites its counter file with every message, before it
# replies; that would sit in every exchange of the timed polls. So
# the exchanges are counted in a run of their own, and the timed run goes
# without the file (unless --sim-stats asks for it).
echo "== exchanges per poll, counted by plc-sim (--stats)"
start_sim --stats "$work/stats"
bench --stats "$work/stats" --count-only --polls 1000
stop_sim

echo
with=without
[[ -n "$sim_stats" ]] && with=with
echo "== timed polls and floor, plc-sim $with --stats;" \
    "$(nproc) CPUs, load $(cut -d' ' -f1-3 /proc/loadavg)"
if [[ -n "$sim_stats" ]]; then
    start_sim --stats "$work/stats"
    args+=(--stats "$work/stats")
else
    start_sim
fi
bench "${args[@]}"
