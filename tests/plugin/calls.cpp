// SPDX-License-Identifier: MIT
// The table of the system's, OpenSSL's and the host's utilities' calls, and the place that all calls pass.
#include <dlfcn.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <new>
#include <utility>

#include "recording_host.h"

// A finding of a sanitizer in the channel process must not pass for the exit status of a run loop that gave up.
extern "C" const char* __asan_default_options() {
    return "exitcode=66";
}

namespace kvr::test {

Attack& attack = *new (mmap(nullptr, sizeof(Attack), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Attack;
int tls_objects = 0;

namespace {

using Function = long(long, long, long, long, long, long);

constexpr int kNoError = 4711; ///< no errno of the system's

pid_t g_channel = 0;
bool g_halved = false;             ///< a call did half of its work: now each that is to be repeated is interrupted
volatile sig_atomic_t g_own = 0;   ///< above 0: the test itself is at work
volatile sig_atomic_t g_depth = 0; ///< handlers of the channel that run
void (*g_handlers[NSIG])(int);     ///< the channel's
std::array<bool, 256> g_foreign;   ///< descriptors that are not the channel's
const char* g_last = "";

struct Own {
    Own() { g_own = g_own + 1; }
    ~Own() { g_own = g_own - 1; }
};

void check(bool good, const char* fault) {
    if (!good) {
        trace("fault: %s by %s", fault, g_last);
    }
}

/// False when the signal is held.
bool interrupted_by(int signal) {
    const int saved = std::exchange(errno, kNoError);
    raise(signal);
    check(errno == kNoError, "errno changed in a handler");
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

// What rows look at.

/// Puts itself in front of a handler that was set up.
long watch(long result, const Arguments& arguments) {
    const int signal = static_cast<int>(arguments[0]);
    struct sigaction action {};
    sigaction(signal, nullptr, &action);
    if (action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN && action.sa_handler != on_signal) {
        g_handlers[signal] = std::exchange(action.sa_handler, on_signal);
        sigaction(signal, &action, nullptr);
    }
    return result;
}

/// One that has ended and was not reaped counts: whether a watcher has noticed its end is no part of any case.
long exists(long result, const Arguments& arguments) {
    return result > 0 || kill(static_cast<pid_t>(arguments[0]), 0) == 0 ? 1 : 0;
}

long note_socket(long made, const Arguments& /*arguments*/) {
    host().sock = static_cast<int>(made);
    return made;
}

long note_option(long result, const Arguments& arguments) {
    if (arguments[1] == IPPROTO_TCP && (arguments[2] == TCP_CORK || arguments[2] == TCP_NODELAY)) {
        const int on = *reinterpret_cast<const int*>(arguments[3]);
        trace("%s(%d)", arguments[2] == TCP_CORK ? "cork" : "nodelay", on);
    }
    return result;
}

long note_child(long pid, const Arguments& /*arguments*/) {
    if (pid > 0) {
        host().watcher = static_cast<pid_t>(pid);
        trace("child %ld", pid);
    }
    return pid;
}

long arm(long /*result*/, const Arguments& arguments) {
    host().alarm = static_cast<unsigned>(arguments[0]);
    return 0;
}

/// The error with which a call that is struck is to end, 0: with none. Nothing when it is not struck.
std::optional<int> strike(Row& row) {
    if (!attack.open || getpid() != g_channel) {
        return {};
    }
    if (g_halved && std::exchange(row.again, false)) {
        return EINTR;
    }
    const bool whole = attack.action == Attack::kBefore || attack.action == Attack::kAfter;
    const bool can_be_cut = attack.action == Attack::kInsteadOf && std::ranges::count(row.errors, EINTR) > 0;
    const int error = attack.action == Attack::kFail ? row.errors.at(static_cast<size_t>(attack.error))
                      : can_be_cut                   ? EINTR
                                                     : 0;
    if (++attack.calls < attack.target || attack.fired != 0 || (error == 0 && !whole)) {
        return {};
    }
    attack.fired = attack.calls;
    attack.row = &row;
    g_halved = error == kHalf;
    if (attack.signal != 0 && attack.action != Attack::kAfter && !interrupted_by(attack.signal)) {
        return 0; // held, so it ends no call
    }
    attack.failure = std::max(error, 0);
    return error;
}

std::optional<long> scripted(const Row& row, long argument) {
    const Own at_work;
    const auto hook = host().hooks.find(row.name);
    return hook != host().hooks.end() ? hook->second(argument) : std::nullopt;
}

std::string shown(const Row& row, const Arguments& arguments) {
    std::string text;
    for (const size_t number : row.shown) {
        const std::string separator = text.empty() ? "" : " ";
        text += number != 0 ? separator + std::to_string(static_cast<int>(arguments.at(number - 1))) : "";
    }
    return text;
}

/// Lets a call go on to the next library that has it.
long go_on(const Row& row, Function* next, Arguments arguments, bool half) {
    std::optional<Own> inside;
    if (row.own) {
        inside.emplace();
    }
    if (half && arguments.at(row.half - 1) > 1) {
        arguments.at(row.half - 1) /= 2;
    }
    const long result = row.faked ? 0 : std::apply(next, arguments);
    const bool failed = (row.fd != 0 || row.pid) && static_cast<int>(result) < 0;
    check(!failed || (errno != EBADF && errno != ECHILD), "a descriptor or child that is none used");
    inside.emplace();
    return row.then != nullptr ? row.then(result, arguments) : result;
}

/// Once for each call, before there are threads: a fork must not copy the loader's lock, or what a look-up left undone.
Function* next_after(const char* symbol) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, symbol));
}

/// All arguments are integers and pointers, which six longs carry, whichever and however many they are.
long call(Row& row, const char* symbol, Function*& next, const Arguments& arguments) {
    if (next == nullptr) { // called by what begins before this file
        next = next_after(symbol);
    }
    if (!host().recording || g_own != 0) {
        return std::apply(next, arguments);
    }
    g_last = row.name;
    const auto fd = row.fd != 0 ? static_cast<size_t>(arguments.at(row.fd - 1) & INT32_MAX) : STDERR_FILENO;
    check(fd == STDERR_FILENO || (fd < g_foreign.size() && !g_foreign.at(fd)), "a foreign descriptor used");
    check(!row.pid || static_cast<int>(arguments[0]) > 0, "a group of processes meant");
    const auto onward = [&](bool half) { return go_on(row, next, arguments, half); };
    const int objects = tls_objects;
    const long argument = arguments.at(std::max<size_t>(row.shown[0], 1) - 1);
    const long result = pass(row, shown(row, arguments), argument, std::ref(onward)); // which needs no heap
    // A session gives its own references back inside.
    tls_objects = objects + ((row.tls > 0 ? result : arguments[0]) != 0 ? row.tls : 0);
    return result;
}

} // namespace

long pass(Row& row, const std::string& shown, long argument, const std::function<long(bool half)>& real) {
    if (!host().recording || g_own != 0) {
        return real(false);
    }
    g_last = row.name;
    if (row.traced) {
        trace("%s(%s)", row.name, shown.c_str());
    }
    check(!row.gives_back || g_depth == 0, "something given back in a handler");
    std::optional<long> result = scripted(row, argument);
    const std::optional<int> error = strike(row);
    if (error > 0) {
        result = row.failed;
        errno = *error;
    }
    const int left = errno;
    const bool made = !result || (row.gives_back && left != EINTR);
    const long done = made ? real(error == kHalf) : 0;
    errno = result ? left : errno;
    if (error == 0 && attack.action == Attack::kAfter) {
        interrupted_by(attack.signal);
    }
    return result.value_or(done);
}

void start_recording() {
    for (size_t fd = 0; fd < g_foreign.size(); ++fd) {
        g_foreign.at(fd) = fcntl(static_cast<int>(fd), F_GETFD) >= 0;
    }
    g_channel = getpid();
    host().recording = true;
}

} // namespace kvr::test

