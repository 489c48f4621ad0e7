#compdef hostroute
# Completion of the hostroute command for zsh.

# The names under which processes share their tables.
_hostroute_tables() {
  local -a names
  names=(/dev/shm/hostroute-*.fec4(N:t:r))
  compadd -- ${names#hostroute-}
}

_hostroute() {
  local -a commands chosen
  commands=(
    'replay:play recorded inputs and print the resulting state'
    'routes:show the route tables that a process keeps in shared memory'
    'diff:compare the host routes of two dumps'
    'explain:say why an address has, or has not, its host route'
    'history:tell what became of host routes, and by what'
    'import:turn the state of a Linux machine into a recording'
    'shell:play recorded inputs, then look into the machines'
    'types:list the types that a plug-in provides'
  )
  chosen=(
    '--vrf[only this VRF]:VRF:'
    '--family[only this family]:family:(4 6)'
    '--help[print the help]'
  )
  if (( CURRENT == 2 )); then
    _describe command commands
    _arguments '--version[print the version]' '--help[print the help]'
    return
  fi
  local command=$words[2]
  shift words
  (( CURRENT-- ))
  case $command in
    replay)
      _arguments '(--json-lines)--json[print JSON]' '(--json)--json-lines[print JSON in pieces]' \
        '--trace[print the trace records of these levels]:levels:(0,1,2,6,7 all)' \
        '--echo[print the line number of each event]' \
        '--settle[announce neighbours without a route again]' \
        '--no-final-dump[print only what the input asks for]' \
        '--shared[keep the tables in shared memory]:name:' '--hold[then keep them up]' \
        '--help[print the help]' '1:recording:_files'
      ;;
    routes)
      _arguments $chosen '--table[name of the shared tables]:name:_hostroute_tables' \
        '--type[only this type]:type:(attached_ receive_ receiveBcast_ connected_ staticConfig_)' \
        '--intf[only through this interface]:interface:' \
        '--wait[wait until the tables are ready]:seconds:' '--count[count routes]' \
        '--json[print JSON]' '1:address:'
      ;;
    diff)
      _arguments $chosen '--table[compare with shared tables]:name:_hostroute_tables' \
        '--json[print JSON]' '1:dump:_files' '2:dump:_files'
      ;;
    explain | history)
      local -a only
      [[ $command == history ]] && only=('--last[only so many changes]:count:')
      _arguments $only '--replay[in these recorded inputs]:recording:_files' \
        '--at[after this line of them]:line:' '--settle[replay as a daemon does]' \
        '--vrf[in this VRF]:VRF:' '--json[print JSON]' '--help[print the help]' \
        '1:address or prefix:'
      ;;
    import)
      _arguments '--dir[directory of the documents]:directory:_files -/' \
        '--'{link,addr,neigh,route4,route6,nexthop}'[what ip printed]:file:_files' \
        '--help[print the help]'
      ;;
    shell) _arguments '--help[print the help]' '1:recording:_files' ;;
    types) _arguments '--json[print JSON]' '--help[print the help]' '1:plug-in:_files' ;;
  esac
}

_hostroute "$@"
