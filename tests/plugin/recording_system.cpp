// SPDX-License-Identifier: MIT
// The calls that the plug-in, the TCP client and the host's utilities make, each behind its gate: pauses and alarms
// pass at once, the rest goes on to the next library that has it. Those whose order or arguments matter are recorded.
//
// The functions carry their names as labels of the assembler, so that no header's declaration stands in their way.
#include <dlfcn.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/select.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "gate.h"
#include "kavutil.h"
#include "recording_host.h"

using namespace kvr::test;
using std::to_string;

namespace {

template <class Fn>
Fn* next(const char* name) {
    const Own looks_up; // which allocates
    return reinterpret_cast<Fn*>(dlsym(RTLD_NEXT, name));
}

} // namespace

// A finding of a sanitizer in the channel process must not pass for the exit status of a run loop that gave up.
extern "C" const char* __asan_default_options() {
    return "exitcode=66";
}

#define CALL(RESULT, NAME, ...)                                                                                        \
    extern "C" __attribute__((visibility("default"))) RESULT on_##NAME(__VA_ARGS__) __asm__(#NAME);                    \
    RESULT on_##NAME(__VA_ARGS__)
/// The function behind it.
#define REAL(NAME)                                                                                                     \
    ([] {                                                                                                              \
        static const auto real = next<decltype(on_##NAME)>(#NAME);                                                     \
        return real;                                                                                                   \
    }())
/// A call that only passes: its result and name, its descriptor or -1, its parameters, its arguments.
#define PASS(RESULT, NAME, FD, PARAMETERS, ...)                                                                        \
    extern "C" __attribute__((visibility("default"))) RESULT on_##NAME PARAMETERS __asm__(#NAME);                      \
    RESULT on_##NAME PARAMETERS {                                                                                      \
        const Gate gate(#NAME, FD);                                                                                    \
        return gate ? gate.as<RESULT>() : REAL(NAME)(__VA_ARGS__);                                                     \
    }

PASS(int, connect, a, (int a, const void* b, unsigned c), a, b, c)
PASS(ssize_t, send, a, (int a, const void* b, size_t c, int d), a, b, gate.cut(c), d)
PASS(ssize_t, recv, a, (int a, void* b, size_t c, int d), a, b, gate.cut(c), d)
PASS(ssize_t, read, a, (int a, void* b, size_t c), a, b, gate.cut(c))
PASS(int, getsockopt, a, (int a, int b, int c, void* d, void* e), a, b, c, d, e)
PASS(int, getsockname, a, (int a, void* b, void* c), a, b, c)
PASS(int, shutdown, a, (int a, int b), a, b)
PASS(int, poll, a != nullptr ? a->fd : -1, (pollfd * a, unsigned long b, int c), a, b, c)
PASS(int, ioctl, a, (int a, unsigned long b, void* c), a, b, c)
PASS(int, stat, -1, (const char* a, void* b), a, b)
PASS(int, fstat, a, (int a, void* b), a, b)
PASS(FILE*, fdopen, a, (int a, const char* b), a, b)
PASS(int, fseek, -1, (FILE * a, long b, int c), a, b, c)
PASS(long, ftell, -1, (FILE * a), a)
PASS(size_t, fread, -1, (void* a, size_t b, size_t c, FILE* d), a, b, gate.cut(c), d)
PASS(int, ferror, -1, (FILE * a), a)
PASS(int, kill, -1, (pid_t a, int b), a, b)
PASS(int, pthread_sigmask, -1, (int a, const void* b, void* c), a, b, c)
PASS(int, sockGetLocalAddr, a, (int a, char* b, int* c), a, b, c)
PASS(int, strToUpper, -1, (char* a), a)
PASS(int, SSL_connect, -1, (void* a), a)
PASS(int, SSL_write, -1, (void* a, const void* b, int c), a, b, c)
PASS(int, SSL_peek, -1, (void* a, void* b, int c), a, b, c)
PASS(int, SSL_do_handshake, -1, (void* a), a)
PASS(int, SSL_set_fd, b, (void* a, int b), a, b)
PASS(int, SSL_CTX_check_private_key, -1, (const void* a), a)
PASS(void*, SSL_get0_peer_certificate, -1, (const void* a), a)
PASS(long, SSL_get_verify_result, -1, (const void* a), a)

#define MAKE(NAME)                                                                                                     \
    CALL(void*, NAME, const void* of) {                                                                                \
        const Gate gate(#NAME);                                                                                        \
        void* const made = gate ? nullptr : REAL(NAME)(of);                                                            \
        count_tls_object(made != nullptr ? 1 : 0);                                                                     \
        return made;                                                                                                   \
    }
#define RELEASE(NAME)                                                                                                  \
    CALL(void, NAME, void* object) {                                                                                   \
        const Gate gate(#NAME);                                                                                        \
        count_tls_object(object != nullptr ? -1 : 0);                                                                  \
        const int left = tls_objects();                                                                                \
        REAL(NAME)(object); /* a session gives its own references back in here */                                      \
        count_tls_object(left - tls_objects());                                                                        \
    }
MAKE(SSL_CTX_new)
MAKE(SSL_new)
RELEASE(SSL_free)
RELEASE(SSL_CTX_free)

/// Those that read files through stdio: what happens in there is OpenSSL's affair.
#define LOAD(NAME, LAST)                                                                                               \
    CALL(int, NAME, void* a, const char* b, LAST c) {                                                                  \
        const Gate gate(#NAME);                                                                                        \
        const Own reads;                                                                                               \
        return gate ? gate.as<int>() : REAL(NAME)(a, b, c);                                                            \
    }
LOAD(SSL_CTX_use_certificate_file, int)
LOAD(SSL_CTX_use_PrivateKey_file, int)
LOAD(SSL_CTX_load_verify_locations, const char*)

/// The system's: the host's exact-length write is known by the short name.
CALL(ssize_t, write, int fd, const void* data, size_t size) {
    const Gate gate("system write", fd);
    return gate ? gate.as<ssize_t>() : REAL(write)(fd, data, gate.cut(size));
}

// Descriptors made and given back.

CALL(int, socket, int a, int b, int c) {
    const Gate gate("socket");
    return gate ? gate.as<int>() : made(REAL(socket)(a, b, c));
}

CALL(int, open, const char* path, int flags, mode_t mode) {
    const Gate gate("open");
    return gate ? gate.as<int>() : made(REAL(open)(path, flags, mode));
}

CALL(int, fcntl, int fd, int command, long value) {
    const Gate gate(command == F_DUPFD_CLOEXEC ? "dup" : "fcntl", fd);
    const int result = gate ? gate.as<int>() : REAL(fcntl)(fd, command, value);
    return command == F_DUPFD_CLOEXEC ? made(result) : result;
}

CALL(int, pipe2, int* fds, int flags) {
    const auto r = recorded(kSystem, "pipe", "");
    const int result = r ? r.as<int>() : REAL(pipe2)(fds, flags);
    if (result == 0) {
        made(fds[0]);
        made(fds[1]);
    }
    return result;
}

/// One that fails gives the number back all the same.
CALL(int, close, int fd) {
    const Gate gate("close", fd);
    given_back(fd);
    const int result = REAL(close)(fd);
    return gate ? gate.as<int>() : result;
}

CALL(int, fclose, FILE* file) {
    const Gate gate("fclose", fileno(file));
    given_back(fileno(file));
    const int result = REAL(fclose)(file);
    return gate ? gate.as<int>() : result;
}

// What is recorded.

CALL(unsigned, sleep, unsigned seconds) {
    const auto r = recorded(kSystem, "sleep", to_string(seconds), seconds);
    return 0;
}

CALL(unsigned, alarm, unsigned seconds) {
    const auto r = recorded(seconds == 1 ? kLoss : kSystem, "alarm", to_string(seconds), seconds);
    host().alarm = seconds;
    return 0;
}

CALL(pid_t, fork, ) {
    const auto r = recorded(kSystem, "fork", "");
    const pid_t pid = r ? r.as<pid_t>() : REAL(fork)();
    if (pid == 0 && host().recording) {
        leave_channel();
    }
    if (pid > 0 && host().recording) {
        host().watcher = pid;
        trace(kChild, "%d", static_cast<int>(pid));
    }
    return pid;
}

CALL(pid_t, waitpid, pid_t pid, int* status, int options) {
    const auto r = recorded(kSystem, "waitpid", "", pid, pid > 0);
    if (!r) {
        const pid_t ended = REAL(waitpid)(pid, status, options);
        if (host().recording && ended < 0 && errno == ECHILD) {
            trace(kFault, "waitpid(%d) of no child", static_cast<int>(pid));
        }
        return ended;
    }
    const int error = errno;
    if (error == ECHILD) { // a host that ignores SIGCHLD: the child is gone all the same
        REAL(waitpid)(pid, status, options);
    }
    errno = error;
    return r.as<pid_t>();
}

CALL(Handler, sigset, int sig, Handler handler) {
    const auto r = recorded(kSystem, "sigset", to_string(sig), sig);
    return r ? SIG_ERR : REAL(sigset)(sig, watched(sig, handler));
}

CALL(int, select, int count, fd_set* reads, fd_set* writes, fd_set* errors, timeval* limit) {
    const auto r = recorded(kSystem, "select", "");
    return r ? r.as<int>() : REAL(select)(count, reads, writes, errors, limit);
}

CALL(int, setsockopt, int sock, int level, int name, const void* value, unsigned length) {
    if (host().recording && level == IPPROTO_TCP && (name == TCP_CORK || name == TCP_NODELAY)) {
        int on = 0;
        memcpy(&on, value, sizeof on);
        trace(kSocket, "%s(%d)", name == TCP_CORK ? "cork" : "nodelay", on);
    }
    const Gate gate("setsockopt", sock);
    return gate ? gate.as<int>() : REAL(setsockopt)(sock, level, name, value, length);
}

// One that has ended and was not reaped yet counts: whether a watcher has noticed its end is no part of any case.
CALL(int, procIsExist, int iPid) {
    const auto r = recorded(kHost, "procIsExist", to_string(iPid), iPid, iPid > 0);
    if (r) {
        return r.as<int>();
    }
    const int exists = REAL(procIsExist)(iPid);
    const Own looks_again;
    return exists > 0 || kill(iPid, 0) == 0 ? 1 : 0;
}

CALL(int, procSndSig2Proc, int iPid, int iSig) {
    const auto r = recorded(kHost, "procSndSig2Proc", to_string(iPid) + " " + to_string(iSig), iPid, iPid > 0);
    return r ? r.as<int>() : REAL(procSndSig2Proc)(iPid, iSig);
}

CALL(int, sockCanRead, int iSock) {
    const auto r = recorded(kHost, "sockCanRead", "", iSock, iSock > 0);
    return r ? r.as<int>() : REAL(sockCanRead)(iSock);
}

CALL(int, sockGetHostIp, char* psHost, char* psAddr) {
    const auto r = recorded(kHost, "sockGetHostIp", psHost);
    return r ? r.as<int>() : REAL(sockGetHostIp)(psHost, psAddr);
}

CALL(int, sockSetSTimeOut, int iSock, int iTimeOut) {
    host().sock = iSock;
    const auto r = recorded(kHost, "sockSetSTimeOut", to_string(iTimeOut), iTimeOut, iSock > 2);
    return r ? r.as<int>() : 0;
}

CALL(int, streamWriteNByte, void* pBuf, int iLen, int iSock) {
    const auto r = recorded(kHost, "write", to_string(iLen), iLen, iSock > 0);
    return r ? r.as<int>() : REAL(streamWriteNByte)(pBuf, iLen, iSock);
}
