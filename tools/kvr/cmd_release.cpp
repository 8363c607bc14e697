// SPDX-License-Identifier: MIT
// kvr release: gives held messages back to their queue.
#include <memory>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "commands.h"
#include "output.h"
#include "session.h"

namespace kvr {
namespace {

void release(const GlobalOptions& global, const std::string& given_name) {
    const std::string queue = checked_queue_name(given_name);
    const auto store = open_store(global);
    require_queue(*store, queue);
    const std::uint64_t released = store->release_held(queue);
    print_outcome(global.json, {{"queue", queue}, {"released", released}},
                  released == 0 ? fmt::format("queue {} holds no messages back", queue)
                                : fmt::format("released {} on {}", message_count(released), queue));
}

} // namespace

void add_release_command(CLI::App& app, GlobalOptions& global) {
    auto queue = std::make_shared<std::string>();
    CLI::App* command = app.add_subcommand("release", "Give held messages back to their queue");
    command->add_option("queue", *queue, "Queue")->required()->type_name("QUEUE");
    set_examples(*command, "  kvr browse TO.WEST --held\n  kvr release TO.WEST\n");
    command->callback([queue, &global] { release(global, *queue); });
}

} // namespace kvr
