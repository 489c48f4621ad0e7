# Functions that define the targets of this project: one library for each folder, all with the same
# warnings.
#
# The target of the library NAME is hostroute_NAME, so that it does not collide with a target of a
# project that includes this one. The arguments of these functions are the plain names, NAME.

add_library(hostroute_options INTERFACE)
target_include_directories(hostroute_options INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_features(hostroute_options INTERFACE cxx_std_20)
# An embedding project chooses its own warnings.
if(PROJECT_IS_TOP_LEVEL)
  target_compile_options(hostroute_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
endif()

# Sets `result` to the targets of the given names. A name is a library of this project or anything
# else that can be linked.
function(hostroute_targets result)
  set(targets)
  foreach(name IN LISTS ARGN)
    if(TARGET hostroute_${name})
      list(APPEND targets hostroute_${name})
    else()
      list(APPEND targets ${name})
    endif()
  endforeach()
  set(${result} ${targets} PARENT_SCOPE)
endfunction()

# Finds packages with find_package() and links `target` with them.
function(hostroute_packages target scope)
  foreach(package IN LISTS ARGN)
    find_package(${package} REQUIRED)
    if(TARGET ${package}::${package})
      target_link_libraries(${target} ${scope} ${package}::${package})
    endif()
  endforeach()
endfunction()

# hostroute_library(NAME FOLDER... [HIDDEN] DEPENDS TARGET... PACKAGES PACKAGE...)
#
# A static library of the sources of the folders; an interface library when the folders have only
# headers. Other projects link it as hostroute::NAME. HIDDEN: in a shared library, only symbols
# marked KIV_EXPORT are visible.
function(hostroute_library name)
  cmake_parse_arguments(ARG "HIDDEN" "" "DEPENDS;PACKAGES" ${ARGN})
  hostroute_targets(depends ${ARG_DEPENDS})
  set(target hostroute_${name})
  set(sources)
  foreach(folder IN LISTS ARG_UNPARSED_ARGUMENTS)
    file(GLOB_RECURSE found CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${folder}/*.cpp)
    list(APPEND sources ${found})
  endforeach()
  if(sources)
    set(scope PUBLIC)
    add_library(${target} STATIC ${sources})
    if(ARG_HIDDEN)
      set_target_properties(${target} PROPERTIES
        CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
    endif()
  else()
    set(scope INTERFACE)
    add_library(${target} INTERFACE)
  endif()
  add_library(hostroute::${name} ALIAS ${target})
  target_link_libraries(${target} ${scope} hostroute_options ${depends})
  hostroute_packages(${target} ${scope} ${ARG_PACKAGES})
endfunction()

# hostroute_shared_library(TARGET OUTPUT OUTPUT EXPORT_NAME NAME OF LIBRARY... DEPENDS TARGET...)
#
# The versioned shared library libOUTPUT.so, made of the static libraries' objects. Other projects
# find the installed library as hostroute::EXPORT_NAME.
function(hostroute_shared_library name)
  cmake_parse_arguments(ARG "" "OUTPUT;EXPORT_NAME" "OF;DEPENDS" ${ARGN})
  add_library(${name} SHARED)
  hostroute_targets(statics ${ARG_OF})
  foreach(static IN LISTS statics)
    target_sources(${name} PRIVATE $<TARGET_OBJECTS:${static}>)
  endforeach()
  target_include_directories(${name} INTERFACE
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/hostroute>)
  target_compile_features(${name} INTERFACE cxx_std_20)
  target_link_libraries(${name} PUBLIC ${ARG_DEPENDS})
  set_target_properties(${name} PROPERTIES
    OUTPUT_NAME ${ARG_OUTPUT} EXPORT_NAME ${ARG_EXPORT_NAME} LINKER_LANGUAGE CXX
    VERSION ${HOSTROUTE_ABI}.0.0 SOVERSION ${HOSTROUTE_ABI} INSTALL_RPATH $ORIGIN)
endfunction()

# hostroute_install(TARGET... HEADERS FOLDER...)
#
# Installs shared libraries and headers. Other projects find them with find_package() or pkg-config.
# The installed tree can be moved.
function(hostroute_install)
  cmake_parse_arguments(ARG "" "" "HEADERS" ${ARGN})
  install(TARGETS ${ARG_UNPARSED_ARGUMENTS} EXPORT hostrouteTargets
          LIBRARY COMPONENT library NAMELINK_COMPONENT development)
  install(DIRECTORY ${ARG_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/hostroute
          COMPONENT development FILES_MATCHING PATTERN *.h)

  include(CMakePackageConfigHelpers)
  set(package ${CMAKE_INSTALL_LIBDIR}/cmake/hostroute)
  set(version ${PROJECT_BINARY_DIR}/hostrouteConfigVersion.cmake)
  write_basic_package_version_file(${version} COMPATIBILITY SameMinorVersion)
  install(EXPORT hostrouteTargets FILE hostrouteConfig.cmake NAMESPACE hostroute::
          DESTINATION ${package} COMPONENT development)
  install(FILES ${version} DESTINATION ${package} COMPONENT development)

  set(pkgconfig ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
  file(RELATIVE_PATH upToPrefix ${CMAKE_INSTALL_PREFIX}/${pkgconfig} ${CMAKE_INSTALL_PREFIX})
  foreach(module hostroute hostroute-platform)
    configure_file(${PROJECT_SOURCE_DIR}/cmake/${module}.pc.in ${module}.pc @ONLY)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${module}.pc DESTINATION ${pkgconfig}
            COMPONENT development)
  endforeach()
endfunction()

# hostroute_program(NAME FOLDER DEPENDS TARGET... PACKAGES PACKAGE...)
#
# An executable of the folder's sources. All sources but main.cpp are in the library NAME_lib, which
# the tests link.
function(hostroute_program name folder)
  cmake_parse_arguments(ARG "" "" "DEPENDS;PACKAGES" ${ARGN})
  hostroute_targets(depends ${ARG_DEPENDS})
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${folder}/*.cpp)
  list(REMOVE_ITEM sources ${PROJECT_SOURCE_DIR}/${folder}/main.cpp)
  if(sources)
    add_library(${name}_lib STATIC ${sources})
    target_compile_options(${name}_lib PRIVATE ${HOSTROUTE_PROGRAM_OPTIONS})
    target_link_libraries(${name}_lib PUBLIC hostroute_options ${depends})
    hostroute_packages(${name}_lib PUBLIC ${ARG_PACKAGES})
    set(depends ${name}_lib)
  endif()
  if(EXISTS ${PROJECT_SOURCE_DIR}/${folder}/main.cpp)
    add_executable(${name} ${PROJECT_SOURCE_DIR}/${folder}/main.cpp)
    target_compile_options(${name} PRIVATE ${HOSTROUTE_PROGRAM_OPTIONS})
    target_link_libraries(${name} PRIVATE hostroute_options ${depends})
  endif()
endfunction()

# hostroute_test(NAME FOLDER [LABEL LABEL] DEPENDS TARGET...): a GoogleTest program of the folder's
# sources. Its tests have the label LABEL.
function(hostroute_test name folder)
  cmake_parse_arguments(ARG "" "LABEL" "DEPENDS" ${ARGN})
  hostroute_targets(depends ${ARG_DEPENDS})
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${folder}/*.cpp)
  if(NOT sources)
    message(FATAL_ERROR "${name}: there are no sources in ${folder}")
  endif()
  add_executable(${name} ${sources})
  target_compile_options(${name} PRIVATE ${HOSTROUTE_TEST_OPTIONS})
  target_link_libraries(${name} PRIVATE hostroute_options ${depends} GTest::gtest_main)
  include(GoogleTest)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT 600
                       LABELS "${ARG_LABEL}")
endfunction()

# hostroute_benchmark(NAME SOURCE DEPENDS TARGET...): a Google Benchmark program.
function(hostroute_benchmark name source)
  cmake_parse_arguments(ARG "" "" "DEPENDS" ${ARGN})
  hostroute_targets(depends ${ARG_DEPENDS})
  add_executable(${name} ${source})
  target_link_libraries(${name} PRIVATE hostroute_options ${depends} benchmark::benchmark_main)
endfunction()

# hostroute_fuzzers(FOLDER DEPENDS TARGET...): a libFuzzer program of each source in the folder.
function(hostroute_fuzzers folder)
  cmake_parse_arguments(ARG "" "" "DEPENDS" ${ARGN})
  hostroute_targets(depends ${ARG_DEPENDS})
  file(GLOB sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${folder}/*.cpp)
  foreach(source IN LISTS sources)
    cmake_path(GET source STEM name)
    add_executable(${name} ${source})
    target_link_libraries(${name} PRIVATE hostroute_options ${depends})
    target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  endforeach()
endfunction()
