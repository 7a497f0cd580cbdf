# Completion of kelotlsctl for bash: commands, options, the names of services, levels, files.

_kelotlsctl() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]}
  local commands='list show get set default levels explain probe check validate join leave regen
    render reload apply backup restore init recover'
  local levels='modern intermediate old default'
  local command='' position=0 index word
  for ((index = 1; index < COMP_CWORD; index++)); do
    word=${COMP_WORDS[index]}
    case $word in
      --default | --from | --connect | --preview | --level) ((index++)) ;;
      -*) ;;
      *) if [[ -z $command ]]; then command=$word; else ((position++)); fi ;;
    esac
  done
  COMPREPLY=()

  local words=''
  case $previous in
    --default) words=$levels ;;
    --from) _kelotlsctl_files "$current"; return ;;
    --preview) _kelotlsctl_files "$current"; _kelotlsctl_services "$current"; return ;;
    --level) words='modern intermediate old' ;;
    --connect) return ;;
    *)
      case $command in
        '') words="$commands --json --quiet --version --help" ;;
        *) [[ $current == -* ]] && words=$(_kelotlsctl_options "$command") ;;
      esac
      ;;
  esac
  if [[ -z $words && $current != -* ]]; then
    case $command:$position in
      show:0 | get:0 | set:0 | probe:0) _kelotlsctl_services "$current"; return ;;
      explain:0) _kelotlsctl_services "$current"; words=$levels ;;
      set:1 | default:0) words=$levels ;;
      validate:0 | join:0 | leave:0 | backup:0 | restore:0) _kelotlsctl_files "$current"; return ;;
    esac
  fi
  local word_list
  mapfile -t word_list < <(compgen -W "$words" -- "$current")
  COMPREPLY+=("${word_list[@]}")
}

_kelotlsctl_options() {
  local options='--json --quiet --help'
  case $1 in
    set) options+=' --dry-run --apply' ;;
    default | join | leave | regen | reload | apply | backup | restore) options+=' --dry-run' ;;
    render) options+=' --dry-run --check --preview --level' ;;
    probe) options+=' --connect' ;;
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
