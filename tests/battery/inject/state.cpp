// SPDX-License-Identifier: MIT
// The preloaded library's decisions: when calls are counted, what happens at the chosen one, and what must never
// happen.
//
// Runs in the worker's main thread, in its main flow and in its handlers: no heap, no stdio. A forked watcher and other
// threads pass through untouched.
#include "road.h"

#include <csignal>
#include <cstdlib>
#include <cstring>

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace kvr::inject {
namespace {

constexpr int kDecoys = 4;
constexpr int kStandardInput = 0;

struct Decoy {
    int fd = -1;
    ino_t inode = 0;
};

Control* g_control = nullptr;
pthread_t g_main;
volatile std::sig_atomic_t g_depth = 0; ///< handlers of the plug-in that run now
void (*g_handlers[NSIG])(int);
Decoy g_decoys[kDecoys + 1]; ///< the last one stands at descriptor 0
const char* g_last = "";

void finding(int& counter, int amount) {
    if (g_control->finding[0] == '\0') {
        std::strncpy(g_control->finding, g_last, sizeof(g_control->finding) - 1);
    }
    counter += amount;
}

/// System calls of this file's own: a wrapped function would count itself.
long close_quietly(int fd) {
    return syscall(SYS_close, fd);
}

void open_decoy(Decoy& decoy, int at) {
    int fd = static_cast<int>(syscall(SYS_memfd_create, "decoy", MFD_CLOEXEC));
    if (fd >= 0 && at >= 0 && fd != at) {
        syscall(SYS_dup2, fd, at);
        close_quietly(fd);
        fd = at;
    }
    struct stat info {};
    if (fd >= 0 && syscall(SYS_fstat, fd, &info) == 0) {
        decoy = {fd, info.st_ino};
        ++g_control->decoys;
    }
}

void inspect_decoy(const Decoy& decoy) {
    struct stat info {};
    if (decoy.fd < 0) {
        return;
    }
    if (syscall(SYS_fstat, decoy.fd, &info) != 0 || info.st_ino != decoy.inode) {
        finding(g_control->foreign_closes, 1);
    } else if (info.st_size != 0) {
        finding(g_control->foreign_bytes, static_cast<int>(info.st_size));
        syscall(SYS_ftruncate, decoy.fd, 0);
    }
}

/// From now on a descriptor that was given back too early is a decoy's.
void open_decoys() {
    for (int i = 0; i < kDecoys; ++i) {
        if (g_decoys[i].fd < 0) {
            open_decoy(g_decoys[i], -1);
        }
    }
}

void finish() {
    for (Decoy& decoy : g_decoys) {
        inspect_decoy(decoy);
    }
    for (int i = 0; i < kDecoys; ++i) {
        if (g_decoys[i].fd >= 0) {
            close_quietly(g_decoys[i].fd);
            g_decoys[i] = {};
        }
    }
    g_control->phase = Phase::kDone;
}

void raise_here(int signal) {
    const int saved = errno;
    syscall(SYS_tgkill, getpid(), syscall(SYS_gettid), signal);
    open_decoys();
    errno = saved;
}

void begin(Trigger trigger) {
    if (is_worker() && g_control->phase == Phase::kArmed && g_control->attack.trigger == trigger) {
        if (g_decoys[kDecoys].fd < 0) {
            open_decoy(g_decoys[kDecoys], kStandardInput);
        }
        g_control->phase = Phase::kCounting;
    }
}

void trampoline(int signal) {
    g_depth = g_depth + 1;
    ++g_control->handled;
    begin(Trigger::kHandler);
    g_handlers[signal](signal);
    g_depth = g_depth - 1;
}

bool can_interrupt(const Call& call) {
    for (const int error : call.errors) {
        if (error == EINTR) {
            return true;
        }
    }
    return false;
}

/// Whether the attack suits this call; otherwise it moves on to the next one.
bool suits(const Call& call, const Attack& plan) {
    switch (plan.action) {
    case Action::kInterrupt:
        return can_interrupt(call);
    case Action::kFail:
        return static_cast<std::size_t>(plan.error) < call.errors.size() &&
               call.errors[static_cast<std::size_t>(plan.error)] != 0;
    default:
        return true;
    }
}

Verdict strike(Call& call) {
    Control& control = *g_control;
    std::strncpy(control.name, call.name, sizeof(control.name) - 1);
    control.fired = control.calls;
    switch (control.attack.action) {
    case Action::kBefore:
        raise_here(control.attack.signal);
        return Verdict::kPass;
    case Action::kAfter:
        return Verdict::kSignalAfter;
    case Action::kInterrupt:
        raise_here(control.attack.signal);
        errno = EINTR;
        return Verdict::kFailNow;
    case Action::kFail:
        control.value = call.errors[static_cast<std::size_t>(control.attack.error)];
        errno = control.value;
        return Verdict::kFailNow;
    }
    return Verdict::kPass;
}

[[gnu::constructor]] void attach() {
    const char* const path = std::getenv(kControlVariable);
    const int fd = path != nullptr ? static_cast<int>(syscall(SYS_open, path, O_RDWR | O_CLOEXEC)) : -1;
    if (fd < 0) {
        return;
    }
    const long page = syscall(SYS_mmap, nullptr, sizeof(Control), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close_quietly(fd);
    if (page != -1) {
        g_main = pthread_self();
        g_control = reinterpret_cast<Control*>(page); // NOLINT: the system's number for an address
    }
}

} // namespace

void* look_up(const char* name) {
    void* found = dlsym(RTLD_NEXT, name);
    for (const char* library : {"libkavro_object.so", "libkavro_queue.so", "libkavro_ac.so", "libssl.so.3"}) {
        void* handle = found == nullptr ? dlopen(library, RTLD_LAZY | RTLD_NOLOAD) : nullptr;
        if (handle != nullptr) {
            found = dlsym(handle, name);
            dlclose(handle);
        }
    }
    return found;
}

bool is_worker() {
    return g_control != nullptr && pthread_self() == g_main;
}

bool is_attacked() {
    return is_worker() && g_control->phase != Phase::kIdle;
}

Verdict on_entry(Call& call) {
    if (!is_worker()) {
        return Verdict::kPass;
    }
    Control& control = *g_control;
    g_last = call.name;
    if (control.phase != Phase::kCounting) {
        return Verdict::kPass;
    }
    const Attack& plan = control.attack;
    if ((call.kind & plan.kinds) == 0) {
        return Verdict::kPass;
    }
    ++control.calls;
    const bool now = control.fired == 0 && plan.target > 0 && control.calls >= plan.target && suits(call, plan);
    return now ? strike(call) : Verdict::kPass;
}

void on_return_with_signal() {
    raise_here(g_control->attack.signal);
}

void on_wait(const Call& call) {
    if (!is_worker() || g_control->phase != Phase::kCounting) {
        return;
    }
    const Attack& plan = g_control->attack;
    const bool now = g_control->fired == 0 && (plan.kinds & kSystem) != 0 && plan.target > 0 &&
                     g_control->calls + 1 >= plan.target && suits(call, plan);
    if (!now) {
        finish();
    } else if (plan.action == Action::kAfter) {
        g_control->attack.action = Action::kBefore; // nothing would end this wait
    }
}

void on_wake(int ready) {
    if (ready != 0) {
        begin(ready > 0 ? Trigger::kMessage : Trigger::kStop);
    }
}

void on_message() {
    begin(Trigger::kMessage);
}

void on_start() {
    begin(Trigger::kStart);
}

void on_fork_in_child() {
    g_control = nullptr;
}

void note_heap() {
    if (g_depth > 0 && is_worker()) {
        finding(g_control->heap_in_handler, 1);
    }
}

void note_close() {
    if (g_depth > 0 && is_worker()) {
        finding(g_control->closed_in_handler, 1);
    }
}

void wrap_handler(int signal, void (*handler)(int)) {
    g_handlers[signal] = handler;
}

void (*trampoline_of(int signal))(int) {
    return g_control != nullptr && g_handlers[signal] != nullptr ? trampoline : nullptr;
}

} // namespace kvr::inject
