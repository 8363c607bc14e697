// SPDX-License-Identifier: MIT
// kvr listen over real sockets, fed with bytes spelled out by hand: what reaches the store, what a stop takes in and
// whom it lets in. Misbehaviour on purpose is what the battery uses.
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
using ::testing::HasSubstr;

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
    [[nodiscard]] std::string log() const { return contents(home_.path() / ".background.err"); }
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

struct SenderOptions {
    bool tls = false;
    const TlsIdentity* identity = nullptr;
    bool doubts = false; ///< believes no certificate
    const char* address = "127.0.0.1";
};

/// A sender of prepared bytes, plain or in TLS 1.3.
class Sender {
  public:
    explicit Sender(const Listener& listener, const SenderOptions& options = {})
        : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_in address{
            AF_INET, htons(static_cast<in_port_t>(listener.port())), {htonl(INADDR_LOOPBACK)}, {}};
        const timeval limit{kDeadlineSeconds, 0};
        const sockaddr_in own{AF_INET, 0, {::inet_addr(options.address)}, {}};
        EXPECT_EQ(::bind(fd_.get(), reinterpret_cast<const sockaddr*>(&own), sizeof own), 0);
        (void)::setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        EXPECT_EQ(::connect(fd_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        if (!options.tls) {
            return;
        }
        (void)::signal(SIGPIPE, SIG_IGN); // OpenSSL writes without MSG_NOSIGNAL
        if (options.identity != nullptr) {
            SSL_CTX_use_certificate_chain_file(context_.get(), options.identity->cert_file.c_str());
            SSL_CTX_use_PrivateKey_file(context_.get(), options.identity->key_file.c_str(), SSL_FILETYPE_PEM);
        }
        SSL_CTX_set_verify(context_.get(), options.doubts ? SSL_VERIFY_PEER : SSL_VERIFY_NONE, nullptr);
        ssl_.reset(SSL_new(context_.get()));
        SSL_set_fd(ssl_.get(), fd_.get());
        SSL_connect(ssl_.get()); // where it fails, so does what follows
    }
    /// False when the listener ended the line.
    bool send(const std::string& bytes) {
        const auto size = static_cast<int>(bytes.size());
        return (ssl_ ? SSL_write(ssl_.get(), bytes.data(), size) : send_plain(bytes)) == size;
    }
    /// Past the TLS session; bytes that were taken.
    [[nodiscard]] int send_plain(const std::string& bytes) const {
        return static_cast<int>(::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL));
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

/// The senders of a case, each open to its end.
class Senders {
  public:
    explicit Senders(const Listener& listener) : listener_(listener) {}
    /// A further sender of these bytes after its bind frame.
    Sender& add(const std::string& bytes, const SenderOptions& options = {}) {
        all_.push_back(std::make_unique<Sender>(listener_, options));
        EXPECT_TRUE(all_.back()->send(bind_frame("C" + std::to_string(all_.size())) + bytes));
        return *all_.back();
    }
    [[nodiscard]] std::vector<std::unique_ptr<Sender>>& all() { return all_; }

  private:
    const Listener& listener_;
    std::vector<std::unique_ptr<Sender>> all_;
};

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
    json on_queue(const std::string& queue) { return home_.json("browse " + queue + " --full --all"); }

    ProgramHome home_;
    const TlsMaterial& material_ = tls_material();
    const std::string tls_ = "--tls --cert " + material_.server.cert_file + " --key " + material_.server.key_file;
};

TEST_F(KvrListen, EveryKindOfMessageReachesItsQueueWithEveryField) {
    Listener listener(home_, "");
    Senders(listener).add(message("Q1", "body") + heartbeat_frame() + message("Q1", "") +
                          message_with_files("Q2", "two files", {{"a.txt", "first"}, {"../b\n", "second"}}) +
                          message_with_files("Q2", "flagged, without files", {}) +
                          file_message("Q3", {"x.dat", "contents"}, 19) + message("NO.SUCH.QUEUE", "stray"));
    ASSERT_TRUE(listener.has("end", 1));
    // What was found out for a message that never ended does not hold for the next one.
    const std::string later = message_with_files("LATER", "", {{"a", "x"}});
    Senders(listener).add(later.substr(0, later.size() - 1));
    ASSERT_TRUE(listener.has("end", 2));
    home_.done("define queue LATER");
    Senders(listener).add(later);
    EXPECT_TRUE(listener.has("message", 7));
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
    const std::string spool = home_.path() / "WEST" / "spool/";
    const json q2 = on_queue("Q2");
    EXPECT_EQ(q2[0]["data"], "two files");
    EXPECT_EQ(q2[0]["attachments"], json::array({spool + "a.txt", spool + "..%2Fb%0A"}));
    EXPECT_EQ(contents(spool + "a.txt") + contents(spool + "..%2Fb%0A"), "firstsecond");
    EXPECT_EQ(q2[1]["flags"], 4);
    EXPECT_EQ(q2[1]["data"], "flagged, without files");
    const json by_file = on_queue("Q3")[0];
    EXPECT_EQ(by_file["store-type"], "2");
    EXPECT_EQ(contents(by_file["data"].get<std::string>()), "contents");
    const json dead = on_queue("DEAD.LETTER.QUEUE")[0];
    EXPECT_EQ(dead["destination"], json::parse(R"({"queue": "NO.SUCH.QUEUE", "qmgr": "WEST"})"));
    EXPECT_EQ(dead["data"], "stray");
}

TEST_F(KvrListen, OnlyAMessageWithoutAHomeIsDropped) {
    (void)home_.run("set qmgr DEADQ=");
    Listener listener(home_, "");
    Senders senders(listener);
    senders.add(message("Q1", "before") + message_with_files("NOWHERE", "", {{"a", "x"}}) + message("Q1", "after"));
    ASSERT_TRUE(listener.has("message", 2));
    ASSERT_TRUE(listener.has("dropped"));
    home_.done("define queue NOWHERE");
    senders.add(message("NOWHERE", "at home"));
    ASSERT_TRUE(listener.has("message", 3));
    EXPECT_EQ(listener.stop(), 1);
    EXPECT_EQ(on_queue("Q1").size(), 2U);
    EXPECT_EQ(names_in(home_.path() / "WEST" / "spool"), std::set<std::string>{".incoming"});
}

TEST_F(KvrListen, AStopTakesInWhatHasBeenSent) {
    for (const bool tls : {false, true}) {
        Listener listener(home_, tls ? tls_ : "");
        Senders senders(listener);
        Sender& sender = senders.add("", {.tls = tls});
        ASSERT_TRUE(listener.has("bind"));
        ASSERT_TRUE(sender.send(repeated(message("Q1", std::string(100, 'm')), 500)));
        std::thread ending([&sender] { // ends its half when it sees ours ended, as a channel does
            EXPECT_TRUE(sender.is_ended());
            sender.finish();
        });
        EXPECT_EQ(listener.stop(), 0);
        ending.join();
        EXPECT_EQ(on_queue("Q1").size(), tls ? 1000U : 500U);
    }
}

TEST_F(KvrListen, WhatOneHasBegunKeepsNobodyElse) {
    const Listener listener(home_, tls_ + " --discard");
    Senders senders(listener);
    Sender& slow = senders.add("", {.tls = true});
    ASSERT_TRUE(listener.has("bind", 1));
    EXPECT_EQ(slow.send_plain(std::string("\x17\x03\x03\x20\0begun", 10)), 10); // a part of a TLS record
    senders.add("", {.tls = true});
    ASSERT_TRUE(listener.has("bind", 2)); // written down when the listener comes to rest
    std::vector<std::unique_ptr<Sender>> begun;
    for (int i = 0; i < 300; ++i) { // more handshakes than may be under way
        begun.push_back(std::make_unique<Sender>(listener));
        ASSERT_TRUE(begun.back()->send("\x16\x03"));
    }
    senders.add("", {.tls = true, .address = "127.0.0.2"});
    ASSERT_TRUE(listener.has("bind", 3));
    EXPECT_LT(listener.journal().rfind(R"("event":"bind")"), listener.journal().find(R"("event":"end")"));
}

TEST_F(KvrListen, ASilentPeerIsClosedAfterItsTime) {
    const Listener listener(home_, "--discard --handshake-time 1");
    Senders senders(listener);
    Sender silent(listener);
    Sender& bound = senders.add("");
    EXPECT_TRUE(silent.is_ended());
    EXPECT_TRUE(bound.send(message("Q", "still here")));
    EXPECT_TRUE(listener.has("message"));
}

TEST_F(KvrListen, FurtherConnectionsWaitForAPlaceOrTakeThatOfAnIdleOne) {
    for (const auto& [options, makes_room] : {std::pair("--max-connections 2", false),
                                              {"--max-connections 2 --idle-time 0", true},
                                              {"--max-per-address 2 --idle-time 0", true}}) {
        SCOPED_TRACE(options);
        Listener listener(home_, std::string("--discard ") + options);
        Senders senders(listener);
        for (std::size_t i = 1; i <= 3; ++i) {
            senders.add("");
            ASSERT_TRUE(i > 2 || listener.has("bind", i));
        }
        if (makes_room) { // and what it sends until it sees that arrives
            Sender& idle = *senders.all().front();
            EXPECT_TRUE(idle.is_ended());
            ASSERT_TRUE(idle.send(message("Q", "late")));
            idle.finish();
            ASSERT_TRUE(listener.has("end"));
            EXPECT_EQ(listener.count("message"), 1U);
        } else {
            EXPECT_EQ(listener.count("connect"), 2U);
            senders.all().front().reset();
        }
        ASSERT_TRUE(listener.has("bind", 3));
        senders.all().clear();
        EXPECT_EQ(listener.stop(), 0);
    }
}

/// A message of that size which waits for a file of so many bytes, of which none has come.
std::string waiting(std::size_t size, std::size_t file = 1) {
    const std::string whole = message_with_files("Q1", std::string(size, 'b'), {{"a", std::string(file, 'f')}});
    return whole.substr(0, whole.size() - file);
}

TEST_F(KvrListen, ShortMemoryEndsThoseOfWhomNothingComes) {
    Listener listener(home_, "");
    Senders senders(listener);
    const std::string small = message("Q1", std::string(40'000, 's'));
    Sender& slow = senders.add(small.substr(0, 20'000));
    for (int i = 0; i < 13; ++i) { // bodies of 26 MB that wait for their files
        senders.add(waiting(2'000'000));
    }
    senders.add(message("Q1", "small") + waiting(2'000'000) + "f");
    ASSERT_TRUE(listener.has("message", 2));
    ASSERT_TRUE(listener.has("end"));
    ASSERT_TRUE(slow.send(small.substr(20'000)));
    ASSERT_TRUE(listener.has("message", 3));
    EXPECT_THAT(listener.journal(), HasSubstr("while memory is short"));
    EXPECT_LT(listener.count("end"), 13U);
}

TEST_F(KvrListen, ShortMemoryIsNotHeldByOneThatFallsSilent) {
    Listener listener(home_, "");
    Senders senders(listener);
    for (std::size_t i = 1; i <= 12; ++i) { // bodies of 24.6 MB that wait for their files
        senders.add(waiting(2'050'000));
        ASSERT_TRUE(listener.has("bind", i));
    }
    senders.add(waiting(600'000)); // too small to be given up beside them
    ASSERT_TRUE(listener.has("bind", 13));
    for (std::size_t i = 0; i < 12; ++i) {
        ASSERT_TRUE(senders.all()[i]->send("f"));
    }
    EXPECT_TRUE(listener.has("message", 12));
    EXPECT_EQ(listener.count("end"), 0U);
}

TEST_F(KvrListen, ShortMemoryIsNotHeldByOneThatTakesForEver) {
    Listener listener(home_, "");
    Senders slow(listener);
    for (int i = 0; i < 14; ++i) {
        slow.add(waiting(2'090'000, 5'000'000));
    }
    ASSERT_TRUE(listener.has("bind", 14));
    std::atomic<bool> done = false;
    std::thread dripping([&] { // what keeps a message from being given up
        while (!done) {
            for (const auto& sender : slow.all()) {
                (void)sender->send(std::string(10'000, 'f'));
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
        }
    });
    Sender other(listener);
    EXPECT_TRUE(other.send(bind_frame("OTHER") + message("Q1", std::string(100'000, 'o'))));
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
    for (const bool blocked : {true, false}) {
        Listener listener(home_, "", [&] {
            if (blocked) {
                (void)::fcntl(full[1], F_SETFL, 0);
                ::dup2(full[1], STDERR_FILENO);
            }
        });
        for (std::size_t i = 1; i <= 5; ++i) {
            Senders(listener).add(repeated(message("NO.SUCH.QUEUE", ""), 1000));
            ASSERT_TRUE(listener.has("message", i * 1000));
        }
        ASSERT_TRUE(listener.has("end", 5));
        EXPECT_EQ(listener.stop(), 0);
        if (!blocked) {
            EXPECT_LT(std::ranges::count(listener.log(), '\n'), 20) << listener.log();
            EXPECT_THAT(listener.log(), HasSubstr("messages for unknown queues: 4999 more from 127.0.0.1"));
        }
    }
    ::close(full[0]);
    ::close(full[1]);
}

TEST_F(KvrListen, TheJournalIsOpenedAnewAndLinesThatItLacksAreCounted) {
    Listener listener(home_, "--discard", [] {
        (void)::signal(SIGXFSZ, SIG_IGN);
        const rlimit small{4096, 4096};
        (void)::setrlimit(RLIMIT_FSIZE, &small);
    });
    const auto move_away = [this](const char* name) {
        std::filesystem::rename(home_.path() / "journal", home_.path() / name);
    };
    Senders senders(listener);
    Sender& sender = senders.add("");
    ASSERT_TRUE(listener.has("bind"));
    move_away("journal.1");
    listener.send_signal(SIGHUP);
    ASSERT_TRUE(wait_until([&] { return std::filesystem::exists(home_.path() / "journal"); }));
    ASSERT_TRUE(sender.send(repeated(heartbeat_frame(), 100)));
    ASSERT_TRUE(listener.says("the journal cannot be written"));
    move_away("full");
    std::filesystem::create_directory(home_.path() / "journal");
    listener.send_signal(SIGHUP);
    ASSERT_TRUE(listener.says("cannot open the journal"));
    sender.finish();
    EXPECT_EQ(listener.stop(), 1);
    const auto written = std::ranges::count(contents(home_.path() / "full"), '\n');
    EXPECT_THAT(listener.log(), HasSubstr("the journal lacks " + std::to_string(101 - written) + " lines"));
}

TEST_F(KvrListen, RefusalsNameTheirCause) {
    const std::string untrusted = "the certificate of /O=kavro test/CN=Receiver.Test is refused: unable to get local "
                                  "issuer certificate";
    const struct {
        const char* client_cert; ///< null: a plain listener
        SenderOptions sender;
        std::string reason; ///< empty: it is let in
    } cases[] = {{"optional", {.tls = true}, ""},
                 {"required", {.tls = true, .identity = &material_.client}, ""},
                 {"required", {.tls = true}, "peer did not return a certificate"},
                 {"optional", {.tls = true, .identity = &material_.foreign_server}, untrusted},
                 {"optional", {}, "the sender speaks plain TCP"},
                 {"optional", {.tls = true, .doubts = true}, "refuses the certificate of this listener: unknown CA"},
                 {nullptr, {.tls = true}, "a TLS hello"}};
    for (const auto& [client_cert, options, reason] : cases) {
        SCOPED_TRACE(reason);
        const std::string tls = tls_ + " --ca " + material_.ca_file + " --client-cert ";
        const Listener listener(home_, "--discard " + (client_cert == nullptr ? "" : tls + client_cert));
        std::thread sending([&, &sender_options = options, let_in = reason.empty()] {
            Sender sender(listener, sender_options); // a TLS sender waits for the end that the listener makes
            (void)sender.send(bind_frame("C"));      // it learns of the refusal after its handshake
            EXPECT_TRUE(listener.has(let_in ? "bind" : "end"));
        });
        sending.join();
        EXPECT_EQ(listener.count("bind"), reason.empty() ? 1U : 0U);
        EXPECT_THAT(listener.journal(), HasSubstr(reason));
    }
}

} // namespace
} // namespace kvr::test
