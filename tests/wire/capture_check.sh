#!/usr/bin/env bash
# Checks the driver's bytes on the wire with Wireshark's own EtherNet/IP and CIP
# dissectors: in a private network namespace it starts the simulator on
# 127.0.0.1, captures the loopback interface, runs one client conversation
# (RegisterSession, Forward_Close, Large_Forward_Open, connected requests,
# Forward_Close, UnRegisterSession) and then decodes the capture with tshark:
#   - every TCP segment with payload on port 44818 decodes as EtherNet/IP, and
#     every SendRRData / SendUnitData also as CIP;
#   - no malformed packet, no expert info of severity warning or above;
#   - the client's requests come in the order above, and the connection
#     manager services Forward_Close (0x4E) and Large_Forward_Open (0x5B) are
#     recognised as such, each answered.
#
# usage: capture_check.sh SIMULATOR CLIENT [TAG_LIST.csv] [OUTPUT_DIR]
#        capture_check.sh --analyze CAPTURE.pcap   (only the decoding checks)
# Exit status 0 pass, 1 fail, 77 skipped (no tshark/dumpcap or no namespace;
# with CI=true a missing tool is a failure instead).
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# shellcheck source=decode_checks.sh
source "$here/decode_checks.sh"

port=44818

# ------------------------------------------------------------------ analysis
# expect_bytes N NAME HEX: the N-th request's payload is HEX ('.' any digit).
expect_bytes() {
    local n=$1 name=$2 want=$3
    [[ "${payloads[$n]:-}" =~ ^${want}$ ]] ||
        problem "$name request is ${payloads[$n]:-missing}, not $want"
}

# Decodes $pcap and checks it; exits 1 on any problem.
analyze() {
    check_clean_decode

    # The client's requests, in order, by encapsulation command.
    requests=$(ts -Y "tcp.dstport == $port && enip" -T fields -e enip.command | tr '\n' ' ')
    echo "requests: $requests"
    if ! [[ "$requests" =~ ^0x0065\ 0x006f\ 0x006f\ (0x0070\ ){3,}0x006f\ 0x0066\ $ ]]; then
        problem "request order is not RegisterSession, Forward_Close, Large_Forward_Open," \
            "connected requests, Forward_Close, UnRegisterSession"
    fi

    # The bring-up's bytes, exactly: the client ran with connection serial
    # 0x0102; the session handle (bytes 4 to 7) is the controller's choice.
    mapfile -t payloads < <(ts -Y "tcp.dstport == $port && enip" -T fields -e tcp.payload | tr -d ':')
    local handle='........'
    expect_bytes 0 RegisterSession "6500040000000000000000000000000000000000000000000100""0000"
    expect_bytes 1 Forward_Close "6f002800${handle}0000000000000000000000000000000000000000080002000000""0000b20018004e0220062401""05f702013000""5a01a8c00300""010020022401"
    expect_bytes 2 Large_Forward_Open "6f004400${handle}000000000000000000000000000000000000000000000200""00000000b20034005b0220062401""069a00000033""29009d9d0201""30005a01a8c0""07000000286b""6e00cc07f843""286b6e00cc07""f843a3030100""20022401"

    # Connection manager requests and replies, as the CIP dissector names them.
    cm_requests=$(ts -Y "tcp.dstport == $port && cip.cm.sc" -T fields -e cip.cm.sc | tr '\n' ' ')
    cm_replies=$(ts -Y "tcp.srcport == $port && cip.cm.sc" -T fields -e cip.cm.sc | tr '\n' ' ')
    echo "connection manager requests: $cm_requests replies: $cm_replies"
    [[ "$cm_requests" == "0x4e 0x5b 0x4e " ]] ||
        problem "connection manager requests are not Forward_Close, Large_Forward_Open, Forward_Close"
    [[ "$cm_replies" == "0x4e 0x5b 0x4e " ]] ||
        problem "connection manager replies do not answer Forward_Close, Large_Forward_Open, Forward_Close"
    lfo_ok=$(ts -Y "tcp.srcport == $port && cip.cm.sc == 0x5b && cip.genstat == 0" \
        -T fields -e frame.number)
    [[ -n "$lfo_ok" ]] || problem "no successful Large_Forward_Open reply"
    # The Forward_Close before the open may be refused (no such connection); the
    # one that ends the conversation must succeed.
    last_close_status=$(ts -Y "tcp.srcport == $port && cip.cm.sc == 0x4e" -T fields -e cip.genstat |
        tail -n 1)
    [[ "$last_close_status" == "0x00" ]] ||
        problem "the final Forward_Close was answered with status '$last_close_status', not success"

    # Connected requests: name resolution and reads by handle.
    services=$(ts -Y "tcp.dstport == $port && enip.command == 0x0070" -T fields -e cip.service |
        tr '\n' ' ')
    echo "connected request services: $services"
    [[ "$services" == *0x56* ]] || problem "no resolve request (service 0x56) among the connected requests"

    finish_decode
}

