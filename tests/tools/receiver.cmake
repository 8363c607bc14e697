# SPDX-License-Identifier: MIT
find_package(fmt REQUIRED)
kvr_test(receiver_splitter_test SOURCES receiver_splitter_test.cpp LIBS kvr_receiver fmt::fmt)
