#!/usr/bin/env bash
# The everyday poll and its growth, measured the way the panel pays for it.
#
# Builds (RelWithDebInfo, the flags of the shipped library) the native tree
# build-bench (libplc_driver.so, bench_poll, poll-replay, plc-sim, the qemu
# plugin) and the ARM tree build-bench-arm (libplc_driver.so, bench_poll), then,
# inside a private network namespace (scripts/in_netns.sh: lo and an eth0):
#
#  1. records plc-sim's replies to a bring-up and one poll of 100 mixed records
#     (poll-replay --record between the driver and plc-sim);
#  2. times the prepared poll through wk_OMRON_plc_read against poll-replay,
#     and in the same run the floor: a bare client loop sending the same
#     request bytes to the same server; then the same poll against plc-sim;
#  3. runs every group of counted regions (bench_poll count GROUP) natively
#     (wall time, heap allocations, exchanges counted by plc-sim), under strace
#     (system calls), under callgrind (x86 instructions) and under qemu-arm with
#     bench/insn_count_plugin.c (ARM instructions and system calls);
#  4. prints the tables. Raw outputs stay in $PLC_BENCH_OUT (default
#     build-bench/poll-bench-out), callgrind dumps included.
#
# usage: bench/run_poll_bench.sh [--polls N] [--rounds R] [--no-arm] [--no-callgrind]
#   --polls N     polls per timed round (default 2000)
#   --rounds R    timed rounds, driver and floor in turn (default 9)
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${PLC_BENCH_BUILD_DIR:-$root/build-bench}
arm_build=${PLC_BENCH_ARM_BUILD_DIR:-$root/build-bench-arm}
out=${PLC_BENCH_OUT:-$build/poll-bench-out}

polls=2000
rounds=9
arm=1
callgrind=1
args=("$@")
inside=
while [[ $# -gt 0 ]]; do
    case "$1" in
    --inside) inside=1; shift ;;
    --polls) polls=$2; shift 2 ;;
    --rounds) rounds=$2; shift 2 ;;
    --no-arm) arm=; shift ;;
    --no-callgrind) callgrind=; shift ;;
    *) echo "usage: $0 [--polls N] [--rounds R] [--no-arm] [--no-callgrind]" >&2; exit 2 ;;
    esac
done

# ------------------------------------------------------------------ outside
if [[ -z "$inside" ]]; then
    configure() { # DIR CMAKE_ARGS...
        local dir=$1
        shift
        [[ -f "$dir/CMakeCache.txt" ]] || cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
            -DPLC_BUILD_TESTS=OFF "$@" >/dev/null
    }
    configure "$build"
    cmake --build "$build" -j2 --target plc_driver bench_poll poll-replay plc-sim insn_count_plugin \
        >/dev/null
    if [[ -n "$arm" ]]; then
        if ! command -v qemu-arm >/dev/null || ! command -v arm-linux-gnueabi-g++ >/dev/null; then
            echo "no qemu-arm or arm-linux-gnueabi-g++: the ARM counts are skipped" >&2
            args+=(--no-arm)
        else
            configure "$arm_build" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/arm-linux-gnueabi.cmake" \
                -DPLC_BUILD_TOOLS=OFF
            cmake --build "$arm_build" -j2 --target plc_driver bench_poll >/dev/null
        fi
    fi
    if [[ -n "$callgrind" ]] && ! command -v valgrind >/dev/null; then
        echo "no valgrind: the x86 instruction counts are skipped" >&2
        args+=(--no-callgrind)
    fi
    mkdir -p "$out"
    exec "$root/scripts/in_netns.sh" eth0 bash "${BASH_SOURCE[0]}" --inside "${args[@]}"
fi

# ------------------------------------------------------------------ inside
bench=$build/bench/bench_poll
arm_bench=$arm_build/bench/bench_poll
plugin=$build/bench/libinsn_count_plugin.so
# Lazy binding would put the dynamic linker's first-call work into the regions.
export LD_BIND_NOW=1

base=/dev/shm
[[ -d "$base" && -w "$base" ]] || base=${TMPDIR:-/tmp}
work=$(mktemp -d "$base/plc_poll_bench.XXXXXX")
pids=()
stop_servers() {
    local p
    for p in "${pids[@]}"; do
        kill "$p" 2>/dev/null || true
        wait "$p" 2>/dev/null || true
    done
    pids=()
}
trap 'stop_servers; rm -rf "$work"' EXIT
cd "$work"

