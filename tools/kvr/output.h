// SPDX-License-Identifier: MIT
// Output of the commands: tables for people, JSON for programs. What cannot be written is a failure of the command.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "kavutil/error.h"

namespace kvr {

using Json = nlohmann::ordered_json;

/// Whoever read standard output has had enough: no failure of a command that only shows something.
class ReaderGone : public Error {
  public:
    using Error::Error;
};

/// Writes to standard output. Throws Error(kIo), ReaderGone when that fails.
void print(std::string_view text);
/// Writes one JSON value, indented; with `line` on one line, for streams of values.
void print_json(const Json& value, bool line = false);
/// Hands everything over to the system. Throws Error(kIo) when that fails: a full disk; ReaderGone: a closed pipe.
void flush_output();
/// Writes what a command has changed, as the value or as a line for people. Where that fails, the Error says that it is
/// done, so that nobody does it again.
void print_outcome(bool json, const Json& value, const std::string& line);
/// A remark for people on standard error; it never fails.
void remark(const std::string& text);
/// As remark, for what went wrong: where the journal reads standard error, it is an error there.
void complain(const std::string& text);

/// Columns as wide as their widest cell; columns of numbers are aligned to the right. A long table is printed in
/// blocks: the first has the headings and decides the alignment, a later one widens a column where it must.
class Table {
  public:
    explicit Table(std::vector<std::string> headings) : headings_(std::move(headings)) {}
    void row(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }
    [[nodiscard]] std::size_t size() const { return rows_.size(); }
    /// The rows that were added since the last call.
    [[nodiscard]] std::string text();

  private:
    void measure();

    std::vector<std::string> headings_;
    std::vector<std::size_t> widths_; ///< empty before the first block
    std::vector<bool> right_;
    std::vector<std::vector<std::string>> rows_;
};

/// Whether the bytes are text (UTF-8 without control characters other than tab, line feed, carriage return).
bool is_text(std::string_view bytes);
/// The bytes with everything that a terminal could take for a command written as \n, \t or \xNN.
std::string printable(std::string_view bytes);
std::string base64(std::string_view bytes);
/// Lines of offset, 16 bytes in hexadecimal and as characters.
std::string hex_dump(std::string_view bytes);
/// "1 message", "2 messages".
std::string message_count(std::uint64_t number);
/// "1.5 KiB" and the like.
std::string human_size(std::uint64_t bytes);

} // namespace kvr
