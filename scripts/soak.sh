#!/usr/bin/env bash
# Soak: a panel that polls and writes for a long time while its controller
# fails under it, to show that nothing is lost. Inside a private network
# namespace (scripts/in_netns.sh eth0: own loopback, an eth0 for the panel's
# address, nothing reaches a real network) plc-sim serves the tag list
# tests/soak/PLC7F000001_1.csv with the values of tests/soak/initial_values.txt,
# and plc-soak-host loads libplc_driver.so, polls all 100 records every 100 ms
# and writes new values every second. Meanwhile this script kills the
# simulator (SIGKILL or SIGTERM) and starts it again at random times, so that
# it forgets connections, sessions, handles and every value written, and now
# and then freezes it with SIGSTOP for 11 to 40 s: longer than the driver's
# 10 s reply time-out, often longer than two of them. The last 40 s (15 s in
# runs under 5 minutes) stay calm, so that the run ends with the link up.
#
# The host prints a table at the end and exits non-zero on a wrong value, a
# call blocked beyond the bound, memory or descriptors that grew steadily, or a
# fault it did not recover from; so does this script, and also when plc-sim
# died without being told to. Logs stay in $build/soak-logs.
#
# usage: scripts/soak.sh [--minutes N] [--seed N]
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${PLC_SOAK_BUILD_DIR:-$root/build-soak}
minutes=10
seed=$((RANDOM * 32768 + RANDOM))
while [[ $# -gt 0 ]]; do
    case "$1" in
    --minutes) minutes=$2; shift 2 ;;
    --seed) seed=$2; shift 2 ;;
    --inside) inside=1; shift ;;
    *) echo "usage: $0 [--minutes N] [--seed N]" >&2; exit 64 ;;
    esac
done
[[ "$minutes" =~ ^[1-9][0-9]*$ ]] || { echo "$0: --minutes takes a whole number from 1" >&2; exit 64; }
[[ "$seed" =~ ^[0-9]+$ ]] || { echo "$0: --seed takes a number" >&2; exit 64; }

# ------------------------------------------------------------------ outside
if [[ -z "${inside:-}" ]]; then
    source "$root/scripts/common.sh"
    ensure_packages cmake g++ make iproute2 libgtest-dev || exit 1
    cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DPLC_BUILD_TESTS=ON -DPLC_BUILD_BENCH=OFF -DPLC_BUILD_TOOLS=ON >/dev/null
    cmake --build "$build" -j2 --target plc_driver plc-sim plc-soak-host
    exec "$root/scripts/in_netns.sh" eth0 bash "$0" --inside --minutes "$minutes" --seed "$seed"
fi

