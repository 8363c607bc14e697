// SPDX-License-Identifier: MIT
// A client record for tests, with everything it logged.
#pragma once

#include <atomic>
#include <csignal>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "net_tcp_client.h"
#include "support/folder.h"
#include "support/peer.h"

namespace kvr::test {

struct LoggedLine {
    int level;
    std::string place; ///< module/file/function
    std::string text;
    bool operator==(const LoggedLine&) const = default;
};

/// The lines of all clients since the last clear(). Nothing is recorded while a handler runs.
std::vector<LoggedLine>& logged_lines();
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
    /// Bytes that the peer sent and nobody took in.
    int pending() const;
    bool readable() const;

    T_NET_TCPCLIENT record{};

  private:
    int tls_option_;
};

/// A suite that runs over carriers.
class CarrierTest : public testing::TestWithParam<Carrier> {
  protected:
    static PeerOptions options() {
        PeerOptions made;
        made.carrier = GetParam();
        return made;
    }
    static bool tls() { return GetParam() != Carrier::kPlain; }
};
inline std::string carrier_of(const testing::TestParamInfo<Carrier>& info) {
    return carrier_name(info.param);
}

/// Sends SIGUSR2 to the thread that made it, again and again, until it goes.
class Pestering {
  public:
    Pestering();
    ~Pestering();
    Pestering(const Pestering&) = delete;
    Pestering& operator=(const Pestering&) = delete;

  private:
    std::atomic<bool> ended_ = false;
    std::thread thread_;
};

template <std::size_t N>
void set_text(char (&field)[N], const std::string& text) {
    ASSERT_LT(text.size(), N);
    memcpy(field, text.c_str(), text.size() + 1);
}

/// Runs `action` in a handler of SIGUSR2, installed without SA_RESTART, while it lives.
class Handler {
  public:
    explicit Handler(void (*action)());
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
