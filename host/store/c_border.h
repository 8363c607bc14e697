// SPDX-License-Identifier: MIT
// Where an exception meets a C caller: its text becomes a line of the log, its code the negative result. For the
// libraries with C linkage above the store; they link the log.
#pragma once

#include <exception>

#include "kavro_log.h"
#include "kavutil/error.h"

namespace kvr {

constexpr int kBorderLevelError = 1;
constexpr int kBorderLevelDebug = 5;

/// The library that logs.
struct BorderModule {
    const char* module; ///< such as "$kavro_queue"
    const char* file;   ///< such as "kavro_queue"
};

/// Where the C caller came in.
struct BorderPlace {
    const char* function;
    int line;
    static BorderPlace here(const char* function = __builtin_FUNCTION(), int line = __builtin_LINE()) {
        return {function, line};
    }
};

inline int fail_at_border(const BorderModule& self, const std::exception& error, const BorderPlace& place,
                          int level = kBorderLevelError) {
    // The log takes pointers to char and writes through none of them.
    KVR_LogPrint(nullptr, level, const_cast<char*>(self.module), const_cast<char*>(self.file), place.line,
                 place.function, const_cast<char*>("%s"), error.what());
    const auto* known = dynamic_cast<const Error*>(&error);
    return known != nullptr ? known->result() : static_cast<int>(Errc::kIo);
}

} // namespace kvr
