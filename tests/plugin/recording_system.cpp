// SPDX-License-Identifier: MIT
// System calls that the scripted host records and may fail: pauses and alarms pass at once, the rest goes on to the C
// library. Outside the channel process everything passes through.
#include "recording_host.h"

#include <dlfcn.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace kvr::test {

std::optional<int> run_hook(const char* op, long a) {
    auto hook = host().hooks.find(op);
    if (!host().recording || hook == host().hooks.end()) {
        return {};
    }
    static std::map<std::string, int> calls;
    return hook->second(Call{++calls[op], a});
}

namespace {

template <class Fn>
Fn next(const char* name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

/// Records the call when it comes from a process of the channel, and asks its hook.
std::optional<int> recorded(const char* op, long a, bool shown) {
    if (!host().recording) {
        return {};
    }
    trace(kSystem, "%s(%s)", op, shown ? std::to_string(a).c_str() : "");
    return run_hook(op, a);
}

unsigned int passes_at_once(const char* op, unsigned int seconds) {
    if (!host().recording) {
        return next<unsigned int (*)(unsigned int)>(op)(seconds);
    }
    recorded(op, seconds, true);
    return 0;
}

} // namespace
} // namespace kvr::test

using namespace kvr::test;

extern "C" {

// A finding of a sanitizer in the channel process must not pass for the exit status of a run loop that gave up.
const char* __asan_default_options() {
    return "exitcode=66";
}

unsigned int sleep(unsigned int seconds) {
    return passes_at_once("sleep", seconds);
}

unsigned int alarm(unsigned int seconds) noexcept {
    return passes_at_once("alarm", seconds);
}

int pipe(int* fds) noexcept {
    if (auto r = recorded("pipe", 0, false)) {
        return *r;
    }
    return next<int (*)(int*)>("pipe")(fds);
}

int pipe2(int* fds, int flags) noexcept {
    if (auto r = recorded("pipe", 0, false)) {
        return *r;
    }
    return next<int (*)(int*, int)>("pipe2")(fds, flags);
}

pid_t fork() noexcept {
    if (auto r = recorded("fork", 0, false)) {
        return *r;
    }
    const pid_t pid = next<pid_t (*)()>("fork")();
    if (pid > 0 && host().recording) {
        host().watcher = pid;
        trace(kChild, "%d", static_cast<int>(pid));
    }
    return pid;
}

pid_t waitpid(pid_t pid, int* status, int options) {
    if (host().recording && pid < 1) {
        trace(kFault, "waitpid(%d)", static_cast<int>(pid));
    }
    if (auto r = recorded("waitpid", pid, false)) {
        return *r;
    }
    return next<pid_t (*)(pid_t, int*, int)>("waitpid")(pid, status, options);
}

sighandler_t sigset(int sig, sighandler_t handler) noexcept {
    if (auto r = recorded("sigset", sig, true)) {
        return SIG_ERR;
    }
    return next<sighandler_t (*)(int, sighandler_t)>("sigset")(sig, handler);
}

int select(int count, fd_set* reads, fd_set* writes, fd_set* errors, timeval* limit) {
    if (auto r = recorded("select", count, false)) {
        return *r;
    }
    return next<int (*)(int, fd_set*, fd_set*, fd_set*, timeval*)>("select")(count, reads, writes, errors, limit);
}

int setsockopt(int sock, int level, int name, const void* value, socklen_t len) noexcept {
    if (host().recording && level == IPPROTO_TCP && (name == TCP_CORK || name == TCP_NODELAY)) {
        int on = 0;
        memcpy(&on, value, sizeof on);
        trace(kSocket, "%s=%d", name == TCP_CORK ? "cork" : "nodelay", on);
    }
    return next<int (*)(int, int, int, const void*, socklen_t)>("setsockopt")(sock, level, name, value, len);
}
}
