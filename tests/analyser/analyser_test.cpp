// SPDX-License-Identifier: MIT
// The dissector of the protocol analyser against `kvr dissect`: captures of the same streams, field by field, over
// every carrier; and what it says of streams that are damaged.
#include "analyser/capture_writer.h"
#include "tools/kvr_program.h"

namespace kvr::test {

using nlohmann::ordered_json;
/// Of one frame: the fields by name, each with its values in order.
using Frame = std::map<std::string, std::vector<std::string>>;

/// The analyser's names of what kvr dissect shows of each kind of frame, in its order.
const std::vector<std::string> kOfMessages = {
    "sDestQue",     "sIPCMsgType", "sIPCMsgCode", "cMsgStoreType", "sMsgId",    "sCorrelId",       "sGroupId",
    "iUsage",       "iMsgFlags",   "iExpiry",     "iFeedback",     "iEncoding", "iCodedCharSetId", "iPriority",
    "iPersistence", "iMsgSeqNo",   "iReportOpt",  "sFmtName",      "sReplyToQ", "sReplyToQMgr",    "iPutApplType",
    "sPutApplName", "sPutDate",    "sPutTime",    "body_length",   "attachment"};
/// The type of each kind, and its names.
const std::map<std::string, std::pair<const char*, std::vector<std::string>>> kKinds = {
    {"bind", {"1", {"channel"}}},
    {"heartbeat", {"2", {}}},
    {"message", {"0", kOfMessages}},
    {"file message", {"4", kOfMessages}}};

static std::string text_of(const ordered_json& value) {
    return value.is_string() ? value.get<std::string>() : value.dump();
}

/// Everything below a frame in the analyser's tree that is a field of the protocol.
static void collect(const ordered_json& tree, Frame& frame) {
    for (const auto& [key, value] : tree.items()) {
        if (!value.is_array() && !value.is_object()) {
            frame[key].push_back(text_of(value));
        } else if (value.is_array() && (value.empty() || !value[0].is_object())) {
            std::ranges::transform(value, std::back_inserter(frame[key]), text_of);
        } else {
            collect(value, frame);
        }
    }
}

/// @param end  how kvr dissect ended; a message that the connection's end cuts is no frame to the analyser
static void compare(const std::vector<Frame>& wanted, std::vector<Frame>& shown, bool whole, const std::string& end) {
    for (std::size_t i = 0; i < wanted.size() && (whole || i + 1 < shown.size()); ++i) {
        for (const auto& [name, values] : wanted[i]) {
            EXPECT_EQ(shown.at(i)[name], values) << i << " " << name;
        }
    }
    std::string faults;
    for (Frame& frame : shown) {
        faults += testing::PrintToString(frame["_ws.expert.message"]);
    }
    const bool malformed = end.starts_with("malformed: ");
    EXPECT_THAT(faults, HasSubstr(malformed ? end.substr(end.find(' ') + 1) : whole ? "" : "connection ends in a"));
    EXPECT_TRUE(!whole || wanted.size() == shown.size()) << end;
}

class Analyser : public ProgramTest, public testing::WithParamInterface<Carrier> {
  protected:
    /// Each connection's frames as the analyser shows them.
    [[nodiscard]] std::map<int, std::vector<Frame>> analysed(const std::string& options) const {
        const std::string line =
            "HOME=. exec tshark -X lua_script:" KVR_LUA " -T json --no-duplicate-keys -J 'kvr tcp' -Y kvr ";
        EXPECT_EQ(start(line + options, "tshark").result(), 0) << text("tshark.err");
        std::map<int, std::vector<Frame>> connections;
        for (const json& packet : json::parse(text("tshark.out"))) {
            const json& layers = packet["_source"]["layers"];
            const std::string number = layers["tcp"]["tcp.stream"];
            for (const json& tree : layers["kvr"].is_array() ? layers["kvr"] : json::array({layers["kvr"]})) {
                collect(tree, connections[std::stoi(number) + 1].emplace_back());
            }
        }
        return connections;
    }
};
INSTANTIATE_TEST_SUITE_P(Carriers, Analyser, testing::Values(Carrier::kPlain, Carrier::kTls12, Carrier::kTls13),
                         [](const auto& row) { return carrier_name(row.param); });

/// Every stream of the splitter's corpus and a large one, in pieces that end anywhere, some of them single bytes.
TEST_P(Analyser, ShowsEachFieldAndEachFaultAsKvrDissectDoes) {
    const std::string large(200'000, 'b');
    std::vector<std::string> streams = {bind_frame("LARGE") +
                                        message_with_files("Q", large, {{"a", large}, {"\x7f%", "x"}}) +
                                        file_message("Q", {"c.dat", large}) + message("Q", "last")};
    for (const auto& names : {std::vector<std::string>(31, "n"), {std::string(512, 'n')}}) {
        streams.push_back(bind_frame("C") +
                          frame('0', "Q", "00000000", "00000000", block('1', 4) + attachment_block(names)));
    }
    for (const std::string& name : names_in(KVR_CORPUS)) {
        streams.push_back(contents(std::filesystem::path(KVR_CORPUS) / name));
    }
    {
        CaptureWriter plain(path() / "plain.pcap");
        CaptureWriter carried(path() / "carried.pcap");
        std::string keys;
        std::size_t port = 40000;
        for (const std::string& stream : streams) {
            const auto pieces = plain_pieces(stream, stream.size() > 1000 ? 1400 : port % 5 == 0 ? 1 : 37);
            plain.connection(++port, pieces);
            const int version = GetParam() == Carrier::kTls12 ? TLS1_2_VERSION : TLS1_3_VERSION;
            carried.connection(port, GetParam() == Carrier::kPlain ? pieces : tls_pieces(pieces, version, keys));
        }
        file("keys", keys);
    }
    auto shown = analysed("-r carried.pcap -o tls.keylog_file:keys");
    std::map<int, std::vector<Frame>> wanted;
    std::istringstream lines(run("dissect --json plain.pcap").out);
    std::size_t ended = 0;
    for (std::string line; std::getline(lines, line);) {
        const auto fields = ordered_json::parse(line);
        const std::string kind = fields["frame"];
        const int connection = fields["connection"];
        std::vector<Frame>& frames = wanted[connection];
        if (kind == "file") {
            frames.back()["kvr.file_length"].push_back(text_of(fields["length"]));
        } else if (kind == "end") {
            ++ended;
            compare(frames, shown[connection], fields["whole"], fields["text"]);
        } else if (kind != "connection") {
            const auto& [type, names] = kKinds.at(kind);
            frames.push_back({{"kvr.sMsgType", {type}}});
            auto value = std::next(fields.begin(), 3); // after connection, offset and frame
            for (const std::string& name : names) {
                Frame one;
                collect({{name, *value++}}, one);
                frames.back()["kvr." + name] = one[name];
            }
        }
    }
    EXPECT_EQ(ended, streams.size());
    Frame& last = shown[1].back();
    EXPECT_EQ(last["kvr.body"], std::vector<std::string>{"6c:61:73:74"});
    EXPECT_EQ(last["kvr.channel"], std::vector<std::string>{"LARGE"});
    EXPECT_EQ(shown[1][1]["kvr.file_name"], (std::vector<std::string>{"a", "%7F%25"}));
}

} // namespace kvr::test
