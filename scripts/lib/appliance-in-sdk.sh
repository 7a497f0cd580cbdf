#!/usr/bin/env bash
# Runs a command inside the appliance's SDK, as root of a namespace of its own: the SDK's tools and
# libraries read-only, this project and its build directory at the paths that they have outside, no
# network. ARM programs start by themselves. An ARM machine has its own tools and libraries, of the same
# generation.
#
#   appliance-in-sdk.sh COMMAND [ARGUMENT]...
set -euo pipefail

if [[ $(uname -m) == arm* ]]; then
  export CMAKE_GENERATOR=Ninja
  exec "$@"
fi
project=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
sdk=$project/build/appliance-sdk
if [ ! -d "$sdk" ]; then
  echo "appliance-in-sdk: there is no SDK at $sdk; scripts/appliance makes it" >&2
  exit 125
fi

# On a root of memory, so that the project's path exists without a trace of it in the SDK.
view=(--tmpfs /)
for entry in "$sdk"/{bin,etc,lib,lib32,lib64,libx32,sbin,usr}; do
  if [ -e "$entry" ]; then
    view+=(--ro-bind "$entry" "/${entry##*/}")
  fi
done
view+=(--dev /dev --proc /proc --dir /mnt --dir /run --tmpfs /tmp
       --ro-bind "$sdk/var/lib/dpkg" /var/lib/dpkg
       --ro-bind "$project" "$project" --bind "$project/build" "$project/build"
       --ro-bind "$sdk" "$sdk")

exec bwrap --unshare-user --uid 0 --gid 0 --cap-add ALL --unshare-net --unshare-pid \
  --die-with-parent --clearenv \
  --setenv HOME /tmp --setenv LANG C.UTF-8 \
  --setenv PATH /usr/arm-linux-gnueabihf/bin:/usr/sbin:/usr/bin:/sbin:/bin \
  --setenv PKG_CONFIG_LIBDIR /usr/lib/arm-linux-gnueabihf/pkgconfig:/usr/share/pkgconfig \
  --setenv CMAKE_GENERATOR Ninja --setenv KELOTLS_IN_SDK 1 \
  "${view[@]}" --ro-bind "$(command -v qemu-arm-static)" /run/qemu-arm-static --chdir "$PWD" \
  "$project/scripts/lib/appliance-arm-programs.sh" /run/qemu-arm-static "$@"
