// SPDX-License-Identifier: MIT
// Types of the operations that a TCP client record carries. All of them take the record itself as `pThis`.
#pragma once

extern "C" {

/// As PFN_RTCORE_LOGPRINT (core_ctx.h); must be callable from a signal handler.
typedef int (*PFN_NET_TCP_LOGPRINT)(char* psTag, int iLevel, char* psMod, char* psFile, int iLine, const char* psFunc,
                                    char* psFmt, ...) __attribute__((format(printf, 7, 8)));

typedef int (*PFN_NET_TCPOBJINIT)(void* pThis, int iOptions);
typedef int (*PFN_NET_TCPWRITE)(void* pThis, void* pBuf, int iWriteLen, int iOptions);
typedef int (*PFN_NET_TCPREAD)(void* pThis, void* pBuf, int iLen, int* piReadLen, int iOptions);
typedef int (*PFN_NET_TCPOBJCLOSE)(void* pThis, int iOptions);
}
