# Completion of kelotlsctl for bash: commands, options, the names of services, levels, files.

_kelotlsctl() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]}
  local commands='list status show get set default levels explain probe check metrics history confirm revert
    undo redo settle validate catalogue join leave address clients regen render reload apply backup restore init recover dh'
  local levels='modern intermediate old default'
  local command='' position=0 index word
  for ((index = 1; index < COMP_CWORD; index++)); do
    word=${COMP_WORDS[index]}
    case $word in
      --default | --from | --connect | --preview | --level | --state | --reason | --reload-timeout | \
        --starttls | --servername | --confirm | --until | --then | --textfile | --for | --interface | \
        --port | --prefix | --prefix6 | --limit | --certificate) ((index++)) ;;
      -*) ;;
      *) if [[ -z $command ]]; then command=$word; else ((position++)); fi ;;
    esac
  done
  COMPREPLY=()

  local words=''
  case $previous in
    --default | --then) words=$levels ;;
    --from | --textfile) _kelotlsctl_files "$current"; return ;;
    --preview) _kelotlsctl_files "$current"; _kelotlsctl_services "$current"; return ;;
    --level) words='modern intermediate old'; [[ $command != list ]] || words=$levels ;;
    --state)
      words='in-force pending-render pending-reload next-context cannot-render unusable-level needs-root differs cannot-tell no-answer as-expected unreachable'
      ;;
    --starttls) words='smtp imap pop3 ftp ldap postgres mysql sieve xmpp nntp' ;;
    --confirm) words='90 5m 2h' ;;
    --connect | --reason | --reload-timeout | --servername | --until | --for | --interface | --port | \
      --prefix | --prefix6 | --limit | --certificate) return ;;
    *)
      case $command in
        '') words="$commands --json --json-lines --quiet --reason --trust-anyway --version --help" ;;
        *) [[ $current == -* ]] && words=$(_kelotlsctl_options "$command") ;;
      esac
      ;;
  esac
  if [[ -z $words && $current != -* ]]; then
    case $command:$position in
      show:0 | get:0 | set:0 | probe:0 | history:0 | address:0) _kelotlsctl_services "$current"; return ;;
      clients:0) words='record import show judge forget' ;;
      clients:1) _kelotlsctl_services "$current"; return ;;
      clients:*) _kelotlsctl_services "$current"; _kelotlsctl_files "$current"; words=$levels ;;
      set:*) _kelotlsctl_services "$current"; words=$levels ;;
      render:* | reload:* | apply:* | check:*) _kelotlsctl_services "$current"; return ;;
      explain:0) _kelotlsctl_services "$current"; words=$levels ;;
      default:0) words=$levels ;;
      validate:0 | catalogue:0 | join:0 | leave:0 | backup:0 | restore:0) _kelotlsctl_files "$current"; return ;;
    esac
  fi
  local word_list
  mapfile -t word_list < <(compgen -W "$words" -- "$current")
  COMPREPLY+=("${word_list[@]}")
}

_kelotlsctl_options() {
  local options='--json --json-lines --quiet --reason --trust-anyway --help'
  case $1 in
    list) options+=' --level --state --terse --names --findings --files' ;;
    status) options+=' --files' ;;
    set) options+=' --dry-run --apply --all --refuse-loss --confirm --until --then --reload-timeout' ;;
    default) options+=' --dry-run --apply --refuse-loss --confirm --reload-timeout' ;;
    apply) options+=' --dry-run --confirm --reload-timeout' ;;
    reload | undo | redo) options+=' --dry-run --reload-timeout' ;;
    settle) options+=' --wait --before-services' ;;
    check) options+=' --all --plugin' ;;
    metrics) options+=' --survey --textfile' ;;
    join) options+=' --dry-run --replace --confirm' ;;
    leave | restore) options+=' --dry-run --confirm' ;;
    regen | backup) options+=' --dry-run' ;;
    render) options+=' --dry-run --check --preview --level' ;;
    probe) options+=' --connect' ;;
    clients) options+=' --for --interface --port --no-addresses --prefix --prefix6 --limit --certificate' ;;
    address) options+=' --dry-run --starttls --servername --remove' ;;
    dh) options+=' --dry-run --force' ;;
    init) options+=' --dry-run --default' ;;
    recover) options+=' --dry-run --default --from' ;;
  esac
  echo "$options"
}

# A name may hold blanks and quotes: each is one line, and goes in quoted.
_kelotlsctl_services() {
  local name
  while IFS= read -r name; do
    [[ $name == "$1"* ]] && COMPREPLY+=("$(printf '%q' "$name")")
  done < <(kelotlsctl --quiet list --names 2> /dev/null)
}

_kelotlsctl_files() {
  local name
  compopt -o filenames 2> /dev/null
  while IFS= read -r name; do
    COMPREPLY+=("$name")
  done < <(compgen -f -- "$1")
}

complete -F _kelotlsctl kelotlsctl
