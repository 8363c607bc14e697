// SPDX-License-Identifier: MIT
// Private to net_tcp_client.cpp: how an operation reports its failure. All of it may run in a handler.

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#define NET_TCP_LOG(ptClient, iLevel, psFunc, psFmt, ...)                                                              \
    (ptClient)->pfnLogPrint(nullptr, iLevel, f_sModule, f_sFile, __LINE__, psFunc,                                     \
                            const_cast<char*>(psFmt) __VA_OPT__(, ) __VA_ARGS__)

/// Stores code and text of a failure, logs the text and leaves errno telling of it. The arguments are used twice: none
/// may have a side effect, such as emptying OpenSSL's error queue.
#define NET_TCP_FAIL(ptClient, iCode, psFunc, psFmt, ...)                                                              \
    do {                                                                                                               \
        SetError(ptClient, iCode, psFmt, __VA_ARGS__);                                                                 \
        NET_TCP_LOG(ptClient, 1, psFunc, psFmt, __VA_ARGS__);                                                          \
        errno = (iCode) > 0 ? (iCode) : EPROTO;                                                                        \
    } while (0)

namespace {

char f_sModule[] = "$net_tcp";
char f_sFile[] = "net_tcp_client";

/// Room for a reason; a longer one is cut.
constexpr int REASON_LEN = 384;

/// Why an operation failed.
struct T_REASON {
    int iErrno; ///< for the caller's caller; never 0
    char sText[REASON_LEN];
};

__attribute__((format(printf, 2, 3))) T_REASON MakeReason(int iErrno, const char* psFmt, ...) {
    T_REASON tReason{};
    va_list vaArgs;
    va_start(vaArgs, psFmt);
    vsnprintf(tReason.sText, sizeof(tReason.sText), psFmt, vaArgs);
    va_end(vaArgs);
    tReason.iErrno = iErrno != 0 ? iErrno : EPROTO;
    return tReason;
}

/// strerror is not to be called in a signal handler; this is.
T_REASON ErrnoText(int iErrno) {
    const char* psText = strerrordesc_np(iErrno);
    return psText != nullptr ? MakeReason(iErrno, "%s", psText) : MakeReason(iErrno, "Unknown error %d", iErrno);
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
