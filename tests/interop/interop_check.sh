#!/usr/bin/env bash
# Checks plc-sim against an EtherNet/IP client written by others for other
# controllers (the npm package st-ethernet-ip) and against Wireshark's
# dissectors: in a private network namespace it captures the loopback and an
# eth0, lets enip_client.js discover the simulator by a UDP broadcast, over
# UDP and TCP, register a session,
# open a connection with Forward_Open, read the Identity object over it and
# close it, and then decodes the capture with tshark (decode_checks.sh of the
# wire check): the client must be content with every answer, and no request
# or reply may be malformed or draw an expert warning.
#
# usage: interop_check.sh SIMULATOR PACKAGE_DIR [OUTPUT_DIR]
#   PACKAGE_DIR  where st-ethernet-ip is (or gets) installed: npm install
#                runs there, outside the namespace, when it is missing
# Exit status 0 pass, 1 fail, 77 skipped (no node/npm/tshark/dumpcap, no
# namespace, the package cannot be installed; with CI=true a failure).
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=../wire/decode_checks.sh
source "$here/../wire/decode_checks.sh"

port=44818
package=st-ethernet-ip@2.7.5

if [[ $# -lt 2 ]]; then
    echo "usage: $0 SIMULATOR PACKAGE_DIR [OUTPUT_DIR]" >&2
    exit 2
fi
sim=$(realpath "$1")
packages=$2
outdir=${3:-}
[[ -x "$sim" ]] || fail "simulator $sim not built"

# ------------------------------------------------------------------ outside
if [[ -z "${PLC_INTEROP_IN_NETNS:-}" ]]; then
    for tool in node npm tshark dumpcap unshare ip ss; do
        command -v "$tool" >/dev/null || skip "$tool not installed"
    done
    unshare -rn true 2>/dev/null || skip "cannot create a network namespace (unshare -rn)"
    mkdir -p "$packages"
    packages=$(realpath "$packages")
    if [[ ! -f "$packages/node_modules/st-ethernet-ip/package.json" ]]; then
        npm install --prefix "$packages" --no-audit --no-fund --loglevel=error "$package" ||
            skip "cannot install $package into $packages"
    fi
    if [[ -z "$outdir" ]]; then
        outdir=$(mktemp -d)
        trap 'rm -rf "$outdir"' EXIT
    fi
    mkdir -p "$outdir"
    outdir=$(realpath "$outdir")
    rc=0
    PLC_INTEROP_IN_NETNS=1 unshare -rn bash "$0" "$sim" "$packages" "$outdir" || rc=$?
    exit $rc
fi

# ------------------------------------------------------------------ inside
pcap=$outdir/interop.pcapng
cd "$outdir"
rm -f "$pcap" dumpcap.err sim.out client.out
# An eth0 (one end of a veth pair, both ends in this namespace) with a
# route for the limited broadcast, where the client's discovery goes.
ip link set lo up
ip link add eth0 type veth peer name eth0-peer
ip addr add 10.233.0.5/24 brd + dev eth0
ip link set eth0 up
ip link set eth0-peer up
ip route add 255.255.255.255/32 dev eth0

pids=()
cleanup() {
    local p
    for p in "${pids[@]}"; do
        kill "$p" 2>/dev/null || true
    done
    wait 2>/dev/null || true
}
trap cleanup EXIT

dumpcap -i lo -i eth0 -f "port $port" -w "$pcap" -q 2>dumpcap.err &
dumpcap_pid=$!
pids+=("$dumpcap_pid")
wait_until "the capture to start" grep -qs "Capturing on" dumpcap.err

"$sim" --address 0.0.0.0 --port "$port" >sim.out 2>&1 &
sim_pid=$!
pids+=("$sim_pid")
listening() { ss -Hltn "sport = :$port" | grep -q LISTEN; }
wait_until "the simulator to listen on port $port" listening

echo "--- client"
client_rc=0
NODE_PATH="$packages/node_modules" node "$here/enip_client.js" 127.0.0.1 "$port" >client.out 2>&1 ||
    client_rc=$?
cat client.out

# Let the capture see the end of the conversation before it is stopped.
has_close_reply() {
    tshark -r "$pcap" -Y "tcp.srcport == $port && cip.cm.sc == 0x4e" -T fields -e frame.number \
        2>/dev/null | grep . >/dev/null
}
[[ $client_rc -ne 0 ]] || wait_until "the Forward_Close reply to reach the capture" has_close_reply
kill -INT "$dumpcap_pid"
wait "$dumpcap_pid" || true
kill "$sim_pid" 2>/dev/null || true
wait "$sim_pid" 2>/dev/null || true
pids=()

[[ $client_rc -eq 0 ]] || fail "the client did not accept the simulator's answers"
[[ -s "$pcap" ]] || fail "nothing captured: $(cat dumpcap.err)"

check_clean_decode
commands=$(ts -Y "enip" -T fields -e enip.command | sort -u | tr '\n' ' ')
echo "encapsulation commands seen: $commands"
for command in 0x0004 0x0063 0x0064 0x0065 0x006f 0x0070; do
    [[ "$commands" == *"$command"* ]] || problem "no command $command in the conversation"
done
[[ -n "$(ts -Y "udp.srcport == $port && enip.command == 0x0063" -T fields -e frame.number)" ]] ||
    problem "no ListIdentity reply over UDP"
[[ -n "$(ts -Y "ip.dst == 255.255.255.255 && enip.command == 0x0063" -T fields -e frame.number)" ]] ||
    problem "no broadcast ListIdentity"
[[ -n "$(ts -Y "tcp.srcport == $port && cip.cm.sc == 0x54 && cip.genstat == 0" -T fields \
    -e frame.number)" ]] || problem "no successful Forward_Open reply"
finish_decode
