// SPDX-License-Identifier: MIT
// kvr run: the worker of one channel, in the foreground.
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <memory>

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "attributes.h"
#include "commands.h"
#include "core_ctx/worker.h"
#include "held_signals.h"
#include "key_log_env.h"
#include "output.h"
#include "receiver/key_log.h"
#include "session.h"
#include "store/access.h"
#include "store/engine.h"
#include "store/permissions.h"

namespace kvr {
namespace {

namespace fs = std::filesystem;

constexpr const char* kPluginFile = "libplug_kavro_chls.so";

struct RunOptions {
    std::string channel;
    std::string log;
    std::string plugin;
    std::string key_log;
    int log_level = 3;
};

/// What is said when the channel ends the process on a failure of its own; empty: nothing.
std::string& last_words() {
    static std::string& text = *new std::string; // never destroyed: exit handlers use it
    return text;
}

void say_last_words(int status, void* /*unused*/) {
    if (status != 0 && !last_words().empty()) {
        complain(last_words());
    }
}

fs::path plugin_file(const std::string& given) {
    std::error_code error;
    if (!given.empty()) {
        fs::path file = fs::absolute(given);
        if (!fs::is_regular_file(file, error)) {
            throw Error(Errc::kNotFound,
                        fmt::format("the plug-in {} does not exist: check --plugin", printable(file.native())));
        }
        return file;
    }
    fs::path file = library_folder() / kPluginFile;
    if (!fs::is_regular_file(file, error)) {
        throw Error(Errc::kNotFound, fmt::format("the plug-in {} does not exist: build or install it, or name it with "
                                                 "--plugin FILE",
                                                 file.native()));
    }
    return file;
}

fs::path log_file(Store& store, const std::string& channel, const std::string& given) {
    if (given == "-") {
        return {};
    }
    if (!given.empty()) {
        return fs::absolute(given);
    }
    const fs::path folder = store.dir() / "log";
    ensure_private_folder(folder);
    return folder / (channel + ".log");
}

bool uses_tls(Store& store, const std::string& channel) {
    return ::strcasecmp(value_of(store.object_get("CHL", channel), "SSLCAUTH").c_str(), "ENABLE") == 0;
}

/// The connection could never be made without these; better said now than in a log after the first retries.
void check_tls_files(Store& store, const std::string& channel) {
    if (!uses_tls(store, channel)) {
        return;
    }
    const Attributes qmgr = store.object_get("QMGR", "QMGR");
    for (const char* attr : {"CAFILE", "CERTFILE", "KEYFILE"}) {
        const std::string file = value_of(qmgr, attr);
        if (file.empty()) {
            throw Error(Errc::kNotFound, fmt::format("channel {} uses TLS and the queue manager has no {}: set it with "
                                                     "'kvr set qmgr {}=FILE'",
                                                     channel, attr, attr));
        }
        if (::access(file.c_str(), R_OK) != 0) {
            throw Error(Errc::kNotFound,
                        fmt::format("the {} {} cannot be read ({}): put it there, or change it with "
                                    "'kvr set qmgr {}=FILE'",
                                    attr, printable(file), std::generic_category().message(errno), attr));
        }
    }
}

/// Tells the TCP client where keys go: nowhere, unless this command line says so.
void set_key_log(Store& store, const std::string& channel, const std::string& given) {
    ::unsetenv(KVR_KEY_LOG_ENV);
    if (given.empty()) {
        return;
    }
    if (!uses_tls(store, channel)) {
        throw Error(Errc::kInvalid, fmt::format("--key-log without TLS: leave it out, or set channel {} to "
                                                "SSLCAUTH=ENABLE",
                                                channel));
    }
    const fs::path file = fs::absolute(given);
    static_cast<void>(open_key_log(file));
    ::setenv(KVR_KEY_LOG_ENV, file.c_str(), 1);
    complain(key_log_warning(file));
}

bool stop_is_held_back() {
    sigset_t pending;
    return ::sigpending(&pending) == 0 &&
           (::sigismember(&pending, SIGTERM) == 1 || ::sigismember(&pending, SIGINT) == 1);
}

WorkerOptions worker_options(const GlobalOptions& global, const RunOptions& options) {
    WorkerOptions worker;
    worker.channel = checked_channel_name(options.channel);
    worker.plugin = plugin_file(options.plugin);
    worker.log_level = options.log_level;
    const auto store = open_store(global);
    require_owner(store->dir(), "run its channels");
    require_channel(*store, worker.channel);
    check_tls_files(*store, worker.channel);
    worker.home = store->dir().parent_path();
    worker.qmgr = store->qmgr();
    worker.log_file = log_file(*store, worker.channel, options.log);
    set_key_log(*store, worker.channel, options.key_log);
    return worker;
}

/// "EAST:EAST.WEST": a service has one word for both names.
void split_off_qmgr(GlobalOptions& global, std::string& channel) {
    const std::size_t colon = channel.find(':');
    if (colon != std::string::npos) {
        const std::string qmgr = checked_qmgr_name(channel.substr(0, colon));
        refuse_other_qmgr(global, qmgr);
        global.qmgr = qmgr;
        channel.erase(0, colon + 1);
    }
}

void run(const GlobalOptions& global, const RunOptions& options) {
    hold_signals({SIGTERM, SIGINT, SIGHUP});
    WorkerOptions worker;
    try {
        worker = worker_options(global, options);
    } catch (const Error&) {
        if (!stop_is_held_back()) {
            throw;
        }
        return; // it ended a wait
    }
    const std::string where = worker.log_file.empty() ? std::string("its log above") : worker.log_file.native();
    worker.on_claimed = [&] {
        remark(fmt::format("channel {} of {} starts; log {}; stop it with Ctrl-C or 'kvr stop {}'", worker.channel,
                           worker.qmgr, worker.log_file.empty() ? "on standard error" : where, worker.channel));
    };
    last_words() = fmt::format("channel {} ended after a failure: the last lines of {} say why", worker.channel, where);
    (void)::on_exit(say_last_words, nullptr);
    try {
        run_worker(worker, global.argc, global.argv);
    } catch (...) {
        last_words().clear();
        throw;
    }
}

} // namespace

void add_run_command(CLI::App& app, GlobalOptions& global) {
    auto options = std::make_shared<RunOptions>();
    CLI::App* command = app.add_subcommand("run", "Run a channel in the foreground");
    command->add_option("channel", options->channel, "Channel, or with its queue manager QMGR:CHANNEL")
        ->required()
        ->type_name("CHANNEL");
    command
        ->add_option("--log,--log-file", options->log,
                     "Log file; - for standard error (default: log/CHANNEL.log in the queue manager's folder)")
        ->type_name("FILE");
    command->add_option("--log-level", options->log_level, "1 failures to 5 every step [3]")
        ->check(CLI::Range(1, 5).description(""))
        ->type_name("1-5");
    command->add_option("--plugin", options->plugin, "Channel plug-in (default: the one installed with this program)")
        ->type_name("FILE");
    command
        ->add_option(
            "--key-log", options->key_log,
            "Append the keys of its TLS sessions to this file, for an analyser: who reads it can read the line")
        ->type_name("FILE");
    set_examples(
        *command,
        "  kvr run EAST.WEST\n  kvr run EAST.WEST --log - --log-level 5\n"
        "The program ends with 0 after a stop, with 1 when the channel failed, and with 6 when it cannot start\n"
        "until something is changed: the definition, a file, the process that runs it already.\n");
    command->callback([options, &global] {
        split_off_qmgr(global, options->channel);
        serve([&] { run(global, *options); });
    });
}

} // namespace kvr
