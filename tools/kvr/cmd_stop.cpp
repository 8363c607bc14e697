// SPDX-License-Identifier: MIT
// kvr stop: ends the process of a channel, gently first, and says truthfully what it took.
#include <chrono>
#include <memory>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "commands.h"
#include "core_ctx/channel_status.h"
#include "output.h"
#include "session.h"
#include "store/access.h"

namespace kvr {
namespace {

constexpr double kDefaultTimeout = 10;
constexpr double kMaxTimeout = 3600;

std::string outcome_text(const std::string& channel, const StopOutcome& outcome, double timeout) {
    switch (outcome.result) {
    case StopResult::kNotRunning:
        return fmt::format("channel {} was not running", channel);
    case StopResult::kStopped:
        return fmt::format("channel {} stopped (process {})", channel, outcome.pid);
    case StopResult::kKilled:
        break;
    }
    return fmt::format("channel {} did not stop within {} s: process {} was killed; a message in hand is sent again at "
                       "the next start",
                       channel, timeout, outcome.pid);
}

const char* outcome_word(StopResult result) {
    return result == StopResult::kNotRunning ? "not running" : result == StopResult::kStopped ? "stopped" : "killed";
}

/// Whether the status was left from a process that is gone. What was done is told also where this fails.
bool repaired(const std::filesystem::path& dir, const std::string& channel, const StopOutcome& outcome,
              const std::string& done) {
    try {
        const auto store = Store::open(dir);
        if (outcome.result == StopResult::kNotRunning) {
            require_channel(*store, channel);
        }
        return repair_after_stop(*store, channel, outcome.result);
    } catch (const Error& error) {
        if (error.code() == Errc::kNotFound) {
            throw;
        }
        throw Error(error.code(), fmt::format("{}, but its status could not be put right: {}", done, error.what()));
    }
}

void stop(const GlobalOptions& global, const std::string& given_name, double timeout) {
    const std::string channel = checked_channel_name(given_name);
    const std::filesystem::path dir = qmgr_folder(global);
    require_owner(dir, "stop its channels");
    const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(std::chrono::duration<double>(timeout));
    const StopOutcome outcome = stop_channel(dir, channel, milliseconds);
    const std::string done = outcome_text(channel, outcome, timeout);
    limit_waits(kStoreTimeout); // a process that is frozen in the store must not hold up the answer
    const bool was_left = repaired(dir, channel, outcome, done);
    print_outcome(global.json,
                  {{"channel", channel},
                   {"result", outcome_word(outcome.result)},
                   {"pid", outcome.pid},
                   {"status_repaired", was_left}},
                  done + (was_left ? "; its status was left from a process that is gone and now says STOPED" : ""));
}

} // namespace

void add_stop_command(CLI::App& app, GlobalOptions& global) {
    auto channel = std::make_shared<std::string>();
    auto timeout = std::make_shared<double>(kDefaultTimeout);
    CLI::App* command = app.add_subcommand("stop", "Stop a channel that runs");
    command->add_option("channel", *channel, "Channel")->required()->type_name("CHANNEL");
    command->add_option("--timeout", *timeout, "Seconds to wait before the process is killed [10]")
        ->check(seconds_between(0, kMaxTimeout))
        ->type_name("SECONDS");
    set_examples(*command, "  kvr stop EAST.WEST\n  kvr stop EAST.WEST --timeout 2\n");
    command->callback([channel, timeout, &global] { stop(global, *channel, *timeout); });
}

} // namespace kvr
