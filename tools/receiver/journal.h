// SPDX-License-Identifier: MIT
// The listener's journal: a file of JSON lines, one per event, for whoever has to account for each message. A message's
// line is written after the store has taken the message. Texts from outside appear with %XX for anything but plain
// ASCII. Without a path nothing is written.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "kavutil/unique_fd.h"

namespace kvr {

class Journal {
  public:
    /// Opens the file for appending (0600); a link in its place is refused. Throws kvr::Error(kIo).
    explicit Journal(const std::filesystem::path& path);
    Journal(const Journal&) = delete;
    Journal& operator=(const Journal&) = delete;
    /// After a rotation moved the file away: lines so far go to the old one, later ones to a new one of the same name.
    /// When that cannot be opened the old one stays. The log tells which of it happened.
    void reopen();

    [[nodiscard]] bool enabled() const { return static_cast<bool>(fd_); }
    /// @param members JSON members without braces, such as `"channel":"A"`; may be empty
    void add(std::string_view event, std::uint64_t connection, std::string_view members);
    /// Hands the lines to the system. What cannot be written is kept for the next time, within a bound.
    void flush();
    /// At the end: writes what is kept and logs how many lines the file lacks. False when there are any.
    bool settle();

  private:
    std::filesystem::path path_;
    UniqueFd fd_;
    std::string lines_;
    bool failing_ = false;
    bool torn_ = false; ///< the file ends within a line
    std::uint64_t lost_ = 0;
};

} // namespace kvr
