# Completion of the hostroute command for bash.

# The names under which processes share their tables.
_hostroute_tables() {
  local file
  for file in /dev/shm/hostroute-*.fec4; do
    [ -e "$file" ] || continue
    file=${file#/dev/shm/hostroute-}
    printf '%s\n' "${file%.fec4}"
  done
}

_hostroute() {
  local word=${COMP_WORDS[COMP_CWORD]} options
  COMPREPLY=()
  case ${COMP_WORDS[COMP_CWORD - 1]} in
    --shared | --vrf | --intf | --wait | --at | --last) return ;;
    --replay) mapfile -t COMPREPLY < <(compgen -f -- "$word") && return ;;
    --trace) mapfile -t COMPREPLY < <(compgen -W "0,1,2,6,7 all" -- "$word") && return ;;
    --family) mapfile -t COMPREPLY < <(compgen -W "4 6" -- "$word") && return ;;
    --table) mapfile -t COMPREPLY < <(compgen -W "$(_hostroute_tables)" -- "$word") && return ;;
    --type)
      mapfile -t COMPREPLY < <(compgen -W "attached_ receive_ receiveBcast_ connected_ staticConfig_
        ebgp_ ibgp_ bgp_ ospfIntraArea_ ospf_ isisL1_ isisL2_ kernel_" -- "$word") && return
      ;;
    --dir) mapfile -t COMPREPLY < <(compgen -d -- "$word") && return ;;
  esac
  case ${COMP_CWORD}${COMP_WORDS[1]} in
    1*) options="replay routes diff explain history import shell types --version --help" ;;
    *replay) options="--json --json-lines --trace --echo --settle --no-final-dump --shared --hold
      --help" ;;
    *routes) options="--table --vrf --family --type --intf --wait --count --json --help" ;;
    *diff) options="--table --vrf --family --json --help" ;;
    *explain) options="--replay --at --settle --vrf --json --help" ;;
    *history) options="--replay --at --settle --vrf --last --json --help" ;;
    *import) options="--dir --link --addr --neigh --route4 --route6 --nexthop --help" ;;
    *shell) options="--help" ;;
    *types) options="--json --help" ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W "${options:-}" -- "$word")
  [ ${#COMPREPLY[@]} -gt 0 ] || mapfile -t COMPREPLY < <(compgen -f -- "$word")
}
complete -o filenames -F _hostroute hostroute
