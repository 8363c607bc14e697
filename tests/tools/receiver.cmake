# SPDX-License-Identifier: MIT
find_package(fmt REQUIRED)
find_package(nlohmann_json REQUIRED)
kvr_test(receiver_splitter_test SOURCES receiver_splitter_test.cpp LIBS kvr_receiver fmt::fmt)
kvr_test(receiver_spool_test SOURCES receiver_spool_test.cpp LIBS kvr_receiver)
kvr_test(receiver_listener_test SOURCES receiver_listener_test.cpp receiver_line.cpp
  LIBS kvr_receiver kvr_test_support nlohmann_json::nlohmann_json fmt::fmt)
