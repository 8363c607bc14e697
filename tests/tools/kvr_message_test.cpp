// SPDX-License-Identifier: MIT
// Messages in and out: every descriptor field, headers, attachments, sizes, proofs, dead letters.
#include <sys/stat.h>

#include "kvr_program.h"
#include "store/store.h"

namespace kvr::test {
namespace {

using KvrMessage = ProgramTest;

TEST_F(KvrMessage, EveryDescriptorFieldGoesInAndComesOut) {
    const json fields = R"({"type": -1, "code": 2147483647, "msgid": "0123456789abcdef0123456789ABCDEF",
        "correlid": "0x00ff10", "usage": 3, "flags": 1, "expiry": 4, "feedback": -2147483648, "encoding": 546,
        "ccsid": 1208, "priority": 9, "persistence": 1, "seqno": 7, "report": 64, "format": "EIGHTCHR",
        "reply-to-q": "rrrrrrrrrrrrrrrrrrrrrrrrrrrrrrrr", "reply-to-qmgr": "EAST", "group-id": "group one",
        "appl-type": 6, "appl-name": "payroll x", "put-date": "20240229", "put-time": "235959"})"_json;
    std::string line = "put Q 'some data'";
    for (const auto& [name, value] : fields.items()) {
        line += " --" + name + " '" + (value.is_string() ? value.get<std::string>() : value.dump()) + "'";
    }
    done(line);
    for (const char* command : {"browse Q --full", "get Q"}) {
        const json message = shown(command)[0];
        EXPECT_EQ(message["data"], "some data");
        for (const auto& [name, value] : fields.items()) {
            EXPECT_EQ(message[name], value) << name;
        }
    }
    done("put Q x --count 2");
    const json filled_in = shown("browse Q");
    EXPECT_NE(filled_in[0]["msgid"], filled_in[1]["msgid"]);
    EXPECT_THAT(filled_in.dump(), ContainsRegex("\"put-date\":\"20[0-9]{6}\",\"put-time\":\"[0-9]{6}\""));
}

TEST_F(KvrMessage, DataLeavesByteForByteAndIsShownWithoutHarmToTheTerminal) {
    const std::string bytes("\x1b[2J\0\xc2\x9b!", 8);
    const std::string largest(2098376, '\xff');
    const std::string with_header = std::string("XTMH\1\0\0\0D", 9) + std::string(63, '\0') + "body";
    const std::tuple<std::string, std::string, std::string> cases[] = {{"--data -x", "", "-x"},
                                                                       {"--data-file -", bytes, bytes},
                                                                       {"", largest, largest},
                                                                       {"--data body --dest D", "", with_header}};
    for (const auto& [source, input, expected] : cases) {
        done("put Q " + source, input);
        EXPECT_TRUE(done("get Q --raw") == expected) << source;
    }
    done("put Q", bytes);
    EXPECT_THAT(done("browse Q --full") + done("browse Q"), Not(HasSubstr("\x1b")));
    EXPECT_THAT(done("browse Q --hex"), HasSubstr("00000000  1b 5b 32 4a 00 c2 9b 21"));
    EXPECT_EQ(shown("browse Q --full")[0]["data"], "G1sySgDCmyE=");
}

TEST_F(KvrMessage, OnlyWhatIsProvenIsTaken) {
    done("put Q --dest D --seed 7 --count 5 --size 9");
    done("put Q --dest D --seed 9 --count 1 --file-size 1-20000 --file-dir .");
    done("put Q stranger");
    done("get Q --count 2 --raw");
    file("0000000000000009.1.1", "altered");
    const ProgramResult bad = run("get Q --verify --all");
    EXPECT_EQ(bad.code, 1);
    EXPECT_THAT(bad.out, AllOf(HasSubstr("3 taken of 5"), HasSubstr("2 missing (numbers 1-2)"),
                               HasSubstr("0 taken of 1, 1 altered"), HasSubstr("1 message without a proof")));
    const json left = shown("browse Q --full");
    ASSERT_EQ(left.size(), 2U);
    EXPECT_EQ(left[1]["data"], "stranger");
}

TEST_F(KvrMessage, GetStopsAtItsCountWaitsAsToldAndWritesFiles) {
    done("put Q x --count 3");
    done("get Q --count 2 --out out/");
    EXPECT_EQ(shown("show queue Q")[0]["depth"], 1);
    done("get Q --all --out out/ --raw");
    EXPECT_EQ(names_in(path() / "out"), (std::set<std::string>{"000001.dat", "000002.dat", "000003.dat"}));
    EXPECT_EQ(run("get Q --wait 0.05").code, 3);
    Child waiting = start("exec $KVR get Q --wait 30");
    done("put Q late");
    EXPECT_EQ(waiting.result(), 0);
}

