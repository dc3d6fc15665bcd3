#!/usr/bin/env bash
# The main job: builds the driver, the controller simulator and the host tool,
# then shows the panel's everyday work against a live simulated controller:
# plc-host polls variables that change, writes new values, and the next poll
# shows them. Everything runs inside a private network namespace (unshare -rn)
# with its own loopback and an eth0, from which the driver takes the panel's
# address; nothing reaches any real network.
#
# usage: scripts/demo.sh [--polls N] [--interval MS]
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${PLC_DEMO_BUILD_DIR:-$root/build-demo}
polls=6
interval=500
while [[ $# -gt 0 ]]; do
    case "$1" in
    --polls) polls=$2; shift 2 ;;
    --interval) interval=$2; shift 2 ;;
    --inside) inside=1; shift ;;
    *) echo "usage: $0 [--polls N] [--interval MS]" >&2; exit 64 ;;
    esac
done

# ------------------------------------------------------------------ outside
if [[ -z "${inside:-}" ]]; then
    source "$root/scripts/common.sh"
    ensure_packages cmake g++ make iproute2 || exit 1

    cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DPLC_BUILD_TESTS=OFF -DPLC_BUILD_BENCH=OFF -DPLC_BUILD_TOOLS=ON >/dev/null
    cmake --build "$build" -j2
    exec "$root/scripts/in_netns.sh" eth0 bash "$0" --inside --polls "$polls" --interval "$interval"
fi

# ------------------------------------------------------------------ inside
work=$(mktemp -d)
sim_pid=
cleanup() {
    if [[ -n "$sim_pid" ]]; then
        kill "$sim_pid" 2>/dev/null || true
        wait "$sim_pid" 2>/dev/null || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT

# The driver opens its tag list, PLC<address in hex>_<device>.csv, in the
# working directory, and keeps its session file there too.
cp "$root/examples/PLC7F000001_1.csv" "$work/"

say() { printf '\n=== %s\n' "$*"; }

sim_args=(--address 127.0.0.1 --live --tags "$work/PLC7F000001_1.csv"
    --set OperatorName=Bob --set 'SetPoints=15' --set CycleTime=1234.5)
say "plc-sim ${sim_args[*]}"
"$build/sim/plc-sim" "${sim_args[@]}" >"$work/plc-sim.log" 2>&1 &
sim_pid=$!
for ((i = 0; i < 200; ++i)); do
    grep -q 'listening on' "$work/plc-sim.log" && break
    kill -0 "$sim_pid" 2>/dev/null || { cat "$work/plc-sim.log" >&2; exit 1; }
    sleep 0.05
done

host() {
    echo "\$ plc-host $*"
    "$build/tools/plc-host" --controller 127.0.0.1 --device 1 --dir "$work" --quiet "$@"
}
watch=(LiveCounter LiveSine LiveToggle MachineState OperatorName 'SetPoints[0..3]' CycleTime
    ShiftStart StatusByte)

say "polling: LiveCounter, LiveSine and LiveToggle change on the controller"
host poll "${watch[@]}" --interval "$interval" --times "$polls"

say "writing from the panel"
host write MachineState 1
host write OperatorName Alice
host write 'SetPoints[0]' 10 20 30 40
host --verify write ShiftStart 06:30

say "polling again: the values written"
host poll "${watch[@]}" --interval "$interval" --times 2

say "one variable, read by itself, as JSON"
host --json read 'SetPoints[0]' 4
