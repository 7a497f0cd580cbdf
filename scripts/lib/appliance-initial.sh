#!/bin/sh
# The first process of the ARM machine of scripts/appliance --kernel, in its first file system: mounts
# the two disks and starts the tests.
export PATH=/bin
/bin/busybox --install -s /bin
mount -t devtmpfs none /dev
mount -t proc none /proc
mount -t sysfs none /sys
while read -r module; do
  insmod "$module" || echo "$module cannot be loaded"
done < /modules/order

project=$(tr ' ' '\n' < /proc/cmdline | sed -n 's/^project=//p')
while [ ! -b /dev/vdb ]; do sleep 0.1; done
# The disks are numbered in the order in which the kernel finds them.
for disk in /dev/vda /dev/vdb; do
  mount -t ext4 "$disk" /root
  [ ! -e /root/ctest-options ] || { project_disk=$disk; umount /root; continue; }
  files_disk=$disk
  umount /root
done
mount -t ext4 "$files_disk" /root
mkdir -p "/root$project"
mount -t ext4 "$project_disk" "/root$project"
for directory in dev proc sys; do
  mount --move "/$directory" "/root/$directory"
done
exec switch_root /root "$project/scripts/lib/appliance-guest.sh" "$project"
