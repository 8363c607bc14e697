// SPDX-License-Identifier: MIT
// kvr listen over real sockets, fed with bytes spelled out by hand: what reaches the store, what a stop takes in, whom
// it lets in and who goes. Misbehaviour on purpose is what the battery uses.
#include <sys/resource.h>

#include "kvr_program.h"
#include "support/raw_line.h"
#include "support/receiver_stream.h"

namespace kvr::test {
namespace {

class KvrListen : public ProgramTest {
  protected:
    KvrListen() {
        done("create WEST");
        done("define queue Q1");
    }
    /// Starts another one in the place of the last.
    void listen(
        const std::string& options = "", const std::function<void()>& prepare = [] {}) {
        file("port", ""), file("journal", "");
        process_.emplace(in_background(
            "listen --address 127.0.0.1 --port 0 --port-file port --journal journal " + options, prepare));
        EXPECT_TRUE(has("port", "\n"));
    }
    RawLine line(const RawLineOptions& options = {}) { return RawLine(std::stoi(text("port")), options); }
    /// One that has bound a name of its own and sent these bytes.
    RawLine bound(const std::string& bytes = "", const RawLineOptions& options = {}) {
        RawLine sender = line(options);
        EXPECT_TRUE(sender.send(bind_frame("C" + std::to_string(++senders_)) + bytes));
        return sender;
    }
    int stop() {
        kill(process_->pid(), SIGTERM);
        return process_->result();
    }
    /// How often a text stands in a file.
    [[nodiscard]] std::size_t count(const char* name, const std::string& wanted) const {
        std::size_t found = 0;
        const std::string all = text(name);
        for (std::size_t at = 0; (at = all.find(wanted, at)) != std::string::npos; ++at, ++found) {
        }
        return found;
    }
    /// False when it does not stand there so often before the deadline.
    [[nodiscard]] bool has(const char* name, const std::string& wanted, std::size_t times = 1) const {
        return wait_until([&] { return count(name, wanted) >= times; });
    }
    /// As count and has, of an event in the journal.
    [[nodiscard]] std::size_t noted(const std::string& event) const { return count("journal", event_text(event)); }
    [[nodiscard]] bool notes(const std::string& event, std::size_t times = 1) const {
        return has("journal", event_text(event), times);
    }
    static std::string event_text(const std::string& event) { return "\"event\":\"" + event + '"'; }

