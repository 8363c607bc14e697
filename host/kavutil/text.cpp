// SPDX-License-Identifier: MIT
// Texts: base name of a path, upper case.
#include "kavutil.h"

#include <cstddef>
#include <cstring>

#include "kavutil/export.h"

namespace {

/// Room for a base name with its NUL; the system's own names end at 255 bytes.
constexpr std::size_t kBaseNameSize = 1024;

} // namespace

extern "C" {

KVR_EXPORT char* strBaseName(char* psPath) {
    static char s_name[kBaseNameSize];
    s_name[0] = '\0';
    if (psPath == nullptr) {
        return s_name;
    }
    std::size_t end = std::strlen(psPath);
    while (end > 0 && psPath[end - 1] == '/') {
        --end;
    }
    std::size_t begin = end;
    while (begin > 0 && psPath[begin - 1] != '/') {
        --begin;
    }
    const std::size_t length = end - begin < kBaseNameSize ? end - begin : kBaseNameSize - 1;
    std::memcpy(s_name, psPath + begin, length);
    s_name[length] = '\0';
    return s_name;
}

KVR_EXPORT int strToUpper(char* psText) {
    if (psText == nullptr) {
        return -1;
    }
    // Not toupper(): object names must not depend on the process's locale.
    for (char* at = psText; *at != '\0'; ++at) {
        if (*at >= 'a' && *at <= 'z') {
            *at = static_cast<char>(*at - 'a' + 'A');
        }
    }
    return 0;
}
}
