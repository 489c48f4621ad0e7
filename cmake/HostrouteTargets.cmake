# How targets of this project are made: one library for each folder, all with the same warnings.

add_library(hostroute_options INTERFACE)
target_include_directories(hostroute_options INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_features(hostroute_options INTERFACE cxx_std_20)
# Which warnings an embedding project wants is for that project to say.
if(PROJECT_IS_TOP_LEVEL)
  target_compile_options(hostroute_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
endif()

# Adds find_package()d PACKAGES to `target`.
function(hostroute_packages target scope)
  foreach(package IN LISTS ARGN)
    find_package(${package} REQUIRED)
    if(TARGET ${package}::${package})
      target_link_libraries(${target} ${scope} ${package}::${package})
    endif()
  endforeach()
endfunction()

# hostroute_library(NAME FOLDER... DEPENDS TARGET... PACKAGES PACKAGE...)
#
# A static library of the sources of the folders; an interface library while they hold headers only.
# Other projects link it as hostroute::NAME.
function(hostroute_library name)
  cmake_parse_arguments(ARG "" "" "DEPENDS;PACKAGES" ${ARGN})
  set(sources)
  foreach(folder IN LISTS ARG_UNPARSED_ARGUMENTS)
    file(GLOB_RECURSE found CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${folder}/*.cpp)
    list(APPEND sources ${found})
  endforeach()
  if(sources)
    set(scope PUBLIC)
    add_library(${name} STATIC ${sources})
    set_target_properties(${name} PROPERTIES OUTPUT_NAME hostroute_${name})
  else()
    set(scope INTERFACE)
    add_library(${name} INTERFACE)
  endif()
  add_library(hostroute::${name} ALIAS ${name})
  target_link_libraries(${name} ${scope} hostroute_options ${ARG_DEPENDS})
  hostroute_packages(${name} ${scope} ${ARG_PACKAGES})
endfunction()

# hostroute_program(NAME FOLDER DEPENDS TARGET... PACKAGES PACKAGE...)
#
# An executable of the folder's sources. All but main.cpp go into the library NAME_lib, for the tests.
function(hostroute_program name folder)
  cmake_parse_arguments(ARG "" "" "DEPENDS;PACKAGES" ${ARGN})
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${folder}/*.cpp)
  list(REMOVE_ITEM sources ${PROJECT_SOURCE_DIR}/${folder}/main.cpp)
  if(sources)
    add_library(${name}_lib STATIC ${sources})
    target_link_libraries(${name}_lib PUBLIC hostroute_options ${ARG_DEPENDS})
    hostroute_packages(${name}_lib PUBLIC ${ARG_PACKAGES})
    set(ARG_DEPENDS ${name}_lib)
  endif()
  if(EXISTS ${PROJECT_SOURCE_DIR}/${folder}/main.cpp)
    add_executable(${name} ${PROJECT_SOURCE_DIR}/${folder}/main.cpp)
    target_link_libraries(${name} PRIVATE hostroute_options ${ARG_DEPENDS})
  endif()
endfunction()

# hostroute_test(NAME FOLDER DEPENDS TARGET...): a GoogleTest program of the folder's sources.
function(hostroute_test name folder)
  cmake_parse_arguments(ARG "" "" "DEPENDS" ${ARGN})
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${folder}/*.cpp)
  if(NOT sources)
    return()
  endif()
  add_executable(${name} ${sources})
  target_link_libraries(${name} PRIVATE hostroute_options ${ARG_DEPENDS} GTest::gtest_main)
  include(GoogleTest)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT 600)
endfunction()

# hostroute_benchmark(NAME SOURCE DEPENDS TARGET...): a Google Benchmark program.
function(hostroute_benchmark name source)
  cmake_parse_arguments(ARG "" "" "DEPENDS" ${ARGN})
  add_executable(${name} ${source})
  target_link_libraries(${name} PRIVATE hostroute_options ${ARG_DEPENDS} benchmark::benchmark_main)
endfunction()

# hostroute_fuzzers(FOLDER DEPENDS TARGET...): a libFuzzer program of each source in the folder.
function(hostroute_fuzzers folder)
  cmake_parse_arguments(ARG "" "" "DEPENDS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${folder}/*.cpp)
  foreach(source IN LISTS sources)
    cmake_path(GET source STEM name)
    add_executable(${name} ${source})
    target_link_libraries(${name} PRIVATE hostroute_options ${ARG_DEPENDS})
    target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  endforeach()
endfunction()
