// SPDX-License-Identifier: MIT
#include "spool.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>

#include "error.h"
#include "kavro_api.h"
#include "wire_fields.h"

namespace kvr {

namespace {

constexpr std::size_t kLeastNameLimit = 64;    ///< room that a spool's path must leave for names
constexpr std::size_t kMaxExtension = 16;      ///< longer ones are cut like any other part of a name
constexpr std::size_t kSuffixRoom = 11;        ///< '.' and the digits of the greatest suffix
constexpr std::size_t kMaxSuffixHints = 10000; ///< names whose last suffix is remembered

[[noreturn]] void fail(Errc code, const std::string& text) {
    throw Error(code, text);
}

std::string system_text(int code) {
    return fmt::format("[{}:{}]", code, std::strerror(code));
}

} // namespace

std::string spool_name(std::string_view wire_name, std::size_t limit) {
    std::string name;
    for (std::size_t i = 0; i < wire_name.size(); ++i) {
        const auto byte = static_cast<unsigned char>(wire_name[i]);
        const bool dots_only = i == 0 && (wire_name == "." || wire_name == "..");
        if (byte < 0x20 || byte == 0x7f || byte == '/' || dots_only) {
            name += fmt::format("%{:02X}", byte);
        } else {
            name += wire_name[i];
        }
    }
    if (name.empty()) {
        name = "%";
    }
    if (name.size() > limit) {
        const std::size_t dot = name.rfind('.');
        std::string extension = dot == std::string::npos ? "" : name.substr(dot);
        if (extension.size() > std::min(kMaxExtension, limit / 2)) {
            extension.clear();
        }
        name = name.substr(0, limit - extension.size()) + extension;
    }
    return name;
}

IncomingFile::IncomingFile(Spool& spool, std::string wire_name) : spool_(&spool), wire_name_(std::move(wire_name)) {}

IncomingFile::IncomingFile(IncomingFile&& other) noexcept
    : spool_(other.spool_), wire_name_(std::move(other.wire_name_)),
      temporary_(std::exchange(other.temporary_, std::string())), fd_(std::move(other.fd_)), error_(other.error_) {}

IncomingFile::~IncomingFile() {
    if (!temporary_.empty()) {
        (void)::unlinkat(spool_->incoming_fd_.get(), temporary_.c_str(), 0);
    }
}

bool IncomingFile::open() {
    std::string name = fmt::format("{}", spool_->next_temporary_++);
    fd_.reset(::openat(spool_->incoming_fd_.get(), name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                       S_IRUSR | S_IWUSR));
    if (!fd_) {
        error_ = errno;
        return false;
    }
    temporary_ = std::move(name);
    return true;
}

IncomingFile::Write IncomingFile::write(std::span<const char>& bytes) {
    const auto failed = [this] {
        const bool room = error_ == ENOSPC || error_ == EDQUOT || error_ == EMFILE || error_ == ENFILE;
        return room ? Write::kNoRoom : Write::kFailed;
    };
    if (!fd_ && !open()) {
        return failed();
    }
    while (!bytes.empty()) {
        const ssize_t count = ::write(fd_.get(), bytes.data(), bytes.size());
        if (count >= 0) {
            bytes = bytes.subspan(static_cast<std::size_t>(count));
        } else if (errno != EINTR) {
            error_ = errno;
            return failed();
        }
    }
    return Write::kDone;
}

bool IncomingFile::finish() {
    if (::fsync(fd_.get()) != 0) {
        error_ = errno;
        return false;
    }
    fd_.reset();
    return true;
}

std::string IncomingFile::publish() {
    const std::string base = spool_name(wire_name_, spool_->name_limit_);
    unsigned suffix = 0;
    if (const auto hint = spool_->next_suffix_.find(base); hint != spool_->next_suffix_.end()) {
        suffix = hint->second;
    }
    for (;; ++suffix) {
        const std::string name =
            suffix == 0 ? base
                        : fmt::format("{}.{}", spool_name(wire_name_, spool_->name_limit_ - kSuffixRoom), suffix);
        if (::linkat(spool_->incoming_fd_.get(), temporary_.c_str(), spool_->dir_fd_.get(), name.c_str(), 0) == 0) {
            (void)::unlinkat(spool_->incoming_fd_.get(), temporary_.c_str(), 0);
            temporary_.clear();
            spool_->unsynced_ = true;
            if (spool_->next_suffix_.size() >= kMaxSuffixHints) {
                spool_->next_suffix_.clear();
            }
            spool_->next_suffix_[base] = suffix + 1;
            return spool_->dir_ + "/" + name;
        }
        if (errno != EEXIST) {
            error_ = errno;
            return {};
        }
    }
}

Spool::Spool(const std::filesystem::path& dir) {
    const std::string shown = escaped(dir.native());
    std::filesystem::path folder = std::filesystem::absolute(dir).lexically_normal();
    if (!folder.has_filename()) {
        folder = folder.parent_path(); // a slash at the end would make a link a folder
    }
    const bool made = ::mkdir(folder.c_str(), S_IRWXU) == 0;
    if (!made && errno != EEXIST) {
        fail(Errc::kIo, fmt::format("cannot make the spool folder {} {}: give an existing parent folder", shown,
                                    system_text(errno)));
    }
    dir_fd_.reset(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!dir_fd_) {
        fail(Errc::kIo, fmt::format("cannot open the spool folder {} {}: name the folder itself, a link is not "
                                    "followed",
                                    shown, system_text(errno)));
    }
    // The folder's own entry as well, whoever made it: with it all files would go. Who may not read the folder above
    // did not make this one now.
    const UniqueFd above(::open(folder.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if ((!above || ::fsync(above.get()) != 0) && (made || errno != EACCES)) {
        fail(Errc::kIo, fmt::format("cannot sync the folder above the spool folder {} {}", shown, system_text(errno)));
    }
    std::error_code code;
    dir_ = std::filesystem::canonical(folder, code).native();
    if (code) {
        fail(Errc::kIo, fmt::format("cannot open the spool folder {} {}", shown, system_text(code.value())));
    }
    struct stat status {};
    if (::fstat(dir_fd_.get(), &status) != 0 || status.st_uid != ::geteuid() ||
        (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        fail(Errc::kPermission,
             fmt::format("the spool folder {} is not yours alone: chown it to the listener's user, chmod 700", shown));
    }
    const std::size_t room = KVR_ACC_PATH_SIZE - 1;
    if (dir_.size() + 1 + kLeastNameLimit > room) {
        fail(Errc::kTooLong, fmt::format("the path of the spool folder {} has {} bytes: use one of at most {}", shown,
                                         dir_.size(), room - 1 - kLeastNameLimit));
    }
    name_limit_ = std::min(kMaxSpoolName, room - 1 - dir_.size());
    if (::flock(dir_fd_.get(), LOCK_EX | LOCK_NB) != 0) {
        fail(Errc::kBusy, fmt::format("the spool folder {} is used by another listener: give each its own", shown));
    }
    if (::mkdirat(dir_fd_.get(), kIncoming, S_IRWXU) != 0 && errno != EEXIST) {
        fail(Errc::kIo, fmt::format("cannot make {}/{} {}", shown, kIncoming, system_text(errno)));
    }
    incoming_fd_.reset(::openat(dir_fd_.get(), kIncoming, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!incoming_fd_) {
        fail(Errc::kIo, fmt::format("cannot open {}/{} {}: remove what stands in its place", shown, kIncoming,
                                    system_text(errno)));
    }
    clear_incoming();
}

void Spool::clear_incoming() {
    const int copy = ::openat(incoming_fd_.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* const listing = copy < 0 ? nullptr : ::fdopendir(copy);
    if (listing == nullptr) {
        fail(Errc::kIo, fmt::format("cannot list {}/{} {}", escaped(dir_), kIncoming, system_text(errno)));
    }
    while (const dirent* const entry = ::readdir(listing)) {
        (void)::unlinkat(incoming_fd_.get(), static_cast<const char*>(entry->d_name), 0);
    }
    (void)::closedir(listing);
}

void Spool::sync() {
    if (unsynced_ && ::fsync(dir_fd_.get()) != 0) {
        fail(Errc::kIo, fmt::format("cannot sync the spool folder {} {}", escaped(dir_), system_text(errno)));
    }
    unsynced_ = false;
}

void Spool::remove(const std::string& path) {
    (void)::unlinkat(dir_fd_.get(), path.substr(dir_.size() + 1).c_str(), 0);
}

} // namespace kvr
