// SPDX-License-Identifier: MIT
// Connecting: names and retries.
#include "channel_run.h"

namespace kvr::test {
namespace {

using Link = ChannelTest;

TEST_F(Link, ConnectionNames) {
    const std::string long_host(240, 'h');
    const struct {
        std::string name, host, port;
    } cases[] = {
        {"10.1.2.3(1414)", "10.1.2.3", "1414"},
        {"10.1.2.3", "10.1.2.3", "5151"},
        {"10.1.2.3(0)", "10.1.2.3", "5151"},
        {"10.1.2.3(abc)", "10.1.2.3", "5151"},
        {"10.1.2.3(1414", "10.1.2.3", "1414"},
        {"10.1.2.3(12ab)", "10.1.2.3", "12"},
        {"10.1.2.3(-7)", "10.1.2.3", "-7"},
        {"10.1.2.3 (1414)", "10.1.2.3 ", "1414"},
        {"(1414)", "", "1414"},
        {"", "", "5151"},
        {long_host + "(77)", long_host, "77"},
        {"many(" + std::string(200, '1') + ")", "many", "-1"}, // no crash
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        host().hooks["sockGetHostIp"] = failing(-1, 1, 99, ENOENT); // no such address is ever dialled
        chl()["CONNAME"] = c.name;
        EXPECT_TRUE(in_order(run_channel(),
                             {"3 chl[CH1] conn[" + c.name + "]", "5 begin connect  [" + c.host + ":" + c.port + "]",
                              "sockGetHostIp(" + c.host + ")", "event 2 = -10002"}));
    }
}

TEST_F(Link, RetriesShortThenLong) {
    const struct {
        std::string srty, stmr, lrty, ltmr;
        size_t shorts;
        Lines pauses;
        std::string send_limit, told;
    } cases[] = {{"3", "5", "2", "60", 3, {"5", "5", "5", "60", "60"}, "5", "shorttry[3:5] longtry[2:60]"},
                 {"", "", "", "", 0, {}, "0", "shorttry[0:0] longtry[0:0]"},
                 {"-2", "5", "-1", "6", 0, {}, "5", "shorttry[0:5] longtry[0:6]"},
                 {"1", "-5", "1", "-6", 1, {"0", "0"}, "0", "shorttry[1:0] longtry[1:0]"},
                 {"x", "y", " 2z", "1", 0, {"1", "1"}, "0", "shorttry[0:0] longtry[2:1]"}};
    listening_ = false;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.told);
        chl()["SHORTRTY"] = c.srty;
        chl()["SHORTTMR"] = c.stmr;
        chl()["LONGRTY"] = c.lrty;
        chl()["LONGTMR"] = c.ltmr;
        const Result r = run_channel();
        std::string expected;
        for (size_t i = 0; i <= c.pauses.size(); ++i) {
            const size_t shorts = std::min(i, c.shorts);
            expected += "5 begin connect  [127.0.0.1:PORT] | sockSetSTimeOut(" + c.send_limit +
                        ") | sockGetHostIp(127.0.0.1) | 1 connect [127.0.0.1:PORT]  error[111:connect[127.0.0.1:PORT] "
                        "error[111:Connection refused]] return[-1] | 5 shorttry[" +
                        std::to_string(shorts) + "] longtry[" + std::to_string(i - shorts) + "] | ";
            if (i < c.pauses.size()) {
                expected += "5 sleep(" + c.pauses[i] + ") | sleep(" + c.pauses[i] + ") | ";
            }
        }
        EXPECT_TRUE(in_order(r, {expected + "1 connect[127.0.0.1:PORT] error " + c.told}, "LHS"));
        EXPECT_EQ(r.count("STATUS=RETRYING"), 1);
    }
}

} // namespace
} // namespace kvr::test
