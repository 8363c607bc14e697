# SPDX-License-Identifier: MIT
# kvr_test(NAME SOURCES ... [LIBS ...] [TIMEOUT seconds]): a GoogleTest program, one CTest entry per case.
function(kvr_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LIBS" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  string(REGEX MATCH "^battery" label ${name})
  add_executable(${name} ${ARG_SOURCES})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  # A test is compiled far more often than it runs.
  target_compile_options(${name} PRIVATE $<$<CONFIG:Release>:-O1> $<$<CONFIG:Debug>:-O0>)
  target_link_libraries(${name} PRIVATE kvr_warnings ${ARG_LIBS} GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT ${ARG_TIMEOUT} LABELS "${label}")
endfunction()
