# Completion of the hostroute command for bash.

_hostroute() {
  local word=${COMP_WORDS[COMP_CWORD]} options
  COMPREPLY=()
  case ${COMP_WORDS[COMP_CWORD - 1]} in
    --trace | --shared | --table | --vrf) return ;;
    --dir) mapfile -t COMPREPLY < <(compgen -d -- "$word") && return ;;
  esac
  case ${COMP_CWORD}${COMP_WORDS[1]} in
    1*) options="replay import routes shell types --help" ;;
    *replay) options="--json --trace --echo --settle --no-final-dump --shared --hold --help" ;;
    *import) options="--dir --link --addr --neigh --route4 --route6 --nexthop --help" ;;
    *routes) options="--table --vrf --family --json --help" ;;
    *shell) options="--help" ;;
    *types) options="--json --help" ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W "${options:-}" -- "$word")
  [ ${#COMPREPLY[@]} -gt 0 ] || mapfile -t COMPREPLY < <(compgen -f -- "$word")
}
complete -o filenames -F _hostroute hostroute
