#!/usr/bin/env bash
# Runs a scenario on a real SocketCAN stack inside a QEMU VM.
#
#   run-vm.sh --name NAME --scenario FILE --workdir DIR [--timeout SECONDS]
#             [--file PATH]... [--share-usr] [--] BINARY...
#
# Packs busybox, the CAN kernel modules, candump/cansend/cangen, the given
# binaries (with the shared libraries ldd lists for them) and the scenario
# into an initramfs, boots it, streams the console and passes when the VM
# reports that the scenario exited 0. Inside the VM vcan0 and vcan1 are up,
# the binaries are on PATH (/opt/vm/bin), extra files are in /opt/vm/files,
# and the scenario runs with /tmp as its working directory. With --share-usr
# the host's /usr is mounted read-only on /host/usr (9p over virtio), so a
# scenario can run the host's programs, Python among them, without copying
# them into the initramfs.
#
# The VM has no network card (-nic none): nothing leaves it. The Debian kernel
# package is downloaded once into ORVANE_VM_CACHE (default /var/cache/orvane-vm,
# or ~/.cache/orvane-vm for a user who cannot write there).
# Any failure to start the VM fails the run; nothing is skipped.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
name=vm timeout_s=300 scenario='' workdir='' share_usr=0
binaries=() files=()

fail() { echo "vm[$name]: FAILED: $*" >&2; exit 1; }

while [ $# -gt 0 ]; do
  case "$1" in
    --name) name=$2; shift 2 ;;
    --scenario) scenario=$2; shift 2 ;;
    --workdir) workdir=$2; shift 2 ;;
    --timeout) timeout_s=$2; shift 2 ;;
    --file) files+=("$2"); shift 2 ;;
    --share-usr) share_usr=1; shift ;;
    --) shift; binaries+=("$@"); break ;;
    -*) fail "unknown option $1" ;;
    *) binaries+=("$1"); shift ;;
  esac
done
[ -n "$scenario" ] && [ -f "$scenario" ] || fail "scenario '$scenario' not found"
[ -n "$workdir" ] || fail "--workdir is required"
for b in "${binaries[@]}"; do [ -x "$b" ] || fail "binary '$b' not found or not executable"; done
for f in "${files[@]}"; do [ -e "$f" ] || fail "file '$f' not found"; done

need() { command -v "$1" >/dev/null 2>&1 || fail "'$1' not found (scripts/install-deps.sh installs $2)"; }
need qemu-system-x86_64 qemu-system-x86
need cpio cpio
need gzip gzip
need candump can-utils
need cansend can-utils
need cangen can-utils
need apt-get apt
need dpkg dpkg
need flock util-linux
busybox=/bin/busybox
[ -x "$busybox" ] || fail "$busybox not found (scripts/install-deps.sh installs busybox-static)"
ldd "$busybox" >/dev/null 2>&1 && fail "$busybox is not statically linked (install busybox-static)"

# --- kernel: the package linux-image-amd64 depends on, cached ----------------
cache=${ORVANE_VM_CACHE:-/var/cache/orvane-vm}
if [ -z "${ORVANE_VM_CACHE:-}" ] && ! { mkdir -p "$cache" 2>/dev/null && [ -w "$cache" ]; }; then
  cache=${XDG_CACHE_HOME:-$HOME/.cache}/orvane-vm   # not root: a per-user cache
fi
mkdir -p "$cache" 2>/dev/null && [ -w "$cache" ] ||
  fail "kernel cache '$cache' is not writable (set ORVANE_VM_CACHE to a writable directory)"
exec 9>"$cache/.lock"
flock 9   # one download at a time, however many VM tests run in parallel

resolve_kernel() {
  apt-cache depends linux-image-amd64 2>/dev/null |
    awk '$1 == "Depends:" && $2 ~ /^linux-image-[0-9]/ { print $2; exit }'
}
modules=(net/can/can net/can/can-raw drivers/net/can/dev/can-dev drivers/net/can/vcan)
# For --share-usr, in load order: virtio PCI transport, 9p over virtio, the 9p
# file system.
share_modules=(drivers/virtio/virtio_ring drivers/virtio/virtio drivers/virtio/virtio_pci_modern_dev
               drivers/virtio/virtio_pci_legacy_dev drivers/virtio/virtio_pci net/9p/9pnet net/9p/9pnet_virtio
               fs/netfs/netfs fs/fscache/fscache fs/9p/9p)
# Bumped when the module list changes, so that a cached kernel is unpacked again.
ready=ready-2

# Downloads a kernel package and keeps only what the VM needs:
# $cache/<package>/vmlinuz and $cache/<package>/modules/*.ko. Called in a
# condition, where set -e does not apply, so every step checks itself.
unpack_kernel() { # package
  local tmp status=0
  tmp=$(mktemp -d "$cache/download.XXXXXX") || return 1
  unpack_kernel_in "$1" "$tmp" || status=1
  rm -rf "$tmp"
  return $status
}
unpack_kernel_in() { # package scratch-dir
  local pkg=$1 tmp=$2 target=$cache/$1 m src
  (cd "$tmp" && apt-get download -o APT::Sandbox::User=root "$pkg" >&2) || return 1
  dpkg -x "$tmp"/*.deb "$tmp/x" || return 1
  rm -rf "$target" && mkdir -p "$target/modules" || return 1
  cp "$tmp"/x/boot/vmlinuz-* "$target/vmlinuz" || return 1
  for m in "${modules[@]}" "${share_modules[@]}"; do
    src=$(echo "$tmp"/x/lib/modules/*/kernel/"$m".ko*)
    case "$src" in
      *.ko) cp "$src" "$target/modules/" ;;
      *.ko.xz) xz -dc "$src" >"$target/modules/$(basename "$m").ko" ;;
      *.ko.zst) zstd -qdc "$src" >"$target/modules/$(basename "$m").ko" ;;
      *) echo "vm[$name]: module $m not found in $pkg" >&2; false ;;
    esac || return 1
  done
  touch "$target/$ready"
}

