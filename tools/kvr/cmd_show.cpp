// SPDX-License-Identifier: MIT
// kvr show: definitions of the queue manager, its queues and its channels. Pass phrases are masked.
#include <algorithm>
#include <memory>
#include <optional>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "attributes.h"
#include "commands.h"
#include "kept_text.h"
#include "output.h"
#include "session.h"

namespace kvr {
namespace {

Json object_json(const std::string& name, const ClassSpec& cls, const Attributes& attributes) {
    Json json{{"name", name}};
    for (const AttrSpec& attr : cls.attrs) {
        const std::string attr_name(attr.name);
        json[attr_name] = shown_value(cls, attr_name, value_of(attributes, attr_name));
    }
    return json;
}

std::string object_text(const std::string& title, const ClassSpec& cls, const Attributes& attributes) {
    std::string out = title + "\n";
    for (const AttrSpec& attr : cls.attrs) {
        const std::string name(attr.name);
        const std::string value = printable(shown_value(cls, name, value_of(attributes, name)));
        out += fmt::format("  {:<10}{}\n", name, value.empty() ? "-" : value);
    }
    return out;
}

bool is_synced(const Store& store) {
    return store.settings().at("sync") == "on";
}

Json qmgr_json(Store& store) {
    Json json = object_json(store.qmgr(), class_spec("QMGR"), store.object_get("QMGR", "QMGR"));
    json["folder"] = store.dir().native();
    json["quota"] = store.usage().quota;
    json["sync"] = is_synced(store);
    json["group"] = store.settings()["group"];
    return json;
}

std::string qmgr_text(Store& store) {
    return object_text("queue manager " + store.qmgr(), class_spec("QMGR"), store.object_get("QMGR", "QMGR")) +
           fmt::format("  {:<10}{}\n  {:<10}{}\n  {:<10}{}\n  {:<10}{}\n", "folder", store.dir().native(), "quota",
                       human_size(store.usage().quota), "sync",
                       is_synced(store) ? "on" : "off: a power loss can take the last seconds", "group",
                       store.settings()["group"]);
}

Json queue_json(const QueueInfo& queue) {
    Json json{{"name", queue.name},   {"description", queue.description},
              {"depth", queue.depth}, {"bytes", queue.bytes},
              {"held", queue.held},   {"drained_by", queue.drained_by ? queue.drained_by->process : 0}};
    add_kept(json, queue);
    return json;
}

std::vector<QueueInfo> chosen_queues(Store& store, const std::string& name) {
    if (name.empty()) {
        return store.queues();
    }
    require_queue(store, checked_queue_name(name));
    return {store.queue_info(name)};
}

std::string drainer_word(const std::optional<Owner>& drainer) {
    if (!drainer) {
        return "-";
    }
    return drainer->process == kUnseenProcess ? "not visible here" : std::to_string(drainer->process);
}

/// Columns about what is kept, for a table in which any queue keeps or repeats something.
bool has_kept(const std::vector<QueueInfo>& queues) {
    return std::any_of(queues.begin(), queues.end(), [](const QueueInfo& queue) { return queue.kept + queue.repeats; });
}

std::string queues_text(const std::vector<QueueInfo>& queues) {
    std::vector<std::string> headings{"QUEUE", "DEPTH", "BYTES", "HELD"};
    const bool kept = has_kept(queues);
    if (kept) {
        headings.insert(headings.end(), {"REPEATS", "KEPT", "KEPT BYTES", "SUSPECTED"});
    }
    headings.insert(headings.end(), {"TAKEN BY", "DESCRIPTION"});
    Table table(headings);
    for (const QueueInfo& queue : queues) {
        std::vector<std::string> row{queue.name, std::to_string(queue.depth), std::to_string(queue.bytes),
                                     std::to_string(queue.held)};
        if (kept) {
            for (const std::uint64_t number : {queue.repeats, queue.kept, queue.kept_bytes, queue.suspected.messages}) {
                row.push_back(std::to_string(number));
            }
        }
        row.insert(row.end(), {drainer_word(queue.drained_by), printable(queue.description)});
        table.row(std::move(row));
    }
    return queues.empty() ? "no queues\n" : table.text();
}

std::vector<std::string> chosen_channels(Store& store, const std::string& name) {
    if (name.empty()) {
        return store.object_names("CHL");
    }
    const std::string channel = checked_channel_name(name);
    require_channel(store, channel);
    return {channel};
}

Json channels_json(Store& store, const std::string& name) {
    Json list = Json::array();
    for (const std::string& channel : chosen_channels(store, name)) {
        list.push_back(object_json(channel, class_spec("CHL"), store.object_get("CHL", channel)));
    }
    return list;
}

std::string channels_text(Store& store, const std::string& name) {
    std::string out;
    for (const std::string& channel : chosen_channels(store, name)) {
        out += object_text("channel " + channel, class_spec("CHL"), store.object_get("CHL", channel));
    }
    return out.empty() ? "no channels\n" : out;
}

Json queues_json(const std::vector<QueueInfo>& queues) {
    Json list = Json::array();
    for (const QueueInfo& queue : queues) {
        list.push_back(queue_json(queue));
    }
    return list;
}

void show_all(const GlobalOptions& global) {
    const auto store = open_store(global);
    if (global.json) {
        print_json({{"qmgr", qmgr_json(*store)},
                    {"queues", queues_json(store->queues())},
                    {"channels", channels_json(*store, "")}});
        return;
    }
    print(qmgr_text(*store) + "\n" + queues_text(store->queues()) + "\n" + channels_text(*store, ""));
}

} // namespace

void add_show_command(CLI::App& app, GlobalOptions& global) {
    CLI::App* command = app.add_subcommand("show", "Show definitions: everything, or the kind and name given");
    command->require_subcommand(0, 1);
    set_examples(*command, "  kvr show\n  kvr show queue TO.WEST\n  kvr show channel --json\n");
    command->callback([command, &global] {
        if (command->get_subcommands().empty()) {
            show_all(global);
        }
    });
    auto name = std::make_shared<std::string>();

    CLI::App* qmgr = command->add_subcommand("qmgr", "Show the queue manager");
    set_examples(*qmgr, "  kvr show qmgr -m EAST\n");
    qmgr->callback([&global] {
        const auto store = open_store(global);
        if (global.json) {
            print_json(qmgr_json(*store));
        } else {
            print(qmgr_text(*store));
        }
    });

    CLI::App* queue = command->add_subcommand("queue", "Show queues with their depths");
    queue->add_option("name", *name, "Name of the queue (default: all)")->type_name("QUEUE");
    set_examples(*queue, "  kvr show queue\n  kvr show queue TO.WEST --json\n");
    queue->callback([name, &global] {
        const auto store = open_store(global);
        const std::vector<QueueInfo> queues = chosen_queues(*store, *name);
        if (global.json) {
            print_json(queues_json(queues));
        } else {
            print(queues_text(queues));
        }
    });

    CLI::App* channel = command->add_subcommand("channel", "Show channels with their attributes");
    channel->add_option("name", *name, "Name of the channel (default: all)")->type_name("CHANNEL");
    set_examples(*channel, "  kvr show channel\n  kvr show channel EAST.WEST --json\n");
    channel->callback([name, &global] {
        const auto store = open_store(global);
        if (global.json) {
            print_json(channels_json(*store, *name));
        } else {
            print(channels_text(*store, *name));
        }
    });
}

} // namespace kvr
