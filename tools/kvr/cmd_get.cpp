// SPDX-License-Identifier: MIT
// kvr get: takes messages off a queue. A message is used up only after its output has been handed over, or its command
// is done, so a full disk or a closed pipe loses none.
#include <cmath>
#include <limits>
#include <memory>
#include <optional>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "commands.h"
#include "data_sink.h"
#include "destination.h"
#include "exec_command.h"
#include "message_environment.h"
#include "message_source.h"
#include "message_text.h"
#include "output.h"
#include "proof_report.h"
#include "session.h"

namespace kvr {
namespace {

constexpr double kMaxWait = 86400.0 * 365;

struct GetOptions {
    std::string queue;
    std::uint64_t count = 1;
    bool all = false;
    double wait = 0;
    std::string out;
    bool raw = false;
    bool hex = false;
    bool verify = false;
    bool shared = false;
    std::string command;
    std::uint32_t max_tries = 0;
    std::string aside;
    [[nodiscard]] std::uint64_t wanted() const { return all ? std::numeric_limits<std::uint64_t>::max() : count; }
};

/// Where the messages go.
class Target {
  public:
    Target(const GlobalOptions& global, const GetOptions& options) : json_(global.json), options_(options) {
        if (!options.out.empty()) {
            sink_.emplace(options.out);
            if (!sink_->is_folder() && (options.all || options.count > 1)) {
                throw UsageError(fmt::format("--out {} is one file and more than one message is asked for: name a "
                                             "folder, with a slash at its end",
                                             printable(options.out)));
            }
        }
    }

    /// False for a message whose content is not proven, although that was asked for: it has gone nowhere.
    bool take(const TakenView& message) {
        if (options_.verify && !check_.take(message.descriptor, message.data, message.attachments)) {
            ++unproven_;
            return false;
        }
        const std::string file = sink_ ? sink_->write(message.data) : std::string();
        if (options_.raw) {
            if (!sink_) {
                print(message.data);
            }
        } else if (!options_.verify) {
            describe({std::nullopt, message.descriptor, message.attachments, message.data, "", "", message.given_back},
                     file);
        }
        flush_output();
        return true;
    }

    /// Throws when the check of the proofs found something.
    void finish() {
        if (!options_.verify) {
            return;
        }
        print_outcome(json_, proof_json(check_, options_.all), proof_text(check_, options_.all));
        if (!check_.good(options_.all)) {
            const std::string left = fmt::format("; {} without proven content stayed on queue {}, see 'kvr browse {}'",
                                                 message_count(unproven_), options_.queue, options_.queue);
            throw Error(Errc::kDamaged, "the messages are not what was put: see the report above" +
                                            (unproven_ > 0 ? left : std::string()));
        }
    }

  private:
    void describe(const ShownMessage& view, const std::string& file) {
        DataForm form = options_.hex ? DataForm::kHex : DataForm::kText;
        if (!file.empty()) {
            form = DataForm::kNone;
        }
        if (!json_) {
            if (form == DataForm::kText && is_long_binary(view)) {
                throw Error(Errc::kTooLarge, fmt::format("the next message has {} bytes that are no text: take it with "
                                                         "--raw, --hex, --json or --out FILE, it stays on its queue",
                                                         view.data.size()));
            }
            print(message_text(view, form) + (file.empty() ? "" : "  data in:          " + printable(file) + "\n"));
            return;
        }
        Json json = message_json(view, form);
        if (!file.empty()) {
            json["data_file"] = file;
        }
        print_json(json, true);
    }

