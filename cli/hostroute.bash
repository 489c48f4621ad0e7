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

# Prints names of the running daemon: vrfs, interfaces or prefixes that begin with a text.
_hostroute_names() {
  local i socket=()
  for ((i = 1; i < cword - 1; ++i)); do
    [[ ${words[i]} == --socket ]] && socket=(--socket "${words[i + 1]}")
  done
  hostroute names "${socket[@]}" "$1" "$2" 2> /dev/null
}

_hostroute() {
  # Bash splits words at colons, but an IPv6 address is one word.
  local line=${COMP_LINE:0:COMP_POINT} words word cword options
  read -ra words <<< "$line"
  [[ $line == *[[:space:]] ]] && words+=("")
  cword=$((${#words[@]} - 1)) word=${words[-1]}
  COMPREPLY=()
  case ${words[cword - 1]} in
    --shared | --wait | --for | --key | --at | --last | --size | --files | --protocol | --table6) return ;;
    --vrf) mapfile -t COMPREPLY < <(compgen -W "$(_hostroute_names vrfs "$word")" -- "$word") && return ;;
    --intf | --interfaces)
      mapfile -t COMPREPLY < <(compgen -W "$(_hostroute_names interfaces "$word")" -- "$word") && return
      ;;
    --replay) mapfile -t COMPREPLY < <(compgen -f -- "$word") && return ;;
    --trace | --levels) mapfile -t COMPREPLY < <(compgen -W "0,1,2,6,7 all" -- "$word") && return ;;
    --family) mapfile -t COMPREPLY < <(compgen -W "4 6" -- "$word") && return ;;
    --table) mapfile -t COMPREPLY < <(compgen -W "$(_hostroute_tables)" -- "$word") && return ;;
    --type)
      mapfile -t COMPREPLY < <(compgen -W "attached_ receive_ receiveBcast_ connected_ staticConfig_
        ebgp_ ibgp_ bgp_ ospfIntraArea_ ospf_ isisL1_ isisL2_ kernel_" -- "$word") && return
      ;;
    --dir | --root) mapfile -t COMPREPLY < <(compgen -d -- "$word") && return ;;
  esac
  case ${cword}:${words[1]} in
    1:*) options="status explain history monitor routes neighbors counters metrics doctor log-level trace
      record resync reload dump anonymize replay diff import shell types --version --help" ;;
    *replay) options="--json --json-lines --trace --echo --settle --no-final-dump --shared --hold
      --help" ;;
    *routes) options="--table --vrf --family --type --intf --wait --count --json --socket --help
      $(_hostroute_names prefixes "$word")" ;;
    *diff) options="--table --vrf --family --json --help" ;;
    *import) options="--dir --link --addr --neigh --route4 --route6 --nexthop --help" ;;
    *shell) options="--help" ;;
    *types) options="--json --help" ;;
    *explain) options="--vrf --replay --at --settle --json --socket --help
      $(_hostroute_names prefixes "$word" | sed -nE 's/\/(32|128)$//p')" ;;
    *history) options="--vrf --last --replay --at --settle --json --socket --help
      $(_hostroute_names prefixes "$word")" ;;
    *monitor) options="--vrf --json --socket --help $(_hostroute_names prefixes "$word")" ;;
    *neighbors) options="--vrf --family --intf --json --socket --help
      $(_hostroute_names prefixes "$word" | sed -nE 's/\/(32|128)$//p')" ;;
    *dump) options="--vrf --family --json --socket --help" ;;
    *counters) options="--help-texts --json --socket --help" ;;
    *metrics) options="--http --json --socket --help" ;;
    *doctor) options="--interfaces --table --table6 --protocol --root --json --socket --help" ;;
    *log-level) options="error warning notice info debug --json --socket --help" ;;
    *trace) options="--vrf --levels --for --json --socket --help
      $(_hostroute_names prefixes "$word" | sed -nE 's/\/(32|128)$//p')" ;;
    2:record) options="start stop --help" ;;
    *record)
      options="--json --socket --help"
      [[ ${words[2]} == start ]] && options="--size --files $options"
      ;;
    *anonymize) options="--key --help" ;;
    *status | *resync | *reload) options="--json --socket --help" ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W "${options:-}" -- "$word")
  [ ${#COMPREPLY[@]} -gt 0 ] || mapfile -t COMPREPLY < <(compgen -f -- "$word")
  if [[ $word == *:* && $COMP_WORDBREAKS == *:* ]]; then
    COMPREPLY=("${COMPREPLY[@]#"${word%"${word##*:}"}"}")
  fi
}
complete -o filenames -F _hostroute hostroute
