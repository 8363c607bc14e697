// SPDX-License-Identifier: MIT
// Private to net_tcp_client.cpp, after net_tcp_retired.inl: the handshake, the reading of what a peer says unasked, the
// texts of TLS failures.

#include <cerrno>
#include <cstring>
#include <ctime>

#include <fcntl.h>
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
const char* ErrnoReason(int iErrno, const char* psElse = NO_REASON) {
    switch (iErrno) {
    case 0:
        return psElse;
    case EAGAIN:
        return "timed out";
    case EINTR:
        return "interrupted";
    default:
        return ErrnoText(iErrno);
    }
}

/// The reason of the failure that just happened, as static text; empties OpenSSL's error queue. `iErrno` is errno as
/// the failed operation left it and serves when OpenSSL knows no reason. Emptying the queue frees memory: outside a
/// handler only.
const char* TlsReason(int iErrno, const char* psElse = NO_REASON) {
    const unsigned long ulErr = ERR_peek_error();
    const char* psReason = nullptr;
    if (ulErr != 0) {
        psReason = ERR_SYSTEM_ERROR(ulErr) ? ErrnoText(ERR_GET_REASON(ulErr)) : ERR_reason_error_string(ulErr);
        ERR_clear_error();
    }
    return psReason != nullptr ? psReason : ErrnoReason(iErrno, psElse);
}

bool SetNonBlock(int iSocketNo, int iOn) {
    const int iFlags = fcntl(iSocketNo, F_GETFL);
    return iFlags >= 0 && fcntl(iSocketNo, F_SETFL, iOn ? iFlags | O_NONBLOCK : iFlags & ~O_NONBLOCK) == 0;
}

/// Waits until the socket is ready for what the handshake wants: 0, or the errno of a failure.
int WaitHandshake(int iSocketNo, int iSslError, const timespec& tDeadline) {
    timespec tNow{};
    clock_gettime(CLOCK_MONOTONIC, &tNow);
    const long lLeftMs = (tDeadline.tv_sec - tNow.tv_sec) * 1000 + (tDeadline.tv_nsec - tNow.tv_nsec) / 1000000;
    if (lLeftMs <= 0) {
        return EAGAIN;
    }
    pollfd tPoll{iSocketNo, static_cast<short>(iSslError == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT), 0};
    const int iRet = poll(&tPoll, 1, lLeftMs > 3600000 ? 3600000 : static_cast<int>(lLeftMs));
    return iRet < 0 ? errno : 0;
}

/// The client's handshake: 1, or another value with the reason set. A limit above 0 (seconds) covers all of it; without
/// one only a signal ends the wait for a silent server. Leaves the socket blocking.
int Handshake(SSL* ssl, int iSocketNo, int iLimit, const char** ppsReason) {
    timespec tDeadline{};
    clock_gettime(CLOCK_MONOTONIC, &tDeadline);
    tDeadline.tv_sec += iLimit;
    if (iLimit > 0) {
        SetNonBlock(iSocketNo, true);
    }
    int iRet = 0;
    int iErrno = 0;
    for (;;) {
        errno = 0;
        iRet = SSL_connect(ssl);
        iErrno = errno;
        if (iRet == 1 || iLimit <= 0) {
            break;
        }
        const int iSslError = SSL_get_error(ssl, iRet);
        if (iSslError != SSL_ERROR_WANT_READ && iSslError != SSL_ERROR_WANT_WRITE) {
            break;
        }
        iErrno = WaitHandshake(iSocketNo, iSslError, tDeadline);
        if (iErrno != 0) {
            break;
        }
    }
    if (iLimit > 0) {
        SetNonBlock(iSocketNo, false);
    }
    if (iRet != 1) {
        *ppsReason = TlsReason(iErrno, TLS_CLOSED);
    }
    return iRet;
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
E_DRAIN Drain(SSL* ssl, int iSocketNo, int iSeeEnd, const char** ppsReason) {
    E_DRAIN eRet = eDrainDone;
    if (!SetNonBlock(iSocketNo, true)) {
        return eRet; // a look could wait for ever behind the last ticket: left to the next drain
    }
    SSL_clear_mode(ssl, SSL_MODE_AUTO_RETRY);
    for (int i = 0; i < DRAIN_RECORDS_MAX && (iSeeEnd || HasPending(ssl, iSocketNo)); i++) {
        char cData = 0;
        errno = 0;
        const int iRet = SSL_peek(ssl, &cData, 1);
        const int iErrno = errno;
        if (iRet > 0) {
            *ppsReason = "receiver sent data";
            eRet = eDrainData;
            break;
        }
        const int iSslError = SSL_get_error(ssl, iRet);
        if (iSslError == SSL_ERROR_WANT_READ && iErrno != EAGAIN) {
            continue;
        }
        if (iSslError != SSL_ERROR_WANT_READ && iSslError != SSL_ERROR_WANT_WRITE) {
            *ppsReason = TlsReason(iErrno, TLS_CLOSED);
            eRet = iSslError == SSL_ERROR_ZERO_RETURN ? eDrainClosed : eDrainLost;
        }
        break;
    }
    if (eRet == eDrainDone) {
        AnswerKeyUpdate(ssl);
    }
    SSL_set_mode(ssl, SSL_MODE_AUTO_RETRY);
    SetNonBlock(iSocketNo, false);
    return eRet;
}

} // namespace
