// SPDX-License-Identifier: MIT
#include "frame_splitter.h"

#include <algorithm>
#include <cstring>

#include <fmt/format.h>

#include "wire_fields.h"

namespace kvr {

namespace {

constexpr std::size_t kHeaderSize = sizeof(T_KAVRO_CHL_HDR);
constexpr std::size_t kBlockSize = sizeof(T_KAVRO_CHL_MD);
constexpr std::size_t kEntrySize = sizeof(T_KAVRO_CHL_ACC_HDR);
constexpr std::size_t kTrailerSize = KVR_CHL_ACC_TRAILER_LEN;
constexpr std::size_t kDigits = KVR_CHL_NUM_LEN;
constexpr long kMaxChannelNameLength = 63;
/// What is set aside at once for a package of which only a part is there; beyond it memory follows the bytes.
constexpr std::size_t kFirstReserve = 4096;
/// A buffer above this size is given back once the connection falls silent between frames.
constexpr std::size_t kKeptBuffer = 4096;
constexpr char kTlsHandshakeRecord = 0x16; ///< first byte of a TLS session

bool is_data(char type) {
    return type == KVR_CHL_FRAME_DATA || type == KVR_CHL_FRAME_FILE;
}

} // namespace

FeedEnd FrameSplitter::feed(Bytes& input, FrameSink& sink) {
    while (end_ == FeedEnd::kHungry && !input.empty()) {
        const FeedEnd end = unit_ == Unit::kFileData ? take_file_data(input, sink) : take_unit(input, sink);
        if (end == FeedEnd::kPaused) {
            return end;
        }
        end_ = end;
    }
    return end_;
}

FeedEnd FrameSplitter::take_unit(Bytes& input, FrameSink& sink) {
    Bytes unit;
    if (held_.empty() && input.size() >= need_) {
        unit = input.first(need_); // the common case: no copy
        input = input.subspan(need_);
    } else {
        const std::size_t count = std::min(need_ - held_.size(), input.size());
        const std::size_t wanted = held_.size() + count;
        if (wanted > held_.capacity()) {
            held_.reserve(std::min(need_, std::max({wanted, 2 * held_.capacity(), kFirstReserve})));
        }
        held_.insert(held_.end(), input.begin(), input.begin() + static_cast<std::ptrdiff_t>(count));
        input = input.subspan(count);
        if (held_.size() < need_) {
            return FeedEnd::kHungry;
        }
        unit = held_;
    }
    const FeedEnd end = use_unit(unit, sink);
    if (end == FeedEnd::kHungry || end == FeedEnd::kPaused) {
        held_.clear();
        unit_start_ += unit.size();
        if (files_done_ < files_) {
            trim(); // the sink has the package; its files may take long
        }
    }
    return end;
}

FeedEnd FrameSplitter::use_unit(Bytes unit, FrameSink& sink) {
    switch (unit_) {
    case Unit::kHeader: {
        const FeedEnd end = use_header(unit);
        return end == FeedEnd::kHungry && header_.sMsgType[0] == KVR_CHL_FRAME_HEARTBEAT ? use_heartbeat(sink) : end;
    }
    case Unit::kPackage:
        return is_data(header_.sMsgType[0]) ? use_data(unit, sink) : use_bind(unit, sink);
    case Unit::kFileLength:
        return use_file_length(unit, sink);
    case Unit::kFileData:
        break;
    }
    return fail(0, "internal: file data is not a unit");
}

FeedEnd FrameSplitter::use_header(Bytes unit) {
    std::memcpy(&header_, unit.data(), kHeaderSize);
    const T_KAVRO_CHL_HDR& hdr = header_;
    if (!bound_ && unit[0] == kTlsHandshakeRecord) {
        return fail(0,
                    "a TLS hello, but this listener speaks plain TCP: listen with --tls, or set the channel to plain");
    }
    if (std::memcmp(hdr.sHdrLen, "00000075", sizeof hdr.sHdrLen) != 0) {
        return fail(0, fmt::format("header length '{}' instead of '00000075'", escaped({hdr.sHdrLen, kDigits})));
    }
    if (std::memcmp(hdr.sVer, "01", sizeof hdr.sVer) != 0) {
        return fail(offsetof(T_KAVRO_CHL_HDR, sVer),
                    fmt::format("version '{}' instead of '01'", escaped({hdr.sVer, sizeof hdr.sVer})));
    }
    if (!parse_number(hdr.sSeqno)) {
        return fail(offsetof(T_KAVRO_CHL_HDR, sSeqno), "sequence number is not 8 digits");
    }
    const char type = hdr.sMsgType[0];
    if (!is_data(type) && type != KVR_CHL_FRAME_BIND && type != KVR_CHL_FRAME_HEARTBEAT) {
        return fail(offsetof(T_KAVRO_CHL_HDR, sMsgType), fmt::format("unknown frame type '{}'", escaped({&type, 1})));
    }
    if (bound_ == (type == KVR_CHL_FRAME_BIND)) {
        return fail(offsetof(T_KAVRO_CHL_HDR, sMsgType),
                    bound_ ? "a second bind frame" : fmt::format("first frame has type '{}' instead of bind", type));
    }
    const auto queue = parse_padded_text(hdr.sDestQue);
    if (!queue) {
        return fail(offsetof(T_KAVRO_CHL_HDR, sDestQue), "destination queue goes on after a NUL");
    }
    if (!is_data(type) && !queue->empty()) {
        return fail(offsetof(T_KAVRO_CHL_HDR, sDestQue), "destination queue in a frame that is not a data frame");
    }
    if (!parse_signed_number(hdr.sIPCMsgType)) {
        return fail(offsetof(T_KAVRO_CHL_HDR, sIPCMsgType), "message type is not a number");
    }
    if (!parse_signed_number(hdr.sIPCMsgCode)) {
        return fail(offsetof(T_KAVRO_CHL_HDR, sIPCMsgCode), "message code is not a number");
    }
    const auto length = parse_number(hdr.sPkgLen);
    if (!length) {
        return fail(offsetof(T_KAVRO_CHL_HDR, sPkgLen), "package length is not 8 digits");
    }
    long least = 0; // a heartbeat has no package
    long most = 0;
    if (type == KVR_CHL_FRAME_BIND) {
        least = 1;
        most = kMaxChannelNameLength;
    } else if (is_data(type)) {
        least = kBlockSize;
        most = KVR_CHL_PKG_MAX;
    }
    if (*length < least || *length > most) {
        return fail(offsetof(T_KAVRO_CHL_HDR, sPkgLen),
                    fmt::format("package length {} is not within {} and {}", *length, least, most));
    }
    if (type != KVR_CHL_FRAME_HEARTBEAT) {
        expect(Unit::kPackage, static_cast<std::size_t>(*length));
    }
    return FeedEnd::kHungry;
}

FeedEnd FrameSplitter::use_heartbeat(FrameSink& sink) {
    return sink.on_heartbeat() ? FeedEnd::kHungry : FeedEnd::kStopped;
}

FeedEnd FrameSplitter::use_bind(Bytes name, FrameSink& sink) {
    const auto bad = std::find_if(name.begin(), name.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte < 0x20 || byte == 0x7f;
    });
    if (bad != name.end()) {
        return fail(static_cast<std::size_t>(bad - name.begin()), "control character in the channel's name");
    }
    bound_ = true;
    expect(Unit::kHeader, kHeaderSize);
    return sink.on_bind({name.data(), name.size()}) ? FeedEnd::kHungry : FeedEnd::kStopped;
}

