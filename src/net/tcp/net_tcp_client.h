// SPDX-License-Identifier: MIT
// A client for one outgoing TCP connection over IPv4, optionally inside TLS: a plain record with its operations.
//
// Order of calls: netTcpClientCreate once; fill the configuration fields; then for every connection pfnInit, pfnConnect
// (repeated after a failure as the caller likes), any number of pfnWrite and pfnRead, pfnClose.
//
// One thread uses a record. pfnWrite and pfnClose may also be called from its signal handlers, provided that a handler
// stays installed and runs with its own signal held (sigset, or sigaction without SA_NODEFER and SA_RESETHAND). A main
// flow that comes to hold a signal with a handler after the creation counts as one. A close from a handler makes the
// connection unusable at once, but its descriptor number and TLS objects are given back only by the next operation on
// the record outside a handler: a write that was interrupted can reach neither a foreign descriptor nor a released
// session.
//
// Callers ignore SIGPIPE: a write inside TLS raises it when the peer has gone.
//
// An environment variable (key_log_env.h) has the keys of TLS sessions written to a file; without it none leaves the
// process.
#pragma once

#include <cstddef>

#include <openssl/types.h>

#include "net_tcp_def.h"

extern "C" {

/// Option bits of pfnInit. The word is passed on to netTcpSSLInitCtx (net_tcp_common.h), so its bits can be given too.
constexpr int NET_TCP_OPT_RCVTIMEO = 0x01; ///< pfnConnect sets iRcvTimeOut on the new socket
/// pfnConnect sets iSndTimeOut on the new socket; it also limits the handshake.
constexpr int NET_TCP_OPT_SNDTIMEO = 0x02;
constexpr int NET_TCP_OPT_KEEPALIVE = 0x04; ///< pfnConnect switches TCP keep-alive on
constexpr int NET_TCP_OPT_SSL = 0x10;       ///< TLS

/// Option bit of pfnWrite: nothing is written; a connection inside TLS is ended in order, which takes 300 ms at most.
/// The record stays as it is: what remains is the close, or the end of the process.
constexpr int NET_TCP_WRITE_END = 0x200;

/// Connects. 0 when connected (with TLS: after the handshake and the check of the peer), else -1; a failure leaves no
/// socket open. `psAddr` is a host name or dotted address; `iOptions` goes to netTcpSSLCheckCert.
typedef int (*PFN_NET_TCPCONNECT)(void* pThis, char* psAddr, int iPort, int iOptions);

/// The client record, owned by its caller. Every operation but the creation clears sErrorStr and iErrorCode first; a
/// failed one fills both, logs the text at level 1, sets errno and returns -1.
typedef struct T_NET_TCPCLIENT {
    int iRcvTimeOut;               ///< seconds; set by the caller
    int iSndTimeOut;               ///< seconds; set by the caller
    char sCaFile[512];             ///< trusted CA certificates (PEM); set by the caller
    char sCertFile[512];           ///< own certificate (PEM); set by the caller
    char sKeyFile[512];            ///< own private key (PEM); set by the caller
    char sKeyPass[512];            ///< pass phrase of the key; set by the caller
    int iSocketNo;                 ///< the connection's socket; 0: none (a socket never gets descriptor 0 here)
    char sLocalAddr[512];          ///< dotted-decimal, after a connect
    int iLocalPort;                ///< after a connect
    char sRemoteAddr[512];         ///< dotted-decimal, as resolved
    int iRemotePort;               ///< as asked for
    int iIsSSL;                    ///< 1: the connection runs inside TLS
    char sErrorStr[1024];          ///< text of the last error; all NUL after a success
    int iErrorCode;                ///< errno of the failed call, or -1; 0 after a success
    int iStat;                     ///< 1 connected, 0 not
    int iSockOpt;                  ///< options of the last pfnInit
    SSL* ssl;                      ///< TLS connection or null; owned by the record
    SSL_CTX* ctx;                  ///< TLS context or null; owned by the record
    PFN_NET_TCPOBJINIT pfnInit;    ///< prepares for a connection: option bits, TLS context. 0 or -1
    PFN_NET_TCPCONNECT pfnConnect; ///< see the type
    /// Writes all bytes: iWriteLen, else -1; errno is ENOTCONN without a connection. Over TLS it first takes in what
    /// the peer sent, and fails when that was more than TLS's own records; a write of 0 bytes does nothing else.
    PFN_NET_TCPWRITE pfnWrite;
    PFN_NET_TCPREAD pfnRead;          ///< reads all bytes: iLen; 0 when the connection ended first; else -1
    PFN_NET_TCPOBJCLOSE pfnClose;     ///< ends the connection and frees its TLS objects; may be repeated. 0
    PFN_NET_TCP_LOGPRINT pfnLogPrint; ///< the caller's log function
} T_NET_TCPCLIENT;

/// Zeroes the record, fills in its operations and keeps the log function. 0, or -1 when either argument is null.
/// The signal mask at this call tells the library what "outside a handler" means, so it is called outside one.
int netTcpClientCreate(T_NET_TCPCLIENT* ptTcpClient, PFN_NET_TCP_LOGPRINT pfnLogPrint);
}

static_assert(sizeof(T_NET_TCPCLIENT) == 4200);
static_assert(offsetof(T_NET_TCPCLIENT, sCaFile) == 8 && offsetof(T_NET_TCPCLIENT, sKeyPass) == 1544);
static_assert(offsetof(T_NET_TCPCLIENT, iSocketNo) == 2056 && offsetof(T_NET_TCPCLIENT, sLocalAddr) == 2060);
static_assert(offsetof(T_NET_TCPCLIENT, iRemotePort) == 3088 && offsetof(T_NET_TCPCLIENT, sErrorStr) == 3096);
static_assert(offsetof(T_NET_TCPCLIENT, iErrorCode) == 4120 && offsetof(T_NET_TCPCLIENT, ssl) == 4136);
static_assert(offsetof(T_NET_TCPCLIENT, pfnInit) == 4152 && offsetof(T_NET_TCPCLIENT, pfnLogPrint) == 4192);
