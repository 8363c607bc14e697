// SPDX-License-Identifier: MIT
// kvr listen over real sockets, fed with bytes spelled out by hand: what reaches the store, what a stop takes in, whom
// it lets in and who goes. Misbehaviour on purpose is what the battery uses.
#include <fmt/ranges.h>

#include "kvr_program.h"
#include "support/raw_line.h"
#include "support/receiver_stream.h"

namespace kvr::test {

constexpr const char* kBind = R"("event":"bind")";
constexpr const char* kMessage = R"("event":"message")";
constexpr const char* kRepeat = R"("event":"repeat")";
constexpr const char* kEnd = R"("event":"end")";
constexpr const char* kLog = "background.err";
/// Shell: standard error is from now on a pipe that is full, and that nobody reads.
constexpr const char* kFillLog = "rm -f full; mkfifo full; exec 2<>full; "
                                 "dd if=/dev/zero of=full oflag=nonblock bs=4096 count=999 2>&1; ";

class KvrListen : public ProgramTest {
  protected:
    /// Starts another one in the place of the last, from a shell that has done this.
    void listen(const std::string& options = "", const std::string& prelude = "") {
        process_.reset(); // it writes no more
        file("port", ""), file("journal", "");
        const std::string fixed = "exec $KVR listen --address 127.0.0.1 --port 0 --port-file port --journal journal ";
        process_.emplace(start(prelude + fixed + options));
        EXPECT_TRUE(has("\n", 1, "port"));
    }
    RawLine line(const RawLineOptions& options = {}) { return RawLine(std::stoi(text("port")), options); }
    /// One that has bound a name of its own and sent these bytes.
    RawLine bound(const std::string& bytes = "", const RawLineOptions& options = {}) {
        RawLine sender = line(options);
        EXPECT_TRUE(sender.send(bind_frame("C" + std::to_string(++senders_)) + bytes));
        return sender;
    }
    /// How often a text stands in a file.
    [[nodiscard]] std::size_t count(const std::string& wanted, const char* name = "journal") const {
        return occurrences(text(name), wanted);
    }
    /// False when it does not stand there so often before the deadline.
    [[nodiscard]] bool has(const std::string& wanted, std::size_t times = 1, const char* name = "journal") const {
        return wait_until([&] { return count(wanted, name) >= times; });
    }