FeedEnd FrameSplitter::use_data(Bytes package, FrameSink& sink) {
    WireMessage message{};
    message.type = header_.sMsgType[0];
    message.queue = parse_padded_text(header_.sDestQue).value_or(std::string_view());
    message.block = package.first<kBlockSize>();
    message.descriptor = decode_descriptor(package.first<kBlockSize>());
    message.descriptor.iMsgType = static_cast<int>(parse_signed_number(header_.sIPCMsgType).value_or(0));
    message.descriptor.iMsgCode = static_cast<int>(parse_signed_number(header_.sIPCMsgCode).value_or(0));
    // A data frame with the store type of a file message would make the receiving side's next hop read any file.
    if (message.is_file() != (message.descriptor.cMsgStoreType == KVR_STORE_FILE)) {
        return fail(offsetof(T_KAVRO_CHL_MD, cMsgStoreType),
                    fmt::format("store type '{}' in a frame of type '{}'",
                                escaped({&message.descriptor.cMsgStoreType, 1}), message.type));
    }
    names_.clear();
    std::size_t body_end = package.size();
    if ((message.descriptor.iMsgFlags & KVR_MSGFLAG_ACCESSORIES) != 0 && !split_attachments(package, body_end)) {
        return FeedEnd::kBroken;
    }
    message.body = package.subspan(kBlockSize, body_end - kBlockSize);
    message.attachments = names_;
    if (message.is_file()) {
        const auto name = parse_padded_text(message.body);
        if (!name || name->empty() || message.body.size() > kMaxWirePath) {
            return fail(kBlockSize, "the body of a file message is not a file name padded with NULs");
        }
        message.file_name = *name;
    } else if (message.body.size() > static_cast<std::size_t>(KVR_CHL_BODY_MAX)) {
        return fail(kBlockSize, fmt::format("body of {} bytes, more than {}", message.body.size(), KVR_CHL_BODY_MAX));
    }
    files_ = names_.size() + (message.is_file() ? 1 : 0);
    files_done_ = 0;
    const bool go_on = sink.on_message(message);
    names_.clear(); // its views end with the package
    return go_on ? next_file_or_end(sink) : FeedEnd::kStopped;
}

