// SPDX-License-Identifier: MIT
// The wrapped calls of a message's road, each with the errors that it can plausibly end with.
//
// The wrappers carry the names of the functions as labels of the assembler only, so that no header's declaration stands
// in their way. What the C library calls inside itself (a stdio stream's own reads) does not pass here.
#include <csignal>
#include <cstdarg>
#include <cstddef>
#include <cstdio>

#include <sys/types.h>

#include "road.h"

namespace kvr::inject {
namespace {

constexpr int kHostError = -110;        ///< what the host answers when the system failed it
constexpr int kFailInside = -1'000'000; ///< the wrapper makes the host itself fail
constexpr int kMostAttributes = 32;
constexpr std::size_t kLineSize = 4096;
constexpr long kShortSleepNs = 2'000'000;

constexpr std::array<int, 4> errors(int first = 0, int second = 0, int third = 0, int fourth = 0) {
    return {first, second, third, fourth};
}

} // namespace

#define DECLARE(KIND, RESULT, NAME, HAPPENS, ERRORS, PARAMETERS)                                                       \
    static Call call_##NAME{#NAME, KIND, ERRORS, HAPPENS};                                                             \
    extern "C" __attribute__((visibility("default"))) RESULT on_##NAME PARAMETERS __asm__(#NAME);                      \
    extern "C" RESULT on_##NAME PARAMETERS
#define REAL(RESULT, NAME, PARAMETERS) (reinterpret_cast<RESULT(*) PARAMETERS>(call_##NAME.address()))
#define WRAP(KIND, RESULT, NAME, FAILURE, HAPPENS, ERRORS, PARAMETERS, ARGUMENTS)                                      \
    DECLARE(KIND, RESULT, NAME, HAPPENS, ERRORS, PARAMETERS) {                                                         \
        return pass<RESULT>(call_##NAME, FAILURE, [&] { return REAL(RESULT, NAME, PARAMETERS) ARGUMENTS; });           \
    }
#define SYSTEM(RESULT, NAME, ERRORS, PARAMETERS, ARGUMENTS)                                                            \
    WRAP(kSystem, RESULT, NAME, -1, false, ERRORS, PARAMETERS, ARGUMENTS)
#define HOST(NAME, ERRORS, PARAMETERS, ARGUMENTS) WRAP(kHost, int, NAME, -1, false, ERRORS, PARAMETERS, ARGUMENTS)
#define STORE(NAME, PARAMETERS, ARGUMENTS) WRAP(kHost, int, NAME, kHostError, false, errors(EIO), PARAMETERS, ARGUMENTS)

// The line.
SYSTEM(int, socket, errors(EMFILE, ENFILE, ENOBUFS), (int a, int b, int c), (a, b, c))
SYSTEM(int, connect, errors(ECONNREFUSED, ETIMEDOUT, ENETUNREACH, EINTR), (int a, const void* b, unsigned c), (a, b, c))
SYSTEM(ssize_t, send, errors(EINTR, EPIPE, ECONNRESET, EAGAIN), (int a, const void* b, size_t c, int d), (a, b, c, d))
SYSTEM(ssize_t, recv, errors(EINTR, ECONNRESET, EAGAIN), (int a, void* b, size_t c, int d), (a, b, c, d))
SYSTEM(int, setsockopt, errors(ENOBUFS, EINVAL), (int a, int b, int c, const void* d, unsigned e), (a, b, c, d, e))
SYSTEM(int, getsockopt, errors(ENOBUFS), (int a, int b, int c, void* d, void* e), (a, b, c, d, e))
SYSTEM(int, getsockname, errors(ENOBUFS), (int a, void* b, void* c), (a, b, c))
SYSTEM(int, shutdown, errors(ENOTCONN), (int a, int b), (a, b))
SYSTEM(int, poll, errors(EINTR, ENOMEM), (void* a, unsigned long b, int c), (a, b, c))
SYSTEM(int, ioctl, errors(EIO), (int a, unsigned long b, void* c), (a, b, c))

// Files and memory.
SYSTEM(ssize_t, read, errors(EINTR, EIO), (int a, void* b, size_t c), (a, b, c))
SYSTEM(ssize_t, write, errors(EINTR, EIO, ENOSPC, EPIPE), (int a, const void* b, size_t c), (a, b, c))
SYSTEM(int, open, errors(EMFILE, EACCES, ENOENT, EINTR), (const char* a, int b, mode_t c), (a, b, c))
SYSTEM(int, open64, errors(EMFILE, EACCES), (const char* a, int b, mode_t c), (a, b, c))
SYSTEM(int, fcntl, errors(EMFILE, EAGAIN), (int a, int b, long c), (a, b, c))
SYSTEM(int, stat, errors(EACCES), (const char* a, void* b), (a, b))
SYSTEM(int, fstat, errors(EIO), (int a, void* b), (a, b))
SYSTEM(int, lstat, errors(EACCES), (const char* a, void* b), (a, b))
SYSTEM(int, fstatfs, errors(EIO), (int a, void* b), (a, b))
SYSTEM(int, statvfs, errors(EIO), (const char* a, void* b), (a, b))
SYSTEM(off_t, lseek, errors(EIO), (int a, off_t b, int c), (a, b, c))
SYSTEM(ssize_t, pread, errors(EIO), (int a, void* b, size_t c, off_t d), (a, b, c, d))
SYSTEM(ssize_t, pwrite, errors(EIO, ENOSPC, EDQUOT), (int a, const void* b, size_t c, off_t d), (a, b, c, d))
SYSTEM(ssize_t, writev, errors(EIO, ENOSPC), (int a, const void* b, int c), (a, b, c))
SYSTEM(int, fdatasync, errors(EIO, ENOSPC), (int a), (a))
SYSTEM(int, fsync, errors(EIO), (int a), (a))
SYSTEM(int, msync, errors(EIO), (void* a, size_t b, int c), (a, b, c))
SYSTEM(int, ftruncate, errors(EIO, ENOSPC), (int a, off_t b), (a, b))
SYSTEM(int, madvise, errors(EAGAIN), (void* a, size_t b, int c), (a, b, c))
SYSTEM(int, mkfifo, errors(ENOSPC), (const char* a, mode_t b), (a, b))
SYSTEM(int, fchmod, errors(EPERM), (int a, mode_t b), (a, b))
SYSTEM(int, chmod, errors(EPERM), (const char* a, mode_t b), (a, b))
WRAP(kSystem, void*, mmap, reinterpret_cast<void*>(-1), false, errors(ENOMEM), // NOLINT: MAP_FAILED
     (void* a, size_t b, int c, int d, int e, off_t f), (a, b, c, d, e, f))
WRAP(kSystem, std::FILE*, fdopen, nullptr, false, errors(ENOMEM), (int a, const char* b), (a, b))
SYSTEM(int, fseek, errors(EIO), (std::FILE * a, long b, int c), (a, b, c))
SYSTEM(long, ftell, errors(EIO), (std::FILE * a), (a))
WRAP(kSystem, size_t, fread, 0, false, errors(EIO), (void* a, size_t b, size_t c, std::FILE* d), (a, b, c, d))
WRAP(kSystem, int, ferror, 1, false, errors(EIO), (std::FILE * a), (a))
WRAP(kSystem, int, fclose, -1, true, errors(EIO), (std::FILE * a), (a))

// Processes and signals.
SYSTEM(int, pipe2, errors(EMFILE, ENFILE), (int* a, int b), (a, b))
SYSTEM(pid_t, waitpid, errors(EINTR, ECHILD), (pid_t a, int* b, int c), (a, b, c))
SYSTEM(int, kill, errors(EPERM, ESRCH), (pid_t a, int b), (a, b))
SYSTEM(int, sigprocmask, errors(), (int a, const void* b, void* c), (a, b, c))
SYSTEM(int, pthread_sigmask, errors(), (int a, const void* b, void* c), (a, b, c))
WRAP(kSystem, unsigned, alarm, 0, false, errors(), (unsigned a), (a))

// The host.
HOST(procIsExist, errors(EPERM), (int a), (a))
HOST(procSndSig2Proc, errors(EPERM, ESRCH), (int a, int b), (a, b))
HOST(sockCanRead, errors(EBADF, EINTR), (int a), (a))
HOST(sockGetHostIp, errors(EAGAIN, ENXIO), (char* a, char* b), (a, b))
HOST(sockGetLocalAddr, errors(ENOBUFS), (int a, char* b, int* c), (a, b, c))
HOST(sockSetKeepAlive, errors(EINVAL), (int a), (a))
HOST(sockSetRTimeOut, errors(EINVAL), (int a, int b), (a, b))
HOST(sockSetSTimeOut, errors(EINVAL), (int a, int b), (a, b))
HOST(strToUpper, errors(EINVAL), (char* a), (a))
HOST(streamReadNByte, errors(ECONNRESET), (void* a, int b, int* c, int d), (a, b, c, d))
HOST(streamWriteNByte, errors(EPIPE, EAGAIN, EINTR), (void* a, int b, int c), (a, b, c))
WRAP(kHost, char*, strBaseName, nullptr, false, errors(), (char* a), (a))
STORE(KVR_LogSetQMName, (char* a), (a))
STORE(KVR_ObjAdd, (void* a, char* b, char* c, int d, char** e, char** f, int g), (a, b, c, d, e, f, g))
STORE(KVR_ObjGetAttr, (void* a, char* b, char* c, int d, char** e, char** f), (a, b, c, d, e, f))
STORE(KVR_ObjSetAttr, (void* a, char* b, char* c, int d, char** e, char** f), (a, b, c, d, e, f))
STORE(KVR_QueClose, (void* a, char* b, void* c, int d), (a, b, c, d))

// TLS.
WRAP(kTls, int, SSL_connect, -1, false, errors(ECONNRESET), (void* a), (a))
WRAP(kTls, int, SSL_write, -1, false, errors(EPIPE, EINTR), (void* a, const void* b, int c), (a, b, c))
WRAP(kTls, int, SSL_peek, -1, false, errors(ECONNRESET), (void* a, void* b, int c), (a, b, c))
WRAP(kTls, int, SSL_do_handshake, -1, false, errors(EPIPE), (void* a), (a))
WRAP(kTls, int, SSL_set_fd, 0, false, errors(ENOMEM), (void* a, int b), (a, b))
WRAP(kTls, void*, SSL_new, nullptr, false, errors(ENOMEM), (void* a), (a))
WRAP(kTls, void*, SSL_CTX_new, nullptr, false, errors(ENOMEM), (const void* a), (a))
WRAP(kTls, void*, SSL_get0_peer_certificate, nullptr, false, errors(ENOENT), (const void* a), (a))

// The host keeps the message in hand when its dead-letter queue fails: the failure has to be the host's own.
DECLARE(kHost, int, KVR_QueOpen, false, errors(EIO), (void* a, char* b, void* c, int d)) {
    char missing[] = "NO.SUCH.QUEUE";
    const auto real = REAL(int, KVR_QueOpen, (void*, char*, void*, int));
    const int result = pass<int>(call_KVR_QueOpen, kFailInside, [&] { return real(a, b, c, d); });
    return result != kFailInside ? result : real(a, missing, c, d);
}

DECLARE(kHost, int, KVR_QueMsgPut, false, errors(EIO), (void* a, void* b, void* c, void* d, char* e, int f)) {
    const auto real = REAL(int, KVR_QueMsgPut, (void*, void*, void*, void*, char*, int));
    const int result = pass<int>(call_KVR_QueMsgPut, kFailInside, [&] { return real(a, b, c, d, e, f); });
    return result != kFailInside ? result : real(a, nullptr, c, d, e, f);
}

// Calls that say where on its road the channel is.
DECLARE(kHost, int, KVR_InitQmgrCtx, false, errors(EIO), (void* context, char* name)) {
    on_start();
    return pass<int>(call_KVR_InitQmgrCtx, kHostError,
                     [&] { return REAL(int, KVR_InitQmgrCtx, (void*, char*))(context, name); });
}

DECLARE(kHost, int, KVR_QueMsgGet, false, errors(EIO), (void* a, void* b, void* c, void* d, char* e, int* f)) {
    const int length = pass<int>(call_KVR_QueMsgGet, kHostError, [&] {
        return REAL(int, KVR_QueMsgGet, (void*, void*, void*, void*, char*, int*))(a, b, c, d, e, f);
    });
    if (length >= 0) {
        on_message();
    }
    return length;
}

DECLARE(kSystem, int, ppoll, false, errors(EINTR, ENOMEM), (void* a, unsigned long b, const void* c, const void* d)) {
    on_wait(call_ppoll);
    const int ready = pass<int>(
        call_ppoll, -1, [&] { return REAL(int, ppoll, (void*, unsigned long, const void*, const void*))(a, b, c, d); });
    on_wake(ready);
    return ready;
}

DECLARE(kSystem, pid_t, fork, false, errors(EAGAIN, ENOMEM), ()) {
    const pid_t child = pass<pid_t>(call_fork, -1, [&] { return REAL(pid_t, fork, ())(); });
    if (child == 0) {
        on_fork_in_child();
    }
    return child;
}

/// The real pauses of a channel are seconds; they are left alone until the first attack.
DECLARE(kSystem, unsigned, sleep, false, errors(), (unsigned seconds)) {
    return pass<unsigned>(call_sleep, 0, [&]() -> unsigned {
        if (!is_attacked()) {
            return REAL(unsigned, sleep, (unsigned))(seconds);
        }
        const timespec pause{0, kShortSleepNs};
        nanosleep(&pause, nullptr);
        return 0;
    });
}

DECLARE(kSystem, int, close, true, errors(EINTR, EIO), (int fd)) {
    note_close();
    return pass<int>(call_close, -1, [&] { return REAL(int, close, (int))(fd); });
}

DECLARE(kSystem, void*, sigset, false, errors(EINVAL), (int signal, void (*handler)(int))) {
    const bool is_function = handler != SIG_DFL && handler != SIG_IGN;
    if (is_function) {
        wrap_handler(signal, handler);
    }
    auto* const trampoline = is_function ? trampoline_of(signal) : nullptr;
    return pass<void*>(call_sigset, reinterpret_cast<void*>(SIG_ERR), [&] { // NOLINT: the C library's own constant
        return REAL(void*, sigset, (int, void (*)(int)))(signal, trampoline != nullptr ? trampoline : handler);
    });
}

// Calls with a list of arguments.
DECLARE(kHost, int, KVR_LogPrint, false, errors(EIO),
        (char* tag, int level, char* module, char* file, int line, const char* function, char* format, ...)) {
    char text[kLineSize];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    return pass<int>(call_KVR_LogPrint, kHostError, [&] {
        return REAL(int, KVR_LogPrint, (char*, int, char*, char*, int, const char*, const char*, ...))(
            tag, level, module, file, line, function, "%s", text);
    });
}

static int pass_list(Call& call, Call& plain, void* handle, char* cls, char* name, int count, va_list arguments) {
    char* names[kMostAttributes];
    char* values[kMostAttributes];
    for (int i = 0; i < 2 * count; ++i) {
        (i < count ? names[i] : values[i - count]) = va_arg(arguments, char*);
    }
    return pass<int>(call, kHostError, [&] {
        return reinterpret_cast<int (*)(void*, char*, char*, int, char**, char**)>(plain.address())(
            handle, cls, name, count, names, values);
    });
}

DECLARE(kHost, int, KVR_ObjGetAttrV, false, errors(EIO), (void* handle, char* cls, char* name, int count, ...)) {
    va_list arguments;
    va_start(arguments, count);
    const int result = pass_list(call_KVR_ObjGetAttrV, call_KVR_ObjGetAttr, handle, cls, name, count, arguments);
    va_end(arguments);
    return result;
}

DECLARE(kHost, int, KVR_ObjSetAttrV, false, errors(EIO), (void* handle, char* cls, char* name, int count, ...)) {
    va_list arguments;
    va_start(arguments, count);
    const int result = pass_list(call_KVR_ObjSetAttrV, call_KVR_ObjSetAttr, handle, cls, name, count, arguments);
    va_end(arguments);
    return result;
}

// Memory: looked at in handlers, never failed. The C library's own entries, because a look-up allocates.
extern "C" {

void* __libc_malloc(size_t);           // NOLINT(bugprone-reserved-identifier)
void* __libc_calloc(size_t, size_t);   // NOLINT(bugprone-reserved-identifier)
void* __libc_realloc(void*, size_t);   // NOLINT(bugprone-reserved-identifier)
void* __libc_memalign(size_t, size_t); // NOLINT(bugprone-reserved-identifier)
void __libc_free(void*);               // NOLINT(bugprone-reserved-identifier)

#define HEAP(RESULT, NAME, PARAMETERS)                                                                                 \
    __attribute__((visibility("default"))) RESULT on_##NAME PARAMETERS __asm__(#NAME);                                 \
    RESULT on_##NAME PARAMETERS

HEAP(void*, malloc, (size_t size)) {
    note_heap();
    return __libc_malloc(size);
}

HEAP(void*, calloc, (size_t count, size_t size)) {
    note_heap();
    return __libc_calloc(count, size);
}

HEAP(void*, realloc, (void* block, size_t size)) {
    note_heap();
    return __libc_realloc(block, size);
}

HEAP(void*, aligned_alloc, (size_t alignment, size_t size)) {
    note_heap();
    return __libc_memalign(alignment, size);
}

HEAP(int, posix_memalign, (void** block, size_t alignment, size_t size)) {
    note_heap();
    *block = __libc_memalign(alignment, size);
    return *block == nullptr ? ENOMEM : 0;
}

HEAP(void, free, (void* block)) {
    if (block != nullptr) {
        note_heap();
    }
    __libc_free(block);
}
}

} // namespace kvr::inject
