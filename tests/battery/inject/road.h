// SPDX-License-Identifier: MIT
// Private to the preloaded library: the calls it wraps, and the one place that every wrapped call passes.
#pragma once

#include <array>
#include <cerrno>

#include "control.h"

namespace kvr::inject {

/// The function behind a wrapper: in the program's own libraries, or in those that came with the plug-in.
void* look_up(const char* name);

/// A wrapped function. Its address is looked up by its first call.
struct Call {
    const char* name;
    Kind kind;
    std::array<int, 4> errors{}; ///< plausible ones, 0 ends the list; EINTR among them: a signal can end it
    bool happens = false;        ///< a failure does the work all the same, as close does
    void* real = nullptr;

    void* address() {
        if (real == nullptr) {
            real = look_up(name);
        }
        return real;
    }
};

/// What the library decides about one call.
enum class Verdict { kPass, kSignalAfter, kFailNow };

/// Counts the call and does what comes before it. Sets errno for kFailNow.
Verdict on_entry(Call& call);
void on_return_with_signal();

template <typename Result, typename Real>
Result pass(Call& call, Result failure, Real real) {
    switch (on_entry(call)) {
    case Verdict::kPass:
        return real();
    case Verdict::kSignalAfter: {
        const Result result = real();
        const int saved = errno;
        on_return_with_signal();
        errno = saved;
        return result;
    }
    case Verdict::kFailNow:
        break;
    }
    if (call.happens) {
        const int saved = errno;
        static_cast<void>(real());
        errno = saved;
    }
    return failure;
}

// Events of the road.
void on_wait(const Call& call); ///< the get is about to wait for a message
void on_wake(int ready);        ///< its wait ended
void on_message();              ///< the get returned a message
void on_start();                ///< the plug-in starts up
void on_fork_in_child();        ///< from here on this process is no worker
void note_heap();               ///< memory was allocated or released
void note_close();              ///< a descriptor is given back
void wrap_handler(int, void (*handler)(int));
void (*trampoline_of(int))(int);
bool is_worker();
bool is_attacked(); ///< a worker, and armed at least once

} // namespace kvr::inject
