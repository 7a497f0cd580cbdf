#!/usr/bin/env bash
# Sets a service's level and renders all templates, as a shell script with jq would, in the library's
# files: one jq for the data store, one for all descriptors, one sed for each template. Knows the
# templates' sections and comments on lines of their own; checks nothing. Writes as safely as the
# library.
#
#   set_and_render.sh SERVICE LEVEL
set -euo pipefail
framework=/usr/kelo/etc/security-profile/tls-profile
cd "$framework"

temporary=$(mktemp "$framework/datastore.json.XXXXXX")
# The layout is the library's: blanks around colons, an object on a line of its own.
jq --sort-keys --arg service "$1" --argjson level "$2" \
  '.services[$service]["current-level"] = $level' datastore.json |
  sed -E -e 's/^( *)("[^"]*"): \{$/\1\2 : \n\1{/' -e 's/^( *"[^"]*"): /\1 : /' > "$temporary"
chmod --reference datastore.json "$temporary"
sync "$temporary"
mv "$temporary" datastore.json
sync .

jq --raw-output --slurpfile stores datastore.json '
  $stores[0] as $store
  | $store.services[.service]["current-level"] as $level
  | [.service, ."mustache-path", if $level == 0 then $store["default-level"] else $level end]
  | @tsv' services/*.conf |
  {
    temporaries=()
    while IFS=$'\t' read -r service template level; do
      others=()
      for tier in 1:modern 2:intermediate 3:old; do
        [ "${tier%:*}" = "$level" ] ||
          others+=(-e "/^{{#mozilla_${tier#*:}}}\$/,/^{{\/mozilla_${tier#*:}}}\$/d")
      done
      temporary=$(mktemp "config/$service.conf.XXXXXX")
      sed "${others[@]}" -e '/^{{!.*}}$/d' -e '/^{{!/,/}}$/d' -e '/^{{[#\/]/d' \
        "$template" > "$temporary"
      temporaries+=("$temporary")
    done
    sync "${temporaries[@]}"
    for temporary in "${temporaries[@]}"; do
      mv "$temporary" "${temporary%.*}"
    done
  }
