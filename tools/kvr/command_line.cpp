// SPDX-License-Identifier: MIT
#include "command_line.h"

#include <cstdio>
#include <exception>
#include <utility>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "kavutil/error.h"
#include "output.h"
#include "session.h"
#include "store_owner.h"

namespace kvr {

void set_examples(CLI::App& command, const std::string& examples) {
    command.footer("\nExamples:\n" + examples +
                   "\nEvery command takes --home DIR, -m/--qmgr NAME and --json as well; see 'kvr --help'.");
}

CLI::Validator seconds_between(double least, double greatest) {
    return CLI::Validator(
        [least, greatest](const std::string& text) {
            double seconds = 0;
            const bool good = CLI::detail::lexical_cast(text, seconds) && seconds >= least && seconds <= greatest;
            return good ? std::string()
                        : fmt::format("'{}' is not within {:g} to {:.0f} seconds", text, least, greatest);
        },
        "");
}

namespace {

constexpr std::size_t kHelpColumn = 32;

constexpr const char* kOverview = R"(
Examples:
  kvr create EAST                                     make a queue manager with its dead-letter queue
  kvr define queue TO.WEST                            a transmission queue
  kvr define channel EAST.WEST XMITQ=TO.WEST CONNAME='10.0.0.2(5151)'
  kvr run EAST.WEST                                   move its messages, in the foreground
  kvr put TO.WEST 'hello' --dest ORDERS@WEST          a message for the queue ORDERS of WEST
  kvr status --watch                                  see it leave

Exit codes: 0 done, 1 failed, 2 wrong usage, 3 fewer messages than 'get' was to
take, 4 the command of 'get --exec' failed, 6 a channel or listener that cannot
start until something is changed. 'kvr COMMAND --help' has the options and examples of a command.)";

/// The command as far as it was recognised: as typed, for the pointer to its help, and its place.
std::pair<std::string, const CLI::App*> recognised_command(const CLI::App& app) {
    std::string path = "kvr";
    const CLI::App* level = &app;
    for (auto parsed = level->get_subcommands(); !parsed.empty(); parsed = level->get_subcommands()) {
        level = parsed.front();
        path += " " + level->get_name();
    }
    return {path, level};
}

/// The parser misses a command or an argument before it looks at a word that it does not know.
std::string complaint(const CLI::App& app, const CLI::App& command, const CLI::ParseError& error) {
    const std::vector<std::string> unknown = app.remaining(true);
    std::string commands;
    for (const CLI::App* each : command.get_subcommands([](const CLI::App*) { return true; })) {
        commands += (commands.empty() ? "" : ", ") + each->get_name();
    }
    if (!unknown.empty() &&
        (error.get_name() == "RequiredError" || dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr)) {
        const char* const what = unknown.front().starts_with('-') ? "option"
                                 : commands.empty()               ? "place for"
                                                                  : "command";
        return fmt::format("there is no {} '{}' here", what, printable(unknown.front()));
    }
    if (error.get_name() == "RequiredError" && !commands.empty()) {
        return "a command has to follow: " + commands;
    }
    return printable(error.what());
}

void add_commands(CLI::App& app, GlobalOptions& global) {
    add_create_command(app, global);
    add_define_command(app, global);
    add_set_command(app, global);
    add_show_command(app, global);
    add_delete_command(app, global);
    add_put_command(app, global);
    add_get_command(app, global);
    add_browse_command(app, global);
    add_release_command(app, global);
    add_move_command(app, global);
    add_replay_command(app, global);
    add_run_command(app, global);
    add_stop_command(app, global);
    add_status_command(app, global);
    add_listen_command(app, global);
    add_dissect_command(app, global);
    add_completion_command(app, global);
}

} // namespace

void add_command_line(CLI::App& app, GlobalOptions& global) {
    app.name("kvr");
    app.description("kvr: administers queue managers, moves messages, runs channels and listeners.");
    app.get_formatter()->column_width(kHelpColumn);
    app.fallthrough();
    app.require_subcommand(1);
    app.set_help_flag("-h,--help", "Print this help and exit");
    app.set_version_flag("--version", "kvr " KVR_VERSION, "Print the version and exit");
    app.add_option("--home", global.home, "Folder of the queue managers (default: $HOME/.kvr)")
        ->envname("KVR_HOME")
        ->type_name("DIR");
    app.add_option("-m,--qmgr", global.qmgr, "Queue manager (default: the only one in the folder)")
        ->envname("KVR_QMGR")
        ->type_name("QMGR");
    app.add_flag("--json", global.json, "Print JSON instead of text for people");
    app.footer(kOverview);
    add_commands(app, global);
}

int run_command_line(int argc, char** argv) {
    CLI::App app;
    GlobalOptions global;
    global.argc = argc;
    global.argv = argv;
    add_command_line(app, global);
    try {
        app.parse(argc, argv);
        flush_output();
        return kExitDone;
    } catch (const CLI::Success& help) {
        (void)app.exit(help);
        std::cout.flush();
        flush_output();
        return std::cout.good() ? kExitDone : kExitFailed;
    } catch (const CLI::ParseError& error) {
        const auto [words, command] = recognised_command(app);
        complain(fmt::format("{}: see '{} --help'", complaint(app, *command, error), words));
        return kExitUsage;
    } catch (const UsageError& error) {
        (void)std::fflush(stdout);
        complain(error.what());
        return kExitUsage;
    } catch (const ReaderGone&) {
        return kExitDone;
    } catch (const std::exception& error) {
        (void)std::fflush(stdout);
        complain(error.what() + owner_note());
        const auto* known = dynamic_cast<const ExitError*>(&error);
        return known != nullptr ? known->exit_code() : kExitFailed;
    }
}

} // namespace kvr
