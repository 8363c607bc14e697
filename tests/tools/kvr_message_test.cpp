// SPDX-License-Identifier: MIT
// Messages in and out: every descriptor field, headers, attachments, sizes, proofs, dead letters.
#include "kvr_program.h"
#include "store/store.h"

namespace kvr::test {
namespace {

using nlohmann::json;
using ::testing::HasSubstr;
using ::testing::Not;

class KvrMessage : public ::testing::Test {
  protected:
    KvrMessage() {
        home_.done("create EAST");
        home_.done("define queue Q");
        home_.done("define queue OTHER");
    }
    std::uint64_t depth() { return home_.json("show queue Q")[0]["depth"]; }

    ProgramHome home_;
};

TEST_F(KvrMessage, EveryDescriptorFieldGoesInAndComesOut) {
    const json fields = R"({"type": -1, "code": 2147483647, "msgid": "0123456789abcdef0123456789ABCDEF",
        "correlid": "0x00ff10", "usage": 3, "flags": 1, "expiry": 4, "feedback": -2147483648, "encoding": 546,
        "ccsid": 1208, "priority": 9, "persistence": 1, "seqno": 7, "report": 64, "format": "EIGHTCHR",
        "reply-to-q": "rrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrr", "reply-to-qmgr": "EAST", "group-id": "group one",
        "appl-type": 6, "appl-name": "payroll x", "put-date": "20240229", "put-time": "235959"})"_json;
    std::string line = "put Q 'some data' --dest ORDERS@WEST";
    for (const auto& [name, value] : fields.items()) {
        line += " --" + name + " '" + (value.is_string() ? value.get<std::string>() : value.dump()) + "'";
    }
    home_.done(line);
    const json browsed = home_.json("browse Q --full")[0];
    for (const json& message : {browsed, home_.json("get Q")[0]}) {
        for (const auto& [name, value] : fields.items()) {
            EXPECT_EQ(message[name], value) << name;
        }
        EXPECT_EQ(message["destination"], (json{{"queue", "ORDERS"}, {"qmgr", "WEST"}}));
        EXPECT_EQ(message["data"], "some data");
    }
    home_.done("put Q x --count 2"); // what is not given is filled in
    const json messages = home_.json("browse Q");
    EXPECT_NE(messages[0]["msgid"], messages[1]["msgid"]);
    for (const auto& [name, length] : {std::pair("msgid", 32U), {"put-date", 8U}, {"put-time", 6U}}) {
        EXPECT_EQ(messages[0][name].get<std::string>().size(), length) << name;
    }
}

TEST_F(KvrMessage, DataLeavesByteForByteAndIsShownWithoutHarmToTheTerminal) {
    const std::string bytes("\x1b[2J\0\xc2\x9b!", 8);
    const std::string largest(2098376, '\xff');
    const struct {
        const char* source;
        std::string input;
        std::string expected;
    } cases[] = {{"'as argument'", "", "as argument"},
                 {"--data -x", "", "-x"},
                 {"--data-file -", bytes, bytes},
                 {"", largest, largest},
                 {"--data body --dest D", "", std::string("XTMH\1\0\0\0D", 9) + std::string(63, '\0') + "body"}};
    for (const auto& [source, input, expected] : cases) {
        home_.done(std::string("put Q ") + source, input);
        EXPECT_TRUE(home_.done("get Q --raw") == expected) << source;
    }
    home_.done("put Q", bytes);
    for (const char* form : {"--full", "--hex", "--count=1"}) {
        EXPECT_THAT(home_.done(std::string("browse Q ") + form), Not(HasSubstr("\x1b"))) << form;
    }
    EXPECT_THAT(home_.done("browse Q --hex"), HasSubstr("00000000  1b 5b 32 4a 00 c2 9b 21"));
    EXPECT_EQ(home_.json("browse Q --full")[0]["data"], "G1sySgDCmyE=");
}

TEST_F(KvrMessage, ProofsAreVerifiedAndOnlyWhatHoldsIsTaken) {
    const std::string put = "put Q --dest D --priority 3 --seed ";
    const std::string files = " --file-size 1-20000 --file-dir .";
    home_.done(put + "7 --count 500 --size 0-300");
    home_.done(put + "8 --count 20 --size 0-300" + files);
    home_.done(put + "9 --count 20" + files);
    const json good = home_.json("get Q --all --verify");
    EXPECT_EQ(good["good"], true);
    EXPECT_EQ(good["runs"][0]["taken"], 500);
    EXPECT_EQ(good["runs"][1]["bytes"].get<int>() + good["runs"][2]["bytes"].get<int>(), 393292) << "seeds fix sizes";

    home_.done(put + "7 --count 5 --size 9");
    home_.done(put + "9 --count 1" + files);
    home_.done("get Q --count 2 --raw");
    home_.done("put Q stranger");
    home_.file("0000000000000009.1.1", "altered");
    const ProgramResult bad = home_.run("get Q --verify --all");
    EXPECT_EQ(bad.code, 1);
    EXPECT_THAT(bad.out, AllOf(HasSubstr("3 taken of 5"), HasSubstr("2 missing (numbers 1-2)"),
                               HasSubstr("0 taken of 1, 1 altered"), HasSubstr("1 message without a proof")));
    const json left = home_.json("browse Q --full");
    ASSERT_EQ(left.size(), 2U) << "what is not proven is not taken";
    EXPECT_EQ(left[1]["data"], "stranger");
    EXPECT_EQ(left[1]["state"], "ready");
}

