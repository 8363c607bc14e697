// SPDX-License-Identifier: MIT
// Writes and closes in a signal handler: no foreign byte, nothing allocated or freed, nothing released twice or lost.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <deque>

#include <fcntl.h>
#include <openssl/ssl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include "net_tcp/client.h"

namespace kvr::test {
namespace {

/// Calls of the allocator while a handler counts them, through the replaced functions below. The sanitizers need their
/// own: under them nothing is counted.
thread_local volatile bool counting = false;
volatile int heap_calls = 0;

[[gnu::noinline]] void heap_call_in_handler() { // the place for a breakpoint
    heap_calls = heap_calls + 1;
}

[[maybe_unused]] void note_heap_call() {
    if (counting) {
        heap_call_in_handler();
    }
}

} // namespace
} // namespace kvr::test

#if !defined(__SANITIZE_ADDRESS__)
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void __libc_free(void* block);

void* malloc(std::size_t size) {
    kvr::test::note_heap_call();
    return __libc_malloc(size);
}
void* realloc(void* block, std::size_t size) {
    kvr::test::note_heap_call();
    return __libc_realloc(block, size);
}
void free(void* block) {
    if (block != nullptr) {
        kvr::test::note_heap_call();
    }
    __libc_free(block);
}
}
#endif

namespace kvr::test {
namespace {

Client* handled = nullptr;
int result = 0;
int decoy[2] = {-1, -1};

using HandlerTest = CarrierTest;
INSTANTIATE_TEST_SUITE_P(Carriers, HandlerTest, testing::Values(Carrier::kPlain, Carrier::kTls12, Carrier::kTls13),
                         carrier_of);

void count_write() {
    static char frame[75];
    counting = true;
    result = handled->record.pfnWrite(&handled->record, frame, sizeof(frame), 0);
    counting = false;
}

void count_close() {
    counting = true;
    result = handled->record.pfnClose(&handled->record, 0);
    counting = false;
}

void close_and_open_decoy() {
    count_close();
    // What the close gave back would be taken by these.
    EXPECT_EQ(pipe2(decoy, O_CLOEXEC | O_NONBLOCK), 0);
}

TEST_P(HandlerTest, WriteAndCloseUseNoHeap) {
    std::string received;
    {
        Peer peer(options(), [&](PeerConnection& connection) {
            received = connection.read(4);
            if (GetParam() == Carrier::kTls13) {
                connection.update_keys(); // the next write finds this and tickets pending
            }
            received += connection.read_all();
        });
        Client client(GetParam());
        ASSERT_TRUE(client.up(peer)) << client.error();
        handled = &client;
        heap_calls = 0;
        {
            const Handler handler(count_write);
            raise(SIGUSR2);
            EXPECT_EQ(result, 75);
            client.write("");
            EXPECT_TRUE(GetParam() != Carrier::kTls13 || wait_until([&] { return client.pending() > 0; }));
            raise(SIGUSR2); // something pending
            EXPECT_EQ(result, 75);
            EXPECT_EQ(client.write(""), 0);
            raise(SIGUSR2); // taken in
            EXPECT_EQ(result, 75);
        }
        const Handler handler(count_close);
        const int socket = client.record.iSocketNo;
        raise(SIGUSR2);
        EXPECT_EQ(result, 0);
        EXPECT_EQ(client.record.iSocketNo, 0);
        EXPECT_EQ(client.record.iStat, 0);
        EXPECT_EQ(client.record.ssl, nullptr);
        EXPECT_EQ(client.record.ctx, nullptr);
        EXPECT_GE(fcntl(socket, F_GETFD), 0); // the number is not given back yet
        {
            const Handler failing(count_write);
            raise(SIGUSR2);
            EXPECT_EQ(result, -1);
            EXPECT_EQ(client.record.iErrorCode, ENOTCONN);
            EXPECT_GE(fcntl(socket, F_GETFD), 0);
        }
        EXPECT_EQ(heap_calls, 0);
        EXPECT_EQ(client.write("x"), -1);
        EXPECT_LT(fcntl(socket, F_GETFD), 0); // now it is
    }
    EXPECT_EQ(received.size(), 3U * 75);
}

TEST_P(HandlerTest, CloseDuringAStalledWriteReachesNothingElse) {
    const pthread_t main_thread = pthread_self();
    Peer peer(options(), [&](PeerConnection& connection) {
        EXPECT_TRUE(wait_until([&] { return connection.pending() > 100'000; }));
        pthread_kill(main_thread, SIGUSR2);
        connection.read_all();
    });
    const struct {
        const char* name;
        int (*next)(Client&);
    } releases[] = {
        {"write", [](Client& client) { return client.write("x") + 1; }},
        {"close", [](Client& client) { return client.close(); }},
        {"init", [](Client& client) { return client.init(); }},
        {"create", [](Client& client) { return netTcpClientCreate(&client.record, record_line); }},
    };
    for (const auto& row : releases) {
        SCOPED_TRACE(row.name);
        Client client(GetParam());
        handled = &client;
        const Handler handler(close_and_open_decoy);
        ASSERT_TRUE(client.up(peer)) << client.error();
        const int socket = client.record.iSocketNo;
        EXPECT_EQ(client.write(huge_data()), -1);
        EXPECT_EQ(Handler::runs(), 1);
        EXPECT_NE(decoy[0], socket);
        EXPECT_NE(decoy[1], socket);
        char byte = 0;
        EXPECT_LT(read(decoy[0], &byte, 1), 0);
        // The latter when the peer answers the cut with an alert.
        EXPECT_THAT(client.error(),
                    testing::AnyOf(testing::HasSubstr("Broken pipe"), testing::HasSubstr("Connection reset by peer")));
        EXPECT_GE(fcntl(socket, F_GETFD), 0);
        EXPECT_EQ(row.next(client), 0);
        EXPECT_LT(fcntl(socket, F_GETFD), 0);
        close(decoy[0]);
        close(decoy[1]);
    }
}

TEST(HandlerClose, DuringTheHandshakeEndsTheConnectCleanly) {
    const pthread_t main_thread = pthread_self();
    for (const int limit : {0, kDeadlineSeconds}) {
        Event done;
        Peer peer({}, [&](PeerConnection& connection) {
            EXPECT_TRUE(wait_until([&] { return connection.pending() > 0; })); // the client's hello
            pthread_kill(main_thread, SIGUSR2);
            EXPECT_TRUE(done.wait());
        });
        Client client(Carrier::kTls13);
        handled = &client;
        client.record.iSndTimeOut = limit;
        const Handler handler(count_close);
        ASSERT_EQ(client.init(NET_TCP_OPT_SNDTIMEO), 0);
        const int before = open_descriptors();
        EXPECT_EQ(client.connect(peer), -1);
        done.set();
        EXPECT_EQ(client.record.iErrorCode, ECONNABORTED);
        EXPECT_THAT(client.error(), testing::HasSubstr("error[103:Software caused connection abort]"));
        EXPECT_EQ(client.record.iSocketNo, 0);
        EXPECT_EQ(client.record.ssl, nullptr);
        EXPECT_EQ(client.record.ctx, nullptr);
        EXPECT_EQ(client.record.iStat, 0);
        EXPECT_TRUE(wait_until([&] { return open_descriptors() <= before; }));
    }
}

std::deque<Client>* crowd = nullptr;

TEST(HandlerClose, OfMoreRecordsThanCanWaitLeavesTheRestOpen) {
    std::deque<Client> clients(20);
    std::vector<int> sockets;
    for (Client& client : clients) {
        ASSERT_EQ(client.init(), 0);
        sockets.push_back(client.record.iSocketNo = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    }
    crowd = &clients;
    const Handler handler([] {
        for (Client& client : *crowd) {
            client.close();
        }
    });
    raise(SIGUSR2);
    int kept = 0;
    for (std::size_t i = 0; i < clients.size(); i++) {
        EXPECT_EQ(clients[i].record.iSocketNo, 0);
        EXPECT_EQ(clients[i].write("x"), -1);
        if (fcntl(sockets[i], F_GETFD) >= 0) {
            kept++;
            close(sockets[i]);
        }
    }
    EXPECT_EQ(kept, 4);
}

} // namespace
} // namespace kvr::test
