// SPDX-License-Identifier: MIT
// kvr listen over real sockets, fed with bytes spelled out by hand: what reaches the store, what a stop takes in and
// whom it lets in. Misbehaviour on purpose is what the battery uses.
#include <atomic>
#include <thread>

#include <fcntl.h>
#include <sys/resource.h>

#include "kvr_program.h"
#include "support/raw_line.h"
#include "support/receiver_stream.h"

namespace kvr::test {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

class Listener {
  public:
    Listener(
        const ProgramHome& home, const std::string& options, const std::function<void()>& prepare = [] {})
        : home_(home), process_(start(home, options, prepare)) {
        EXPECT_TRUE(wait_until([this] { return contents(home_.path() / "port").ends_with('\n'); }));
    }
    [[nodiscard]] int port() const { return std::stoi(contents(home_.path() / "port")); }
    [[nodiscard]] std::string journal() const { return contents(home_.path() / "journal"); }
    /// How often an event stands in the journal.
    [[nodiscard]] std::size_t count(const std::string& event) const {
        const std::string text = journal();
        std::size_t found = 0;
        for (std::size_t at = 0; (at = text.find("\"event\":\"" + event + "\"", at)) != std::string::npos; ++at) {
            ++found;
        }
        return found;
    }
    /// False when there are not so many of them before the deadline.
    [[nodiscard]] bool has(const std::string& event, std::size_t wanted = 1) const {
        return wait_until([&] { return count(event) >= wanted; });
    }
    [[nodiscard]] std::string log() const { return contents(home_.path() / "background.err"); }
    [[nodiscard]] bool says(const std::string& text) const {
        return wait_until([&] { return log().find(text) != std::string::npos; });
    }
    void send_signal(int signal) const { kill(process_.pid(), signal); }
    int stop() {
        send_signal(SIGTERM);
        return process_.result();
    }

  private:
    static Child start(const ProgramHome& home, const std::string& options, const std::function<void()>& prepare) {
        std::filesystem::remove(home.path() / "port");
        std::filesystem::remove(home.path() / "journal");
        return home.in_background("listen --address 127.0.0.1 --port 0 --port-file port --journal journal " + options,
                                  prepare);
    }
    const ProgramHome& home_;
    Child process_;
};

/// A sender that has bound a name of its own and sent these bytes.
RawLine bound(const Listener& listener, const std::string& bytes = "", const RawLineOptions& options = {}) {
    static int number = 0;
    RawLine sender(listener.port(), options);
    EXPECT_TRUE(sender.send(bind_frame("C" + std::to_string(++number)) + bytes));
    return sender;
}

std::string repeated(const std::string& bytes, int times) {
    std::string all;
    for (int i = 0; i < times; ++i) {
        all += bytes;
    }
    return all;
}

class KvrListen : public ::testing::Test {
  protected:
    KvrListen() {
        home_.done("create WEST");
        for (const char* queue : {"Q1", "Q2", "Q3"}) {
            home_.done(std::string("define queue ") + queue);
        }
    }
    [[nodiscard]] json on_queue(const std::string& queue) const {
        return home_.json("browse " + queue + " --full --all");
    }

