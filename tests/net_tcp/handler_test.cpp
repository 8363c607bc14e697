// SPDX-License-Identifier: MIT
// Writes and closes in a signal handler: no foreign byte, nothing allocated or freed, nothing released twice or lost.
#include <cerrno>
#include <cstdlib>

#include <fcntl.h>
#include <openssl/ssl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include "net_tcp/client.h"
#include "support/heap_watch.h"

namespace kvr::test {
namespace {

/// Uses of the heap while a handler counts them.
thread_local volatile bool counting = false;
volatile int heap_calls = 0;

int result = 0;

using HandlerTest = CarrierTest;
INSTANTIATE_TEST_SUITE_P(Carriers, HandlerTest, kAllCarriers, carrier_of);

void count_write(Client& client) {
    static char frame[75];
    counting = true;
    result = client.record.pfnWrite(&client.record, frame, sizeof(frame), 0);
    counting = false;
}

void count_close(Client& client) {
    counting = true;
    result = client.record.pfnClose(&client.record, 0);
    counting = false;
}

/// `suite` null: what both ends prefer.
void expect_no_heap(const PeerOptions& options, const char* suite) {
    SCOPED_TRACE(suite != nullptr ? suite : "preferred");
    std::string received;
    {
        Peer peer(options, [&](PeerConnection& connection) {
            received = connection.read(4);
            if (options.carrier == Carrier::kTls13) {
                connection.update_keys(); // the next write finds this and tickets pending
            }
            received += connection.read_all();
        });
        Client client(options.carrier);
        ASSERT_EQ(client.init(), 0);
        EXPECT_TRUE(suite == nullptr || SSL_CTX_set_cipher_list(client.record.ctx, suite) == 1);
        ASSERT_EQ(client.connect(peer), 0) << client.error();
        heap_used = [] { heap_calls = heap_calls + (counting ? 1 : 0); };
        heap_calls = 0;
        {
            const Handler handler([&] { count_write(client); });
            raise(SIGUSR2);
            EXPECT_EQ(result, 75);
            client.write("");
            EXPECT_TRUE(options.carrier != Carrier::kTls13 || wait_until([&] { return client.pending() > 0; }));
            raise(SIGUSR2); // something pending
            EXPECT_EQ(result, 75);
            EXPECT_EQ(client.write(""), 0);
            raise(SIGUSR2); // taken in
            EXPECT_EQ(result, 75);
        }
        const int socket = client.record.iSocketNo;
        {
            const Handler handler([&] { count_close(client); });
            raise(SIGUSR2);
            EXPECT_EQ(result, 0);
            client.expect_down(false);
            EXPECT_GE(fcntl(socket, F_GETFD), 0);             // the number is not given back yet
            EXPECT_LT(send(socket, "x", 1, MSG_NOSIGNAL), 0); // but takes nothing any more
        }
        const Handler failing([&] { count_write(client); });
        raise(SIGUSR2);
        EXPECT_EQ(result, -1);
        EXPECT_EQ(client.record.iErrorCode, options.carrier == Carrier::kPlain ? ENOTCONN : -1);
        EXPECT_GE(fcntl(socket, F_GETFD), 0);
        EXPECT_EQ(heap_calls, 0);
        EXPECT_EQ(client.write("x"), -1);
        EXPECT_LT(fcntl(socket, F_GETFD), 0); // now it is
    }
    EXPECT_EQ(received.size(), 3U * 75);
}

TEST_P(HandlerTest, WriteAndCloseUseNoHeap) {
    expect_no_heap(options_, nullptr);
    if (GetParam() == Carrier::kTls12) { // these make a digest of each record beside the cipher
        for (const char* suite : {"ECDHE-ECDSA-AES256-SHA384", "ECDHE-ECDSA-AES128-SHA256", "ECDHE-ECDSA-AES256-SHA"}) {
            expect_no_heap(options_, suite);
        }
    }
}

TEST(HandlerClose, DuringTheHandshakeEndsTheConnectCleanly) {
    const pthread_t main_thread = pthread_self();
    for (const int limit : {0, kDeadlineSeconds}) {
        Client client(Carrier::kTls13);
        const Handler handler([&] { count_close(client); });
        Event done;
        Peer peer({}, [&](PeerConnection& connection) {
            EXPECT_TRUE(wait_until([&] { return connection.pending() > 0; })); // the client's hello
            pthread_kill(main_thread, SIGUSR2);
            EXPECT_TRUE(done.wait());
        });
        client.record.iSndTimeOut = limit;
        ASSERT_EQ(client.init(NET_TCP_OPT_SNDTIMEO), 0);
        const int before = open_descriptors();
        EXPECT_EQ(client.connect(peer), -1);
        done.set();
        EXPECT_EQ(client.record.iErrorCode, ECONNABORTED);
        EXPECT_THAT(client.error(), testing::HasSubstr("error[103:Software caused connection abort]"));
        client.expect_down(false);
        EXPECT_TRUE(wait_until([&] { return open_descriptors() <= before; }));
    }
}

} // namespace
} // namespace kvr::test
