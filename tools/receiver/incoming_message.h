// SPDX-License-Identifier: MIT
// The message that is coming in over one connection: its data in memory, its files in the spool, its digests for the
// journal, until it is complete and handed over for delivery. One that has no queue to lie on, or a file that can never
// be stored, is passed over: nothing of it is kept. The connection raises the events in the order of the stream.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "frame_splitter.h"
#include "identity_digest.h"
#include "listener_context.h"
#include "sha256.h"

namespace kvr {

class IncomingMessage {
  public:
    /// Both outlive this.
    IncomingMessage(const Line& line, ListenerContext& context);
    IncomingMessage(const IncomingMessage&) = delete;
    IncomingMessage& operator=(const IncomingMessage&) = delete;

    void begin(const WireMessage& message);
    void begin_file(std::size_t index, std::uint64_t length);
    /// @param bytes (in/out) advanced past what was taken
    /// @return false: the rest cannot be stored for now (trouble)
    bool take_file_bytes(std::span<const char>& bytes);
    void end_file();
    /// Gives the files of the complete message their names and hands the message over. False: it waits until they can
    /// be stored; call it again.
    bool complete();
    /// The connection ends: what is not complete goes, what is complete and waits is told as lost when `tell` says so.
    void abandon(bool tell);

    /// Complete ones that were handed over.
    [[nodiscard]] std::uint64_t count() const { return count_; }
    /// It is complete, and its files wait to be stored.
    [[nodiscard]] bool complete_waits() const { return complete_waits_; }
    /// Why a file cannot be stored for now; empty: nothing is wrong.
    [[nodiscard]] const std::string& trouble() const { return file_trouble_; }
    /// And room is all that it lacks.
    [[nodiscard]] bool lacks_room() const { return no_room_; }
    /// Its package is complete: what comes is files.
    [[nodiscard]] bool awaits_files() const { return kept_ > 0; }
    /// Bytes of memory, without what the splitter holds.
    [[nodiscard]] std::size_t memory() const { return kept_; }
    /// Bytes in the spool.
    [[nodiscard]] std::uint64_t spooled() const { return spooled_; }

  private:
    struct FileFacts {
        std::string name;
        std::string path;
        std::uint64_t length = 0;
        std::string digest;
    };

    [[nodiscard]] bool keeps() const { return context_.spool != nullptr && drop_reason_.empty(); }
    bool judge_trouble(const IncomingFile& file);
    bool publish_files();
    void hand_over();
    void drop_files();
    [[nodiscard]] std::size_t kept_memory() const;
    [[nodiscard]] std::string facts() const;

    const Line& line_;
    ListenerContext& context_;
    std::uint64_t count_ = 0;
    std::size_t kept_ = 0;
    std::uint64_t spooled_ = 0;
    bool complete_waits_ = false;
    std::string file_trouble_;
    bool no_room_ = false;
    std::string drop_reason_; ///< why it is passed over; empty: it is taken in
    ReceivedMessage message_;
    bool is_file_ = false;
    std::size_t body_length_ = 0;
    std::string body_digest_;
    std::vector<IncomingFile> files_;
    std::vector<FileFacts> facts_; ///< of each file, for the journal
    std::size_t current_file_ = 0;
    std::unique_ptr<Sha256> digest_;           ///< null without a journal
    std::unique_ptr<IdentityDigest> identity_; ///< null where nobody asks for it
};

} // namespace kvr
