// SPDX-License-Identifier: MIT
// What must hold, or the input is a finding.
#pragma once

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

inline void require(bool holds) {
    if (!holds) {
        std::abort();
    }
}
