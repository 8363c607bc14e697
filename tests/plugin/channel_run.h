// SPDX-License-Identifier: MIT
// Runs one channel process under the scripted host, with a receiver that records every byte and acts on cue.
// run() forks the process, serves the receiver until the process and its line watchers have ended, and hands back what
// was seen. Everything is awaited by event. Frames are spelled out by the literals of the receiver's tests.
#pragma once

#include <gtest/gtest.h>

#include "recording_host.h"
#include "support/folder.h"
#include "support/peer.h"
#include "support/receiver_stream.h"

namespace kvr::test {

using Lines = std::vector<std::string>;

inline const std::string kBind = bind_frame("CH1");

/// Fails each call, or the n-th only.
Hook failing(int result, int nth = 0, int err = 0);
/// Fails the first so many calls with this argument.
Hook failing_of(long argument, int times, int result, int err);

/// A message with a transmission header for `dest`.
Message message(const std::string& body, const std::string& dest = "Q1");
/// A message of no other bytes than these; the get may tell another length.
Message raw(const std::string& data, std::optional<int> length = {});
GetStep deliver(const Message& msg);
/// Raises a signal inside the get, which then fails as an interrupted wait does.
GetStep interrupted(int sig);
/// Does `what` inside the get; the process ends there.
GetStep finally(std::function<void()> what);

/// The header of a data frame ('0') or a file frame ('4') for the queue Q1, message type 1 and code 0.
std::string header(char type, std::size_t package);
/// A descriptor block that carries nothing but a storage type and flags.
std::string plain_block(char store_type, int flags = 0);
/// One such message without attachments, whole.
std::string data_frame(const std::string& body);
/// What a run left behind.
struct Result {
    pid_t pid = 0;
    int status = 0; ///< exit status, or the negative number of the signal that ended the process
    std::vector<Entry> trace;
    Lines conns; ///< bytes of each connection, in the order of their making
    /// What differs from run to run: "<port>", the receiver's; "<own port>", the channel's of the first connection;
    /// "<pid>", the channel process; "<watcher 1>", its first line watcher.
    std::map<std::string, std::string> names;

    /// The text with the values of these names.
    std::string named(std::string text) const;
    /// Entries of any process and kind that contain the text.
    int count(const std::string& text) const;
    std::string dump() const;
};

/// Checks that the channel process's entries hold these texts in this order, other entries between them.
/// A text of several entries, "a | b | c", allows none between these.
testing::AssertionResult in_order(const Result& r, const Lines& texts);

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
    /// Writes a file in the test's own folder, where the channel runs; its path, "files/<name>".
    static std::string file(const std::string& name, const std::string& content);

    static Attrs& chl() { return host().objects["CHL CH1"]; }
    static Attrs& qmgr() { return host().objects["QMGR QMGR"]; }

    Cue cue_;
    PeerOptions receiver_;
    TemporaryFolder folder_;
};

} // namespace kvr::test