TEST_F(KvrMessage, GetStopsAtItsCountWaitsAsToldAndWritesFiles) {
    home_.done("put Q x --count 3");
    home_.done("get Q --count 2 --out out/");
    EXPECT_EQ(depth(), 1U);
    home_.done("get Q --all --out out/ --raw");
    EXPECT_EQ(names_in(home_.path() / "out"), (std::set<std::string>{"000001.dat", "000002.dat", "000003.dat"}));
    EXPECT_EQ(contents(home_.path() / "out" / "000003.dat"), "x");
    EXPECT_EQ(home_.run("get Q --wait 0.05").code, 1);
    EXPECT_EQ(home_.run("get Q --all").code, 0);
    Child waiting = home_.in_background("get Q --wait 30");
    home_.done("put Q late");
    EXPECT_EQ(waiting.result(), 0);
}

TEST_F(KvrMessage, BrowsePagesThroughAQueueAndTakesNothing) {
    home_.done("put Q --count 60 --size 100000");
    EXPECT_THAT(home_.run("browse Q").err, HasSubstr("--all"));
    const json all = home_.json("browse Q --all");
    ASSERT_EQ(all.size(), 60U);
    const json tail = home_.json("browse Q --from " + all[57]["sequence"].dump());
    ASSERT_EQ(tail.size(), 3U);
    EXPECT_EQ(tail[0]["msgid"], all[57]["msgid"]);
    EXPECT_EQ(depth(), 60U);
}

TEST_F(KvrMessage, DeadLettersGoBackWithTheirHeaderChangedOrNotAndTheirFiles) {
    const std::string file = home_.file("file", "contents");
    std::string attached;
    for (int i = 0; i < 30; ++i) {
        attached += " --attach file";
    }
    EXPECT_EQ(home_.run("put Q x --attach file" + attached).code, 2);
    const std::pair<const char*, json> cases[] = {{"", {{"queue", "D"}, {"qmgr", "WEST"}}},
                                                  {" --dest E", {{"queue", "E"}, {"qmgr", ""}}},
                                                  {" --strip-header", nullptr}};
    for (const auto& [options, destination] : cases) {
        home_.done("put Q body --dest D@WEST --count 2" + attached);
        home_.done(std::string("move Q OTHER --count 1") + options);
        const json moved = home_.json("get OTHER")[0];
        EXPECT_EQ(moved["destination"], destination);
        EXPECT_EQ(moved["data"], "body");
        EXPECT_EQ(moved["attachments"], json(std::vector<std::string>(30, file)));
        EXPECT_EQ(depth(), 1U);
        home_.done("get Q");
    }
    home_.done("put Q --file file");
    home_.done("put Q --size 2098376");
    EXPECT_THAT(home_.run("move Q OTHER --dest E").err, HasSubstr("1 message moved, the rest is still on Q"));
    EXPECT_EQ(home_.json("browse Q")[0]["state"], "ready");
    const json by_file = home_.json("get OTHER")[0];
    EXPECT_EQ(by_file["data"], file);
    EXPECT_EQ(by_file["store-type"], "2");
}

TEST_F(KvrMessage, HeldOnesAreShownAndReleasedAndADrainedQueueRefusesASecondGetter) {
    home_.done("put Q stuck");
    home_.done("put Q free");
    {
        const auto store = Store::open(home_.path() / "EAST");
        std::vector<char> buffer(kMaxMessage);
        T_KAVRO_MD descriptor{};
        const auto getter = store->drain("Q");
        ASSERT_EQ(getter->next(descriptor, buffer, false), 5);
        getter->hold("a test");
        for (const char* command : {"get Q", "delete queue Q --purge"}) {
            EXPECT_THAT(home_.run(command).err, HasSubstr(std::to_string(::getpid())));
        }
    }
    EXPECT_EQ(home_.json("browse Q --held --full")[0]["data"], "stuck");
    EXPECT_EQ(home_.json("show queue Q")[0]["held"], 1);
    EXPECT_EQ(home_.done("get Q --raw"), "free");
    EXPECT_EQ(home_.run("get Q").code, 1);
    home_.done("release Q");
    EXPECT_EQ(home_.done("get Q --raw"), "stuck");
}

} // namespace
} // namespace kvr::test
