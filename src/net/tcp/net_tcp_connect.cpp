// SPDX-License-Identifier: MIT
// The steps of a connect (contracts in net_tcp_private.h).
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "kavutil.h"
#include "net_tcp_private.h"

namespace {

/// Descriptors 0 to 2 belong to the standard streams, and 0 means "no socket" in the record.
constexpr int FIRST_SOCKET_NO = 3;
constexpr int PORT_MAX = 65535;

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

} // namespace

bool WasClosed(T_NET_TCPCLIENT* ptClient, int iSocketNo) {
    if (Look(ptClient->iSocketNo) == iSocketNo) {
        return false;
    }
    NET_TCP_FAIL(ptClient, ECONNABORTED, CONNECT_FUNC, "connect[%s:%d] error[%d:%s]", ptClient->sRemoteAddr,
                 ptClient->iRemotePort, ECONNABORTED, ErrnoText(ECONNABORTED).sText);
    return true;
}

int Connect(T_NET_TCPCLIENT* ptClient, char* psAddr, int iPort, int iOptions) {
    // Once stored in the record the socket can be closed by a handler; it then stays open among the retired ones, and
    // its number unused, until DropConn.
    const int iSocketNo = MakeSocket(ptClient);
    if (iSocketNo < 0 || ConnectSocket(ptClient, iSocketNo, psAddr, iPort) != 0) {
        return -1;
    }
    sockGetLocalAddr(iSocketNo, ptClient->sLocalAddr, &ptClient->iLocalPort);
    if (ptClient->iIsSSL != 0 && StartTls(ptClient, iSocketNo, iOptions) != 0) {
        return -1;
    }
    std::atomic_ref<int>(ptClient->iStat).store(1);
    if (WasClosed(ptClient, iSocketNo)) {
        ptClient->iStat = 0;
        return -1;
    }
    return 0;
}
