# The bridge at work: orvane-bridge joins vcan0 to the simulated gateway,
# whose CAN bus is vcan1. Frames sent on vcan0 appear on vcan1, frames sent
# on vcan1 appear on vcan0; then the bridge is stopped with Ctrl-C (SIGINT).
#
# Needs vcan0 and vcan1 up, and orvane-bridge, orvane-gateway-sim, candump
# and cansend on PATH. Runs under any POSIX sh (busybox sh in the test VM).
# Exits 0 when every frame crossed and the bridge ended with status 0.
set -u

work=$(mktemp -d)
failures=0
bridge_pid='' sim_pid='' dump0_pid='' dump1_pid=''

stop() { # pid signal
    [ -n "$1" ] && kill "-$2" "$1" 2>/dev/null && wait "$1" 2>/dev/null
}
cleanup() {
    stop "$bridge_pid" INT
    stop "$sim_pid" TERM
    stop "$dump0_pid" TERM
    stop "$dump1_pid" TERM
    rm -rf "$work"
}
trap cleanup EXIT

# wait_for FILE TEXT: polls for TEXT in FILE, at most 20 s.
wait_for() {
    tries=0
    until grep -q -- "$2" "$1" 2>/dev/null; do
        tries=$((tries + 1))
        [ $tries -le 200 ] || return 1
        sleep 0.1
    done
}
# lines FILE: number of lines in FILE.
lines() { wc -l <"$1" | tr -d ' '; }
# show FILE LABEL FROM: prints FILE's lines after line FROM, labelled.
show() { tail -n "+$(($3 + 1))" "$1" | sed "s/^/  $2 | /"; }

echo "=== candump on vcan0 (the bridged interface) and vcan1 (the gateway's bus)"
candump vcan0 >"$work/vcan0" 2>&1 &
dump0_pid=$!
candump vcan1 >"$work/vcan1" 2>&1 &
dump1_pid=$!
# A frame sent before candump listens is never shown: probe each interface
# until its candump has printed a probe (nothing is bridged yet).
for iface in vcan0 vcan1; do
    tries=0
    until grep -q 7FF "$work/$iface"; do
        tries=$((tries + 1))
        [ $tries -le 100 ] || { echo "!!! candump on $iface does not listen"; exit 1; }
        cansend "$iface" 7FF#00
        sleep 0.2
    done
done

echo "=== gateway simulator: orvane-gateway-sim --socketcan vcan1 --bind 127.0.0.1"
orvane-gateway-sim --socketcan vcan1 --bind 127.0.0.1 >"$work/sim" 2>&1 &
sim_pid=$!
wait_for "$work/sim" "listening on" || { show "$work/sim" sim 0; echo "!!! simulator did not start"; exit 1; }
show "$work/sim" sim 0

echo "=== bridge: orvane-bridge vcan0 -i 127.0.0.1 -b 500000"
orvane-bridge vcan0 -i 127.0.0.1 -b 500000 >"$work/bridge" 2>&1 &
bridge_pid=$!
if ! wait_for "$work/bridge" "connection to Orvane CAN established"; then
    show "$work/bridge" bridge 0
    echo "!!! the bridge did not connect"
    exit 1
fi
show "$work/bridge" bridge 0
show "$work/sim" sim 1
shown_bridge=$(lines "$work/bridge") shown_sim=$(lines "$work/sim")

# arrived FILE COUNT: waits until FILE has more than COUNT lines, at most 10 s.
arrived() {
    tries=0
    while [ "$(lines "$1")" -le "$2" ]; do
        tries=$((tries + 1))
        [ $tries -le 100 ] || return 1
        sleep 0.1
    done
}
# cross FROM TO FRAME: sends FRAME on FROM and shows what both candumps print.
cross() {
    from_seen=$(lines "$work/$1") to_seen=$(lines "$work/$2")
    echo "  \$ cansend $1 $3"
    cansend "$1" "$3"
    if arrived "$work/$1" "$from_seen" && arrived "$work/$2" "$to_seen"; then
        show "$work/$1" "candump $1" "$from_seen"
        show "$work/$2" "candump $2" "$to_seen"
    else
        echo "!!! $3 did not arrive on $2"
        failures=$((failures + 1))
    fi
}

echo "=== vcan0 -> gateway: frames sent on vcan0 appear on the gateway's bus vcan1"
for frame in 123#11223344 7FF#0102030405060708 18FEF100#CAFE 321#R 456#; do
    cross vcan0 vcan1 "$frame"
done
echo "=== gateway -> vcan0: frames on the gateway's bus vcan1 appear on vcan0"
for frame in 234#DEADBEEF 1ABCDEF0#0011223344556677 555#R 0F0#AA; do
    cross vcan1 vcan0 "$frame"
done

echo "=== stopping the bridge with Ctrl-C (SIGINT)"
kill -INT "$bridge_pid"
wait "$bridge_pid"
status=$?
bridge_pid=''
show "$work/bridge" bridge "$shown_bridge"
echo "  orvane-bridge exit status: $status"
stop "$sim_pid" TERM
sim_pid=''
show "$work/sim" sim "$shown_sim"

if [ "$failures" -eq 0 ] && [ "$status" -eq 0 ]; then
    echo "=== demo passed: every frame crossed the bridge, which stopped cleanly"
    exit 0
fi
echo "=== demo FAILED: $failures frame(s) missing, bridge exit status $status"
exit 1
