// SPDX-License-Identifier: MIT
// Private to net_tcp_client.cpp, after net_tcp_retired.inl: the handshake, the reading of what a peer says unasked, the
// texts of TLS failures.

#include <cerrno>

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace {

/// select and poll report a TLS socket as readable from this many bytes on (one full record), or at the peer's close.
/// A server sends session tickets after the handshake, whenever it likes; they are a few hundred bytes and say nothing
/// about the line, so they must not look like a receiver that speaks or leaves.
constexpr int TLS_RCV_LOWAT = 16384;
/// Records taken in by one drain; a peer that sends more is drained further by the next write.
constexpr int DRAIN_RECORDS_MAX = 64;

constexpr char TLS_CLOSED[] = "connection closed by peer";
constexpr char NO_REASON[] = "no reason given";

/// Why an operation failed, as errno tells it. `psElse` serves when it does not. Callable from a handler.
T_REASON ErrnoReason(int iErrno, const char* psElse = NO_REASON) {
    switch (iErrno) {
    case 0:
        return MakeReason(0, "%s", psElse);
    case EAGAIN:
        return MakeReason(ETIMEDOUT, "timed out");
    case EINTR:
        return MakeReason(EINTR, "interrupted");
    default:
        return ErrnoText(iErrno);
    }
}

/// The reason of the failure that just happened; empties OpenSSL's error queue. `iErrno` is errno as the failed
/// operation left it and serves when OpenSSL knows no reason. Emptying the queue frees memory: outside a handler only.
T_REASON TlsReason(int iErrno, const char* psElse = NO_REASON) {
    const unsigned long ulErr = ERR_peek_error();
    ERR_clear_error();
    if (ERR_SYSTEM_ERROR(ulErr)) {
        return ErrnoText(ERR_GET_REASON(ulErr));
    }
    const char* psReason = ulErr != 0 ? ERR_reason_error_string(ulErr) : nullptr;
    return psReason != nullptr ? MakeReason(0, "%s", psReason) : ErrnoReason(iErrno, psElse);
}

/// Waits until the socket is ready for what the handshake wants: 0, or the errno of a failure. A negative deadline is
/// none.
int WaitHandshake(int iSocketNo, int iSslError, long lDeadlineMs) {
    constexpr long HOUR_MS = 3600000;
    const long lLeftMs = lDeadlineMs < 0 ? HOUR_MS : lDeadlineMs - NowMs();
    if (lLeftMs <= 0) {
        return EAGAIN;
    }
    pollfd tPoll{iSocketNo, static_cast<short>(iSslError == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT), 0};
    return poll(&tPoll, 1, static_cast<int>(lLeftMs < HOUR_MS ? lLeftMs : HOUR_MS)) < 0 ? errno : 0;
}

/// The client's handshake on a socket that does not block: 1, or another value with the reason set. A limit above 0
/// (seconds) covers all of it; without one only a signal ends the wait for a silent server.
int Handshake(SSL* ssl, int iSocketNo, int iLimit, T_REASON* ptReason) {
    const long lDeadlineMs = iLimit > 0 ? NowMs() + iLimit * 1000L : -1;
    for (;;) {
        errno = 0;
        const int iRet = SSL_connect(ssl);
        int iErrno = errno;
        if (iRet == 1) {
            return iRet;
        }
        const int iSslError = iErrno == EAGAIN ? SSL_get_error(ssl, iRet) : SSL_ERROR_SSL;
        if (iSslError == SSL_ERROR_WANT_READ || iSslError == SSL_ERROR_WANT_WRITE) {
            iErrno = WaitHandshake(iSocketNo, iSslError, lDeadlineMs);
            if (iErrno == 0) {
                continue;
            }
        }
        *ptReason = TlsReason(iErrno, TLS_CLOSED);
        return iRet;
    }
}

/// True when the peer has sent something that was not looked at yet.
bool HasPending(SSL* ssl, int iSocketNo) {
    int iBytes = 0;
    return SSL_pending(ssl) > 0 || (ioctl(iSocketNo, FIONREAD, &iBytes) == 0 && iBytes > 0);
}

/// The answer to a peer that changed its keys goes out now: left to the next write, that could be one in a handler,
/// which may not allocate.
void AnswerKeyUpdate(SSL* ssl) {
    const int iType = SSL_get_key_update_type(ssl);
    if (iType != SSL_KEY_UPDATE_NONE && SSL_key_update(ssl, iType) == 1) {
        SSL_do_handshake(ssl);
    }
    ERR_clear_error();
}

enum E_DRAIN {
    eDrainDone,
    eDrainData,   ///< application data waits
    eDrainClosed, ///< the peer said that it sends no more
    eDrainLost,   ///< a fatal alert, a damaged record or an end of stream without notice
};

/// Takes in what the peer sent unasked: session tickets and key updates are consumed without waiting, application data
/// stays for a read. Unread bytes would make the kernel reset the connection at its end and so lose data already sent.
/// Without `iSeeEnd` an end of stream behind those bytes is left for later. Outside a handler only. Sets the reason
/// when the line is lost or holds data.
E_DRAIN Drain(SSL* ssl, int iSocketNo, int iSeeEnd, T_REASON* ptReason) {
    E_DRAIN eRet = eDrainDone;
    SSL_clear_mode(ssl, SSL_MODE_AUTO_RETRY);
    for (int i = 0; i < DRAIN_RECORDS_MAX && (iSeeEnd || HasPending(ssl, iSocketNo)); i++) {
        char cData = 0;
        errno = 0;
        const int iRet = SSL_peek(ssl, &cData, 1);
        const int iErrno = errno;
        if (iRet > 0) {
            *ptReason = MakeReason(0, "receiver sent data");
            eRet = eDrainData;
            break;
        }
        const int iSslError = SSL_get_error(ssl, iRet);
        if (iSslError == SSL_ERROR_WANT_READ && iErrno != EAGAIN) {
            continue;
        }
        if (iSslError != SSL_ERROR_WANT_READ && iSslError != SSL_ERROR_WANT_WRITE) {
            *ptReason = TlsReason(iErrno, TLS_CLOSED);
            eRet = iSslError == SSL_ERROR_ZERO_RETURN ? eDrainClosed : eDrainLost;
        }
        break;
    }
    if (eRet == eDrainDone) {
        AnswerKeyUpdate(ssl);
    }
    SSL_set_mode(ssl, SSL_MODE_AUTO_RETRY);
    return eRet;
}

} // namespace
