#!/usr/bin/env bash
# Measures frames through the bridge inside the SocketCAN test VM: numbered
# 8-byte frames at 1,000, 3,000 and 9,000 frames/s and as fast as possible
# (and a few at 1 frame/s), from vcan0 through orvane-bridge and
# orvane-gateway-sim to vcan1 and back, next to a raw vcan baseline and to
# cannelloni (a public SocketCAN-over-IP tunnel, built from
# ../shared/anchors into build/anchors) over TCP and over UDP, all in the
# same VM boot. Builds what it needs in build/ (a plain build). With
# --strace, the bridge's system calls per frame are counted too (strace
# from the Debian package, run inside the VM).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
extra=()
if [ "${1:-}" = --strace ]; then
  command -v strace >/dev/null || { echo "--strace needs strace (apt-get install strace)" >&2; exit 1; }
  extra=("$(command -v strace)")
fi
anchors=$root/../shared/anchors
if [ -x "$anchors/build-cannelloni.sh" ]; then
  extra+=("$("$anchors/build-cannelloni.sh" build/anchors)")
else
  echo "no $anchors/build-cannelloni.sh: cannelloni is left out" >&2
fi
cmake -S . -B build >/dev/null
cmake --build build -j 2 --target orvane-bridge orvane-gateway-sim can_latency >/dev/null
exec bash tests/vm/run-vm.sh --name bridge-bench --scenario bench/bridge-vm-scenario.sh \
  --workdir build/bridge-bench.vm --timeout 900 -- \
  build/orvane-bridge build/tools/gateway-sim/orvane-gateway-sim build/bench/can_latency ${extra[@]+"${extra[@]}"}