using namespace kvr::test;

// The address sanitizer tells of every use of the heap; in other builds nobody does.
extern "C" void __sanitizer_malloc_hook(const volatile void* block, size_t /*size*/) {
    check(block == nullptr || g_depth == 0 || g_own != 0, "heap used in a handler");
}

extern "C" void __sanitizer_free_hook(const volatile void* block) {
    __sanitizer_malloc_hook(block, 0);
}

/// The function carries the call's name as a label of the assembler: no header's declaration stands in its way.
#define CALL_AS(SYMBOL, NAME, ...)                                                                                     \
    static Row row_##SYMBOL{.name = NAME __VA_OPT__(, ) __VA_ARGS__};                                                  \
    static Function* next_##SYMBOL = next_after(#SYMBOL);                                                              \
    extern "C" __attribute__((visibility("default"))) Function on_##SYMBOL __asm__(#SYMBOL);                           \
    long on_##SYMBOL(long a, long b, long c, long d, long e, long f) {                                                 \
        return call(row_##SYMBOL, #SYMBOL, next_##SYMBOL, {a, b, c, d, e, f});                                         \
    }
#define CALL(NAME, ...) CALL_AS(NAME, #NAME __VA_OPT__(, ) __VA_ARGS__)

// Sockets
CALL(socket, .errors = {EMFILE, ENOBUFS}, .told = "1 socket error[", .then = note_socket)
CALL(connect, .errors = {ECONNREFUSED, ETIMEDOUT, ENETUNREACH, EINTR}, .told = "1 connect[", .fd = 1)
CALL(send, .errors = {EPIPE, ECONNRESET, EAGAIN, EINTR, kHalf}, .told = "1 write[", .fd = 1, .half = 3, .again = true)
CALL(recv, .errors = {ECONNRESET, EAGAIN, EINTR, kHalf}, .fd = 1, .half = 3)
CALL(setsockopt, .errors = {ENOBUFS, EINVAL}, .fd = 1, .then = note_option)
CALL(getsockopt, .errors = {ENOBUFS}, .fd = 1)
CALL(getsockname, .errors = {ENOBUFS}, .fd = 1)
CALL(shutdown, .errors = {ENOTCONN}, .fd = 1)
CALL(poll, .errors = {ENOMEM, EINTR}, .again = true)
CALL(select, .traced = true)

