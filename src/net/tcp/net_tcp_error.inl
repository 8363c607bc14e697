// SPDX-License-Identifier: MIT
// Private to net_tcp_client.cpp: how an operation reports its failure. All of it may run in a handler.

#include <cstdarg>
#include <cstdio>
#include <cstring>

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

/// strerror is not to be called in a signal handler; this is.
const char* ErrnoText(int iErrno) {
    const char* psText = strerrordesc_np(iErrno);
    return psText != nullptr ? psText : "unknown error";
}

/// Every write begins here, so what is clear already is not cleared again.
void ClearError(T_NET_TCPCLIENT* ptClient) {
    if (ptClient->iErrorCode != 0 || ptClient->sErrorStr[0] != '\0') {
        memset(ptClient->sErrorStr, 0, sizeof(ptClient->sErrorStr));
    }
    ptClient->iErrorCode = 0;
}

/// A handler may clear the error in the middle of this: the text is made elsewhere and stored before the code, so that
/// nothing of it outlives the next clear.
__attribute__((format(printf, 3, 4))) void SetError(T_NET_TCPCLIENT* ptClient, int iCode, const char* psFmt, ...) {
    char sText[sizeof(ptClient->sErrorStr)] = {};
    va_list vaArgs;
    va_start(vaArgs, psFmt);
    vsnprintf(sText, sizeof(sText), psFmt, vaArgs);
    va_end(vaArgs);
    memcpy(ptClient->sErrorStr, sText, sizeof(sText));
    ptClient->iErrorCode = iCode;
}

} // namespace
