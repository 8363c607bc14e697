// SPDX-License-Identifier: MIT
#include "border.h"

#include <array>
#include <cstring>

namespace {

/// Needs no memory when there is none.
thread_local std::array<char, 1024> g_text{};

} // namespace

namespace kvr {

int tell_result(int result, const char* text) noexcept {
    const std::size_t length = ::strnlen(text, g_text.size() - 1);
    std::memcpy(g_text.data(), text, length);
    g_text[length] = '\0';
    return result;
}

} // namespace kvr

const char* kvr_error() {
    return g_text.data();
}

const char* kvr_version() {
    return KVR_VERSION;
}
