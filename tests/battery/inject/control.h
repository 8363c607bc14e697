// SPDX-License-Identifier: MIT
// What a test and the preloaded library in its worker share: one page of memory, through a file. The test writes an
// attack and arms it; the library carries it out once and writes down what it did and what it found.
#pragma once

#include <atomic>

namespace kvr::inject {

/// Environment variable with the path of the shared file. Without it the library does nothing.
inline constexpr char kControlVariable[] = "KVR_INJECT";

enum class Phase : int {
    kIdle,
    kArmed,    ///< waits for the trigger
    kCounting, ///< calls are counted, the attack comes at its call
    kDone,     ///< the channel waits for its next message again
};

enum class Trigger : int {
    kMessage, ///< the wait for a message ends, or a message was got without one
    kHandler, ///< one of the plug-in's handlers begins
    kStart,   ///< the plug-in attaches to its queue manager
    kStop,    ///< a signal of the host's ends the wait for a message
};

enum class Action : int {
    kBefore,    ///< a signal, then the call
    kAfter,     ///< the call, then a signal
    kInterrupt, ///< a signal and no call: it fails with EINTR
    kFail,      ///< no call: it fails with one of its plausible errors
};

/// Kinds of calls, as bits.
enum Kind : int { kHost = 1, kSystem = 2, kTls = 4, kAnyKind = 7 };

struct Attack {
    Trigger trigger = Trigger::kMessage;
    Action action = Action::kBefore;
    int kinds = kAnyKind;
    int target = 0; ///< the n-th call, from 1, or the first one after it that can end so; 0: none
    int signal = 0; ///< kBefore, kAfter, kInterrupt
    int error = 0;  ///< kFail: which of the call's plausible errors, from 0
};

struct Control {
    std::atomic<Phase> phase;
    Attack attack;

    // Of this attack.
    int calls; ///< counted so far
    int fired; ///< the number of the call that was struck; 0: there were fewer calls
    int value; ///< kFail: errno of the failure
    char name[32];

    // Of the worker's whole life.
    int heap_in_handler;   ///< blocks allocated or released in a handler
    int closed_in_handler; ///< descriptors given back in a handler
    int foreign_bytes;     ///< bytes that reached a decoy
    int foreign_closes;    ///< decoys that somebody else closed
    int decoys;            ///< opened so far
    int handled;           ///< signals that ran a handler of the plug-in
    char finding[64];      ///< the last call before the first finding
};
static_assert(std::atomic<Phase>::is_always_lock_free);

} // namespace kvr::inject
