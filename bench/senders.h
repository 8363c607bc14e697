// SPDX-License-Identifier: MIT
// The senders without a queue. Each runs in a process of its own that the measurement kills when the last byte arrived.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>

#include <sys/types.h>

#include "message.h"

namespace kvr::bench {

/// Forks a process that runs `body` and ends with its creator.
pid_t spawn(const std::function<void()>& body);
/// Ends a process that this one started, with SIGKILL or, `gently`, with SIGTERM first; waits for it.
void end_process(pid_t pid, bool gently = false);

/// The baseline: what a sender cannot do without. Per message the two alarm calls around the wait, the readability
/// check, the cork, and the same writes of the same bytes as the channel; for files the same 10,240-byte chunks.
[[noreturn]] void run_bare_sender(const Message& message, Feed feed, std::uint16_t port);

/// Sends `count` messages that differ in their ids, numbered within the series, and one more with the id of `last`, as
/// fast as they are taken, and waits to be ended.
[[noreturn]] void send_series(const Message& message, std::uint64_t count, std::uint64_t series, std::uint64_t last,
                              std::uint16_t port);

/// The plug-in, loaded from `plugin`, on a host that returns messages from memory: the host operations for queues,
/// objects and log are defined in this program, whose symbols come before those of the host libraries.
[[noreturn]] void run_memory_host(const Message& message, Feed feed, std::uint16_t port,
                                  const std::filesystem::path& plugin);

} // namespace kvr::bench
