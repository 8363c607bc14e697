// SPDX-License-Identifier: MIT
// Runs one channel process under the scripted host, with a receiver that records every byte and acts on cue.
// run() forks the process, serves the receiver until the process and its line watchers have ended, and hands back what
// was seen. Everything is awaited by event, with one deadline for the run.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "recording_host.h"
#include "support/folder.h"
#include "support/peer.h"

namespace kvr::test {

/// What the receiver does on the first connection once the bind frame has come and the trace shows `after`.
struct Cue {
    enum Act { kClose, kReset, kSend, kTicket } act;
    std::string after;
};

/// What a run left behind.
struct Result {
    pid_t pid = 0;
    int status = 0; ///< exit status, or the negative number of the signal that ended the process
    std::vector<Entry> trace;
    std::vector<std::string> conns; ///< bytes of each connection, in the order of their making
    std::vector<int> ports;         ///< the channel's port of each connection
    std::vector<pid_t> watchers;

    /// Texts of the channel process's entries of these kinds; or those of another process.
    std::vector<std::string> lines(const std::string& kinds, pid_t of = 0) const;
    /// The same from the first entry that equals `first` on, up to the last that equals `last`. Left out is the note of
    /// the line-loss handler: a close on this side wakes the watcher too, which may or may not report it in time.
    std::vector<std::string> lines_between(const std::string& kinds, const std::string& first,
                                           const std::string& last) const;
    /// Entries of any process and kind that contain the text.
    int count(const std::string& text) const;
    std::string dump() const;
};

/// Checks that the channel process's entries hold these texts in this order, other entries aside.
testing::AssertionResult in_order(const Result& r, const std::vector<std::string>& texts);

/// "<errno>:<text>", as failures show it.
std::string err(int code);

class ChannelTest : public testing::Test {
  protected:
    ChannelTest();

    /// Forks the channel process, which does `body` and ends with status 0 unless the body ends it before.
    Result run(const std::function<void()>& body);
    /// Loads and raises these events.
    Result run_events(const std::vector<int>& ids);
    Result run_channel() { return run_events({1, 2}); }
    /// The same on a queue that delivers these messages.
    Result run_messages(const std::vector<Message>& msgs);
    /// A file of this content in the test's own folder; its path.
    std::string file(const std::string& name, const std::string& content) const;

    Attrs& chl() { return host().objects["CHL/CH1"]; }
    Attrs& qmgr() { return host().objects["QMGR/QMGR"]; }
    /// Of the receiver of the latest run.
    std::string address() const { return "127.0.0.1:" + std::to_string(port_); }

    std::vector<Cue> cues_;
    bool listening_ = true; ///< false: the receiver's port refuses connections
    PeerOptions receiver_;
    int port_ = 0; ///< of the receiver; each run has another one
    TemporaryFolder folder_;
    std::string dir_ = folder_.path();
};

} // namespace kvr::test
