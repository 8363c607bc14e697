// SPDX-License-Identifier: MIT
#include "gate.h"

#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "recording_host.h"
#include "support/heap_watch.h"

namespace kvr::test {

namespace {

constexpr int kHalf = -1; ///< in the place of an error: the call does half of what it was to do
constexpr int kHostError = -110;
constexpr int kNoError = 4711; ///< no errno of the system's
constexpr int kMostDescriptors = 256;

/// How a call can fail, and what the log then says. Not here: calls that cannot.
struct Failing {
    const char* call;
    std::array<int, 5> errors;
    const char* told = nullptr;
    int result = -1;
};

constexpr Failing kFailing[] = {
    {"socket", {EMFILE, ENOBUFS}, "1 socket error["},
    {"connect", {ECONNREFUSED, ETIMEDOUT, ENETUNREACH, EINTR}, "1 connect["},
    {"send", {EPIPE, ECONNRESET, EAGAIN, EINTR, kHalf}, "1 write["},
    {"recv", {ECONNRESET, EAGAIN, EINTR, kHalf}},
    {"read", {EIO, ECONNRESET, EINTR, kHalf}},
    {"system write", {EPIPE, EIO, EAGAIN, EINTR, kHalf}},
    {"setsockopt", {ENOBUFS, EINVAL}},
    {"getsockopt", {ENOBUFS}},
    {"getsockname", {ENOBUFS}},
    {"shutdown", {ENOTCONN}},
    {"poll", {ENOMEM, EINTR}},
    {"ioctl", {EIO}},
    {"open", {EMFILE, EACCES}},
    {"dup", {EMFILE}},
    {"stat", {EACCES}},
    {"fstat", {EIO}, "1 open ["},
    {"fdopen", {ENOMEM}, "1 open ["},
    {"fseek", {EIO}, "1 fseek ["},
    {"ftell", {EIO}, "1 tell ["},
    {"fread", {EIO, kHalf}, "changed: [", 0},
    {"ferror", {EIO}, "1 tell [", 1},
    {"fclose", {EIO}},
    {"close", {EINTR, EIO}},
    {"pipe", {EMFILE, ENFILE}, "1 pipe error["},
    {"fork", {EAGAIN, ENOMEM}, "1 fork error["},
    {"waitpid", {ECHILD, EINTR}, "4 Waitpid error["},
    {"kill", {EPERM, ESRCH}},
    {"sigset", {EINVAL}},
    {"procIsExist", {EPERM}},
    {"procSndSig2Proc", {EPERM, ESRCH}, "1 procSndSig2Proc f_iMonPid["},
    {"sockCanRead", {EBADF}},
    {"sockGetHostIp", {EAGAIN, ENXIO}, "1 sockGetHostIp["},
    {"sockGetLocalAddr", {ENOBUFS}},
    {"sockSetSTimeOut", {EINVAL}},
    {"strToUpper", {EINVAL}},
    {"write", {EPIPE, EAGAIN}, "1 write["},
    {"KVR_InitQmgrCtx", {EIO}, "1 KVR_InitQmgrCtx[-110]", kHostError},
    {"KVR_LogSetQMName", {EIO}, nullptr, kHostError},
    {"KVR_ObjAdd", {EIO}, "1 KVR_ObjAdd[CHS][CH1] return[-110]", kHostError},
    {"KVR_ObjGetAttr", {EIO}, "1 get chl[CH1] error[-110]", kHostError},
    {"KVR_ObjGetAttrV", {EIO}, "return[-110]", kHostError},
    {"KVR_ObjSetAttr", {EIO}, "1 KVR_ObjSetAttr[CHS][CH1] return[-110]", kHostError},
    {"KVR_ObjSetAttrV", {EIO}, "1 KVR_ObjSetAttrV[CHS][CH1] return[-110]", kHostError},
    {"KVR_QueOpen", {EIO}, "Q] return[-110]", kHostError},
    {"KVR_QueClose", {EIO}, "1 KVR_QueClose[", kHostError},
    {"KVR_QueMsgPut", {EIO}, "1 KVR_QueMsgPut[", kHostError},
    {"KVR_QueMsgGet", {EIO, EINTR}, "1 RecvIpcMsg error[-110]", kHostError},
    {"SSL_CTX_new", {ENOMEM}, "1 netTcpSSLInitCtx[", 0},
    {"SSL_CTX_use_certificate_file", {ENOENT}, "1 netTcpSSLInitCtx[", 0},
    {"SSL_CTX_use_PrivateKey_file", {ENOENT}, "1 netTcpSSLInitCtx[", 0},
    {"SSL_CTX_check_private_key", {ENOENT}, "1 netTcpSSLInitCtx[", 0},
    {"SSL_CTX_load_verify_locations", {ENOENT}, "1 netTcpSSLInitCtx[", 0},
    {"SSL_new", {ENOMEM}, "1 SSL_new error[", 0},
    {"SSL_set_fd", {ENOMEM}, nullptr, 0},
    {"SSL_connect", {ECONNRESET}, "1 SSL_connect["},
    {"SSL_do_handshake", {EPIPE}},
    {"SSL_write", {EPIPE}, "1 write["},
    {"SSL_peek", {ECONNRESET}},
    {"SSL_get0_peer_certificate", {ENOENT}, "1 netTcpSSLCheckCert error[", 0},
    {"SSL_get_verify_result", {ENOENT}, "1 netTcpSSLCheckCert error[", 10},
};

Attack g_attack;
Attacked* g_attacked = nullptr;
bool g_open = false;
bool g_is_channel = true;
volatile sig_atomic_t g_own = 0;
volatile sig_atomic_t g_depth = 0; ///< handlers of the channel that run
Handler g_handlers[NSIG];
bool g_mine[kMostDescriptors];
int g_tls_objects = 0;
const char* g_last = "";

void find(const char* what, const char* call) {
    if (host().recording && g_attacked != nullptr && g_attacked->finding[0] == '\0') {
        snprintf(g_attacked->finding, sizeof g_attacked->finding, "%s by %s", what, call);
    }
}

void look_at_heap() {
    if (g_depth > 0 && g_own == 0) {
        find("heap used in a handler", g_last);
    }
}

const Failing* failing(const char* call) {
    for (const Failing& each : kFailing) {
        if (strcmp(each.call, call) == 0) {
            return &each;
        }
    }
    return nullptr;
}

/// What the attack makes of this call: an error of its, 0 for a signal alone; nothing when it does not suit the call.
std::optional<int> suits(const Failing* how) {
    if (g_attack.action == Action::kBefore || g_attack.action == Action::kAfter) {
        return 0;
    }
    for (size_t i = 0; how != nullptr && i < how->errors.size() && how->errors[i] != 0; ++i) {
        if (g_attack.action == Action::kFail ? static_cast<int>(i) == g_attack.error : how->errors[i] == EINTR) {
            return how->errors[i];
        }
    }
    return {};
}

/// False when the signal is held.
bool interrupted_by(int signal, const char* call) {
    const int saved = std::exchange(errno, kNoError);
    raise(signal);
    sigset_t pending;
    sigpending(&pending);
    if (errno != kNoError) {
        find("errno changed in a handler", call);
    }
    errno = saved;
    return sigismember(&pending, signal) == 0;
}

void on_signal(int signal) {
    const int own = std::exchange(g_own, 0);
    g_depth = g_depth + 1;
    if (g_attack.from_handler) {
        g_attack.from_handler = false;
        g_open = true;
    }
    g_handlers[signal](signal);
    g_depth = g_depth - 1;
    g_own = own;
}

} // namespace

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

void open_window() {
    g_open = g_attack.action != Action::kNone;
}

void close_window() {
    g_open = false;
}

void leave_channel() {
    g_is_channel = false;
}

Gate::Gate(const char* call, int fd, std::optional<int> scripted) {
    if (scripted) {
        result_ = *scripted;
    }
    if (!host().recording || g_own != 0) {
        return;
    }
    g_last = call;
    if (fd >= 0 && fd != STDERR_FILENO && (fd >= kMostDescriptors || !g_mine[fd])) {
        find("a foreign descriptor used", call);
    }
    if (!g_open || !g_is_channel || ++g_attacked->calls < g_attack.target || g_attacked->fired != 0) {
        return;
    }
    const Failing* const how = failing(call);
    const std::optional<int> error = suits(how);
    if (!error) {
        return;
    }
    g_attacked->fired = g_attacked->calls;
    snprintf(g_attacked->call, sizeof g_attacked->call, "%s", call);
    if (g_attack.action == Action::kAfter) {
        after_ = g_attack.signal;
        return;
    }
    if (g_attack.action != Action::kFail && !interrupted_by(g_attack.signal, call)) {
        return; // held, so it ends no call
    }
    if (*error == kHalf) {
        half_ = true;
    } else if (*error != 0) {
        g_attacked->error = *error;
        g_attacked->told = how->told;
        result_ = how->result;
        errno = *error;
    }
}

Gate::~Gate() {
    if (after_ != 0) {
        interrupted_by(after_, g_last);
    }
}

Own::Own() {
    g_own = g_own + 1;
}

Own::~Own() {
    g_own = g_own - 1;
}

int made(int fd) {
    if (fd >= 0 && fd < kMostDescriptors && g_own == 0) {
        g_mine[fd] = true;
    }
    return fd;
}

void given_back(int fd) {
    if (g_depth > 0 && g_own == 0) {
        find("a descriptor given back in a handler", g_last);
    }
    if (fd >= 0 && fd < kMostDescriptors && g_own == 0) {
        g_mine[fd] = false;
    }
}

int tls_objects() {
    return g_tls_objects;
}

void count_tls_object(int more) {
    g_tls_objects += host().recording ? more : 0;
}

Handler watched(int signal, Handler handler) {
    if (!host().recording || handler == SIG_DFL || handler == SIG_IGN) {
        return handler;
    }
    g_handlers[signal] = handler;
    return on_signal;
}

} // namespace kvr::test
