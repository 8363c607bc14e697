// SPDX-License-Identifier: MIT
// Puts numbered messages on a queue, many with one flush of the disk.
#pragma once

#include <filesystem>
#include <functional>
#include <span>
#include <string>
#include <string_view>

#include "numbered_message.h"
#include "store.h"

namespace kvr {

/// Most messages that one flush takes.
constexpr std::size_t kPutGroup = 256;

struct NumberedPut {
    Store& store;
    std::string queue;
    std::string tag;
    std::string header;          ///< before the data of each message; of headerless ones nothing
    std::filesystem::path files; ///< folder for the files that travel
};

/// The transmission header for "QUEUE@QMGR" or "QUEUE". Throws Error(kInvalid).
std::string xmit_header_for(std::string_view destination);

/// Calls `told` after each group whose put succeeded. Throws Error.
void put_numbered(const NumberedPut& put, std::span<const NumberedMessage> messages,
                  const std::function<void(std::span<const NumberedMessage>)>& told);

} // namespace kvr
