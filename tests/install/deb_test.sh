#!/usr/bin/env bash
# Builds the Debian package with CPack and checks it: its contents, its
# dependencies, the bridge unpacked from it runs, and python-can finds the
# interface in it.
#   deb_test.sh <build dir>
set -euo pipefail
build=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAILED: $*"; exit 1; }

(cd "$work" && cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/out" >/dev/null) || fail "cpack"
deb=$(ls "$work"/out/*.deb)
contents=$(dpkg-deb -c "$deb")
for f in ./usr/bin/orvane-bridge ./usr/bin/orvane-gateway-sim ./usr/bin/orvane-hex ./usr/lib/liborvanecan.so.0.2.0 \
         ./usr/lib/liborvane_api.a ./usr/include/orvane/OrvaneDllCan.h ./usr/lib/cmake/Orvane/OrvaneConfig.cmake \
         ./usr/lib/pkgconfig/orvanecan.pc ./usr/lib/systemd/system/orvane-bridge@.service \
         ./usr/share/man/man1/orvane-bridge.1 ./usr/share/man/man1/orvane-gateway-sim.1 ./usr/share/man/man1/orvane-hex.1 \
         ./usr/share/doc/orvane/bridge-example.conf ./usr/share/doc/orvane/80-vcan0.netdev \
         ./usr/share/doc/orvane/80-vcan0.network ./usr/lib/python3/dist-packages/orvane_can/bus.py \
         ./usr/lib/python3/dist-packages/orvane_can/_installed.py \
         ./usr/lib/python3/dist-packages/orvane_can-0.2.0.dist-info/entry_points.txt; do
  grep -q " $f\( \|$\)" <<<"$contents" || fail "$f missing from the package"
done
if grep -qE "_test|_bench|gtest|orvane_test_support" <<<"$contents"; then
  fail "test or benchmark files in the package"
fi
[ "$(dpkg-deb -f "$deb" Package)" = orvane ] || fail "package name"
[ "$(dpkg-deb -f "$deb" Version)" = 0.2.0 ] || fail "package version"
depends=$(dpkg-deb -f "$deb" Depends)
grep -q "libc6" <<<"$depends" || fail "Depends lacks libc6: $depends"
grep -q "libstdc++6" <<<"$depends" || fail "Depends lacks libstdc++6: $depends"

dpkg-deb -x "$deb" "$work/root"
grep -q "^ExecStart=/usr/bin/orvane-bridge %i" "$work/root/usr/lib/systemd/system/orvane-bridge@.service" \
  || fail "unit ExecStart does not name /usr/bin"
grep -q "^libdir=/usr/lib$" "$work/root/usr/lib/pkgconfig/orvanecan.pc" || fail "pkg-config libdir"
# python-can finds the interface through the package's entry point, and the
# package looks for the library in /usr/lib.
grep -qx 'LIBDIR = "/usr/lib"' "$work/root/usr/lib/python3/dist-packages/orvane_can/_installed.py" \
  || fail "python package's library folder"
PYTHONPATH=$work/root/usr/lib/python3/dist-packages /usr/bin/python3 -B -c \
  'import can.interface, orvane_can; assert can.interface._get_class_for_interface("orvane") is orvane_can.OrvaneBus' \
  || fail "python-can does not find the interface orvane in the package"
version=$(LD_LIBRARY_PATH="$work/root/usr/lib" "$work/root/usr/bin/orvane-bridge" --version)
[ "$version" = "Version:0.2.0" ] || fail "unpacked bridge printed: $version"
echo "package $(basename "$deb") checked"
