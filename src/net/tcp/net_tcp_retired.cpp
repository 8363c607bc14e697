// SPDX-License-Identifier: MIT
// Connections that a signal handler closed and the main flow has yet to release (contracts in net_tcp_private.h).
#include <cstddef>

#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "net_tcp_private.h"

namespace {

/// One record can fill at most two slots between two operations of its main flow. Beyond that nothing is released:
/// the connection is only shut down.
constexpr int RETIRED_MAX = 16;
/// Bytes discarded before a TLS socket is closed; what remains unread makes the kernel reset the connection.
constexpr int DISCARD_BUF_LEN = 2048;
constexpr int DISCARD_READS_MAX = 32;

enum E_SLOT_STATE { eSlotFree, eSlotBusy, eSlotFull };

struct T_RETIRED {
    std::atomic<int> iState; ///< E_SLOT_STATE; busy while its fields are written or read
    int iSocketNo;
    const void* pOwner; ///< the record
    SSL* ssl;
    SSL_CTX* ctx;
};
static_assert(std::atomic<int>::is_always_lock_free);

T_RETIRED f_tRetired[RETIRED_MAX];
std::atomic<int> f_iRetiredCnt; ///< slots in use: the common case is one look at a zero

} // namespace

void ReleaseConn(int iSocketNo, SSL* ssl, SSL_CTX* ctx) {
    SSL_CTX_free(ctx);
    if (iSocketNo > 0 && ssl != nullptr) {
        char sBuf[DISCARD_BUF_LEN];
        for (int i = 0; i < DISCARD_READS_MAX && recv(iSocketNo, sBuf, sizeof(sBuf), MSG_DONTWAIT) > 0; i++) {
        }
    }
    SSL_free(ssl);
    if (iSocketNo > 0) {
        close(iSocketNo);
    }
}

void RetireConn(const void* pOwner, int iSocketNo, SSL* ssl, SSL_CTX* ctx) {
    if (iSocketNo > 0) {
        shutdown(iSocketNo, SHUT_RDWR);
    }
    if (iSocketNo <= 0 && ssl == nullptr && ctx == nullptr) {
        return;
    }
    for (auto& tSlot : f_tRetired) {
        int iFree = eSlotFree;
        if (tSlot.iState.compare_exchange_strong(iFree, eSlotBusy)) {
            tSlot.pOwner = pOwner;
            tSlot.iSocketNo = iSocketNo;
            tSlot.ssl = ssl;
            tSlot.ctx = ctx;
            f_iRetiredCnt++;
            tSlot.iState = eSlotFull;
            return;
        }
    }
}

bool HasRetired() {
    return f_iRetiredCnt != 0;
}

void ReleaseRetired(const void* pOwner) {
    if (f_iRetiredCnt == 0) {
        return;
    }
    for (auto& tSlot : f_tRetired) {
        if (tSlot.iState != eSlotFull || tSlot.pOwner != pOwner) {
            continue;
        }
        tSlot.iState = eSlotBusy;
        const int iSocketNo = tSlot.iSocketNo;
        SSL* ssl = tSlot.ssl;
        SSL_CTX* ctx = tSlot.ctx;
        f_iRetiredCnt--;
        tSlot.iState = eSlotFree;
        ReleaseConn(iSocketNo, ssl, ctx);
    }
}

void DropConn(T_NET_TCPCLIENT* ptClient) {
    const int iSocketNo = Take(ptClient->iSocketNo);
    ReleaseConn(iSocketNo, Take(ptClient->ssl), nullptr);
    ReleaseRetired(ptClient);
}
