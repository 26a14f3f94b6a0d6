# Runs inside the SocketCAN test VM (started by scripts/soak.sh, which sets
# frames and rate in front of this text).
set -u
wait_for() { # file text
  for _ in $(seq 300); do grep -q -- "$2" "$1" 2>/dev/null && return 0; sleep 0.1; done
  cat "$1"; return 1
}
state() { # pid: resident memory, descriptors, threads
  echo "VmRSS $(awk '/^VmRSS/ { print $2, $3 }' /proc/$1/status), descriptors $(ls /proc/$1/fd | wc -l)," \
    "threads $(ls /proc/$1/task | wc -l)"
}
orvane-gateway-sim --socketcan vcan1 --bind 127.0.0.1 >/tmp/sim.log 2>&1 &
sim=$!
wait_for /tmp/sim.log "listening on" || exit 1
orvane-bridge vcan0 -i 127.0.0.1 >/tmp/bridge.log 2>&1 &
bridge=$!
wait_for /tmp/bridge.log "connection to Orvane CAN established" || exit 1
echo "soak: $frames frames at $rate frames/s, vcan0 > orvane-bridge > orvane-gateway-sim > vcan1"
echo "bridge at the start: $(state $bridge)"
printf '%-16s %7s %6s %9s %8s %5s %6s %8s %8s %8s %10s %6s\n' path rate sent "sent/s" "recv%" dup reord \
  "p50 ms" "p99 ms" "max ms" "deliver/s" rxdrop
CAN_LATENCY_FRAMES=$frames can_latency "soak" vcan0 vcan1 "$rate" || exit 1
echo "bridge at the end:   $(state $bridge)"
kill -USR1 $bridge
sleep 1
grep "counters:" /tmp/bridge.log | tail -1
kill $bridge $sim
wait $bridge
echo "bridge exit status $?"
