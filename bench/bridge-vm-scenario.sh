# Runs inside the SocketCAN test VM (started by bench/bridge-vm.sh): frame
# rate, loss and latency of raw vcan, then vcan0 <-> vcan1 through
# orvane-bridge + orvane-gateway-sim, through cannelloni over TCP and through
# cannelloni over UDP (1 ms batching), each way, all in this one boot. After
# each run: CPU seconds per 100,000 frames sent of every process on the
# path (the bridge split into its main thread and its other threads). With
# strace on PATH, a last section counts the bridge's system calls per frame
# in each direction.
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
# wait_port PROTO HEXPORT STATE: polls /proc/net/PROTO for a socket on the
# local port (hex) in STATE (01 TCP established, 07 UDP bound), at most 30 s.
wait_port() {
    tries=0
    until awk -v p=":$2" -v s="$3" '$2 ~ p"$" && $4 == s { found = 1 } END { exit !found }' /proc/net/$1 2>/dev/null; do
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
# measure LABEL TX RX "NAME=PID[:main|:others] ..." RATE...: one can_latency
# row per rate, each followed by the CPU seconds per 100,000 frames sent of
# every named process.
measure() {
    label=$1 tx=$2 rx=$3 procs=$4
    shift 4
    for rate in "$@"; do
        before=""
        for p in $procs; do
            pid=${p#*=}
            before="$before $(ticks ${pid%%:*} ${p##*:})"
        done
        row=$(can_latency "$label" $tx $rx $rate) || exit 1
        echo "$row"
        sent=$(echo "$row" | awk '{ print $3 }')
        line="    CPU s per 100k frames:"
        set -- $before
        for p in $procs; do
            pid=${p#*=}
            now=$(ticks ${pid%%:*} ${p##*:})
            line="$line ${p%%=*} $(awk -v t=$((now - $1)) -v n=$sent -v hz=$hz 'BEGIN { printf "%.2f", (n > 0 ? t / hz * 100000 / n : 0) }')"
            shift
        done
        echo "$line"
    done
}

echo "clock source: $(cat /sys/devices/system/clocksource/clocksource0/current_clocksource)," \
    "CPUs: $(grep -c ^processor /proc/cpuinfo)"
echo "=== raw vcan baseline (nothing else running)"
header
can_latency "raw vcan0>vcan0" vcan0 vcan0 $rates || exit 1
export CAN_LATENCY_FRAMES=5 # at 1 frame/s
can_latency "raw vcan0>vcan0" vcan0 vcan0 1 || exit 1
unset CAN_LATENCY_FRAMES

orvane-gateway-sim --socketcan vcan1 --bind 127.0.0.1 >"$work/sim" 2>&1 &
sim=$!
wait_for "$work/sim" "listening on" || { cat "$work/sim"; exit 1; }
orvane-bridge vcan0 -i 127.0.0.1 >"$work/bridge" 2>&1 &
bridge=$!
wait_for "$work/bridge" "connection to Orvane CAN established" || { cat "$work/bridge"; exit 1; }

echo "=== orvane-bridge (vcan0) + orvane-gateway-sim (bus vcan1)"
header
procs="bridge-main=$bridge:main bridge-others=$bridge:others sim=$sim:all"
measure "vcan0>bridge>gw" vcan0 vcan1 "$procs" $rates
measure "gw>bridge>vcan0" vcan1 vcan0 "$procs" $rates
export CAN_LATENCY_FRAMES=5
measure "vcan0>bridge>gw" vcan0 vcan1 "$procs" 1
measure "gw>bridge>vcan0" vcan1 vcan0 "$procs" 1
unset CAN_LATENCY_FRAMES

if command -v strace >/dev/null; then
    for path in "vcan0>bridge>gw vcan0 vcan1" "gw>bridge>vcan0 vcan1 vcan0"; do
        for rate in 1000 9000; do
            strace -c -f -p $bridge -o "$work/strace" 2>/dev/null &
            tracer=$!
            sleep 1 # strace attaches to every thread; nothing is measured before the frames
            set -- $path
            echo "=== system calls of orvane-bridge while $((rate * 2)) frames go $1 ($rate frames/s, under strace)"
            can_latency "$@" $rate
            kill -INT $tracer
            wait $tracer
            cat "$work/strace"
        done
    done
fi

kill -INT $bridge
wait $bridge
echo "bridge exit status $?; its output:"
sed 's/^/  /' "$work/bridge"
kill -TERM $sim
wait $sim
tail -1 "$work/sim"

# Both directions through a running pair of cannelloni processes (the one on
# vcan0, the one on vcan1), which are stopped afterwards.
measure_tunnel() {
    local name=$1 on0=$2 on1=$3
    header
    local procs="cannelloni-vcan0=$on0:all cannelloni-vcan1=$on1:all"
    measure "vcan0>$name>1" vcan0 vcan1 "$procs" $rates
    measure "vcan1>$name>0" vcan1 vcan0 "$procs" $rates
    kill -TERM $on0 $on1
    wait $on0 $on1 2>/dev/null
}

if command -v cannelloni >/dev/null; then
    # TCP: the server on the bus side, as the simulator; the client on vcan0, as the bridge.
    cannelloni -I vcan1 -C s -l 20000 -L 127.0.0.1 >"$work/cs" 2>&1 &
    cs=$!
    wait_port tcp 4E20 0A || { cat "$work/cs"; exit 1; }
    cannelloni -I vcan0 -C c -R 127.0.0.1 -r 20000 >"$work/cc" 2>&1 &
    cc=$!
    wait_port tcp 4E20 01 || { cat "$work/cc"; exit 1; }
    echo "=== cannelloni TCP (client vcan0, server vcan1)"
    measure_tunnel cnl-tcp $cc $cs

    cannelloni -I vcan1 -L 127.0.0.1 -l 20001 -R 127.0.0.1 -r 20000 -t 1000 >"$work/u1" 2>&1 &
    u1=$!
    cannelloni -I vcan0 -L 127.0.0.1 -l 20000 -R 127.0.0.1 -r 20001 -t 1000 >"$work/u0" 2>&1 &
    u0=$!
    wait_port udp 4E21 07 && wait_port udp 4E20 07 || { cat "$work/u0" "$work/u1"; exit 1; }
    echo "=== cannelloni UDP, 1 ms batching (vcan0 and vcan1)"
    measure_tunnel cnl-udp $u0 $u1
fi
