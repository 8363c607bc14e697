// SPDX-License-Identifier: MIT
// kvr delete: queues, channels and whole queue managers; never what is in use, and messages only when told so.
#include <filesystem>
#include <memory>

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "commands.h"
#include "core_ctx/channel_status.h"
#include "output.h"
#include "session.h"
#include "store/access.h"

namespace kvr {
namespace {

struct DeleteOptions {
    std::string name;
    bool purge = false;
    bool yes = false;
};

/// @param kept  messages that were sent, which went with it
void report(const GlobalOptions& global, const char* what, const std::string& name, std::uint64_t kept = 0) {
    const std::string with = kept == 0 ? "" : fmt::format(" with {} that it kept", message_count(kept));
    print_outcome(global.json, {{"deleted", what}, {"name", name}}, fmt::format("deleted {} {}{}", what, name, with));
}

void delete_queue(const GlobalOptions& global, const DeleteOptions& options) {
    const std::string name = checked_queue_name(options.name);
    const auto store = open_store(global);
    require_queue(*store, name);
    if (dead_letter_queue(*store) == name) {
        throw Error(Errc::kBusy, fmt::format("queue '{}' is the dead-letter queue: set another one with 'kvr set qmgr "
                                             "DEADQ=QUEUE' first",
                                             name));
    }
    if (const std::string channel = channel_that_drains(*store, name); !channel.empty()) {
        const char* const remedy = runs_on(*store, channel, name)
                                       ? "stop it first with 'kvr stop {}'"
                                       : "set another one with 'kvr set channel {} XMITQ=QUEUE', or delete the channel";
        throw Error(Errc::kBusy, fmt::format("queue '{}' is the transmission queue of channel '{}': {}", name, channel,
                                             fmt::format(fmt::runtime(remedy), channel)));
    }
    const QueueInfo queue = store->queue_info(name);
    if (queue.drained_by) {
        throw Error(Errc::kBusy, fmt::format("{} takes messages from queue '{}': stop it first, see 'kvr show queue'",
                                             owner_text(*queue.drained_by), name));
    }
    if (queue.depth > 0 && !options.purge) {
        throw Error(Errc::kBusy, fmt::format("queue '{}' has {}: give --purge to delete them, too", name,
                                             message_count(queue.depth)));
    }
    store->queue_delete(name, options.purge);
    report(global, "queue", name, queue.kept);
}

void refuse_running(Store& store, const std::string& channel) {
    const ChannelStatus status = channel_status(store, channel);
    if (status.runner != 0) {
        throw Error(Errc::kBusy, fmt::format("channel '{}' is run by {}: stop it first with 'kvr stop {}'", channel,
                                             process_text(status.runner), channel));
    }
}

void delete_channel(const GlobalOptions& global, const DeleteOptions& options) {
    const std::string name = checked_channel_name(options.name);
    const auto store = open_store(global);
    require_channel(*store, name);
    refuse_running(*store, name);
    store->object_delete("CHL", name);
    if (object_exists(*store, "CHS", name)) {
        store->object_delete("CHS", name);
    }
    report(global, "channel", name);
}

void delete_qmgr(const GlobalOptions& global, const DeleteOptions& options) {
    GlobalOptions named = global;
    named.qmgr = checked_qmgr_name(options.name);
    refuse_other_qmgr(global, named.qmgr);
    const auto store = open_store(named);
    require_owner(store->dir(), "delete it");
    for (const std::string& channel : store->object_names("CHL")) {
        refuse_running(*store, channel);
    }
    std::uint64_t messages = 0;
    for (const QueueInfo& queue : store->queues()) {
        messages += queue.depth;
    }
    if (messages > 0 && !options.purge) {
        throw Error(Errc::kBusy, fmt::format("queue manager {} has {} on its queues: give --purge to delete them, too",
                                             named.qmgr, message_count(messages)));
    }
    if (!options.yes) {
        throw UsageError(fmt::format("queue manager {} with its definitions and logs in {} would be deleted: give "
                                     "--yes to do it",
                                     named.qmgr, store->dir().native()));
    }
    const std::filesystem::path home = store->dir().parent_path();
    if (::access(home.c_str(), W_OK | X_OK) != 0) {
        throw Error(Errc::kPermission, fmt::format("{} cannot be deleted from {}, which the owner of the queue manager "
                                                   "may not change: nothing was deleted, remove the folder by hand",
                                                   named.qmgr, home.native()));
    }
    store->destroy(options.purge);
    report(global, "qmgr", named.qmgr);
}

CLI::App* add_kind(CLI::App& parent, const char* kind, const char* type, const char* help,
                   const std::shared_ptr<DeleteOptions>& options) {
    CLI::App* command = parent.add_subcommand(kind, help);
    command->add_option("name", options->name, "Its name")->required()->type_name(type);
    return command;
}

} // namespace

void add_delete_command(CLI::App& app, GlobalOptions& global) {
    CLI::App* command = app.add_subcommand("delete", "Delete a queue, a channel or a queue manager");
    command->require_subcommand(1);
    set_examples(*command, "  kvr delete channel EAST.WEST\n  kvr delete queue TO.WEST --purge\n"
                           "  kvr delete qmgr EAST --purge --yes\n");
    auto options = std::make_shared<DeleteOptions>();

    CLI::App* queue =
        add_kind(*command, "queue", "QUEUE", "Delete a queue, with the messages that were sent and are kept", options);
    queue->add_flag("--purge", options->purge, "Delete its messages, too");
    set_examples(*queue, "  kvr delete queue TO.WEST\n  kvr delete queue TO.WEST --purge\n");
    queue->callback([options, &global] { delete_queue(global, *options); });

    CLI::App* channel = add_kind(*command, "channel", "CHANNEL", "Delete a channel and its status", options);
    set_examples(*channel, "  kvr delete channel EAST.WEST\n");
    channel->callback([options, &global] { delete_channel(global, *options); });

    CLI::App* qmgr = add_kind(*command, "qmgr", "QMGR", "Delete a queue manager with all that it has", options);
    qmgr->add_flag("--purge", options->purge, "Delete messages, too");
    qmgr->add_flag("--yes", options->yes, "Yes, delete it");
    set_examples(*qmgr, "  kvr delete qmgr EAST --yes\n  kvr delete qmgr EAST --purge --yes\n");
    qmgr->callback([options, &global] { delete_qmgr(global, *options); });
}

} // namespace kvr
