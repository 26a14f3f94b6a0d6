#!/usr/bin/env bash
# Installs the Debian packages that building and testing need, if missing.
set -euo pipefail
packages=(cmake make g++ clang-format clang-tidy git libgtest-dev libgmock-dev libbenchmark-dev libboost-dev
          qemu-system-x86 busybox-static can-utils cpio gzip python3
          pkg-config dpkg-dev systemd man-db groff-base python3-can python3-pytest)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
