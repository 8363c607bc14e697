// SPDX-License-Identifier: MIT
// The table of the system's, OpenSSL's and the host's utilities' calls, and the place that all calls pass.
#include "calls.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <utility>

#include "recording_host.h"
#include "support/heap_watch.h"

// A finding of a sanitizer in the channel process must not pass for the exit status of a run loop that gave up.
extern "C" const char* __asan_default_options() {
    return "exitcode=66";
}

namespace kvr::test {

namespace {

using Arguments = std::array<long, 6>;
using Function = long(long, long, long, long, long, long);

constexpr int kNoError = 4711; ///< no errno of the system's

Attack g_attack;
Attacked* g_attacked = nullptr;
pid_t g_channel = 0;
bool g_open = false;
bool g_halved = false;             ///< a call did half of its work: now each that is to be repeated is interrupted
volatile sig_atomic_t g_own = 0;   ///< above 0: the test itself is at work
volatile sig_atomic_t g_depth = 0; ///< handlers of the channel that run
void (*g_handlers[NSIG])(int);     ///< the channel's
std::array<bool, 256> g_foreign;   ///< descriptors that are not the channel's
int g_tls_objects = 0;
const char* g_last = "";

void fault(const char* what) {
    trace(kFault, "%s by %s", what, g_last);
}

void look_at_heap() {
    if (g_depth > 0 && g_own == 0) {
        fault("heap used in a handler");
    }
}

/// False when the signal is held.
bool interrupted_by(int signal) {
    const int saved = std::exchange(errno, kNoError);
    raise(signal);
    if (errno != kNoError) {
        fault("errno changed in a handler");
    }
    sigset_t pending;
    sigpending(&pending);
    errno = saved;
    return sigismember(&pending, signal) == 0;
}

void on_signal(int signal) {
    const int own = std::exchange(g_own, 0);
    g_depth = g_depth + 1;
    g_handlers[signal](signal);
    g_depth = g_depth - 1;
    g_own = own;
}

/// Puts itself in front of a handler that was set up.
long watch(long result, long signal) {
    struct sigaction action {};
    sigaction(static_cast<int>(signal), nullptr, &action);
    if (action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN && action.sa_handler != on_signal) {
        g_handlers[signal] = std::exchange(action.sa_handler, on_signal);
        sigaction(static_cast<int>(signal), &action, nullptr);
    }
    return result;
}

/// What the attack makes of this call: an error of its, 0 for a signal alone; nothing when it does not suit the call.
std::optional<int> suits(const Row& row) {
    switch (g_attack.action) {
    case Action::kFail: {
        const int error = row.errors.at(static_cast<size_t>(g_attack.error));
        return error != 0 ? std::optional(error) : std::nullopt;
    }
    case Action::kInsteadOf:
        return std::ranges::count(row.errors, EINTR) > 0 ? std::optional(EINTR) : std::nullopt;
    default:
        return 0;
    }
}

/// The error with which the call ends; 0: none.
int strike(Row& row, int& signal_after) {
    if (!g_open || getpid() != g_channel) {
        return 0;
    }
    if (g_halved && row.again) {
        row.again = false;
        return EINTR;
    }
    if (++g_attacked->calls < g_attack.target || g_attacked->fired != 0) {
        return 0;
    }
    const std::optional<int> error = suits(row);
    if (!error) {
        return 0;
    }
    g_attacked->fired = g_attacked->calls;
    g_attacked->row = &row;
    if (g_attack.action == Action::kAfter) {
        signal_after = g_attack.signal;
    } else if (g_attack.signal != 0 && !interrupted_by(g_attack.signal)) {
        return 0; // held, so it ends no call
    }
    g_halved = *error == kHalf;
    g_attacked->error = std::max(*error, 0);
    return *error;
}

std::optional<long> scripted(Row& row, long argument) {
    const auto hook = host().hooks.find(row.name);
    if (hook == host().hooks.end()) {
        return {};
    }
    g_own = g_own + 1;
    const std::optional<long> result = hook->second({++row.calls, argument});
    g_own = g_own - 1;
    return result;
}

long make(const Row& row, long argument, bool half, const std::function<long(bool half)>& real) {
    g_own = g_own + (row.own ? 1 : 0);
    long result = row.faked ? 0 : real(half);
    if ((row.fd != 0 || row.pid) && static_cast<int>(result) < 0 && (errno == EBADF || errno == ECHILD)) {
        fault("a descriptor or child that is none");
    }
    g_own = g_own - (row.own ? 1 : 0);
    if (row.then != nullptr) {
        g_own = g_own + 1;
        result = row.then(result, argument);
        g_own = g_own - 1;
    }
    return result;
}

std::string shown_of(const Row& row, const Arguments& arguments) {
    std::string text;
    for (const size_t number : row.shown) {
        if (number != 0) {
            text += (text.empty() ? "" : " ") + std::to_string(static_cast<int>(arguments.at(number - 1)));
        }
    }
    return text;
}

/// A call that goes on to the next library that has it. All of its arguments are integers and pointers, which six longs
/// carry, whichever and however many they are.
long call(Row& row, const char* symbol, void*& next, Arguments arguments) {
    if (next == nullptr) {
        g_own = g_own + 1; // it allocates
        next = dlsym(RTLD_NEXT, symbol);
        g_own = g_own - 1;
    }
    auto real = [&](bool half) {
        if (half && arguments.at(row.half - 1) > 1) {
            arguments.at(row.half - 1) /= 2;
        }
        return std::apply(reinterpret_cast<Function*>(next), arguments);
    };
    if (!host().recording || g_own != 0) {
        return real(false);
    }
    g_last = row.name;
    const auto fd = row.fd != 0 ? static_cast<unsigned>(arguments.at(row.fd - 1)) : STDERR_FILENO;
    if (fd != STDERR_FILENO && (fd >= g_foreign.size() || g_foreign.at(fd))) {
        fault("a foreign descriptor used");
    }
    if (row.pid && static_cast<int>(arguments[0]) <= 0) {
        fault("a group of processes meant");
    }
    const long argument = arguments.at(std::max<size_t>(row.shown[0], 1) - 1);
    const int objects = tls_objects();
    const long result = pass(row, shown_of(row, arguments), argument, std::ref(real)); // no heap
    // A session gives its own references back inside.
    g_tls_objects = objects + ((row.tls > 0 ? result : arguments[0]) != 0 ? row.tls : 0);
    return result;
}

} // namespace

long pass(Row& row, const std::string& shown, long argument, const std::function<long(bool half)>& real) {
    if (!host().recording || g_own != 0) {
        return real(false);
    }
    g_last = row.name;
    if (row.kind != 0) {
        trace(row.kind == kLoss && argument != 1 ? char{kSystem} : row.kind, "%s(%s)", row.name, shown.c_str());
    }
    if (row.gives_back && g_depth > 0) {
        fault("something given back in a handler");
    }
    std::optional<long> result = scripted(row, argument);
    int signal_after = 0;
    const int error = strike(row, signal_after);
    if (error > 0) {
        result = row.failed;
        errno = error;
    }
    const int left = errno;
    if (!result) {
        result = make(row, argument, error == kHalf, real);
    } else if (row.gives_back && left != EINTR) {
        make(row, argument, false, real);
        errno = left;
    }
    if (signal_after != 0) {
        interrupted_by(signal_after);
    }
    return *result;
}

void plan(const Attack& attack) {
    if (g_attacked == nullptr) {
        g_attacked = static_cast<Attacked*>(
            mmap(nullptr, sizeof(Attacked), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    }
    heap_used = look_at_heap;
    g_attack = attack;
    *g_attacked = {};
}

const Attacked& attacked() {
    return *g_attacked;
}

void open_window(bool open) {
    g_open = open && g_attack.action != Action::kNone;
}

void start_recording() {
    for (size_t fd = 0; fd < g_foreign.size(); ++fd) {
        g_foreign.at(fd) = fcntl(static_cast<int>(fd), F_GETFD) >= 0;
    }
    g_channel = getpid();
    host().recording = true;
}

int tls_objects() {
    return g_tls_objects;
}

} // namespace kvr::test

using namespace kvr::test;

/// The function carries the call's name as a label of the assembler: no header's declaration stands in its way.
#define CALL_AS(SYMBOL, NAME, ...)                                                                                     \
    static Row row_##SYMBOL{.name = NAME __VA_OPT__(, ) __VA_ARGS__};                                                  \
    static void* next_##SYMBOL;                                                                                        \
    extern "C" __attribute__((visibility("default"))) Function on_##SYMBOL __asm__(#SYMBOL);                           \
    long on_##SYMBOL(long a, long b, long c, long d, long e, long f) {                                                 \
        return call(row_##SYMBOL, #SYMBOL, next_##SYMBOL, {a, b, c, d, e, f});                                         \
    }
#define CALL(NAME, ...) CALL_AS(NAME, #NAME __VA_OPT__(, ) __VA_ARGS__)

// Sockets
CALL(
    socket, .errors = {EMFILE, ENOBUFS}, .told = "1 socket error[", .then = [](long made, long) {
        host().sock = static_cast<int>(made);
        return made;
    })
CALL(connect, .errors = {ECONNREFUSED, ETIMEDOUT, ENETUNREACH, EINTR}, .told = "1 connect[", .fd = 1)
CALL(send, .errors = {EPIPE, ECONNRESET, EAGAIN, EINTR, kHalf}, .told = "1 write[", .fd = 1, .half = 3, .again = true)
CALL(recv, .errors = {ECONNRESET, EAGAIN, EINTR, kHalf}, .fd = 1, .half = 3)
CALL(getsockopt, .errors = {ENOBUFS}, .fd = 1)
CALL(getsockname, .errors = {ENOBUFS}, .fd = 1)
CALL(shutdown, .errors = {ENOTCONN}, .fd = 1)
CALL(poll, .errors = {ENOMEM, EINTR}, .again = true)
CALL(select, .kind = kSystem)

// Descriptors and files
CALL(open, .errors = {EMFILE, EACCES})
CALL(read, .errors = {EIO, ECONNRESET, EINTR, kHalf}, .fd = 1, .half = 3)
CALL_AS(write, "system write", .errors = {EPIPE, EIO, EAGAIN, EINTR, kHalf}, .fd = 1, .half = 3, .again = true)
CALL(close, .errors = {EIO}, .fd = 1, .gives_back = true)
CALL(fcntl, .fd = 1)
CALL(ioctl, .errors = {EIO}, .fd = 1)
CALL_AS(pipe2, "pipe", .errors = {EMFILE, ENFILE}, .told = "1 pipe error[", .kind = kSystem)
CALL(stat, .errors = {EACCES})
CALL(fstat, .errors = {EIO}, .told = "1 open [", .fd = 1)
CALL(fdopen, .errors = {ENOMEM}, .told = "1 open [", .failed = 0, .fd = 1)
CALL(fseek, .errors = {EIO}, .told = "1 fseek [")
CALL(ftell, .errors = {EIO}, .told = "1 tell [")
CALL(fread, .errors = {EIO, kHalf}, .told = "changed: [", .failed = 0, .half = 3)
CALL(ferror, .errors = {EIO}, .told = "1 tell [", .failed = 1)
CALL(fclose, .errors = {EIO}, .gives_back = true)

// Processes and signals
CALL(
    fork, .errors = {EAGAIN, ENOMEM}, .told = "1 fork error[", .kind = kSystem, .then = [](long pid, long) {
        if (pid > 0) {
            host().watcher = static_cast<pid_t>(pid);
            trace(kChild, "%ld", pid);
        }
        return pid;
    })
CALL(waitpid, .errors = {ECHILD, EINTR}, .told = "4 Waitpid error[", .kind = kSystem, .pid = true, .again = true,
     .gives_back = true)
CALL(kill, .errors = {EPERM, ESRCH}, .pid = true)
CALL(sigset, .errors = {EINVAL}, .kind = kSystem, .shown = {1}, .then = watch)
CALL(pthread_sigmask)
CALL(sleep, .kind = kSystem, .shown = {1}, .faked = true)
CALL(
    alarm, .kind = kLoss, .shown = {1}, .faked = true, .then = [](long, long seconds) {
        host().alarm = static_cast<unsigned>(seconds);
        return 0L;
    })

// The host's utilities
CALL(
    procIsExist, .errors = {EPERM}, .kind = kHost, .shown = {1}, .pid = true, .then = [](long exists, long pid) {
        // One that has ended and was not reaped counts: whether a watcher has noticed its end is no part of any case.
        return exists > 0 || kill(static_cast<pid_t>(pid), 0) == 0 ? 1L : 0L;
    })
CALL(procSndSig2Proc, .errors = {EPERM, ESRCH}, .told = "1 procSndSig2Proc f_iMonPid[", .kind = kHost, .shown = {1, 2},
     .pid = true)
CALL(sockCanRead, .errors = {EBADF}, .kind = kHost, .fd = 1)
CALL(sockGetLocalAddr, .errors = {ENOBUFS}, .fd = 1)
CALL(sockSetSTimeOut, .errors = {EINVAL}, .kind = kHost, .shown = {2}, .fd = 1, .faked = true)
CALL_AS(streamWriteNByte, "write", .errors = {EPIPE, EAGAIN}, .told = "1 write[", .kind = kHost, .shown = {2}, .fd = 3)
CALL(strToUpper, .errors = {EINVAL})

// OpenSSL
CALL(SSL_CTX_new, .errors = {ENOMEM}, .told = "1 netTcpSSLInitCtx[", .failed = 0, .tls = 1)
CALL(SSL_CTX_use_certificate_file, .errors = {ENOENT}, .told = "1 netTcpSSLInitCtx[", .failed = 0, .own = true)
CALL(SSL_CTX_use_PrivateKey_file, .errors = {ENOENT}, .told = "1 netTcpSSLInitCtx[", .failed = 0, .own = true)
CALL(SSL_CTX_check_private_key, .errors = {ENOENT}, .told = "1 netTcpSSLInitCtx[", .failed = 0)
CALL(SSL_CTX_load_verify_locations, .errors = {ENOENT}, .told = "1 netTcpSSLInitCtx[", .failed = 0, .own = true)
CALL(SSL_new, .errors = {ENOMEM}, .told = "1 SSL_new error[", .failed = 0, .tls = 1)
CALL(SSL_set_fd, .errors = {ENOMEM}, .failed = 0, .fd = 2)
CALL(SSL_connect, .errors = {ECONNRESET}, .told = "1 SSL_connect[")
CALL(SSL_get0_peer_certificate, .errors = {ENOENT}, .told = "1 netTcpSSLCheckCert error[", .failed = 0)
CALL(SSL_get_verify_result, .errors = {ENOENT}, .told = "1 netTcpSSLCheckCert error[", .failed = 10)
CALL(SSL_do_handshake, .errors = {EPIPE})
CALL(SSL_write, .errors = {EPIPE}, .told = "1 write[")
CALL(SSL_peek, .errors = {ECONNRESET})
CALL(SSL_free, .tls = -1)
CALL(SSL_CTX_free, .tls = -1)

extern "C" __attribute__((visibility("default"))) int setsockopt(int sock, int level, int name, const void* value,
                                                                 socklen_t length) noexcept {
    static Row row{.name = "setsockopt", .errors = {ENOBUFS, EINVAL}, .fd = 1};
    static void* next;
    if (host().recording && level == IPPROTO_TCP && (name == TCP_CORK || name == TCP_NODELAY)) {
        trace(kSocket, "%s(%d)", name == TCP_CORK ? "cork" : "nodelay", *static_cast<const int*>(value));
    }
    const Arguments arguments{sock, level, name, reinterpret_cast<long>(value), length};
    return static_cast<int>(call(row, "setsockopt", next, arguments));
}

/// Its argument is a text.
extern "C" __attribute__((visibility("default"))) int sockGetHostIp(char* name, char* address) {
    static Row row{.name = "sockGetHostIp", .errors = {EAGAIN, ENXIO}, .told = "1 sockGetHostIp[", .kind = kHost};
    static const auto next = reinterpret_cast<int (*)(char*, char*)>(dlsym(RTLD_NEXT, "sockGetHostIp"));
    return static_cast<int>(pass(row, name, 0, [=](bool) { return next(name, address); }));
}
