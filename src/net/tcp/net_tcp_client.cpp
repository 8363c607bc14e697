// SPDX-License-Identifier: MIT
// The operations of the TCP client record (contract in net_tcp_client.h). Init, connect and read belong to the main
// flow; write and close are called in signal handlers as well and then allocate and release nothing.
#include "net_tcp_client.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/x509.h>
#include <sys/socket.h>
#include <unistd.h>

#include "kavutil.h"
#include "net_tcp_common.h"
#include "net_tcp_retired.inl"
#include "net_tcp_tls.inl"

#define NET_TCP_LOG(ptClient, iLevel, psFunc, psFmt, ...)                                                              \
    (ptClient)->pfnLogPrint(nullptr, iLevel, f_sModule, f_sFile, __LINE__, psFunc,                                     \
                            const_cast<char*>(psFmt) __VA_OPT__(, ) __VA_ARGS__)

/// Stores code and text of a failure and logs the text.
#define NET_TCP_FAIL(ptClient, iCode, psFunc, psFmt, ...)                                                              \
    do {                                                                                                               \
        SetError(ptClient, iCode, psFmt, __VA_ARGS__);                                                                 \
        NET_TCP_LOG(ptClient, 1, psFunc, psFmt, __VA_ARGS__);                                                          \
    } while (0)

namespace {

char f_sModule[] = "$net_tcp";
char f_sFile[] = "net_tcp_client";
constexpr char CONNECT_FUNC[] = "netTcpClientConnect";

/// Descriptors 0 to 2 belong to the standard streams, and 0 means "no socket" in the record.
constexpr int FIRST_SOCKET_NO = 3;
constexpr int PORT_MAX = 65535;

/// Every write begins here, so a text that is clear already is not cleared again: SetError alone writes it, and never
/// an empty one.
void ClearError(T_NET_TCPCLIENT* ptClient) {
    if (ptClient->sErrorStr[0] != '\0') {
        memset(ptClient->sErrorStr, 0, sizeof(ptClient->sErrorStr));
    }
    ptClient->iErrorCode = 0;
}

__attribute__((format(printf, 3, 4))) void SetError(T_NET_TCPCLIENT* ptClient, int iCode, const char* psFmt, ...) {
    va_list vaArgs;
    va_start(vaArgs, psFmt);
    ptClient->iErrorCode = iCode;
    vsnprintf(ptClient->sErrorStr, sizeof(ptClient->sErrorStr), psFmt, vaArgs);
    va_end(vaArgs);
}

/// Takes a resource out of the record: of two that try, one gets it.
template <typename T>
T Take(T& tField) {
    return std::atomic_ref<T>(tField).exchange(T{});
}

template <typename T>
T Look(T& tField) {
    return std::atomic_ref<T>(tField).load();
}

/// Ends the record's connection; the TLS context stays. Main flow only.
void DropConn(T_NET_TCPCLIENT* ptClient) {
    const int iSocketNo = Take(ptClient->iSocketNo);
    ReleaseConn(iSocketNo, Take(ptClient->ssl), nullptr);
    ReleaseRetired(ptClient);
}

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
        NET_TCP_FAIL(ptClient, iErrno, CONNECT_FUNC, "socket error[%d:%s]", iErrno, ErrnoText(iErrno));
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
                 ptClient->iRemotePort, ECONNABORTED, ErrnoText(ECONNABORTED));
    return true;
}

/// Resolves the address and connects the socket. 0 or -1 with the error set.
int ConnectSocket(T_NET_TCPCLIENT* ptClient, int iSocketNo, char* psAddr, int iPort) {
    if (sockGetHostIp(psAddr, ptClient->sRemoteAddr) < 0) {
        const int iErrno = errno;
        const char* psText = ErrnoText(iErrno);
        SetError(ptClient, iErrno, "sockGetHostIp[%s] error[%d:%s]", ptClient->sRemoteAddr, iErrno, psText);
        NET_TCP_LOG(ptClient, 1, CONNECT_FUNC, "sockGetHostIp[%s] error[%d][%s]", ptClient->sRemoteAddr, iErrno,
                    psText);
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
                     ptClient->iRemotePort, iErrno, ErrnoText(iErrno));
        return -1;
    }
    return 0;
}

/// Why netTcpSSLCheckCert refused the peer, as static text.
const char* PeerReason(SSL* ssl, int iCheck) {
    if (iCheck == -2) {
        return TlsReason(0, "common name differs");
    }
    if (SSL_get0_peer_certificate(ssl) == nullptr) {
        return TlsReason(0, "peer has no certificate");
    }
    return TlsReason(0, X509_verify_cert_error_string(SSL_get_verify_result(ssl)));
}

