# shellcheck shell=bash disable=SC2034,SC2154  # what the other scripts set and use
# The demo's second chapter: services join, change levels, are restored and leave; sourced by
# scripts/demo.

chapter_managing() {
  chapter '2. An administrator changes levels, and running services follow'
  say 'OpenSSL runs at security level 0 here, so that level old shows itself whole.'
  export OPENSSL_CONF=$work/security_level_0.cnf
  install_services
  join_services
  start_nginx
  start_tls_service tls_service rsa --pid-file /usr/kelo/run/tls_service.pid

  for level in modern intermediate old; do
    change_level "$level"
  done
  back_up_and_restore
  regenerate
  refuse_a_registration
  leave
  stop nginx
  stop tls_service
}

# What is left to do for an administrator of nginx, and what tls_service's package would bring along.
install_services() {
  cp /usr/share/kelotls/services/nginx/nginx.conf /usr/kelo/etc/nginx/
  cp -r "$project/examples/tls_service" /usr/kelo/share/
  cp "$work/rsa.pem" /usr/kelo/etc/ssl/nginx.pem
}

join_services() {
  say 'nginx (with a template of its TLS settings and a reloader) and tls_service (with a reloader) join a
framework that is empty so far:'
  echo '{ "default-level": 2, "services": {} }' > "$framework/datastore.json"
  expect 'nginx joins' call join /usr/share/kelotls/services/nginx/registration.json
  expect 'tls_service joins' call join /usr/kelo/share/tls_service/registration.json
  expect 'templates are rendered' call render
  say 'The data store and the files are now:'
  show "$framework/datastore.json"
  list_files
}

list_files() {
  find "$framework" /usr/local/libexec/security-profile \
    \( -type l -printf '%p -> %l\n' -o -type f -print \) | sort | show
}

start_nginx() {
  # The tree's only user is root, so the workers run as root too.
  /usr/sbin/nginx -c /usr/kelo/etc/nginx/nginx.conf -g 'user root; daemon off;' \
    2> "$work/nginx.err" &
  pid[nginx]=$!
  port[nginx]=8443
  expect 'nginx serves' within_seconds 5 connect nginx tls1_3
}

change_level() {
  say "Level $1 for both:"
  expect 'nginx is set' call set nginx "$1"
  expect 'tls_service is set' call set tls_service "$1"
  apply_levels
  grep ssl_protocols "$framework/config/nginx.conf" | show
  show_accepted "$1" "$1"
}

# Renders and reloads, and waits until nginx serves with new workers only.
apply_levels() {
  local workers
  workers=$(nginx_workers)
  expect 'templates are rendered' call render
  expect 'reloaders run' call reload
  expect 'nginx has new workers' within_seconds 10 no_worker_of "$workers"
  show_log
}

nginx_workers() { cat "/proc/${pid[nginx]}/task/${pid[nginx]}/children"; }

no_worker_of() {
  local worker now
  now=" $(nginx_workers)"
  for worker in $1; do
    [[ $now != *" $worker "* ]] || return 1
  done
  [ -n "${now// /}" ]
}

# show_accepted LEVEL-OF-NGINX LEVEL-OF-TLS_SERVICE: what both accept, held against their levels.
show_accepted() {
  local service version level cell row=(15 '')
  for version in "${versions[@]}"; do
    row+=(10 "${version_name[$version]}")
  done
  columns "${row[@]}"
  for service in nginx:"$1" tls_service:"$2"; do
    level=${service#*:} service=${service%:*}
    row=(15 "$service")
    for version in "${versions[@]}"; do
      if may "$level" "$version"; then
        expect "$service accepts ${version_name[$version]}" connect "$service" "$version"
      else
        expect "$service refuses ${version_name[$version]}" fails connect "$service" "$version"
      fi
      cell=—
      [ -z "$suite" ] || cell=yes
      row+=(10 "$cell")
    done
    columns "${row[@]}"
  done
}

back_up_and_restore() {
  local saved=$work/saved.json
  say 'A backup of the data store is a copy of its file. Levels before it:'
  expect 'nginx is set' call set nginx modern
  expect 'tls_service is set' call set tls_service default
  expect 'the default is set' call set-default old
  cp "$framework/datastore.json" "$saved"
  show_levels 3 nginx 1 tls_service 3

  say 'Levels change:'
  expect 'the default is set' call set-default modern
  expect 'nginx is set' call set nginx old
  expect 'tls_service is set' call set tls_service intermediate
  show_levels 1 nginx 3 tls_service 2

  say 'They are restored:'
  expect 'levels are restored' call restore "$saved"
  show_levels 3 nginx 1 tls_service 3
  apply_levels
  show_accepted modern old
}

# show_levels DEFAULT SERVICE LEVEL...: prints the levels, which have to be these.
show_levels() {
  local wanted shown
  wanted="DataStoreProvider().get_default_level() → $1"
  shift
  while [ $# -gt 0 ]; do
    wanted+=$'\n'"DataStoreProvider().get_service_level(\"$1\") → $2"
    shift 2
  done
  shown=$("$build/examples/framework" levels)
  show <<< "$shown"
  expect "levels are $wanted" test "$shown" = "$wanted"
}

regenerate() {
  say 'An update renames the web server in its descriptor file. The data store takes that over and keeps
the levels:'
  sed -i 's/Web server/Web server 2/' "$framework/services/nginx.conf"
  expect 'the data store is regenerated' call regen
  expect 'the new name is there' grep '"Web server 2"' "$framework/datastore.json"
  show_levels 3 nginx 1 tls_service 3
}

refuse_a_registration() {
  say 'A registration with a fault changes nothing, and the system log says what was wrong:'
  echo '{ "services": [ { "service": "ftp", "display-name": "FTP", "reloader-path": "" } ] }' \
    > "$work/faulty.json"
  show "$work/faulty.json"
  expect 'the join fails' fails call join "$work/faulty.json"
  show_log
}

leave() {
  say 'Both leave. Nothing of them is left:'
  expect 'nginx leaves' call leave /usr/share/kelotls/services/nginx/registration.json
  expect 'tls_service leaves' call leave /usr/kelo/share/tls_service/registration.json
  list_files
  # Where the command's package is installed, its lock and its history are there too.
  expect 'only the data store is left' \
    test "$(list_files | grep -vE '/(lock|history\.jsonl)$')" = "    $framework/datastore.json"
  show "$framework/datastore.json"
  show_log
}
