// SPDX-License-Identifier: MIT
#include "output.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <unistd.h>

#include <fmt/format.h>
#include <openssl/evp.h>

#include "kavutil/printable.h"
#include "kavutil/service.h"

namespace kvr {
namespace {

constexpr std::size_t kHexColumns = 16;
constexpr unsigned kByteMask = 0xFF;

unsigned byte_at(std::string_view bytes, std::size_t at) {
    return static_cast<unsigned char>(bytes[at]);
}

bool is_number(const std::string& cell) {
    return cell.empty() || cell == "-" || cell.find_first_not_of("0123456789.") == std::string::npos;
}

[[noreturn]] void output_failed(int error) {
    const std::string text =
        fmt::format("the output cannot be written ({}): check where standard output goes", std::strerror(error));
    if (error == EPIPE) {
        throw ReaderGone(Errc::kIo, text);
    }
    throw Error(Errc::kIo, text);
}

} // namespace

void print(std::string_view text) {
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size()) {
        output_failed(errno);
    }
}

void print_json(const Json& value, bool line) {
    print(value.dump(line ? -1 : 2, ' ', false, Json::error_handler_t::replace));
    print("\n");
}

void flush_output() {
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        output_failed(errno);
    }
}

void print_outcome(bool json, const Json& value, const std::string& line) {
    try {
        if (json) {
            print_json(value);
        } else {
            print(line + "\n");
        }
        flush_output();
    } catch (const Error& error) {
        throw Error(error.code(), fmt::format("{}; it is done all the same: {}", error.what(), line));
    }
}

void remark(const std::string& text) {
    (void)std::fprintf(stderr, "kvr: %s\n", text.c_str());
}

void complain(const std::string& text) {
    (void)std::fprintf(stderr, "%skvr: %s\n", journal_mark(STDERR_FILENO, "<3>"), text.c_str());
}

void Table::measure() {
    const bool first = widths_.empty();
    for (std::size_t column = 0; column < headings_.size(); ++column) {
        std::size_t width = first ? headings_[column].size() : widths_[column];
        bool numbers = !rows_.empty();
        for (const auto& cells : rows_) {
            width = std::max(width, cells[column].size());
            numbers = numbers && is_number(cells[column]);
        }
        if (first) {
            widths_.push_back(width);
            right_.push_back(numbers);
        } else {
            widths_[column] = width;
        }
    }
}

std::string Table::text() {
    const bool first = widths_.empty();
    measure();
    std::string out;
    const auto line = [&](const std::vector<std::string>& cells) {
        std::string text;
        for (std::size_t column = 0; column < cells.size(); ++column) {
            text += right_[column] ? fmt::format("{:>{}}  ", cells[column], widths_[column])
                                   : fmt::format("{:<{}}  ", cells[column], widths_[column]);
        }
        text.erase(text.find_last_not_of(' ') + 1);
        out += text + "\n";
    };
    if (first) {
        line(headings_);
    }
    std::for_each(rows_.begin(), rows_.end(), line);
    rows_.clear();
    return out;
}

bool is_text(std::string_view bytes) {
    for (std::size_t at = 0; at < bytes.size();) {
        const std::size_t length = printable_length(bytes.data() + at, bytes.size() - at);
        if (length == 0 && bytes[at] != '\t' && bytes[at] != '\n' && bytes[at] != '\r') {
            return false;
        }
        at += std::max<std::size_t>(length, 1);
    }
    return true;
}

std::string printable(std::string_view bytes) {
    std::string out;
    for (std::size_t at = 0; at < bytes.size();) {
        const char byte = bytes[at];
        const std::size_t length = printable_length(bytes.data() + at, bytes.size() - at);
        if (byte == '\n' || byte == '\t' || byte == '\\') {
            out += byte == '\n' ? "\\n" : byte == '\t' ? "\\t" : "\\\\";
        } else if (length == 0) {
            out += fmt::format("\\x{:02X}", byte_at(bytes, at));
        } else {
            out.append(bytes, at, length);
        }
        at += std::max<std::size_t>(length, 1);
    }
    return out;
}

std::string base64(std::string_view bytes) {
    std::string out((bytes.size() + 2) / 3 * 4 + 1, '\0'); // the encoder ends it with a NUL
    const int length = ::EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                         reinterpret_cast<const unsigned char*>(bytes.data()),
                                         static_cast<int>(bytes.size())); // a message's data at most
    out.resize(static_cast<std::size_t>(length));
    return out;
}

std::string hex_dump(std::string_view bytes) {
    std::string out;
    for (std::size_t line = 0; line < bytes.size(); line += kHexColumns) {
        std::string hex;
        std::string chars;
        for (std::size_t at = line; at < std::min(line + kHexColumns, bytes.size()); ++at) {
            const unsigned byte = byte_at(bytes, at) & kByteMask;
            hex += fmt::format("{:02x} ", byte);
            chars += byte >= 0x20 && byte < 0x7F ? static_cast<char>(byte) : '.';
        }
        out += fmt::format("{:08x}  {:<48} |{}|\n", line, hex, chars);
    }
    return out;
}

std::string message_count(std::uint64_t number) {
    return fmt::format("{} message{}", number, number == 1 ? "" : "s");
}

std::string human_size(std::uint64_t bytes) {
    constexpr std::array<const char*, 5> kUnits = {"B", "KiB", "MiB", "GiB", "TiB"};
    constexpr double kStep = 1024;
    auto value = static_cast<double>(bytes);
    std::size_t unit = 0;
    for (; value >= kStep && unit + 1 < kUnits.size(); ++unit) {
        value /= kStep;
    }
    return unit == 0 ? fmt::format("{} B", bytes) : fmt::format("{:.1f} {}", value, kUnits.at(unit));
}

} // namespace kvr
