# Runs inside the SocketCAN test VM (started by bench/bridge-vm.sh): frame
# rate, loss and latency of raw vcan, then through orvane-bridge on vcan0 and
# orvane-gateway-sim with its bus on vcan1, in both directions. After each
# run through the bridge: the CPU time its main thread, its other threads
# (reader, alive) and the simulator used. With strace on PATH, a last section
# counts the bridge's system calls per frame in each direction.
set -u
work=$(mktemp -d)
rates="1000 3000 9000 0"

# wait_for FILE TEXT: polls for TEXT in FILE, at most 30 s.
wait_for() {
    tries=0
    until grep -q -- "$2" "$1" 2>/dev/null; do
        tries=$((tries + 1))
        [ $tries -le 300 ] || return 1
        sleep 0.1
    done
}
header() {
    printf '%-16s %7s %6s %9s %8s %5s %6s %8s %8s %8s %10s %6s\n' path rate sent "sent/s" "recv%" dup reord \
        "p50 ms" "p99 ms" "max ms" "deliver/s" rxdrop
}
# ticks PID [main|others]: CPU clock ticks (user + system) of a process's threads.
ticks() {
    for stat in /proc/$1/task/*/stat; do
        tid=${stat#/proc/$1/task/}
        tid=${tid%/stat}
        case "${2:-all}" in
            main) [ "$tid" = "$1" ] || continue ;;
            others) [ "$tid" != "$1" ] || continue ;;
        esac
        cat "$stat"
    done | awk '{ sum += $14 + $15 } END { print sum + 0 }'
}
hz=100
seconds() { awk -v t="$1" -v hz=$hz 'BEGIN { printf "%.2f", t / hz }'; }

echo "clock source: $(cat /sys/devices/system/clocksource/clocksource0/current_clocksource)," \
    "CPUs: $(grep -c ^processor /proc/cpuinfo)"
echo "=== raw vcan baseline (no bridge running)"
header
can_latency "raw vcan0>vcan0" vcan0 vcan0 $rates || exit 1

orvane-gateway-sim --socketcan vcan1 --bind 127.0.0.1 >"$work/sim" 2>&1 &
sim=$!
wait_for "$work/sim" "listening on" || { cat "$work/sim"; exit 1; }
orvane-bridge vcan0 -i 127.0.0.1 >"$work/bridge" 2>&1 &
bridge=$!
wait_for "$work/bridge" "connection to Orvane CAN established" || { cat "$work/bridge"; exit 1; }

echo "=== through orvane-bridge (vcan0) and orvane-gateway-sim (bus vcan1)"
header
for path in "vcan0>bridge>gw vcan0 vcan1" "gw>bridge>vcan0 vcan1 vcan0"; do
    for rate in $rates; do
        main0=$(ticks $bridge main) others0=$(ticks $bridge others) sim0=$(ticks $sim)
        can_latency $path $rate || exit 1
        echo "    CPU seconds in this run: bridge main thread $(seconds $(($(ticks $bridge main) - main0)))," \
            "bridge other threads $(seconds $(($(ticks $bridge others) - others0)))," \
            "simulator $(seconds $(($(ticks $sim) - sim0)))"
    done
done

if command -v strace >/dev/null; then
    for path in "vcan0>bridge>gw vcan0 vcan1" "gw>bridge>vcan0 vcan1 vcan0"; do
        strace -c -f -p $bridge -o "$work/strace" 2>/dev/null &
        tracer=$!
        sleep 1 # strace attaches to every thread; nothing is measured before the frames
        set -- $path
        echo "=== system calls of orvane-bridge while 2000 frames go $1 (1000 frames/s, under strace)"
        can_latency "$@" 1000 >/dev/null
        kill -INT $tracer
        wait $tracer
        cat "$work/strace"
    done
fi

kill -INT $bridge
wait $bridge
echo "bridge exit status $?; its output:"
sed 's/^/  /' "$work/bridge"
kill -TERM $sim
wait $sim
tail -1 "$work/sim"
