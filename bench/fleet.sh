#!/bin/bash
# Measures the cost of a token behind a network for one client, at several round trip times, and the
# number of clients that one token can serve at once:
#   bench/fleet.sh RESULTS.json [--quick]
# Makes two connected network namespaces: one with a SoftHSM2 token that p11-kit serves, the other with
# the clients. Needs root, and the programs of the preset "bench". Removes everything that it made, also
# when it is interrupted. The figures of --quick only show that it works.
set -euo pipefail
. "$(dirname "$0")/../scripts/lib.sh"

bin=$build/bench/bin
softhsm=/usr/lib/softhsm/libsofthsm2.so
remote=/usr/lib/x86_64-linux-gnu/pkcs11/p11-kit-client.so
pin=keywarden-pin-4711
serverAddress=10.77.0.1
clientAddress=10.77.0.2
port=4711
readingPort=4712
# Two runs at a time do not conflict: the addresses are valid only inside their namespaces.
server=kwserver$$
client=kwclient$$

usage()
{
    echo "usage: bench/fleet.sh RESULTS.json [--quick]" >&2
    exit 2
}

# Reports what is missing before it makes anything.
checkNeeds()
{
    local command
    if [ "$(id -u)" -ne 0 ]; then
        echo "fleet.sh: network namespaces need root" >&2
        return 1
    fi
    for command in ip ss socat setpriv p11-kit jq softhsm2-util pkcs11-tool; do
        if ! command -v "$command" >/dev/null; then
            echo "fleet.sh: $command is missing; scripts/setup.sh --bench installs it" >&2
            return 1
        fi
    done
    for command in bench_remote_calls bench_remote_clients bench_delay_relay; do
        if [ ! -x "$bin/$command" ]; then
            echo "fleet.sh: $bin/$command is missing; cmake --build --preset bench makes it" >&2
            return 1
        fi
    done
}

# endProcesses NAMESPACE: ends all processes in it, which only this run can have started.
endProcesses()
{
    local pids
    pids=$(ip netns pids "$1" 2>/dev/null) || return 0
    # shellcheck disable=SC2086 # a list of numbers
    [ -z "$pids" ] || kill $pids 2>/dev/null || true
}

cleanUp()
{
    trap '' INT TERM HUP
    for namespace in "$client" "$server"; do
        endProcesses "$namespace"
    done
    wait 2>/dev/null || true
    # Removing a namespace removes its end of the connection, and with it the other end.
    for namespace in "$client" "$server"; do
        ip netns delete "$namespace" 2>/dev/null || true
    done
    rm -rf "$work"
}

makeNetwork()
{
    ip netns add "$server"
    ip netns add "$client"
    ip -n "$server" link add kwline type veth peer name kwline netns "$client"
    ip -n "$server" address add "$serverAddress/30" dev kwline
    ip -n "$client" address add "$clientAddress/30" dev kwline
    ip -n "$server" link set kwline up
    ip -n "$client" link set kwline up
}

# waitFor WHAT COMMAND...: waits until the command succeeds, at most five seconds.
waitFor()
{
    local what=$1
    shift
    for _ in {1..50}; do
        if "$@"; then
            return 0
        fi
        sleep 0.1
    done
    cat "$work"/*.log >&2
    echo "fleet.sh: $what does not listen" >&2
    return 1
}

# listens PORT
listens()
{
    ip netns exec "$server" ss -Hltn "sport = :$1" | grep -q .
}

# startServer PORT [COMMAND...]: by that command, if there is one. Each connection has a process of its own.
startServer()
{
    local listening=$1
    shift
    SOFTHSM2_CONF=$work/far/softhsm2.conf ip netns exec "$server" "$@" socat \
        "TCP-LISTEN:$listening,bind=$serverAddress,fork,reuseaddr,nodelay,backlog=256" \
        "EXEC:p11-kit remote $softhsm" 2>"$work/server-$listening.log" &
    waitFor "the server" listens "$listening"
}

# SoftHSM2 writes to its files at each login, and another process that reads them at that moment finds no
# token. So many clients have a server whose user may only read them. One that may not write, on the other hand,
# refuses a second login in one process, which a client in modern needs.
startServers()
{
    startServer "$port"
    startServer "$readingPort" setpriv --reuid 65534 --regid 65534 --clear-groups
}

# relayTo PORT ROUND_TRIP_MS
relayTo()
{
    echo "$bin/bench_delay_relay $serverAddress $1 $2"
}

# startLine NAME PORT ROUND_TRIP_MS: makes a socket for the client; each connection to it is one to the
# server.
startLine()
{
    ip netns exec "$client" socat "UNIX-LISTEN:$work/line-$1,fork,backlog=256" \
        "EXEC:$(relayTo "$2" "$3")" 2>"$work/line-$1.log" &
    waitFor "the line" test -S "$work/line-$1"
}

# asClient ADDRESS PROGRAM ARGUMENT...: runs the program in the background, so that a signal ends the
# wait. The address is one of p11-kit: a socket, or a command that each C_Initialize starts.
asClient()
{
    local address=$1
    shift
    P11_KIT_SERVER_ADDRESS=$address SOFTHSM2_CONF=$work/near/softhsm2.conf \
        ip netns exec "$client" "$@" &
    wait "$!"
}

# measureCalls LINE ADDRESS ROUND_TRIP_MS ROUNDS
measureCalls()
{
    say "by a $1, round trip $3 ms: $4 signatures, direct and remote in turn"
    asClient "$2" "$bin/bench_remote_calls" "$work/calls-$1-$3.json" "$1" "$softhsm" "$remote" \
        "$pin" "$3" "$4"
}

# measureLine ROUND_TRIP_MS ROUNDS
measureLine()
{
    startLine "$1" "$port" "$1"
    measureCalls socket "unix:path=$work/line-$1" "$1" "$2"
}

# measureClients SECONDS NUMBER...: runs these numbers of clients at once, without delay.
measureClients()
{
    local seconds=$1 number
    shift
    startLine clients "$readingPort" 0
    for number in "$@"; do
        say "$number clients at once for $seconds s"
        asClient "unix:path=$work/line-clients" "$bin/bench_remote_clients" \
            "$work/clients-$number.json" "$remote" "$pin" "$number" "$seconds"
    done
}

case "$#:${2:-}" in
    1:) quick=false ;;
    2:--quick) quick=true ;;
    *) usage ;;
esac
results=$1
checkNeeds
work=$(mktemp -d)
trap cleanUp EXIT
trap 'exit 1' INT TERM HUP

# One token for each side, with the same keys.
"$root/tests/support/fixtures/make-token.sh" --small "$work/near" "$pin"
cp -r "$work/near" "$work/far"
sed -i "s|$work/near|$work/far|" "$work/far/softhsm2.conf"
chmod -R a+rX "$work"
makeNetwork
startServers
if "$quick"; then
    measureLine 0 2
    measureLine 1 2
    measureCalls command "|$(relayTo "$port" 0)" 0 2
    measureClients 1 2
else
    measureLine 0 41
    measureLine 1 41
    measureLine 10 15
    measureLine 50 5
    measureCalls command "|$(relayTo "$port" 0)" 0 41
    measureClients 10 1 2 4 8 16 32
fi
jq -s add "$work"/calls-*.json "$work"/clients-*.json >"$results"
