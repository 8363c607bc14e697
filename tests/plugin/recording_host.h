// SPDX-License-Identifier: MIT
// A scripted host for tests of the channel plug-in: the test program itself defines the host's operations, so that the
// plug-in resolves to them.
// Each call and each log line is appended to a trace in shared memory; a hook may change what a call does. The channel
// runs in a forked process (channel_run.h); what is set up here before the fork is that process's host.
#pragma once

#include <sys/types.h>

#include <deque>
#include <map>
#include <string>
#include <vector>

#include "calls.h"
#include "kavro_api.h"
#include "plug_mgr.h"

namespace kvr::test {

/// What an entry of the trace tells of.
enum Kind : char {
    kLog = 'L',    ///< log line of the plug-in: "<level> <text>"
    kNetLog = 'N', ///< log line of the TCP library
    kLoss = 'D', ///< log and alarm of the line-loss handler: a close on this side may call it, sooner or later or never
    kHost = 'H', ///< host operation with its arguments
    kSystem = 'S', ///< sleep, alarm, pipe, fork, waitpid, sigset, select
    kSocket = 'T', ///< TCP option set on a socket
    kNote = 'E',   ///< written by the test
    kChild = 'W',  ///< process id of a forked line watcher
    kFault = '!',  ///< a breach of the border that no case may show, such as descriptor 0 used as the connection
};

struct Entry {
    pid_t pid;
    char kind;
    std::string text;
};

/// Appends to the trace; callable from a signal handler and from every process of a run.
void trace(char kind, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void trace_reset();
std::vector<Entry> trace_entries();
/// Waits, at most 10 s, until the text stands in the trace.
void wait_for(const std::string& text);

struct Message {
    T_KAVRO_MD md{};
    std::string data;
    std::vector<std::string> files; ///< listed when the descriptor has the flag
    std::optional<int> file_count;  ///< a count other than that of `files`
    std::optional<int> length;      ///< told by the get, other than that of `data`
    bool null_list = false;         ///< pOptData is null after the get
};

/// One result of the get.
using GetStep = std::function<int(T_KAVRO_MD*, char*, int*)>;
using Attrs = std::map<std::string, std::string>;

/// The host of one channel process. When the get has no step left the process ends with kScriptOver, as kill -9 would
/// leave it.
struct Host {
    std::map<std::string, Attrs> objects; ///< "CLASS/NAME"
    std::map<std::string, Hook, std::less<>>
        hooks; ///< by operation or system call; "failure": a level-1 line of the TCP client
    std::deque<GetStep> get;
    std::string name = "ch1";  ///< channel name among the process arguments
    int sock = 0;              ///< the latest socket of the connection
    pid_t watcher = 0;         ///< the latest line watcher
    unsigned alarm = 0;        ///< what is armed: it never fires by itself
    Message in_hand;           ///< what the latest get delivered, as it was returned
    T_RTCORE_CONTEXT ctx{};    ///< set up by load()
    T_PLUG_MGR_PLUG_VAR var{}; ///< set up by load()
    bool recording = false;    ///< true in the channel process only
};
Host& host();

constexpr int kSuccess = 3; ///< of the store's operations: only the sign of a result counts
constexpr int kScriptOver = 77;
constexpr int kOptions = 2; ///< option entries in the argument table

/// In the channel process: calls OnPlugLoad with a fresh context; raises an event and notes "event <n> = <result>".
void load();
int event(int id);

} // namespace kvr::test
