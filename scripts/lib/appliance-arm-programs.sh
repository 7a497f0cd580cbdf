#!/bin/sh
# Runs a command in a user namespace in which ARM programs start by themselves, whoever starts them.
# From Linux 6.7 on a user namespace keeps a binfmt_misc of its own; the host's registration is
# neither needed nor touched.
#
#   appliance-arm-programs.sh QEMU COMMAND [ARGUMENT]...
set -eu
qemu=$1
shift

# What an ELF file for little-endian 32-bit ARM begins with, and which of these bits count. The
# kernel reads the escapes itself.
magic='\x7fELF\x01\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\x28\x00'
mask='\xff\xff\xff\xff\xff\xff\xff\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff'

# F: qemu is opened now, so that its path need not exist where a program is started later.
# P: programs keep the name that they were started under.
if refusal=$(mount -t binfmt_misc none /mnt 2>&1); then
  printf '%s' ":arm:M::$magic:$mask:$qemu:PF" > /mnt/register
elif ! grep -qs '^enabled' /proc/sys/fs/binfmt_misc/qemu-arm; then
  cat >&2 <<EOF
appliance-arm-programs: ARM programs cannot be started here: $refusal
Linux 6.7 or later lets each user namespace register qemu for itself. On an earlier kernel the
machine has to: install binfmt-support beside qemu-user-static.
EOF
  exit 125
fi
exec "$@"
