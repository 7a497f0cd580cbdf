#!/usr/bin/env bash
# Runs the tests of the appliance's build, which scripts/appliance has made, on a 32-bit ARM kernel:
# a whole machine is emulated, in which nothing is the host's, neither the kernel nor what the tests
# run beside what they test. Every test that is asked for has to pass; none may be skipped.
#
#   appliance-kernel.sh [CTEST-OPTION]...
#   appliance-kernel.sh --prove             plants faults and sees each of them noticed
#
# What it makes lies in build/appliance-kernel: root, the machine's files, made once; a disk of this
# checkout, made anew each time; console, what the kernel said; said, what ctest said.
set -euo pipefail

project=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
build=$project/build/appliance
machine=$project/build/appliance-kernel
# shellcheck source=scripts/lib/setup.sh
. "$project/scripts/lib/setup.sh"
PATH=$PATH:/usr/sbin:/sbin  # where the tools for disks and modules are

suite=bullseye
packages=(
  # what a machine starts with
  linux-image-armmp kmod busybox-static base-files base-passwd bash dash coreutils diffutils findutils
  grep gzip hostname iproute2 libc-bin mawk mount perl-base procps sed tar util-linux
  # what the command and the library need
  libjsoncpp24 libpcap0.8 libseccomp2 libssl1.1 libstdc++6
  # what the tests run beside them
  cmake locales openssl python3 strace
  # what the checks build with
  g++ libjsoncpp-dev libssl-dev ninja-build pkg-config)
# The tests take a newer bubblewrap and nginx, which come with the libraries that they need.
newer_suite=bookworm
newer_programs=(/usr/bin/bwrap /usr/sbin/nginx)
newer_packages=(bubblewrap nginx libc6 libcap2 libcrypt1 libpcre2-8-0 libselinux1 libssl3 zlib1g)
# What the machine needs to find its disks, to speak, and to have random numbers from the start.
modules=(virtio_mmio virtio_blk ext4 virtio_console virtio_rng)

# Judges the table of cases by two other renderers, and runs nothing of the build; the machine's
# generation of ruby cannot run one of them. The host runs it.
not_here=MustacheOracles

# Everything that decides what the machine's files are; where that has changed, they are made anew.
contents() {
  declare -f unpack add_newer_programs configure make_initial make_machine
  printf '%s\n' "$suite" "${packages[@]}" "$newer_suite" "${newer_packages[@]}" "${newer_programs[@]}" "${modules[@]}"
  cat "$project/scripts/lib/appliance-initial.sh"
}

# In a namespace in which all files of whoever runs this are root's, as they are in the machine.
as_root_of_files() { unshare --map-root-user -- "$@"; }

make_disk() { # make_disk FILE DIRECTORY MEBIBYTES
  rm -f "$1"
  truncate --size "$3M" "$1"
  as_root_of_files mke2fs -q -t ext4 -E root_owner=0:0 -d "$2" "$1"
}

unpack() { # unpack DIRECTORY SUITE PACKAGE...
  local files=$1 suite=$2
  shift 2
  mkdir -p "$files"
  mmdebstrap --variant=extract --architectures=armhf --include="$(IFS=,; echo "$*")" \
    --keyring=/usr/share/keyrings/debian-archive-keyring.gpg \
    --dpkgopt='path-exclude=/usr/share/doc/*' --dpkgopt='path-exclude=/usr/share/man/*' \
    --dpkgopt='path-exclude=/usr/share/locale/*' --dpkgopt=force-unsafe-io \
    "$suite" - "deb $(mirror) $suite main" 2> "$machine/$suite.log" |
    tar -C "$files" -xf - --no-same-owner --exclude='./dev/*' || {
    cat "$machine/$suite.log" >&2
    exit 1
  }
}

