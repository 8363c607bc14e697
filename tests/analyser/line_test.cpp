// SPDX-License-Identifier: MIT
// A line between the real programs: the key logs of both ends, and, where KVR_CAPTURE is set because this system lets
// us capture, the frames that the analyser finds in it.
#include <iterator>

#include "support/peer.h"
#include "tools/kvr_program.h"

namespace kvr::test {
namespace {

class RealLine : public ProgramTest, public testing::WithParamInterface<Carrier> {
  protected:
    [[nodiscard]] bool has(const std::string& name, const std::string& wanted) const {
        return wait_until([&] { return text(name).find(wanted) != std::string::npos; });
    }
    /// Of the captured messages for the queue T.
    [[nodiscard]] std::string captured_types(const std::string& keys) const {
        const std::string line =
            "exec tshark -X lua_script:" KVR_LUA " -o kvr.ports:1-65535 -o tls.keylog_file:" + keys +
            R"( -r capture -T fields -Y 'kvr.sDestQue == "T" && kvr.channel == "C"' -e kvr.sMsgType)";
        (void)start(line, "tshark").result();
        std::string values = text("tshark.out");
        std::ranges::replace(values, '\n', ',');
        return values;
    }
    std::set<std::string> words(const std::string& name) const {
        std::istringstream all(text(name));
        return {std::istream_iterator<std::string>(all), {}};
    }
};
INSTANTIATE_TEST_SUITE_P(Carriers, RealLine, testing::Values(Carrier::kPlain, Carrier::kTls12, Carrier::kTls13),
                         [](const auto& row) { return carrier_name(row.param); });

TEST_P(RealLine, KeysAreWrittenWhereAskedForAndOpenTheLine) {
    const bool tls = GetParam() != Carrier::kPlain;
    const TlsMaterial& pem = tls_material();
    const std::string version = GetParam() == Carrier::kTls12 ? "1.2" : "1.3";
    done("create WEST");
    done("-m WEST define queue T");
    Child listener = start("exec $KVR -m WEST listen --address 127.0.0.1 --port 0 --port-file port" +
                               (tls ? " --tls --cert " + pem.server.cert_file + " --key " + pem.server.key_file +
                                          " --tls-max " + version + " --key-log listener.keys"
                                    : ""),
                           "listener");
    ASSERT_TRUE(has("port", "\n"));
    const std::string port = std::to_string(std::stoi(text("port")));
    std::optional<Child> capture;
    if (std::getenv("KVR_CAPTURE") != nullptr) {
        capture.emplace(start("exec dumpcap -i lo -f 'tcp port " + port + "' -w capture", "dumpcap"));
        ASSERT_TRUE(has("dumpcap.err", "File:")) << text("dumpcap.err");
    }
    const TlsIdentity& own = pem.client;
    done("-m EAST set qmgr CAFILE=" + pem.ca_file + " CERTFILE=" + own.cert_file + " KEYFILE=" + own.key_file);
    done("-m EAST define channel C XMITQ=Q CONNAME='127.0.0.1(" + port + ")' SSLCAUTH=" + (tls ? "ENABLE" : "DISABLE"));
    done("-m EAST put Q 'a message' --dest T@WEST");
    done("-m EAST put Q 'another' --dest T@WEST --attach " + file("list.csv", std::string(30000, '7')));
    done("-m EAST put Q --dest T@WEST --file " + file("data.csv", "1,2\n"));
    // What the environment says does not count; the older version goes without the option.
    const bool asked = GetParam() == Carrier::kTls13;
    Child worker = start(std::string("export KVR_TLS_KEY_LOG=env.keys; exec $KVR -m EAST run C --log log") +
                             (asked ? " --key-log worker.keys" : ""),
                         "worker");
    EXPECT_TRUE(wait_until([&] { return shown("-m WEST show queue T")[0]["depth"] == 3; }));
    if (capture) {
        const std::string keys = asked ? "worker.keys" : "listener.keys";
        EXPECT_TRUE(wait_until([&] { return captured_types(keys) == "0,0,4,"; })) << text("tshark.out");
    }
    EXPECT_EQ(worker.result_under(SIGTERM), 0);
    EXPECT_EQ(listener.result_under(SIGTERM), 0);
    EXPECT_FALSE(std::filesystem::exists(path() / "env.keys"));
    const std::string warning = "TLS keys are written to";
    EXPECT_EQ(text("listener.err").find(warning) != std::string::npos, tls);
    EXPECT_EQ(text("worker.err").find("WARNING: " + warning) != std::string::npos, asked);
    EXPECT_EQ(text("log").find(warning) != std::string::npos, asked);
    EXPECT_EQ(words("listener.keys").empty(), !tls);
    if (asked) {
        EXPECT_EQ(words("worker.keys"), words("listener.keys"));
        file("open", "");
        std::filesystem::create_symlink("worker.keys", path() / "link");
        for (const std::string bad : {"open", "link"}) {
            EXPECT_THAT(run("-m EAST run C --key-log " + bad).err, ContainsRegex("key log .*(alone|link)"));
        }
    } else if (!tls) {
        EXPECT_THAT(run("-m EAST run C --key-log k").err, HasSubstr("without TLS"));
    }
}

} // namespace
} // namespace kvr::test
