#!/usr/bin/env bash
# Kills and restarts the gateway simulator under a running orvane-bridge many
# times inside the SocketCAN test VM (default 500 cycles; the test command's
# bridge_faults_vm runs 50), checking every reconnect, the frames of each
# cycle, and the bridge's descriptors and threads at the end.
#   scripts/fault-cycles.sh [CYCLES]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
cycles=${1:-500}
scripts/install-deps.sh >/dev/null
cmake -S . -B build >/dev/null
cmake --build build -j "$(nproc)" --target orvane-bridge orvane-gateway-sim bridge_faults_vm_test >/dev/null
scenario=$(mktemp)
trap 'rm -f "$scenario"' EXIT
printf 'export ORVANE_FAULT_CYCLES=%s\nbridge_faults_vm_test --gtest_color=no --gtest_filter=%s\n' \
  "$cycles" '*SimulatorKilledAndRestartedManyTimes' >"$scenario"
exec bash tests/vm/run-vm.sh --name fault-cycles --scenario "$scenario" --workdir build/fault-cycles.vm \
  --timeout $((cycles * 6 + 300)) -- \
  build/tests/bridge_faults_vm_test build/orvane-bridge build/tools/gateway-sim/orvane-gateway-sim
