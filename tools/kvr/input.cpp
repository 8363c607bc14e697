// SPDX-License-Identifier: MIT
#include "input.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include "kavro_chl.h"
#include "kavutil/error.h"
#include "output.h"

namespace kvr {
namespace {

constexpr std::size_t kReadChunk = 65536;

/// An open descriptor of a file to be read; standard input is not closed.
class InputFile {
  public:
    explicit InputFile(const std::string& file)
        : standard_(file == "-"),
          fd_(standard_ ? STDIN_FILENO : ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY)) {}
    ~InputFile() {
        if (!standard_ && fd_ >= 0) {
            (void)::close(fd_);
        }
    }
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;
    [[nodiscard]] int fd() const { return fd_; }

  private:
    bool standard_;
    int fd_;
};

} // namespace

std::string read_input(const std::string& file, std::size_t limit, const std::string& what) {
    const InputFile input(file);
    const std::string name = file == "-" ? "standard input" : printable(file);
    const auto fail = [&](int error) {
        throw Error(Errc::kIo, fmt::format("{} {} cannot be read ({}): check its path and permissions", what, name,
                                           std::strerror(error)));
    };
    if (input.fd() < 0) {
        fail(errno);
    }
    std::string data;
    std::array<char, kReadChunk> chunk{};
    for (;;) {
        const ssize_t got = ::read(input.fd(), chunk.data(), chunk.size());
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            fail(errno);
        }
        if (got == 0) {
            return data;
        }
        data.append(chunk.data(), static_cast<std::size_t>(got));
        if (data.size() > limit) {
            throw Error(Errc::kTooLarge,
                        fmt::format("{} {} has more than {} bytes: that is the limit", what, name, limit));
        }
    }
}

std::string sendable_file(const std::string& file, std::size_t max_path) {
    std::string path = file.empty() ? file : std::filesystem::absolute(file).lexically_normal().native();
    const auto refuse = [&](Errc code, const std::string& why) {
        throw Error(code, fmt::format("the file {} cannot be sent: {}", printable(path), why));
    };
    struct stat status {};
    if (path.empty() || ::stat(path.c_str(), &status) != 0) {
        refuse(Errc::kNotFound, path.empty() ? "give a path" : fmt::format("{}; check its path", std::strerror(errno)));
    }
    if (!S_ISREG(status.st_mode)) {
        refuse(Errc::kInvalid, "it is not a regular file; folders, pipes and devices have no length to announce");
    }
    if (status.st_size < 1 || status.st_size > KVR_CHL_NUM_MAX) {
        refuse(Errc::kTooLarge, fmt::format("it has {} bytes; a file has 1 to 99,999,999 bytes", status.st_size));
    }
    if (path.size() > max_path) {
        refuse(Errc::kTooLong, fmt::format("its full path has {} bytes; use at most {}", path.size(), max_path));
    }
    if (::access(path.c_str(), R_OK) != 0) {
        refuse(Errc::kPermission, "this user may not read it; change its permissions");
    }
    return path;
}

} // namespace kvr
