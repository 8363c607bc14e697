# SPDX-License-Identifier: MIT
# The operator's program, driven as a process.
find_package(nlohmann_json REQUIRED)
kvr_test(kvr_program_test
  SOURCES kvr_program.cpp kvr_usage_test.cpp kvr_message_test.cpp kvr_definition_test.cpp
  LIBS kavro_store kvr_test_support nlohmann_json::nlohmann_json)
target_compile_definitions(kvr_program_test PRIVATE
  KVR_PROGRAM="$<TARGET_FILE:kvr>" KVR_PLUGIN="$<TARGET_FILE:plug_kavro_chls>")
add_dependencies(kvr_program_test kvr plug_kavro_chls)
