// SPDX-License-Identifier: MIT
// kvr define: queues and channels.
#include <memory>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "attributes.h"
#include "commands.h"
#include "output.h"
#include "session.h"

namespace kvr {
namespace {

struct DefineOptions {
    std::string name;
    std::string description;
    bool replace = false;
};

void report(const GlobalOptions& global, const Store& store, const char* what, const std::string& name, bool replaced) {
    print_outcome(global.json, {{"qmgr", store.qmgr()}, {what, name}, {"replaced", replaced}},
                  fmt::format("{} {} {}", replaced ? "replaced" : "defined", what, name));
}

void define_queue(const GlobalOptions& global, const DefineOptions& options) {
    const std::string name = checked_queue_name(options.name);
    const auto store = open_store(global);
    bool replaced = false;
    try {
        store->queue_define(name, options.description);
    } catch (const Error& error) {
        if (error.code() != Errc::kExists) {
            throw;
        }
        if (!options.replace) {
            throw Error(Errc::kExists, fmt::format("queue '{}' exists already: choose another name, or give --replace "
                                                   "to change its description (its messages stay)",
                                                   name));
        }
        store->queue_set(name, options.description);
        replaced = true;
    }
    report(global, *store, "queue", name, replaced);
}

/// What a channel cannot do without; queues that are missing yet are only worth a remark.
void check_needs(Store& store, const std::string& name, const Attributes& attributes) {
    for (const char* attr : {"XMITQ", "CONNAME"}) {
        if (value_of(attributes, attr).empty()) {
            throw UsageError(
                fmt::format("channel {} has no {}: give XMITQ=QUEUE and CONNAME='HOST(PORT)'", name, attr));
        }
    }
    const std::string xmitq = checked_queue_name(value_of(attributes, "XMITQ"));
    if (xmitq == dead_letter_queue(store)) {
        refuse_round_trip(xmitq, name);
    }
    try {
        (void)store.queue_info(xmitq);
    } catch (const Error& error) {
        if (error.code() != Errc::kNotFound) {
            throw;
        }
        remark(fmt::format("warning: transmission queue '{}' does not exist yet: make it with 'kvr define queue {}' "
                           "before the channel runs",
                           xmitq, xmitq));
    }
}

void define_channel(const GlobalOptions& global, const DefineOptions& options, const AttributeArguments& arguments) {
    const std::string name = checked_channel_name(options.name);
    const ClassSpec& cls = class_spec("CHL");
    const Attributes given = collect_attributes(arguments, cls);
    Attributes attributes;
    for (const AttrSpec& attr : cls.attrs) {
        attributes[std::string(attr.name)] = attr.default_text;
    }
    for (const auto& [attr, value] : given) {
        attributes[attr] = value;
    }
    const auto store = open_store(global);
    check_needs(*store, name, attributes);
    check_channel(attributes);
    const bool exists = object_exists(*store, "CHL", name);
    if (exists && !options.replace) {
        throw Error(Errc::kExists, fmt::format("channel '{}' exists already: choose another name, change it with 'kvr "
                                               "set channel {}', or give --replace",
                                               name, name));
    }
    if (exists) {
        store->object_set("CHL", name, attributes);
    } else {
        std::erase_if(attributes, [](const auto& entry) { return entry.second.empty(); });
        store->object_add("CHL", name, attributes);
    }
    report(global, *store, "channel", name, exists);
}

} // namespace

void add_define_command(CLI::App& app, GlobalOptions& global) {
    CLI::App* command = app.add_subcommand("define", "Define a queue or a channel");
    command->require_subcommand(1);
    set_examples(*command, "  kvr define queue TO.WEST\n"
                           "  kvr define channel EAST.WEST XMITQ=TO.WEST CONNAME='10.0.0.2(5151)'\n");

    auto queue_options = std::make_shared<DefineOptions>();
    CLI::App* queue = command->add_subcommand("queue", "Define a queue");
    queue->add_option("name", queue_options->name, "Name of the queue")->required()->type_name("QUEUE");
    queue->add_option("--descr", queue_options->description, "Description for people");
    queue->add_flag("--replace", queue_options->replace, "Change the queue when it exists; its messages stay");
    set_examples(*queue, "  kvr define queue TO.WEST --descr 'orders for the west'\n");
    queue->callback([queue_options, &global] { define_queue(global, *queue_options); });

    auto channel_options = std::make_shared<DefineOptions>();
    CLI::App* channel = command->add_subcommand("channel", "Define a channel");
    channel->add_option("name", channel_options->name, "Name of the channel; becomes upper case")
        ->required()
        ->type_name("CHANNEL");
    const auto arguments = add_attribute_arguments(*channel, class_spec("CHL"));
    channel->add_flag("--replace", channel_options->replace,
                      "Replace the channel when it exists; attributes not given get their defaults");
    set_examples(*channel, "  kvr define channel EAST.WEST XMITQ=TO.WEST CONNAME='10.0.0.2(5151)'\n"
                           "  kvr define channel EAST.WEST --xmitq TO.WEST --conname '10.0.0.2(5151)' --hbint 60 "
                           "--sslcauth ENABLE\n");
    channel->callback([channel_options, arguments, &global] { define_channel(global, *channel_options, *arguments); });
}

} // namespace kvr
