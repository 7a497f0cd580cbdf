# shellcheck shell=bash
# Words for scripts that set up what they need on a Debian machine; sourced by them.

package_installed() {
  dpkg-query --show --showformat '${db:Status-Status}\n' "$1" 2>/dev/null | grep -qx installed
}

as_root() {
  if [ "$(id -u)" = 0 ]; then
    "$@"
  elif command -v sudo >/dev/null; then
    sudo "$@"
  else
    echo "This needs root, and there is no sudo. As root: $*" >&2
    return 1
  fi
}

# quietly COMMAND...: its output shows only if it fails.
quietly() {
  local output status=0
  output=$("$@" 2>&1 </dev/null) || status=$?
  if [ "$status" != 0 ]; then
    printf '%s\n' "$output" "$* ended with status $status" >&2
  fi
  return "$status"
}

# build_release TARGET...: in build/release of the project's directory, which is the current one. Scripts may
# run beside each other, and two that configure one build tree at once remove each other's files.
build_release() {
  mkdir -p build
  (
    flock 9
    quietly cmake --preset release
    quietly cmake --build --preset release --target "$@"
  ) 9> build/release.lock
}

# apt_get ARGUMENT...: its output shows only if it fails. While another apt is at work, as on a machine
# that has just booted, it waits: apt's own DPkg::Lock::Timeout is for one lock of three.
apt_get() {
  local output waits=
  until output=$(quietly as_root env LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive apt-get "$@" 2>&1); do
    if [[ $output != *'Could not get lock '* ]]; then
      printf '%s\n' "$output" >&2
      return 1
    fi
    output=${output#*Could not get lock }
    [ -n "$waits" ] || echo "Waiting for another apt to finish: ${output%%$'\n'*}" >&2
    waits=1
    sleep 1
  done
}

# need_packages <<< "package: why" lines. Installs the ones that are missing and says why; says and
# does nothing where all are there. Leaves the new ones in new_packages.
need_packages() {
  local package why
  new_packages=()
  while IFS=: read -r package why; do
    if ! package_installed "$package"; then
      [ ${#new_packages[@]} -gt 0 ] || echo 'Installing what is missing:'
      printf '  %-16s%s\n' "$package" "${why# }"
      new_packages+=("$package")
    fi
  done
  if [ ${#new_packages[@]} -gt 0 ]; then
    apt_get update
    apt_get install --yes --no-install-recommends "${new_packages[@]}"
  fi
}

# stop_new_service PACKAGE [UNIT]: Debian starts the services that it installs, now and at each boot. One
# that came only because a script here needs its program is stopped again.
stop_new_service() {
  if [[ " ${new_packages[*]-} " == *" $1 "* ]] && [ -d /run/systemd/system ]; then
    quietly as_root systemctl disable --now "${2-$1}"
  fi
}

# What the tests run beside what they test, whichever build that is.
need_test_packages() {
  need_packages <<'EOF'
bubblewrap: gives each test a private appliance tree
binutils: looks into the built library
locales: a locale with a decimal comma, which no rendered number may show
nginx-light: the real server behind the first of the services
openssl: makes the tests' certificates, and is their client
python3-pystache: makes the services' templates; an independent judge of the renderer's cases
ruby-mustache: another one
EOF
  stop_new_service nginx-light
}

# The machine's own mirror, which serves the suites of all generations.
mirror() {
  # shellcheck disable=SC2016 # apt-get replaces these itself
  apt-get indextargets --format '$(CODENAME) $(COMPONENT) $(REPO_URI)' 'Created-By: Packages' |
    awk -v suite="$(. /etc/os-release && echo "$VERSION_CODENAME")" \
      '$1 == suite && $2 == "main" { print $3; exit }'
}
