# shellcheck shell=bash
# How the Debian packages are built; sourced after setup.sh by scripts that are in the project's directory.
. scripts/lib/page.sh

need_package_builders() {
  need_packages <<'END'
debhelper: builds the packages
dpkg-dev: the same
fakeroot: the same, for ordinary users
g++: compiles the library
cmake: builds it
ninja-build: builds it, in parallel
pkg-config: finds the libraries
libssl-dev: OpenSSL, which the contexts are made with
libjsoncpp-dev: JSON, which everything is stored in
libcli11-dev: the command's arguments
libpcap-dev: reads packets, for the management command
libseccomp-dev: leaves to what reads them few system calls
python3-pystache: makes the services' templates from the table of levels
END
  need_page_modules
}

# What the packages for the appliance are built with stands in its SDK.
need_appliance_builders() {
  if [ ! -e build/appliance/platform/libkelocore.so.7 ]; then
    echo "There is no build for the appliance yet: run scripts/appliance first" >&2
    return 1
  fi
  need_packages <<< "libcli11-dev: the command's arguments"
}

# make_package_source DIRECTORY [TAR-OPTION]...: the files as they are here, with debian/ where dpkg wants it,
# and with the modules that the page is built of.
make_package_source() {
  rm -rf "$1"
  mkdir -p "$1"
  tar -c --exclude=./build --exclude=./.git --exclude=./packaging --exclude=./cockpit/dist "${@:2}" . |
    tar -C "$1" -x
  cp -r packaging/debian "$1/debian"
}

# build_packages DIRECTORY: builds such a source; the packages come beside it.
build_packages() { env --chdir="$1" dpkg-buildpackage --build=binary --no-sign --jobs=2; }

# build_appliance_packages DIRECTORY [VARIABLE=VALUE]...: likewise, in the SDK, which sees what is below
# build/ and has no other variables than these.
build_appliance_packages() {
  # Headers alone, the same for every architecture; the SDK's release does not have them.
  mkdir "$1/headers"
  cp -r /usr/include/CLI "$1/headers/"
  # The dependencies are the SDK's, which names them in scripts/appliance.
  scripts/lib/appliance-in-sdk.sh env --chdir="$1" "${@:2}" \
    KELOTLS_PLATFORM_DIR="$PWD/build/appliance/platform" KELOTLS_HEADER_DIR="$1/headers" \
    DEB_BUILD_PROFILES='cross nocheck' DEB_BUILD_OPTIONS='nocheck parallel=2' \
    dpkg-buildpackage --build=any --no-sign --no-check-builddeps --host-arch=armhf
}