    std::optional<Child> process_;
    int senders_ = 0;
    const TlsMaterial& pem_ = tls_material();
    const std::string tls_ = "--tls --cert " + pem_.server.cert_file + " --key " + pem_.server.key_file;
};

static std::string many(std::size_t times, const std::string& bytes) {
    return fmt::format("{}", fmt::join(std::vector(times, bytes), ""));
}

TEST_F(KvrListen, AMessageGoesToItsQueueOrToTheDeadLettersOrNowhere) {
    listen();
    bound(message_with_files("Q", "", {{"a", "first"}, {"../b\n", "second"}}) +
          many(500, message("NO.SUCH.QUEUE", "stray")));
    ASSERT_TRUE(has(kMessage, 501));
    (void)run("set qmgr DEADQ=");
    const std::string late = message_with_files("LATE", "", {{"c", "x"}});
    bound(late + late.substr(0, late.size() - 1));
    ASSERT_TRUE(has(kEnd, 2)); // what was found out for one that never ended does not hold for the next
    done("define queue LATE");
    const RawLine doomed = bound(message("LATE", "") + late.substr(0, late.size() - 1));
    ASSERT_TRUE(has(kMessage, 502));
    done("delete queue LATE --purge");
    ASSERT_TRUE(doomed.send("x"));
    doomed.finish();
    EXPECT_TRUE(has(R"("event":"dropped")", 2));
    kill(process_->pid(), SIGTERM);
    EXPECT_EQ(process_->result(), 1) << "what was dropped";
    const std::string spool = path() / "EAST" / "spool/";
    EXPECT_EQ(shown("browse Q --full")[0]["attachments"], json::array({spool + "a", spool + "..%2Fb%0A"}));
    EXPECT_EQ(names_in(spool), (std::set<std::string>{".incoming", "a", "..%2Fb%0A"}));
    const json dead = shown("browse DEAD.LETTER.QUEUE --full")[0];
    EXPECT_EQ(dead["destination"], (json{{"queue", "NO.SUCH.QUEUE"}, {"qmgr", "EAST"}}));
    EXPECT_EQ(count("messages for unknown queues: 499 more from 127.0.0.1", kLog), 1U);
}

TEST_F(KvrListen, ARepeatIsLeftOutAndWhatDiffersInAnyByteIsNone) {
    const std::string file = message_with_files("Q", "body", {{"a", "first"}, {"b", "second"}});
    const std::string all =
        message("Q", "x") + file + file_message("Q", {"c", "x"}) + message("NO.SUCH.QUEUE", "stray");
    const auto send = [&](const std::string& bytes, const std::string& channel = "S") {
        const RawLine sender = line();
        EXPECT_TRUE(sender.send(bind_frame(channel) + bytes));
        sender.finish();
        (void)sender.await_end();
    };
    const std::string spool = path() / "EAST" / "spool/";
    listen("--take-once");
    send(all + all);
    EXPECT_TRUE(has(kMessage, 4) && has(kRepeat, 4));
    EXPECT_EQ(names_in(spool), (std::set<std::string>{".incoming", "a", "b", "c"}));
    EXPECT_EQ(process_->result_under(SIGKILL), -SIGKILL);

    listen("--take-once=1000");
    const std::string others[] = {message("DEAD.LETTER.QUEUE", "x"),
                                  message("Q", "y"),
                                  message_with_files("Q", "body", {{"a", "firsT"}, {"b", "second"}}),
                                  message_with_files("Q", "body", {{"a", "firsts"}, {"b", "econd"}}),
                                  message_with_files("Q", "body", {{"a", "first"}, {"B", "second"}}),
                                  file_message("Q", {"c", "y"}),
                                  frame('0', "Q", "00000007", "-0000006", block('1', 0) + "x"),
                                  frame('0', "Q", "00000007", "-0000005", block('1', 8) + "x")};
    send(fmt::format("{}{}{}", all, fmt::join(others, ""), all));
    EXPECT_TRUE(has(kMessage, std::size(others)) && has(kRepeat, 8));
    send(all, "T");
    EXPECT_TRUE(has(kMessage, std::size(others) + 4));
    kill(process_->pid(), SIGTERM);
    EXPECT_EQ(process_->result(), 0);
    EXPECT_EQ(count(kRepeat), 8U);
    EXPECT_EQ(count("dead-lettered, 8 repeats left out", kLog), 1U);
    EXPECT_EQ(names_in(spool).size(), 4U + 3 * 2 + 1 + 3) << "files of what is stored";
}

TEST_F(KvrListen, AStopTakesInWhatHasBeenSentAndALogThatBlocksHoldsNothingUp) {
    for (const bool tls : {false, true}) {
        listen(tls ? tls_ : "", kFillLog);
        const RawLine sender = bound("", {.tls = tls});
        ASSERT_TRUE(has(kBind));
        ASSERT_TRUE(sender.send(many(500, message("Q", std::string(100, 'm')))));
        kill(process_->pid(), SIGTERM);
        EXPECT_TRUE(sender.await_end());
        sender.finish(); // as a channel does then
        EXPECT_EQ(process_->result(), 0);
        EXPECT_EQ(count(kMessage), 500U);
    }
}

TEST_F(KvrListen, WhatOthersHaveBegunKeepsNobodyOut) {
    listen(tls_ + " --discard --handshake-time 3600");
    std::vector<RawLine> begun;
    for (int i = 0; i < 100; ++i) { // more handshakes than may be under way
        ASSERT_TRUE(begun.emplace_back(line()).send("\x16\x03"));
    }
    const RawLine other = bound("", {.tls = true});
    EXPECT_TRUE(has(kBind));
}

TEST_F(KvrListen, FurtherConnectionsWaitForAPlaceOrTakeThatOfAnIdleOne) {
    for (const char* options :
         {"--max-connections 2", "--max-connections 2 --idle-time 0", "--max-per-address 2 --idle-time 0"}) {
        SCOPED_TRACE(options);
        const bool makes_room = std::string(options).ends_with("0");
        listen(std::string("--discard ") + options);
        const RawLine first = bound();
        ASSERT_TRUE(has(kBind, 1));
        const RawLine second = bound();
        ASSERT_TRUE(has(kBind, 2));
        const RawLine third = bound();
        if (makes_room) { // and what it sends until it sees that arrives
            EXPECT_TRUE(first.await_end());
            EXPECT_TRUE(first.send(message("Q", "late")));
        } else {
            EXPECT_TRUE(has("none of them idle", 1, kLog));
            EXPECT_EQ(count(R"("event":"connect")"), 2U);
        }
        first.finish();
        EXPECT_TRUE(has(kBind, 3));
        EXPECT_TRUE(has(kMessage, makes_room ? 1 : 0));
    }
}

/// A message of that size which waits for a file of so many bytes, of which none has come.
static std::string waiting(std::size_t size, std::size_t file = 1) {
    return frame('0', "Q", "00000000", "00000000", block('1', 4) + std::string(size, 'b') + attachment_block({"a"})) +
           digits(file);
}

TEST_F(KvrListen, ShortMemoryIsNotHeldByOneThatFallsSilentOrTakesForEver) {
    listen();
    std::vector<RawLine> lines;
    for (std::size_t i = 1; i <= 13; ++i) { // 24.6 MB that wait for files; the last stops in its body
        lines.push_back(bound(i < 13 ? waiting(2'050'000) : waiting(1'000'000).substr(0, 900'000)));
        ASSERT_TRUE(has(kBind, i));
    }
    for (std::size_t i = 0; i < 12; ++i) {
        ASSERT_TRUE(lines[i].send("f"));
    }
    ASSERT_TRUE(has(kMessage, 12));
    EXPECT_EQ(count(kEnd), 0U);
    lines.clear();
    for (int i = 0; i < 14; ++i) {
        lines.push_back(bound(waiting(2'090'000, 99'999'999)));
    }
    lines.push_back(bound(message("Q", std::string(100'000, 'o'))));
    EXPECT_TRUE(wait_until([&] { // all the others go on
        std::ranges::for_each(lines, [](const RawLine& line) { (void)line.offer(std::string(1'000, 'f')); });
        return count(kMessage) == 13 && count("takes too long while memory is short") > 0;
    }));
}

TEST_F(KvrListen, LinesThatTheJournalLacksAreCounted) {
    listen("--discard", "trap '' XFSZ; ulimit -f 8; ");
    bound(many(100, heartbeat_frame()));
    ASSERT_TRUE(has("the journal cannot be written", 1, kLog));
    kill(process_->pid(), SIGTERM);
    EXPECT_EQ(process_->result(), 1);
    const std::size_t lacking = 103 - count("\n"); // connect, bind and end stand there as well
    EXPECT_EQ(count("the journal lacks " + std::to_string(lacking) + " lines", kLog), 1U);
}

TEST_F(KvrListen, RefusalsNameTheirCause) {
    const std::string required = tls_ + " --ca " + pem_.ca_file + " --client-cert required";
    const std::tuple<std::string, RawLineOptions, const char*> cases[] = {
        {required, {.tls = true}, "peer did not return a certificate"},
        {required, {.tls = true, .identity = &pem_.foreign_server}, "unable to get local issuer"},
        {required, {}, "the sender speaks plain TCP"},
        {"", {.tls = true}, "a TLS hello"},
        {"--handshake-time 1", {}, "no bind frame within 1 seconds"}};
    for (const auto& [options, sender, reason] : cases) {
        listen("--discard " + options);
        const RawLine refused = line(sender);
        (void)refused.send(bind_frame("C").substr(0, 75)); // over TLS it learns of the refusal after its handshake
        EXPECT_TRUE(has(kEnd)) << reason;
        EXPECT_EQ(count(reason), 1U) << reason;
    }
}

} // namespace kvr::test