TEST_F(KvrMessage, SeveralTakersShareAQueueWhichNoneHasForItself) {
    done("put Q x --count 5");
    const auto store = Store::open(path() / "EAST");
    const auto taker = store->take_from("Q");
    TakenMessage message;
    ASSERT_EQ(taker->next({}, {}, message), Taken::kMessage);
    EXPECT_EQ(shown("get Q --count 2").size(), 2U);
    Child waiting = start("exec $KVR get Q --count 3 --wait 30 --raw");
    done("put Q y");
    EXPECT_EQ(waiting.result(), 0);
    EXPECT_EQ(text("background.out"), "xxy");
    taker->give_back({&message.sequence, 1});
    EXPECT_EQ(shown("get Q --all")[0]["given_back"], 1);
}

TEST_F(KvrMessage, OneIsTakenWhenItsCommandIsDoneAndIsBackOtherwise) {
    done("define queue BAD");
    done("put Q --dest D@WEST --correlid c --attach " + file("attached", "x"), std::string(2000000, 'x'));
    const ProgramResult failed = run("get Q --exec 'ls -l /proc/self/fd | grep mdb; exit 7'"); // it reads nothing
    EXPECT_EQ(std::pair(failed.code, failed.out), std::pair(4, std::string()));
    EXPECT_EQ(shown("browse Q")[0]["given_back"], 1);
    ASSERT_EQ(::mkfifo((path() / "started").c_str(), 0600), 0);
    for (const char* line : {"echo >started; exec sleep 60", "trap \"\" TERM; echo >started; sleep 60; sleep 60"}) {
        Child stopped = start(std::string("exec $KVR get Q --all --exec '") + line + "; touch gone-on'");
        EXPECT_EQ(text("started"), "\n"); // waits for it
        EXPECT_EQ(stopped.result_under(SIGTERM), 0) << text("background.err");
    }
    EXPECT_FALSE(std::filesystem::exists(path() / "gone-on"));
    EXPECT_EQ(done("get Q --exec 'wc -c; echo $KVR_CORRELID $KVR_DEST_QUEUE@$KVR_DEST_QMGR $KVR_DATA_SIZE "
                   "$KVR_ATTACHMENTS $KVR_ATTACHMENT_1 $KVR_GIVEN_BACK'"),
              "2000000\nc D@WEST 2000000 1 " + (path() / "attached").native() + " 3\n");
    done("put Q bad"), done("put Q good");
    EXPECT_EQ(run("get Q --exec false").code, 4);
    EXPECT_EQ(done("get Q --exec cat --max-tries 1 --aside BAD"), "good");
    EXPECT_EQ(done("get BAD --raw"), "bad");
}

TEST_F(KvrMessage, MovedOnesKeepEverythingButTheHeaderThatIsChanged) {
    done("define queue OTHER");
    file("file", "contents");
    const std::pair<const char*, json> cases[] = {{"", {{"queue", "D"}, {"qmgr", "WEST"}}},
                                                  {" --dest E", {{"queue", "E"}, {"qmgr", ""}}},
                                                  {" --strip-header", nullptr}};
    for (const auto& [options, destination] : cases) {
        done("put Q body --dest D@WEST --count 2 --attach file --attach file");
        json expected = shown("browse Q --full")[0];
        expected["destination"] = destination;
        done(std::string("move Q OTHER --count 1") + options);
        json moved = shown("browse OTHER --full")[0];
        moved["sequence"] = expected["sequence"];
        EXPECT_EQ(moved, expected);
        EXPECT_EQ(shown("show queue Q")[0]["depth"], 1);
        done("get Q --count 1"), done("get OTHER --count 1");
    }
    done("put Q x");
    done("put Q --size 2098376");
    EXPECT_THAT(run("move Q OTHER --dest E").err, HasSubstr("1 message moved, the rest is still on Q"));
}

TEST_F(KvrMessage, HeldOnesAreShownAndReleasedAndADrainedQueueRefusesASecondGetter) {
    done("put Q stuck");
    done("put Q free");
    {
        const auto store = Store::open(path() / "EAST");
        std::vector<char> buffer(kMaxMessage);
        T_KAVRO_MD descriptor{};
        const auto getter = store->drain("Q");
        ASSERT_EQ(getter->next(descriptor, buffer, false), 5);
        getter->hold("a test");
        for (const char* command : {"get Q", "delete queue Q --purge", "delete qmgr EAST --yes --purge"}) {
            EXPECT_THAT(run(command).err, HasSubstr("process " + std::to_string(::getpid()))) << command;
        }
    }
    EXPECT_EQ(shown("browse Q --held --full")[0]["data"], "stuck");
    EXPECT_EQ(shown("show queue Q")[0]["held"], 1);
    EXPECT_EQ(done("get Q --raw"), "free");
    done("release Q");
    EXPECT_EQ(done("get Q --raw"), "stuck");
}

} // namespace
} // namespace kvr::test
