// SPDX-License-Identifier: MIT
// What is told of messages that were sent and are kept on their queue, the same for all commands.
#pragma once

#include <string>

#include "output.h"
#include "store/store.h"

namespace kvr {

/// Adds the members about kept messages to those of their queue.
void add_kept(Json& json, const QueueInfo& queue);

/// Lines for people about the transmission queue of a channel; empty where it keeps and repeats nothing.
std::string kept_remarks(const std::string& channel, const QueueInfo& queue);

} // namespace kvr
