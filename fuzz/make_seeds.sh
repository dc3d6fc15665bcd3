#!/usr/bin/env bash
# fuzz/make_seeds.sh BUILD_DIR: records a real conversation of the driver with
# plc-sim (plc-host reads, polls and writes every kind of variable of the
# example tag list) on the loopback of a private network namespace, and cuts
# the replies into the seed corpus of each decoder's fuzz target under
# fuzz/corpus/<target>/. Needs tshark and dumpcap. The seeds are committed;
# run this again when the conversation changes.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/.." && pwd)
build=$(realpath "${1:?usage: make_seeds.sh BUILD_DIR}")

if [[ -z "${PLC_SEEDS_IN_NETNS:-}" ]]; then
    PLC_SEEDS_IN_NETNS=1 exec "$root/scripts/in_netns.sh" eth0 bash "$0" "$build"
fi

work=$(mktemp -d)
pids=()
cleanup() {
    for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
    wait 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT
cd "$work"
cp "$root/examples/PLC7F000001_1.csv" .

dumpcap -i lo -P -f "tcp port 44818" -w capture.pcap -q 2>dumpcap.err &
pids+=($!)
for ((i = 0; i < 200; ++i)); do grep -qs "Capturing on" dumpcap.err && break; sleep 0.05; done
"$build/sim/plc-sim" --address 127.0.0.1 --live --tags PLC7F000001_1.csv >sim.log 2>&1 &
pids+=($!)
for ((i = 0; i < 200; ++i)); do grep -qs "listening on" sim.log && break; sleep 0.05; done

host() { "$build/tools/plc-host" --controller 127.0.0.1 --device 1 --dir "$work" --quiet "$@" >/dev/null || true; }
host poll LiveCounter LiveSine LiveToggle MachineState ProductCount RejectCount StationNo \
    TempOffset StatusByte ControlWord AlarmMask EnergyTotal RunSeconds CycleTime --times 2
host poll OperatorName 'SetPoints[0..3]' --times 1
host read LiveCounter 1
host write MachineState 1
host write OperatorName Alice
sleep 0.5
kill -INT "${pids[0]}"
wait "${pids[0]}" || true

tshark -r capture.pcap -Y "tcp.len > 0" -T fields -e tcp.srcport -e tcp.payload >payloads.txt
python3 - "$here/corpus" payloads.txt <<'PY'
import os, struct, sys
corpus, payloads = sys.argv[1], sys.argv[2]
# Reassemble each direction's stream into whole encapsulation messages.
streams = {True: b"", False: b""}
for line in open(payloads):
    port, _, hexdata = line.strip().partition("\t")
    streams[port == "44818"] += bytes.fromhex(hexdata.replace(":", ""))
def messages(stream):
    out = []
    while len(stream) >= 24:
        length = struct.unpack_from("<H", stream, 2)[0]
        out.append(stream[:24 + length])
        stream = stream[24 + length:]
    return out
requests, replies = messages(streams[False]), messages(streams[True])
def save(target, name, data):
    d = os.path.join(corpus, target)
    os.makedirs(d, exist_ok=True)
    open(os.path.join(d, name), "wb").write(data)
to_conn = 0
for n, (req, rep) in enumerate(zip(requests, replies)):
    save("encap", f"reply_{n:03}", rep)
    command = struct.unpack_from("<H", rep, 0)[0]
    if command == 0x6F and len(rep) > 40:          # connection manager
        mr = rep[40:]
        save("connection_manager", f"reply_{n:03}", mr)
        if mr[0] == 0xDB and len(mr) >= 12:
            to_conn = struct.unpack_from("<I", mr, 8)[0]
    elif command == 0x70 and len(rep) > 46:        # connected
        seq = struct.unpack_from("<H", rep, 44)[0]
        save("connected_reply", f"reply_{n:03}", struct.pack("<IH", to_conn, seq) + rep)
        service, mr = req[46], rep[46:]
        if service == 0x56 and req[49] == 0x6D:     # resolve: byte 0 = names - 1
            save("resolve_reply", f"reply_{n:03}", bytes([max(mr[14] - 1, 0) if len(mr) > 14 else 0]) + mr)
        elif service == 0x56:
            save("write_reply", f"reply_{n:03}", mr)
        elif service == 0x55:
            count = req[52 + 10]
            # The read fuzzer's batch header: count - 1, then (tag, element) pairs.
            head = bytes([count - 1]) + bytes([0, 0] * count)
            save("read_reply", f"reply_{n:03}", head + mr)
print(f"{len(replies)} replies cut into seeds under {corpus}")
PY
