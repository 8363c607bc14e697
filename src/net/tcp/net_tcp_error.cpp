// SPDX-License-Identifier: MIT
// How an operation reports its failure (contracts in net_tcp_private.h).
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "net_tcp_private.h"

T_REASON MakeReason(int iErrno, const char* psFmt, ...) {
    T_REASON tReason{};
    va_list vaArgs;
    va_start(vaArgs, psFmt);
    vsnprintf(tReason.sText, sizeof(tReason.sText), psFmt, vaArgs);
    va_end(vaArgs);
    tReason.iErrno = iErrno != 0 ? iErrno : EPROTO;
    return tReason;
}

T_REASON ErrnoText(int iErrno) {
    const char* psText = strerrordesc_np(iErrno);
    return psText != nullptr ? MakeReason(iErrno, "%s", psText) : MakeReason(iErrno, "Unknown error %d", iErrno);
}

T_REASON ErrnoReason(int iErrno, const char* psElse) {
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

void ClearError(T_NET_TCPCLIENT* ptClient) {
    if (ptClient->iErrorCode != 0 || ptClient->sErrorStr[0] != '\0') {
        memset(ptClient->sErrorStr, 0, sizeof(ptClient->sErrorStr));
    }
    ptClient->iErrorCode = 0;
}

void SetError(T_NET_TCPCLIENT* ptClient, int iCode, const char* psFmt, ...) {
    char sText[sizeof(ptClient->sErrorStr)] = {};
    va_list vaArgs;
    va_start(vaArgs, psFmt);
    vsnprintf(sText, sizeof(sText), psFmt, vaArgs);
    va_end(vaArgs);
    memcpy(ptClient->sErrorStr, sText, sizeof(sText));
    ptClient->iErrorCode = iCode;
}
