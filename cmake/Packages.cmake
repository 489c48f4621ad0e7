# Debian packages of an installation, made by cpack: hostroute (the programs), libhostroute1 (the
# plug-in and the runtime), libhostroute-dev (headers, CMake and pkg-config files) and
# python3-hostroute (the module that reads the tables).
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME hostroute)
set(CPACK_PACKAGE_VENDOR "the hostroute maintainers")
set(CPACK_PACKAGE_CONTACT "the hostroute maintainers <maintainers@hostroute.example>")
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_SET_DESTDIR ON) # the configuration goes to /etc
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL programs library development python)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)

set(CPACK_DEBIAN_PROGRAMS_PACKAGE_NAME hostroute)
set(CPACK_DEBIAN_PROGRAMS_DESCRIPTION "host routes of directly attached hosts
hostrouted gives every host that a Linux router sees in its ARP and IPv6
neighbour tables a /32 or /128 route in a kernel table. A routing daemon such
as FRR or BIRD advertises it from there.

The command hostroute shows the routes and explains them, replays recordings,
and imports the state of a machine.")
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_DEPENDS
    "init-system-helpers (>= 1.51), systemd | systemd-standalone-sysusers")
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_SUGGESTS "frr | bird2")

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libhostroute${HOSTROUTE_ABI})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_DESCRIPTION "host routes of a switch, as a plug-in
The engine that derives a switch's host routes from its neighbours, addresses
and forwarding table, for a routing daemon that loads it.")
set(shlibs ${PROJECT_BINARY_DIR}/packages/shlibs)
set(dependency "libhostroute${HOSTROUTE_ABI} (>= ${PROJECT_VERSION})")
file(WRITE ${shlibs} "libhostroute ${HOSTROUTE_ABI} ${dependency}\n"
                     "libhostroute_platform ${HOSTROUTE_ABI} ${dependency}\n")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA
    ${shlibs} ${PROJECT_SOURCE_DIR}/packaging/triggers)
# The files of an unpacked archive may be writable for the group.
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libhostroute-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "host routes of a switch: headers for embedding
What a routing daemon needs to be built with the host-route engine: headers,
and descriptions for CMake and pkg-config.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "libhostroute${HOSTROUTE_ABI} (= ${PROJECT_VERSION})")

set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-hostroute)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_DESCRIPTION "host routes of a switch: a reader in Python
The module hostroute_reader reads the host routes and their next hops that the
daemon keeps in shared memory.")
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "python3:any, ${dependency}")

# Debian requires of every package a copyright file, a compressed changelog and compressed manuals.
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/CompressManuals.cmake)
find_program(GZIP gzip REQUIRED)
set(changelog ${PROJECT_BINARY_DIR}/packages/changelog.gz)
file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
execute_process(COMMAND ${GZIP} -9nc ${PROJECT_SOURCE_DIR}/packaging/changelog
                OUTPUT_FILE ${changelog} COMMAND_ERROR_IS_FATAL ANY)
foreach(component programs library development python)
  string(TOUPPER ${component} name)
  set(folder share/doc/${CPACK_DEBIAN_${name}_PACKAGE_NAME})
  install(FILES packaging/copyright ${changelog}
          DESTINATION ${folder} COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

# The service. Its configuration is a conffile, so upgrades keep the administrator's changes. Its
# unit is enabled and started.
install(FILES hostrouted/hostrouted.toml
        DESTINATION /etc/hostroute COMPONENT programs EXCLUDE_FROM_ALL)
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/packaging/conffiles ${PROJECT_SOURCE_DIR}/packaging/postinst
    ${PROJECT_SOURCE_DIR}/packaging/prerm ${PROJECT_SOURCE_DIR}/packaging/postrm)
set(CPACK_DEBIAN_PROGRAMS_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
