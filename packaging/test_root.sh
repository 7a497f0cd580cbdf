# shellcheck shell=bash disable=SC2034,SC2154  # what the scripts that source this set and use
# A Debian root in which the packages are installed and tried, without network and without a trace
# on the machine; sourced by tests/checks/packages and scripts/record with $project set. Works for
# root and for an ordinary user alike.
#
# Below build/packages: root, the bare root, made once; test-root, a copy that a test may spoil.

packages=$project/build/packages
bare=$packages/root
root=$packages/test-root

# What the packages depend on, and what is tried with them: there is no network to get it from later.
root_packages=(libssl3 libjsoncpp25 libpcap0.8 libseccomp2 libstdc++6 libssl-dev libjsoncpp-dev openssl nginx bsdutils
  cockpit-bridge)

need_root_packages() {
  need_packages <<'EOF'
mmdebstrap: makes a Debian root
debian-archive-keyring: the keys that its packages are signed with
uidmap: lets an ordinary user make it
bubblewrap: enters it
EOF
}

# The machine's own mirror.
mirror() {
  # shellcheck disable=SC2016 # apt-get replaces these itself
  apt-get indextargets --format '$(CODENAME) $(COMPONENT) $(REPO_URI)' 'Created-By: Packages' |
    awk '$1 == "bookworm" && $2 == "main" { print $3; exit }'
}

make_bare_root() {
  local address
  address=$(mirror)
  if [ -z "$address" ]; then
    echo "apt's sources on this machine name no mirror of Debian 12" >&2
    return 1
  fi
  echo "Making a Debian root at $bare (once; half a minute)"
  rm -rf "$bare" "$bare.incomplete"
  mkdir -p "$bare.incomplete"
  mmdebstrap --variant=essential --include="${root_packages[*]}" \
    --keyring=/usr/share/keyrings/debian-archive-keyring.gpg \
    --dpkgopt='path-exclude=/usr/share/locale/*' --dpkgopt=force-unsafe-io --quiet \
    bookworm - "deb $address bookworm main" |
    tar -C "$bare.incomplete" -xf - --no-same-owner --exclude='./dev/*'
  echo "${root_packages[*]}" > "$bare.incomplete.contents"
  mv "$bare.incomplete" "$bare"
  mv "$bare.incomplete.contents" "$bare.contents"
}

new_root() {
  need_root_packages
  [ "$(cat "$bare.contents" 2>/dev/null)" = "${root_packages[*]}" ] || make_bare_root
  rm -rf "$root"
  cp -a "$bare" "$root"
  echo '127.0.0.1 localhost' > "$root/etc/hosts"  # as on every machine that was really installed
}

# in_root [BWRAP-OPTION]... -- COMMAND...
in_root() {
  local options=()
  while [ "$1" != -- ]; do
    options+=("$1")
    shift
  done
  shift
  bwrap --unshare-user --uid 0 --gid 0 --cap-add ALL --unshare-net --unshare-pid \
    --die-with-parent --clearenv --setenv HOME /root --setenv LC_ALL C.UTF-8 \
    --setenv PATH /usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
    --bind "$root" / --dev /dev --proc /proc --tmpfs /tmp "${options[@]}" --chdir / "$@"
}

copy_packages() {
  mkdir -p "$root/packages"
  cp "$packages"/*_{amd64,all}.deb "$root/packages/"
  rm -f "$root"/packages/*-dbgsym_*
}

install_packages() {
  copy_packages
  quietly in_root -- sh -c 'dpkg --install /packages/*.deb'
  rm -r "$root/packages"
}

# What an administrator brings for the service nginx: the server's configuration and its certificate.
configure_nginx() {
  mkdir -p "$root"/usr/kelo/{run,etc/nginx,etc/ssl}
  # The root's only user is root, so the workers run as root too.
  sed '1i user root;
    s/^error_log .*/error_log \/usr\/kelo\/run\/nginx.log;/' \
    "$project/services/nginx/nginx.conf" > "$root/usr/kelo/etc/nginx/nginx.conf"
  in_root -- sh -c 'openssl req -x509 -newkey rsa:2048 -nodes -subj /CN=appliance -days 30 \
    -keyout /tmp/key -out /tmp/certificate 2> /dev/null &&
    cat /tmp/certificate /tmp/key > /usr/kelo/etc/ssl/nginx.pem'
}
