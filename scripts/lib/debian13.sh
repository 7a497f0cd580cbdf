# shellcheck shell=bash
# A Debian 13 below build/, made once, with what the project is built and tested with; sourced by the
# scripts that need one. They have sourced setup.sh, and have set project.

debian13_root=$project/build/debian13-root
debian13_build=$project/build/debian13

# need_debian13: makes the root where there is none with these packages.
need_debian13() {
  local packages
  need_packages <<'END'
mmdebstrap: makes the root of Debian 13
debian-archive-keyring: the keys that its packages are signed with
uidmap: lets an ordinary user make it
bubblewrap: enters it
END
  packages=$("$project/scripts/test" --packages | sort)
  mkdir -p "$debian13_build"
  [ "$(cat "$debian13_root/contents" 2> /dev/null)" != "$packages" ] || return 0
  echo "Making a root of Debian 13 at $debian13_root (once; a minute or two)"
  rm -rf "$debian13_root" "$debian13_root.incomplete"
  mkdir -p "$debian13_root.incomplete${project%/*}"
  # By way of an archive, so that every file ends up belonging to whoever runs this, and can be
  # removed by the same. Device files are neither wanted nor theirs to make.
  mmdebstrap --variant=apt --include="$(tr '\n' , <<< "$packages")" \
    --keyring=/usr/share/keyrings/debian-archive-keyring.gpg --dpkgopt=force-unsafe-io \
    trixie - "deb $(mirror) trixie main" 2> "$debian13_root.log" |
    tar -C "$debian13_root.incomplete" -xf - --no-same-owner --exclude='./dev/*' ||
    { cat "$debian13_root.log" >&2; return 1; }
  echo "$packages" > "$debian13_root.incomplete/contents"
  mv "$debian13_root.incomplete" "$debian13_root"
}

# in_debian13 COMMAND...: the project read-only at its own path, but for the build; no network. Root keeps
# every user, because servers that change theirs are tried only where there are many.
in_debian13() {
  local users=()
  [ "$EUID" = 0 ] || users=(--unshare-user --uid 0 --gid 0)
  bwrap "${users[@]}" --cap-add ALL --unshare-net --die-with-parent --clearenv \
    --setenv HOME /tmp --setenv LANG C.UTF-8 --setenv PATH /usr/sbin:/usr/bin:/sbin:/bin \
    --ro-bind "$debian13_root" / --dev /dev --proc /proc --perms 1777 --tmpfs /tmp --tmpfs "${project%/*}" \
    --ro-bind "$project" "$project" --bind "$debian13_build" "$debian13_build" --chdir "$project" "$@"
}

# build_on_debian13 [CMAKE-BUILD-OPTION]...
build_on_debian13() {
  quietly in_debian13 cmake -S "$project" -B "$debian13_build" -G Ninja -DCMAKE_BUILD_TYPE=Release
  in_debian13 cmake --build "$debian13_build" -j "$(nproc)" "$@"
}
