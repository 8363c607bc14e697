// SPDX-License-Identifier: MIT
// kvr status: what channels do, who runs them, and how deep their queues are. With --watch again and again.
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <optional>
#include <tuple>

#include <poll.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "commands.h"
#include "core_ctx/channel_status.h"
#include "kept_text.h"
#include "output.h"
#include "session.h"

namespace kvr {
namespace {

constexpr double kDefaultInterval = 1;
constexpr double kMinInterval = 0.05;
constexpr double kMaxInterval = 3600;
constexpr double kMilliseconds = 1000;

struct StatusOptions {
    std::string channel;
    bool watch = false;
    double interval = kDefaultInterval;
};

struct Line {
    std::string channel;
    ChannelStatus status;
    std::string xmitq; ///< that the process drains, else that of the definition
    Attributes definition;
    std::optional<QueueInfo> queue; ///< nothing: the transmission queue does not exist
};

struct Picture {
    std::vector<Line> lines;
    std::string dead_queue;
    std::optional<QueueInfo> dead_info;
    Usage usage{};
    std::optional<Owner> frozen_writer;
};

volatile std::sig_atomic_t g_ended = 0;

extern "C" void on_end(int /*signal*/) {
    g_ended = 1;
}

Picture take_picture(Store& store, const std::string& channel) {
    Picture picture;
    std::vector<std::string> names{channel};
    if (channel.empty()) {
        names = store.object_names("CHL");
    } else {
        require_channel(store, channel);
    }
    for (const std::string& name : names) {
        Attributes definition = store.object_get("CHL", name);
        ChannelStatus status = channel_status(store, name);
        std::string xmitq = transmission_queue(status, definition);
        Line line{name, std::move(status), std::move(xmitq), std::move(definition), std::nullopt};
        line.queue = queue_if_there(store, line.xmitq);
        picture.lines.push_back(std::move(line));
    }
    picture.dead_queue = dead_letter_queue(store);
    picture.dead_info = queue_if_there(store, picture.dead_queue);
    picture.usage = store.usage();
    picture.frozen_writer = store.frozen_writer();
    return picture;
}

std::string state_word(const ChannelStatus& status) {
    return status.state.empty() ? "never run" : status.state;
}

std::string process_words(const ChannelStatus& status) {
    if (status.runner != 0) {
        return status.runner == kUnseenProcess ? "alive, not visible here" : fmt::format("{} alive", status.runner);
    }
    return status.is_stale() && status.recorded_pid > 0 ? fmt::format("{} gone", status.recorded_pid) : "-";
}

std::string end_text(const std::string& ip, const std::string& port) {
    return ip.empty() ? "-" : printable(ip + ":" + port);
}

std::string dead_letter_text(const Picture& picture) {
    if (picture.dead_queue.empty()) {
        return "dead-letter queue: none; a channel that starts now drops messages that fail\n";
    }
    if (!picture.dead_info) {
        return fmt::format("dead-letter queue {}: does not exist; a channel that starts now holds messages that fail\n",
                           printable(picture.dead_queue));
    }
    return fmt::format("dead-letter queue {}: {}\n", picture.dead_queue, message_count(picture.dead_info->depth));
}

bool is_connecting(const ChannelStatus& status) {
    return status.is_current() && status.state == "RETRYING" && status.taken.contains("CONNAME");
}

/// What the definition says by now instead of what the channel's process goes by.
Attributes changes(const Line& line, std::initializer_list<const char*> names) {
    Attributes changed;
    for (const char* name : names) {
        std::string value = value_of(line.definition, name);
        if (line.status.is_current() && line.status.taken.contains(name) && line.status.taken.at(name) != value) {
            changed[name] = std::move(value);
        }
    }
    return changed;
}

Attributes start_changes(const Line& line) {
    return changes(line, {"XMITQ", "HBINT", "SSLCAUTH"});
}

Attributes connection_changes(const Line& line) {
    return changes(line, {"CONNAME", "SHORTRTY", "SHORTTMR", "LONGRTY", "LONGTMR"});
}

std::string changes_text(const Line& line) {
    const auto text = [&](const Attributes& changed, const std::string& when) {
        std::string list;
        for (const auto& [name, value] : changed) {
            list += fmt::format("{}{}={}", list.empty() ? "" : " ", name, printable(value));
        }
        return list.empty() ? list : fmt::format("{}: changed since: {}; in effect {}\n", line.channel, list, when);
    };
    const std::string restart = fmt::format("at its next start: 'kvr stop {}' and run it again", line.channel);
    return text(start_changes(line), restart) +
           text(connection_changes(line), is_connecting(line.status) ? restart : "at its next connection");
}

bool has_failed(const ChannelStatus& status) {
    return status.runner == 0 && !status.failure.empty();
}

std::string failure_text(const Line& line) {
    const std::string& log = line.status.log;
    return fmt::format("{}: failed: {}{}\n", line.channel, printable(line.status.failure),
                       log.empty() ? "" : "; the last lines of " + printable(log) + " say why");
}

int number_of(const Attributes& attributes, const char* name) {
    return std::atoi(value_of(attributes, name).c_str()); // as the channel reads it
}

std::string connecting_address(const ChannelStatus& status) {
    const std::string address = value_of(status.taken, "CONNAME");
    return address.find('(') == std::string::npos ? address + "(5151)" : address;
}

std::string connecting_text(const Line& line) {
    const Attributes& connecting = line.status.taken;
    std::string text = fmt::format("{}: RETRYING {}", line.channel, printable(connecting_address(line.status)));
    const char* next = ", every";
    for (const auto& [retries, pause, kind] :
         {std::tuple{"SHORTRTY", "SHORTTMR", "short"}, std::tuple{"LONGRTY", "LONGTMR", "long"}}) {
        if (const int count = number_of(connecting, retries); count > 0) {
            text += fmt::format("{} {} s, {} {} retries", next, number_of(connecting, pause), count, kind);
            next = ", then every";
        }
    }
    return text + "\n";
}

std::string store_text(const Picture& picture) {
    const Usage& usage = picture.usage;
    std::string text = fmt::format("store: {} of {} used, file of {}\n", human_size(usage.bytes),
                                   human_size(usage.quota), human_size(usage.file));
    if (picture.frozen_writer) {
        const pid_t writer = picture.frozen_writer->process;
        text += fmt::format("process {} is stopped in the middle of a write, all other writers wait for it: let it go "
                            "on (kill -CONT {}) or end it\n",
                            writer, writer);
    }
    return text;
}

std::string picture_text(const Picture& picture) {
    if (picture.lines.empty()) {
        return "no channels\n" + dead_letter_text(picture) + store_text(picture);
    }
    std::string remarks;
    Table table({"CHANNEL", "STATE", "PROCESS", "LOCAL", "REMOTE", "XMITQ", "DEPTH", "HELD"});
    for (const Line& line : picture.lines) {
        const ChannelStatus& status = line.status;
        table.row({line.channel, state_word(status), process_words(status),
                   end_text(status.local_ip, status.local_port), end_text(status.remote_ip, status.remote_port),
                   printable(line.xmitq), line.queue ? std::to_string(line.queue->depth) : "missing",
                   line.queue ? std::to_string(line.queue->held) : "-"});
        remarks += is_connecting(status) ? connecting_text(line) : "";
        remarks += changes_text(line);
        remarks += has_failed(status) ? failure_text(line) : "";
        remarks += line.queue ? kept_remarks(line.channel, *line.queue) : "";
    }
    return table.text() + remarks + dead_letter_text(picture) + store_text(picture);
}

Json queue_json(const std::string& name, const std::optional<QueueInfo>& info) {
    Json json{{"name", name}, {"exists", info.has_value()}};
    if (info) {
        json["depth"] = info->depth;
        json["held"] = info->held;
        json["bytes"] = info->bytes;
        add_kept(json, *info);
    }
    return json;
}

/// Null unless the channel is connecting.
Json connecting_json(const Line& line) {
    if (!is_connecting(line.status)) {
        return nullptr;
    }
    const Attributes& connecting = line.status.taken;
    return {
        {"address", connecting_address(line.status)},       {"short_retries", number_of(connecting, "SHORTRTY")},
        {"short_pause", number_of(connecting, "SHORTTMR")}, {"long_retries", number_of(connecting, "LONGRTY")},
        {"long_pause", number_of(connecting, "LONGTMR")},   {"definition_changed", !connection_changes(line).empty()}};
}

/// Null unless it failed.
Json failure_json(const ChannelStatus& status) {
    return has_failed(status) ? Json{{"reason", status.failure}, {"log", status.log}} : Json(nullptr);
}

Json picture_json(const Picture& picture) {
    Json channels = Json::array();
    for (const Line& line : picture.lines) {
        const ChannelStatus& status = line.status;
        channels.push_back(
            {{"channel", line.channel},
             {"state", status.state},
             {"running", status.runner != 0},
             {"pid", status.runner},
             {"recorded_pid", status.recorded_pid},
             {"stale", status.is_stale()},
             {"local", {{"ip", status.local_ip}, {"port", status.local_port}}},
             {"remote", {{"ip", status.remote_ip}, {"port", status.remote_port}}},
             {"connecting", connecting_json(line)},
             {"changed",
              {{"at_next_start", Json(start_changes(line))}, {"at_next_connection", Json(connection_changes(line))}}},
             {"failure", failure_json(line.status)},
             {"transmission_queue", queue_json(line.xmitq, line.queue)}});
    }
    return {{"channels", channels},
            {"dead_letter_queue", queue_json(picture.dead_queue, picture.dead_info)},
            {"store",
             {{"bytes", picture.usage.bytes},
              {"quota", picture.usage.quota},
              {"file", picture.usage.file},
              {"frozen_writer", picture.frozen_writer ? picture.frozen_writer->process : 0}}}};
}

void watch(const GlobalOptions& global, Store& store, const StatusOptions& options) {
    struct sigaction action {};
    action.sa_handler = on_end;
    (void)::sigaction(SIGINT, &action, nullptr);
    (void)::sigaction(SIGTERM, &action, nullptr);
    const bool redraw = !global.json && ::isatty(STDOUT_FILENO) == 1;
    while (g_ended == 0) {
        const Picture picture = take_picture(store, options.channel);
        if (global.json) {
            print_json(picture_json(picture), true);
        } else {
            print((redraw ? "\033[H\033[J" : "") + picture_text(picture) + (redraw ? "" : "\n"));
        }
        flush_output();
        (void)::poll(nullptr, 0, g_ended != 0 ? 0 : static_cast<int>(options.interval * kMilliseconds));
    }
}

void status(const GlobalOptions& global, StatusOptions& options) {
    if (!options.channel.empty()) {
        options.channel = checked_channel_name(options.channel);
    }
    limit_waits(kStoreTimeout); // it writes nothing, but another process can be frozen while it opens the store
    const auto store = open_store(global);
    if (options.watch) {
        watch(global, *store, options);
        return;
    }
    const Picture picture = take_picture(*store, options.channel);
    if (global.json) {
        print_json(picture_json(picture));
        return;
    }
    print(picture_text(picture));
}

} // namespace

void add_status_command(CLI::App& app, GlobalOptions& global) {
    auto options = std::make_shared<StatusOptions>();
    CLI::App* command = app.add_subcommand("status", "Show what channels do: state, process, connection, queue depths");
    command->add_option("channel", options->channel, "Channel (default: all)")->type_name("CHANNEL");
    CLI::Option* watch_flag = command->add_flag("--watch", options->watch, "Show it again and again, until Ctrl-C");
    command->add_option("--interval", options->interval, "Seconds between two looks [1]")
        ->check(seconds_between(kMinInterval, kMaxInterval))
        ->needs(watch_flag)
        ->type_name("SECONDS");
    set_examples(*command, "  kvr status\n  kvr status EAST.WEST --watch --interval 0.5\n  kvr status --json\n");
    command->callback([options, &global] { status(global, *options); });
}

} // namespace kvr
