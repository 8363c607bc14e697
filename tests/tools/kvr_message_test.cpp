// SPDX-License-Identifier: MIT
// Messages in and out: every descriptor field, headers, attachments, sizes, load with its proof, dead letters.
#include "kvr_program.h"
#include "store.h"

namespace kvr::test {
namespace {

using nlohmann::json;
using ::testing::HasSubstr;
using ::testing::Not;

class KvrMessage : public ::testing::Test {
  protected:
    KvrMessage() {
        home_.done({"create", "EAST"});
        home_.done({"define", "queue", "Q"});
        home_.done({"define", "queue", "OTHER"});
    }
    std::uint64_t depth() { return home_.json({"show", "queue", "Q"})[0]["depth"]; }

    ProgramHome home_;
};

TEST_F(KvrMessage, EveryDescriptorFieldGoesInAndComesOut) {
    const json fields = R"({"type": -1, "code": 2147483647, "msgid": "0123456789abcdef0123456789ABCDEF",
        "correlid": "0x00ff10", "usage": 3, "flags": 1, "expiry": 4, "feedback": -2147483648, "encoding": 546,
        "ccsid": 1208, "priority": 9, "persistence": 1, "seqno": 7, "report": 64, "format": "EIGHTCHR",
        "reply-to-q": "rrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrr", "reply-to-qmgr": "EAST", "group-id": "group one",
        "appl-type": 6, "appl-name": "payroll \"x\"", "put-date": "20240229", "put-time": "235959"})"_json;
    Words arguments{"put", "Q", "some data", "--dest", "ORDERS@WEST"};
    for (const auto& [name, value] : fields.items()) {
        arguments.push_back("--" + name);
        arguments.push_back(value.is_string() ? value.get<std::string>() : value.dump());
    }
    home_.done(arguments);
    const json browsed = home_.json({"browse", "Q", "--full"})[0];
    for (const json& message : {browsed, home_.json({"get", "Q"})[0]}) {
        for (const auto& [name, value] : fields.items()) {
            EXPECT_EQ(message[name], value) << name;
        }
        EXPECT_EQ(message["store-type"], "1");
        EXPECT_EQ(message["destination"], (json{{"queue", "ORDERS"}, {"qmgr", "WEST"}}));
        EXPECT_EQ(message["data"], "some data");
        EXPECT_EQ(message["length"], 9);
    }
    EXPECT_EQ(depth(), 0U);
}

TEST_F(KvrMessage, WhatIsNotGivenIsFilledInAndIdsAreUnique) {
    home_.done({"put", "Q", "x", "--count", "2"});
    const json messages = home_.json({"browse", "Q"});
    ASSERT_EQ(messages.size(), 2U);
    EXPECT_NE(messages[0]["msgid"], messages[1]["msgid"]);
    for (const auto& [name, length] : {std::pair("msgid", 32U), {"put-date", 8U}, {"put-time", 6U}}) {
        EXPECT_EQ(messages[0][name].get<std::string>().size(), length) << name;
    }
}

TEST_F(KvrMessage, DataComesFromEverySourceAndLeavesByteForByte) {
    const std::string bytes("a\0b\r\n\xff\x1b\t", 8);
    const std::string largest(2098376, '\xff');
    const struct {
        Words source;
        std::string input;
        std::string expected;
    } cases[] = {
        {{"as argument"}, "", "as argument"},
        {{""}, "", ""},
        {{"--data", "-x"}, "", "-x"},
        {{"--data-file", home_.file("bytes", bytes)}, "", bytes},
        {{"--data-file", "-"}, bytes, bytes},
        {{}, largest, largest},
        {{"--data", "body", "--dest", "D"}, "", std::string("XTMH\1\0\0\0D", 9) + std::string(63, '\0') + "body"}};
    for (const auto& [source, input, expected] : cases) {
        home_.done(Words{"put", "Q"} + source, input);
        EXPECT_TRUE(home_.done({"get", "Q", "--raw"}) == expected) << testing::PrintToString(source);
    }
}

