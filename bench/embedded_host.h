// SPDX-License-Identifier: MIT
// A queue manager of the embedded host, made and run by the program `kvr` as an operator would, with its default
// settings: every commit is synced.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <sys/types.h>

#include "message.h"

namespace kvr {
class Store;
}

namespace kvr::bench {

class EmbeddedHost {
  public:
    /// Makes the queue manager `qmgr` in `home`, with a transmission queue and a channel to `port` on this machine.
    /// @param attributes  more of the channel, each as NAME=VALUE
    EmbeddedHost(std::filesystem::path program, std::filesystem::path home, std::string qmgr, std::uint16_t port,
                 const std::vector<std::string>& attributes = {});

    /// Puts `count` messages, in one commit.
    void put(const Message& message, std::size_t count);
    /// Puts messages, in commits of moderate size, until the queue holds `depth`.
    void fill(const Message& message, std::uint64_t depth);
    /// Starts a worker for the channel (`kvr run`) and returns its process.
    [[nodiscard]] pid_t start() const;

  private:
    void run_program(const std::vector<std::string>& arguments) const;
    [[nodiscard]] std::vector<std::string> command(const std::vector<std::string>& arguments) const;

    std::filesystem::path program_;
    std::filesystem::path home_;
    std::string qmgr_;
    std::shared_ptr<Store> store_;
};

} // namespace kvr::bench
