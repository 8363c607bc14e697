// SPDX-License-Identifier: MIT
#include "dissect_capture.h"

#include <algorithm>
#include <list>
#include <map>
#include <memory>

#include <fmt/format.h>

#include "capture/capture_file.h"
#include "capture/tcp_stream.h"
#include "frame_printer.h"

namespace kvr {
namespace {

/// What waits, in all connections together, for bytes that a capture missed. A window can be larger than this, but
/// Linux's are smaller unless they are set; beyond it the bytes are taken for missed.
constexpr std::size_t kMostWaiting = 64U << 20U;
constexpr std::string_view kHeaderBegin = "0000007501";
constexpr std::size_t kTelling = 4; ///< bytes of it; a length that is wrong behind them is a channel's fault, and shown

enum class Kind {
    kUnknown, ///< nothing came yet, or nothing by which it could be told
    kChannel,
    kTls,
    kOther,
};

/// One direction of a connection.
struct Direction {
    Endpoint from;
    Endpoint to;
    TcpStream stream;
    std::uint32_t initial; ///< number of the first segment seen
    bool begun;            ///< its beginning was captured
    bool answers;          ///< it goes from the receiver to the sender
    Kind kind = Kind::kUnknown;
    std::uint64_t skipped = 0;                  ///< bytes before the first frame
    bool cut = false;                           ///< packets were not captured whole
    bool done = false;                          ///< nothing more of it is wanted
    int number = 0;                             ///< of a channel's connection
    std::unique_ptr<FramePrinter> printer = {}; ///< of a channel that is not done
};

bool is_tls(std::span<const char> bytes) {
    return bytes[0] >= 0x14 && bytes[0] <= 0x17;
}

/// A stream whose beginning is missing is recognised where a segment begins with a header; senders push each message.
Kind kind_of(const Direction& flow, std::span<const char> bytes) {
    if (is_tls(bytes) && (flow.begun || (bytes.size() > 1 && bytes[1] == 3))) {
        return Kind::kTls;
    }
    const std::string_view text(bytes.data(), bytes.size());
    if (flow.begun) { // whose first segment may be short; a '0' alone begins other protocols' streams too
        const std::string_view begin = text.substr(0, kTelling);
        return kHeaderBegin.starts_with(begin) ? Kind::kChannel : Kind::kOther;
    }
    return text.starts_with(kHeaderBegin) ? Kind::kChannel : Kind::kUnknown;
}

class CaptureDissector {
  public:
    explicit CaptureDissector(const CaptureOptions& options) : options_(options) {}

    void add(const Segment& segment);
    /// Ends what still goes on. Throws as dissect_capture.
    void finish();

  private:
    using Key = std::pair<Endpoint, Endpoint>;

    Direction* flow_of(const Segment& segment);
    Direction* find(const Endpoint& from, const Endpoint& to);
    bool is_wanted(const Direction& flow);
    void store(Direction& flow, const Segment& segment);
    void take(Direction& flow, std::span<const char> bytes);
    void recognise(Direction& flow, std::span<const char> bytes);
    void take_answer(const Direction& answers, std::size_t count);
    void begin_channel(Direction& flow, std::span<const char> bytes);
    void end(Direction& flow, const std::string& how);
    void release(Direction& flow);
    void end_and_release(Direction& flow, const std::string& how);
    void keep_to_the_limit();
    void head(const Direction& flow);

