# SPDX-License-Identifier: GPL-3.0-or-later
# Compiler flags shared by every target, and helpers for programs and tests.

add_library(larimo_options INTERFACE)
target_compile_options(larimo_options INTERFACE
  -Wall -Wextra -Wpedantic -Wformat=2 -Wshadow -Wnon-virtual-dtor -Wimplicit-fallthrough)
if(LARIMO_WERROR)
  target_compile_options(larimo_options INTERFACE -Werror)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # g++ 12 reports impossible overlaps and overflows inside std::string and std::vector
  # copies at -O2 and above; later compilers no longer do.
  target_compile_options(larimo_options INTERFACE -Wno-restrict -Wno-array-bounds -Wno-stringop-overflow
    -Wno-stringop-overread)
endif()
if(LARIMO_SANITIZE)
  target_compile_options(larimo_options INTERFACE
    -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  target_link_options(larimo_options INTERFACE -fsanitize=address,undefined)
endif()
if(LARIMO_BUILD_FUZZ)
  # Coverage for libFuzzer in every library the fuzz targets link.
  target_compile_options(larimo_options INTERFACE
    -fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer)
  target_link_options(larimo_options INTERFACE -fsanitize=address,undefined)
endif()

include(${CMAKE_CURRENT_LIST_DIR}/LarimoVersionInfo.cmake)

# larimo_add_program(NAME SOURCES ... LIBS ...): a program staged in the app folder.
function(larimo_add_program name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  larimo_add_version_info(${name})
  target_link_libraries(${name} PRIVATE larimo_options ${ARG_LIBS})
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${LARIMO_APP_DIR}")
  install(TARGETS ${name} RUNTIME DESTINATION .)
endfunction()

# larimo_add_test(NAME LABEL label [FIXTURES name] [ENVIRONMENT VAR=value] SOURCES ... LIBS ...): one GoogleTest program,
# each test case registered with CTest under the given label.
function(larimo_add_test name)
  cmake_parse_arguments(ARG "" "LABEL;TIMEOUT;RESOURCE_LOCK;FIXTURES;SERIAL_CASES" "SOURCES;LIBS;ENVIRONMENT" ${ARGN})
  if(NOT ARG_LABEL)
    set(ARG_LABEL unit)
  endif()
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE larimo_options GTest::gtest GTest::gmock GTest::gtest_main
    larimo_test_objects ${ARG_LIBS})
  target_compile_definitions(${name} PRIVATE
    LARIMO_SOURCE_DIR="${CMAKE_SOURCE_DIR}" LARIMO_APP_DIR="${LARIMO_APP_DIR}")
  set(extra)
  if(ARG_RESOURCE_LOCK)
    # Cases that use the same per-user objects (the voice service's names) run one at a time.
    set(extra RESOURCE_LOCK ${ARG_RESOURCE_LOCK})
  endif()
  if(ARG_FIXTURES)
    # Cases that need a fixture (the private sound server) started first.
    list(APPEND extra FIXTURES_REQUIRED ${ARG_FIXTURES})
  endif()
  gtest_discover_tests(${name}
    DISCOVERY_MODE PRE_TEST
    PROPERTIES LABELS ${ARG_LABEL} TIMEOUT ${ARG_TIMEOUT} ${extra})
  if(ARG_ENVIRONMENT)
    # The properties handed to gtest_discover_tests lose every list entry after the first, so
    # a list of variables is set by a script CTest runs after it added the discovered cases
    # (their names are in ${name}_TESTS then).
    set(script "${CMAKE_CURRENT_BINARY_DIR}/${name}_environment.cmake")
    file(WRITE "${script}"
      "if(${name}_TESTS)\n"
      "  set_tests_properties(\${${name}_TESTS} PROPERTIES ENVIRONMENT [==[${ARG_ENVIRONMENT}]==])\n"
      "endif()\n")
    set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES "${script}")
  endif()
  if(ARG_SERIAL_CASES)
    # Cases whose names match this expression time a real stream: they run with no other test
    # beside them, or a machine busy with those would stall the test's own writer rather than
    # the stream it measures.
    set(script "${CMAKE_CURRENT_BINARY_DIR}/${name}_serial.cmake")
    file(WRITE "${script}"
      "foreach(test IN LISTS ${name}_TESTS)\n"
      "  if(test MATCHES [==[${ARG_SERIAL_CASES}]==])\n"
      "    set_tests_properties(\"\${test}\" PROPERTIES RUN_SERIAL TRUE)\n"
      "  endif()\n"
      "endforeach()\n")
    set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES "${script}")
  endif()
endfunction()
