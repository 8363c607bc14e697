// SPDX-License-Identifier: MIT
// Help, wrong usage and bad input: exit codes, and texts that say what to do.
#include <algorithm>

#include <gmock/gmock.h>

#include "kvr_program.h"

namespace kvr::test {
namespace {

using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

struct BadInput {
    std::vector<std::string> arguments;
    int code;
    const char* error; ///< regular expression within standard error
};

/// Wrong usage and failures leave standard output empty and give one line that begins with the program's name.
void expect_refused(const ProgramHome& home, const BadInput& bad) {
    std::string command;
    for (const std::string& argument : bad.arguments) {
        command += argument.substr(0, 60) + " ";
    }
    const ProgramResult result = home.run(bad.arguments);
    EXPECT_EQ(result.code, bad.code) << command << result.err;
    EXPECT_EQ(result.out, "") << command;
    EXPECT_THAT(result.err, ContainsRegex(bad.error)) << command;
    EXPECT_THAT(result.err, ContainsRegex("^kvr: .+: .+")) << command;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << command << "\n" << result.err;
}

TEST(KvrUsage, EveryCommandHasHelpWithExamples) {
    const ProgramHome home;
    for (const char* command : {"",
                                "create",
                                "define",
                                "define queue",
                                "define channel",
                                "set",
                                "set qmgr",
                                "set channel",
                                "show",
                                "show qmgr",
                                "show queue",
                                "show channel",
                                "delete",
                                "delete queue",
                                "delete channel",
                                "delete qmgr",
                                "put",
                                "get",
                                "browse",
                                "release",
                                "move",
                                "run",
                                "stop",
                                "status",
                                "listen",
                                "completion"}) {
        std::istringstream words(command);
        std::vector<std::string> arguments{std::istream_iterator<std::string>(words), {}};
        arguments.emplace_back("--help");
        EXPECT_THAT(home.done(arguments), HasSubstr("xamples:\n  kvr ")) << arguments.front();
    }
    EXPECT_THAT(home.done({"--version"}), MatchesRegex("kvr [0-9.]+\n"));
}

TEST(KvrUsage, WrongCommandLinesAreRefusedWithCodeTwo) {
    const ProgramHome home;
    (void)home.done({"create", "EAST"});
    (void)home.done({"define", "queue", "Q"});
    const std::string file = home.file("a", "x");
    const std::vector<BadInput> cases = {
        {{}, 2, "see 'kvr --help'"},
        {{"frobnicate"}, 2, "no command 'frobnicate'.*see 'kvr --help'"},
        {{"--foo"}, 2, "no option '--foo'.*see 'kvr --help'"},
        {{"put", "Q", "x", "--wrong"}, 2, "--wrong.*see 'kvr put --help'"},
        {{"create", "../EVIL"}, 2, "letters, digits"},
        {{"create", "BAD\nNAME"}, 2, "BAD\\\\nNAME"},
        {{"create", "SMALL", "--quota", "1K"}, 2, "4M to 4096G"},
        {{"define", "channel", "C"}, 2, "has no XMITQ"},
        {{"define", "channel", "C", "XMITQ=Q", "CONNAME=h(70000)"}, 2, "port"},
        {{"define", "channel", "C", "XMITQ=Q", "CONNAME=h", "COLOUR=red"}, 2, "no attribute 'COLOUR'.*XMITQ"},
        {{"define", "channel", "C", "XMITQ=Q", "--xmitq", "Q", "CONNAME=h"}, 2, "given twice"},
        {{"define", "channel", "C", "XMITQ"}, 2, "ATTR=VALUE"},
        {{"define", "channel", std::string(64, 'C'), "XMITQ=Q", "CONNAME=h"}, 2, "at most 63"},
        {{"set", "qmgr"}, 2, "nothing to set"},
        {{"set", "qmgr", "KEYPASS=secret"}, 2, "--keypass-file"},
        {{"put", "Q", "x", "--data", "y"}, 2, "more than one place"},
        {{"put", "Q", "x", "--dest", "a b"}, 2, "destination queue"},
        {{"put", "Q", "x", "--dest", ""}, 2, "destination queue name is empty"},
        {{"-m", "EAST", "create", "WEST"}, 2, "leave out -m"},
        {{"get", "Q", "--wait", "long"}, 2, "'long' is not within 0 to 31536000 seconds"},
        {{"put", "Q", "x", "--priority", "high"}, 2, "--priority.*32 bits"},
        {{"put", "Q", "x", "--format", "NINECHARS"}, 2, "--format.*at most 8"},
        {{"put", "Q", "x", "--put-date", "2026-1-1"}, 2, "exactly 8 digits"},
        {{"put", "Q", "x", "--msgid", "0x123"}, 2, "hexadecimal"},
        {{"put", "Q", "x", "--flags", "4"}, 2, "--attach"},
        {{"put", "Q", "--size", "9-1"}, 2, "downwards"},
        {{"put", "Q", "--size", "1", "--seqno", "4"}, 2, "--seqno"},
        {{"get", "Q", "--all", "--out", file}, 2, "folder"},
        {{"get", "Q", "--raw", "--json"}, 2, "--raw"},
        {{"move", "Q", "Q"}, 2, "same"},
        {{"delete", "qmgr", "EAST"}, 2, "--yes"},
        {{"status", "--interval", "2"}, 2, "--watch"},
    };
    for (const BadInput& bad : cases) {
        expect_refused(home, bad);
    }
}

TEST(KvrUsage, WhatTheSystemCannotDoFailsWithCodeOne) {
    const ProgramHome home;
    const ProgramResult none = home.run({"show"});
    EXPECT_EQ(none.code, 1);
    EXPECT_THAT(none.err, HasSubstr("kvr create QMGR"));
    (void)home.done({"create", "EAST"});
    (void)home.done({"define", "queue", "Q"});
    (void)home.done({"define", "channel", "C", "XMITQ=Q", "CONNAME=h"});
    (void)home.done({"put", "Q", "x", "--dest", "D"});
    const std::string large = home.file("large", std::string(2098377, 'x'));
    const std::string empty = home.file("empty", "");
    const std::string present = home.file("present", "x");
    std::filesystem::create_directory(home.path() / "NOQM");
    const std::string long_path = "/" + std::string(512, 'p');
    const std::vector<BadInput> cases = {
        {{"create", "EAST"}, 1, "exists already"},
        {{"show", "-m", "WEST"}, 1, "WEST.*kvr create WEST"},
        {{"create", "NOQM"}, 1, "NOQM exists already.*by hand"},
        {{"delete", "qmgr", "NOQM", "--yes"}, 1, "NOQM is no queue manager.*by hand"},
        {{"define", "queue", "Q"}, 1, "--replace"},
        {{"define", "channel", "c", "XMITQ=Q", "CONNAME=h"}, 1, "channel 'C' exists already.*--replace"},
        {{"set", "channel", "NONE", "HBINT=1"}, 1, "kvr define channel NONE"},
        {{"set", "channel", "C", "XMITQ=NONE"}, 1, "kvr define queue NONE"},
        {{"set", "qmgr", "CERTFILE=/no/such.pem"}, 1, "/no/such.pem.*CERTFILE.*PEM"},
        {{"set", "qmgr", "--keypass-file", "/no/such"}, 1, "/no/such"},
        {{"put", "NONE", "x"}, 1, "kvr define queue NONE"},
        {{"put", "Q", "--data-file", "/no/such"}, 1, "/no/such"},
        {{"put", "Q", "--data-file", large, "--dest", "D"}, 1, "at most 2,098,304 bytes after its transmission header"},
        {{"put", "Q", "--size", "2098305", "--dest", "D"}, 1, "2098305.*at most 2,098,304"},
        {{"put", "Q", "x", "--attach", empty}, 1, "0 bytes.*1 to 99,999,999"},
        {{"put", "Q", "x", "--attach", home.path().native()}, 1, "regular file"},
        {{"put", "Q", "x", "--attach", long_path}, 1, "pppp"},
        {{"get", "NONE"}, 1, "kvr define queue NONE"},
        {{"get", "Q", "--out", present}, 1, "nothing is overwritten"},
        {{"move", "Q", "NONE"}, 1, "kvr define queue NONE"},
        {{"delete", "queue", "Q"}, 1, "--purge"},
        {{"delete", "queue", "DEAD.LETTER.QUEUE"}, 1, "DEADQ"},
        {{"delete", "qmgr", "EAST", "--yes"}, 1, "--purge"},
        {{"run", "NONE"}, 1, "kvr define channel NONE"},
        {{"run", "C", "--plugin", "/no/such.so"}, 1, "/no/such.so"},
        {{"status", "NONE"}, 1, "kvr define channel NONE"},
    };
    for (const BadInput& bad : cases) {
        expect_refused(home, bad);
    }
    EXPECT_EQ(home.json({"show", "queue", "Q"})[0]["depth"], 1) << "a refused command took or added a message";
    (void)home.done({"create", "WEST"});
    expect_refused(home, {{"show"}, 2, "EAST, WEST.*-m"});
}

TEST(KvrUsage, OutputThatCannotBeWrittenIsAFailureAndLosesNothing) {
    const ProgramHome home;
    (void)home.done({"create", "EAST"});
    (void)home.done({"define", "queue", "Q"});
    (void)home.done({"put", "Q", "--count", "3", "x"});
    for (const char* line :
         {"exec $KVR show > /dev/full", "exec $KVR browse Q --json > /dev/full", "exec $KVR get Q --raw > /dev/full",
          "exec $KVR get Q --all > /dev/full", "exec $KVR get Q >&-", "exec $KVR --help > /dev/full"}) {
        const ProgramResult result = home.shell(line);
        EXPECT_EQ(result.code, 1) << line;
        EXPECT_THAT(result.err, HasSubstr("the output cannot be written")) << line;
    }
    EXPECT_EQ(home.json({"show", "queue", "Q"})[0]["depth"], 3);
}

} // namespace
} // namespace kvr::test
