// SPDX-License-Identifier: MIT
// Every call of the plug-in, the TCP client and the host's utilities on its way out of them: a row says what is known
// of it, and all pass the same place, where a case can script the result, one call of a run can fail or meet a signal,
// and what none may ever do is noted as a fault of the run.
//
// Calls are attacked in the channel process alone, in its main flow and in its handlers, while the window is open.
#pragma once

#include <array>
#include <cerrno>
#include <functional>
#include <optional>
#include <string>

namespace kvr::test {

constexpr int kHalf = -1; ///< in the place of an error: the call does half of what it was to do
constexpr int kHostError = -110;

struct Row {
    const char* name;
    std::array<int, 5> errors{};        ///< as it can plausibly fail; none: it cannot
    const char* told = nullptr;         ///< what the log says when it fails for good; null: the failure costs nothing
    long failed = -1;                   ///< its result then
    char kind = 0;                      ///< of its entry in the trace; 0: none
    std::array<std::size_t, 2> shown{}; ///< arguments in that entry, counted from 1
    std::size_t fd = 0;                 ///< argument that is a descriptor
    std::size_t half = 0;               ///< argument that is a size
    bool pid = false;                   ///< its first argument is a process
    bool again = false;                 ///< to be repeated when a signal ended it
    bool gives_back = false;            ///< a descriptor or child, even when it fails; never in a handler
    bool own = false;                   ///< what happens inside is no affair of the channel's
    bool faked = false;                 ///< passes at once
    int tls = 0;                        ///< 1: makes a session or context, -1: releases one
    long (*then)(long result, long argument) = nullptr; ///< looks at a call that was made, and may alter its result
    int calls = 0;                                      ///< so far
};

/// What a hook is told of a call.
struct Call {
    int n;  ///< 1 for the first of its name in the process
    long a; ///< its first shown argument
};
/// A value replaces what the call does and is its result; nothing lets it go on.
using Hook = std::function<std::optional<int>(const Call&)>;

/// Lets a call pass; `real` makes it, by halves if it is told to.
long pass(Row& row, const std::string& shown, long argument, const std::function<long(bool half)>& real);

enum class Action {
    kNone,
    kFail,
    kBefore,    ///< a signal, then the call
    kAfter,     ///< the call, then a signal
    kInsteadOf, ///< a signal and no call: it fails with EINTR
};

/// What happens to the n-th call in the window, or to the first one after it that can end so.
struct Attack {
    Action action = Action::kNone;
    int signal = 0;
    int error = 0;  ///< kFail: which of the call's errors, from 0
    int target = 0; ///< from 1
};

/// What a run tells of its attack, in memory that its processes share.
struct Attacked {
    int calls;      ///< counted
    int fired;      ///< number of the call that was struck; 0: there were fewer
    int error;      ///< errno of a failure; 0: half a call, or only a signal
    const Row* row; ///< the call
};

/// Before the fork of the channel process.
void plan(const Attack& attack);
const Attacked& attacked();
void open_window(bool open = true);

/// In the channel process: from now on its calls are looked at, and what it has open is not the channel's.
void start_recording();
/// Sessions and contexts that were made and not released.
int tls_objects();

} // namespace kvr::test
