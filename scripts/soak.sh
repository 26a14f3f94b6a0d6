#!/usr/bin/env bash
# Soak: a million numbered frames (--frames N to change it) at 9,000 frames/s
# (a full 1 Mbit/s bus; --rate R) from vcan0 through orvane-bridge and
# orvane-gateway-sim to vcan1, inside the SocketCAN test VM. Reports loss,
# duplicates and latency (can_latency), the bridge's resident memory at the
# start and the end, and its descriptors and threads at the start and the
# end. Not part of the test command: it runs for minutes.
#   scripts/soak.sh [--frames N] [--rate R]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
frames=1000000 rate=9000
while [ $# -gt 0 ]; do
  case "$1" in
    --frames) frames=$2; shift 2 ;;
    --rate) rate=$2; shift 2 ;;
    *) echo "usage: $0 [--frames N] [--rate R]" >&2; exit 2 ;;
  esac
done
scripts/install-deps.sh >/dev/null
cmake -S . -B build >/dev/null
cmake --build build -j "$(nproc)" --target orvane-bridge orvane-gateway-sim can_latency >/dev/null
scenario=$(mktemp)
trap 'rm -f "$scenario"' EXIT
{ echo "frames=$frames rate=$rate"; cat scripts/soak-scenario.sh; } >"$scenario"
# Room for the frames at the rate, slowed down by the emulated VM, and boot.
limit=$((frames / rate * 4 + 300))
exec bash tests/vm/run-vm.sh --name soak --scenario "$scenario" --workdir build/soak.vm --timeout "$limit" -- \
  build/orvane-bridge build/tools/gateway-sim/orvane-gateway-sim build/bench/can_latency
