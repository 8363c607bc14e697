// SPDX-License-Identifier: MIT
// TLS helpers of the TCP client (contracts in net_tcp_common.h). The client calls netTcpSSLWriteN in signal handlers
// too: a write on an established connection takes no part in stdio, and what OpenSSL allocates in it comes from a fixed
// pool, as long as its blocks fit there (net_tcp_heap.cpp).
#include "net_tcp_common.h"

#include <cerrno>
#include <cstring>

#include <openssl/bio.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <strings.h>

#include "kavutil.h"
#include "net_tcp_private.h"

/// The library is built with hidden visibility; this opens one name.
#define NET_TCP_EXPORT __attribute__((visibility("default")))

namespace {

/// So many interruptions without a byte of progress are survived where the host cannot end the process: in a handler,
/// and in reads.
constexpr int IDLE_INTERRUPTS_MAX = 2;
/// The longest common name that is compared, with its NUL.
constexpr int CN_LEN = 256;

/// After an interruption without progress. A process that is being stopped repeats its signal, and its host ends it
/// inside an operation of the host's: the readability check is called for that alone. In a handler the host does not
/// act, and the write is given up instead.
bool MayGoOn(int iSocketNo, int* piInterrupts) {
    if (InHandler()) {
        return (*piInterrupts)++ < IDLE_INTERRUPTS_MAX;
    }
    sockCanRead(iSocketNo);
    return true;
}

const char* TextOf(const char* psText) {
    return psText != nullptr ? psText : "";
}

/// Loads the three files. 0, or -1 with the line on standard error written.
int LoadFiles(SSL_CTX* ctx, const char* psCaFile, const char* psCertFile, const char* psKeyFile) {
    if (SSL_CTX_use_certificate_file(ctx, psCertFile, SSL_FILETYPE_PEM) <= 0) {
        ErrLine("SSL_CTX_use_certificate_file[%s] error", psCertFile);
        return -1;
    }
    if (SSL_CTX_use_PrivateKey_file(ctx, psKeyFile, SSL_FILETYPE_PEM) <= 0) {
        ErrLine("SSL_CTX_use_PrivateKey_file[%s] error", psKeyFile);
        return -1;
    }
    if (SSL_CTX_check_private_key(ctx) == 0) {
        ErrLine("SSL_CTX_check_private_key error");
        return -1;
    }
    if (SSL_CTX_load_verify_locations(ctx, psCaFile, nullptr) <= 0) {
        ErrLine("SSL_CTX_load_verify_locations error");
        return -1;
    }
    return 0;
}

/// netTcpSSLReadN on a socket that does not block.
int ReadAll(char* psBuf, int iLen, int* piReadLen, SSL* ssl) {
    int iTotal = 0;
    int iInterrupts = 0;
    while (iTotal < iLen) {
        errno = 0;
        const int iRet = SSL_read(ssl, psBuf + iTotal, iLen - iTotal);
        if (iRet > 0) {
            iTotal += iRet;
            iInterrupts = 0;
            *piReadLen = iTotal;
            continue;
        }
        if (iRet == 0) {
            return 0;
        }
        int iErrno = errno;
        if (SSL_want_read(ssl) && BIO_should_retry(SSL_get_rbio(ssl))) {
            // Without errno: that was a record without application data.
            iErrno = iErrno == EAGAIN ? WaitToRead(SSL_get_rfd(ssl)) : iErrno;
            if (iErrno == 0 || (iErrno == EINTR && iInterrupts++ < IDLE_INTERRUPTS_MAX)) {
                continue;
            }
        }
        ErrLine("read len[%d] readlen[%d]", iLen, iTotal);
        errno = iErrno;
        return -1;
    }
    return iTotal;
}

/// netTcpSSLWriteN on a socket that does not block.
int WriteAll(const char* psBuf, int iLen, SSL* ssl) {
    T_SEND_WAIT tWait{};
    const int iSocketNo = SSL_get_wfd(ssl);
    int iTotal = 0;
    int iInterrupts = 0;
    while (iTotal < iLen) {
        errno = 0;
        const int iRet = SSL_write(ssl, psBuf + iTotal, iLen - iTotal);
        if (iRet > 0) {
            iTotal += iRet;
            iInterrupts = 0;
            continue;
        }
        int iErrno = errno;
        if (SSL_want_write(ssl) && (iErrno == EAGAIN || iErrno == EINTR)) {
            iErrno = WaitToSend(iSocketNo, BIO_number_written(SSL_get_wbio(ssl)), &tWait);
            if (iErrno == 0 || (iErrno == EINTR && MayGoOn(iSocketNo, &iInterrupts))) {
                continue;
            }
        }
        ErrLine("write len[%d] writelen[%d]", iLen, iTotal);
        errno = iErrno;
        break;
    }
    return iTotal;
}

} // namespace