/// Fills names_ and finds the end of the body, from the trailer at the end of the package backwards.
bool FrameSplitter::split_attachments(Bytes package, std::size_t& body_end) {
    if (package.size() < kBlockSize + kTrailerSize) {
        fail(kBlockSize, "package too short for an attachment trailer");
        return false;
    }
    const std::size_t trailer_at = package.size() - kTrailerSize;
    const auto count = parse_number(package.subspan(trailer_at, kDigits));
    const auto length = parse_number(package.subspan(trailer_at + kDigits, kDigits));
    if (!count || *count > KVR_ACC_MAX) {
        fail(trailer_at, fmt::format("attachment count is not a number up to {}", KVR_ACC_MAX));
        return false;
    }
    if (!length || static_cast<std::size_t>(*length) > trailer_at - kBlockSize) {
        fail(trailer_at + kDigits, "length of the attachment entries is not a number that the package has room for");
        return false;
    }
    body_end = trailer_at - static_cast<std::size_t>(*length);
    std::size_t at = body_end;
    for (long i = 0; i < *count; ++i) {
        const auto name_length =
            trailer_at - at >= kEntrySize ? parse_number(package.subspan(at, kDigits)) : std::nullopt;
        if (!name_length || *name_length < 1 || static_cast<std::size_t>(*name_length) > kMaxWireFileName ||
            static_cast<std::size_t>(*name_length) > trailer_at - at - kEntrySize) {
            fail(at, fmt::format("attachment {}: no name length of 1 to {} that the entries have room for", i + 1,
                                 kMaxWireFileName));
            return false;
        }
        names_.emplace_back(package.data() + at + kEntrySize, static_cast<std::size_t>(*name_length));
        at += kEntrySize + static_cast<std::size_t>(*name_length);
    }
    if (at != trailer_at) {
        fail(trailer_at,
             fmt::format("{} attachment entries take {} bytes, the trailer says {}", *count, at - body_end, *length));
        return false;
    }
    return true;
}

FeedEnd FrameSplitter::next_file_or_end(FrameSink& sink) {
    if (files_done_ < files_) {
        expect(Unit::kFileLength, kDigits);
        return FeedEnd::kHungry;
    }
    expect(Unit::kHeader, kHeaderSize);
    switch (sink.on_message_complete()) {
    case Flow::kGoOn:
        return FeedEnd::kHungry;
    case Flow::kPause:
        return FeedEnd::kPaused;
    case Flow::kStop:
        break;
    }
    return FeedEnd::kStopped;
}

FeedEnd FrameSplitter::use_file_length(Bytes digits, FrameSink& sink) {
    const auto length = parse_number(digits);
    if (!length || *length < 1) {
        return fail(0, fmt::format("file length '{}' is not a number from 1 to {}",
                                   escaped({digits.data(), digits.size()}), KVR_CHL_NUM_MAX));
    }
    expect(Unit::kFileData, static_cast<std::size_t>(*length));
    return sink.on_file_begin(files_done_, need_) ? FeedEnd::kHungry : FeedEnd::kStopped;
}

FeedEnd FrameSplitter::take_file_data(Bytes& input, FrameSink& sink) {
    const Bytes offered = input.first(std::min(need_, input.size()));
    Bytes left = offered;
    const Flow flow = sink.on_file_bytes(left);
    const std::size_t taken = offered.size() - left.size();
    input = input.subspan(taken);
    need_ -= taken;
    unit_start_ += taken;
    if (flow == Flow::kStop) {
        return FeedEnd::kStopped;
    }
    if (need_ > 0) {
        return flow == Flow::kPause ? FeedEnd::kPaused : FeedEnd::kHungry;
    }
    if (!sink.on_file_end()) {
        return FeedEnd::kStopped;
    }
    ++files_done_;
    const FeedEnd end = next_file_or_end(sink);
    return end == FeedEnd::kHungry && flow == Flow::kPause ? FeedEnd::kPaused : end;
}

void FrameSplitter::expect(Unit unit, std::size_t length) {
    unit_ = unit;
    need_ = length;
}

FeedEnd FrameSplitter::fail(std::size_t offset_in_unit, std::string reason) {
    error_ = {unit_start_ + offset_in_unit, std::move(reason)};
    return FeedEnd::kBroken;
}

std::string FrameSplitter::position() const {
    switch (unit_) {
    case Unit::kHeader:
        return held_.empty() ? "between frames"
                             : fmt::format("in a frame header, {} bytes to come", need_ - held_.size());
    case Unit::kPackage:
        return fmt::format("in a package, {} of {} bytes to come", need_ - held_.size(), need_);
    case Unit::kFileLength:
        return fmt::format("before file {} of a message", files_done_ + 1);
    case Unit::kFileData:
        return fmt::format("in file {} of a message, {} bytes to come", files_done_ + 1, need_);
    }
    return {};
}

void FrameSplitter::trim() {
    if (held_.size() <= kKeptBuffer && held_.capacity() > kKeptBuffer) {
        held_.shrink_to_fit();
    }
}

} // namespace kvr