# ------------------------------------------------------------------ arguments
if [[ "${1:-}" == "--analyze" && $# -eq 2 ]]; then
    # Only the decoding checks, on a capture made elsewhere.
    command -v tshark >/dev/null || skip "tshark not installed"
    pcap=$(realpath "$2")
    [[ -s "$pcap" ]] || fail "no capture $pcap"
    analyze
    exit 0
fi
if [[ $# -lt 2 ]]; then
    echo "usage: $0 SIMULATOR CLIENT [TAG_LIST.csv] [OUTPUT_DIR]" >&2
    echo "       $0 --analyze CAPTURE.pcap" >&2
    exit 2
fi
sim=$(realpath "$1")
client=$(realpath "$2")
tags=${3:-}
outdir=${4:-}
[[ -n "$tags" ]] && tags=$(realpath "$tags")
[[ -x "$sim" ]] || fail "simulator $sim not built"
[[ -x "$client" ]] || fail "client $client not built"
[[ -z "$tags" || -f "$tags" ]] || fail "tag list $tags does not exist"

# ------------------------------------------------------------------ outside
# Re-run this script inside a fresh user + network namespace: only its own
# loopback exists there, so nothing can leave the machine and no other test's
# port 44818 gets in the way.
if [[ -z "${PLC_WIRE_IN_NETNS:-}" ]]; then
    for tool in tshark dumpcap unshare ip; do
        command -v "$tool" >/dev/null || skip "$tool not installed"
    done
    unshare -rn true 2>/dev/null || skip "cannot create a network namespace (unshare -rn)"
    if [[ -z "$outdir" ]]; then
        outdir=$(mktemp -d)
        trap 'rm -rf "$outdir"' EXIT
    fi
    mkdir -p "$outdir"
    outdir=$(realpath "$outdir")
    rc=0
    PLC_WIRE_IN_NETNS=1 unshare -rn bash "$0" "$sim" "$client" "$tags" "$outdir" || rc=$?
    exit $rc
fi

# ------------------------------------------------------------------ inside
pcap=$outdir/exchange.pcap
cd "$outdir"
rm -f "$pcap" dumpcap.err sim.out client.out

ip link set lo up

pids=()
cleanup() {
    local p
    for p in "${pids[@]}"; do
        kill "$p" 2>/dev/null || true
    done
    wait 2>/dev/null || true
}
trap cleanup EXIT

dumpcap -i lo -P -f "tcp port $port" -w "$pcap" -q 2>dumpcap.err &
dumpcap_pid=$!
pids+=("$dumpcap_pid")
wait_until "the capture to start" grep -qs "Capturing on" dumpcap.err

sim_args=(--address 127.0.0.1 --port "$port" --live)
[[ -n "$tags" ]] && sim_args+=(--tags "$tags")
"$sim" "${sim_args[@]}" >sim.out 2>&1 &
sim_pid=$!
pids+=("$sim_pid")
listening() { ss -Hltn "sport = :$port" | grep -q LISTEN; }
wait_until "the simulator to listen on 127.0.0.1:$port" listening

echo "--- client"
client_rc=0
"$client" --host 127.0.0.1 --port "$port" --serial 258 --reads 2 LiveCounter >client.out 2>&1 ||
    client_rc=$?
cat client.out

# Let the capture see the end of the conversation before it is stopped.
has_unregister() {
    tshark -r "$pcap" -Y "enip.command == 0x0066" -T fields -e frame.number 2>/dev/null | grep . >/dev/null
}
if [[ $client_rc -eq 0 ]]; then
    wait_until "the UnRegisterSession to reach the capture" has_unregister
fi
kill -INT "$dumpcap_pid"
wait "$dumpcap_pid" || true
kill "$sim_pid" 2>/dev/null || true
wait "$sim_pid" 2>/dev/null || true
pids=()

echo "--- simulator output"
cat sim.out
[[ $client_rc -eq 0 ]] || fail "client exited with status $client_rc"
[[ -s "$pcap" ]] || fail "nothing captured: $(cat dumpcap.err)"

analyze
