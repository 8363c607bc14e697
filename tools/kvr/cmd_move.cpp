// SPDX-License-Identifier: MIT
// kvr move: puts messages of one queue on another one; for dead letters that get another try.
#include <limits>
#include <memory>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "commands.h"
#include "destination.h"
#include "output.h"
#include "progress.h"
#include "session.h"

namespace kvr {
namespace {

constexpr std::uint64_t kGroup = 256; ///< messages of one transaction

struct MoveOptions {
    std::string from;
    std::string to;
    std::string destination;
    bool strip_header = false;
    std::uint64_t count = 0; ///< 0: all that were there at the start
};

std::string new_data(const MoveOptions& options, const std::string& header, std::string_view data) {
    const bool replace = options.strip_header || !header.empty();
    const std::string_view body = replace && destination_of(data) ? data.substr(kXmitHeaderSize) : data;
    if (header.size() + body.size() > kMaxMessage) {
        throw Error(Errc::kTooLarge, fmt::format("a message of {} bytes has no room for a transmission header: the "
                                                 "limit is 2,098,304 bytes; take it off with 'kvr get'",
                                                 body.size()));
    }
    return header + std::string(body);
}

/// Group by group, each whole or not at all: what interrupts it leaves every message on one queue, and on one only.
std::uint64_t move_messages(Store& store, const MoveOptions& options, const std::string& header) {
    const QueueInfo source = store.queue_info(options.from);
    const std::uint64_t ready = source.depth - std::min(source.held, source.depth);
    const std::uint64_t wanted = options.count == 0 ? ready : std::min(options.count, ready);
    const auto getter = store.drain(options.from);
    Progress progress(wanted);
    std::uint64_t moved = 0;
    try {
        for (std::uint64_t group = 1; group > 0 && moved < wanted; moved += group) {
            progress.update(moved);
            group = getter->move_group(options.to, std::min(wanted - moved, kGroup),
                                       [&](std::string_view data) { return new_data(options, header, data); });
        }
    } catch (const Error& error) {
        if (moved == 0) {
            throw;
        }
        throw Error(error.code(), fmt::format("{} moved, the rest is still on {}: {}", message_count(moved),
                                              options.from, error.what()));
    }
    return moved;
}

void move(const GlobalOptions& global, MoveOptions& options) {
    options.from = checked_queue_name(options.from);
    options.to = checked_queue_name(options.to);
    if (options.from == options.to) {
        throw UsageError("both queues are the same: name another one");
    }
    const std::string header =
        options.destination.empty() ? std::string() : xmit_header(parse_destination(options.destination));
    const auto store = open_store(global);
    require_queue(*store, options.from);
    require_queue(*store, options.to);
    const std::uint64_t moved = move_messages(*store, options, header);
    print_outcome(global.json, {{"from", options.from}, {"to", options.to}, {"moved", moved}},
                  fmt::format("moved {} from {} to {}", message_count(moved), options.from, options.to));
}

} // namespace

void add_move_command(CLI::App& app, GlobalOptions& global) {
    auto options = std::make_shared<MoveOptions>();
    CLI::App* command = app.add_subcommand("move", "Put messages of one queue on another one");
    command->add_option("from", options->from, "Queue to take from")->required()->type_name("QUEUE");
    command->add_option("to", options->to, "Queue to put on")->required()->type_name("QUEUE");
    CLI::Option* strip = command->add_flag("--strip-header", options->strip_header, "Take the transmission header off");
    command->add_option("--dest", options->destination, "Give the messages this destination, in a new header")
        ->type_name("QUEUE[@QMGR]")
        ->excludes(strip);
    command->add_option("--count", options->count, "Greatest number of messages (default: all that are there)")
        ->check(CLI::Range(std::int64_t{1}, std::numeric_limits<std::int64_t>::max()).description(""))
        ->type_name("N");
    set_examples(*command, "  kvr move DEAD.LETTER.QUEUE TO.WEST\n"
                           "  kvr move DEAD.LETTER.QUEUE TO.WEST --dest ORDERS@WEST --count 1\n"
                           "  kvr move DEAD.LETTER.QUEUE LOCAL.QUEUE --strip-header\n");
    command->callback([options, &global] { move(global, *options); });
}

} // namespace kvr
