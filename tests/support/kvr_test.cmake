# SPDX-License-Identifier: MIT
# kvr_test(NAME SOURCES ... [LIBS ...] [TIMEOUT seconds]): a GoogleTest program, one CTest entry per case.
# A test is compiled far more often than it runs.
set(kTestOptions $<$<CONFIG:Release>:-O1> $<$<CONFIG:Debug>:-O0>)
function(kvr_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LIBS" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  string(REGEX MATCH "^battery" label ${name})
  add_executable(${name} ${ARG_SOURCES})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  target_compile_options(${name} PRIVATE ${kTestOptions})
  target_precompile_headers(${name} REUSE_FROM kvr_test_support)
  target_link_libraries(${name} PRIVATE kvr_warnings ${ARG_LIBS} GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${name} NO_PRETTY_VALUES DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT ${ARG_TIMEOUT} LABELS "${label}")
endfunction()
