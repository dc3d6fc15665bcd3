#!/usr/bin/env bash
# Runs the C example host against plc-sim, both inside a private network
# namespace (its own loopback, and an eth0 for the panel's address): nothing
# reaches a real network.
#
#   run.sh C_HOST PLC_SIM [EMULATOR...]
#
# EMULATOR runs the two programs when they are built for another machine (the
# panel's ARM build under qemu-arm). The exit status is the example's.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
if [[ "${1:-}" != "--inside" ]]; then
    [[ $# -ge 2 ]] || { echo "usage: $0 C_HOST PLC_SIM [EMULATOR...]" >&2; exit 64; }
    exec "$here/../../scripts/in_netns.sh" eth0 bash "$0" --inside "$@"
fi
shift
host=$(realpath "$1") sim=$(realpath "$2")
shift 2
emulator=("$@")

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

# The driver looks for its tag list, and keeps its session file, in the
# working directory.
cp "$here/PLC7F000001_1.csv" "$work/"
"${emulator[@]}" "$sim" --address 127.0.0.1 --live --tags "$work/PLC7F000001_1.csv" \
    --set OperatorName=Bob --set CycleTime=250 --set EnergyTotal=5000000000 >"$work/plc-sim.log" 2>&1 &
sim_pid=$!
for ((i = 0; i < 400; ++i)); do
    grep -q 'listening on' "$work/plc-sim.log" && break
    kill -0 "$sim_pid" 2>/dev/null || { cat "$work/plc-sim.log" >&2; exit 1; }
    sleep 0.05
done

cd "$work"
"${emulator[@]}" "$host" 127.0.0.1 1