cp "$root/bench/poll_tags.csv" PLC7F000001_1.csv
"$bench" lists "$work"
sets=()
while IFS= read -r set; do sets+=(--set "$set"); done < <("$bench" sim-sets)

# start LOG PROGRAM ARGS...: waits for the server's listening line.
start() {
    local log=$1
    shift
    : >"$log" # a line left by an earlier run must not pass for this one's
    "$@" >"$log" 2>&1 &
    pids+=($!)
    for ((i = 0; i < 200; ++i)); do
        grep -q 'listening on' "$log" && return 0
        kill -0 "${pids[-1]}" 2>/dev/null || break
        sleep 0.05
    done
    echo "$1 did not start:" >&2
    cat "$log" >&2
    exit 1
}
sim() { # PORT [options]
    local port=$1
    shift
    start "$out/plc-sim-$port.log" "$build/sim/plc-sim" --port "$port" --tags PLC7F000001_1.csv \
        --tags PLC7F000001_2.csv "${sets[@]}" "$@"
}
die() {
    echo "$1 failed; the driver said:" >&2
    tail -n 20 driver.log >&2 || true
    exit 1
}

echo "== machine: $(nproc) CPUs, load $(cut -d' ' -f1-3 /proc/loadavg); $(uname -r)"

# 1. The recording of plc-sim's replies.
sim 44819
start "$out/record.log" "$build/bench/poll-replay" --record "$out/recording.bin" --upstream 44819
"$bench" record || die "the recorded poll"
wait "${pids[-1]}" 2>/dev/null || true
stop_servers

# 2. Wall time: the driver and the floor against poll-replay, then the driver
# against plc-sim (values checked in both).
echo
echo "== prepared poll of 100 mixed records against poll-replay, and the floor"
start "$out/replay.log" "$build/bench/poll-replay" --replay "$out/recording.bin"
"$bench" timed --floor "$out/recording.bin" --polls "$polls" --rounds "$rounds" >"$out/timed.txt" ||
    die "the timed polls"
cat "$out/timed.txt"
stop_servers
echo
echo "== the same poll against plc-sim (values checked)"
sim 44818
"$bench" timed --polls "$((polls / 4))" --rounds 3 >"$out/timed-sim.txt" ||
    die "the polls against plc-sim"
cat "$out/timed-sim.txt"
stop_servers

