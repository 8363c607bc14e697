// SPDX-License-Identifier: MIT
// kvr create: a new queue manager, with a dead-letter queue of its own so that no failed message is without a home.
#include <memory>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "commands.h"
#include "output.h"
#include "session.h"
#include "settings.h"

namespace kvr {
namespace {

constexpr const char* kDeadLetterQueue = "DEAD.LETTER.QUEUE";

struct CreateOptions {
    std::string qmgr;
    std::string quota;
    std::string group;
    bool fast = false;
};

void define_dead_letter_queue(Store& store) {
    store.queue_define(kDeadLetterQueue, "Messages that a channel could not deliver");
    const Attributes attributes{{"DEADQ", kDeadLetterQueue}};
    if (object_exists(store, "QMGR", "QMGR")) {
        store.object_set("QMGR", "QMGR", attributes);
    } else {
        store.object_add("QMGR", "QMGR", attributes);
    }
}

void create(const GlobalOptions& global, const CreateOptions& options) {
    const std::string qmgr = checked_qmgr_name(options.qmgr);
    refuse_other_qmgr(global, qmgr);
    Settings settings;
    if (!options.quota.empty()) {
        settings["quota"] = quota_setting(options.quota);
    }
    if (options.fast) {
        settings["sync"] = "off";
    }
    if (!options.group.empty()) {
        settings["group"] = options.group;
    }
    const std::filesystem::path dir = home_folder(global, true) / qmgr;
    std::error_code ignored;
    if (std::filesystem::exists(dir, ignored)) {
        const std::string removal =
            Store::exists(dir) ? fmt::format("with 'kvr delete qmgr {}'", qmgr) : "by hand, as it is no queue manager";
        throw Error(Errc::kExists,
                    fmt::format("{} exists already: choose another name, or remove it {}", dir.native(), removal));
    }
    Store::create(dir, qmgr, settings);
    const auto store = Store::open(dir);
    try {
        define_dead_letter_queue(*store);
    } catch (const Error&) {
        store->destroy(true); // all of it or nothing
        throw;
    }
    warn_of_group(*store);
    if (global.json) {
        print_json({{"qmgr", qmgr}, {"folder", dir.native()}, {"dead_letter_queue", kDeadLetterQueue}});
        return;
    }
    print(fmt::format("created queue manager {} in {}, dead-letter queue {}\n", qmgr, dir.native(), kDeadLetterQueue));
}

} // namespace

void add_create_command(CLI::App& app, GlobalOptions& global) {
    auto options = std::make_shared<CreateOptions>();
    CLI::App* command = app.add_subcommand("create", "Make a queue manager");
    command->add_option("name", options->qmgr, "Name of the queue manager")->required()->type_name("NAME");
    command->add_option("--quota", options->quota, "Bytes of messages beyond which puts are refused [7G]")
        ->type_name("SIZE");
    command->add_flag("--fast", options->fast, "Do not wait for the disk: a power loss can take the last seconds");
    command->add_option("--group", options->group, "Group whose members may use it, too [none]")->type_name("GROUP");
    set_examples(*command, "  kvr create EAST\n  kvr create EAST --quota 500M\n  kvr create EAST --group apps\n");
    command->callback([options, &global] { create(global, *options); });
}

} // namespace kvr
