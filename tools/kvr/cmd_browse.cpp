// SPDX-License-Identifier: MIT
// kvr browse: looks at messages without taking them. They are shown as they are read, and no longer kept than their
// block of the table.
#include <limits>
#include <memory>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "commands.h"
#include "descriptor.h"
#include "destination.h"
#include "message_text.h"
#include "output.h"
#include "session.h"
#include "store/text_field.h"
#include "utc_time.h"

namespace kvr {
namespace {

constexpr std::uint64_t kDefaultCount = 50;
constexpr std::size_t kTableBlock = 1000; ///< rows that share their columns' widths, and wait for each other
constexpr std::size_t kPreview = 24;

struct BrowseOptions {
    std::string queue;
    std::uint64_t count = 0; ///< 0: not given
    std::uint64_t from = 0;
    bool all = false;
    bool held = false;
    bool kept = false;
    bool hex = false;
    bool full = false;
};

std::string_view state_of(const StoredMessage& message) {
    if (message.kept) {
        return message.kept->suspected ? "suspected" : "kept";
    }
    return message.held ? "held" : message.in_hand ? "in hand" : message.repeat ? "repeat" : "ready";
}

std::string used_at(const StoredMessage& message) {
    return message.kept ? utc_text(message.kept->used_at) : std::string();
}

std::vector<std::string> headings(bool kept) {
    std::vector<std::string> names{"SEQ", "STATE", "LENGTH", "DESTINATION", "FORMAT", "FILES", "MESSAGE ID", "DATA"};
    if (kept) {
        names.insert(names.begin() + 2, "USED AT");
    }
    return names;
}

std::vector<std::string> table_row(const StoredMessage& message) {
    const std::string_view data(message.data.data(), message.data.size());
    const auto destination = destination_of(data);
    const std::string_view body = destination ? data.substr(kXmitHeaderSize) : data;
    std::string preview = printable(body.substr(0, kPreview));
    if (body.size() > kPreview) {
        preview += "...";
    }
    std::vector<std::string> row{
        std::to_string(message.sequence),
        std::string(state_of(message)),
        std::to_string(body.size()),
        destination ? destination_text(*destination) : "-",
        printable(field_string(message.descriptor.sFmtName, sizeof message.descriptor.sFmtName)),
        std::to_string(message.attachments.size() + (message.descriptor.cMsgStoreType == KVR_STORE_FILE ? 1 : 0)),
        message_id_text(message.descriptor),
        preview};
    if (message.kept) {
        row.insert(row.begin() + 2, used_at(message));
    }
    return row;
}

class Browser {
  public:
    Browser(const GlobalOptions& global, const BrowseOptions& options)
        : json_(global.json), options_(options), detailed_(options.full || options.hex),
          table_(headings(options.kept)) {}

    void run(Store& store) {
        const auto browse = options_.kept ? &Store::browse_kept : &Store::browse;
        (store.*browse)(options_.queue, options_.from, [this](const StoredMessage& message) { return take(message); });
        finish();
    }

  private:
    /// False once enough was shown.
    bool take(const StoredMessage& message) {
        if (options_.held && !message.held) {
            return true;
        }
        if (!options_.all && shown_ == (options_.count > 0 ? options_.count : kDefaultCount)) {
            cut_ = options_.count == 0;
            return false;
        }
        ++shown_;
        add(message);
        return true;
    }

    void add(const StoredMessage& message) {
        if (!json_ && !detailed_) {
            table_.row(table_row(message));
            if (table_.size() == kTableBlock) {
                print(table_.text());
                flush_output();
            }
            return;
        }
        const ShownMessage view{
            message.sequence,  message.descriptor, message.attachments, {message.data.data(), message.data.size()},
            state_of(message), used_at(message),   message.given_back};
        DataForm form = options_.hex ? DataForm::kHex : options_.full ? DataForm::kText : DataForm::kNone;
        if (json_) {
            print_json(message_json(view, form), true);
        } else {
            print(message_text(view, form) + "\n");
        }
    }

    void finish() {
        if (json_) {
            return;
        }
        if (shown_ == 0) {
            print(options_.held ? "no held messages\n" : options_.kept ? "no kept messages\n" : "no messages\n");
        } else if (table_.size() > 0) {
            print(table_.text());
        }
        if (cut_) {
            flush_output();
            remark("there are more messages: give --count N or --all to see them");
        }
    }

    bool json_;
    const BrowseOptions& options_;
    bool detailed_;
    Table table_;
    std::uint64_t shown_ = 0;
    bool cut_ = false;
};

void browse(const GlobalOptions& global, BrowseOptions& options) {
    options.queue = checked_queue_name(options.queue);
    const auto store = open_store(global);
    require_queue(*store, options.queue);
    Browser(global, options).run(*store);
}

} // namespace

void add_browse_command(CLI::App& app, GlobalOptions& global) {
    auto options = std::make_shared<BrowseOptions>();
    CLI::App* command = app.add_subcommand("browse", "Look at the messages of a queue without taking them");
    command->add_option("queue", options->queue, "Queue")->required()->type_name("QUEUE");
    CLI::Option* count =
        command->add_option("--count", options->count, "Greatest number of messages [50]")
            ->check(CLI::Range(std::int64_t{1}, std::numeric_limits<std::int64_t>::max()).description(""))
            ->type_name("N");
    command->add_flag("--all", options->all, "All messages")->excludes(count);
    command->add_option("--from", options->from, "Begin at this place (column SEQ)")
        ->check(CLI::Range(std::int64_t{0}, std::numeric_limits<std::int64_t>::max()).description(""))
        ->type_name("SEQ");
    CLI::Option* held =
        command->add_flag("--held", options->held, "Held messages only: those whose dead-letter put failed");
    command->add_flag("--kept", options->kept, "Messages that were sent and are kept for a while, instead")
        ->excludes(held);
    command->add_flag("--full", options->full, "Every descriptor field, the attachments and the data");
    command->add_flag("--hex", options->hex, "As --full, the data in hexadecimal");
    set_examples(*command,
                 "  kvr browse TO.WEST\n  kvr browse DEAD.LETTER.QUEUE --full\n"
                 "  kvr browse TO.WEST --kept --from 1000\n"
                 "  kvr browse TO.WEST --from 1042 --count 1 --hex\n"
                 "With --json there is one object on one line for each message, with --full its data, too.\n");
    command->callback([options, &global] { browse(global, *options); });
}

} // namespace kvr
