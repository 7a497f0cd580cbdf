# shellcheck shell=bash
# Fetches the source of the installed jsoncpp, so that the fuzzers can have it instrumented.

# fetch_jsoncpp_source DIRECTORY: unpacks into DIRECTORY what Debian built the installed package from, with
# Debian's changes. From the mirrors that the machine is set up with, and with lists of its own: the
# machine's do not usually hold sources, and stay as they are.
fetch_jsoncpp_source() {
  local directory=$1 work=$1.work file
  local version apt
  version=$(dpkg-query --show --showformat '${source:Version}' libjsoncpp-dev)
  if [ "$(cat "$directory/VERSION_OF_PACKAGE" 2>/dev/null)" = "$version" ]; then
    return
  fi
  rm -rf "$directory" "$work"
  mkdir -p "$work"/{sources,lists/partial,cache/archives/partial}
  for file in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
    [ ! -f "$file" ] || sed -n 's/^deb\s/deb-src /p' "$file" > "$work/sources/${file##*/}.list"
  done
  for file in /etc/apt/sources.list.d/*.sources; do
    [ ! -f "$file" ] || sed 's/^Types:.*/Types: deb-src/' "$file" > "$work/sources/${file##*/}"
  done
  apt=(apt-get -o Dir::Etc::SourceList=/dev/null -o Dir::Etc::SourceParts="$work/sources"
       -o Dir::State::Lists="$work/lists" -o Dir::Cache="$work/cache")
  # A mirror of somebody else's packages may have no sources; what counts is the next step.
  quietly "${apt[@]}" update || true
  (cd "$work" && quietly "${apt[@]}" source --only-source "libjsoncpp=$version")
  mv "$work"/libjsoncpp-*/ "$directory"
  rm -rf "$work"
  echo "$version" > "$directory/VERSION_OF_PACKAGE"
}
