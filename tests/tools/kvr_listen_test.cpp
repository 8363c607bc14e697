// SPDX-License-Identifier: MIT
// kvr listen over real sockets, fed with bytes spelled out by hand: what reaches the store, what a stop takes in and
// whom it lets in. Start refusals stand with those of the other commands; misbehaviour on purpose is what the battery
// uses.
#include <atomic>
#include <memory>
#include <thread>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <sys/resource.h>

#include "kvr_program.h"
#include "receiver_stream.h"
#include "support/peer.h"
#include "unique_fd.h"

namespace kvr::test {
namespace {

using nlohmann::json;

class Listener {
  public:
    Listener(
        const ProgramHome& home, const Words& options, const std::function<void()>& prepare = [] {})
        : home_(home), process_(home.in_background(with_files(home, options), prepare)) {
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
    [[nodiscard]] bool has(const std::string& event, std::size_t wanted) const {
        return wait_until([&] { return count(event) >= wanted; });
    }
    [[nodiscard]] std::string log() const { return contents(home_.path() / ".background.err"); }
    void send_signal(int signal) const { kill(process_.pid(), signal); }
    int stop() {
        send_signal(SIGTERM);
        return process_.result();
    }

  private:
    static Words with_files(const ProgramHome& home, const Words& options) {
        const std::string port = home.path() / "port";
        const std::string journal = home.path() / "journal";
        std::filesystem::remove(port);
        std::filesystem::remove(journal);
        const Words files{"--port", "0", "--port-file", port, "--journal", journal};
        return Words{"listen", "--address", "127.0.0.1"} + files + options;
    }
    const ProgramHome& home_;
    Child process_;
};

/// A sender of prepared bytes, plain or in TLS 1.3.
class Sender {
  public:
    /// @param doubts  it believes no certificate
    /// @param from    its address
    explicit Sender(int port, bool tls = false, const TlsIdentity* identity = nullptr, bool doubts = false,
                    const char* from = "127.0.0.1")
        : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_in address{AF_INET, htons(static_cast<in_port_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
        const timeval limit{kDeadlineSeconds, 0};
        const sockaddr_in own{AF_INET, 0, {::inet_addr(from)}, {}};
        EXPECT_EQ(::bind(fd_.get(), reinterpret_cast<const sockaddr*>(&own), sizeof own), 0);
        (void)::setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        EXPECT_EQ(::connect(fd_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        if (!tls) {
            return;
        }
        (void)::signal(SIGPIPE, SIG_IGN); // OpenSSL writes without MSG_NOSIGNAL
        if (identity != nullptr) {
            SSL_CTX_use_certificate_chain_file(context_.get(), identity->cert_file.c_str());
            SSL_CTX_use_PrivateKey_file(context_.get(), identity->key_file.c_str(), SSL_FILETYPE_PEM);
        }
        SSL_CTX_set_verify(context_.get(), doubts ? SSL_VERIFY_PEER : SSL_VERIFY_NONE, nullptr);
        ssl_.reset(SSL_new(context_.get()));
        SSL_set_fd(ssl_.get(), fd_.get());
        SSL_connect(ssl_.get()); // where it fails, so does what follows
    }
    /// False when the listener ended the line.
    bool send(const std::string& bytes) {
        const auto size = static_cast<int>(bytes.size());
        return (ssl_ ? SSL_write(ssl_.get(), bytes.data(), size)
                     : ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL)) == size;
    }
    /// Past the TLS session.
    [[nodiscard]] bool send_plain(const std::string& bytes) const {
        return ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }
    void finish() { (void)::shutdown(fd_.get(), SHUT_WR); }
    /// Waits for the listener's end of the line; false when that was no orderly one.
    bool is_ended() {
        char byte = 0;
        errno = 0;
        return (ssl_ ? SSL_read(ssl_.get(), &byte, 1) : ::recv(fd_.get(), &byte, 1, 0)) <= 0 && errno == 0;
    }

  private:
    UniqueFd fd_;
    std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context_{SSL_CTX_new(TLS_client_method()), SSL_CTX_free};
    std::unique_ptr<SSL, decltype(&SSL_free)> ssl_{nullptr, SSL_free};
};

class KvrListen : public ::testing::Test {
  protected:
    KvrListen() {
        home_.done({"create", "WEST"});
        for (const char* queue : {"Q1", "Q2", "Q3"}) {
            home_.done({"define", "queue", queue});
        }
    }
    json on_queue(const char* queue) { return home_.json({"browse", queue, "--full", "--all"}); }

    ProgramHome home_;
    const TlsMaterial& material_ = tls_material();
    const Words tls_ = {"--tls", "--cert", material_.server.cert_file, "--key", material_.server.key_file};
};

TEST_F(KvrListen, EveryKindOfMessageReachesItsQueueWithEveryField) {
    Listener listener(home_, {});
    Sender sender(listener.port());
    ASSERT_TRUE(sender.send(bind_frame("EAST.WEST") + message("Q1", "body") + heartbeat_frame() + message("Q1", "") +
                            message_with_files("Q2", "two files", {{"a.txt", "first"}, {"../b\n", "second"}}) +
                            message_with_files("Q2", "flagged, without files", {}) +
                            file_message("Q3", {"x.dat", "contents"}, 19) + message("NO.SUCH.QUEUE", "stray")));
    ASSERT_TRUE(listener.has("message", 6));
    sender.finish();
    // What was found out for a message that never ended does not hold for the next one.
    const std::string later = message_with_files("LATER", "", {{"a", "x"}});
    ASSERT_TRUE(Sender(listener.port()).send(bind_frame("CUT") + later.substr(0, later.size() - 1)));
    ASSERT_TRUE(listener.has("end", 2));
    home_.done({"define", "queue", "LATER"});
    ASSERT_TRUE(Sender(listener.port()).send(bind_frame("AGAIN") + later));
    ASSERT_TRUE(listener.has("end", 3));
    EXPECT_EQ(listener.stop(), 0);
    EXPECT_EQ(on_queue("LATER").size(), 1U);
    const json q1 = on_queue("Q1");
    ASSERT_EQ(q1.size(), 2U);
    const json fields = R"({"msgid": "ID", "correlid": "CORREL", "type": 7, "code": -5, "usage": 11, "flags": 0,
        "expiry": -1, "feedback": 13, "encoding": 546, "ccsid": 1208, "priority": 5, "persistence": 1,
        "seqno": 16909060, "report": -16, "format": "FORMAT", "reply-to-q": "REPLY.Q", "reply-to-qmgr": "REPLY.QM",
        "group-id": "GROUP", "appl-type": 28, "appl-name": "APPL", "put-date": "20260102", "put-time": "030405",
        "store-type": "1", "data": "body"})"_json;
    for (const auto& [name, value] : fields.items()) {
        EXPECT_EQ(q1[0][name], value) << name;
    }
    EXPECT_EQ(q1[1]["data"], "");
    const std::string spool = home_.path() / "WEST" / "spool/";
    const json with_files = on_queue("Q2")[0];
    EXPECT_EQ(with_files["data"], "two files");
    EXPECT_EQ(with_files["attachments"], json::array({spool + "a.txt", spool + "..%2Fb%0A"}));
    EXPECT_EQ(contents(spool + "a.txt") + contents(spool + "..%2Fb%0A"), "firstsecond");
    EXPECT_EQ(on_queue("Q2")[1]["flags"], 4);
    EXPECT_EQ(on_queue("Q2")[1]["data"], "flagged, without files");
    const json by_file = on_queue("Q3")[0];
    EXPECT_EQ(by_file["store-type"], "2");
    EXPECT_EQ(by_file["data"], spool + "x.dat");
    EXPECT_EQ(contents(spool + "x.dat"), "contents");
    const json dead = on_queue("DEAD.LETTER.QUEUE")[0];
    EXPECT_EQ(dead["destination"], json::parse(R"({"queue": "NO.SUCH.QUEUE", "qmgr": "WEST"})"));
    EXPECT_EQ(dead["data"], "stray");
}

TEST_F(KvrListen, OnlyAMessageWithoutAHomeIsDropped) {
    (void)home_.run({"set", "qmgr", "DEADQ="});
    Listener listener(home_, {});
    Sender sender(listener.port());
    ASSERT_TRUE(sender.send(bind_frame("C") + message("Q1", "before") +
                            message_with_files("NOWHERE", "", {{"a", "x"}}) + message("Q1", "after")));
    ASSERT_TRUE(listener.has("message", 2));
    EXPECT_THAT(listener.journal(), ::testing::HasSubstr("NOWHERE"));
    ASSERT_TRUE(Sender(listener.port()).send(bind_frame("C") + message("NOWHERE", "")));
    ASSERT_TRUE(listener.has("dropped", 2));
    home_.done({"define", "queue", "NOWHERE"});
    Sender last(listener.port());
    ASSERT_TRUE(last.send(bind_frame("C") + message("NOWHERE", "at home")));
    ASSERT_TRUE(listener.has("message", 3));
    EXPECT_EQ(listener.stop(), 1);
    ASSERT_EQ(on_queue("Q1").size(), 2U);
    EXPECT_EQ(names_in(home_.path() / "WEST" / "spool"), std::set<std::string>{".incoming"});
}

TEST_F(KvrListen, AStopTakesInWhatHasBeenSent) {
    for (const bool tls : {false, true}) {
        Listener listener(home_, tls ? tls_ : Words{});
        Sender sender(listener.port(), tls);
        ASSERT_TRUE(sender.send(bind_frame("C")));
        ASSERT_TRUE(listener.has("bind", 1));
        std::string stream;
        for (int i = 0; i < 500; ++i) {
            stream += message("Q1", std::string(100, 'm'));
        }
        ASSERT_TRUE(sender.send(stream));
        std::thread ending([&sender] { // ends its half when it sees ours ended, as a channel does
            EXPECT_TRUE(sender.is_ended());
            sender.finish();
        });
        EXPECT_EQ(listener.stop(), 0);
        ending.join();
        EXPECT_EQ(on_queue("Q1").size(), tls ? 1000U : 500U);
    }
}

TEST_F(KvrListen, APartOfATlsRecordKeepsNobodyBusy) {
    const Listener listener(home_, tls_ + Words{"--discard"});
    Sender slow(listener.port(), true);
    ASSERT_TRUE(slow.send(bind_frame("SLOW")));
    ASSERT_TRUE(listener.has("bind", 1));
    ASSERT_TRUE(slow.send_plain(std::string("\x17\x03\x03\x20\0begun", 10)));
    Sender other(listener.port(), true);
    ASSERT_TRUE(other.send(bind_frame("OTHER")));
    EXPECT_TRUE(listener.has("bind", 2)); // written down when the listener comes to rest
}

TEST_F(KvrListen, HandshakesOfOneAddressLeaveOthersTheirs) {
    const Listener listener(home_, tls_ + Words{"--discard"});
    std::vector<std::unique_ptr<Sender>> begun;
    for (int i = 0; i < 300; ++i) {
        begun.push_back(std::make_unique<Sender>(listener.port()));
        ASSERT_TRUE(begun.back()->send("\x16\x03"));
    }
    Sender other(listener.port(), true, nullptr, false, "127.0.0.2");
    ASSERT_TRUE(other.send(bind_frame("OTHER")));
    ASSERT_TRUE(listener.has("bind", 1));
    EXPECT_LT(listener.journal().find(R"("event":"bind")"), listener.journal().find(R"("event":"end")"));
}

TEST_F(KvrListen, ASilentPeerIsClosedAfterItsTime) {
    const Listener listener(home_, {"--discard", "--handshake-time", "1"});
    Sender silent(listener.port());
    Sender bound(listener.port());
    ASSERT_TRUE(bound.send(bind_frame("C")));
    EXPECT_TRUE(silent.is_ended());
    EXPECT_TRUE(bound.send(message("Q", "still here")));
    EXPECT_TRUE(listener.has("message", 1));
}

TEST_F(KvrListen, RefusesWhenAskedTo) {
    const Listener listener(home_, {"--discard", "--refuse"});
    EXPECT_TRUE(Sender(listener.port()).is_ended());
    EXPECT_TRUE(listener.has("end", 1));
}

TEST_F(KvrListen, FurtherConnectionsWaitForAPlaceOrTakeThatOfAnIdleOne) {
    const std::tuple<Words, bool> cases[] = {{{"--max-connections", "2"}, false},
                                             {{"--max-connections", "2", "--idle-time", "0"}, true},
                                             {{"--max-per-address", "2", "--idle-time", "0"}, true}};
    for (const auto& [options, makes_room] : cases) {
        SCOPED_TRACE(options.back());
        Listener listener(home_, Words{"--discard"} + options);
        std::vector<std::unique_ptr<Sender>> senders;
        for (const char* channel : {"A", "B", "C"}) {
            senders.push_back(std::make_unique<Sender>(listener.port()));
            ASSERT_TRUE(senders.back()->send(bind_frame(channel)));
            ASSERT_TRUE(senders.size() > 2 || listener.has("bind", senders.size()));
        }
        if (makes_room) { // and what it sends until it sees that arrives
            EXPECT_TRUE(senders[0]->is_ended());
            ASSERT_TRUE(senders[0]->send(message("Q", "late")));
            senders[0]->finish();
            ASSERT_TRUE(listener.has("end", 1));
            EXPECT_EQ(listener.count("message"), 1U);
        } else {
            EXPECT_EQ(listener.count("connect"), 2U);
            senders.front().reset();
        }
        ASSERT_TRUE(listener.has("bind", 3));
        senders.clear();
        EXPECT_EQ(listener.stop(), 0);
    }
}

TEST_F(KvrListen, ShortMemoryEndsThoseOfWhomNothingComes) {
    Listener listener(home_, {});
    const std::string great = message_with_files("Q1", std::string(2'000'000, 'g'), {{"a", "x"}});
    const std::string small = message("Q1", std::string(40'000, 's'));
    Sender slow(listener.port());
    ASSERT_TRUE(slow.send(bind_frame("SLOW") + small.substr(0, 20'000)));
    std::vector<std::unique_ptr<Sender>> silent;
    for (int i = 0; i < 13; ++i) { // bodies of 26 MB that wait for their files
        silent.push_back(std::make_unique<Sender>(listener.port()));
        ASSERT_TRUE(silent.back()->send(bind_frame("SILENT" + std::to_string(i)) + great.substr(0, great.size() - 9)));
    }
    Sender other(listener.port());
    ASSERT_TRUE(other.send(bind_frame("OTHER") + message("Q1", "small") + great));
    ASSERT_TRUE(listener.has("message", 2));
    ASSERT_TRUE(listener.has("end", 1));
    ASSERT_TRUE(slow.send(small.substr(20'000)));
    ASSERT_TRUE(listener.has("message", 3));
    EXPECT_THAT(listener.journal(), ::testing::HasSubstr("while memory is short"));
    EXPECT_LT(listener.count("end"), silent.size());
}

TEST_F(KvrListen, ShortMemoryIsNotHeldByOneThatFallsSilent) {
    Listener listener(home_, {});
    const auto body_of = [](std::size_t size) {
        return bind_frame("C" + std::to_string(size)) + message_with_files("Q1", std::string(size, 'b'), {{"a", "x"}});
    };
    std::vector<std::unique_ptr<Sender>> senders;
    for (std::size_t i = 0; i < 12; ++i) { // bodies of 24.6 MB that wait for their files
        senders.push_back(std::make_unique<Sender>(listener.port()));
        const std::string stream = body_of(2'050'000 + i);
        ASSERT_TRUE(senders[i]->send(stream.substr(0, stream.size() - 9)));
        ASSERT_TRUE(listener.has("bind", i + 1));
    }
    Sender silent(listener.port()); // too small to be given up beside them
    const std::string stream = body_of(600'000);
    ASSERT_TRUE(silent.send(stream.substr(0, stream.size() - 9)));
    ASSERT_TRUE(listener.has("bind", 13));
    for (const auto& sender : senders) {
        ASSERT_TRUE(sender->send(file_frame("x")));
    }
    EXPECT_TRUE(listener.has("message", 12));
    EXPECT_EQ(listener.count("end"), 0U);
}

TEST_F(KvrListen, ShortMemoryIsNotHeldByOneThatTakesForEver) {
    Listener listener(home_, {});
    std::string great = message_with_files("Q1", std::string(2'090'000, 'g'), {{"a", std::string(5'000'000, 'f')}});
    great.resize(great.size() - 4'999'999);
    std::vector<std::unique_ptr<Sender>> slow;
    for (int i = 0; i < 14; ++i) {
        slow.push_back(std::make_unique<Sender>(listener.port()));
        ASSERT_TRUE(slow.back()->send(bind_frame("SLOW" + std::to_string(i)) + great));
    }
    ASSERT_TRUE(listener.has("bind", slow.size()));
    std::atomic<bool> done = false;
    std::thread dripping([&] { // what keeps a message from being given up
        while (!done) {
            for (const auto& sender : slow) {
                (void)sender->send(std::string(10'000, 'f'));
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
        }
    });
    Sender other(listener.port());
    EXPECT_TRUE(other.send(bind_frame("OTHER") + message("Q1", std::string(100'000, 'o'))));
    EXPECT_TRUE(listener.has("message", 1));
    done = true;
    dripping.join();
    EXPECT_THAT(listener.journal(), ::testing::HasSubstr("takes too long while memory is short"));
}

TEST_F(KvrListen, TheLogNeitherBlocksNorGrowsWithAStranger) {
    std::array<int, 2> full{};
    ASSERT_EQ(::pipe2(full.data(), O_NONBLOCK), 0);
    while (::write(full[1], "x", 1) == 1) {
    }
    for (const bool blocked : {true, false}) {
        Listener listener(home_, {}, [&] {
            if (blocked) {
                (void)::fcntl(full[1], F_SETFL, 0);
                ::dup2(full[1], STDERR_FILENO);
            }
        });
        std::string stream = bind_frame("C");
        for (int i = 0; i < 1000; ++i) {
            stream += message("NO.SUCH.QUEUE", "");
        }
        for (std::size_t i = 1; i <= 5; ++i) {
            Sender sender(listener.port());
            ASSERT_TRUE(sender.send(stream));
            ASSERT_TRUE(listener.has("message", i * 1000));
        }
        ASSERT_TRUE(listener.has("end", 5));
        EXPECT_EQ(listener.stop(), 0);
        if (!blocked) {
            const std::string log = listener.log();
            EXPECT_LT(std::ranges::count(log, '\n'), 20) << log;
            EXPECT_THAT(log, ::testing::HasSubstr("messages for unknown queues: 4999 more from 127.0.0.1"));
        }
    }
    ::close(full[0]);
    ::close(full[1]);
}

TEST_F(KvrListen, AHangupOpensTheJournalAnew) {
    Listener listener(home_, {"--discard"});
    Sender sender(listener.port());
    ASSERT_TRUE(sender.send(bind_frame("C")));
    ASSERT_TRUE(listener.has("bind", 1));
    std::filesystem::rename(home_.path() / "journal", home_.path() / "journal.1");
    listener.send_signal(SIGHUP);
    ASSERT_TRUE(wait_until([&] { return std::filesystem::exists(home_.path() / "journal"); }));
    ASSERT_TRUE(sender.send(message("Q", "")));
    EXPECT_TRUE(listener.has("message", 1));
    EXPECT_EQ(listener.count("bind"), 0U);
    EXPECT_EQ(listener.stop(), 0);
}

TEST_F(KvrListen, LinesThatTheJournalLacksAreCounted) {
    Listener listener(home_, {"--discard"}, [] {
        (void)::signal(SIGXFSZ, SIG_IGN);
        const rlimit small{4096, 4096};
        (void)::setrlimit(RLIMIT_FSIZE, &small);
    });
    Sender sender(listener.port());
    std::string stream = bind_frame("C");
    for (int i = 0; i < 100; ++i) {
        stream += heartbeat_frame();
    }
    ASSERT_TRUE(sender.send(stream));
    const auto says = [&](const char* text) { return listener.log().find(text) != std::string::npos; };
    ASSERT_TRUE(wait_until([&] { return says("the journal cannot be written"); }));
    std::filesystem::rename(home_.path() / "journal", home_.path() / "full");
    std::filesystem::create_directory(home_.path() / "journal");
    listener.send_signal(SIGHUP);
    ASSERT_TRUE(wait_until([&] { return says("cannot open the journal"); }));
    EXPECT_FALSE(says("opened anew"));
    sender.finish();
    EXPECT_EQ(listener.stop(), 1);
    const auto written = std::ranges::count(contents(home_.path() / "full"), '\n');
    EXPECT_TRUE(says(("the journal lacks " + std::to_string(103 - written) + " lines").c_str())) << listener.log();
}

TEST_F(KvrListen, RefusalsNameTheirCause) {
    struct Case {
        const char* client_cert; ///< null: a plain listener
        bool tls;                ///< of the sender
        const TlsIdentity* identity;
        const char* reason; ///< null: none
        bool doubts = false;
    };
    const Case cases[] = {
        {"optional", true, nullptr, nullptr},
        {"required", true, &material_.client, nullptr},
        {"required", true, nullptr, "peer did not return a certificate"},
        {"optional", true, &material_.foreign_server,
         "the certificate of /O=kavro test/CN=Receiver.Test is refused: unable to get local issuer certificate"},
        {"optional", false, nullptr, "the sender speaks plain TCP"},
        {"optional", true, nullptr, "the sender refuses the certificate of this listener: unknown CA", true},
        {nullptr, true, nullptr, "a TLS hello"},
    };
    for (const auto& [client_cert, tls, identity, reason, doubts] : cases) {
        SCOPED_TRACE(reason == nullptr ? "none" : reason);
        const Words options =
            client_cert == nullptr ? Words{} : tls_ + Words{"--ca", material_.ca_file, "--client-cert", client_cert};
        const Listener listener(home_, options + Words{"--discard"});
        std::thread sending([&, port = listener.port()] { // a TLS sender waits for the end that the listener makes
            Sender sender(port, tls, identity, doubts);
            (void)sender.send(bind_frame("C")); // it learns of the refusal after its handshake
            if (reason == nullptr) {
                EXPECT_TRUE(listener.has("bind", 1));
            }
        });
        EXPECT_TRUE(listener.has(reason == nullptr ? "bind" : "end", 1));
        EXPECT_EQ(listener.count("bind"), reason == nullptr ? 1U : 0U);
        sending.join();
        if (reason != nullptr) {
            EXPECT_THAT(listener.journal(), ::testing::HasSubstr(reason));
        }
    }
}

} // namespace
} // namespace kvr::test