// Descriptors and files
CALL(open, .errors = {EMFILE, EACCES})
CALL(read, .errors = {EIO, ECONNRESET, EINTR, kHalf}, .fd = 1, .half = 3)
CALL_AS(write, "system write", .errors = {EPIPE, EIO, EAGAIN, EINTR, kHalf}, .fd = 1, .half = 3, .again = true)
CALL(close, .errors = {EIO}, .fd = 1, .gives_back = true)
CALL(fcntl, .fd = 1)
CALL(ioctl, .errors = {EIO}, .fd = 1)
CALL_AS(pipe2, "pipe", .errors = {EMFILE, ENFILE}, .told = "1 pipe error[", .traced = true)
CALL(stat, .errors = {EACCES})
CALL(fstat, .errors = {EIO}, .told = "1 open [", .fd = 1)
CALL(fdopen, .errors = {ENOMEM}, .told = "1 open [", .failed = 0, .fd = 1)
CALL(fseek, .errors = {EIO}, .told = "1 fseek [")
CALL(ftell, .errors = {EIO}, .told = "1 tell [")
CALL(fread, .errors = {EIO, kHalf}, .told = "changed: [", .failed = 0, .half = 3)
CALL(ferror, .errors = {EIO}, .told = "1 tell [", .failed = 1)
CALL(fclose, .errors = {EIO}, .gives_back = true)

// Processes and signals
CALL(fork, .errors = {EAGAIN, ENOMEM}, .told = "1 fork error[", .traced = true, .then = note_child)
CALL(waitpid, .errors = {ECHILD, EINTR}, .told = "4 Waitpid error[", .traced = true, .pid = true, .again = true,
     .gives_back = true)
CALL(kill, .errors = {EPERM, ESRCH}, .pid = true)
CALL(sigset, .errors = {EINVAL}, .traced = true, .shown = {1}, .then = watch)
CALL(pthread_sigmask)
CALL(sleep, .traced = true, .shown = {1}, .faked = true)
CALL(alarm, .traced = true, .shown = {1}, .faked = true, .then = arm)

// The host's utilities
CALL(procIsExist, .errors = {EPERM}, .traced = true, .shown = {1}, .pid = true, .then = exists)
CALL(procSndSig2Proc, .errors = {EPERM, ESRCH}, .told = "1 procSndSig2Proc f_iMonPid[", .traced = true, .shown = {1, 2},
     .pid = true)
CALL(sockCanRead, .errors = {EBADF}, .traced = true, .fd = 1)
CALL(sockGetHostIp, .errors = {EAGAIN, ENXIO}, .told = "1 sockGetHostIp[")
CALL(sockGetLocalAddr, .errors = {ENOBUFS}, .fd = 1)
CALL(sockSetSTimeOut, .errors = {EINVAL}, .traced = true, .shown = {2}, .fd = 1, .faked = true)
CALL_AS(streamWriteNByte, "write", .errors = {EPIPE, EAGAIN}, .told = "1 write[", .traced = true, .shown = {2}, .fd = 3)
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
