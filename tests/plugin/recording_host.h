// SPDX-License-Identifier: MIT
// A scripted host for tests of the channel plug-in: the test program itself defines the host's operations and stands in
// front of the calls of the plug-in, the TCP client and the host's utilities. All of them pass one place, where a case
// can script the result, one call of a run can fail or meet a signal, and what none may ever do becomes a fault.
//
// Each call and each log line is appended to a trace. The channel runs in a forked process (channel_run.h); what is set
// up here before the fork is that process's host.
#pragma once

#include <sys/types.h>

#include <array>
#include <cerrno>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "kavro_api.h"
#include "plug_mgr.h"

namespace kvr::test {

struct Entry {
    pid_t pid;
    std::string text;
};

/// Appends to the trace: "<call>(<arguments>)", "<level> <log line>", a note of the test's, or "fault: <what no case
/// may show>". Callable from a signal handler and from every process of a run.
void trace(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void trace_reset();
std::vector<Entry> trace_entries();
/// Waits until the text stands in the trace; that it never does is a fault.
void wait_for(const std::string& text);

/// What is known of a call.
using Arguments = std::array<long, 6>;
constexpr int kHalf = -1; ///< in the place of an error: the call does half of what it was to do
struct Row {
    const char* name;
    std::array<int, 5> errors{};        ///< as it can plausibly fail; none: it cannot
    const char* told = nullptr;         ///< what the log says when it fails for good; null: the failure costs nothing
    long failed = -1;                   ///< its result then
    bool traced = false;                ///< has an entry in the trace
    std::array<std::size_t, 2> shown{}; ///< arguments in that entry, counted from 1
    std::size_t fd = 0;                 ///< argument that is a descriptor
    std::size_t half = 0;               ///< argument that is a size
    bool pid = false;                   ///< its first argument is a process
    bool again = false;                 ///< to be repeated when a signal ended it
    bool gives_back = false;            ///< a descriptor or child, even when it fails; never in a handler
    bool own = false;                   ///< what happens inside is no affair of the channel's
    bool faked = false;                 ///< passes at once
    int tls = 0;                        ///< 1: makes a session or context, -1: releases one
    long (*then)(long result, const Arguments& arguments) = nullptr; ///< looks at a call that was made, and its result
};

/// Told the first shown argument of a call. A value that it returns replaces what the call does; nothing lets it go on.
using Hook = std::function<std::optional<int>(long argument)>;

/// Lets a call pass; `real` makes it, by halves if it is told to.
long pass(Row& row, const std::string& shown, long argument, const std::function<long(bool half)>& real);

/// An attack on one call: the n-th of the channel process's while the window is open, in its main flow and in its
/// handlers, or the first one after it that can end so. In memory that all processes of a run share.
struct Attack {
    enum Action {
        kNone,
        kFail,
        kBefore,    ///< a signal, then the call
        kAfter,     ///< the call, then a signal
        kInsteadOf, ///< a signal and no call: it fails with EINTR
    } action = kNone;
    int signal = 0;
    int error = 0;            ///< kFail: which of the call's errors, from 0
    int target = 0;           ///< from 1
    bool open = false;        ///< the window
    int calls = 0;            ///< counted so far
    int fired = 0;            ///< number of the call that was struck; 0: there were fewer
    int failure = 0;          ///< its errno; 0: it did not fail
    const Row* row = nullptr; ///< what it was
};
extern Attack& attack;

/// In the channel process: from now on its calls are looked at, and what it has open is not the channel's.
void start_recording();
/// Sessions and contexts that were made and not released.
extern int tls_objects;

struct Message {
    T_KAVRO_MD md{};
    std::string data{};
    std::vector<std::string> files{}; ///< listed when the descriptor has the flag
    std::optional<int> file_count{};  ///< a count other than that of `files`
    std::optional<int> length{};      ///< told by the get, other than that of `data`
    bool null_list = false;           ///< pOptData is null after the get
};

/// One result of the get.
using GetStep = std::function<int(T_KAVRO_MD*, char*, int*)>;
using Attrs = std::map<std::string, std::string>;

/// The host of one channel process. When the get has no step left the process ends with kScriptOver, as kill -9 would
/// leave it.
struct Host {
    std::map<std::string, Attrs> objects; ///< "CLASS NAME"
    /// By operation or system call; "log": a log line, with its level.
    std::map<std::string, Hook, std::less<>> hooks;
    std::deque<GetStep> get;
    int sock = 0;              ///< the latest socket
    pid_t watcher = 0;         ///< the latest line watcher
    unsigned alarm = 0;        ///< what is armed: it never fires by itself
    Message in_hand;           ///< what the latest get delivered, as it was returned
    T_RTCORE_CONTEXT ctx{};    ///< set up by load()
    T_PLUG_MGR_PLUG_VAR var{}; ///< set up by load()
    bool recording = false;    ///< true in the channel process only
};
Host& host();

constexpr int kSuccess = 3; ///< of the store's operations: only the sign of a result counts
constexpr int kHostError = -110;
constexpr int kScriptOver = 77;
constexpr int kOptions = 2; ///< option entries in the argument table

/// Whether none of the signals that come and go with a line can interrupt.
bool line_signals_held();

/// In the channel process: calls OnPlugLoad with a fresh context; raises an event and notes "event <n> = <result>".
void load();
int event(int id);

} // namespace kvr::test
