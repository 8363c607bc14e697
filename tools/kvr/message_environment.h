// SPDX-License-Identifier: MIT
// What a command knows that is run with a message.
#pragma once

#include <string>
#include <vector>

#include "message_source.h"

namespace kvr {

/// This process's environment with the message's attributes, as NAME=VALUE. What an environment says of another
/// message is left out.
std::vector<std::string> message_environment(const TakenView& message, const std::string& queue, const Store& store);

} // namespace kvr
