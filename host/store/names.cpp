// SPDX-License-Identifier: MIT
// Names of queue managers, queues and objects: what may stand in one.
#include "store/names.h"

#include <algorithm>
#include <string>

namespace kvr {

namespace {

bool is_name_char(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
           c == '-' || c == '%';
}

std::string printable(std::string_view text) {
    constexpr std::size_t kShown = 64;
    std::string shown(text.substr(0, kShown));
    std::replace_if(
        shown.begin(), shown.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    return text.size() > kShown ? shown + "..." : shown;
}

} // namespace

void check_name(std::string_view what, std::string_view name, std::size_t max) {
    const std::string subject = "the name of a " + std::string(what);
    if (name.empty()) {
        throw Error(Errc::kInvalid, subject + " is empty");
    }
    if (name.size() > max) {
        throw Error(Errc::kInvalid,
                    subject + " is longer than " + std::to_string(max) + " characters: '" + printable(name) + "'");
    }
    if (!std::all_of(name.begin(), name.end(), is_name_char) || name.front() == '.' || name.front() == '-') {
        throw Error(Errc::kInvalid,
                    subject + " takes letters, digits and . _ - % (no '.' or '-' first): '" + printable(name) + "'");
    }
}

} // namespace kvr
