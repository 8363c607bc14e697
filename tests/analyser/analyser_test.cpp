// SPDX-License-Identifier: MIT
// The dissector of the protocol analyser against `kvr dissect`: captures of the same streams, field by field, over
// every carrier; and what it says of streams that are damaged.
#include "analyser/capture_writer.h"
#include "tools/kvr_program.h"

namespace kvr::test {
namespace {

using nlohmann::ordered_json;
/// Of one frame: the fields by name, each with its values in order.
using Frame = std::map<std::string, std::vector<std::string>>;

/// The analyser's names of what kvr dissect shows of a message, in its order.
constexpr const char* kNames[] = {
    "sDestQue",     "sIPCMsgType", "sIPCMsgCode", "cMsgStoreType", "sMsgId",    "sCorrelId",       "sGroupId",
    "iUsage",       "iMsgFlags",   "iExpiry",     "iFeedback",     "iEncoding", "iCodedCharSetId", "iPriority",
    "iPersistence", "iMsgSeqNo",   "iReportOpt",  "sFmtName",      "sReplyToQ", "sReplyToQMgr",    "iPutApplType",
    "sPutApplName", "sPutDate",    "sPutTime",    "body_length",   "attachment"};

std::string text_of(const ordered_json& value) {
    return value.is_string() ? value.get<std::string>() : value.dump();
}

/// Everything below a frame in the analyser's tree that is a field of the protocol.
void collect(const json& tree, Frame& frame) {
    for (const auto& [key, value] : tree.items()) {
        if (!value.is_array() && !value.is_object()) {
            frame[key].push_back(text_of(value));
        } else if (value.is_array() && key.starts_with("kvr.")) {
            std::ranges::transform(value, std::back_inserter(frame[key]), text_of);
        } else {
            collect(value, frame);
        }
    }
}

class Analyser : public ProgramTest {
  protected:
    /// Each connection's frames as the analyser shows them.
    [[nodiscard]] std::map<int, std::vector<Frame>> analysed(const std::string& capture,
                                                             const std::string& options = "") const {
        const std::string line = "exec tshark -X lua_script:" KVR_LUA " -r " + capture +
                                 " -T json --no-duplicate-keys -J 'kvr tcp' -Y kvr " + options;
        EXPECT_EQ(start(line, "tshark").result(), 0) << text("tshark.err");
        std::map<int, std::vector<Frame>> connections;
        for (const json& packet : json::parse(text("tshark.out"))) {
            const json& layers = packet["_source"]["layers"];
            std::vector<Frame>& frames = connections[std::stoi(layers["tcp"]["tcp.stream"].get<std::string>())];
            for (const json& tree : layers["kvr"].is_array() ? layers["kvr"] : json::array({layers["kvr"]})) {
                collect(tree, frames.emplace_back());
            }
        }
        return connections;
    }
    /// The same from kvr dissect, which shows only some fields: a message with its files is one frame.
    [[nodiscard]] std::map<int, std::vector<Frame>> dissected(const std::string& capture) const {
        std::map<int, std::vector<Frame>> connections;
        std::istringstream lines(run("dissect --json " + capture).out);
        for (std::string line; std::getline(lines, line);) {
            const ordered_json shown = ordered_json::parse(line);
            const std::string kind = shown["frame"];
            std::vector<Frame>& frames = connections[shown["connection"].get<int>() - 1];
            if (kind == "file") {
                frames.back()["kvr.file_length"].push_back(text_of(shown["length"]));
            } else if (kind == "bind") {
                frames.push_back({{"kvr.channel", {shown["channel"]}}, {"kvr.sMsgType", {"1"}}});
            } else if (kind == "heartbeat") {
                frames.push_back({{"kvr.sMsgType", {"2"}}});
            } else if (kind == "end") {
                frames.push_back({{"end", {shown["text"]}}});
            } else if (kind != "connection") {
                frames.push_back({{"kvr.sMsgType", {kind == "message" ? "0" : "4"}}});
                auto value = std::next(shown.begin(), 3); // after connection, offset and frame
                for (const char* const name : kNames) {
                    std::vector<std::string>& values = frames.back()[std::string("kvr.") + name];
                    const ordered_json all = value->is_array() ? *value : ordered_json::array({*value});
                    std::ranges::transform(all, std::back_inserter(values), text_of);
                    ++value;
                }
            }
        }
        return connections;
    }
    /// Streams of the splitter's corpus, by name.
    static std::map<std::string, std::string> corpus(bool good) {
        std::map<std::string, std::string> streams;
        for (const std::string& name : names_in(KVR_CORPUS)) {
            const bool bad = name.starts_with("refused_") || name.starts_with("cut_");
            if (bad != good && !name.starts_with("found_")) {
                streams[name] = contents(std::filesystem::path(KVR_CORPUS) / name);
            }
        }
        return streams;
    }
};

class AnalyserCarrier : public Analyser, public testing::WithParamInterface<Carrier> {};
INSTANTIATE_TEST_SUITE_P(Carriers, AnalyserCarrier, testing::Values(Carrier::kPlain, Carrier::kTls12, Carrier::kTls13),
                         [](const auto& row) { return carrier_name(row.param); });

TEST_P(AnalyserCarrier, ShowsEachFieldAsKvrDissectDoes) {
    std::map<std::string, std::string> streams = corpus(true);
    ASSERT_GT(streams.size(), 9U);
    const std::string large(200'000, 'b');
    streams["large"] = bind_frame("LARGE") + message_with_files("Q", large, {{"a", large}, {"\x7f%", "x"}}) +
                       heartbeat_frame() + file_message("Q", {"c.dat", large}) + message("Q", "last");
    {
        CaptureWriter plain(path() / "plain.pcap");
        CaptureWriter carried(path() / "carried.pcap");
        std::string keys;
        std::size_t port = 40000;
        for (const auto& [name, stream] : streams) {
            // Pieces that end anywhere in frames, and single bytes.
            const auto pieces = plain_pieces(stream, stream.size() > 1000 ? 1400 : port % 5 == 0 ? 1 : 37);
            plain.connection(++port, pieces);
            const int version = GetParam() == Carrier::kTls12 ? TLS1_2_VERSION : TLS1_3_VERSION;
            carried.connection(port, GetParam() == Carrier::kPlain ? pieces : tls_pieces(pieces, version, keys));
        }
        file("keys", keys);
    }
    const auto wanted = dissected("plain.pcap");
    auto shown = analysed("carried.pcap", "-o tls.keylog_file:keys");
    ASSERT_EQ(wanted.size(), streams.size());
    for (const auto& [connection, frames] : wanted) {
        ASSERT_EQ(shown[connection].size(), frames.size() - 1) << connection; // the end is a line, no frame
        for (std::size_t i = 0; i + 1 < frames.size(); ++i) {
            for (const auto& [name, values] : frames[i]) {
                EXPECT_EQ(shown[connection][i][name], values) << connection << " " << i << " " << name;
            }
        }
    }
    const auto large_connection = static_cast<int>(std::distance(streams.begin(), streams.find("large")));
    Frame& last = shown[large_connection].back();
    EXPECT_EQ(last["kvr.body"], std::vector<std::string>{"6c:61:73:74"});
    EXPECT_EQ(last["kvr.channel"], std::vector<std::string>{"LARGE"});
    EXPECT_EQ(shown[large_connection][1]["kvr.file_name"], (std::vector<std::string>{"a", "%7F%25"}));
}

TEST_F(Analyser, SaysWhatIsWrongInTheWordsOfKvrDissect) {
    const auto streams = corpus(false);
    {
        CaptureWriter capture(path() / "bad.pcap");
        std::size_t port = 40000;
        for (const auto& [name, stream] : streams) {
            capture.connection(++port, plain_pieces(stream, 1400));
        }
    }
    const auto wanted = dissected("bad.pcap");
    ASSERT_EQ(wanted.size(), streams.size());
    auto shown = analysed("bad.pcap");
    int connection = 0;
    for (const auto& [name, stream] : streams) {
        const std::string end = wanted.at(connection).back().at("end").front();
        const std::string reason =
            name.starts_with("cut_") ? "the connection ends in a" : end.substr(end.find(':') + 2);
        EXPECT_THAT(shown[connection].back()["_ws.expert.message"], ::testing::Contains(HasSubstr(reason))) << name;
        ++connection;
    }
}

} // namespace
} // namespace kvr::test
