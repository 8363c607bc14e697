// SPDX-License-Identifier: MIT
// Messages in and out: every descriptor field, headers, attachments, sizes, load with its proof, dead letters.
#include <fstream>

#include <gmock/gmock.h>

#include "kvr_program.h"
#include "store.h"

namespace kvr::test {
namespace {

using nlohmann::json;
using ::testing::HasSubstr;
using ::testing::Not;

class KvrMessage : public ::testing::Test {
  protected:
    void SetUp() override {
        (void)home_.done({"create", "EAST"});
        (void)home_.done({"define", "queue", "Q"});
        (void)home_.done({"define", "queue", "OTHER"});
    }

    std::uint64_t depth(const char* queue) { return home_.json({"show", "queue", queue})[0]["depth"]; }

    ProgramHome home_;
};

TEST_F(KvrMessage, EveryDescriptorFieldGoesInAndComesOut) {
    const json fields = {{"type", -1},
                         {"code", 2147483647},
                         {"msgid", std::string(32, 'm')},
                         {"correlid", "0x00ff10"},
                         {"usage", 3},
                         {"flags", 1},
                         {"expiry", 4},
                         {"feedback", -2147483648LL},
                         {"encoding", 546},
                         {"ccsid", 1208},
                         {"priority", 9},
                         {"persistence", 1},
                         {"seqno", 7},
                         {"report", 64},
                         {"format", "EIGHTCHR"},
                         {"reply-to-q", std::string(32, 'r')},
                         {"reply-to-qmgr", "EAST"},
                         {"group-id", "group one"},
                         {"appl-type", 6},
                         {"appl-name", "payroll \"x\""},
                         {"put-date", "20240229"},
                         {"put-time", "235959"}};
    std::vector<std::string> arguments{"put", "Q", "some data", "--dest", "ORDERS@WEST"};
    for (const auto& [name, value] : fields.items()) {
        arguments.push_back("--" + name);
        arguments.push_back(value.is_string() ? value.get<std::string>() : value.dump());
    }
    (void)home_.done(arguments);
    const json browsed = home_.json({"browse", "Q", "--full"})[0];
    const json got = home_.json({"get", "Q"})[0];
    for (const json& message : {browsed, got}) {
        for (const auto& [name, value] : fields.items()) {
            EXPECT_EQ(message[name], value) << name;
        }
        EXPECT_EQ(message["store-type"], "1");
        EXPECT_EQ(message["destination"], (json{{"queue", "ORDERS"}, {"qmgr", "WEST"}}));
        EXPECT_EQ(message["data"], "some data");
        EXPECT_EQ(message["length"], 9);
    }
    EXPECT_EQ(depth("Q"), 0U);
}

TEST_F(KvrMessage, WhatIsNotGivenIsFilledInAndIdsAreUnique) {
    (void)home_.done({"put", "Q", "x", "--count", "2"});
    const json messages = home_.json({"browse", "Q"});
    ASSERT_EQ(messages.size(), 2U);
    EXPECT_NE(messages[0]["msgid"], messages[1]["msgid"]);
    for (const auto& [name, length] : {std::pair("msgid", 32U), {"put-date", 8U}, {"put-time", 6U}}) {
        EXPECT_EQ(messages[0][name].get<std::string>().size(), length) << name;
    }
}

TEST_F(KvrMessage, DataComesFromEverySourceAndLeavesByteForByte) {
    std::string bytes;
    for (int i = 0; i < 1024; ++i) {
        bytes += static_cast<char>(i * 7);
    }
    const std::string largest(2098376, '\xff');
    const struct {
        std::vector<std::string> source;
        std::string input;
        std::string expected;
    } cases[] = {
        {{"as argument"}, "", "as argument"},
        {{""}, "", ""},
        {{"--data", "-x"}, "", "-x"},
        {{"--data-file", home_.file("bytes", bytes)}, "", bytes},
        {{"--data-file", "-"}, bytes, bytes},
        {{}, "from the pipe\n", "from the pipe\n"},
        {{}, largest, largest},
    };
    for (const auto& each : cases) {
        std::vector<std::string> arguments{"put", "Q"};
        arguments.insert(arguments.end(), each.source.begin(), each.source.end());
        (void)home_.done(arguments, each.input);
        EXPECT_TRUE(home_.done({"get", "Q", "--raw"}) == each.expected) << testing::PrintToString(each.source);
    }
    (void)home_.done({"put", "Q", "--data", "body", "--dest", "D"});
    const std::string with_header = home_.done({"get", "Q", "--raw"});
    ASSERT_EQ(with_header.size(), 76U);
    EXPECT_EQ(with_header.substr(0, 12), std::string("XTMH\1\0\0\0D\0\0\0", 12));
    EXPECT_EQ(with_header.substr(72), "body");
}

TEST_F(KvrMessage, BinaryDataIsShownWithoutHarmToTheTerminal) {
    (void)home_.done({"put", "Q", "--data-file", home_.file("evil", std::string("\x1b[2J\0\xc2\x9b!", 8))});
    for (const char* form : {"--full", "--hex", "--count=1"}) {
        EXPECT_THAT(home_.done({"browse", "Q", form}), Not(HasSubstr("\x1b"))) << form;
    }
    EXPECT_THAT(home_.done({"browse", "Q", "--hex"}), HasSubstr("00000000  1b 5b 32 4a 00 c2 9b 21"));
    const json message = home_.json({"browse", "Q", "--full"})[0];
    EXPECT_EQ(message["data_encoding"], "base64");
    EXPECT_EQ(message["data"], "G1sySgDCmyE=");
}

TEST_F(KvrMessage, AttachmentsAndFileMessagesKeepTheirPaths) {
    const std::string file = home_.file("file", "contents");
    std::vector<std::string> arguments{"put", "Q", "see files", "--dest", "D"};
    for (int i = 0; i < 30; ++i) {
        arguments.insert(arguments.end(), {"--attach", file});
    }
    (void)home_.done(arguments);
    arguments.insert(arguments.end(), {"--attach", file});
    EXPECT_EQ(home_.run(arguments).code, 2) << "31 attachments";
    (void)home_.done({"put", "Q", "--dest", "D", "--file", file});

    const json attached = home_.json({"get", "Q"})[0];
    EXPECT_EQ(attached["attachments"].size(), 30U);
    EXPECT_EQ(attached["attachments"][29], file);
    EXPECT_EQ(attached["flags"], 4);
    const json by_file = home_.json({"get", "Q"})[0];
    EXPECT_EQ(by_file["store-type"], "2");
    EXPECT_EQ(by_file["data"], file);
}

TEST_F(KvrMessage, LoadIsProvenAndWhatIsWrongIsFound) {
    const std::vector<std::string> load{"put", "Q", "--count", "500", "--size", "0-300", "--seed", "7", "--dest", "D"};
    (void)home_.done(load);
    const json first = home_.json({"browse", "Q", "--full", "--count", "1"})[0];
    const json good = home_.json({"get", "Q", "--all", "--verify"});
    EXPECT_EQ(good["runs"][0]["taken"], 500);
    EXPECT_EQ(good["good"], true);

    const auto verify = [this] { return home_.run({"get", "Q", "--all", "--verify"}); };
    (void)home_.done(load);
    (void)home_.done({"get", "Q", "--count", "2", "--raw"});
    ProgramResult result = verify();
    EXPECT_EQ(result.code, 1);
    EXPECT_THAT(result.out, HasSubstr("2 missing (the first is number 1)"));

    (void)home_.done(load);
    (void)home_.done({"put", "Q", "stranger"});
    (void)home_.done(load);
    result = verify();
    EXPECT_EQ(result.code, 1);
    EXPECT_THAT(result.out, HasSubstr("500 repeated"));
    EXPECT_THAT(result.out, HasSubstr("1 message without a proof"));

    (void)home_.done({"put", "Q", "altered", "--format", "KVRLOAD", "--correlid", first["correlid"], "--group-id",
                      first["group-id"], "--seqno", "1"});
    result = home_.run({"get", "Q", "--verify"});
    EXPECT_EQ(result.code, 1);
    EXPECT_THAT(result.out, HasSubstr("1 altered"));
}

TEST_F(KvrMessage, GetStopsAtItsCountWaitsAsToldAndWritesFiles) {
    (void)home_.done({"put", "Q", "x", "--count", "3"});
    const std::string folder = (home_.path() / "out").native() + "/";
    (void)home_.done({"get", "Q", "--count", "2", "--out", folder});
    EXPECT_EQ(depth("Q"), 1U);
    (void)home_.done({"get", "Q", "--all", "--out", folder, "--raw"});
    for (const char* name : {"000001.dat", "000002.dat", "000003.dat"}) {
        std::ifstream stream(folder + name);
        EXPECT_EQ(stream.get(), 'x') << name;
    }
    const ProgramResult none = home_.run({"get", "Q", "--wait", "0.05"});
    EXPECT_EQ(none.code, 1);
    EXPECT_THAT(none.err, HasSubstr("--wait"));
    EXPECT_EQ(home_.run({"get", "Q", "--all"}).code, 0);

    Child waiting = in_background(home_, {"get", "Q", "--wait", "30"});
    (void)home_.done({"put", "Q", "late"});
    EXPECT_EQ(waiting.result(), 0);
}

TEST_F(KvrMessage, BrowsePagesThroughAQueueAndTakesNothing) {
    (void)home_.done({"put", "Q", "--count", "60", "--size", "100000"});
    const ProgramResult cut = home_.run({"browse", "Q"});
    EXPECT_EQ(std::count(cut.out.begin(), cut.out.end(), '\n'), 51);
    EXPECT_THAT(cut.err, HasSubstr("--all"));
    const json all = home_.json({"browse", "Q", "--all"});
    ASSERT_EQ(all.size(), 60U);
    const json tail = home_.json({"browse", "Q", "--from", all[57]["sequence"].dump()});
    ASSERT_EQ(tail.size(), 3U);
    EXPECT_EQ(tail[0]["msgid"], all[57]["msgid"]);
    EXPECT_EQ(depth("Q"), 60U);
}

TEST_F(KvrMessage, DeadLettersGoBackWithTheirHeaderChangedOrNot) {
    const std::string file = home_.file("file", "contents");
    const auto put = [&] { (void)home_.done({"put", "Q", "body", "--dest", "D@WEST", "--attach", file}); };
    const struct {
        std::vector<std::string> options;
        json destination;
    } cases[] = {{{}, {{"queue", "D"}, {"qmgr", "WEST"}}},
                 {{"--dest", "E"}, {{"queue", "E"}, {"qmgr", ""}}},
                 {{"--strip-header"}, nullptr}};
    for (const auto& each : cases) {
        put();
        put();
        std::vector<std::string> arguments{"move", "Q", "OTHER", "--count", "1"};
        arguments.insert(arguments.end(), each.options.begin(), each.options.end());
        EXPECT_THAT(home_.done(arguments), HasSubstr("moved 1 message "));
        const json moved = home_.json({"get", "OTHER"})[0];
        EXPECT_EQ(moved["destination"], each.destination);
        EXPECT_EQ(moved["data"], "body");
        EXPECT_EQ(moved["attachments"], json::array({file}));
        EXPECT_EQ(depth("Q"), 1U);
        (void)home_.done({"get", "Q"});
    }
}

TEST_F(KvrMessage, HeldMessagesAreShownAndReleased) {
    (void)home_.done({"put", "Q", "stuck"});
    (void)home_.done({"put", "Q", "free"});
    {
        const auto store = Store::open(home_.path() / "EAST");
        std::vector<char> buffer(kMaxMessage);
        T_KAVRO_MD descriptor{};
        const auto getter = store->drain("Q");
        ASSERT_EQ(getter->next(descriptor, buffer, false), 5);
        getter->hold("a test");
    }
    const json held = home_.json({"browse", "Q", "--held", "--full"});
    ASSERT_EQ(held.size(), 1U);
    EXPECT_EQ(held[0]["state"], "held");
    EXPECT_EQ(held[0]["data"], "stuck");
    EXPECT_EQ(home_.json({"show", "queue", "Q"})[0]["held"], 1);
    EXPECT_EQ(home_.done({"get", "Q", "--raw"}), "free");
    EXPECT_EQ(home_.run({"get", "Q"}).code, 1);
    EXPECT_THAT(home_.done({"release", "Q"}), HasSubstr("released 1 message "));
    EXPECT_EQ(home_.done({"get", "Q", "--raw"}), "stuck");
}

TEST_F(KvrMessage, ADrainedQueueRefusesASecondGetter) {
    (void)home_.done({"put", "Q", "x"});
    const auto store = Store::open(home_.path() / "EAST");
    const auto getter = store->drain("Q");
    const ProgramResult refused = home_.run({"get", "Q"});
    EXPECT_EQ(refused.code, 1);
    EXPECT_THAT(refused.err, HasSubstr(std::to_string(::getpid())));
    EXPECT_EQ(home_.run({"delete", "queue", "Q", "--purge"}).code, 1);
    EXPECT_EQ(home_.json({"browse", "Q"}).size(), 1U);
}

} // namespace
} // namespace kvr::test
