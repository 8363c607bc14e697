// SPDX-License-Identifier: MIT
// A client record for tests, with everything it logged.
#pragma once

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <vector>

#include <gmock/gmock.h>

#include "net_tcp_client.h"
#include "support/folder.h"
#include "support/peer.h"

namespace kvr::test {

/// "<level> <operation> <text>" of each line since the latest Client was made.
inline std::vector<std::string> logged_lines;

__attribute__((format(printf, 7, 8))) inline int record_line(char* /*psTag*/, int iLevel, char* psMod, char* psFile,
                                                             int /*iLine*/, const char* psFunc, char* psFmt, ...) {
    EXPECT_EQ(std::string(psMod) + "/" + psFile + "/" + std::string(psFunc, 12),
              "$net_tcp/net_tcp_client/netTcpClient");
    char text[4096];
    va_list arguments;
    va_start(arguments, psFmt);
    vsnprintf(text, sizeof(text), psFmt, arguments);
    va_end(arguments);
    logged_lines.push_back(std::to_string(iLevel) + " " + (psFunc + strlen("netTcpClient")) + " " + text);
    errno = EDOM; // a log function may do that
    return 0;
}

template <std::size_t N>
void set_text(char (&field)[N], const std::string& text) {
    ASSERT_LT(text.size(), N);
    memcpy(field, text.c_str(), text.size() + 1);
}

struct Client : T_NET_TCPCLIENT {
    /// With the files of a client that every peer trusts, over a record that holds anything.
    explicit Client(Carrier carrier) : carrier_option(carrier == Carrier::kPlain ? 0 : NET_TCP_OPT_SSL) {
        signal(SIGPIPE, SIG_IGN);
        logged_lines.clear();
        memset(static_cast<T_NET_TCPCLIENT*>(this), 0x5a, sizeof(T_NET_TCPCLIENT));
        netTcpClientCreate(this, record_line);
        set_text(sCaFile, tls_material().ca_file);
        set_text(sCertFile, tls_material().client.cert_file);
        set_text(sKeyFile, tls_material().client.key_file);
    }
    ~Client() { close(); }

    int init(int extra_options = 0) { return pfnInit(this, carrier_option | extra_options); }
    int connect(int port, std::string address = "127.0.0.1", int options = 0) {
        return pfnConnect(this, address.data(), port, options);
    }
    /// Init and connect.
    bool up(const Peer& peer, int extra_options = 0) { return init(extra_options) == 0 && connect(peer.port()) == 0; }
    int write(const std::string& data) {
        // The operation only reads what its parameter lets it write.
        return pfnWrite(this, const_cast<char*>(data.data()), static_cast<int>(data.size()), 0);
    }
    /// What came is in `got`.
    int read(int size) {
        int length = -1;
        got.assign(static_cast<std::size_t>(size), '\0');
        const int result = pfnRead(this, got.data(), size, &length, 0);
        got.resize(static_cast<std::size_t>(length));
        return result;
    }
    int close() { return pfnClose(this, 0); }
    std::string error() const { return sErrorStr; }
    /// Not connected, without socket or session; `context` tells whether the TLS context stands.
    bool is_down(bool context) const {
        return iStat == 0 && iSocketNo == 0 && ssl == nullptr && (ctx != nullptr) == context;
    }

    int carrier_option;
    std::string got;
};

inline std::string carrier_of(const testing::TestParamInfo<Carrier>& info) {
    return carrier_name(info.param);
}

} // namespace kvr::test
