// SPDX-License-Identifier: MIT
// Private to the library: what its units share. Each block names the unit that holds it.
#pragma once

#include <atomic>
#include <cerrno>
#include <cstdint>

#include <openssl/types.h>

#include "net_tcp_client.h"

// ---- net_tcp_handler.cpp: whether an operation runs in a signal handler

/// Takes the calling thread's signal mask for that of the main flow. Before the first call that is an empty one.
void MarkMainFlow();

/// A handler runs with its own signal held, so a signal that has a handler is held beside those of the main flow. The
/// main flow that holds such a one counts as a handler too: what it closes is released a little later, and a failed
/// write shows errno's reason. A held signal without a handler does not count.
/// Callable from a handler. Operations of the main flow alone do not ask.
int InHandler();

// ---- net_tcp_stderr.cpp: the TLS helpers' lines on standard error

/// Writes one line, cut at 1,022 bytes. A reader that does not read, or none, costs the line and nothing else: the call
/// never waits. Keeps errno. Callable from a handler.
__attribute__((format(printf, 1, 2))) void ErrLine(const char* psFmt, ...);

// ---- net_tcp_wait.cpp: waiting on a socket, for as long as its own time-outs allow. All of it may run in a handler.

/// Monotonic; exact to a few milliseconds.
long NowMs();

/// Makes the socket one that does not block. The result is what EndNonBlock takes to put back the mode that it had;
/// that keeps errno.
int BeginNonBlock(int iSocketNo);
void EndNonBlock(int iSocketNo, int iFlags);

/// The waits of one write. Zeroed by the caller before the first.
struct T_SEND_WAIT {
    long lLimitMs;        ///< the socket's send time-out; 0: not looked up yet, negative: none
    long lDeadlineMs;     ///< without progress
    uint64_t ullAccepted; ///< as given to the last wait
    int iUnacked;         ///< bytes that the peer's end had not taken at the last look
};

/// Waits until the socket takes more: 0, or the errno of what ended the wait. The send time-out starts anew with every
/// progress, which is that bytes were accepted since the last wait (`ullAccepted` counts them) or that the peer's end
/// took some; EAGAIN when it runs out.
int WaitToSend(int iSocketNo, uint64_t ullAccepted, T_SEND_WAIT* ptWait);

/// Waits until a byte can be read, or the stream has ended: 0, or errno; EAGAIN when the receive time-out runs out.
/// Takes no notice of the socket's low-water mark.
int WaitToRead(int iSocketNo);

// ---- net_tcp_heap.cpp: memory for OpenSSL during a write

/// Small blocks come from a fixed pool until EndPool, which takes the result: true unless this thread was writing
/// already, or another one is, which leaves this one with the heap.
bool BeginPool();
void EndPool(bool bOwner);

// ---- net_tcp_keylog.cpp

/// Has the keys of the context's sessions written down, and says so in the log at each call, where the environment asks
/// for it (key_log_env.h); else it does nothing. Main flow only.
void LogKeys(T_NET_TCPCLIENT* ptClient, SSL_CTX* ctx);

// ---- net_tcp_error.cpp: how an operation reports its failure. All of it may run in a handler.

constexpr char LOG_MODULE[] = "$net_tcp";
constexpr char LOG_FILE[] = "net_tcp_client"; ///< of every unit's lines, as operators know it

#define NET_TCP_LOG(ptClient, iLevel, psFunc, psFmt, ...)                                                              \
    (ptClient)->pfnLogPrint(nullptr, iLevel, const_cast<char*>(LOG_MODULE), const_cast<char*>(LOG_FILE), __LINE__,     \
                            psFunc, const_cast<char*>(psFmt) __VA_OPT__(, ) __VA_ARGS__)

/// Stores code and text of a failure, logs the text and leaves errno telling of it. The arguments are used twice: none
/// may have a side effect, such as emptying OpenSSL's error queue.
#define NET_TCP_FAIL(ptClient, iCode, psFunc, psFmt, ...)                                                              \
    do {                                                                                                               \
        SetError(ptClient, iCode, psFmt, __VA_ARGS__);                                                                 \
        NET_TCP_LOG(ptClient, 1, psFunc, psFmt, __VA_ARGS__);                                                          \
        errno = (iCode) > 0 ? (iCode) : EPROTO;                                                                        \
    } while (0)