# 3. The counted regions: one run per group and tool.
groups=(poll records handles sets single taglist)
: >"$out/metrics.txt"
# metric GROUP NAME: "group|id|name|value per op" lines from a run's R lines
# (standard output of bench_poll, here $out/GROUP.NAME.R) and its counts (stdin:
# "id count" lines).
per_op() {
    awk -F'|' -v g="$1" -v m="$2" 'NR == FNR { if ($1 == "R") ops[n++] = $4; next }
        { split($0, a, " "); if (a[1] in ops) printf "%s|%s|%s|%.1f\n", g, a[1], m, a[2] / ops[a[1]] }' "$3" -
}
sim 44818 --stats "$work/stats"
for g in "${groups[@]}"; do
    native_polls=500
    tool_polls=50
    [[ $g == taglist ]] && native_polls=1
    # Wall time, allocations and exchanges.
    "$bench" count "$g" --polls "$native_polls" --reps 5 --stats "$work/stats" \
        >"$out/$g.native.R" || die "count $g"
    awk -F'|' -v g="$g" '$1 == "R" { id = n++; print g "|" id "|label|" $3;
        print g "|" id "|wall|" $5; print g "|" id "|allocs|" $6; print g "|" id "|exch|" $7;
        print g "|" id "|peak|" $8; print g "|" id "|retained|" $9 }' \
        "$out/$g.native.R" >>"$out/metrics.txt"
    # System calls on x86: the lines between a region's markers.
    if command -v strace >/dev/null; then
        strace -f -qq -o "$out/$g.strace" \
            "$bench" count "$g" --polls "$tool_polls" --reps 5 --stats "$work/stats" >"$out/$g.strace.R" ||
            die "count $g under strace"
        awk 'function id_of(line,  k, a) { sub(/\) += -1 EBADF.*/, "", line); k = split(line, a, ", ")
                 return a[k] + 0 }
             /write\(-1, .*-1 EBADF/ { id = id_of($0); n = 0; on = 1; next }
             /write\(-2, .*-1 EBADF/ { if (on && id_of($0) == id) print id, n; on = 0; next }
             on && !/^[0-9]+ +(---|\+\+\+)/ { ++n }' "$out/$g.strace" |
            per_op "$g" sys_x86 "$out/$g.strace.R" >>"$out/metrics.txt"
    fi
    # Instructions on x86: one callgrind dump per region, "r<id>".
    if [[ -n "$callgrind" ]]; then
        rm -f "$out/$g.cg".*
        valgrind --tool=callgrind --instr-atstart=no --callgrind-out-file="$out/$g.cg.%p" \
            "$bench" count "$g" --polls "$tool_polls" --reps 5 --stats "$work/stats" \
            >"$out/$g.cg.R" 2>"$out/$g.cg.log" || die "count $g under callgrind"
        for f in "$out/$g.cg".*.*; do
            [[ $f == *.R || $f == *.log ]] && continue
            awk '/^desc: Trigger: Client Request: r/ { sub(/.*Request: r/, ""); id = $0 }
                 /^totals:/ { if (id != "") print id, $2 }' "$f"
        done | per_op "$g" ir_x86 "$out/$g.cg.R" >>"$out/metrics.txt"
    fi
    # Instructions and system calls on ARM.
    if [[ -n "$arm" ]]; then
        qemu-arm -L /usr/arm-linux-gnueabi -plugin "$plugin,out=$out/$g.arm.txt" \
            "$arm_bench" count "$g" --polls "$tool_polls" --reps 5 --stats "$work/stats" >"$out/$g.arm.R" ||
            die "count $g under qemu-arm"
        awk '$1 == "region" { print $2, $3 }' "$out/$g.arm.txt" |
            per_op "$g" insn_arm "$out/$g.arm.R" >>"$out/metrics.txt"
        awk '$1 == "region" { print $2, $4 }' "$out/$g.arm.txt" |
            per_op "$g" sys_arm "$out/$g.arm.R" >>"$out/metrics.txt"
    fi
done
stop_servers

# 4. The tables.
table() { # GROUP TITLE
    echo
    echo "== $2"
    awk -F'|' -v g="$1" '$1 == g { key = $2; if (!(key in seen)) { seen[key] = 1; order[n++] = key }
            v[key, $3] = $4 }
        function f(k, m, fmt) { return ((k, m) in v) ? sprintf(fmt, v[k, m]) : "-" }
        END {
            if (g == "taglist") {
                printf "%-26s %10s %12s %14s %14s %14s\n", "case", "wall ms", "peak KiB",
                    "retained KiB", "x86 Ir", "ARM insns"
                for (i = 0; i < n; ++i) {
                    k = order[i]; l = v[k, "label"]
                    printf "%-26s %10.1f %12s %14s %14s %14s\n", l, v[k, "wall"] / 1000, f(k, "peak", "%.0f"),
                        f(k, "retained", "%.0f"), f(k, "ir_x86", "%.0f"), f(k, "insn_arm", "%.0f")
                }
                exit
            }
            printf "%-52s %6s %9s %9s %8s %8s %7s %9s\n", "case (per operation)", "exch", "x86 Ir",
                "ARM insn", "sys x86", "sys ARM", "allocs", "wall us"
            for (i = 0; i < n; ++i) {
                k = order[i]
                printf "%-52s %6s %9s %9s %8s %8s %7s %9s\n", v[k, "label"], f(k, "exch", "%.2f"),
                    f(k, "ir_x86", "%.0f"), f(k, "insn_arm", "%.0f"), f(k, "sys_x86", "%.1f"),
                    f(k, "sys_arm", "%.1f"), f(k, "allocs", "%.2f"), f(k, "wall", "%.1f")
            }
        }' "$out/metrics.txt"
}
echo
echo "Counted regions (wall time against plc-sim publishing its counters after"
echo "every message: it is the instructions and system calls that compare)."
table poll "the prepared poll of 100 mixed records, and the first poll of the set"
table records "growth with the records of a prepared poll"
table handles "growth with the resolved variables (a poll of 10 scalars)"
table sets "growth with the alternating request sets (polls of 10 scalars)"
table single "the single read and write (prepared, and a first read)"
table taglist "loading a tag list (first use after wk_plc_init, after 4 warm loads; heap by bench_poll)"
echo
echo "raw outputs: $out"
