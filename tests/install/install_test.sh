#!/usr/bin/env bash
# Installs the build into a temporary prefix and uses it as a user would:
# a C program built through find_package(Orvane) and through pkg-config, and
# python-can through the installed interface, run against the installed
# simulator on 127.0.0.1; the systemd unit passes systemd-analyze verify,
# keeps its sandbox (exposure 2.5 or lower) and is enabled by its interface's
# device; the man pages render without warnings.
#   install_test.sh <build dir> <source dir>
set -euo pipefail
build=$1
source=$2
work=$(mktemp -d)
sim=
cleanup() {
  [ -n "$sim" ] && kill "$sim" 2>/dev/null && wait "$sim" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "FAILED: $*"; exit 1; }

prefix=$work/usr
cmake --install "$build" --prefix "$prefix" >/dev/null
for f in bin/orvane-bridge bin/orvane-gateway-sim bin/orvane-hex lib/liborvanecan.so.0 lib/liborvane_api.a \
         include/orvane/OrvaneDllCan.h lib/cmake/Orvane/OrvaneConfig.cmake lib/pkgconfig/orvanecan.pc \
         lib/systemd/system/orvane-bridge@.service share/man/man1/orvane-bridge.1 \
         share/doc/orvane/80-vcan0.netdev share/doc/orvane/80-vcan0.network; do
  [ -e "$prefix/$f" ] || fail "$f not installed"
done
# Output is captured before grep reads it: under pipefail, grep -q ending a
# pipe early would fail the writer with SIGPIPE whenever it was still writing.
[ "$("$prefix/bin/orvane-bridge" --version)" = "Version:0.2.0" ] || fail "installed bridge --version"

# Both ways of building a consumer.
cmake -S "$source/tests/install/consumer" -B "$work/cmake-consumer" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake-consumer" >/dev/null || fail "find_package consumer did not build"
export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
# shellcheck disable=SC2046
cc -o "$work/pc-consumer" "$source/tests/install/consumer/consumer.c" $(pkg-config --cflags --libs orvanecan) \
  || fail "pkg-config consumer did not build"
# shellcheck disable=SC2046
c++ -std=c++17 -o "$work/pc-consumer-cpp" "$source/tests/install/consumer/consumer_cpp.cpp" \
  $(pkg-config --cflags --libs orvane) || fail "pkg-config C++ consumer did not build"
output=$("$work/pc-consumer-cpp") || fail "C++ consumer: status $?"
grep -q "Device handle is invalid" <<<"$output" || fail "C++ consumer"

# The simulator on a CAN port P (TCP 5001 + 100 * P; the interface takes P up
# to 99) whose port is free.
for attempt in $(seq 0 40); do
  port=$((50 + ($$ + attempt * 7) % 50))
  "$prefix/bin/orvane-gateway-sim" "$port" > "$work/sim.log" 2>&1 &
  sim=$!
  for _ in $(seq 50); do
    grep -q "listening on 127.0.0.1" "$work/sim.log" && break
    kill -0 "$sim" 2>/dev/null || break
    sleep 0.1
  done
  grep -q "listening on 127.0.0.1" "$work/sim.log" && break
  wait "$sim" 2>/dev/null || true
  sim=
done
[ -n "$sim" ] || fail "no free port for the simulator"
export LD_LIBRARY_PATH=$prefix/lib
"$work/cmake-consumer/consumer" "$port" || fail "find_package consumer"
"$work/pc-consumer" "$port" || fail "pkg-config consumer"
libraries=$(ldd "$work/pc-consumer") || fail "ldd"
grep -q "$prefix/lib/liborvanecan.so.0" <<<"$libraries" || fail "consumer not linked to the installed library"

# The python-can interface from the prefix: python-can finds "orvane" through
# the installed entry point, and the package loads the library installed
# beside it.
PYTHONPATH=$prefix/lib/python3/dist-packages ORVANE_CAN_LIBRARY= /usr/bin/python3 -B - "$port" "$prefix" <<'EOF' \
  || fail "python-can interface from the prefix"
import sys
import can
port, prefix = int(sys.argv[1]), sys.argv[2]
with can.Bus(interface="orvane", channel="127.0.0.1", port=port, bitrate=500000) as bus:
    assert bus._lib._name == prefix + "/lib/liborvanecan.so.0", bus._lib._name
    assert bus.state == can.BusState.ACTIVE
    bus.send(can.Message(arbitration_id=0x123, is_extended_id=False, data=b"\x01"))
EOF

# The unit, with its ExecStart in this prefix.
# Its Documentation= names the man page, which must be found too.
verify=$(MANPATH=$prefix/share/man: systemd-analyze verify "$prefix/lib/systemd/system/orvane-bridge@.service" 2>&1) || fail "unit: $verify"
[ -z "$verify" ] || fail "unit: $verify"
grep -q "^ExecStart=$prefix/bin/orvane-bridge %i \$ORVANE_BRIDGE_OPTS\$" \
  "$prefix/lib/systemd/system/orvane-bridge@.service" || fail "unit ExecStart"
# Its sandbox, scored offline (the threshold is the exposure times 10).
unit=$prefix/lib/systemd/system/orvane-bridge@.service
security=$(systemd-analyze security --offline=true --threshold=25 "$unit" 2>&1) ||
  fail "unit exposure above 2.5: $(grep "Overall exposure" <<<"$security")"
# Enabled in a root of its own (no service manager involved), it is wanted
# by its interface's device, so that it starts whenever the interface appears.
systemctl --root="$work" enable orvane-bridge@vcan0 >/dev/null 2>&1 || fail "systemctl enable"
[ -L "$work/etc/systemd/system/sys-subsystem-net-devices-vcan0.device.wants/orvane-bridge@vcan0.service" ] ||
  fail "enabled unit is not wanted by sys-subsystem-net-devices-vcan0.device"

# Man pages: rendered with every warning on, and nothing on stderr.
for page in "$prefix"/share/man/man1/*.1; do
  warnings=$(LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null)
  [ -z "$warnings" ] || fail "$(basename "$page"): $warnings"
done
echo "install test passed"