    std::optional<Child> process_;
    int senders_ = 0;
    const TlsMaterial& material_ = tls_material();
    const std::string tls_ = "--tls --cert " + material_.server.cert_file + " --key " + material_.server.key_file;
};

std::string many(int times, const std::string& bytes) {
    std::string all;
    while (times-- > 0) {
        all += bytes;
    }
    return all;
}

/// Standard error is from now on a pipe that nobody reads and that is full.
void fill_standard_error() {
    std::array<int, 2> full{};
    if (::pipe2(full.data(), O_NONBLOCK) != 0) {
        std::abort();
    }
    while (::write(full[1], "x", 1) == 1) {
    }
    (void)::fcntl(full[1], F_SETFL, 0);
    (void)::dup2(full[1], STDERR_FILENO);
}

TEST_F(KvrListen, AMessageGoesToItsQueueOrToTheDeadLettersOrNowhere) {
    listen();
    bound(message_with_files("Q1", "", {{"a", "first"}, {"../b\n", "second"}}) +
          many(5000, message("NO.SUCH.QUEUE", "stray")));
    ASSERT_TRUE(notes("message", 5001));
    (void)run("set qmgr DEADQ=");
    const std::string late = message_with_files("LATE", "", {{"c", "x"}});
    bound(late + late.substr(0, late.size() - 1));
    ASSERT_TRUE(notes("end", 2)); // what was found out for one that never ended does not hold for the next
    done("define queue LATE");
    bound(message("LATE", "at home"));
    ASSERT_TRUE(notes("message", 5002));
    EXPECT_EQ(stop(), 1) << "one was dropped";
    EXPECT_EQ(noted("dropped"), 1U);
    const std::string spool = path() / "WEST" / "spool/";
    EXPECT_EQ(shown("browse Q1 --full")[0]["attachments"], json::array({spool + "a", spool + "..%2Fb%0A"}));
    EXPECT_EQ(names_in(spool), (std::set<std::string>{".incoming", "a", "..%2Fb%0A"}));
    const json dead = shown("browse DEAD.LETTER.QUEUE --full")[0];
    EXPECT_EQ(dead["destination"], (json{{"queue", "NO.SUCH.QUEUE"}, {"qmgr", "WEST"}}));
    EXPECT_EQ(dead["data"], "stray");
    EXPECT_EQ(shown("browse LATE --full")[0]["data"], "at home");
    EXPECT_EQ(count("background.err", "messages for unknown queues: 4999 more from 127.0.0.1"), 1U);
    EXPECT_LT(count("background.err", "\n"), 20U) << text("background.err");
}

TEST_F(KvrListen, AStopTakesInWhatHasBeenSentAndALogThatBlocksHoldsNothingUp) {
    for (const bool tls : {false, true}) {
        listen(tls ? tls_ : "", fill_standard_error);
        const RawLine sender = bound("", {.tls = tls});
        ASSERT_TRUE(notes("bind"));
        ASSERT_TRUE(sender.send(many(500, message("Q1", std::string(100, 'm')))));
        kill(process_->pid(), SIGTERM);
        EXPECT_TRUE(sender.await_end());
        sender.finish(); // as a channel does then
        EXPECT_EQ(process_->result(), 0);
        EXPECT_EQ(noted("message"), 500U);
    }
}

TEST_F(KvrListen, WhatOthersHaveBegunKeepsNobodyOut) {
    listen(tls_ + " --discard");
    std::vector<RawLine> begun;
    for (int i = 0; i < 300; ++i) { // more handshakes than may be under way
        ASSERT_TRUE(begun.emplace_back(line()).send("\x16\x03"));
    }
    const RawLine other = bound("", {.tls = true, .address = "127.0.0.2"});
    EXPECT_TRUE(notes("bind"));
}

TEST_F(KvrListen, FurtherConnectionsWaitForAPlaceOrTakeThatOfAnIdleOne) {
    for (const char* options :
         {"--max-connections 2", "--max-connections 2 --idle-time 0", "--max-per-address 2 --idle-time 0"}) {
        SCOPED_TRACE(options);
        const bool makes_room = std::string(options).ends_with("0");
        listen(std::string("--discard ") + options);
        const RawLine first = bound();
        ASSERT_TRUE(notes("bind", 1));
        const RawLine second = bound();
        ASSERT_TRUE(notes("bind", 2));
        const RawLine third = bound();
        if (makes_room) { // and what it sends until it sees that arrives
            EXPECT_TRUE(first.await_end());
            EXPECT_TRUE(first.send(message("Q", "late")));
        } else {
            EXPECT_TRUE(has("background.err", "none of them idle"));
            EXPECT_EQ(noted("connect"), 2U);
        }
        first.finish();
        EXPECT_TRUE(notes("bind", 3));
        EXPECT_TRUE(notes("message", makes_room ? 1 : 0));
    }
}

/// A message of that size which waits for a file of so many bytes, of which none has come.
std::string waiting(std::size_t size, std::size_t file = 1) {
    return frame('0', "Q1", "00000000", "00000000", block('1', 4) + std::string(size, 'b') + attachment_block({"a"})) +
           digits(file);
}

TEST_F(KvrListen, ShortMemoryIsNotHeldByOneThatFallsSilentOrTakesForEver) {
    listen();
    std::vector<RawLine> lines;
    for (std::size_t i = 1; i <= 13; ++i) { // 24.6 MB that wait for files; the last stops in its body
        lines.push_back(bound(i < 13 ? waiting(2'050'000) : waiting(1'000'000).substr(0, 900'000)));
        ASSERT_TRUE(notes("bind", i));
    }
    for (std::size_t i = 0; i < 12; ++i) {
        ASSERT_TRUE(lines[i].send("f"));
    }
    ASSERT_TRUE(notes("message", 12));
    EXPECT_EQ(noted("end"), 0U);
    for (int i = 0; i < 13; ++i) {
        lines.push_back(bound(waiting(2'050'000)));
    }
    lines.push_back(bound(message("Q1", std::string(2'000'000, 'g'))));
    EXPECT_TRUE(has("journal", "does not grow while memory is short"));
    EXPECT_TRUE(notes("message", 13));
    EXPECT_LT(noted("end"), 13U);
    EXPECT_EQ(count("journal", "takes too long"), 0U);
    lines.clear();
    for (int i = 0; i < 14; ++i) {
        lines.push_back(bound(waiting(2'090'000, 99'999'999)));
    }
    lines.push_back(bound(message("Q1", std::string(100'000, 'o'))));
    EXPECT_TRUE(wait_until([&] { // all the others go on
        std::ranges::for_each(lines, [](const RawLine& line) { (void)line.offer(std::string(1'000, 'f')); });
        return noted("message") == 14 && count("journal", "takes too long while memory is short") > 0;
    }));
}

TEST_F(KvrListen, LinesThatTheJournalLacksAreCounted) {
    listen("--discard", [] {
        (void)::signal(SIGXFSZ, SIG_IGN);
        const rlimit small{4096, 4096};
        (void)::setrlimit(RLIMIT_FSIZE, &small);
    });
    bound(many(100, heartbeat_frame()));
    ASSERT_TRUE(has("background.err", "the journal cannot be written"));
    EXPECT_EQ(stop(), 1);
    const std::size_t lacking = 103 - count("journal", "\n"); // connect, bind and end stand there as well
    EXPECT_EQ(count("background.err", "the journal lacks " + std::to_string(lacking) + " lines"), 1U);
}

TEST_F(KvrListen, RefusalsNameTheirCause) {
    const std::string required = tls_ + " --ca " + material_.ca_file + " --client-cert required";
    const std::string bind = bind_frame("C");
    const std::tuple<std::string, RawLineOptions, std::string, const char*> cases[] = {
        {required, {.tls = true}, bind, "peer did not return a certificate"},
        {required, {.tls = true, .identity = &material_.foreign_server}, bind, "unable to get local issuer"},
        {required, {}, bind, "the sender speaks plain TCP"},
        {"", {.tls = true}, bind, "a TLS hello"},
        {"--handshake-time 1", {}, "", "no bind frame within 1 seconds"}};
    for (const auto& [options, sender, bytes, reason] : cases) {
        listen("--discard " + options);
        const RawLine refused = line(sender);
        (void)refused.send(bytes); // over TLS it learns of the refusal after its handshake
        EXPECT_TRUE(notes("end")) << reason;
        EXPECT_EQ(noted("bind"), 0U) << reason;
        EXPECT_EQ(count("journal", reason), 1U) << reason;
    }
}

} // namespace
} // namespace kvr::test
