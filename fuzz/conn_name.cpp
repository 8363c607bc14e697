// SPDX-License-Identifier: MIT
// Any text as a channel's connection name: host and port come out within their bounds.
#include <algorithm>
#include <array>
#include <cstring>

#include "require.h"

// The parser has internal linkage in the channel's one translation unit.
#include "plug_kavro_chls.cpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::array<char, CHLS_VALUE_SIZE> name{};
    std::copy_n(data, std::min(size, name.size() - 1), name.begin());
    std::array<char, CHLS_VALUE_SIZE> host{};
    host.fill('?');
    int port = -1;
    require(AnlyConnName(name.data(), &port, host.data()) == 0 && port != 0);
    const std::size_t length = std::strcspn(name.data(), "(");
    require(strnlen(host.data(), host.size()) == length && std::memcmp(host.data(), name.data(), length) == 0);
    return 0;
}
