#!/usr/bin/env bash
# Builds the Debian package with CPack and checks it: its contents, its
# dependencies, and the bridge unpacked from it runs.
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
         ./usr/share/doc/orvane/80-vcan0.network; do
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
version=$(LD_LIBRARY_PATH="$work/root/usr/lib" "$work/root/usr/bin/orvane-bridge" --version)
[ "$version" = "Version:0.2.0" ] || fail "unpacked bridge printed: $version"
echo "package $(basename "$deb") checked"
