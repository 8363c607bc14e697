// SPDX-License-Identifier: MIT
// kvr dissect: shows the frames in a recorded byte stream of a channel.
#include <array>
#include <cerrno>
#include <memory>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "commands.h"
#include "kavutil/error.h"
#include "kavutil/unique_fd.h"
#include "output.h"
#include "receiver/frame_splitter.h"
#include "receiver/wire_fields.h"

namespace kvr {
namespace {

constexpr std::size_t kShownBytes = 64; ///< of a body or file, unless all is asked for
constexpr std::size_t kReadSize = 64U << 10U;

struct DissectOptions {
    std::string file;
    bool full = false;
};

class Dissector : public FrameSink {
  public:
    Dissector(const DissectOptions& options, bool json) : options_(options), json_(json) {}

    /// @return false when the stream is not what it should be or ends in the middle
    bool dissect(int fd) {
        std::vector<char> chunk(kReadSize);
        for (;;) {
            const ssize_t count = ::read(fd, chunk.data(), chunk.size());
            if (count < 0) {
                throw Error(Errc::kIo,
                            fmt::format("cannot read {} ({}): give a recorded stream, or - for standard input",
                                        printable(options_.file), std::generic_category().message(errno)));
            }
            std::span<const char> bytes(chunk.data(), static_cast<std::size_t>(count));
            if (count == 0 || splitter_.feed(bytes, *this) != FeedEnd::kHungry) {
                break;
            }
        }
        const bool broken = !splitter_.error().reason.empty();
        const bool whole = !broken && splitter_.at_boundary();
        const std::uint64_t end = broken ? splitter_.error().offset : splitter_.offset();
        const std::string how = broken  ? "malformed: " + splitter_.error().reason
                                : whole ? "end of stream"
                                        : "end of stream " + splitter_.position() + ": the message is not complete";
        show(end, "end", {{"whole", whole}, {"text", how}, {"messages", messages_}}, how);
        return whole;
    }

    bool on_bind(std::string_view channel) override {
        show(frame_start(), "bind", {{"channel", escaped(channel)}}, "channel " + escaped(channel));
        return true;
    }
    bool on_heartbeat() override {
        show(splitter_.event_offset(), "heartbeat", Json::object(), "");
        return true;
    }
    bool on_message(const WireMessage& message) override {
        const T_KAVRO_MD& md = message.descriptor;
        Json fields = {{"queue", escaped(message.queue)},
                       {"type", md.iMsgType},
                       {"code", md.iMsgCode},
                       {"store_type", escaped({&md.cMsgStoreType, 1})},
                       {"message_id", escaped_field(md.sMsgId)},
                       {"correlation_id", escaped_field(md.sCorrelId)},
                       {"group_id", escaped_field(md.sGroupId)},
                       {"usage", md.iUsage},
                       {"flags", md.iMsgFlags},
                       {"expiry", md.iExpiry},
                       {"feedback", md.iFeedback},
                       {"encoding", md.iEncoding},
                       {"character_set", md.iCodedCharSetId},
                       {"priority", md.iPriority},
                       {"persistence", md.iPersistence},
                       {"sequence", md.iMsgSeqNo},
                       {"report", md.iReportOpt},
                       {"format", escaped_field(md.sFmtName)},
                       {"reply_to_queue", escaped_field(md.sReplyToQ)},
                       {"reply_to_qmgr", escaped_field(md.sReplyToQMgr)},
                       {"put_application_type", md.iPutApplType},
                       {"put_application", escaped_field(md.sPutApplName)},
                       {"put_date", escaped_field(md.sPutDate)},
                       {"put_time", escaped_field(md.sPutTime)}};
        std::string text;
        for (const auto& [name, value] : fields.items()) {
            const std::string shown = value.is_string() ? value.get<std::string>() : value.dump();
            text += shown.empty() || shown == "0" ? "" : fmt::format("{}={} ", name, shown);
        }
        fields["length"] = message.body.size();
        fields["attachments"] = Json::array();
        names_.clear();
        for (const std::string_view name : message.attachments) {
            names_.push_back(escaped(name));
            fields["attachments"].push_back(names_.back());
        }
        if (message.is_file()) {
            names_.push_back(escaped(message.file_name));
            fields["file"] = names_.back();
        }
        show(frame_start(), message.is_file() ? "file message" : "message", fields, text);
        show_bytes(fmt::format("body, {} bytes", message.body.size()), message.body);
        return true;
    }
    bool on_file_begin(std::size_t index, std::uint64_t length) override {
        show(splitter_.event_offset(), "file", {{"name", names_[index]}, {"length", length}},
             fmt::format("{}, {} bytes", names_[index], length));
        return true;
    }
    Flow on_file_bytes(std::span<const char>& bytes) override {
        if (options_.full) {
            show_bytes("contents", bytes);
        }
        bytes = {};
        return Flow::kGoOn;
    }
    bool on_file_end() override { return true; }
    Flow on_message_complete() override {
        ++messages_;
        return Flow::kGoOn;
    }

  private:
    [[nodiscard]] std::uint64_t frame_start() const { return splitter_.event_offset() - sizeof(T_KAVRO_CHL_HDR); }

    void show(std::uint64_t offset, const char* frame, const Json& fields, const std::string& text) const {
        if (json_) {
            Json line = {{"offset", offset}, {"frame", frame}};
            line.update(fields);
            print_json(line, true);
        } else {
            print(fmt::format("{:>10}  {:<12} {}\n", offset, frame, text));
        }
    }
    void show_bytes(const std::string& what, std::span<const char> bytes) const {
        if (json_ || bytes.empty()) {
            return;
        }
        const std::size_t shown = options_.full ? bytes.size() : std::min(bytes.size(), kShownBytes);
        print(fmt::format("{:>12}{}{}\n{}", "", what, shown < bytes.size() ? ", the first:" : ":",
                          hex_dump({bytes.data(), shown})));
    }

    const DissectOptions& options_;
    bool json_;
    FrameSplitter splitter_;
    std::vector<std::string> names_;
    std::uint64_t messages_ = 0;
};

void dissect(const GlobalOptions& global, const DissectOptions& options) {
    UniqueFd file;
    if (options.file != "-") {
        file.reset(::open(options.file.c_str(), O_RDONLY | O_CLOEXEC));
        if (!file) {
            throw Error(Errc::kNotFound, fmt::format("cannot open {} ({}): give a recorded stream, or - for standard "
                                                     "input",
                                                     printable(options.file), std::generic_category().message(errno)));
        }
    }
    if (!Dissector(options, global.json).dissect(file ? file.get() : STDIN_FILENO)) {
        throw Error(Errc::kDamaged, "the stream is not whole: its last line above says where and why");
    }
}

} // namespace

void add_dissect_command(CLI::App& app, GlobalOptions& global) {
    auto options = std::make_shared<DissectOptions>();
    CLI::App* command = app.add_subcommand("dissect", "Show the frames in a recorded byte stream of a channel");
    command->add_option("file", options->file, "Recorded bytes; - for standard input")->required()->type_name("FILE|-");
    command->add_flag("--full", options->full, "Show bodies and files whole");
    set_examples(*command,
                 "  kvr dissect stream.bin\n  nc -l 5151 | kvr dissect -\n"
                 "The first column is the offset of the frame. Exit code 1: malformed, or cut in a message.\n");
    command->callback([options, &global] { dissect(global, *options); });
}

} // namespace kvr
