#compdef hostroute
# Completion of the hostroute command for zsh.

# The names under which processes share their tables.
_hostroute_tables() {
  local -a names
  names=(/dev/shm/hostroute-*.fec4(N:t:r))
  compadd -- ${names#hostroute-}
}

# Prints names of the running daemon: vrfs, interfaces or prefixes.
_hostroute_ask() {
  local -i at=${words[(I)--socket]}
  local -a socket
  (( at && at + 1 < CURRENT )) && socket=(--socket "${(Q)words[at + 1]}")
  hostroute names $socket $1 "$PREFIX" 2> /dev/null
}
_hostroute_names() {
  local -a names
  names=(${(f)"$(_hostroute_ask $1)"})
  compadd -- $names
}
_hostroute_vrfs() { _hostroute_names vrfs }
_hostroute_interfaces() { _hostroute_names interfaces }
_hostroute_prefixes() { _hostroute_names prefixes }
_hostroute_addresses() {
  local -a names
  names=(${(f)"$(_hostroute_ask prefixes)"})
  compadd -- ${${(M)names:#*/(32|128)}%/*}
}

_hostroute() {
  local -a commands chosen live
  commands=(
    'status:show the status of the running hostrouted'
    'explain:explain why an address has a host route or none'
    'history:show the last changes of host routes'
    'monitor:print changes of host routes as they happen'
    'neighbors:show the neighbours, and why some are ignored'
    'counters:show the counters of the running hostrouted'
    'metrics:print the counters for monitoring systems'
    'doctor:check this machine for settings that disturb hostrouted'
    'log-level:show or set the log level'
    'trace:print the trace records about an address'
    'record:record the inputs of the engine'
    'resync:read the state of the kernel again'
    'reload:read the configuration again'
    'dump:print the state of the running machines'
    'anonymize:replace the addresses and names of a recording'
    'replay:play recorded inputs and print the resulting state'
    'routes:show the routes of the running hostrouted, or tables in shared memory'
    'diff:compare the host routes of two dumps'
    'import:make a recording of the state of a Linux machine'
    'shell:play recorded inputs, then execute commands'
    'types:list the types that a plug-in provides'
  )
  chosen=(
    '--vrf[only this VRF]:VRF:_hostroute_vrfs'
    '--family[only this family]:family:(4 6)'
    '--help[print the help]'
  )
  live=(
    '--socket[the control socket]:socket:_files'
    '--json[print JSON]'
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
        '--no-final-dump[print only the dumps of the input]' \
        '--shared[keep the tables in shared memory]:name:' '--hold[then keep them up]' \
        '--help[print the help]' '1:recording:_files'
      ;;
    routes)
      _arguments $chosen '--table[name of the shared tables]:name:_hostroute_tables' \
        '--type[only this type]:type:(attached_ receive_ receiveBcast_ connected_ staticConfig_)' \
        '--intf[only through this interface]:interface:_hostroute_interfaces' \
        '--wait[wait until the tables are ready]:seconds:' '--count[count routes]' \
        $live '1:address:_hostroute_prefixes'
      ;;
    monitor) _arguments '--vrf[only this VRF]:VRF:_hostroute_vrfs' $live '1:prefix:_hostroute_prefixes' ;;
    neighbors)
      _arguments $chosen '--intf[only on this interface]:interface:_hostroute_interfaces' $live \
        '1:address:_hostroute_addresses'
      ;;
    dump) _arguments $chosen $live ;;
    counters) _arguments '--help-texts[show the meanings]' $live '1:name:' ;;
    metrics) _arguments '(--json)--http[answer a HTTP request]' $live ;;
    doctor)
      _arguments '--interfaces[the interfaces of the hosts]:patterns:' '--table[of IPv4 hosts]:table:' \
        '--table6[of IPv6 hosts]:table:' '--protocol[of the routes]:number:' \
        '--root[files of another machine]:directory:_files -/' $live
      ;;
    log-level) _arguments $live '1:level:(error warning notice info debug)' ;;
    trace)
      _arguments '--vrf[of this VRF]:VRF:_hostroute_vrfs' '--levels[the levels]:levels:(0,1,2,6,7 all)' \
        '--for[how long]:time:' $live '1:address:_hostroute_addresses'
      ;;
    record)
      local -a start
      [[ $words[2] == start ]] &&
        start=('--size[of a file in MiB]:size:' '--files[how many are kept]:number:' '2:file:')
      _arguments $start $live '1:action:(start stop)'
      ;;
    anonymize) _arguments '--key[the key of the mapping]:text:' '--help[print the help]' '1:recording:_files' ;;
    status | resync | reload) _arguments $live ;;
    diff)
      _arguments $chosen '--table[compare with shared tables]:name:_hostroute_tables' \
        '--json[print JSON]' '1:dump:_files' '2:dump:_files'
      ;;
    explain | history)
      local -a only
      local what=_hostroute_addresses
      [[ $command == history ]] && only=('--last[the number of changes]:count:') what=_hostroute_prefixes
      _arguments $only '--replay[in these recorded inputs]:recording:_files' \
        '--at[after this line of them]:line:' '--settle[replay as a daemon does]' \
        '--vrf[in this VRF]:VRF:_hostroute_vrfs' $live "1:address or prefix:$what"
      ;;
    import)
      _arguments '--dir[directory of the documents]:directory:_files -/' \
        '--'{link,addr,neigh,route4,route6,nexthop}'[the output of ip]:file:_files' \
        '--help[print the help]'
      ;;
    shell) _arguments '--help[print the help]' '1:recording:_files' ;;
    types) _arguments '--json[print JSON]' '--help[print the help]' '1:plug-in:_files' ;;
  esac
}

_hostroute "$@"