    ProgramHome home_;
    const TlsMaterial& material_ = tls_material();
    const std::string tls_ = "--tls --cert " + material_.server.cert_file + " --key " + material_.server.key_file;
};

TEST_F(KvrListen, EveryKindOfMessageReachesItsQueue) {
    Listener listener(home_, "");
    bound(listener, message("Q1", "body") + heartbeat_frame() + message("Q1", "") +
                        message_with_files("Q2", "two files", {{"a.txt", "first"}, {"../b\n", "second"}}) +
                        message_with_files("Q2", "flagged, without files", {}) +
                        file_message("Q3", {"x.dat", "contents"}, 19) + message("NO.SUCH.QUEUE", "stray"));
    ASSERT_TRUE(listener.has("message", 6));
    // What was found out for a message that never ended does not hold for the next one.
    const std::string later = message_with_files("LATER", "", {{"a", "x"}});
    bound(listener, later.substr(0, later.size() - 1));
    ASSERT_TRUE(listener.has("end", 2));
    home_.done("define queue LATER");
    bound(listener, later);
    EXPECT_TRUE(listener.has("message", 7));
    EXPECT_EQ(listener.stop(), 0);
    EXPECT_EQ(on_queue("LATER").size(), 1U);
    const json q1 = on_queue("Q1");
    ASSERT_EQ(q1.size(), 2U);
    EXPECT_EQ(q1[0]["data"], "body");
    EXPECT_EQ(q1[0]["code"], -5);
    const std::string spool = home_.path() / "WEST" / "spool/";
    const json q2 = on_queue("Q2");
    EXPECT_EQ(q2[0]["data"], "two files");
    EXPECT_EQ(q2[0]["attachments"], json::array({spool + "a.txt", spool + "..%2Fb%0A"}));
    EXPECT_EQ(contents(spool + "a.txt") + contents(spool + "..%2Fb%0A"), "firstsecond");
    EXPECT_EQ(q2[1]["data"], "flagged, without files");
    EXPECT_EQ(contents(on_queue("Q3")[0]["data"].get<std::string>()), "contents");
    const json dead = on_queue("DEAD.LETTER.QUEUE")[0];
    EXPECT_EQ(dead["destination"], (json{{"queue", "NO.SUCH.QUEUE"}, {"qmgr", "WEST"}}));
    EXPECT_EQ(dead["data"], "stray");
}

TEST_F(KvrListen, OnlyAMessageWithoutAHomeIsDropped) {
    (void)home_.run("set qmgr DEADQ=");
    Listener listener(home_, "");
    bound(listener, message("Q1", "before") + message_with_files("NOWHERE", "", {{"a", "x"}}) + message("Q1", "after"));
    ASSERT_TRUE(listener.has("message", 2));
    ASSERT_TRUE(listener.has("dropped"));
    home_.done("define queue NOWHERE");
    bound(listener, message("NOWHERE", "at home"));
    ASSERT_TRUE(listener.has("message", 3));
    EXPECT_EQ(listener.stop(), 1);
    EXPECT_EQ(on_queue("Q1").size(), 2U);
    EXPECT_EQ(names_in(home_.path() / "WEST" / "spool"), std::set<std::string>{".incoming"});
}

TEST_F(KvrListen, AStopTakesInWhatHasBeenSent) {
    for (const bool tls : {false, true}) {
        Listener listener(home_, tls ? tls_ : "");
        RawLine sender = bound(listener, "", {.tls = tls});
        ASSERT_TRUE(listener.has("bind"));
        ASSERT_TRUE(sender.send(repeated(message("Q1", std::string(100, 'm')), 500)));
        std::thread ending([&sender] { // ends its half when it sees ours ended, as a channel does
            EXPECT_TRUE(sender.await_end());
            sender.finish();
        });
        EXPECT_EQ(listener.stop(), 0);
        ending.join();
        EXPECT_EQ(on_queue("Q1").size(), tls ? 1000U : 500U);
    }
}

TEST_F(KvrListen, WhatOneHasBegunKeepsNobodyElse) {
    const Listener listener(home_, tls_ + " --discard");
    RawLine slow = bound(listener, "", {.tls = true});
    ASSERT_TRUE(listener.has("bind", 1));
    ASSERT_TRUE(slow.send_plain(std::string("\x17\x03\x03\x20\0begun", 10))); // a part of a TLS record
    const RawLine second = bound(listener, "", {.tls = true});
    ASSERT_TRUE(listener.has("bind", 2)); // written down when the listener comes to rest
    std::vector<RawLine> begun;
    for (int i = 0; i < 300; ++i) { // more handshakes than may be under way
        ASSERT_TRUE(begun.emplace_back(listener.port()).send("\x16\x03"));
    }
    const RawLine third = bound(listener, "", {.tls = true, .address = "127.0.0.2"});
    ASSERT_TRUE(listener.has("bind", 3));
    EXPECT_LT(listener.journal().rfind(R"("event":"bind")"), listener.journal().find(R"("event":"end")"));
}

TEST_F(KvrListen, ASilentPeerIsClosedAfterItsTime) {
    const Listener listener(home_, "--discard --handshake-time 1");
    const RawLine silent(listener.port());
    RawLine other = bound(listener);
    EXPECT_TRUE(silent.await_end());
    EXPECT_TRUE(other.send(message("Q", "still here")));
    EXPECT_TRUE(listener.has("message"));
}

TEST_F(KvrListen, FurtherConnectionsWaitForAPlaceOrTakeThatOfAnIdleOne) {
    for (const auto& [options, makes_room] : {std::pair("--max-connections 2", false),
                                              {"--max-connections 2 --idle-time 0", true},
                                              {"--max-per-address 2 --idle-time 0", true}}) {
        SCOPED_TRACE(options);
        Listener listener(home_, std::string("--discard ") + options);
        RawLine first = bound(listener);
        ASSERT_TRUE(listener.has("bind", 1));
        const RawLine second = bound(listener);
        ASSERT_TRUE(listener.has("bind", 2));
        const RawLine third = bound(listener);
        if (makes_room) { // and what it sends until it sees that arrives
            EXPECT_TRUE(first.await_end());
            ASSERT_TRUE(first.send(message("Q", "late")));
            first.finish();
            ASSERT_TRUE(listener.has("end"));
            EXPECT_EQ(listener.count("message"), 1U);
        } else {
            EXPECT_EQ(listener.count("connect"), 2U);
            first.finish();
        }
        ASSERT_TRUE(listener.has("bind", 3));
    }
}

/// A message of that size which waits for a file of so many bytes, of which none has come.
std::string waiting(std::size_t size, std::size_t file = 1) {
    const std::string whole = message_with_files("Q1", std::string(size, 'b'), {{"a", std::string(file, 'f')}});
    return whole.substr(0, whole.size() - file);
}

TEST_F(KvrListen, ShortMemoryPassesFromOneToTheNextAndEndsThoseOfWhomNothingComes) {
    const Listener listener(home_, "");
    const std::string small = message("Q1", std::string(40'000, 's'));
    RawLine slow = bound(listener, small.substr(0, 20'000));
    std::vector<RawLine> senders;
    for (int i = 0; i < 13; ++i) { // bodies of 26 MB that wait for their files
        senders.push_back(bound(listener, waiting(2'000'000)));
    }
    for (int i = 0; i < 3; ++i) {
        senders.push_back(bound(listener, message("Q1", std::string(2'000'000, 'g'))));
    }
    ASSERT_TRUE(listener.has("message", 3));
    ASSERT_TRUE(slow.send(small.substr(20'000)));
    ASSERT_TRUE(listener.has("message", 4));
    ASSERT_TRUE(listener.has("end"));
    EXPECT_LT(listener.count("end"), 13U);
    EXPECT_THAT(listener.journal(),
                AllOf(HasSubstr("does not grow while memory is short"), Not(HasSubstr("takes too long"))));
}

TEST_F(KvrListen, ShortMemoryIsNotHeldByOneThatFallsSilent) {
    Listener listener(home_, "");
    std::vector<RawLine> senders;
    for (std::size_t i = 1; i <= 13; ++i) { // bodies of 24.6 MB that wait for their files; the last stops in its own
        senders.push_back(bound(listener, i < 13 ? waiting(2'050'000) : waiting(1'000'000).substr(0, 900'000)));
        ASSERT_TRUE(listener.has("bind", i));
    }
    for (std::size_t i = 0; i < 12; ++i) {
        ASSERT_TRUE(senders[i].send("f"));
    }
    EXPECT_TRUE(listener.has("message", 12));
    EXPECT_EQ(listener.count("end"), 0U);
}

TEST_F(KvrListen, ShortMemoryIsNotHeldByOneThatTakesForEver) {
    Listener listener(home_, "");
    std::vector<RawLine> slow;
    for (std::size_t i = 1; i <= 14; ++i) {
        slow.push_back(bound(listener, waiting(2'090'000, 5'000'000)));
    }
    ASSERT_TRUE(listener.has("bind", 14));
    std::atomic<bool> done = false;
    std::thread dripping([&] { // what keeps a message from being given up
        while (!done) {
            for (RawLine& sender : slow) {
                (void)sender.send(std::string(10'000, 'f'));
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
        }
    });
    const RawLine other = bound(listener, message("Q1", std::string(100'000, 'o')));
    EXPECT_TRUE(listener.has("message"));
    done = true;
    dripping.join();
    EXPECT_THAT(listener.journal(), HasSubstr("takes too long while memory is short"));
}

TEST_F(KvrListen, TheLogNeitherBlocksNorGrowsWithAStranger) {
    std::array<int, 2> full{};
    ASSERT_EQ(::pipe2(full.data(), O_NONBLOCK), 0);
    while (::write(full[1], "x", 1) == 1) {
    }
    const auto read_it = [&full] {
        std::string text(1 << 20, '\0');
        text.resize(static_cast<std::size_t>(std::max<ssize_t>(::read(full[0], text.data(), text.size()), 0)));
        return text;
    };
    Listener listener(home_, "", [&full] {
        (void)::fcntl(full[1], F_SETFL, 0);
        ::dup2(full[1], STDERR_FILENO);
    });
    for (std::size_t i = 1; i <= 5; ++i) {
        bound(listener, repeated(message("NO.SUCH.QUEUE", ""), 1000));
        ASSERT_TRUE(listener.has("message", i * 1000));
    }
    EXPECT_GT(read_it().size(), 0U);
    EXPECT_EQ(listener.stop(), 0);
    const std::string log = read_it();
    EXPECT_LT(std::ranges::count(log, '\n'), 20) << log;
    EXPECT_THAT(log, HasSubstr("messages for unknown queues: 4999 more from 127.0.0.1"));
    ::close(full[0]);
    ::close(full[1]);
}

TEST_F(KvrListen, TheJournalIsOpenedAnewAndLinesThatItLacksAreCounted) {
    Listener listener(home_, "--discard", [] {
        (void)::signal(SIGXFSZ, SIG_IGN);
        const rlimit small{4096, 4096};
        (void)::setrlimit(RLIMIT_FSIZE, &small);
    });
    const fs::path journal = home_.path() / "journal";
    RawLine sender = bound(listener);
    ASSERT_TRUE(listener.has("bind"));
    fs::rename(journal, home_.path() / "first");
    listener.send_signal(SIGHUP);
    ASSERT_TRUE(wait_until([&] { return fs::exists(journal); }));
    ASSERT_TRUE(sender.send(repeated(heartbeat_frame(), 100)));
    ASSERT_TRUE(listener.says("the journal cannot be written"));
    fs::rename(journal, home_.path() / "full");
    fs::create_directory(journal);
    listener.send_signal(SIGHUP);
    ASSERT_TRUE(listener.says("cannot open the journal"));
    sender.finish();
    EXPECT_EQ(listener.stop(), 1);
    const auto written = std::ranges::count(contents(home_.path() / "full"), '\n');
    EXPECT_THAT(listener.log(), HasSubstr("the journal lacks " + std::to_string(101 - written) + " lines"));
}

TEST_F(KvrListen, RefusalsNameTheirCause) {
    const std::string required = tls_ + " --ca " + material_.ca_file + " --client-cert required";
    const std::tuple<std::string, RawLineOptions, const char*> cases[] = {
        {required, {.tls = true}, "peer did not return a certificate"},
        {required, {.tls = true, .identity = &material_.foreign_server}, "is refused: unable to get local issuer"},
        {required, {}, "the sender speaks plain TCP"},
        {"", {.tls = true}, "a TLS hello"}};
    for (const auto& [options, sender_options, reason] : cases) {
        const Listener listener(home_, "--discard " + options);
        const RawLine sender(listener.port(), sender_options);
        (void)sender.send(bind_frame("C")); // over TLS it learns of the refusal after its handshake
        EXPECT_TRUE(listener.has("end")) << reason;
        EXPECT_EQ(listener.count("bind"), 0U) << reason;
        EXPECT_THAT(listener.journal(), HasSubstr(reason));
    }
}

} // namespace
} // namespace kvr::test
