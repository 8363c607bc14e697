// SPDX-License-Identifier: MIT
// kvr replay: hands messages out again that were sent and are kept. It says first what that would send.
#include <ctime>
#include <iostream>
#include <limits>
#include <memory>
#include <optional>

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "commands.h"
#include "core_ctx/channel_status.h"
#include "output.h"
#include "replay_plan.h"
#include "session.h"
#include "utc_time.h"

namespace kvr {
namespace {

struct ReplayOptions {
    std::string name;
    std::optional<std::string> since; ///< as given
    ReplayChoice choice;
    bool dry_run = false;
    bool yes = false;
};

/// What the name stands for.
struct Source {
    std::string queue;
    std::string channel; ///< that drains it; empty: none
};

Source source_of(Store& store, const std::string& name) {
    const std::string channel = checked_channel_name(name);
    const bool is_queue = queue_if_there(store, name).has_value();
    if (!object_exists(store, "CHL", channel)) {
        if (!is_queue) {
            throw Error(Errc::kNotFound, fmt::format("there is neither a channel nor a queue '{}' in {}: see 'kvr "
                                                     "show'",
                                                     name, store.qmgr()));
        }
        return {name, channel_that_drains(store, name)};
    }
    Source source{transmission_queue(channel_status(store, channel), store.object_get("CHL", channel)), channel};
    require_queue(store, source.queue);
    if (is_queue && source.queue != name) {
        remark(fmt::format("{} is a channel and a queue: taken for the channel, which drains queue {}", name,
                           source.queue));
    }
    return source;
}

/// What to do where a queue keeps nothing.
std::string nothing_kept(Store& store, const Source& source) {
    const std::string nothing = fmt::format("queue {} keeps no messages that were sent", source.queue);
    if (source.channel.empty()) {
        return nothing + ": no channel drains it, and a channel's KEEPINT says how long it keeps them\n";
    }
    const Attributes definition = store.object_get("CHL", source.channel);
    const long time = channel_number(definition, "KEEPINT");
    if (time == 0) {
        return fmt::format("{0}: 'kvr set channel {1} KEEPINT=3600' makes channel {1} keep them for an hour, from its "
                           "next start on\n",
                           nothing, source.channel);
    }
    return fmt::format("{}: channel {} keeps {} MiB at most, for {} s at most, once it was started with that\n",
                       nothing, source.channel, channel_number(definition, "KEEPMAX"), time);
}

std::string end_text(const char* which, const ReplayEnd& end) {
    return fmt::format("  {:<6}place {}, id {}, sent {}\n", which, end.sequence, printable(end.message_id),
                       utc_text(end.used_at));
}

std::string plan_text(const Source& source, const ReplayPlan& plan, bool only_suspected) {
    std::string text = fmt::format("queue {}{}: {} of {} kept messages {} meant, {} on the line\n", source.queue,
                                   source.channel.empty() ? "" : " of channel " + source.channel, plan.messages,
                                   plan.kept, plan.messages == 1 ? "is" : "are", human_size(plan.bytes));
    text += end_text("from", plan.first) + end_text("to", plan.last);
    if (plan.suspected > 0 && !only_suspected) {
        text += fmt::format("  {} of them can be gone with a line that broke\n", plan.suspected);
    }
    if (plan.files > 0) {
        text += fmt::format("  with {} file{}, {} more on the line\n", plan.files, plan.files == 1 ? "" : "s",
                            human_size(plan.file_bytes));
    }
    if (plan.without_files > 0) {
        text += fmt::format("  {} of them cannot be sent: their files are gone by now\n", plan.without_files);
    }
    return text;
}

Json end_json(const ReplayPlan& plan, const ReplayEnd& end) {
    return plan.messages == 0
               ? Json(nullptr)
               : Json{{"sequence", end.sequence}, {"msgid", end.message_id}, {"used_at", utc_text(end.used_at)}};
}

Json plan_json(const Source& source, const ReplayPlan& plan, std::uint64_t replayed) {
    return {{"queue", source.queue},
            {"channel", source.channel},
            {"kept", plan.kept},
            {"messages", plan.messages},
            {"bytes", plan.bytes},
            {"suspected", plan.suspected},
            {"files", plan.files},
            {"file_bytes", plan.file_bytes},
            {"without_files", plan.without_files},
            {"first", end_json(plan, plan.first)},
            {"last", end_json(plan, plan.last)},
            {"replayed", replayed}};
}

/// Refuses before a look at the store: a script must not pass as long as there is nothing to send.
void check_usage(const GlobalOptions& global, const ReplayOptions& options) {
    const ReplayChoice& choice = options.choice;
    if ((options.since ? 1 : 0) + (choice.last > 0 ? 1 : 0) + (choice.suspected ? 1 : 0) != 1) {
        throw UsageError(
            "which messages are meant is said by one option of three: give --since TIME, --last N or --suspected");
    }
    const bool can_ask = !global.json && ::isatty(STDIN_FILENO) == 1 && ::isatty(STDERR_FILENO) == 1;
    if (!options.dry_run && !options.yes && !can_ask) {
        throw UsageError("messages that were sent would be sent again, and nobody can be asked here: see them with "
                         "--dry-run, then give --yes to do it");
    }
}

void confirm(const ReplayPlan& plan) {
    flush_output();
    (void)std::fprintf(stderr, "send %s again? [y/N] ", message_count(plan.messages).c_str());
    std::string answer;
    if (!std::getline(std::cin, answer) || (answer != "y" && answer != "Y" && answer != "yes")) {
        throw Error(Errc::kInterrupted, "not confirmed: nothing is sent again");
    }
}

std::string done_text(Store& store, const Source& source, const ReplayPlan& plan, std::uint64_t replayed) {
    std::string text = fmt::format("{} of {} {} sent again, before new ones", message_count(replayed), source.queue,
                                   replayed == 1 ? "is" : "are");
    if (replayed < plan.messages) {
        text += fmt::format("; {} no longer kept by now", message_count(plan.messages - replayed));
    }
    if (!store.queue_info(source.queue).drained_by) {
        text += source.channel.empty() ? "" : fmt::format("; they wait for 'kvr run {}'", source.channel);
    }
    return text;
}

void replay(const GlobalOptions& global, ReplayOptions& options) {
    check_usage(global, options);
    if (options.since) {
        options.choice.since = parse_past("--since", *options.since, std::time(nullptr));
    }
    const auto store = open_store(global);
    const Source source = source_of(*store, options.name);
    const ReplayPlan plan = plan_replay(*store, source.queue, options.choice);
    if (plan.messages == 0 || options.dry_run) {
        if (global.json) {
            print_json(plan_json(source, plan, 0));
        } else {
            print(plan.kept == 0       ? nothing_kept(*store, source)
                  : plan.messages == 0 ? fmt::format("none of the {} that queue {} keeps is meant\n",
                                                     message_count(plan.kept), source.queue)
                                       : plan_text(source, plan, options.choice.suspected));
        }
        return;
    }
    if (!global.json) {
        print(plan_text(source, plan, options.choice.suspected));
    }
    if (!options.yes) {
        confirm(plan);
    }
    const std::uint64_t replayed = store->replay(source.queue, plan.places);
    print_outcome(global.json, plan_json(source, plan, replayed), done_text(*store, source, plan, replayed));
}

} // namespace

void add_replay_command(CLI::App& app, GlobalOptions& global) {
    auto options = std::make_shared<ReplayOptions>();
    CLI::App* command = app.add_subcommand("replay", "Send messages again that were sent and are kept");
    command->add_option("name", options->name, "Channel, meaning its transmission queue, or queue")
        ->required()
        ->type_name("CHANNEL|QUEUE");
    command
        ->add_option("--since", options->since,
                     "Those that were sent since then: an age (90s, 10m, 2h, 3d) or a time in UTC (2026-11-24 08:15)")
        ->type_name("TIME");
    command->add_option("--last", options->choice.last, "The last so many of the queue")
        ->check(CLI::Range(std::int64_t{1}, std::numeric_limits<std::int64_t>::max()).description(""))
        ->type_name("N");
    command->add_flag("--suspected", options->choice.suspected, "Those that can be gone with a line that broke");
    command->add_flag("--dry-run", options->dry_run, "Say what would be sent, and send nothing");
    command->add_flag("--yes", options->yes, "Yes, send them; without it a terminal is asked");
    set_examples(*command, "  kvr replay EAST.WEST --suspected --dry-run\n  kvr replay EAST.WEST --suspected\n"
                           "  kvr replay TO.WEST --since 10m --yes\n"
                           "  kvr replay EAST.WEST --since '2026-11-24 08:15'\n  kvr replay EAST.WEST --last 500\n");
    command->callback([options, &global] { replay(global, *options); });
}

} // namespace kvr