# Each finds its own C library beside the machine's, which is older.
add_newer_programs() { # add_newer_programs ROOT UNPACKED
  local libraries=/usr/lib/newer program
  mkdir "$1$libraries"
  find "$2"/{,usr/}lib/arm-linux-gnueabihf -maxdepth 1 -name '*.so*' -exec cp -L {} "$1$libraries" \;
  for program in "${newer_programs[@]}"; do
    cp "$2$program" "$1$program"
    patchelf --set-interpreter $libraries/ld-linux-armhf.so.3 --force-rpath --set-rpath $libraries "$1$program"
  done
  cp -r "$2"/etc/nginx "$1/etc"
  mkdir -p "$1"/var/{log,lib}/nginx
}

# Packages are only unpacked: to configure them would take ARM programs. What their scripts would have
# made, as far as tests meet it, is made here.
configure() {
  cp "$1/usr/share/base-passwd/passwd.master" "$1/etc/passwd"
  cp "$1/usr/share/base-passwd/group.master" "$1/etc/group"
  ln -sf mawk "$1/usr/bin/awk"
  ln -s ../../bin/true "$1/usr/bin/true"  # where it is once /bin is /usr/bin, as on an installed machine
  : > "$1/etc/ssl/openssl.cnf"  # OpenSSL's own defaults, as on the appliance
  mkdir -p "$1"/{dev,proc,run,sys,tmp,mnt,root}
  chmod 1777 "$1/tmp"
}

# The first file system: as much as it takes to mount the disk.
make_initial() { # make_initial ROOT DIRECTORY LINUX-VERSION
  local version=$3 module
  mkdir -p "$2"/{bin,dev,modules,proc,root,sys}
  cp "$1/bin/busybox" "$2/bin"
  ln -s busybox "$2/bin/sh"
  for module in "${modules[@]}"; do
    modprobe -d "$1" -S "$version" --show-depends "$module"
  done | awk '$1 == "insmod" && !seen[$2]++ { print $2 }' | while read -r module; do
    cp "$module" "$2/modules"
    echo "/modules/${module##*/}"
  done > "$2/modules/order"
  cp "$project/scripts/lib/appliance-initial.sh" "$2/init"
}

