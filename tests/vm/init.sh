#!/bin/sh
# /init of the SocketCAN test VM: brings up vcan0 and vcan1, runs the
# scenario and reports its exit status on the marker line the host waits for.
export PATH=/opt/vm/bin:/bin:/sbin:/usr/bin:/usr/sbin
export HOME=/tmp
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev

setup() {
  for module in can can-raw can-dev vcan; do
    insmod /lib/can-modules/$module.ko || { echo "vm: insmod $module failed"; return 1; }
  done
  ip link set up lo || return 1
  for interface in vcan0 vcan1; do
    ip link add dev $interface type vcan && ip link set up $interface ||
      { echo "vm: cannot bring up $interface"; return 1; }
  done
  # The host's /usr, read-only, when the run asked for it (--share-usr).
  if [ -f /etc/orvane-vm-share-usr ]; then
    for module in $(cat /etc/orvane-vm-share-usr); do
      insmod /lib/share-modules/$module.ko || { echo "vm: insmod $module failed"; return 1; }
    done
    mkdir -p /host/usr
    mount -t 9p -o trans=virtio,version=9p2000.L,ro hostusr /host/usr ||
      { echo "vm: cannot mount the host's /usr"; return 1; }
  fi
}

if setup; then
  cd /tmp
  sh /scenario.sh
  status=$?
else
  status=125
fi
echo "ORVANE-VM-END $(cat /etc/orvane-vm-token) status=$status"
sync
poweroff -f