/// Handshake and check of the peer on the connected socket. 0 or -1 with the error set; no data goes out before.
int StartTls(T_NET_TCPCLIENT* ptClient, int iSocketNo, int iOptions) {
    ERR_clear_error();
    SSL* ssl = SSL_new(Look(ptClient->ctx));
    if (ssl == nullptr) {
        NET_TCP_FAIL(ptClient, -1, CONNECT_FUNC, "SSL_new error[%s]", TlsReason(0));
        return -1;
    }
    // A write returns after each record, so that its time limit and interruptions are looked at; a server cannot make
    // this end negotiate anew in the middle of a write.
    SSL_set_mode(ssl, SSL_MODE_ENABLE_PARTIAL_WRITE);
    SSL_set_options(ssl, SSL_OP_NO_RENEGOTIATION);
    std::atomic_ref<SSL*>(ptClient->ssl).store(ssl);
    SSL_set_fd(ssl, iSocketNo);

    const int iLimit = (ptClient->iSockOpt & NET_TCP_OPT_SNDTIMEO) != 0 ? ptClient->iSndTimeOut : 0;
    const char* psReason = "";
    const int iRet = Handshake(ssl, iSocketNo, iLimit, &psReason);
    if (WasClosed(ptClient, iSocketNo)) {
        return -1;
    }
    if (iRet != 1) {
        NET_TCP_FAIL(ptClient, -1, CONNECT_FUNC, "SSL_connect[%s:%d] error[%s]", ptClient->sRemoteAddr,
                     ptClient->iRemotePort, psReason);
        return -1;
    }
    NET_TCP_LOG(ptClient, 5, CONNECT_FUNC, "SSL_connect success.");

    const int iCheck = netTcpSSLCheckCert(ssl, nullptr, iOptions);
    if (iCheck != 0) {
        NET_TCP_FAIL(ptClient, -1, CONNECT_FUNC, "netTcpSSLCheckCert error[%s]", PeerReason(ssl, iCheck));
        return -1;
    }
    NET_TCP_LOG(ptClient, 5, CONNECT_FUNC, "netTcpSSLCheckCert success.");

    const int iLowat = TLS_RCV_LOWAT;
    setsockopt(iSocketNo, SOL_SOCKET, SO_RCVLOWAT, &iLowat, sizeof(iLowat));
    // A server that refuses this end's certificate can say so only after the handshake. Data and an orderly end are
    // left to the operations that follow.
    if (HasPending(ssl, iSocketNo) && Drain(ssl, iSocketNo, false, &psReason) == eDrainLost) {
        NET_TCP_FAIL(ptClient, -1, CONNECT_FUNC, "SSL_connect[%s:%d] error[%s]", ptClient->sRemoteAddr,
                     ptClient->iRemotePort, psReason);
        return -1;
    }
    return 0;
}

int netTcpClientInit(void* pThis, int iOptions) {
    auto* ptClient = static_cast<T_NET_TCPCLIENT*>(pThis);
    ClearError(ptClient);
    ptClient->iStat = 0;
    ptClient->iSockOpt = iOptions;
    DropConn(ptClient);
    SSL_CTX_free(Take(ptClient->ctx));
    if ((iOptions & NET_TCP_OPT_SSL) == 0) {
        return 0;
    }

    ptClient->iIsSSL = 1;
    ERR_clear_error();
    errno = 0;
    SSL_CTX* ctx = netTcpSSLInitCtx(ptClient->sCaFile, ptClient->sCertFile, ptClient->sKeyFile, ptClient->sKeyPass,
                                    iOptions | NET_TCP_SSL_CLIENT);
    const int iErrno = errno;
    std::atomic_ref<SSL_CTX*>(ptClient->ctx).store(ctx);
    if (ctx == nullptr) {
        const char* psReason = TlsReason(iErrno);
        NET_TCP_FAIL(ptClient, -1, __func__, "netTcpSSLInitCtx[%s] [%s] [%s] error[%s]", ptClient->sCertFile,
                     ptClient->sKeyFile, ptClient->sKeyPass, psReason);
        return -1;
    }
    NET_TCP_LOG(ptClient, 4, __func__, "netTcpSSLInitCtx[%s] [%s] [%s] sucess", ptClient->sCertFile, ptClient->sKeyFile,
                ptClient->sKeyPass);
    return 0;
}

