// SPDX-License-Identifier: MIT
// TLS helpers of the TCP client (contracts in net_tcp_common.h). The client calls netTcpSSLWriteN in signal handlers
// too: a write on an established connection neither allocates nor takes part in stdio.
#include "net_tcp_common.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <openssl/bio.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "kavutil.h"
#include "net_tcp_handler.h"

#include "net_tcp_heap.inl"

/// The library is built with hidden visibility; this opens one name.
#define NET_TCP_EXPORT __attribute__((visibility("default")))

namespace {

/// A line on standard error: two file names' worth; longer ones are cut.
constexpr int STDERR_LINE_LEN = 1024;
/// So many interruptions without a byte of progress are survived where the host cannot end the process: in a handler,
/// and in reads.
constexpr int IDLE_INTERRUPTS_MAX = 2;
/// The send time-out covers a write as a whole, to within this step.
constexpr long LIMIT_STEP_MS = 250;
/// The longest common name that is compared, with its NUL.
constexpr int CN_LEN = 256;

/// Holds one netTcpSSLWriteN to the socket's send time-out. The kernel applies that to each system call, and one TLS
/// record can take several when the peer hardly reads.
struct T_WRITE_LIMIT {
    int iCalls;        ///< system calls so far
    long lStartMs;     ///< of the first one
    long lLimitMs;     ///< of the whole write; 0: not looked up yet, negative: none
    long lAppliedMs;   ///< time used when the socket's time-out was last shortened
    int iShortened;    ///< the socket's time-out has to be put back
    int iExpired;      ///< the limit ended the write
    timeval tSndTimeO; ///< the socket's own time-out
};

__attribute__((format(printf, 1, 2))) void ErrLine(const char* psFmt, ...) {
    char sLine[STDERR_LINE_LEN];
    const int iErrno = errno;
    va_list vaArgs;
    va_start(vaArgs, psFmt);
    int iLen = vsnprintf(sLine, sizeof(sLine) - 1, psFmt, vaArgs);
    va_end(vaArgs);
    if (iLen > static_cast<int>(sizeof(sLine)) - 2) {
        iLen = static_cast<int>(sizeof(sLine)) - 2;
    }
    if (iLen >= 0) {
        sLine[iLen] = '\n';
        // Nothing is left to report to when standard error itself fails.
        [[maybe_unused]] const ssize_t lRet = write(STDERR_FILENO, sLine, static_cast<size_t>(iLen) + 1);
    }
    errno = iErrno;
}

long NowMs() {
    timespec tNow{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &tNow);
    return tNow.tv_sec * 1000 + tNow.tv_nsec / 1000000;
}

/// Called by OpenSSL around each system call of a write. A result of 0 or less ends the write.
long LimitWrite(BIO* bio, int iOper, const char*, size_t, int, long, int iRet, size_t*) {
    auto* ptLimit = reinterpret_cast<T_WRITE_LIMIT*>(BIO_get_callback_arg(bio));
    if (iOper != BIO_CB_WRITE || ptLimit == nullptr) {
        return iRet;
    }
    if (ptLimit->iCalls++ == 0) {
        ptLimit->lStartMs = NowMs();
        return iRet;
    }
    const long lUsedMs = NowMs() - ptLimit->lStartMs;
    if (lUsedMs - ptLimit->lAppliedMs < LIMIT_STEP_MS || ptLimit->lLimitMs < 0) {
        return iRet;
    }
    const int iSocketNo = static_cast<int>(BIO_get_fd(bio, nullptr));
    if (ptLimit->lLimitMs == 0) {
        socklen_t iLen = sizeof(ptLimit->tSndTimeO);
        if (getsockopt(iSocketNo, SOL_SOCKET, SO_SNDTIMEO, &ptLimit->tSndTimeO, &iLen) != 0) {
            ptLimit->tSndTimeO = {};
        }
        const long lLimitMs = ptLimit->tSndTimeO.tv_sec * 1000 + ptLimit->tSndTimeO.tv_usec / 1000;
        ptLimit->lLimitMs = lLimitMs > 0 ? lLimitMs : -1;
        if (lLimitMs <= 0) {
            return iRet;
        }
    }
    const long lLeftMs = ptLimit->lLimitMs - lUsedMs;
    if (lLeftMs <= 0) {
        ptLimit->iExpired = 1;
        BIO_clear_retry_flags(bio);
        return -1;
    }
    const timeval tLeft{lLeftMs / 1000, lLeftMs % 1000 * 1000};
    ptLimit->iShortened = 1;
    ptLimit->lAppliedMs = lUsedMs;
    setsockopt(iSocketNo, SOL_SOCKET, SO_SNDTIMEO, &tLeft, sizeof(tLeft));
    return iRet;
}

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
    int iTotal = 0;
    int iInterrupts = 0;
    while (iTotal < iLen) {
        errno = 0;
        const int iRet = SSL_read(ssl, static_cast<char*>(pBuf) + iTotal, iLen - iTotal);
        if (iRet > 0) {
            iTotal += iRet;
            iInterrupts = 0;
            *piReadLen = iTotal;
            continue;
        }
        const int iErrno = errno;
        if (iRet == 0) {
            return 0;
        }
        // Neither an interruption nor a record without application data ends the connection.
        const int iAgain = SSL_want_read(ssl) && BIO_should_retry(SSL_get_rbio(ssl)) && iErrno != EAGAIN;
        if (iAgain && (iErrno != EINTR || iInterrupts++ < IDLE_INTERRUPTS_MAX)) {
            continue;
        }
        ErrLine("read len[%d] readlen[%d]", iLen, iTotal);
        errno = iErrno;
        return -1;
    }
    return iTotal;
}

NET_TCP_EXPORT int netTcpSSLWriteN(void* pBuf, int iLen, SSL* ssl) {
    if (iLen <= 0) {
        return 0;
    }
    f_iWriting = f_iWriting + 1;
    T_WRITE_LIMIT tLimit{};
    BIO* bio = SSL_get_wbio(ssl);
    BIO_set_callback_arg(bio, reinterpret_cast<char*>(&tLimit));
    BIO_set_callback_ex(bio, LimitWrite);

    int iTotal = 0;
    int iInterrupts = 0;
    int iErrno = 0;
    while (iTotal < iLen) {
        errno = 0;
        const int iRet = SSL_write(ssl, static_cast<char*>(pBuf) + iTotal, iLen - iTotal);
        iErrno = errno;
        if (iRet > 0) {
            iTotal += iRet;
            iInterrupts = 0;
            continue;
        }
        if (iErrno == EINTR && SSL_want_write(ssl) && MayGoOn(SSL_get_wfd(ssl), &iInterrupts)) {
            continue;
        }
        ErrLine("write len[%d] writelen[%d]", iLen, iTotal);
        break;
    }

    BIO_set_callback_ex(bio, nullptr);
    BIO_set_callback_arg(bio, nullptr);
    if (tLimit.iShortened != 0) {
        setsockopt(SSL_get_wfd(ssl), SOL_SOCKET, SO_SNDTIMEO, &tLimit.tSndTimeO, sizeof(tLimit.tSndTimeO));
    }
    f_iWriting = f_iWriting - 1;
    errno = tLimit.iExpired != 0 ? EAGAIN : iErrno;
    return iTotal;
}
