# shellcheck shell=bash disable=SC2034,SC2154  # what the other scripts set and use
# The demo's first chapter: services ask for a context and serve with it; sourced by scripts/demo.

services=(portal files printer mail)
declare -A level_of=([portal]=modern [files]=intermediate [printer]=old [mail]=intermediate)
declare -A certificate_of=([portal]=rsa [files]=rsa [printer]=rsa [mail]=ecdsa)
refusals=()  # "service version ciphers" that the level allows and the host refused

chapter_serving() {
  chapter '1. A service asks for the settings of its level and serves with them'
  say 'Three services have a level of their own, one follows the default. The data store:'
  cat > "$framework/datastore.json" <<'EOF'
{ "default-level": 2,
  "services": {
    "portal":  { "display-name": "Web portal",   "current-level": 1 },
    "files":   { "display-name": "File sharing", "current-level": 2 },
    "printer": { "display-name": "Printing",     "current-level": 3 },
    "mail":    { "display-name": "Mail",         "current-level": 0 } } }
EOF
  show "$framework/datastore.json"

  say 'Each is a small TLS server in C, examples/tls_service.c. A client that takes anything asks it for
one protocol version after another:'
  start_services
  show_what_is_negotiated
  say 'A client that has only temporary Diffie-Hellman parameters to agree on a key with (TLS 1.2):'
  show_temporary_parameters
  stop_services
  explain_refusals

  say 'A service that has not joined gets no settings. The system log says so:'
  expect 'nobody is not served' fails start_unjoined
  show_log
}

start_services() {
  local service
  for service in "${services[@]}"; do
    start_tls_service "$service" "${certificate_of[$service]}"
  done
}

stop_services() {
  local service
  for service in "${services[@]}"; do
    stop "$service"
  done
}

row() { columns 26 "$1" 10 "$2" 31 "$3" 0 "${4-}"; }

# try_row TITLE SERVICE VERSION [CIPHERS]: connects, shows the outcome, holds it against the level.
try_row() {
  local title=$1 service=$2 version=$3 level=${level_of[$2]}
  shift
  if connect "$@"; then
    expect "$level refuses ${version_name[$version]}" may "$level" "$version"
    row "$title" "${version_name[$version]}" "$suite" "$group"
  else
    columns 26 "$title" 10 "${version_name[$version]}" 0 —
    if may "$level" "$version"; then
      refusals+=("$*")
    fi
  fi
}

may() { [[ " ${allowed[$1]} " == *" $2 "* ]]; }

show_what_is_negotiated() {
  local service version title
  row 'service, level' version 'cipher suite' 'key agreement'
  for service in "${services[@]}"; do
    title="$service, ${level_of[$service]}"
    [ "$service" != mail ] || title="$service, default"
    for version in "${versions[@]}"; do
      try_row "$title" "$service" "$version"
      title=''
    done
    expect "$service serves TLS 1.3" connect "$service" tls1_3
    expect "$service agrees on its first group" test "$group" = prime256v1
  done
}

show_temporary_parameters() {
  local service
  for service in files printer; do
    try_row "$service, ${level_of[$service]}" "$service" tls1_2 DHE-RSA-AES128-GCM-SHA256
  done
}

# What a level allows and the host refused: looks for the security level from which it works.
explain_refusals() {
  local refusal security_level service version ciphers
  declare -A outcome=()
  [ ${#refusals[@]} -gt 0 ] || return 0
  for security_level in 1 0; do
    export OPENSSL_CONF=$work/security_level_$security_level.cnf
    start_services
    for refusal in "${refusals[@]}"; do
      # shellcheck disable=SC2086  # service, version and ciphers are words
      if [ -z "${outcome[$refusal]-}" ] && connect $refusal; then
        outcome[$refusal]="$security_level: $suite, $group"
      fi
    done
    stop_services
    unset OPENSSL_CONF
  done

  say "$(openssl version | cut -d ' ' -f 1-2) is built for security level $(built_security_level) and refused some of what the levels allow.
The highest security level at which that connects:"
  for refusal in "${refusals[@]}"; do
    read -r service version ciphers <<< "$refusal"
    columns 31 "$service, ${version_name[$version]}${ciphers:+, DHE only}" 0 "${outcome[$refusal]-}"
    expect "$refusal connects at security level 0" test -n "${outcome[$refusal]-}"
  done
  if ! openssl ciphers DES-CBC3-SHA:@SECLEVEL=0 >/dev/null 2>&1; then
    columns 31 'printer, DES-CBC3-SHA' 0 'none: this OpenSSL is built without it'
  fi
}

built_security_level() { openssl version -f | sed -n 's/.*TLS_SECURITY_LEVEL=\([0-9]\).*/\1/p'; }

start_unjoined() { timeout 5 "$build/examples/tls_service" nobody "$work/rsa.pem" 2>&1 | show; }
