#!/bin/bash
# The first process of the ARM machine of scripts/appliance --kernel: runs ctest, whose words go to the
# host, and switches the machine off.
#
#   appliance-guest.sh PROJECT
export PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8
project=$1
mkdir -p /dev/shm /dev/pts
mount -t tmpfs -o mode=1777 none /dev/shm
mount -t devpts none /dev/pts
ln -s /proc/self/fd /dev/fd
ip link set lo up
ulimit -c 0

mapfile -d '' -t options < "$project/ctest-options"
port=$(grep -lx said /sys/class/virtio-ports/*/name)
port=/dev/$(basename "$(dirname "$port")")
cd "$project/build/appliance" || exit
{
  uname -srm
  ctest --output-on-failure -j 2 "${options[@]}" 2>&1
  echo "ctest ended with status $?"
} > "$port"
cd /
mount -o remount,ro "$project"
mount -o remount,ro /
sync
echo o > /proc/sysrq-trigger
sleep infinity