NET_TCP_EXPORT SSL_CTX* netTcpSSLInitCtx(char* psCaFile, char* psCertFile, char* psKeyFile, char* psKeyPass,
                                         int iOption) {
    static char sNoPass[] = "";

    SSL_library_init();
    SSL_load_error_strings();
    SSL_CTX* ctx = SSL_CTX_new((iOption & NET_TCP_SSL_CLIENT) != 0 ? SSLv23_client_method() : SSLv23_server_method());
    if (ctx == nullptr) {
        ErrLine("SSL_CTX_new error");
        return nullptr;
    }
    if ((iOption & NET_TCP_SSL_NO_FILES) != 0) {
        return ctx;
    }
    SSL_CTX_set_default_passwd_cb_userdata(ctx, psKeyPass != nullptr ? psKeyPass : sNoPass);
    if (LoadFiles(ctx, TextOf(psCaFile), TextOf(psCertFile), TextOf(psKeyFile)) != 0) {
        SSL_CTX_free(ctx);
        return nullptr;
    }
    return ctx;
}

NET_TCP_EXPORT int netTcpSSLCheckCert(SSL* ssl, char* psCN, int iOption) {
    // A peer that showed no certificate has a good verify result: there was nothing to find fault with.
    X509* ptCert = SSL_get0_peer_certificate(ssl);
    if (ptCert == nullptr || SSL_get_verify_result(ssl) != X509_V_OK) {
        ErrLine("SSL_get_verify_result error");
        return -1;
    }
    if ((iOption & NET_TCP_SSL_CHECK_CN) == 0) {
        return 0;
    }
    char sPeerCN[CN_LEN] = {};
    X509_NAME* ptName = X509_get_subject_name(ptCert);
    X509_NAME_get_text_by_NID(ptName, NID_commonName, sPeerCN, sizeof(sPeerCN));
    // The whole name counts: one with a NUL inside, or longer than the buffer, would otherwise pass for its beginning.
    const int iWholeLen = X509_NAME_get_text_by_NID(ptName, NID_commonName, nullptr, 0);
    const int iWhole = iWholeLen < 0 || static_cast<size_t>(iWholeLen) == strlen(sPeerCN);
    if (psCN == nullptr || !iWhole || strcasecmp(sPeerCN, psCN) != 0) {
        ErrLine("X509_NAME_get_text_by_NID [%s] error", TextOf(psCN));
        return -2;
    }
    return 0;
}

NET_TCP_EXPORT int netTcpSSLReadN(void* pBuf, int iLen, int* piReadLen, SSL* ssl) {
    const int iSocketNo = SSL_get_rfd(ssl);
    const int iFlags = BeginNonBlock(iSocketNo);
    const int iRet = ReadAll(static_cast<char*>(pBuf), iLen, piReadLen, ssl);
    EndNonBlock(iSocketNo, iFlags);
    return iRet;
}

NET_TCP_EXPORT int netTcpSSLWriteN(void* pBuf, int iLen, SSL* ssl) {
    const int iSocketNo = SSL_get_wfd(ssl);
    const int iFlags = BeginNonBlock(iSocketNo);
    const bool bOwner = BeginPool();
    const int iRet = WriteAll(static_cast<const char*>(pBuf), iLen, ssl);
    EndPool(bOwner);
    EndNonBlock(iSocketNo, iFlags);
    return iRet;
}
