// SPDX-License-Identifier: MIT
// The folder in which the receiver keeps the files that came with messages.
//
// A sender chooses names, never places: a name becomes one harmless component (spool_name), a file is created below the
// folder only, exclusively, and replaces nothing. While its message is incomplete a file lies in the subfolder
// kIncoming under a name of the spool's own. Order of durability: contents synced (finish), given its final name
// (publish), folder synced (sync), and only then may the message that names it be stored. A crash before that leaves a
// file without a message, never a message without its file; what lies in kIncoming is removed at the next start.
//
// Whatever fails is tried again by calling it again, but for the few errors that retry_helps() tells: those are faults
// of the file itself.
#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>

#include "kavutil/unique_fd.h"

namespace kvr {

constexpr std::size_t kMaxSpoolName = 255; ///< bytes of a name in a folder (NAME_MAX)

/// What a name from the wire is called in the spool: '/', NUL and other control characters as %XX, "." and ".." with
/// their first dot as %2E, cut to `limit` bytes with its extension kept. Other bytes, UTF-8 or not, stay as they are.
std::string spool_name(std::string_view wire_name, std::size_t limit);

class Spool;

/// One file on its way in. Destroyed before publish(), it leaves nothing behind.
class IncomingFile {
  public:
    IncomingFile(Spool& spool, std::string wire_name);
    IncomingFile(IncomingFile&& other) noexcept;
    IncomingFile& operator=(IncomingFile&&) = delete;
    IncomingFile(const IncomingFile&) = delete;
    IncomingFile& operator=(const IncomingFile&) = delete;
    ~IncomingFile();

    // Each of these fails with trouble() and retry_helps().

    /// @param bytes (in/out) advanced past what was written
    bool write(std::span<const char>& bytes);
    /// Contents on disk, file closed.
    bool finish();
    /// Gives the file its name in the spool. Returns the full path; empty: failed.
    std::string publish();

    /// "[28:No space left on device]"
    [[nodiscard]] std::string trouble() const;
    [[nodiscard]] bool retry_helps() const;
    [[nodiscard]] bool no_room() const;

  private:
    /// Tells contents from what a disk that failed gives back in their place.
    class Checksum {
      public:
        void add(std::span<const char> bytes);
        bool operator==(const Checksum&) const = default;

      private:
        std::uint64_t sum_ = 0;
        std::uint64_t sum_of_sums_ = 0;
    };

    bool open();
    bool sync();
    bool renew();
    bool copy_from(int fd);

    Spool* spool_;
    std::string wire_name_;
    std::string temporary_; ///< name in kIncoming; empty while there is no file
    UniqueFd fd_;
    Checksum checksum_;
    std::size_t unwritten_ = 0; ///< bytes since their way to the disk was begun
    bool doubtful_ = false;     ///< a sync failed: what it did not write the system may have forgotten
    int error_ = 0;
};

class Spool {
  public:
    static constexpr const char* kIncoming = ".incoming";

    /// Makes the folder (0700) when it is missing, takes it for this process, clears kIncoming and stores a file on
    /// trial. Throws kvr::Error: not ours or writable by others, used by another listener, path too long for attachment
    /// paths, no place for files.
    explicit Spool(const std::filesystem::path& dir);

    [[nodiscard]] const std::string& dir() const { return dir_; }
    /// Makes the names published so far durable. Throws kvr::Error, also when the folder lies elsewhere by now.
    void sync();
    /// Removes a published file whose message could not be stored.
    void remove(const std::string& path);

  private:
    friend class IncomingFile;
    void open(const std::filesystem::path& dir);
    void reopen_if_removed();
    void clear_incoming();
    void try_file();

    std::string dir_; ///< absolute, without links
    std::size_t name_limit_ = 0;
    UniqueFd dir_fd_; ///< holds the lock
    UniqueFd incoming_fd_;
    std::uint64_t next_temporary_ = 1;
    bool unsynced_ = false;
    std::unordered_map<std::string, unsigned> next_suffix_; ///< a hint: where to look for a free name
};

} // namespace kvr
