#!/usr/bin/env bash
# Shows the bridge doing its job: installs what is missing (Debian packages,
# via apt-get; run as root), builds orvane-bridge and orvane-gateway-sim, and
# runs scripts/demo-scenario.sh: frames sent with cansend on vcan0 cross to
# the simulated gateway's bus vcan1 and back, seen with candump.
#
# Where the kernel has SocketCAN (modprobe vcan works) it runs here, on vcan0
# and vcan1 (created if missing, removed again afterwards). Otherwise it runs
# the same scenario inside the test VM (tests/vm/run-vm.sh), which has no
# network card. Everything talks over 127.0.0.1 only.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
scripts/install-deps.sh

echo "=== building orvane-bridge and orvane-gateway-sim"
cmake -S . -B build >/dev/null
cmake --build build -j "$(nproc)" --target orvane-bridge orvane-gateway-sim >/dev/null
bridge=$root/build/orvane-bridge
sim=$root/build/tools/gateway-sim/orvane-gateway-sim

if modprobe vcan 2>/dev/null && modprobe can-raw 2>/dev/null; then
  echo "=== this kernel has SocketCAN: running here"
  created=()
  for iface in vcan0 vcan1; do
    if ! ip link show "$iface" >/dev/null 2>&1; then
      ip link add dev "$iface" type vcan
      created+=("$iface")
    fi
    ip link set up "$iface"
  done
  status=0
  PATH="$(dirname "$bridge"):$(dirname "$sim"):$PATH" sh scripts/demo-scenario.sh || status=$?
  for iface in ${created[@]+"${created[@]}"}; do ip link delete "$iface"; done
  exit $status
fi

echo "=== this kernel has no SocketCAN: running inside the test VM"
exec bash tests/vm/run-vm.sh --name demo --scenario scripts/demo-scenario.sh \
  --workdir build/demo.vm --timeout 300 -- "$bridge" "$sim"
