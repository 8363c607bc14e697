// SPDX-License-Identifier: MIT
#include "frame_printer.h"

#include <fmt/format.h>

#include "receiver/wire_fields.h"

namespace kvr {
namespace {

constexpr std::size_t kShownBytes = 64; ///< of a body or file, unless all is asked for

Json descriptor_fields(const WireMessage& message) {
    const T_KAVRO_MD& md = message.descriptor;
    return {{"queue", escaped(message.queue)},
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
}

} // namespace

bool FramePrinter::feed(std::span<const char> bytes) {
    return splitter_.feed(bytes, *this) == FeedEnd::kHungry;
}

bool FramePrinter::finish(const std::string& end, const std::string& lacking) {
    const bool broken = !splitter_.error().reason.empty();
    const bool whole = !broken && lacking.empty() && splitter_.at_boundary();
    const std::uint64_t offset = broken ? splitter_.error().offset : splitter_.offset();
    std::string how = end;
    if (broken) {
        how = "malformed: " + splitter_.error().reason;
    } else if (!lacking.empty()) {
        how = lacking + ", " + splitter_.position();
    } else if (!whole) {
        how += " " + splitter_.position() + ": the message is not complete";
    }
    show(offset, "end", {{"whole", whole}, {"text", how}, {"messages", messages_}}, how);
    return whole;
}

bool FramePrinter::on_bind(std::string_view channel) {
    show(frame_start(), "bind", {{"channel", escaped(channel)}}, "channel " + escaped(channel));
    return true;
}

bool FramePrinter::on_heartbeat() {
    show(splitter_.event_offset(), "heartbeat", Json::object(), "");
    return true;
}

bool FramePrinter::on_message(const WireMessage& message) {
    Json fields = descriptor_fields(message);
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

bool FramePrinter::on_file_begin(std::size_t index, std::uint64_t length) {
    show(splitter_.event_offset(), "file", {{"name", names_[index]}, {"length", length}},
         fmt::format("{}, {} bytes", names_[index], length));
    return true;
}

Flow FramePrinter::on_file_bytes(std::span<const char>& bytes) {
    if (options_.full) {
        show_bytes("contents", bytes);
    }
    bytes = {};
    return Flow::kGoOn;
}

Flow FramePrinter::on_message_complete() {
    ++messages_;
    return Flow::kGoOn;
}

void FramePrinter::show(std::uint64_t offset, const char* frame, const Json& fields, const std::string& text) const {
    if (options_.json) {
        Json line;
        if (options_.connection != 0) {
            line["connection"] = options_.connection;
        }
        line["offset"] = offset;
        line["frame"] = frame;
        line.update(fields);
        print_json(line, true);
        return;
    }
    if (options_.on_content) {
        options_.on_content();
    }
    print(fmt::format("{:>10}  {:<12} {}\n", offset, frame, text));
}

void FramePrinter::show_bytes(const std::string& what, std::span<const char> bytes) const {
    if (options_.json || bytes.empty()) {
        return;
    }
    if (options_.on_content) {
        options_.on_content();
    }
    const std::size_t shown = options_.full ? bytes.size() : std::min(bytes.size(), kShownBytes);
    print(fmt::format("{:>12}{}{}\n{}", "", what, shown < bytes.size() ? ", the first:" : ":",
                      hex_dump({bytes.data(), shown})));
}

} // namespace kvr
