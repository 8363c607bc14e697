// SPDX-License-Identifier: MIT
// The operations of the TCP client record (contract in net_tcp_client.h). Init, connect and read belong to the main
// flow; write and close are called in signal handlers as well and then use no heap: what OpenSSL allocates in a write
// is a block of a fixed pool.
#include "net_tcp_client.h"

#include <cerrno>

#include <openssl/err.h>
#include <openssl/ssl.h>

#include "kavutil.h"
#include "net_tcp_common.h"
#include "net_tcp_private.h"

namespace {

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
        const T_REASON tReason = TlsReason(iErrno);
        NET_TCP_FAIL(ptClient, -1, __func__, "netTcpSSLInitCtx[%s] [%s] [%s] error[%s]", ptClient->sCertFile,
                     ptClient->sKeyFile, ptClient->sKeyPass, tReason.sText);
        errno = tReason.iErrno;
        return -1;
    }
    LogKeys(ptClient, ctx);
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
    if (Connect(ptClient, psAddr, iPort, iOptions) != 0) {
        const int iErrno = errno;
        DropConn(ptClient);
        errno = iErrno;
        return -1;
    }
    NET_TCP_LOG(ptClient, 4, CONNECT_FUNC, "connect[%s:%d] success", ptClient->sRemoteAddr, ptClient->iRemotePort);
    return 0;
}

int WriteTls(T_NET_TCPCLIENT* ptClient, SSL* ssl, int iSocketNo, void* pBuf, int iWriteLen) {
    static constexpr char FUNC[] = "netTcpClientWrite";
    T_REASON tReason;
    int iRet = 0;
    // A reason left over would pass for this write's. A handler may not empty the queue; it then shows what errno says.
    if (ERR_peek_error() != 0 && !InHandler()) {
        ERR_clear_error();
    }
    if (MayWrite(ssl, iSocketNo, &tReason)) {
        errno = 0;
        iRet = netTcpSSLWriteN(pBuf, iWriteLen, ssl);
        if (iRet == iWriteLen) {
            NET_TCP_LOG(ptClient, 5, FUNC, "netTcpSSLWriteN [%d] success.", iWriteLen);
            return iRet;
        }
        const int iErrno = errno;
        tReason = InHandler() ? ErrnoReason(iErrno) : TlsReason(iErrno);
    } else {
        ErrLine("write len[%d] writelen[%d]", iWriteLen, 0);
    }
    NET_TCP_FAIL(ptClient, -1, FUNC, "write[%d] ret[%d] error[%s]", iWriteLen, iRet, tReason.sText);
    errno = tReason.iErrno;
    return -1;
}

int netTcpClientWrite(void* pThis, void* pBuf, int iWriteLen, int iOptions) {
    auto* ptClient = static_cast<T_NET_TCPCLIENT*>(pThis);
    ClearError(ptClient);
    if (HasRetired() && !InHandler()) {
        ReleaseRetired(ptClient);
    }
    // Taken once: a handler may empty the record while this write goes on with what the handler put aside.
    const int iSocketNo = Look(ptClient->iSocketNo);
    SSL* ssl = Look(ptClient->ssl);
    if ((iOptions & NET_TCP_WRITE_END) != 0) {
        if (ssl != nullptr && iSocketNo > 0) {
            EndTls(iSocketNo);
        }
        return 0;
    }
    if (ptClient->iIsSSL == 0) {
        if (iSocketNo <= 0) {
            NET_TCP_FAIL(ptClient, ENOTCONN, __func__, "write[%d] ret[%d] error[%d:%s]", iWriteLen, -1, ENOTCONN,
                         ErrnoText(ENOTCONN).sText);
            return -1;
        }
        const int iRet = streamWriteNByte(pBuf, iWriteLen, iSocketNo);
        const int iErrno = errno;
        if (iRet != iWriteLen) {
            NET_TCP_FAIL(ptClient, iErrno, __func__, "write[%d] ret[%d] error[%d:%s]", iWriteLen, iRet, iErrno,
                         ErrnoText(iErrno).sText);
            return -1;
        }
        return iRet;
    }
    if (iSocketNo <= 0 || ssl == nullptr || Look(ptClient->iStat) != 1) {
        NET_TCP_FAIL(ptClient, -1, __func__, "write[%d] ret[%d] error[%s]", iWriteLen, -1, ErrnoText(ENOTCONN).sText);
        errno = ENOTCONN;
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
    const T_REASON tReason = TlsReason(iErrno, iRet == 0 ? TLS_CLOSED : NO_REASON);
    NET_TCP_FAIL(ptClient, iErrno, FUNC, "read[%d:%d] ret[%d] error[%s]", iLen, *piReadLen, iRet, tReason.sText);
    return iRet == 0 ? 0 : -1;
}

int netTcpClientRead(void* pThis, void* pBuf, int iLen, int* piReadLen, int) {
    auto* ptClient = static_cast<T_NET_TCPCLIENT*>(pThis);
    ClearError(ptClient);
    ReleaseRetired(ptClient);
    const int iSocketNo = Look(ptClient->iSocketNo);
    SSL* ssl = Look(ptClient->ssl);
    const int iIsTls = ptClient->iIsSSL;
    *piReadLen = 0;
    if (iSocketNo <= 0 || (iIsTls != 0 && (ssl == nullptr || Look(ptClient->iStat) != 1))) {
        const T_REASON tReason = ErrnoText(ENOTCONN);
        if (iIsTls != 0) {
            NET_TCP_FAIL(ptClient, ENOTCONN, __func__, "read[%d:%d] ret[%d] error[%s]", iLen, *piReadLen, -1,
                         tReason.sText);
        } else {
            NET_TCP_FAIL(ptClient, ENOTCONN, __func__, "read[%d:%d] ret[%d] error[%d:%s]", iLen, *piReadLen, -1,
                         ENOTCONN, tReason.sText);
        }
        return -1;
    }
    if (iIsTls != 0) {
        return ReadTls(ptClient, ssl, pBuf, iLen, piReadLen);
    }
    errno = 0;
    const int iRet = streamReadNByte(pBuf, iLen, piReadLen, iSocketNo);
    const int iErrno = errno;
    if (iRet == iLen) {
        return iRet;
    }
    const T_REASON tReason = iRet == 0 && iErrno == 0 ? MakeReason(0, TLS_CLOSED) : ErrnoText(iErrno);
    NET_TCP_FAIL(ptClient, iErrno, __func__, "read[%d:%d] ret[%d] error[%d:%s]", iLen, *piReadLen, iRet, iErrno,
                 tReason.sText);
    return iRet == 0 ? 0 : -1;
}

int netTcpClientClose(void* pThis, int) {
    auto* ptClient = static_cast<T_NET_TCPCLIENT*>(pThis);
    ClearError(ptClient);
    const int iInHandler = InHandler();
    if (Look(ptClient->iSocketNo) != 0) {
        ptClient->iStat = 0;
    }
    const int iSocketNo = Take(ptClient->iSocketNo);
    SSL_CTX* ctx = Take(ptClient->ctx);
    SSL* ssl = Take(ptClient->ssl);
    if (iInHandler) {
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
    MarkMainFlow();
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