TEST_F(KvrMessage, BinaryDataIsShownWithoutHarmToTheTerminal) {
    home_.done({"put", "Q", "--data-file", home_.file("evil", std::string("\x1b[2J\0\xc2\x9b!", 8))});
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
    Words attached;
    for (int i = 0; i < 30; ++i) {
        attached = attached + Words{"--attach", file};
    }
    const Words put{"put", "Q", "--dest", "D"};
    home_.done(put + Words{"see files"} + attached);
    home_.done(put + Words{"--file", file});
    EXPECT_EQ(home_.run(put + Words{"see files", "--attach", file} + attached).code, 2) << "31 attachments";
    const json with_files = home_.json({"get", "Q"})[0];
    EXPECT_EQ(with_files["attachments"], json(std::vector<std::string>(30, file)));
    EXPECT_EQ(with_files["flags"], 4);
    const json by_file = home_.json({"get", "Q"})[0];
    EXPECT_EQ(by_file["store-type"], "2");
    EXPECT_EQ(by_file["data"], file);
}

TEST_F(KvrMessage, ProofsAreVerifiedAndOnlyWhatHoldsIsTaken) {
    const Words put{"put", "Q", "--dest", "D", "--priority", "3", "--seed"};
    const Words files{"--file-size", "1-20000", "--file-dir", home_.path().native()};
    home_.done(put + Words{"7", "--count", "500", "--size", "0-300"});
    home_.done(put + Words{"8", "--count", "20", "--size", "0-300"} + files);
    home_.done(put + Words{"9", "--count", "20"} + files);
    const json good = home_.json({"get", "Q", "--all", "--verify"});
    EXPECT_EQ(good["good"], true);
    EXPECT_EQ(good["runs"][0]["taken"], 500);
    EXPECT_EQ(good["runs"][1]["bytes"].get<int>() + good["runs"][2]["bytes"].get<int>(), 393292) << "seeds fix sizes";

    home_.done(put + Words{"7", "--count", "5", "--size", "9"});
    home_.done(put + Words{"9", "--count", "1"} + files);
    home_.done({"get", "Q", "--count", "2", "--raw"});
    home_.done({"put", "Q", "stranger"});
    std::ofstream(home_.path() / "0000000000000009.1.1") << "altered";
    const ProgramResult bad = home_.run({"get", "Q", "--verify", "--all"});
    EXPECT_EQ(bad.code, 1);
    EXPECT_THAT(bad.out, AllOf(HasSubstr("3 taken of 5"), HasSubstr("2 missing (numbers 1-2)"),
                               HasSubstr("0 taken of 1, 1 altered"), HasSubstr("1 message without a proof")));
    const json left = home_.json({"browse", "Q", "--full"});
    ASSERT_EQ(left.size(), 2U) << "what is not proven is not taken";
    EXPECT_EQ(left[1]["data"], "stranger");
    EXPECT_EQ(left[1]["state"], "ready");
}

TEST_F(KvrMessage, GetStopsAtItsCountWaitsAsToldAndWritesFiles) {
    home_.done({"put", "Q", "x", "--count", "3"});
    const std::string folder = (home_.path() / "out").native() + "/";
    home_.done({"get", "Q", "--count", "2", "--out", folder});
    EXPECT_EQ(depth(), 1U);
    home_.done({"get", "Q", "--all", "--out", folder, "--raw"});
    EXPECT_EQ(names_in(folder), (std::set<std::string>{"000001.dat", "000002.dat", "000003.dat"}));
    EXPECT_EQ(contents(folder + "000003.dat"), "x");
    const ProgramResult none = home_.run({"get", "Q", "--wait", "0.05"});
    EXPECT_EQ(none.code, 1);
    EXPECT_THAT(none.err, HasSubstr("--wait"));
    EXPECT_EQ(home_.run({"get", "Q", "--all"}).code, 0);
    Child waiting = home_.in_background({"get", "Q", "--wait", "30"});
    home_.done({"put", "Q", "late"});
    EXPECT_EQ(waiting.result(), 0);
}