# ------------------------------------------------------------------ inside
RANDOM=$seed
logs=$build/soak-logs
rm -rf "$logs"
mkdir -p "$logs"
cd "$logs"
# The driver opens PLC<address in hex>_<device>.csv and keeps session_1.dat
# in its working directory.
cp "$root/tests/soak/PLC7F000001_1.csv" .
sim_args=(--address 127.0.0.1 --tags PLC7F000001_1.csv)
while IFS= read -r line; do
    [[ -z "$line" || "$line" == \#* ]] && continue
    sim_args+=(--set "$line")
done <"$root/tests/soak/initial_values.txt"

sim_pid=
host_pid=
sim_stopped=
# shellcheck disable=SC2317  # run by the trap
cleanup() {
    if [[ -n "$host_pid" ]]; then kill "$host_pid" 2>/dev/null || true; fi
    if [[ -n "$sim_pid" ]]; then
        if [[ -n "$sim_stopped" ]]; then kill -CONT "$sim_pid" 2>/dev/null || true; fi
        kill "$sim_pid" 2>/dev/null || true
        wait "$sim_pid" 2>/dev/null || true
    fi
}
trap cleanup EXIT

now_ms() { local t=${EPOCHREALTIME/[.,]/}; echo $((t / 1000)); }
t0=$(now_ms)
say() {
    local e=$(($(now_ms) - t0))
    printf '[soak.sh %5d.%d s] %s\n' $((e / 1000)) $((e % 1000 / 100)) "$*" >&2
}
# Read by the host, which times its recovery from these lines.
event() { printf '%s %s %s\n' "$EPOCHREALTIME" "$1" "$2" >>events; }

start_sim() {
    local before
    before=$(grep -c 'listening on' plc-sim.log 2>/dev/null || true)
    "$build/sim/plc-sim" "${sim_args[@]}" >>plc-sim.log 2>&1 &
    sim_pid=$!
    for ((i = 0; i < 200; ++i)); do
        (($(grep -c 'listening on' plc-sim.log) > before)) && return 0
        kill -0 "$sim_pid" 2>/dev/null || break
        sleep 0.05
    done
    say "plc-sim did not start"; tail -5 plc-sim.log >&2
    exit 1
}

# A random number of milliseconds from $2 to $3 into the variable $1 (not in
# a subshell, which would not advance the seeded sequence), and milliseconds
# as seconds.
random_ms() { printf -v "$1" '%d' $(($2 + (RANDOM * 32768 + RANDOM) % ($3 - $2 + 1))); }
seconds_of() { printf '%d.%03d' $(($1 / 1000)) $(($1 % 1000)); }

: >events
: >plc-sim.log
start_sim
seconds=$((minutes * 60))
sample=$((minutes >= 5 ? 60 : 10))
say "seed $seed, $minutes minute(s), logs in $logs"
"$build/tests/soak/plc-soak-host" --lib "$build/libplc_driver.so" \
    --initial "$root/tests/soak/initial_values.txt" --events events \
    --seconds "$seconds" --sample-seconds "$sample" --seed "$seed" \
    >driver.log 2> >(tee host.txt >&2) &
host_pid=$!

restarts=0 stops=0 unexpected=0 gap=0 away=0 room=0
calm_tail=$((minutes >= 5 ? 40 : 15))
while kill -0 "$host_pid" 2>/dev/null; do
    random_ms gap 8000 30000
    pick=$((RANDOM % 100))
    if ((pick < 70)); then random_ms away 0 3000; else random_ms away 11000 40000; fi
    # No fault may reach into the calm tail: a freeze is cut short, or turned
    # into a restart, where there is no room for it.
    room=$(((seconds - calm_tail) * 1000 - ($(now_ms) - t0) - gap))
    ((room > 3000)) || break
    if ((pick >= 70 && room < 11000)); then
        pick=0
        random_ms away 0 3000
    fi
    ((away < room)) || away=$room
    sleep "$(seconds_of "$gap")"
    if ! kill -0 "$sim_pid" 2>/dev/null; then
        wait "$sim_pid" && status=0 || status=$?
        say "plc-sim exited by itself (status $status); started again"
        unexpected=$((unexpected + 1))
        start_sim
        continue
    fi
    if ((pick < 70)); then
        signal=KILL
        ((pick < 55)) || signal=TERM
        event down "${signal,,}"
        kill -"$signal" "$sim_pid"
        wait "$sim_pid" 2>/dev/null || true
        sleep "$(seconds_of "$away")"
        start_sim
        event up start
        restarts=$((restarts + 1))
        say "plc-sim ended with SIG$signal, started again $(seconds_of "$away") s later"
    else
        event down stop
        kill -STOP "$sim_pid"
        sim_stopped=1
        sleep "$(seconds_of "$away")"
        kill -CONT "$sim_pid"
        sim_stopped=
        event up cont
        stops=$((stops + 1))
        say "plc-sim frozen with SIGSTOP for $(seconds_of "$away") s, then SIGCONT"
    fi
done
say "no more faults; waiting for the host to finish"
wait "$host_pid" && rc=0 || rc=$?
host_pid=
sleep 0.2  # let tee write the last lines of the report
printf '\nsoak.sh: seed %s, %s minute(s): %d restarts, %d freezes, ' \
    "$seed" "$minutes" "$restarts" "$stops" >&2
printf '%d plc-sim exits nobody asked for; host exit status %d\n' "$unexpected" "$rc" >&2
printf 'soak.sh: logs in %s (host.txt, driver.log, plc-sim.log, events)\n' "$logs" >&2
((unexpected == 0)) || rc=1
exit "$rc"
