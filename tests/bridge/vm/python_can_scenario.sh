# Runs inside the SocketCAN test VM with the host's /usr on /host/usr:
# python-can, unchanged (bus type socketcan), sends and receives frames on
# vcan0 while orvane-bridge joins vcan0 to orvane-gateway-sim, whose bus is
# vcan1, where a second python-can bus sends and receives.
set -e
wait_for() { # file text
  for _ in $(seq 200); do grep -q "$2" "$1" 2>/dev/null && return 0; sleep 0.1; done
  echo "no '$2' in $1:"; cat "$1"; return 1
}
orvane-gateway-sim --socketcan vcan1 --bind 127.0.0.1 >/tmp/sim.log 2>&1 &
wait_for /tmp/sim.log "listening on 127.0.0.1:5001"
orvane-bridge vcan0 -i 127.0.0.1 >/tmp/bridge.log 2>&1 &
bridge=$!
wait_for /tmp/bridge.log "connection to Orvane CAN established"

# The host's Python, its standard library and Debian's python3-can, with the
# host's shared libraries.
export PYTHONHOME=/host/usr PYTHONPATH=/host/usr/lib/python3/dist-packages
LD_LIBRARY_PATH=/host/usr/lib/x86_64-linux-gnu /host/usr/bin/python3 /opt/vm/files/python_can_check.py
kill -USR1 $bridge
wait_for /tmp/bridge.log "counters: to_gateway=6 from_gateway=6 dropped=0 kernel_dropped=0 reconnects=0 state=connected"
kill $bridge