    bool json_;
    const GetOptions& options_;
    std::optional<DataSink> sink_;
    ProofCheck check_;
    std::uint64_t unproven_ = 0;
};

void check_usage(const GlobalOptions& global, GetOptions& options) {
    options.queue = checked_queue_name(options.queue);
    if (options.raw && (options.hex || options.verify || global.json)) {
        throw UsageError("--raw prints the data and nothing else: leave out --hex, --verify and --json");
    }
    if (!options.command.empty() && (options.hex || options.verify || global.json || !options.out.empty())) {
        throw UsageError("--exec leaves the output to its command: leave out --out, --hex, --verify and --json");
    }
    if (!options.aside.empty() && checked_queue_name(options.aside) == options.queue) {
        throw UsageError("--aside names the queue itself: name another one");
    }
}

std::unique_ptr<MessageSource> open_source(Store& store, const GetOptions& options, int interrupt) {
    constexpr double kMilliseconds = 1000;
    if (!options.aside.empty()) {
        require_queue(store, options.aside);
    }
    SourceOptions source;
    source.wait = std::chrono::milliseconds(static_cast<std::int64_t>(std::ceil(options.wait * kMilliseconds)));
    source.alone = options.all && !options.shared && options.command.empty() && options.max_tries == 0;
    source.interrupt = interrupt;
    source.max_tries = options.max_tries;
    source.aside = options.aside;
    return open_source(store, options.queue, source);
}

/// Returns how many messages were taken.
std::uint64_t take_all(Store& store, const GetOptions& options, Target& target) {
    const std::unique_ptr<MessageSource> source = open_source(store, options, -1);
    std::uint64_t taken = 0;
    for (; taken < options.wanted(); ++taken) {
        const std::optional<TakenView> message = source->next();
        if (!message) {
            break;
        }
        target.take(*message) ? source->use_up() : source->leave();
    }
    source->finish();
    return taken;
}

/// The same, each with the command. What is in hand at a stop is given back.
std::uint64_t exec_all(Store& store, const GetOptions& options, ExecCommand& command) {
    const std::unique_ptr<MessageSource> source = open_source(store, options, command.stop_fd());
    std::uint64_t taken = 0;
    for (; taken < options.wanted() && !command.stopped(); ++taken) {
        const std::optional<TakenView> message = source->next();
        if (!message) {
            break;
        }
        const bool cut = !options.raw && destination_of(message->data);
        if (!command.run(message->data.substr(cut ? kXmitHeaderSize : 0),
                         message_environment(*message, options.queue, store))) {
            if (command.stopped()) {
                break;
            }
            throw ExitError(kExitCommandFailed, Errc::kInterrupted,
                            fmt::format("the command {} with message {}, which is back on queue {}: mend what it "
                                        "complains of, or give --max-tries and --aside",
                                        command.end_text(), printable(message_id_text(message->descriptor)),
                                        options.queue));
        }
        source->use_up();
    }
    source->finish();
    return taken;
}

void refuse_too_few(const GetOptions& options, std::uint64_t taken, bool stopped) {
    if (options.all || taken == options.wanted()) {
        return;
    }
    throw ExitError(kExitTooFew, Errc::kNotFound,
                    stopped ? fmt::format("stopped after {} of {} messages: what is left is on queue {}", taken,
                                          options.wanted(), options.queue)
                            : fmt::format("queue {} had {} of {} messages: put more, or wait for them with "
                                          "--wait SECONDS",
                                          options.queue, taken, options.wanted()));
}

void get(const GlobalOptions& global, GetOptions& options) {
    check_usage(global, options);
    const auto store = open_store(global);
    require_queue(*store, options.queue);
    if (!options.command.empty()) {
        ExecCommand command(options.command);
        const std::uint64_t taken = exec_all(*store, options, command);
        refuse_too_few(options, taken, command.stopped());
        return;
    }
    Target target(global, options);
    const std::uint64_t taken = take_all(*store, options, target);
    target.finish();
    refuse_too_few(options, taken, false);
}

void add_taking_options(CLI::App& command, GetOptions& options) {
    CLI::Option* exec =
        command.add_option("--exec", options.command,
                           "Run this command with each message on its standard input and the attributes in its "
                           "environment; the message is taken when it ends with 0");
    exec->type_name("COMMAND");
    command
        .add_flag("--shared", options.shared,
                  "With --all, leave the queue to others, too; without it they are kept out, unless they were there "
                  "before")
        ->excludes(exec);
    CLI::Option* tries =
        command
            .add_option("--max-tries", options.max_tries,
                        "Put messages that were taken so often and came back on the queue of --aside")
            ->check(CLI::Range(std::uint32_t{1}, std::numeric_limits<std::uint32_t>::max()).description(""))
            ->type_name("N");
    CLI::Option* aside =
        command.add_option("--aside", options.aside, "Queue of --max-tries")->needs(tries)->type_name("QUEUE");
    tries->needs(aside);
}

} // namespace

void add_get_command(CLI::App& app, GlobalOptions& global) {
    auto options = std::make_shared<GetOptions>();
    CLI::App* command = app.add_subcommand("get", "Take messages off a queue");
    command->add_option("queue", options->queue, "Queue")->required()->type_name("QUEUE");
    CLI::Option* count =
        command->add_option("--count", options->count, "Number of messages [1]")
            ->check(CLI::Range(std::int64_t{1}, std::numeric_limits<std::int64_t>::max()).description(""))
            ->type_name("N");
    command->add_flag("--all", options->all, "Until the queue is empty")->excludes(count);
    command->add_option("--wait", options->wait, "Longest wait for each message [0]")
        ->check(seconds_between(0, kMaxWait))
        ->type_name("SECONDS");
    command
        ->add_option("--out", options->out, "Write the data to this file, or to a file for each message in this folder")
        ->type_name("FILE|DIR/");
    command->add_flag("--raw", options->raw, "Print the data only, as it lies on the queue");
    command->add_flag("--hex", options->hex, "Print the data in hexadecimal");
    command->add_flag(
        "--verify", options->verify,
        "Check messages that 'put --size' and --file-size made, with --all missing ones, too; only what is proven "
        "is taken");
    add_taking_options(*command, *options);
    set_examples(*command,
                 "  kvr get ORDERS\n  kvr get ORDERS --wait 10 --raw > order.xml\n"
                 "  kvr get ORDERS --all --out orders/\n  kvr get LOAD --all --verify\n"
                 "  kvr get ORDERS --all --wait 3600 --exec './book \"$KVR_MSGID\"' --max-tries 5 --aside ORDERS.BAD\n"
                 "With --json there is one object on one line for each message.\n");
    command->callback([options, &global] {
        try {
            get(global, *options);
        } catch (const ReaderGone& gone) { // a message was meant for that reader
            throw Error(gone.code(), fmt::format("{}; what was not written stays on its queue", gone.what()));
        }
    });
}

} // namespace kvr
