// SPDX-License-Identifier: MIT
// A client record for tests, with everything it logged, and a signal handler that works on it.
#pragma once

#include <csignal>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "net_tcp_client.h"
#include "support/folder.h"
#include "support/peer.h"

namespace kvr::test {

/// "<level> <module>/<file>/<function> <text>" of each line since the latest Client was made. Nothing is recorded while
/// a handler runs.
std::vector<std::string>& logged_lines();
int record_line(char* psTag, int iLevel, char* psMod, char* psFile, int iLine, const char* psFunc, char* psFmt, ...)
    __attribute__((format(printf, 7, 8)));

class Client {
  public:
    explicit Client(Carrier carrier = Carrier::kPlain);
    ~Client() { record.pfnClose(&record, 0); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    int init(int extra_options = 0) { return record.pfnInit(&record, tls_option_ | extra_options); }
    int connect(int port, const char* address = "127.0.0.1", int options = 0);
    int connect(const Peer& peer) { return connect(peer.port()); }
    /// Init and connect.
    bool up(const Peer& peer, int extra_options = 0) { return init(extra_options) == 0 && connect(peer) == 0; }
    int write(const std::string& data);
    int close() { return record.pfnClose(&record, 0); }
    std::string error() const { return record.sErrorStr; }
    /// No socket and no session; `context` tells whether the TLS context stands.
    void expect_down(bool context) const;
    /// Bytes that the peer sent and nobody took in.
    int pending() const;
    /// The connection takes no more bytes: a write waits.
    bool stalled() const;

    T_NET_TCPCLIENT record{};

  private:
    int tls_option_;
};

/// A suite that runs over carriers.
class CarrierTest : public testing::TestWithParam<Carrier> {
  protected:
    CarrierTest() { options_.carrier = GetParam(); }
    static bool tls() { return GetParam() != Carrier::kPlain; }
    PeerOptions options_;
};
inline std::string carrier_of(const testing::TestParamInfo<Carrier>& info) {
    return carrier_name(info.param);
}
inline const auto kAllCarriers = testing::Values(Carrier::kPlain, Carrier::kTls12, Carrier::kTls13);

template <std::size_t N>
void set_text(char (&field)[N], const std::string& text) {
    ASSERT_LT(text.size(), N);
    memcpy(field, text.c_str(), text.size() + 1);
}

/// Runs `action` in a handler of SIGUSR2, installed without SA_RESTART, while it lives.
class Handler {
  public:
    explicit Handler(std::function<void()> action);
    ~Handler();
    Handler(const Handler&) = delete;
    Handler& operator=(const Handler&) = delete;

    /// Times that the handler has run.
    static int runs();

  private:
    struct sigaction before_ {};
};

/// More than the buffers of a connection hold: writing it stalls when the peer does not read.
const std::string& huge_data();

} // namespace kvr::test
