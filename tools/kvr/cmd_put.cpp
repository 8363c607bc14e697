// SPDX-License-Identifier: MIT
// kvr put: one message, or many of one kind. Many are put in groups, each group durably and whole or not at all.
#include <array>
#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include <sys/random.h>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "commands.h"
#include "descriptor.h"
#include "destination.h"
#include "input.h"
#include "kavro_chl.h"
#include "output.h"
#include "progress.h"
#include "proof/proof.h"
#include "session.h"
#include "store/descriptor.h"
#include "store/text_field.h"

namespace kvr {
namespace {

using Clock = std::chrono::steady_clock;

/// Bounds of one group: the reader of the queue waits at most so long, and the memory stays small.
constexpr std::size_t kGroupCount = 256;
constexpr std::size_t kGroupBytes = 4U << 20;
constexpr std::chrono::milliseconds kGroupTime{100};
constexpr std::size_t kMaxFilePath = 1023; ///< of a file message: the channel's buffer with its NUL is 1,024
constexpr std::size_t kMaxAttachmentPath = KVR_ACC_PATH_SIZE - 1;

struct PutOptions {
    std::string queue;
    std::optional<std::string> argument;
    std::optional<std::string> data;
    std::optional<std::string> data_file;
    std::optional<std::string> file;
    std::optional<std::string> size;
    std::optional<std::string> file_size;
    std::string file_dir;
    std::optional<std::uint64_t> seed;
    std::optional<std::string> destination;
    std::vector<std::string> attachments;
    std::map<std::string, std::string> fields; ///< by field name
    std::uint32_t count = 1;
};

struct Totals {
    std::uint64_t messages = 0;
    std::uint64_t bytes = 0; ///< of data after the header, and of generated files
    std::string first_id;
    std::optional<std::uint64_t> seed;
    double seconds = 0;
};

/// Messages on their way to the store.
class Group {
  public:
    Group(Store& store, const std::string& queue) : store_(store), queue_(queue) {}

    void add(ProofMessage message) {
        if (messages_.empty()) {
            started_ = Clock::now();
        }
        bytes_ += message.data.size();
        messages_.push_back(std::move(message));
        if (messages_.size() >= kGroupCount || bytes_ >= kGroupBytes || Clock::now() - started_ >= kGroupTime) {
            flush();
        }
    }

    void flush() {
        if (messages_.empty()) {
            return;
        }
        std::vector<OutgoingMessage> outgoing;
        outgoing.reserve(messages_.size());
        for (const ProofMessage& message : messages_) {
            outgoing.push_back({&message.descriptor, message.attachments, message.data});
        }
        store_.put(queue_, outgoing);
        put_ += messages_.size();
        messages_.clear();
        bytes_ = 0;
    }

    [[nodiscard]] std::uint64_t put() const { return put_; }

