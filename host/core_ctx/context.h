// SPDX-License-Identifier: MIT
// The runtime-core context of a worker process.
#pragma once

#include <deque>
#include <string>

#include "core_ctx.h"
#include "core_ctx/worker.h"

namespace kvr {

/// Owns the record and the texts that it points at; lives as long as the plug-in.
class Context {
  public:
    /// `channel` is the channel's name as the plug-in is to find it among the arguments.
    Context(const WorkerOptions& options, const std::string& channel, int argc, char** argv);
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;

    [[nodiscard]] T_RTCORE_CONTEXT& record() { return record_; }

  private:
    void add_argument(char key, const std::string& value);

    T_RTCORE_CONTEXT record_{};
    std::deque<std::string> values_;
};

} // namespace kvr
