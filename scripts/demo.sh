#!/usr/bin/env bash
# Builds the controller simulator and the eip-exchange client, starts the
# simulator on 127.0.0.1 inside a private network namespace (nothing reaches
# any real network) and runs one client conversation against it.
#
# usage: scripts/demo.sh [eip-exchange options and variables]
#   e.g. scripts/demo.sh --reads 5 LiveCounter
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${PLC_DEMO_BUILD_DIR:-$root/build-demo}
port=44818

# ------------------------------------------------------------------ outside
if [[ -z "${PLC_DEMO_IN_NETNS:-}" ]]; then
    needed=(cmake g++ make iproute2)
    missing=()
    for p in "${needed[@]}"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' ||
            missing+=("$p")
    done
    if [[ ${#missing[@]} -gt 0 ]]; then
        if [[ $(id -u) -ne 0 ]]; then
            echo "missing packages: ${missing[*]} (install them, or run as root)" >&2
            exit 1
        fi
        export DEBIAN_FRONTEND=noninteractive
        apt-get update </dev/null
        apt-get install -y --no-install-recommends "${missing[@]}" </dev/null
    fi

    cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DPLC_BUILD_TESTS=OFF -DPLC_BUILD_BENCH=OFF -DPLC_BUILD_TOOLS=ON
    cmake --build "$build" -j2 --target plc-sim eip-exchange
    exec env PLC_DEMO_IN_NETNS=1 unshare -rn bash "$0" "$@"
fi

# ------------------------------------------------------------------ inside
ip link set lo up

sim_args=(--address 127.0.0.1 --port "$port" --live)
tags=$root/examples/PLC7F000001_1.csv
[[ -f "$tags" ]] && sim_args+=(--tags "$tags")

echo "=== plc-sim ${sim_args[*]}"
"$build/sim/plc-sim" "${sim_args[@]}" &
sim_pid=$!
trap 'kill "$sim_pid" 2>/dev/null || true; wait "$sim_pid" 2>/dev/null || true' EXIT

for ((i = 0; i < 200; ++i)); do
    ss -Hltn "sport = :$port" | grep -q LISTEN && break
    kill -0 "$sim_pid" 2>/dev/null || { echo "plc-sim exited" >&2; exit 1; }
    sleep 0.05
done

# Without arguments: a few reads of the animated counter, far enough apart to
# see it move.
args=("$@")
[[ ${#args[@]} -gt 0 ]] || args=(--reads 5 --pause-ms 300 LiveCounter)
echo "=== eip-exchange --host 127.0.0.1 --port $port ${args[*]}"
rc=0
"$build/examples/eip-exchange" --host 127.0.0.1 --port "$port" "${args[@]}" || rc=$?
exit $rc
