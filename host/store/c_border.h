// SPDX-License-Identifier: MIT
// Where an exception meets a C caller: its text becomes a line of the log, its code the negative result. For the
// libraries with C linkage above the store; they link the log.
#pragma once

#include <exception>
#include <source_location>

#include "error.h"
#include "kavro_log.h"

namespace kvr {

constexpr int kBorderLevelError = 1;
constexpr int kBorderLevelDebug = 5;

/// The library that logs.
struct BorderModule {
    const char* module; ///< such as "$kavro_queue"
    const char* file;   ///< such as "kavro_queue"
};

inline void log_at_border(const BorderModule& self, int level, const char* text, const std::source_location& where) {
    // The log takes pointers to char and writes through none of them.
    KVR_LogPrint(nullptr, level, const_cast<char*>(self.module), const_cast<char*>(self.file),
                 static_cast<int>(where.line()), where.function_name(), const_cast<char*>("%s"), text);
}

inline int fail_at_border(const BorderModule& self, const std::exception& error, int level = kBorderLevelError,
                          const std::source_location& where = std::source_location::current()) {
    log_at_border(self, level, error.what(), where);
    const auto* known = dynamic_cast<const Error*>(&error);
    return known != nullptr ? known->result() : static_cast<int>(Errc::kIo);
}

} // namespace kvr
