# Sourced by the wire checks (capture_check.sh, ../interop/interop_check.sh):
# the helpers they share and the decoding checks that every capture of an
# EtherNet/IP conversation must pass, whoever the client is. The caller sets
# $port (the encapsulation port) and, before decoding, $pcap.

# Exit status 77 is "skipped"; with CI=true a missing tool fails instead.
skip() {
    echo "SKIP: $*"
    if [[ "${CI:-}" == "true" ]]; then
        echo "FAIL: in CI the check must run"
        exit 1
    fi
    exit 77
}
fail() {
    echo "FAIL: $*"
    exit 1
}

errors=0
problem() {
    echo "FAIL: $*"
    errors=$((errors + 1))
}

# tshark must not fail quietly: an empty answer to a filter it could not run
# would read as "nothing wrong".
ts() {
    if ! tshark -r "$pcap" "$@" 2>"$pcap.tshark.err"; then
        grep -v '^Running as user' "$pcap.tshark.err" >&2 || true
        echo "FAIL: tshark $* did not run" >&2
        exit 1
    fi
}

# Waits (bounded) until the command succeeds; these are readiness waits, not
# assertions about how fast anything is.
wait_until() {
    local what=$1
    shift
    local i
    for ((i = 0; i < 200; ++i)); do
        if "$@"; then return 0; fi
        sleep 0.05
    done
    fail "gave up waiting for $what"
}

# Every payload on the port, TCP or UDP, in either direction, decodes as
# EtherNet/IP, every SendRRData / SendUnitData also as CIP; no malformed
# packet, no expert info of severity warning or above. Counts problems.
check_clean_decode() {
    local payload="((tcp.port == $port && tcp.len > 0) || udp.port == $port)"
    echo "--- capture"
    ts -Y "$payload"
    payload_frames=$(ts -Y "$payload" -T fields -e frame.number | wc -l)
    [[ $payload_frames -gt 0 ]] || problem "no payload on port $port"
    local not_enip not_cip malformed expert
    not_enip=$(ts -Y "$payload && !enip" -T fields -e frame.number)
    [[ -z "$not_enip" ]] || problem "frames not decoded as EtherNet/IP: $(tr '\n' ' ' <<<"$not_enip")"
    not_cip=$(ts -Y "(enip.command == 0x006f || enip.command == 0x0070) && !cip" -T fields -e frame.number)
    [[ -z "$not_cip" ]] || problem "SendRRData/SendUnitData frames without CIP: $(tr '\n' ' ' <<<"$not_cip")"
    malformed=$(ts -Y "_ws.malformed" -T fields -e frame.number)
    [[ -z "$malformed" ]] || problem "malformed packets: $(tr '\n' ' ' <<<"$malformed")"
    # 6291456 is the expert severity "Warning"; "Error" lies above it. TCP's
    # sequence analysis (group 33554432, "Sequence") is left out: a segment
    # retransmitted on a loaded machine says nothing about the bytes.
    expert=$(ts -Y "_ws.expert.severity >= 6291456" -T fields -E occurrence=a -E aggregator='|' \
        -e frame.number -e _ws.expert.severity -e _ws.expert.group -e _ws.expert.message |
        awk -F '\t' '{
            n = split($2, severity, "|"); split($3, group, "|"); split($4, message, "|")
            for (i = 1; i <= n; ++i)
                if (severity[i] >= 6291456 && group[i] != 33554432) print $1 "\t" message[i]
        }')
    [[ -z "$expert" ]] || problem "expert infos of warning level or above:
    $expert"
}

# Ends a check: the decoded detail when anything was wrong.
finish_decode() {
    if [[ $errors -ne 0 ]]; then
        echo "--- decoded detail of the conversation"
        ts -O enip,cip,cipcm -Y "(tcp.port == $port && tcp.len > 0) || udp.port == $port" \
            >"$pcap.decoded.txt"
        head -n 400 "$pcap.decoded.txt"
        fail "$errors problem(s) in the capture"
    fi
    echo "PASS: $payload_frames payload frames decode cleanly as EtherNet/IP and CIP"
}