  private:
    Store& store_;
    const std::string& queue_;
    std::vector<ProofMessage> messages_;
    std::size_t bytes_ = 0;
    std::uint64_t put_ = 0;
    Clock::time_point started_;
};

/// Whether messages are made here: data, data with files, or files.
bool generated(const PutOptions& options) {
    return options.size || options.file_size;
}

void check_sources(const PutOptions& options) {
    const int sources = (options.argument ? 1 : 0) + (options.data ? 1 : 0) + (options.data_file ? 1 : 0) +
                        (options.file ? 1 : 0) + (generated(options) ? 1 : 0);
    if (sources > 1) {
        throw UsageError("the data comes from more than one place: give one of DATA, --data, --data-file, --file, "
                         "--size, --file-size");
    }
    if (options.attachments.size() > KVR_ACC_MAX) {
        throw UsageError(
            fmt::format("{} files are attached: a message takes at most {}", options.attachments.size(), KVR_ACC_MAX));
    }
    if (options.file_size.has_value() == options.file_dir.empty()) {
        throw UsageError("--file-size and --file-dir go together: how large generated files are, and where they lie");
    }
    if (!generated(options)) {
        if (options.seed) {
            throw UsageError("--seed goes with generated data: give --size or --file-size, too");
        }
        return;
    }
    if (!options.attachments.empty()) {
        throw UsageError("--attach goes with data of your own: for files with generated data give --file-size");
    }
    for (const char* name : {"correlid", "group-id", "seqno", "format"}) {
        if (options.fields.contains(name)) {
            throw UsageError(
                fmt::format("--{} holds the proof of generated data: leave it out with --size and --file-size", name));
        }
    }
}

T_KAVRO_MD descriptor_from(const PutOptions& options) {
    T_KAVRO_MD descriptor = blank_descriptor();
    for (const DescriptorField& field : descriptor_fields()) {
        if (const auto given = options.fields.find(std::string(field.name)); given != options.fields.end()) {
            set_field(descriptor, field, given->second);
        }
    }
    if ((descriptor.iMsgFlags & KVR_MSGFLAG_ACCESSORIES) != 0) {
        throw UsageError("--flags has bit 4, which says that files are attached: leave it out, --attach sets it");
    }
    if (!options.attachments.empty()) {
        descriptor.iMsgFlags |= KVR_MSGFLAG_ACCESSORIES;
    }
    if (options.file) {
        descriptor.cMsgStoreType = KVR_STORE_FILE;
    }
    return descriptor;
}

SizeRange parse_range(const std::string& option, const std::string& text) {
    const std::size_t dash = text.find('-');
    const std::string what = dash == std::string::npos ? option : fmt::format("{} {}:", option, text);
    const std::size_t least = parse_size(what, text.substr(0, dash));
    const SizeRange range{least, dash == std::string::npos ? least : parse_size(what, text.substr(dash + 1))};
    if (range.least > range.greatest) {
        throw UsageError(fmt::format("{} {} goes downwards: give MIN-MAX", option, text));
    }
    return range;
}

ProofPlan proof_plan(const PutOptions& options) {
    ProofPlan plan{};
    plan.count = options.count;
    if (options.size) {
        plan.data = parse_range("--size", *options.size);
    }
    if (options.file_size) {
        plan.kind = options.size ? ProofKind::kAttached : ProofKind::kFile;
        plan.file = parse_range("--file-size", *options.file_size);
        if (plan.file.least < 1 || plan.file.greatest > KVR_CHL_NUM_MAX) {
            throw UsageError(
                fmt::format("--file-size {} is not possible: a file has 1 to 99,999,999 bytes", *options.file_size));
        }
    }
    if (options.seed) {
        plan.seed = *options.seed;
    } else if (::getrandom(&plan.seed, sizeof plan.seed, 0) != sizeof plan.seed) {
        throw Error(Errc::kIo, "the system gives no random number: give --seed NUMBER");
    }
    return plan;
}

/// The folder of generated files, from which a channel can send them.
std::filesystem::path proof_folder(const PutOptions& options) {
    if (!options.file_size) {
        return {};
    }
    std::filesystem::path folder = std::filesystem::absolute(options.file_dir).lexically_normal();
    std::error_code error;
    if (!std::filesystem::is_directory(folder, error)) {
        throw Error(Errc::kNotFound, fmt::format("there is no folder {}: make it, or name another one in --file-dir",
                                                 printable(folder.native())));
    }
    const std::size_t longest = (options.size ? kMaxAttachmentPath : kMaxFilePath) - 1 - kMaxProofFileName;
    if (folder.native().size() > longest) {
        throw Error(Errc::kTooLong, fmt::format("the path {} has {} bytes: for generated files use at most {}",
                                                printable(folder.native()), folder.native().size(), longest));
    }
    return folder;
}

[[noreturn]] void refuse_too_large(const std::string& size, std::size_t header) {
    throw Error(Errc::kTooLarge,
                fmt::format("the data of {} bytes is too large: a message takes at most {} bytes{}; send larger data "
                            "as a file with --file or --attach",
                            size, header > 0 ? "2,098,304" : "2,098,376",
                            header > 0 ? " after its transmission header" : " with its transmission header"));
}

/// The data of every message, or nothing when it is generated.
std::string given_data(const PutOptions& options, std::size_t limit, std::size_t header) {
    if (options.file) {
        return sendable_file(*options.file, kMaxFilePath);
    }
    if (options.argument || options.data) {
        return options.argument ? *options.argument : *options.data;
    }
    try {
        return read_input(options.data_file.value_or("-"), limit, "the data in");
    } catch (const Error& error) {
        if (error.code() != Errc::kTooLarge) {
            throw;
        }
        refuse_too_large(fmt::format("more than {}", limit), header);
    }
}

/// A message without a header on a channel's transmission queue ends on the dead-letter queue, or nowhere.
void warn_without_destination(Store& store, const PutOptions& options, const std::string& data) {
    if (options.destination || destination_of(data)) {
        return;
    }
    const std::string fate = dead_letter_queue(store).empty() ? "drop it, as no dead-letter queue is set"
                                                              : "put it on the dead-letter queue";
    if (const std::string channel = channel_that_drains(store, options.queue); !channel.empty()) {
        remark(fmt::format("warning: {} is the transmission queue of channel {} and this data has no transmission "
                           "header: the channel will {}; give --dest QUEUE@QMGR",
                           options.queue, channel, fate));
    }
}

Totals put_messages(Store& store, const PutOptions& options, const std::vector<std::string>& attachments,
                    T_KAVRO_MD descriptor, const std::string& header) {
    const std::size_t limit = kMaxMessage - header.size();
    std::optional<ProofPlan> plan;
    std::string data;
    if (generated(options)) {
        plan = proof_plan(options);
    } else {
        data = given_data(options, limit, header.size());
    }
    const std::size_t largest = plan ? plan->data.greatest : data.size();
    if (largest > limit) {
        refuse_too_large(std::to_string(largest), header.size());
    }
    const std::filesystem::path folder = proof_folder(options);
    warn_without_destination(store, options, data);

    const Clock::time_point start = Clock::now();
    Totals totals;
    Progress progress(options.count);
    Group group(store, options.queue);
    const bool own_id = !options.fields.contains("msgid");
    try {
        for (std::uint32_t number = 1; number <= options.count; ++number) {
            if (own_id) {
                fill_text(descriptor.sMsgId, sizeof descriptor.sMsgId, "");
            }
            complete_descriptor(descriptor, "kvr");
            if (number == 1) {
                totals.first_id = message_id_text(descriptor);
            }
            ProofMessage message = plan ? make_proof(*plan, number, descriptor, folder)
                                        : ProofMessage{descriptor, attachments, data, data.size()};
            totals.bytes += message.size;
            message.data.insert(0, header);
            group.add(std::move(message));
            progress.update(number);
        }
        group.flush();
    } catch (const Error& error) {
        if (group.put() == 0) {
            throw;
        }
        throw Error(error.code(), fmt::format("only the first {} of {} messages are on queue {}: {}", group.put(),
                                              options.count, options.queue, error.what()));
    }
    totals.messages = group.put();
    totals.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    if (plan) {
        totals.seed = plan->seed;
    }
    return totals;
}

void report(const GlobalOptions& global, const PutOptions& options, const Totals& totals) {
    Json json{{"queue", options.queue},
              {"messages", totals.messages},
              {"bytes", totals.bytes},
              {"msgid", totals.first_id},
              {"seconds", totals.seconds}};
    if (totals.seed) {
        json["run"] = fmt::format("{:016X}", *totals.seed);
    }
    std::string line = fmt::format("put 1 message of {} byte{} on {}, id {}", totals.bytes,
                                   totals.bytes == 1 ? "" : "s", options.queue, printable(totals.first_id));
    if (totals.messages != 1) {
        const double rate = totals.seconds > 0 ? static_cast<double>(totals.messages) / totals.seconds : 0;
        line = fmt::format("put {} messages ({}) on {} in {:.2f} s: {:.0f}/s", totals.messages,
                           human_size(totals.bytes), options.queue, totals.seconds, rate);
        line += totals.seed ? fmt::format(", run {:016X}", *totals.seed) : std::string();
    }
    print_outcome(global.json, json, line);
}

void put(const GlobalOptions& global, PutOptions& options) {
    options.queue = checked_queue_name(options.queue);
    check_sources(options);
    const T_KAVRO_MD descriptor = descriptor_from(options);
    const std::string header =
        options.destination ? xmit_header(parse_destination(*options.destination)) : std::string();
    const auto store = open_store(global);
    require_queue(*store, options.queue);
    std::vector<std::string> attachments;
    for (const std::string& file : options.attachments) { // as the user that the channel reads them as
        attachments.push_back(sendable_file(file, kMaxAttachmentPath));
    }
    report(global, options, put_messages(*store, options, attachments, descriptor, header));
}

void add_field_options(CLI::App& command, const std::shared_ptr<PutOptions>& options) {
    for (const DescriptorField& field : descriptor_fields()) {
        if (field.help.empty()) {
            continue;
        }
        const std::string name(field.name);
        command
            .add_option_function<std::string>(
                "--" + name, [options, name](const std::string& value) { options->fields[name] = value; },
                std::string(field.help))
            ->type_name(field.kind == FieldKind::kNumber ? "NUMBER" : "TEXT")
            ->group("Descriptor");
    }
}

} // namespace

void add_put_command(CLI::App& app, GlobalOptions& global) {
    auto options = std::make_shared<PutOptions>();
    CLI::App* command = app.add_subcommand("put", "Put messages on a queue");
    command->add_option("queue", options->queue, "Queue")->required()->type_name("QUEUE");
    command->add_option("data", options->argument, "Data of the message (default: standard input)")->type_name("DATA");
    command->add_option("--data", options->data, "Data of the message")->type_name("DATA");
    command->add_option("--data-file", options->data_file, "File whose contents are the data; - for standard input")
        ->type_name("FILE");
    command->add_option("--dest", options->destination, "Destination: puts the transmission header in front")
        ->type_name("QUEUE[@QMGR]");
    command->add_option("--attach", options->attachments, "Attach a file of 1 to 99,999,999 bytes; up to 30 times")
        ->type_name("FILE")
        ->allow_extra_args(false);
    command->add_option("--file", options->file, "Send this file: the message holds its path")->type_name("FILE");
    command->add_option("--count", options->count, "Number of messages [1]")
        ->check(CLI::Range(std::uint32_t{1}, kMaxProofCount).description(""))
        ->type_name("N");
    command
        ->add_option("--size", options->size, "Generate data of this size, numbered and checksummed for 'get --verify'")
        ->type_name("MIN[-MAX]");
    command
        ->add_option("--file-size", options->file_size,
                     "Generate two attached files of this size with the data; without --size, file messages")
        ->type_name("MIN[-MAX]");
    command->add_option("--file-dir", options->file_dir, "Folder in which generated files are made, and stay")
        ->type_name("DIR");
    command->add_option("--seed", options->seed, "Seed of generated data (default: random)")
        ->check(CLI::Validator(
            [](const std::string& text) {
                return text.find_first_not_of("0123456789") == std::string::npos
                           ? std::string()
                           : fmt::format("'{}' is not a number from 0 to 18446744073709551615", text);
            },
            ""))
        ->type_name("NUMBER");
    add_field_options(*command, options);
    set_examples(*command,
                 "  kvr put TO.WEST 'hello' --dest ORDERS@WEST\n"
                 "  kvr put TO.WEST --data-file order.xml --dest ORDERS --format XML --priority 5\n"
                 "  kvr put TO.WEST 'see files' --dest ORDERS --attach a.pdf --attach b.pdf\n"
                 "  kvr put TO.WEST --dest ORDERS --file /var/spool/in/x.dat\n"
                 "  kvr put TO.WEST --dest LOAD --count 100000 --size 0-4096\n"
                 "  kvr put TO.WEST --dest LOAD --count 100 --size 1K --file-size 1-10M --file-dir /tmp/files\n");
    command->callback([options, &global] { put(global, *options); });
}

} // namespace kvr