TEST_F(KvrMessage, BrowsePagesThroughAQueueAndTakesNothing) {
    home_.done({"put", "Q", "--count", "60", "--size", "100000"});
    const ProgramResult cut = home_.run({"browse", "Q"});
    EXPECT_EQ(std::count(cut.out.begin(), cut.out.end(), '\n'), 51);
    EXPECT_THAT(cut.err, HasSubstr("--all"));
    const json all = home_.json({"browse", "Q", "--all"});
    ASSERT_EQ(all.size(), 60U);
    const json tail = home_.json({"browse", "Q", "--from", all[57]["sequence"].dump()});
    ASSERT_EQ(tail.size(), 3U);
    EXPECT_EQ(tail[0]["msgid"], all[57]["msgid"]);
    EXPECT_EQ(depth(), 60U);
    home_.done({"put", "OTHER", "--count", "5000", "x"});
    const int rows =
        std::stoi(home_.shell("$KVR browse OTHER --all | (read heading; $KVR get OTHER --all >/dev/null; wc -l)").out);
    EXPECT_GE(rows, 1000);
    EXPECT_LT(rows, 5000) << "the queue was read to its end before the first row was shown";
}

TEST_F(KvrMessage, DeadLettersGoBackWithTheirHeaderChangedOrNot) {
    const std::string file = home_.file("file", "contents");
    const std::pair<Words, json> cases[] = {{{}, {{"queue", "D"}, {"qmgr", "WEST"}}},
                                            {{"--dest", "E"}, {{"queue", "E"}, {"qmgr", ""}}},
                                            {{"--strip-header"}, nullptr}};
    for (const auto& [options, destination] : cases) {
        home_.done({"put", "Q", "body", "--dest", "D@WEST", "--attach", file, "--count", "2"});
        EXPECT_THAT(home_.done(Words{"move", "Q", "OTHER", "--count", "1"} + options), HasSubstr("moved 1 message "));
        const json moved = home_.json({"get", "OTHER"})[0];
        EXPECT_EQ(moved["destination"], destination);
        EXPECT_EQ(moved["data"], "body");
        EXPECT_EQ(moved["attachments"], json::array({file}));
        EXPECT_EQ(depth(), 1U);
        home_.done({"get", "Q"});
    }
    home_.done({"put", "Q", "fits"});
    home_.done({"put", "Q", "--size", "2098376"});
    const ProgramResult stuck = home_.run({"move", "Q", "OTHER", "--dest", "E"});
    EXPECT_EQ(stuck.code, 1);
    EXPECT_THAT(stuck.err,
                HasSubstr("1 message moved, the rest is still on Q: a message of 2098376 bytes has no room"));
    EXPECT_EQ(home_.json({"browse", "Q"})[0]["state"], "ready");
    EXPECT_EQ(home_.json({"get", "OTHER"})[0]["data"], "fits");
}

TEST_F(KvrMessage, HeldOnesAreShownAndReleasedAndADrainedQueueRefusesASecondGetter) {
    home_.done({"put", "Q", "stuck"});
    home_.done({"put", "Q", "free"});
    {
        const auto store = Store::open(home_.path() / "EAST");
        std::vector<char> buffer(kMaxMessage);
        T_KAVRO_MD descriptor{};
        const auto getter = store->drain("Q");
        ASSERT_EQ(getter->next(descriptor, buffer, false), 5);
        getter->hold("a test");
        for (const Words& command : {Words{"get", "Q"}, {"delete", "queue", "Q", "--purge"}}) {
            const ProgramResult refused = home_.run(command);
            EXPECT_EQ(refused.code, 1);
            EXPECT_THAT(refused.err, HasSubstr(std::to_string(::getpid())));
        }
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

} // namespace
} // namespace kvr::test
