// SPDX-License-Identifier: MIT
// A log line under construction in a caller's fixed buffer: printable, secrets masked, never longer than the buffer.
// Safe in signal handlers: no allocation, no locale, no time-zone data.
#pragma once

#include <cstddef>

namespace kvr {

/// Longest line with its newline. Not above PIPE_BUF, so that a line to a pipe that poll() calls writable cannot block.
constexpr std::size_t kMaxLine = 4096;

class LogLine {
  public:
    /// Appends what is known to be clean.
    void add(const char* text);
    void add_number(long number, int min_digits = 1);
    /// Appends the journal's mark for a line of this level of the log.
    void add_priority(int level);
    /// Appends the current time, UTC with milliseconds.
    void add_time();
    /// Appends a text from outside: what is not printable as \xNN. A null text shows as "-".
    void add_printable(const char* text);
    /// As add_printable, with registered secrets masked. `cut`: the text was longer than its buffer and ends anywhere,
    /// perhaps within a secret.
    void add_masked(const char* text, std::size_t length, bool cut);
    /// Appends an id of `size` bytes as kvr shows it: as text, or as 0x and hexadecimal digits when it is none.
    void add_id(const char* id, std::size_t size);
    /// Ends the line; a line that was too long says so. Returns its length.
    std::size_t finish();
    [[nodiscard]] const char* data() const { return buffer_; }

  private:
    void put(const char* bytes, std::size_t length);
    std::size_t put_printable(const char* text, std::size_t left);

    char buffer_[kMaxLine];
    std::size_t length_ = 0;
    bool cut_ = false;
};

} // namespace kvr
