// SPDX-License-Identifier: MIT
#include "data_sink.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include "kavutil/error.h"
#include "output.h"
#include "store/permissions.h"

namespace kvr {
namespace {

namespace fs = std::filesystem;

bool write_all(int fd, std::string_view data) {
    while (!data.empty()) {
        const ssize_t written = ::write(fd, data.data(), data.size());
        if (written < 0 && errno != EINTR) {
            return false;
        }
        data.remove_prefix(written > 0 ? static_cast<std::size_t>(written) : 0);
    }
    return true;
}

/// Makes the folders that are missing, from the top, the entry of each durable before it is used.
void make_folders(const fs::path& path) {
    std::error_code error;
    if (fs::is_directory(path, error)) {
        return;
    }
    make_folders(path.parent_path());
    const int failed = ::mkdir(path.c_str(), kPrivateFolder) == 0 ? 0 : errno;
    if (failed != 0 && !fs::is_directory(path, error)) {
        throw Error(Errc::kIo, fmt::format("the folder {} cannot be made ({}): check the path",
                                           printable(path.native()), std::strerror(failed)));
    }
    sync_folder(path.parent_path());
}

} // namespace

DataSink::DataSink(const std::string& path) : path_(fs::absolute(path)), is_folder_(false) {
    std::error_code error;
    is_folder_ = path.ends_with('/') || fs::is_directory(path_, error);
    if (is_folder_) {
        make_folders(path_);
    }
}

std::string DataSink::write(std::string_view data) {
    fs::path file = path_;
    int fd = -1;
    do {
        if (is_folder_) {
            file = path_ / fmt::format("{:06}.dat", next_number_++);
        }
        fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kPrivateFile);
    } while (fd < 0 && errno == EEXIST && is_folder_);
    if (fd < 0) {
        throw Error(Errc::kIo,
                    fmt::format("the file {} cannot be made ({}): {}", printable(file.native()), std::strerror(errno),
                                errno == EEXIST ? "nothing is overwritten, choose another name"
                                                : "check the path and its permissions"));
    }
    const bool written = write_all(fd, data) && ::fsync(fd) == 0;
    const int error = errno;
    const bool closed = ::close(fd) == 0;
    try {
        if (!closed || !written) {
            throw Error(Errc::kIo, fmt::format("the file {} cannot be written ({}): the message stays on its queue; "
                                               "make room or choose another place",
                                               printable(file.native()), std::strerror(written ? errno : error)));
        }
        sync_folder(file.parent_path());
    } catch (const Error&) {
        (void)::unlink(file.c_str());
        throw;
    }
    return file.native();
}

} // namespace kvr
