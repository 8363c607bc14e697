// SPDX-License-Identifier: MIT
// kvr set: attributes of the queue manager and of channels. Pass phrases come from a file or standard input only.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "attributes.h"
#include "commands.h"
#include "core_ctx/channel_status.h"
#include "input.h"
#include "output.h"
#include "session.h"
#include "settings.h"

namespace kvr {
namespace {

struct SetQmgrOptions {
    std::string keypass_file;
    std::string quota;
    std::string sync;
    std::string group;

    [[nodiscard]] Settings settings() const {
        Settings given{{"quota", quota.empty() ? quota : quota_setting(quota)}, {"sync", sync}, {"group", group}};
        std::erase_if(given, [](const auto& setting) { return setting.second.empty(); });
        return given;
    }
};

constexpr std::size_t kMaxPassPhraseFile = 4096;

/// The first line, without its line end.
std::string read_pass_phrase(const std::string& file) {
    std::string text = read_input(file, kMaxPassPhraseFile, "the file of the pass phrase");
    text.resize(std::min(text.find_first_of("\r\n"), text.size()));
    try {
        check_definition("QMGR", "KEYPASS", text);
    } catch (const Error& error) {
        throw UsageError(fmt::format("{}: give another pass phrase to the key and the file", error.what()));
    }
    return text;
}

void check_dead_letter_queue(Store& store, const std::string& name) {
    if (name.empty()) {
        remark("warning: no dead-letter queue is set: channels that start from now on drop messages that fail; set one "
               "with 'kvr set qmgr DEADQ=QUEUE'");
        return;
    }
    require_queue(store, checked_queue_name(name));
    if (const std::string channel = channel_that_drains(store, name); !channel.empty()) {
        refuse_round_trip(name, channel);
    }
}

void set_qmgr(const GlobalOptions& global, const SetQmgrOptions& options, const AttributeArguments& arguments) {
    Attributes attributes = collect_attributes(arguments, class_spec("QMGR"));
    const Settings settings = options.settings();
    if (attributes.empty() && options.keypass_file.empty() && settings.empty()) {
        throw UsageError("nothing to set: give ATTR=VALUE, see 'kvr set qmgr --help'");
    }
    const auto store = open_store(global);
    check_files(attributes, class_spec("QMGR")); // as the user that the channel reads them as
    if (!options.keypass_file.empty()) {
        attributes["KEYPASS"] = read_pass_phrase(options.keypass_file);
    }
    if (const auto deadq = attributes.find("DEADQ"); deadq != attributes.end()) {
        check_dead_letter_queue(*store, deadq->second);
    }
    if (!settings.empty()) {
        store->change_settings(settings);
    }
    if (!attributes.empty()) {
        store->object_set("QMGR", "QMGR", attributes);
    }
    if (!options.group.empty()) {
        warn_of_group(*store);
    }
    print_outcome(global.json, {{"qmgr", store->qmgr()}, {"changed", true}},
                  fmt::format("changed queue manager {}; a channel that runs keeps the old values until its next start",
                              store->qmgr()));
}

std::string effect_of_change(Store& store, const std::string& channel) {
    const ChannelStatus status = channel_status(store, channel);
    if (status.runner > 0 && status.state == "RETRYING") {
        return fmt::format("it is connecting and does so with its old address and retries until it has a connection or "
                           "gives up: stop it with 'kvr stop {}' and run it again to use the new ones",
                           channel);
    }
    return "address and retries count when it connects the next time, the rest from its next start";
}

void set_channel(const GlobalOptions& global, const std::string& given_name, const AttributeArguments& arguments) {
    const std::string name = checked_channel_name(given_name);
    const Attributes attributes = collect_attributes(arguments, class_spec("CHL"));
    if (attributes.empty()) {
        throw UsageError("nothing to set: give ATTR=VALUE, see 'kvr set channel --help'");
    }
    for (const char* attr : {"XMITQ", "CONNAME"}) {
        if (attributes.contains(attr) && value_of(attributes, attr).empty()) {
            throw UsageError(fmt::format("{} cannot be empty: a channel needs it", attr));
        }
    }
    const auto store = open_store(global);
    require_channel(*store, name);
    if (attributes.contains("XMITQ")) {
        const std::string xmitq = checked_queue_name(value_of(attributes, "XMITQ"));
        require_queue(*store, xmitq);
        if (xmitq == dead_letter_queue(*store)) {
            refuse_round_trip(xmitq, name);
        }
    }
    Attributes whole = attributes;
    whole.merge(store->object_get("CHL", name));
    check_channel(whole);
    store->object_set("CHL", name, attributes);
    print_outcome(global.json, {{"qmgr", store->qmgr()}, {"channel", name}, {"changed", true}},
                  fmt::format("changed channel {}; {}", name, effect_of_change(*store, name)));
}

} // namespace

void add_set_command(CLI::App& app, GlobalOptions& global) {
    CLI::App* command = app.add_subcommand("set", "Change attributes of the queue manager or of a channel");
    command->require_subcommand(1);
    set_examples(*command, "  kvr set qmgr CERTFILE=east.pem KEYFILE=east.key CAFILE=ca.pem --keypass-file -\n"
                           "  kvr set channel EAST.WEST HBINT=60\n");

    auto options = std::make_shared<SetQmgrOptions>();
    CLI::App* qmgr = command->add_subcommand("qmgr", "Change the queue manager");
    const auto qmgr_arguments = add_attribute_arguments(*qmgr, class_spec("QMGR"));
    qmgr->add_option("--keypass-file", options->keypass_file,
                     "File whose first line is the private key's pass phrase; - for standard input")
        ->type_name("FILE");
    qmgr->add_option("--quota", options->quota, "Bytes of messages beyond which puts are refused")->type_name("SIZE");
    qmgr->add_option("--sync", options->sync,
                     "on: wait for the disk at every commit; off: faster, a power loss can "
                     "take the last seconds")
        ->check(CLI::IsMember({"on", "off"}).description(""))
        ->type_name("on|off");
    qmgr->add_option("--group", options->group,
                     "Group whose members may use it beside its owner, none: nobody; no other process may have it open")
        ->type_name("GROUP");
    set_examples(*qmgr, "  kvr set qmgr CERTFILE=east.pem KEYFILE=east.key CAFILE=ca.pem\n"
                        "  kvr set qmgr --keypass-file - < passphrase.txt\n"
                        "  kvr set qmgr DEADQ=DEAD.LETTER.QUEUE\n"
                        "  kvr set qmgr --group apps\n");
    qmgr->callback([options, qmgr_arguments, &global] { set_qmgr(global, *options, *qmgr_arguments); });

    auto name = std::make_shared<std::string>();
    CLI::App* channel = command->add_subcommand("channel", "Change a channel");
    channel->add_option("name", *name, "Name of the channel")->required()->type_name("CHANNEL");
    const auto channel_arguments = add_attribute_arguments(*channel, class_spec("CHL"));
    set_examples(*channel, "  kvr set channel EAST.WEST CONNAME='10.0.0.3(5151)' HBINT=60\n");
    channel->callback([name, channel_arguments, &global] { set_channel(global, *name, *channel_arguments); });
}

} // namespace kvr
