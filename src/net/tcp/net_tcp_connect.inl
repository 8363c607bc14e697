// SPDX-License-Identifier: MIT
// Private to net_tcp_client.cpp, after its other fragments: the steps of a connect. Main flow only, but a handler may
// close the connection between any two of them.

#include <cerrno>
#include <cstdint>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/x509.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr char CONNECT_FUNC[] = "netTcpClientConnect";

/// Descriptors 0 to 2 belong to the standard streams, and 0 means "no socket" in the record.
constexpr int FIRST_SOCKET_NO = 3;
constexpr int PORT_MAX = 65535;
constexpr int SUBJECT_LEN = 256; ///< of a certificate's subject, with its NUL; a longer one is cut

/// Makes the socket of a new connection, above the standard descriptors. The socket, or -1 with the error set.
int MakeSocket(T_NET_TCPCLIENT* ptClient) {
    NET_TCP_LOG(ptClient, 5, CONNECT_FUNC, "create new socket");
    int iSocketNo = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int iErrno = errno;
    if (iSocketNo >= 0 && iSocketNo < FIRST_SOCKET_NO) {
        const int iLowNo = iSocketNo;
        iSocketNo = fcntl(iLowNo, F_DUPFD_CLOEXEC, FIRST_SOCKET_NO);
        iErrno = errno;
        close(iLowNo);
    }
    if (iSocketNo < 0) {
        NET_TCP_FAIL(ptClient, iErrno, CONNECT_FUNC, "socket error[%d:%s]", iErrno, ErrnoText(iErrno).sText);
        return -1;
    }
    std::atomic_ref<int>(ptClient->iSocketNo).store(iSocketNo);
    if ((ptClient->iSockOpt & NET_TCP_OPT_RCVTIMEO) != 0) {
        sockSetRTimeOut(iSocketNo, ptClient->iRcvTimeOut);
        NET_TCP_LOG(ptClient, 5, CONNECT_FUNC, "set rcv time out[%d]", ptClient->iRcvTimeOut);
    }
    if ((ptClient->iSockOpt & NET_TCP_OPT_SNDTIMEO) != 0) {
        sockSetSTimeOut(iSocketNo, ptClient->iSndTimeOut);
        NET_TCP_LOG(ptClient, 5, CONNECT_FUNC, "set snd time out[%d]", ptClient->iSndTimeOut);
    }
    if ((ptClient->iSockOpt & NET_TCP_OPT_KEEPALIVE) != 0) {
        sockSetKeepAlive(iSocketNo);
        NET_TCP_LOG(ptClient, 5, CONNECT_FUNC, "set keepalive[%d]", 1);
    }
    return iSocketNo;
}

/// After a step that can take time: whether a handler closed the connection meanwhile, with the error then set.
bool WasClosed(T_NET_TCPCLIENT* ptClient, int iSocketNo) {
    if (Look(ptClient->iSocketNo) == iSocketNo) {
        return false;
    }
    NET_TCP_FAIL(ptClient, ECONNABORTED, CONNECT_FUNC, "connect[%s:%d] error[%d:%s]", ptClient->sRemoteAddr,
                 ptClient->iRemotePort, ECONNABORTED, ErrnoText(ECONNABORTED).sText);
    return true;
}

/// Resolves the address and connects the socket. 0 or -1 with the error set.
int ConnectSocket(T_NET_TCPCLIENT* ptClient, int iSocketNo, char* psAddr, int iPort) {
    if (sockGetHostIp(psAddr, ptClient->sRemoteAddr) < 0) {
        const int iErrno = errno;
        const T_REASON tReason = ErrnoText(iErrno);
        SetError(ptClient, iErrno, "sockGetHostIp[%s] error[%d:%s]", ptClient->sRemoteAddr, iErrno, tReason.sText);
        NET_TCP_LOG(ptClient, 1, CONNECT_FUNC, "sockGetHostIp[%s] error[%d][%s]", ptClient->sRemoteAddr, iErrno,
                    tReason.sText);
        errno = tReason.iErrno;
        return -1;
    }
    ptClient->iRemotePort = iPort;

    int iErrno = 0;
    sockaddr_in tAddr{};
    tAddr.sin_family = AF_INET;
    tAddr.sin_port = htons(static_cast<uint16_t>(iPort));
    tAddr.sin_addr.s_addr = inet_addr(ptClient->sRemoteAddr);
    if (iPort < 0 || iPort > PORT_MAX) {
        iErrno = EINVAL;
    } else if (connect(iSocketNo, reinterpret_cast<sockaddr*>(&tAddr), sizeof(tAddr)) != 0) {
        iErrno = errno;
    }
    if (WasClosed(ptClient, iSocketNo)) {
        return -1;
    }
    if (iErrno != 0) {
        NET_TCP_FAIL(ptClient, iErrno, CONNECT_FUNC, "connect[%s:%d] error[%d:%s]", ptClient->sRemoteAddr,
                     ptClient->iRemotePort, iErrno, ErrnoText(iErrno).sText);
        return -1;
    }
    return 0;
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

/// Handshake and check of the peer on the connected socket. 0 or -1 with the error set; no data goes out before.
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

} // namespace
