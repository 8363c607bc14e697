// SPDX-License-Identifier: MIT
// TLS helpers of the TCP client: contexts, the check of the peer, exact-length reads and writes.
//
// They keep no state and do not log: a failure shows in the result and writes one line to standard error, unless that
// would have to wait. OpenSSL's error queue is left as OpenSSL filled it. Protocol versions and ciphers are OpenSSL's
// defaults.
#pragma once

#include <openssl/types.h>

extern "C" {

/// Option bits.
constexpr int NET_TCP_SSL_CHECK_CN = 0x20;  ///< netTcpSSLCheckCert: compare the peer's common name with psCN
constexpr int NET_TCP_SSL_CLIENT = 0x40;    ///< netTcpSSLInitCtx: a client context, else a server context
constexpr int NET_TCP_SSL_NO_FILES = 0x100; ///< netTcpSSLInitCtx: load no certificate, key or CA file

/// Builds a TLS context from PEM files; null on failure. A null pass phrase counts as the empty one: OpenSSL never asks
/// on the terminal. The context keeps the pointer `psKeyPass`, which must outlive its creation only.
SSL_CTX* netTcpSSLInitCtx(char* psCaFile, char* psCertFile, char* psKeyFile, char* psKeyPass, int iOption);

/// Judges the peer after the handshake: 0 accepted, -1 its chain is not trusted or it showed no certificate, -2 its
/// common name differs from `psCN` (ASCII case aside). The name is compared with NET_TCP_SSL_CHECK_CN only.
int netTcpSSLCheckCert(SSL* ssl, char* psCN, int iOption);

/// Reads exactly `iLen` bytes: iLen, 0 when the connection ended first, -1 on error. `*piReadLen` is written after each
/// successful read only. Whether the socket blocks, and its low-water mark, make no difference.
int netTcpSSLReadN(void* pBuf, int iLen, int* piReadLen, SSL* ssl);

/// Writes exactly `iLen` bytes and returns the number written: less than `iLen` on failure, which is also that the peer
/// took nothing for as long as the socket's send time-out says. After a failure the connection may end in half a TLS
/// record and has to be closed.
int netTcpSSLWriteN(void* pBuf, int iLen, SSL* ssl);
}