int netTcpClientConnect(void* pThis, char* psAddr, int iPort, int iOptions) {
    auto* ptClient = static_cast<T_NET_TCPCLIENT*>(pThis);
    ClearError(ptClient);
    // A connection that still stands is replaced: nothing is ever connected a second time on the same socket.
    if (Look(ptClient->iSocketNo) != 0) {
        ptClient->iStat = 0;
    }
    DropConn(ptClient);
    // Once stored in the record the socket can be closed by a handler; it then stays open among the retired ones, and
    // its number unused, until DropConn.
    const int iSocketNo = MakeSocket(ptClient);
    if (iSocketNo < 0) {
        return -1;
    }
    if (ConnectSocket(ptClient, iSocketNo, psAddr, iPort) != 0) {
        DropConn(ptClient);
        return -1;
    }
    sockGetLocalAddr(iSocketNo, ptClient->sLocalAddr, &ptClient->iLocalPort);
    if (ptClient->iIsSSL != 0 && StartTls(ptClient, iSocketNo, iOptions) != 0) {
        DropConn(ptClient);
        return -1;
    }
    std::atomic_ref<int>(ptClient->iStat).store(1);
    if (WasClosed(ptClient, iSocketNo)) {
        ptClient->iStat = 0;
        DropConn(ptClient);
        return -1;
    }
    NET_TCP_LOG(ptClient, 4, CONNECT_FUNC, "connect[%s:%d] success", ptClient->sRemoteAddr, ptClient->iRemotePort);
    return 0;
}

int WriteTls(T_NET_TCPCLIENT* ptClient, SSL* ssl, int iSocketNo, void* pBuf, int iWriteLen) {
    static constexpr char FUNC[] = "netTcpClientWrite";
    const char* psReason = TLS_CLOSED;
    int iRet = -1;
    // A reason left over would pass for this write's. A handler may not empty the queue; it then shows what errno says.
    if (ERR_peek_error() != 0 && !InHandler()) {
        ERR_clear_error();
    }
    if ((SSL_get_shutdown(ssl) & SSL_RECEIVED_SHUTDOWN) == 0 &&
        (!HasPending(ssl, iSocketNo) || InHandler() || Drain(ssl, iSocketNo, true, &psReason) == eDrainDone)) {
        errno = 0;
        iRet = netTcpSSLWriteN(pBuf, iWriteLen, ssl);
        if (iRet == iWriteLen) {
            NET_TCP_LOG(ptClient, 5, FUNC, "netTcpSSLWriteN [%d] success.", iWriteLen);
            return iRet;
        }
        const int iErrno = errno;
        psReason = InHandler() ? ErrnoReason(iErrno) : TlsReason(iErrno);
    }
    NET_TCP_FAIL(ptClient, -1, FUNC, "write[%d] ret[%d] error[%s]", iWriteLen, iRet, psReason);
    return -1;
}

int netTcpClientWrite(void* pThis, void* pBuf, int iWriteLen, int) {
    auto* ptClient = static_cast<T_NET_TCPCLIENT*>(pThis);
    ClearError(ptClient);
    if (f_iRetiredCnt != 0 && !InHandler()) {
        ReleaseRetired(ptClient);
    }
    // Taken once: a handler may empty the record while this write goes on with what the handler put aside.
    const int iSocketNo = Look(ptClient->iSocketNo);
    SSL* ssl = Look(ptClient->ssl);
    if (ptClient->iIsSSL == 0) {
        if (iSocketNo <= 0) {
            NET_TCP_FAIL(ptClient, ENOTCONN, __func__, "write[%d] ret[%d] error[%d:%s]", iWriteLen, -1, ENOTCONN,
                         ErrnoText(ENOTCONN));
            return -1;
        }
        const int iRet = streamWriteNByte(pBuf, iWriteLen, iSocketNo);
        const int iErrno = errno;
        if (iRet != iWriteLen) {
            NET_TCP_FAIL(ptClient, iErrno, __func__, "write[%d] ret[%d] error[%d:%s]", iWriteLen, iRet, iErrno,
                         ErrnoText(iErrno));
            return -1;
        }
        return iRet;
    }
    if (iSocketNo <= 0 || ssl == nullptr || Look(ptClient->iStat) != 1) {
        NET_TCP_FAIL(ptClient, ENOTCONN, __func__, "write[%d] ret[%d] error[%s]", iWriteLen, -1, ErrnoText(ENOTCONN));
        return -1;
    }
    return WriteTls(ptClient, ssl, iSocketNo, pBuf, iWriteLen);
}

