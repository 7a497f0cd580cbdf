# shellcheck shell=bash disable=SC2034,SC2119,SC2120,SC2154  # what the other scripts set and use
# The demo's words: telling, checking, running servers and connecting to them; sourced by scripts/demo
# with $project and $build set.

work=/tmp/demo
framework=/usr/kelo/etc/security-profile/tls-profile
versions=(tls1 tls1_1 tls1_2 tls1_3)
declare -A version_name=([tls1]='TLS 1.0' [tls1_1]='TLS 1.1' [tls1_2]='TLS 1.2' [tls1_3]='TLS 1.3')
declare -A allowed=(
  [modern]='tls1_3'
  [intermediate]='tls1_2 tls1_3'
  [old]='tls1 tls1_1 tls1_2 tls1_3')
declare -A pid port
expectations=0
failures=0

# Telling

bold='' dim='' red='' plain=''
if [ -t 1 ] && [ -z "${NO_COLOR-}" ]; then
  bold=$'\e[1m' dim=$'\e[2m' red=$'\e[31m' plain=$'\e[0m'
fi

chapter() { printf '\n%s%s%s\n' "$bold" "$1" "$plain"; }
say() { printf '\n%s\n' "$1"; }
show() { sed "s/^/    /" "$@"; }

# columns WIDTH TEXT [WIDTH TEXT]...: one line. Pads by characters, where printf's own padding counts bytes.
columns() {
  local line=''
  while [ $# -gt 0 ]; do
    line+=$2
    [ $# = 2 ] || line+=$(printf '%*s' $(($1 - ${#2})) '')
    shift 2
  done
  printf '    %s\n' "$line"
}

# Checking

# expect WHAT COMMAND...: silent while the story goes as it should.
expect() {
  local what=$1
  shift
  expectations=$((expectations + 1))
  if ! "$@"; then
    failures=$((failures + 1))
    printf '    %sNot as it should be: %s%s\n' "$red" "$what" "$plain"
  fi
}

report() {
  if [ "$failures" != 0 ]; then
    printf '\n%s%d of %d expectations failed.%s\n' "$red" "$failures" "$expectations" "$plain"
    return 1
  fi
  printf '\nAll %d expectations hold (%d s).\n' "$expectations" "$SECONDS"
}

fails() { ! "$@"; }

# within_seconds N COMMAND...: whether it succeeds by then.
within_seconds() {
  local end=$((SECONDS + $1))
  shift
  until "$@"; do
    [ "$SECONDS" -le "$end" ] || return 1
    sleep 0.02
  done
}

# The appliance

make_appliance() {
  mkdir -p "$work" "$framework"/{services,config} /usr/kelo/run /usr/kelo/etc/{ssl,nginx} \
    /usr/kelo/share {/usr,/usr/local}/libexec/security-profile/tls-profile
  cp "$project"/tests/bed/data/dh{1024,2048}.pem /usr/kelo/etc/ssl/
  "$project/tests/bed/make_certificates" "$work"
  for level in 0 1; do
    security_level "$level" > "$work/security_level_$level.cnf"
  done
  "$build/examples/print_log" >> "$work/log" &
  pid[print_log]=$!
  within_seconds 5 test -S /dev/log
}

# An OpenSSL configuration that puts programs at this security level.
security_level() {
  cat <<EOF
openssl_conf = top
[top]
ssl_conf = ssl
[ssl]
system_default = defaults
[defaults]
CipherString = DEFAULT:@SECLEVEL=$1
MinProtocol = TLSv1
EOF
}

# call NAME ARGUMENT...: one call of the management side.
call() { "$build/examples/framework" "$@" | show; }

# What the library has logged since the last time. A mark behind it shows that all of it is there.
show_log() {
  logger --socket /dev/log --tag demo mark
  within_seconds 5 grep -q '^demo: mark$' "$work/log"
  sed "/^demo: mark$/d; s/^/    ${dim}log: /; s/\$/$plain/" "$work/log"
  : > "$work/log"
}

# Servers

# start_tls_service NAME CERTIFICATE [OPTION]...
start_tls_service() {
  local name=$1 certificate=$2
  shift 2
  rm -f "$work/$name.out"
  "$build/examples/tls_service" "$@" "$name" "$work/$certificate.pem" > "$work/$name.out" &
  pid[$name]=$!
  expect "$name listens" within_seconds 5 grep -qs listening "$work/$name.out"
  port[$name]=$(sed -n 's/listening on .*://p' "$work/$name.out")
}

stop() {
  kill "${pid[$1]}"
  expect "$1 ends with status 0" wait "${pid[$1]}"
  unset "pid[$1]"
}

stop_all() {
  for name in "${!pid[@]}"; do
    kill "${pid[$name]}" 2>/dev/null || true
  done
}

# Clients

# connect SERVICE VERSION [CIPHERS]: one request of a client that takes anything. What was negotiated
# is then in suite and group; both are empty if the connection was refused.
connect() {
  local output protocol=${version_name[$2]/ /v}
  protocol=${protocol%.0}
  suite='' group=''
  output=$(printf 'GET / HTTP/1.0\r\n\r\n' |
    timeout 10 openssl s_client -connect "127.0.0.1:${port[$1]}" "-$2" \
      -cipher "${3-ALL}:@SECLEVEL=0" -ign_eof 2>&1) || return 1
  suite=$(sed -n 's/^New, .*, Cipher is //p' <<< "$output")
  group=$(sed -n 's/^\(Server\|Peer\) Temp Key: //p' <<< "$output" |
    sed 's/ECDH, \(.*\), .*/\1/')
  group=${group:-RSA}
  expect "$1 answers with what the client sees, $protocol $suite" \
    grep -q "^$protocol $suite" <<< "$output"
}
