// SPDX-License-Identifier: MIT
// Runs one channel process under the scripted host, with a receiver that records every byte and acts on cue.
// run() forks the process, serves the receiver until the process and its line watchers have ended, and hands back what
// was seen. Everything is awaited by event. Frames are spelled out by the literals of the receiver's tests.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "recording_host.h"
#include "support/folder.h"
#include "support/peer.h"
#include "support/receiver_stream.h"

namespace kvr::test {

using testing::ElementsAre;
using testing::StartsWith;

using Lines = std::vector<std::string>;

/// Fails the calls numbered `from` to `to` with this result and errno.
Hook failing(int result, int from = 1, int to = 1 << 30, int err = 0);
/// Fails the first so many calls whose argument is `a`.
Hook failing_of(long a, int times, int result, int err);
/// Raises the signal in every call and lets it go on.
Hook raising(int sig);
/// Raises the signal, and tells whether it is held.
bool held(int sig);

/// A message with a transmission header for `dest`.
Message message(const std::string& body, const std::string& dest = "Q1");
/// A message of no other bytes than these.
Message raw(const std::string& data);
GetStep deliver(const Message& msg);
/// Raises a signal inside the get, which then fails as an interrupted wait does.
GetStep interrupted(int sig);
/// Once a watcher watches: notes "idle", waits until a signal handler has run, and fails.
GetStep idle();
/// Does `what` inside the get; the process ends there.
GetStep finally(std::function<void()> what);

/// The header of a data frame ('0') or a file frame ('4') for the queue Q1, message type 1 and code 0.
std::string header(char type, std::size_t package);
/// A descriptor block that carries nothing but a storage type and flags.
std::string plain_block(char store_type, int flags = 0);
/// One such message without attachments, whole.
std::string data_frame(const std::string& body);
/// "<errno>:<text>", as failures show it.
std::string err(int code);

/// What a run left behind.
struct Result {
    pid_t pid = 0;
    int status = 0; ///< exit status, or the negative number of the signal that ended the process
    /// What differs from run to run is named in it: PORT, the receiver's; PORT1, the channel's of the first connection;
    /// PID, the channel process; W1, its first line watcher.
    std::vector<Entry> trace;
    Lines conns; ///< bytes of each connection, in the order of their making
    std::vector<pid_t> watchers;

    /// Texts of the channel process's entries of these kinds; or those of another process.
    Lines lines(const std::string& kinds, pid_t of = 0) const;
    /// Entries of any process and kind that contain the text.
    int count(const std::string& text) const;
    std::string dump() const;
};

/// Checks that the channel process's entries of these kinds hold these texts in this order, other entries between them.
/// A text of several entries, "a | b | c", allows none between these.
testing::AssertionResult in_order(const Result& r, const Lines& texts, const std::string& kinds = "LNHSTED");

/// What the receiver does on the first connection once the bind frame has come and the trace shows `after`.
struct Cue {
    std::string after;
    std::function<void(PeerConnection&)> act;
};

class ChannelTest : public testing::Test {
  protected:
    ChannelTest();

    /// Forks the channel process, which does `body` and ends with status 0 unless the body ends it before. Uses up
    /// hooks, cues and results of the get.
    Result run(const std::function<void()>& body);
    /// Loads and raises these events.
    Result run_channel(const std::vector<int>& events = {1, 2});
    /// The same on a queue that delivers these messages.
    Result run_messages(const std::vector<Message>& msgs);
    /// Writes a file in the test's own folder, where the channel runs; its path, "files/<name>".
    static std::string file(const std::string& name, const std::string& content);

    /// Both ends inside TLS, with the channel's own certificate asked for.
    void use_tls(Carrier carrier);

    static Attrs& chl() { return host().objects["CHL CH1"]; }
    static Attrs& qmgr() { return host().objects["QMGR QMGR"]; }

    std::vector<Cue> cues_;
    bool listening_ = true; ///< false: the receiver's port refuses connections
    PeerOptions receiver_;
    TemporaryFolder folder_;
    std::string dir_ = folder_.path();
};

} // namespace kvr::test
