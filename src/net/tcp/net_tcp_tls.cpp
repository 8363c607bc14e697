// SPDX-License-Identifier: MIT
// A connection inside TLS: the handshake, the reading of what a peer says unasked, the end of the line, the texts of
// failures (contracts in net_tcp_private.h).
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "net_tcp_common.h"
#include "net_tcp_private.h"

namespace {

/// select and poll report a TLS socket as readable from this many bytes on (one full record), or at the peer's close.
/// A server sends session tickets after the handshake, whenever it likes; they are a few hundred bytes and say nothing
/// about the line, so they must not look like a receiver that speaks or leaves.
constexpr int TLS_RCV_LOWAT = 16384;
/// Records taken in by one drain; a peer that sends more is drained further by the next write.
constexpr int DRAIN_RECORDS_MAX = 64;

constexpr int SUBJECT_LEN = 256;   ///< of a certificate's subject, with its NUL; a longer one is cut
constexpr long END_MS = 300;       ///< wait for the peer's end of a line
constexpr int END_READS_MAX = 128; ///< pieces dropped then: 32 KiB, twice what can lie there unnoticed
constexpr int END_BUF_LEN = 256;

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

/// Why netTcpSSLCheckCert refused the peer, and whose certificate that was.
T_REASON PeerReason(SSL* ssl, int iCheck) {
    X509* ptCert = SSL_get0_peer_certificate(ssl);
    if (ptCert == nullptr) {
        return TlsReason(0, "peer has no certificate");
    }
    const T_REASON tWhy =
        TlsReason(0, iCheck == -2 ? "common name differs" : X509_verify_cert_error_string(SSL_get_verify_result(ssl)));
    char sSubject[SUBJECT_LEN] = {};
    BIO* bio = BIO_new(BIO_s_mem());
    if (bio == nullptr || X509_NAME_print_ex(bio, X509_get_subject_name(ptCert), 0, XN_FLAG_ONELINE) < 0 ||
        BIO_read(bio, sSubject, sizeof(sSubject) - 1) <= 0) {
        sSubject[0] = '\0';
    }
    BIO_free(bio);
    ERR_clear_error();
    return MakeReason(EPROTO, "%s, subject %s", tWhy.sText, sSubject);
}

} // namespace

T_REASON TlsReason(int iErrno, const char* psElse) {
    const unsigned long ulErr = ERR_peek_error();
    ERR_clear_error();
    if (ERR_SYSTEM_ERROR(ulErr)) {
        return ErrnoText(ERR_GET_REASON(ulErr));
    }
    const char* psReason = ulErr != 0 ? ERR_reason_error_string(ulErr) : nullptr;
    return psReason != nullptr ? MakeReason(0, "%s", psReason) : ErrnoReason(iErrno, psElse);
}

int StartTls(T_NET_TCPCLIENT* ptClient, int iSocketNo, int iOptions) {
    ERR_clear_error();
    SSL* ssl = SSL_new(Look(ptClient->ctx));
    if (ssl == nullptr) {
        const T_REASON tWhy = TlsReason(0);
        NET_TCP_FAIL(ptClient, -1, CONNECT_FUNC, "SSL_new error[%s]", tWhy.sText);
        return -1;
    }
    // A write returns after each record, so that its time limit and interruptions are looked at; a server cannot make
    // this end negotiate anew in the middle of a write.
    SSL_set_mode(ssl, SSL_MODE_ENABLE_PARTIAL_WRITE);
    SSL_set_options(ssl, SSL_OP_NO_RENEGOTIATION);
    std::atomic_ref<SSL*>(ptClient->ssl).store(ssl);
    SSL_set_fd(ssl, iSocketNo);
    // From here on the library waits by itself: a look at what has come must not wait at all, and the kernel's own
    // waits know neither progress nor signals.
    BeginNonBlock(iSocketNo);

    const int iLimit = (ptClient->iSockOpt & NET_TCP_OPT_SNDTIMEO) != 0 ? ptClient->iSndTimeOut : 0;
    T_REASON tReason{};
    const int iRet = Handshake(ssl, iSocketNo, iLimit, &tReason);
    if (WasClosed(ptClient, iSocketNo)) {
        return -1;
    }
    if (iRet != 1) {
        NET_TCP_FAIL(ptClient, -1, CONNECT_FUNC, "SSL_connect[%s:%d] error[%s]", ptClient->sRemoteAddr,
                     ptClient->iRemotePort, tReason.sText);
        errno = tReason.iErrno;
        return -1;
    }
    NET_TCP_LOG(ptClient, 5, CONNECT_FUNC, "SSL_connect success.");

    const int iCheck = netTcpSSLCheckCert(ssl, nullptr, iOptions);
    if (iCheck != 0) {
        tReason = PeerReason(ssl, iCheck);
        NET_TCP_FAIL(ptClient, -1, CONNECT_FUNC, "netTcpSSLCheckCert error[%s]", tReason.sText);
        return -1;
    }
    NET_TCP_LOG(ptClient, 5, CONNECT_FUNC, "netTcpSSLCheckCert success.");

    // Before TLS 1.3 nothing comes unasked, and what comes is noticed at the first byte.
    if (SSL_version(ssl) >= TLS1_3_VERSION) {
        const int iLowat = TLS_RCV_LOWAT;
        setsockopt(iSocketNo, SOL_SOCKET, SO_RCVLOWAT, &iLowat, sizeof(iLowat));
    }
    // A server that refuses this end's certificate can say so only after the handshake. Data and an orderly end are
    // left to the operations that follow.
    if (HasPending(ssl, iSocketNo) && Drain(ssl, iSocketNo, false, &tReason) == eDrainLost) {
        NET_TCP_FAIL(ptClient, -1, CONNECT_FUNC, "SSL_connect[%s:%d] error[%s]", ptClient->sRemoteAddr,
                     ptClient->iRemotePort, tReason.sText);
        errno = tReason.iErrno;
        return -1;
    }
    return 0;
}

bool MayWrite(SSL* ssl, int iSocketNo, T_REASON* ptReason) {
    if ((SSL_get_shutdown(ssl) & SSL_RECEIVED_SHUTDOWN) != 0) {
        *ptReason = MakeReason(0, TLS_CLOSED);
        return false;
    }
    return !HasPending(ssl, iSocketNo) || InHandler() || Drain(ssl, iSocketNo, true, ptReason) == eDrainDone;
}

void EndTls(int iSocketNo) {
    char sBuf[END_BUF_LEN];
    shutdown(iSocketNo, SHUT_WR);
    const long lEndMs = NowMs() + END_MS;
    for (long lLeftMs = END_MS; lLeftMs > 0; lLeftMs = lEndMs - NowMs()) {
        pollfd tPoll{iSocketNo, POLLIN, 0};
        if (poll(&tPoll, 1, static_cast<int>(lLeftMs)) >= 0 || errno != EINTR) {
            break;
        }
    }
    for (int i = 0; i < END_READS_MAX && recv(iSocketNo, sBuf, sizeof(sBuf), MSG_DONTWAIT) > 0; i++) {
    }
}