int ReadTls(T_NET_TCPCLIENT* ptClient, SSL* ssl, void* pBuf, int iLen, int* piReadLen) {
    static constexpr char FUNC[] = "netTcpClientRead";
    ERR_clear_error();
    errno = 0;
    const int iRet = netTcpSSLReadN(pBuf, iLen, piReadLen, ssl);
    const int iErrno = errno;
    if (iRet == iLen) {
        NET_TCP_LOG(ptClient, 5, FUNC, "netTcpSSLReadN [%d] success.", *piReadLen);
        return iRet;
    }
    const char* psReason = TlsReason(iErrno, iRet == 0 ? TLS_CLOSED : NO_REASON);
    NET_TCP_FAIL(ptClient, iErrno, FUNC, "read[%d:%d] ret[%d] error[%s]", iLen, *piReadLen, iRet, psReason);
    return iRet == 0 ? 0 : -1;
}

int netTcpClientRead(void* pThis, void* pBuf, int iLen, int* piReadLen, int) {
    auto* ptClient = static_cast<T_NET_TCPCLIENT*>(pThis);
    ClearError(ptClient);
    ReleaseRetired(ptClient);
    const int iSocketNo = Look(ptClient->iSocketNo);
    SSL* ssl = Look(ptClient->ssl);
    const bool bTls = ptClient->iIsSSL != 0;
    if (iSocketNo <= 0 || (bTls && (ssl == nullptr || Look(ptClient->iStat) != 1))) {
        const char* psText = ErrnoText(ENOTCONN);
        if (bTls) {
            NET_TCP_FAIL(ptClient, ENOTCONN, __func__, "read[%d:%d] ret[%d] error[%s]", iLen, *piReadLen, -1, psText);
        } else {
            NET_TCP_FAIL(ptClient, ENOTCONN, __func__, "read[%d:%d] ret[%d] error[%d:%s]", iLen, *piReadLen, -1,
                         ENOTCONN, psText);
        }
        return -1;
    }
    if (bTls) {
        return ReadTls(ptClient, ssl, pBuf, iLen, piReadLen);
    }
    errno = 0;
    const int iRet = streamReadNByte(pBuf, iLen, piReadLen, iSocketNo);
    const int iErrno = errno;
    if (iRet == iLen) {
        return iRet;
    }
    NET_TCP_FAIL(ptClient, iErrno, __func__, "read[%d:%d] ret[%d] error[%d:%s]", iLen, *piReadLen, iRet, iErrno,
                 iRet == 0 && iErrno == 0 ? TLS_CLOSED : ErrnoText(iErrno));
    return iRet == 0 ? 0 : -1;
}

int netTcpClientClose(void* pThis, int) {
    auto* ptClient = static_cast<T_NET_TCPCLIENT*>(pThis);
    ClearError(ptClient);
    const bool bInHandler = InHandler();
    if (Look(ptClient->iSocketNo) != 0) {
        ptClient->iStat = 0;
    }
    const int iSocketNo = Take(ptClient->iSocketNo);
    SSL_CTX* ctx = Take(ptClient->ctx);
    SSL* ssl = Take(ptClient->ssl);
    if (bInHandler) {
        RetireConn(ptClient, iSocketNo, ssl, ctx);
        return 0;
    }
    ReleaseConn(iSocketNo, ssl, ctx);
    ReleaseRetired(ptClient);
    return 0;
}

} // namespace

__attribute__((visibility("default"))) int netTcpClientCreate(T_NET_TCPCLIENT* ptTcpClient,
                                                              PFN_NET_TCP_LOGPRINT pfnLogPrint) {
    if (ptTcpClient == nullptr || pfnLogPrint == nullptr) {
        return -1;
    }
    pthread_sigmask(SIG_BLOCK, nullptr, &f_tMainMask);
    ReleaseRetired(ptTcpClient);
    *ptTcpClient = T_NET_TCPCLIENT{};
    ptTcpClient->pfnInit = netTcpClientInit;
    ptTcpClient->pfnConnect = netTcpClientConnect;
    ptTcpClient->pfnWrite = netTcpClientWrite;
    ptTcpClient->pfnRead = netTcpClientRead;
    ptTcpClient->pfnClose = netTcpClientClose;
    ptTcpClient->pfnLogPrint = pfnLogPrint;
    return 0;
}