pkg=$(resolve_kernel)
if [ -z "$pkg" ]; then
  echo "vm[$name]: linux-image-amd64 unknown to apt, running apt-get update" >&2
  apt-get update -qq >&2 || true
  pkg=$(resolve_kernel)
fi
if [ -n "$pkg" ] && [ ! -f "$cache/$pkg/$ready" ]; then
  echo "vm[$name]: downloading kernel package $pkg into $cache" >&2
  if ! unpack_kernel "$pkg"; then
    echo "vm[$name]: download failed, running apt-get update and retrying" >&2
    apt-get update -qq >&2 || true
    pkg=$(resolve_kernel)
    [ -n "$pkg" ] && unpack_kernel "$pkg" || fail "could not download the kernel package ${pkg:-linux-image-*-amd64}"
  fi
  for old in "$cache"/linux-image-*; do   # keep only the current kernel
    [ "$old" = "$cache/$pkg" ] || rm -rf "$old"
  done
fi
if [ -z "$pkg" ]; then # apt cannot resolve it at all: use what the cache holds
  pkg=$(cd "$cache" && ls -d linux-image-* 2>/dev/null | tail -1 || true)
  [ -n "$pkg" ] && [ -f "$cache/$pkg/$ready" ] ||
    fail "apt cannot resolve linux-image-amd64 and no kernel is cached in $cache"
fi
kernel=$cache/$pkg
flock -u 9
exec 9>&-

# --- initramfs -----------------------------------------------------------------
root=$workdir/root
rm -rf "$root"
mkdir -p "$root"/{bin,sbin,usr/bin,usr/sbin,proc,sys,dev,tmp,etc,lib/can-modules,lib/share-modules,opt/vm/bin,opt/vm/files}

cp "$busybox" "$root/bin/busybox"
for applet in $("$busybox" --list-full); do
  [ -e "$root/$applet" ] || ln -s /bin/busybox "$root/$applet"
done

copy_with_libraries() { # executable target-dir
  cp "$1" "$2/"
  local lib
  for lib in $(ldd "$1" 2>/dev/null | grep -o '/[^ ]*' || true); do
    if [ ! -e "$root$lib" ]; then
      mkdir -p "$root$(dirname "$lib")"
      cp -L "$lib" "$root$lib"
    fi
  done
}
for tool in candump cansend cangen; do
  copy_with_libraries "$(command -v $tool)" "$root/usr/bin"
done
for b in "${binaries[@]}"; do copy_with_libraries "$b" "$root/opt/vm/bin"; done
for f in "${files[@]}"; do cp -r "$f" "$root/opt/vm/files/"; done
for m in "${modules[@]}"; do cp "$kernel/modules/$(basename "$m").ko" "$root/lib/can-modules/"; done
qemu_share=()
if [ "$share_usr" = 1 ]; then
  for m in "${share_modules[@]}"; do cp "$kernel/modules/$(basename "$m").ko" "$root/lib/share-modules/"; done
  printf '%s\n' "${share_modules[@]##*/}" >"$root/etc/orvane-vm-share-usr"   # load order for init
  qemu_share=(-virtfs local,path=/usr,mount_tag=hostusr,security_model=none,readonly=on)
fi

token=$(od -An -N8 -tx1 /dev/urandom | tr -d ' \n')
echo "$token" >"$root/etc/orvane-vm-token"
cp "$here/init.sh" "$root/init"
cp "$scenario" "$root/scenario.sh"
chmod 755 "$root/init" "$root/scenario.sh"

initrd=$workdir/initrd.gz
(cd "$root" && find . | cpio -o -H newc --quiet | gzip -1) >"$initrd"

# --- boot ------------------------------------------------------------------------
log=$workdir/console.log
start=$(date +%s.%N)
echo "vm[$name]: booting $pkg (time limit ${timeout_s} s)" >&2
set +e
timeout -k 5 "$timeout_s" qemu-system-x86_64 -m 512 -smp 2 -nographic -no-reboot -nic none "${qemu_share[@]}" \
  -kernel "$kernel/vmlinuz" -initrd "$initrd" \
  -append "console=ttyS0 quiet panic=-1" </dev/null 2>&1 |
  sed -u -e 's/\r$//' -e 's/\x1bc//g' -e 's/\x1b\[[0-9;?]*[A-Za-z]//g' | tee "$log"
statuses=("${PIPESTATUS[@]}")
set -e
qemu_status=${statuses[0]}
elapsed=$(awk -v a="$start" -v b="$(date +%s.%N)" 'BEGIN { printf "%.1f", b - a }')

marker=$(grep -a -o "ORVANE-VM-END $token status=[0-9]*" "$log" | tail -1 || true)
if [ -z "$marker" ]; then
  if [ "$qemu_status" = 124 ] || [ "$qemu_status" = 137 ]; then
    fail "no result within ${timeout_s} s (console log: $log)"
  fi
  fail "the VM ended without a result, qemu exit status $qemu_status (console log: $log)"
fi
status=${marker##*status=}
if [ "$status" != 0 ]; then
  fail "scenario exited with status $status after ${elapsed} s (console log: $log)"
fi
echo "vm[$name]: passed in ${elapsed} s (boot, scenario and power-off)" >&2
