// SPDX-License-Identifier: MIT
// Help, wrong usage and bad input: exit codes, and texts that say what to do.
#include "kvr_program.h"
#include "support/tls_material.h"

namespace kvr::test {
namespace {

using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

struct BadInput {
    Words arguments;
    const char* error; ///< regular expression within standard error
};

/// Wrong usage and failures leave standard output empty and give one line that begins with the program's name.
void expect_refused(const ProgramHome& home, int code, const BadInput& bad) {
    std::string command;
    for (const std::string& argument : bad.arguments) {
        command += argument.substr(0, 60) + " ";
    }
    const ProgramResult result = home.run(bad.arguments);
    EXPECT_EQ(result.code, code) << command << result.err;
    EXPECT_EQ(result.out, "") << command;
    EXPECT_THAT(result.err, ContainsRegex(bad.error)) << command;
    EXPECT_THAT(result.err, MatchesRegex("kvr: [^\n]+: [^\n]+\n")) << command;
}

TEST(KvrUsage, EveryCommandHasHelpWithExamples) {
    const ProgramHome home;
    std::istringstream commands(";create;define;define queue;define channel;set;set qmgr;set channel;show;show qmgr;"
                                "show queue;show channel;delete;delete queue;delete channel;delete qmgr;put;get;browse;"
                                "release;move;run;stop;status;listen;dissect;completion");
    for (std::string command; std::getline(commands, command, ';');) {
        std::istringstream words(command);
        const Words arguments{std::istream_iterator<std::string>(words), {}};
        EXPECT_THAT(home.done(arguments + Words{"--help"}), HasSubstr("xamples:\n  kvr ")) << command;
    }
    EXPECT_THAT(home.done({"--version"}), MatchesRegex("kvr [0-9.]+\n"));
}

TEST(KvrUsage, WrongCommandLinesAreRefusedWithCodeTwo) {
    const ProgramHome home;
    home.done({"create", "EAST"});
    home.done({"define", "queue", "Q"});
    const std::string file = home.file("a", "x");
    const Words tls{"listen", "--discard", "--tls", "--cert", file};
    const std::vector<BadInput> cases = {
        {{}, "see 'kvr --help'"},
        {{"frobnicate"}, "no command 'frobnicate'.*see 'kvr --help'"},
        {{"--foo"}, "no option '--foo'.*see 'kvr --help'"},
        {{"define"}, "has to follow: queue, channel"},
        {{"show", "foo"}, "no command 'foo'"},
        {{"create", "A", "B"}, "no place for 'B'"},
        {{"put", "Q", "x", "--wrong"}, "--wrong.*see 'kvr put --help'"},
        {{"create", "../EVIL"}, "letters, digits"},
        {{"create", "BAD\nNAME"}, "BAD\\\\nNAME"},
        {{"create", "SMALL", "--quota", "1K"}, "4M to 4096G"},
        {{"define", "channel", "C"}, "has no XMITQ"},
        {{"define", "channel", "C", "XMITQ=Q", "CONNAME=h(70000)"}, "port"},
        {{"define", "channel", "C", "XMITQ=Q", "CONNAME=h:5301"}, "write h\\(5301\\)"},
        {{"define", "channel", "C", "XMITQ=Q", "CONNAME=h,5301"}, "write h\\(5301\\)"},
        {{"define", "channel", "C", "XMITQ=Q", "CONNAME=999.1.1.1"}, "no IPv4 address.*10.0.0.2\\(5151\\)"},
        {{"define", "channel", "C", "XMITQ=Q", "CONNAME=h(x)"}, "write it such as 10.0.0.2\\(5151\\)"},
        {{"define", "channel", "C", "XMITQ=Q", "CONNAME=::1(5301)"}, "IPv4.*10.0.0.2\\(5151\\)"},
        {{"define", "channel", "C", "XMITQ=Q", "CONNAME=[::1](5301)"}, "IPv4"},
        {{"define", "channel", "C", "XMITQ=Q", "CONNAME=h", "COLOUR=red"}, "no attribute 'COLOUR'.*XMITQ"},
        {{"define", "channel", "C", "XMITQ=Q", "--xmitq", "Q", "CONNAME=h"}, "given twice"},
        {{"define", "channel", "C", "XMITQ"}, "ATTR=VALUE"},
        {{"define", "channel", std::string(64, 'C'), "XMITQ=Q", "CONNAME=h"}, "at most 63"},
        {{"set", "qmgr"}, "nothing to set"},
        {{"set", "qmgr", "KEYPASS=secret"}, "--keypass-file"},
        {{"put", "Q", "x", "--data", "y"}, "more than one place"},
        {{"put", "Q", "x", "--dest", "a b"}, "destination queue"},
        {{"put", "Q", "x", "--dest", ""}, "destination queue name is empty"},
        {{"-m", "EAST", "create", "WEST"}, "leave out -m"},
        {{"get", "Q", "--wait", "long"}, "'long' is not within 0 to 31536000 seconds"},
        {{"put", "Q", "x", "--priority", "high"}, "--priority.*32 bits"},
        {{"put", "Q", "x", "--format", "NINECHARS"}, "--format.*at most 8"},
        {{"put", "Q", "x", "--put-date", "2026-1-1"}, "exactly 8 digits"},
        {{"put", "Q", "x", "--msgid", "0x123"}, "hexadecimal"},
        {{"put", "Q", "x", "--flags", "4"}, "--attach"},
        {{"put", "Q", "--size", "9-1"}, "downwards"},
        {{"put", "Q", "--size", "9-"}, "--size 9-: "},
        {{"put", "Q", "--size", "9", "--seed", "-1"}, "--seed.*0 to 18446744073709551615"},
        {{"put", "Q", "--size", "1", "--seqno", "4"}, "--seqno"},
        {{"put", "Q", "--size", "1", "--attach", file}, "--file-size"},
        {{"put", "Q", "--file-size", "1"}, "--file-dir"},
        {{"put", "Q", "--file-size", "0-9", "--file-dir", "/"}, "1 to 99,999,999"},
        {{"get", "Q", "--all", "--out", file}, "folder"},
        {{"get", "Q", "--raw", "--json"}, "--raw"},
        {{"move", "Q", "Q"}, "same"},
        {{"delete", "qmgr", "EAST"}, "--yes"},
        {{"status", "--interval", "2"}, "--watch"},
        {{"listen", "--discard", "--client-cert", "required"}, "--client-cert without TLS"},
        {{"listen", "--discard", "--tls-min", "1.3"}, "--tls-min without TLS"},
        {{"listen", "--discard", "--close-notify"}, "--close-notify without TLS"},
        {{"listen", "--discard", "--spool", file}, "--discard stores no file"},
        {tls + Words{"--client-cert", "optional"}, "needs a CA file"},
        {tls + Words{"--ca", file}, "--ca alone checks nobody"},
        {tls + Words{"--tls-min", "1.3", "--tls-max", "1.2"}, "no TLS version"},
        {tls + Words{"--tls-max", "1.1"}, "--tls-max.*1.1"},
    };
    for (const BadInput& bad : cases) {
        expect_refused(home, 2, bad);
    }
}

TEST(KvrUsage, WhatTheSystemCannotDoFailsWithCodeOne) {
    const ProgramHome home;
    const ProgramResult none = home.run({"show"});
    EXPECT_EQ(none.code, 1);
    EXPECT_THAT(none.err, HasSubstr("kvr create QMGR"));
    home.done({"create", "EAST"});
    home.done({"define", "queue", "Q"});
    home.done({"define", "channel", "C", "XMITQ=Q", "CONNAME=h"});
    home.done({"put", "Q", "x", "--dest", "D"});
    home.done({"define", "queue", "BINARY"});
    home.done({"put", "BINARY", "--size", "4097", "--dest", "D"});
    const std::string large = home.file("large", std::string(2098377, 'x'));
    const std::string empty = home.file("empty", "");
    const std::string present = home.file("present", "x");
    std::filesystem::create_directory(home.path() / "NOQM");
    const std::string long_path = "/" + std::string(512, 'p');
    const TlsMaterial& tls = tls_material();
    const Words listen{"listen", "--discard", "--port", "0", "--address"};
    const Words listen_tls = listen + Words{"127.0.0.1", "--tls", "--cert"};
    const std::vector<BadInput> cases = {
        {{"create", "EAST"}, "exists already"},
        {{"--home", "/no/such/home", "create", "EAST"}, "there is no folder /no/such: make that"},
        {{"show", "-m", "WEST"}, "WEST.*kvr create WEST"},
        {{"create", "NOQM"}, "NOQM exists already.*by hand"},
        {{"delete", "qmgr", "NOQM", "--yes"}, "NOQM is no queue manager.*by hand"},
        {{"define", "queue", "Q"}, "--replace"},
        {{"define", "channel", "c", "XMITQ=Q", "CONNAME=h"}, "channel 'C' exists already.*--replace"},
        {{"set", "channel", "NONE", "HBINT=1"}, "kvr define channel NONE"},
        {{"set", "channel", "C", "XMITQ=NONE"}, "kvr define queue NONE"},
        {{"set", "qmgr", "CERTFILE=/no/such.pem"}, "/no/such.pem.*CERTFILE.*PEM"},
        {{"set", "qmgr", "--keypass-file", "/no/such"}, "/no/such"},
        {{"put", "NONE", "x"}, "kvr define queue NONE"},
        {{"put", "Q", "--data-file", "/no/such"}, "/no/such"},
        {{"put", "Q", "--data-file", large, "--dest", "D"}, "at most 2,098,304 bytes after its transmission header"},
        {{"put", "Q", "--size", "2098305", "--dest", "D"}, "2098305.*at most 2,098,304"},
        {{"put", "Q", "--file-size", "1", "--file-dir", "/no/such"}, "no folder /no/such"},
        {{"put", "Q", "x", "--attach", empty}, "0 bytes.*1 to 99,999,999"},
        {{"put", "Q", "x", "--attach", home.path().native()}, "regular file"},
        {{"put", "Q", "x", "--attach", long_path}, "pppp"},
        {{"get", "NONE"}, "kvr define queue NONE"},
        {{"get", "Q", "--out", present}, "nothing is overwritten"},
        {{"get", "BINARY"}, "no text: take it with --raw"},
        {{"move", "Q", "NONE"}, "kvr define queue NONE"},
        {{"delete", "queue", "Q", "--purge"}, "channel 'C': set another one .* XMITQ=QUEUE"},
        {{"delete", "queue", "BINARY"}, "--purge"},
        {{"set", "qmgr", "DEADQ=NONE"}, "kvr define queue NONE"},
        {{"set", "qmgr", "DEADQ=Q"}, "round for ever"},
        {{"set", "channel", "C", "XMITQ=DEAD.LETTER.QUEUE"}, "round for ever"},
        {{"define", "channel", "D", "XMITQ=DEAD.LETTER.QUEUE", "CONNAME=h"}, "round for ever"},
        {{"delete", "queue", "DEAD.LETTER.QUEUE"}, "DEADQ"},
        {{"delete", "qmgr", "EAST", "--yes"}, "--purge"},
        {{"run", "NONE"}, "kvr define channel NONE"},
        {{"run", "C", "--plugin", "/no/such.so"}, "/no/such.so"},
        {{"status", "NONE"}, "kvr define channel NONE"},
        {listen + Words{"nobody.invalid"}, "not an address"},
        {listen + Words{"192.0.2.1"}, "cannot listen"},
        {listen_tls + Words{"/nonexistent"}, "cannot use the certificate /nonexistent: No such file or directory"},
        {listen_tls + Words{tls.encrypted_client.cert_file, "--key", tls.encrypted_client.key_file},
         "encrypted: give the file of its pass phrase with --key-pass-file"},
        {listen_tls + Words{tls.server.cert_file, "--key", tls.client.key_file}, "cannot use the key"},
    };
    for (const BadInput& bad : cases) {
        expect_refused(home, 1, bad);
    }
    for (const char* queue : {"Q", "BINARY"}) {
        EXPECT_EQ(home.json({"show", "queue", queue})[0]["depth"], 1) << "a refused command took or added a message";
    }
    EXPECT_THAT(home.done({"browse", "BINARY", "--full"}), ContainsRegex("4097 bytes in all"));
    home.done({"create", "WEST"});
    expect_refused(home, 2, {{"show"}, "EAST, WEST.*-m"});
}

TEST(KvrUsage, OutputThatCannotBeWrittenIsAFailureAndLosesNothing) {
    const ProgramHome home;
    home.done({"create", "EAST"});
    home.done({"define", "queue", "Q"});
    home.done({"put", "Q", "--count", "3", "x"});
    for (const char* line :
         {"exec $KVR show > /dev/full", "exec $KVR browse Q --json > /dev/full", "exec $KVR get Q --raw > /dev/full",
          "exec $KVR get Q --all > /dev/full", "exec $KVR get Q >&-", "exec $KVR --help > /dev/full"}) {
        const ProgramResult result = home.shell(line);
        EXPECT_EQ(result.code, 1) << line;
        EXPECT_THAT(result.err, HasSubstr("the output cannot be written")) << line;
    }
    EXPECT_EQ(home.json({"show", "queue", "Q"})[0]["depth"], 3);
    const ProgramResult untold = home.shell("exec $KVR put Q x > /dev/full");
    EXPECT_EQ(untold.code, 1);
    EXPECT_THAT(untold.err, HasSubstr("done all the same: put 1 message"));
    EXPECT_EQ(home.json({"show", "queue", "Q"})[0]["depth"], 4);
    home.done({"put", "Q", "--count", "3000", "x"}); // more output than a pipe holds
    const auto first_line_of = [&home](const std::string& command) {
        return home.shell("{ $KVR " + command + "; echo $? >&2; } | head -n 1").err;
    };
    EXPECT_EQ(first_line_of("browse Q --all"), "0\n");
    EXPECT_THAT(first_line_of("get Q --all"), MatchesRegex("kvr: .*stays on its queue\n1\n"));
}

} // namespace
} // namespace kvr::test