make_machine() {
  local started=$SECONDS work=$machine/root.incomplete version
  echo "Making the ARM machine at $machine (once; two minutes, 2 GB)"
  rm -rf "$work" "$machine/root"
  mkdir -p "$work"
  unpack "$work/files" "$suite" "${packages[@]}"
  unpack "$work/newer" "$newer_suite" "${newer_packages[@]}"
  add_newer_programs "$work/files" "$work/newer"
  configure "$work/files"
  version=$(basename "$work"/files/lib/modules/*)
  depmod -b "$work/files" "$version"
  make_initial "$work/files" "$work/initial" "$version"
  (cd "$work/initial" && find . | cpio --quiet -o -H newc -R 0:0) | gzip > "$work/initrd"
  cp "$work/files/boot/vmlinuz-$version" "$work/kernel"
  make_disk "$work/disk" "$work/files" 1536
  rm -rf "$work/files" "$work/newer" "$work/initial"
  contents > "$work/contents"
  mv "$work" "$machine/root"
  echo "Made it in $((SECONDS - started)) seconds: Linux $version"
}

# The checkout with the appliance's build, and what the machine is to do with them.
make_project_disk() { # make_project_disk CTEST-OPTION...
  local files=$machine/project
  rm -rf "$files"
  mkdir -p "$files/build"
  tar -C "$project" --exclude=./build --exclude=./.git -cf - . | tar -C "$files" -xf - --no-same-owner
  cp -a "$build" "$files/build"
  rm -rf "$files/build/appliance/Testing"
  find "$files/build" -name '*.o' -delete
  sed -i -E "/^(add_test|set_tests_properties)\($not_here /d" "$files/build/appliance/tests/CTestTestfile.cmake"
  printf '%s\0' "$@" > "$files/ctest-options"
  "${plant:-true}" "$files"
  make_disk "$machine/project.disk" "$files" 1024
  rm -rf "$files"
}

# Until the machine switches itself off. Its disk of files forgets what is written to it.
run_machine() {
  local disk said=$machine/said
  disk() { printf '%s\n' -drive "if=none,id=$1,format=raw,file=$2" -device "virtio-blk-device,drive=$1"; }
  mapfile -t disk < <(disk files "$machine/root/disk,snapshot=on"; disk project "$machine/project.disk")
  : > "$said"
  qemu-system-arm -M virt,highmem=off -cpu cortex-a15 -smp 2 -m 3072 -accel tcg,thread=multi \
    -nodefaults -no-reboot -display none -nic none \
    -kernel "$machine/root/kernel" -initrd "$machine/root/initrd" \
    -append "console=ttyAMA0 panic=-1 quiet project=$project" -serial "file:$machine/console" \
    "${disk[@]}" -device virtio-rng-device \
    -device virtio-serial-device -chardev "file,id=said,path=$said" \
    -device virtserialport,chardev=said,name=said &
  emulator=$!
  trap 'kill "$emulator" 2>/dev/null' EXIT
  tail --pid="$emulator" -n +1 -f "$said" &
  "${disturb:-true}"
  wait "$emulator" || echo "The machine ended with status $?" >&2
  wait "$!" || true
  trap - EXIT
}

# Ends with 0 only if each test that ctest would run here has passed there.
run_tests() { # run_tests CTEST-OPTION...
  local started=$SECONDS
  make_project_disk "$@"
  (cd "$build" && ctest --show-only "$@") |
    sed -nE 's/^ *Test +#[0-9]+: (.*)/\1/p' | { grep -vx "$not_here" || true; } > "$machine/expected"
  run_machine
  debugfs -R 'cat /build/appliance/Testing/Temporary/LastTest.log' "$machine/project.disk" \
    > "$machine/log" 2> /dev/null || true
  "$project/scripts/lib/appliance-verdicts" "$machine/expected" "$machine/said" "$machine/log" \
    $((SECONDS - started)) "$not_here"
}

# Faults, each of which has to be noticed

of_proof=(-R '^LevelSnapshot[.]OldIsAsCommitted$|^Bed[.](KnowsTheNames|HasDirectories)')

plant_library() {
  local library=$1/build/appliance/libkelotls.so.7
  sed -i 's/ECDHE-RSA-AES256-GCM-SHA384/ECDHE-RSA-AES128-GCM-SHA256/g' "$library"
  ! cmp -s "$build/libkelotls.so.7" "$library" || { echo 'No fault was planted' >&2; exit 1; }
}
plant_excuse() {
  sed -i 's/^export PATH=/export KELOTLS_EMULATED=1 PATH=/' "$1/scripts/lib/appliance-guest.sh"
}
stop_machine() {
  until grep -q ' Passed ' "$machine/said" || ! kill -0 "$emulator" 2>/dev/null; do sleep 0.2; done
  kill -KILL "$emulator"
}

proven() { # proven WHAT STATUS PATTERN
  local status=0
  printf '\n== %s\n' "$1"
  (run_tests "${of_proof[@]}") > "$machine/proof" 2>&1 || status=$?
  if [ "$status" = "$2" ] && grep -qE "$3" "$machine/proof"; then
    sed -n '/^On a 32-bit ARM kernel/,$p' "$machine/proof"
    return
  fi
  cat "$machine/proof"
  echo "It ended with status $status, not $2, or did not say: $3"
  exit 1
}

prove() {
  proven 'no fault' 0 '^ +3 passed'
  plant=plant_library proven 'a library with another list of ciphers' 1 \
    '^ +LevelSnapshot[.]OldIsAsCommitted: failed'
  plant=plant_excuse proven 'tests that excuse themselves' 1 '^ +Bed[.].*: the emulator shows'
  disturb=stop_machine proven 'a machine that stops' 1 'The machine ended before ctest did'
  printf '\nEvery fault was noticed\n'
}

need_packages <<'END'
qemu-system-arm: emulates a whole ARM machine
kmod: finds the modules that its kernel starts with
cpio: packs them
patchelf: has newer programs find the libraries of their own
e2fsprogs: makes its disks and reads them
END
mkdir -p "$machine"
[ "$(cat "$machine/root/contents" 2>/dev/null)" = "$(contents)" ] || make_machine
if [ "${1-}" = --prove ]; then
  prove
else
  run_tests "$@"
fi
