#!/usr/bin/env bash
# Runs a program inside a private network namespace (unshare -rn) whose
# interfaces the caller chooses, so that the integration tests own their
# loopback, their controller port 44818 and the panel's eth0 / br0.
#
#   in_netns.sh MODE PROGRAM [ARGS...]
#
# MODE
#   eth0   lo up; eth0 (one end of a veth pair) with 10.231.0.2/24, its peer
#          eth0-peer with 10.231.0.1/24 in the same namespace
#   br0    lo up; no eth0; br0 (a bridge, or a dummy link when bridges are not
#          available) with 10.232.0.7/24
#   none   lo up; neither eth0 nor br0
#
# The program's exit status is passed through; 125 when the namespace cannot
# be set up.
set -euo pipefail

if [[ $# -lt 2 ]]; then
    echo "usage: $0 eth0|br0|none PROGRAM [ARGS...]" >&2
    exit 125
fi

if [[ "$1" != "--inside" ]]; then
    case "$1" in eth0 | br0 | none) ;; *)
        echo "$0: unknown mode '$1'" >&2
        exit 125
        ;;
    esac
    exec unshare -rn "$0" --inside "$@"
fi

# From here on we are inside the new namespace.
mode=$2
shift 2
ip=$(command -v ip || echo /usr/sbin/ip)

setup() {
    "$ip" link set lo up
    case "$mode" in
    eth0)
        "$ip" link add eth0 type veth peer name eth0-peer
        "$ip" addr add 10.231.0.2/24 dev eth0
        "$ip" addr add 10.231.0.1/24 dev eth0-peer
        "$ip" link set eth0 up
        "$ip" link set eth0-peer up
        ;;
    br0)
        if ! "$ip" link add br0 type bridge 2>/dev/null; then
            "$ip" link add br0 type dummy
        fi
        "$ip" addr add 10.232.0.7/24 dev br0
        "$ip" link set br0 up
        ;;
    none) ;;
    esac
}

if ! setup >&2; then
    echo "$0: cannot set up the '$mode' namespace" >&2
    exit 125
fi
exec "$@"