    const CaptureOptions& options_;
    std::list<Direction> flows_; ///< in the order in which they began
    std::map<Key, std::list<Direction>::iterator> current_;
    std::size_t waiting_ = 0; ///< in all of them
    int channels_ = 0;
    int in_tls_ = 0;
    int shown_ = 0; ///< whose frames are being shown
    bool all_whole_ = true;
};

Direction* CaptureDissector::find(const Endpoint& from, const Endpoint& to) {
    const auto found = current_.find({from, to});
    return found == current_.end() ? nullptr : &*found->second;
}

/// Null for a segment of which nothing is to be had. Ports are used again: a new connection takes the old one's place.
Direction* CaptureDissector::flow_of(const Segment& segment) {
    Direction* flow = find(segment.from, segment.to);
    const bool anew = segment.syn && (flow == nullptr || flow->initial != segment.sequence);
    if (!anew && (flow != nullptr || segment.payload.empty())) {
        return flow;
    }
    if (flow != nullptr) {
        end_and_release(*flow, "a new connection of the same ports");
        flows_.erase(current_.extract({segment.from, segment.to}).mapped());
    }
    const Direction* const other = find(segment.to, segment.from);
    const bool answers = segment.syn ? segment.ack : other != nullptr && other->kind == Kind::kChannel;
    flows_.push_back({segment.from, segment.to, TcpStream(segment.sequence + (segment.syn ? 1 : 0)), segment.sequence,
                      segment.syn, answers});
    current_[{segment.from, segment.to}] = std::prev(flows_.end());
    return &flows_.back();
}

void CaptureDissector::add(const Segment& segment) {
    if (Direction* const other = find(segment.to, segment.from); segment.reset && other != nullptr) {
        end_and_release(*other, "reset by the receiver");
    }
    Direction* const flow = flow_of(segment);
    if (flow == nullptr || flow->done) {
        return;
    }
    if (!is_wanted(*flow)) {
        release(*flow);
        return;
    }
    store(*flow, segment);
    if (flow->stream.ended()) {
        end(*flow, "end of stream");
    } else if (segment.reset) {
        end(*flow, "reset by the sender");
    }
    if (flow->done) {
        release(*flow);
    }
    keep_to_the_limit();
}

/// Answers to what is not shown, or no longer, are not.
bool CaptureDissector::is_wanted(const Direction& flow) {
    const Direction* const other = flow.answers ? find(flow.to, flow.from) : nullptr;
    return other == nullptr || !other->done;
}

void CaptureDissector::store(Direction& flow, const Segment& segment) {
    flow.cut = flow.cut || segment.payload.size() < segment.length;
    const std::uint32_t first = segment.sequence + (segment.syn ? 1 : 0);
    waiting_ -= flow.stream.waiting();
    flow.stream.add(first, segment.payload, [&](std::span<const char> bytes) { take(flow, bytes); });
    waiting_ += flow.stream.waiting();
    if (segment.fin) {
        flow.stream.end_at(first + static_cast<std::uint32_t>(segment.length));
    }
}

/// The connection in which the most waits will hardly get what it waits for.
void CaptureDissector::keep_to_the_limit() {
    while (waiting_ > kMostWaiting) {
        end_and_release(*std::max_element(flows_.begin(), flows_.end(),
                                          [](const Direction& one, const Direction& other) {
                                              return one.stream.waiting() < other.stream.waiting();
                                          }),
                        "");
    }
}

void CaptureDissector::take(Direction& flow, std::span<const char> bytes) {
    if (flow.done) {
        return;
    }
    if (flow.answers) {
        take_answer(flow, bytes.size());
        return;
    }
    if (flow.kind == Kind::kUnknown) {
        recognise(flow, bytes);
    }
    if (flow.printer && !flow.printer->feed(bytes)) {
        end(flow, "");
    }
}

void CaptureDissector::recognise(Direction& flow, std::span<const char> bytes) {
    flow.kind = kind_of(flow, bytes);
    flow.done = flow.kind == Kind::kTls || flow.kind == Kind::kOther;
    if (flow.kind == Kind::kChannel) {
        begin_channel(flow, bytes);
    } else if (flow.kind == Kind::kUnknown) {
        flow.skipped += bytes.size();
    } else if (flow.kind == Kind::kTls) { // of a connection captured from its middle on, both directions are recognised
        const Direction* const other = find(flow.to, flow.from);
        in_tls_ += flow.begun || other == nullptr || other->kind != Kind::kTls ? 1 : 0;
    }
}

/// A channel's receiver that says anything ends the line by it.
void CaptureDissector::take_answer(const Direction& answers, std::size_t count) {
    const Direction* const flow = find(answers.to, answers.from);
    if (flow != nullptr && flow->printer) {
        flow->printer->show(static_cast<std::uint64_t>(flow->stream.taken()), "answer", {{"length", count}},
                            fmt::format("the receiver sent {} bytes: the sender takes the line for lost", count));
    }
}

void CaptureDissector::begin_channel(Direction& flow, std::span<const char> bytes) {
    constexpr std::size_t kTypeAt = 18;
    flow.number = ++channels_;
    flow.printer = std::make_unique<FramePrinter>(
        FramePrinterOptions{options_.json, options_.full, flow.number, [this, &flow] { head(flow); }});
    if (!flow.begun && bytes.size() > kTypeAt && bytes[kTypeAt] != KVR_CHL_FRAME_BIND) {
        flow.printer->begin_in_the_middle();
    }
    if (options_.json) {
        flow.printer->show(0, "connection",
                           {{"from", flow.from.text()},
                            {"to", flow.to.text()},
                            {"from_its_beginning", flow.begun},
                            {"skipped", flow.skipped}},
                           "");
    }
}

/// Names the connection whose frames follow, when others came before.
void CaptureDissector::head(const Direction& flow) {
    if (shown_ == flow.number) {
        return;
    }
    shown_ = flow.number;
    print(fmt::format("connection {}, {} to {}{}\n", flow.number, flow.from.text(), flow.to.text(),
                      flow.begun ? std::string()
                                 : fmt::format(", captured from its middle on, {} bytes skipped", flow.skipped)));
}

void CaptureDissector::end(Direction& flow, const std::string& how) {
    if (flow.done) {
        return;
    }
    flow.done = true;
    if (flow.printer) {
        const std::int64_t lacking = flow.stream.lacking();
        const char* const remedy = flow.cut ? ", which cut packets off: capture with 'tcpdump -s 0'" : "";
        all_whole_ &= flow.printer->finish(
            how, lacking == 0 ? "" : fmt::format("{} bytes are lacking in the capture{}", lacking, remedy));
    }
}

/// Not while the stream hands over its bytes or the printer shows them: both go.
void CaptureDissector::release(Direction& flow) {
    waiting_ -= flow.stream.waiting();
    flow.stream.forget();
    flow.printer.reset();
}

void CaptureDissector::end_and_release(Direction& flow, const std::string& how) {
    end(flow, how);
    release(flow);
}

void CaptureDissector::finish() {
    for (Direction& flow : flows_) {
        end(flow, "end of the capture");
    }
    if (in_tls_ > 0) {
        remark(fmt::format("{} not shown: the analyser opens {} with a key log (see kvr run --key-log)",
                           in_tls_ == 1 ? "1 connection in TLS is" : fmt::format("{} connections in TLS are", in_tls_),
                           in_tls_ == 1 ? "it" : "them"));
    }
    if (channels_ == 0) {
        throw Error(Errc::kNotFound,
                    fmt::format("no channel's stream in {} that could be read: {}", options_.name,
                                in_tls_ > 0 ? "open it with tshark, this system's dissector and a key log"
                                            : "capture the port of the listener, from before the channel connects"));
    }
    if (!all_whole_) {
        throw Error(Errc::kDamaged, "a stream is not whole: its last line above says where and why");
    }
}

} // namespace

void dissect_capture(std::FILE* file, const CaptureOptions& options) {
    CaptureFile capture(file, options.name, options.filter);
    CaptureDissector dissector(options);
    Segment segment;
    for (;;) {
        try {
            if (!capture.next(segment)) {
                break;
            }
        } catch (const Error&) {
            try {
                dissector.finish();  // what there is
            } catch (const Error&) { // NOLINT(bugprone-empty-catch): the damage of the file says more
            }
            throw;
        }
        dissector.add(segment);
    }
    dissector.finish();
}

} // namespace kvr
