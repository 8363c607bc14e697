// SPDX-License-Identifier: MIT
// The keys of TLS sessions, written down for a protocol analyser where the environment asks for it (contract in
// key_log_env.h). OpenSSL hands them over in handshakes, which the main flow alone makes: nothing here runs in a
// handler. The file is opened anew for each line, so that no descriptor is kept that a fork or a removed file could
// lead astray.
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/ssl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "key_log_env.h"
#include "net_tcp_private.h"

namespace {

/// A label, the client's random and the longest secret, in hexadecimal, take less than half of it.
constexpr int KEY_LINE_LEN = 512;

bool IsPrivate(int iFd) {
    struct stat tStat {};
    return fstat(iFd, &tStat) == 0 && S_ISREG(tStat.st_mode) && tStat.st_uid == geteuid() && tStat.st_nlink == 1 &&
           (tStat.st_mode & (S_IRWXG | S_IRWXO)) == 0;
}

/// A descriptor, or -1 with errno.
int OpenKeyLog(const char* psFile) {
    const int iFlags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY | O_NONBLOCK;
    const int iFd = open(psFile, iFlags, S_IRUSR | S_IWUSR);
    if (iFd >= 0 && !IsPrivate(iFd)) {
        close(iFd);
        errno = EPERM;
        return -1;
    }
    return iFd;
}

/// OpenSSL calls it with each line, without its end. A session goes on without its keys being written.
void WriteKeys(const SSL*, const char* psKeys) {
    const int iErrno = errno;
    char sLine[KEY_LINE_LEN];
    const int iLen = snprintf(sLine, sizeof(sLine), "%s\n", psKeys);
    const char* psFile = secure_getenv(KVR_KEY_LOG_ENV);
    if (psFile != nullptr && iLen > 0 && iLen < KEY_LINE_LEN) {
        errno = 0;
        const int iFd = OpenKeyLog(psFile);
        if (iFd < 0 || write(iFd, sLine, static_cast<size_t>(iLen)) != iLen) {
            ErrLine("key log [%s] error[%d:%s]", psFile, errno, ErrnoText(errno).sText);
        }
        if (iFd >= 0) {
            close(iFd);
        }
    }
    OPENSSL_cleanse(sLine, sizeof(sLine));
    errno = iErrno;
}

} // namespace

void LogKeys(T_NET_TCPCLIENT* ptClient, SSL_CTX* ctx) {
    static constexpr char FUNC[] = "netTcpClientInit";
    const char* psFile = secure_getenv(KVR_KEY_LOG_ENV);
    if (psFile == nullptr || psFile[0] == '\0') {
        return;
    }
    const int iFd = OpenKeyLog(psFile);
    if (iFd < 0) {
        const int iErrno = errno;
        NET_TCP_LOG(ptClient, 1, FUNC, "key log [%s] error[%d:%s]: no keys are written", psFile, iErrno,
                    ErrnoText(iErrno).sText);
        return;
    }
    close(iFd);
    NET_TCP_LOG(ptClient, 1, FUNC, "TLS keys are written to [%s]: whoever reads that file can read what is sent",
                psFile);
    SSL_CTX_set_keylog_callback(ctx, WriteKeys);
}
