// SPDX-License-Identifier: MIT
// Private to net_tcp_client.cpp: connections that a signal handler closed and the main flow has yet to release.
//
// A handler may interrupt a write that holds the descriptor number and the session in its hands, so it gives neither
// back: it moves them here. The next operation outside a handler on the same record releases them. Each resource is
// taken out of the record by an atomic exchange, so it has one owner at every instruction: the record, a slot here, or
// the local variables of the operation that releases it.

#include <atomic>
#include <cstddef>

#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

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

/// Takes a resource out of the record: of two that try, one gets it.
template <typename T>
T Take(T& tField) {
    return std::atomic_ref<T>(tField).exchange(T{});
}

template <typename T>
T Look(T& tField) {
    return std::atomic_ref<T>(tField).load();
}

/// Outside a handler only. Any argument may be 0 or null.
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

/// Makes a connection unusable and puts it aside. Callable from a handler.
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

/// Releases what handlers put aside for this record. Outside a handler only.
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

/// Ends the record's connection; the TLS context stays. Main flow only.
void DropConn(T_NET_TCPCLIENT* ptClient) {
    const int iSocketNo = Take(ptClient->iSocketNo);
    ReleaseConn(iSocketNo, Take(ptClient->ssl), nullptr);
    ReleaseRetired(ptClient);
}

} // namespace