constexpr char NO_REASON[] = "no reason given";
constexpr char TLS_CLOSED[] = "connection closed by peer";

/// Room for a reason; a longer one is cut.
constexpr int REASON_LEN = 384;

/// Why an operation failed.
struct T_REASON {
    int iErrno; ///< for the caller's caller; never 0
    char sText[REASON_LEN];
};

__attribute__((format(printf, 2, 3))) T_REASON MakeReason(int iErrno, const char* psFmt, ...);

/// strerror is not to be called in a signal handler; this is.
T_REASON ErrnoText(int iErrno);

/// Why an operation failed, as errno tells it. `psElse` serves when it does not.
T_REASON ErrnoReason(int iErrno, const char* psElse = NO_REASON);

/// Every write begins here, so what is clear already is not cleared again.
void ClearError(T_NET_TCPCLIENT* ptClient);

/// A handler may clear the error in the middle of this: the text is made elsewhere and stored before the code, so that
/// nothing of it outlives the next clear.
__attribute__((format(printf, 3, 4))) void SetError(T_NET_TCPCLIENT* ptClient, int iCode, const char* psFmt, ...);

// ---- net_tcp_retired.cpp: who owns a connection's resources
//
// A handler may interrupt a write that holds the descriptor number and the session in its hands, so it gives neither
// back: it puts them aside. The next operation outside a handler on the same record releases them. Each resource is
// taken out of the record by an atomic exchange, so it has one owner at every instruction: the record, a slot aside, or
// the local variables of the operation that releases it.

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
void ReleaseConn(int iSocketNo, SSL* ssl, SSL_CTX* ctx);

/// Makes a connection unusable and puts it aside. Callable from a handler.
void RetireConn(const void* pOwner, int iSocketNo, SSL* ssl, SSL_CTX* ctx);

/// Whether anything lies aside, of whatever record.
bool HasRetired();

/// Releases what handlers put aside for this record. Outside a handler only.
void ReleaseRetired(const void* pOwner);

/// Ends the record's connection; the TLS context stays. Main flow only.
void DropConn(T_NET_TCPCLIENT* ptClient);

// ---- net_tcp_tls.cpp: handshake, what a peer says unasked, the end of a TLS line. Outside a handler only.

/// The reason of the failure that just happened; empties OpenSSL's error queue, which frees memory. `iErrno` is errno
/// as the failed operation left it and serves when OpenSSL knows no reason.
T_REASON TlsReason(int iErrno, const char* psElse = NO_REASON);

/// Handshake and check of the peer on the connected socket. 0 or -1 with the error set; no data goes out before.
int StartTls(T_NET_TCPCLIENT* ptClient, int iSocketNo, int iOptions);

/// The look before a write: false, with the reason, when the peer said something or left. In a handler the write itself
/// has to find that out.
bool MayWrite(SSL* ssl, int iSocketNo, T_REASON* ptReason);

/// Sends the end of the stream and waits a moment for the peer's. Session tickets that are unread when the last
/// descriptor goes, or still on their way from a peer that is behind with its handshake, would make the kernel reset
/// the connection and throw away what the peer has not read yet. A peer that keeps up answers at once, and a slow one
/// has sent its tickets by then.
void EndTls(int iSocketNo);

// ---- net_tcp_connect.cpp

constexpr char CONNECT_FUNC[] = "netTcpClientConnect";

/// The connect of a record that has no connection. 0 or -1 with the error set; the socket may then still be open. Main
/// flow only, but a handler may close the connection between any two steps.
int Connect(T_NET_TCPCLIENT* ptClient, char* psAddr, int iPort, int iOptions);

/// After a step that can take time: whether a handler closed the connection meanwhile, with the error then set.
bool WasClosed(T_NET_TCPCLIENT* ptClient, int iSocketNo);
