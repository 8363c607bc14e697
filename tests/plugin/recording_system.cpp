// SPDX-License-Identifier: MIT
// System calls and host utilities that are recorded and may fail: pauses and alarms pass at once, the rest goes on to
// the next library that has it.
#include <dlfcn.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "kavutil.h"
#include "recording_host.h"

using namespace kvr::test;
using std::to_string;

namespace {

template <class Fn>
Fn* next(const char* name) {
    return reinterpret_cast<Fn*>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" {

// A finding of a sanitizer in the channel process must not pass for the exit status of a run loop that gave up.
const char* __asan_default_options() {
    return "exitcode=66";
}

unsigned int sleep(unsigned int seconds) {
    recorded(kSystem, "sleep", to_string(seconds), seconds);
    return 0;
}

unsigned int alarm(unsigned int seconds) noexcept {
    recorded(seconds == 1 ? kLoss : kSystem, "alarm", to_string(seconds), seconds);
    host().alarm = seconds;
    return 0;
}

int pipe2(int* fds, int flags) noexcept {
    const auto r = recorded(kSystem, "pipe", "");
    return r ? *r : next<decltype(pipe2)>("pipe2")(fds, flags);
}

pid_t fork() noexcept {
    if (auto r = recorded(kSystem, "fork", "")) {
        return *r;
    }
    const pid_t pid = next<decltype(fork)>("fork")();
    if (pid > 0 && host().recording) {
        host().watcher = pid;
        trace(kChild, "%d", static_cast<int>(pid));
    }
    return pid;
}

pid_t waitpid(pid_t pid, int* status, int options) {
    const auto r = recorded(kSystem, "waitpid", "", pid, pid > 0);
    return r ? *r : next<decltype(waitpid)>("waitpid")(pid, status, options);
}

sighandler_t sigset(int sig, sighandler_t handler) noexcept {
    const auto r = recorded(kSystem, "sigset", to_string(sig), sig);
    return r ? SIG_ERR : next<sighandler_t(int, sighandler_t)>("sigset")(sig, handler);
}

int select(int count, fd_set* reads, fd_set* writes, fd_set* errors, timeval* limit) {
    const auto r = recorded(kSystem, "select", "");
    return r ? *r : next<decltype(select)>("select")(count, reads, writes, errors, limit);
}

int setsockopt(int sock, int level, int name, const void* value, socklen_t len) noexcept {
    if (level == IPPROTO_TCP && (name == TCP_CORK || name == TCP_NODELAY)) {
        int on = 0;
        memcpy(&on, value, sizeof on);
        recorded(kSocket, name == TCP_CORK ? "cork" : "nodelay", to_string(on));
    }
    return next<decltype(setsockopt)>("setsockopt")(sock, level, name, value, len);
}

// One that has ended and was not reaped yet counts: whether a watcher has noticed its end is no part of any case.
int procIsExist(int iPid) {
    const auto r = recorded(kHost, "procIsExist", to_string(iPid), iPid, iPid > 0);
    return r ? *r : kill(iPid, 0) == 0 ? 1 : 0;
}

int procSndSig2Proc(int iPid, int iSig) {
    const auto r = recorded(kHost, "procSndSig2Proc", to_string(iPid) + " " + to_string(iSig), iPid, iPid > 0);
    return r ? *r : kill(iPid, iSig);
}

int sockCanRead(int iSock) {
    const auto r = recorded(kHost, "sockCanRead", "", iSock, iSock > 0);
    return r ? *r : next<decltype(sockCanRead)>("sockCanRead")(iSock);
}

int sockGetHostIp(char* psHost, char* psAddr) {
    const auto r = recorded(kHost, "sockGetHostIp", psHost);
    return r ? *r : next<decltype(sockGetHostIp)>("sockGetHostIp")(psHost, psAddr);
}

int sockSetSTimeOut(int iSock, int iTimeOut) {
    host().sock = iSock;
    recorded(kHost, "sockSetSTimeOut", to_string(iTimeOut), iTimeOut, iSock > 2);
    return 0;
}

int streamWriteNByte(void* pBuf, int iLen, int iSock) {
    const auto r = recorded(kHost, "write", to_string(iLen), iLen, iSock > 0);
    return r ? *r : next<decltype(streamWriteNByte)>("streamWriteNByte")(pBuf, iLen, iSock);
}
}
