// SPDX-License-Identifier: MIT
// kvr dissect: shows the frames in a recorded byte stream of a channel, or in a capture of its packets.
#include <cerrno>
#include <memory>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "capture/capture_file.h"
#include "commands.h"
#include "dissect_capture.h"
#include "frame_printer.h"
#include "kavutil/unique_fd.h"

namespace kvr {
namespace {

constexpr std::size_t kReadSize = 64U << 10U;

struct DissectOptions {
    std::string file;
    std::string filter;
    bool full = false;
};

[[noreturn]] void fail(Errc code, const char* what, const std::string& file) {
    throw Error(code, fmt::format("cannot {} {} ({}): give a recorded stream or a capture, or - for standard input",
                                  what, printable(file), std::generic_category().message(errno)));
}

/// @return bytes read, 0 at the end
std::size_t read_some(int fd, std::span<char> buffer, const std::string& file) {
    const ssize_t count = ::read(fd, buffer.data(), buffer.size());
    if (count < 0) {
        fail(Errc::kIo, "read", file);
    }
    return static_cast<std::size_t>(count);
}

/// @param first  byte of the stream, read already; empty: there was none
void dissect_stream(int fd, std::span<const char> first, const GlobalOptions& global, const DissectOptions& options) {
    FramePrinter printer({.json = global.json, .full = options.full, .on_content = {}});
    bool goes_on = printer.feed(first);
    for (std::vector<char> chunk(kReadSize); goes_on;) {
        const std::size_t count = read_some(fd, chunk, options.file);
        goes_on = count > 0 && printer.feed({chunk.data(), count});
    }
    if (!printer.finish("end of stream")) {
        throw Error(Errc::kDamaged, "the stream is not whole: its last line above says where and why");
    }
}

/// The file at `fd` from its beginning on, of which the first byte has been read.
std::FILE* reopen(int fd, char first) {
    std::FILE* const file = ::fdopen(::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1), "rb");
    if (file == nullptr || std::ungetc(static_cast<unsigned char>(first), file) == EOF) {
        throw Error(Errc::kIo, "cannot read a capture: no memory");
    }
    return file;
}

void dissect(const GlobalOptions& global, const DissectOptions& options) {
    const bool standard = options.file == "-";
    UniqueFd fd(standard ? ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)
                         : ::open(options.file.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) {
        fail(Errc::kNotFound, "open", options.file);
    }
    char first = 0;
    const std::size_t count = read_some(fd.get(), {&first, 1}, options.file);
    if (count == 1 && begins_capture(first)) {
        dissect_capture(reopen(fd.get(), first), {standard ? "standard input" : printable(options.file), options.filter,
                                                  global.json, options.full});
    } else if (!options.filter.empty()) {
        throw Error(Errc::kInvalid, fmt::format("{} is no capture, and a filter picks packets: leave --filter out",
                                                printable(options.file)));
    } else {
        dissect_stream(fd.get(), {&first, count}, global, options);
    }
}

} // namespace

void add_dissect_command(CLI::App& app, GlobalOptions& global) {
    auto options = std::make_shared<DissectOptions>();
    CLI::App* command = app.add_subcommand("dissect", "Show the frames in a recorded stream or capture of a channel");
    command->add_option("file", options->file, "Recorded bytes, or a capture (pcap, pcapng); - for standard input")
        ->required()
        ->type_name("FILE|-");
    command->add_option("--filter", options->filter, "Packets of a capture to look at, in the words of tcpdump")
        ->type_name("EXPRESSION");
    command->add_flag("--full", options->full, "Show bodies and files whole");
    set_examples(*command,
                 "  kvr dissect stream.bin\n  nc -l 5151 | kvr dissect -\n"
                 "  tcpdump -i any -s 0 -U -w - tcp port 5151 | kvr dissect -\n"
                 "  kvr dissect day.pcapng --filter 'tcp port 5151 and host 10.0.0.2'\n"
                 "The first column is the offset of the frame. Exit code 1: malformed, or cut in a message.\n");
    command->callback([options, &global] { dissect(global, *options); });
}

} // namespace kvr
