// SPDX-License-Identifier: MIT
// What is refused, with its exit code and a text that says what to do; and output that cannot be written.
#include "kvr_program.h"
#include "store/store.h"
#include "support/tls_material.h"

namespace kvr::test {

using KvrUsage = ProgramTest;

TEST_F(KvrUsage, RefusalsChangeNothingAndSayWhatToDo) {
    done("define channel C XMITQ=Q CONNAME=h");
    done("define channel TLS XMITQ=Q CONNAME=h SSLCAUTH=ENABLE");
    done("define queue BINARY");
    done("put BINARY --size 4097 --dest D");
    file("empty", "");
    file("large", std::string(2098377, 'x'));
    std::filesystem::create_directory(path() / "NOQM");
    const auto store = Store::open(path() / "EAST");
    store->object_add("CHL", "RECEIVER", {{"CHLTYPE", "RCVR"}, {"XMITQ", "Q"}});
    const TlsMaterial& tls = tls_material();
    const std::string listen = "listen --discard --address 127.0.0.1 --port 0 --tls --cert ";
    // The code is 2: it cannot be right, whatever the state of the system; 6: not before something is changed. What it
    // says is a regular expression within standard error.
    const std::tuple<int, std::string, const char*> cases[] = {
        {2, "create 'BAD\nNAME'", "BAD\\\\nNAME.*letters, digits"},
        {2, "create SMALL --quota 1K", "4M to 4096G"},
        {2, "set qmgr KEYPASS=secret", "--keypass-file"},
        {2, "put Q x --format NINECHARS", "--format.*at most 8"},
        {2, "listen --discard --tls --cert a --ca a", "--ca alone checks nobody"},
        {2, "replay Q --yes", "give --since TIME, --last N or --suspected"},
        {2, "replay Q --suspected --last 1 --yes", "one option of three"},
        {2, "replay Q --suspected", "nobody can be asked.*--dry-run.*--yes"},
        {2, "replay Q --yes --since 2026-02-30", "--since '2026-02-30' is no time.*2h or 3d"},
        {2, "replay Q --yes --since 10", "is no time"},
        {2, "replay Q --yes --since 9998-12-31T23:59:59.999Z", "in the future.*UTC"},
        {1, "replay NONE --suspected --yes", "neither a channel nor a queue 'NONE'"},
        {2, "browse Q --held --kept", "--held excludes --kept"},
        {1, "delete qmgr NOQM --yes", "NOQM is no queue manager.*by hand"},
        {2, "delete qmgr EAST --purge", "--yes"},
        {1, "delete qmgr EAST --yes", "--purge"},
        {1, "define channel c XMITQ=Q CONNAME=h", "channel 'C' exists already.*--replace"},
        {1, "set channel C XMITQ=DEAD.LETTER.QUEUE", "round for ever"},
        {1, "define channel D XMITQ=Q CONNAME=h REPEAT=LOSS KEEPINT=9", "LOSSINT 1200"},
        {1, "set qmgr CERTFILE=/no/such.pem", "/no/such.pem.*CERTFILE.*PEM"},
        {1, "put Q --data-file large --dest D", "at most 2,098,304 bytes after its transmission header"},
        {1, "put Q x --attach empty", "0 bytes.*1 to 99,999,999"},
        {1, "get BINARY", "no text: take it with --raw"},
        {1, "delete queue Q --purge", "channel 'C': set another one"},
        {6, "run NONE", "kvr define channel NONE"},
        {6, "run TLS", "kvr set qmgr CAFILE=FILE"},
        {6, "run RECEIVER", "has type 'RCVR'"},
        {6, "run C --plugin " NO_PLUGIN, "OnPlugLoad"},
        {6, listen + tls.encrypted_client.cert_file + " --key " + tls.encrypted_client.key_file,
         "encrypted: give .* with --key-pass-file"},
        {6, listen + tls.server.cert_file + " --key " + tls.client.key_file, "cannot use the key"},
    };
    for (const auto& [code, line, says] : cases) {
        const ProgramResult result = run(line);
        EXPECT_EQ(result.code, code) << line << result.err;
        EXPECT_EQ(result.out, "") << line;
        EXPECT_THAT(result.err, AllOf(ContainsRegex(says), ::testing::MatchesRegex("(kvr: [^\n]+\n)+"))) << line;
    }
    EXPECT_EQ(store->queue_info("Q").depth, 0U);
    EXPECT_EQ(store->queue_info("BINARY").depth, 1U);
    EXPECT_TRUE(store->object_names("CHS").empty());
    done("create WEST");
    EXPECT_THAT(run("show").err, HasSubstr("EAST, WEST"));
}

TEST_F(KvrUsage, OutputThatCannotBeWrittenIsAFailureAndLosesNothing) {
    done("put Q --count 3000 x"); // more output than a pipe holds
    for (const char* line : {"show > /dev/full", "browse Q --json > /dev/full", "get Q --raw > /dev/full",
                             "get Q --all > /dev/full", "get Q >&-", "--help > /dev/full"}) {
        const ProgramResult result = run(line);
        EXPECT_EQ(result.code, 1) << line;
        EXPECT_THAT(result.err, HasSubstr("the output cannot be written")) << line;
    }
    EXPECT_EQ(shown("show queue Q")[0]["depth"], 3000);
    EXPECT_THAT(run("put Q x > /dev/full").err, HasSubstr("done all the same: put 1 message"));
    const auto first_line_of = [this](const std::string& command) {
        EXPECT_EQ(start("{ $KVR " + command + "; echo $? >&2; } | head -n 1").result(), 0);
        return text("background.err");
    };
    EXPECT_EQ(first_line_of("browse Q --all"), "0\n");
    EXPECT_THAT(first_line_of("get Q --all"), ::testing::MatchesRegex("kvr: .*stays on its queue\n1\n"));
}

} // namespace kvr::test
