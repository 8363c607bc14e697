// SPDX-License-Identifier: MIT
#include "spool.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>

#include "kavro_api.h"
#include "kavutil/error.h"
#include "listen_log.h"
#include "wire_fields.h"

namespace kvr {

namespace {

constexpr std::size_t kLeastNameLimit = 64;    ///< room that a spool's path must leave for names
constexpr std::size_t kMaxExtension = 16;      ///< longer ones are cut like any other part of a name
constexpr std::size_t kSuffixRoom = 11;        ///< '.' and the digits of the greatest suffix
constexpr std::size_t kMaxSuffixHints = 10000; ///< names whose last suffix is remembered
constexpr std::size_t kCopyChunk = 256U << 10U;
constexpr std::size_t kWriteBack =
    4U << 20U;                    ///< bytes whose way to the disk is begun at once: all lines wait for a sync
constexpr int kContentsLost = -1; ///< as an error number: what comes back from the disk is not what was written

bool is_removed(int fd) {
    struct stat status {};
    return ::fstat(fd, &status) != 0 || status.st_nlink == 0;
}

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
      temporary_(std::exchange(other.temporary_, std::string())), fd_(std::move(other.fd_)), checksum_(other.checksum_),
      unwritten_(other.unwritten_), doubtful_(other.doubtful_), error_(other.error_) {}

IncomingFile::~IncomingFile() {
    if (!temporary_.empty()) {
        (void)::unlinkat(spool_->incoming_fd_.get(), temporary_.c_str(), 0);
    }
}

void IncomingFile::Checksum::add(std::span<const char> bytes) {
    for (const char byte : bytes) {
        sum_ += static_cast<unsigned char>(byte);
        sum_of_sums_ += sum_;
    }
}

std::string IncomingFile::trouble() const {
    return error_ == kContentsLost ? "[the disk lost a part of the file]" : system_text(error_);
}

bool IncomingFile::no_room() const {
    return error_ == ENOSPC || error_ == EDQUOT;
}

bool IncomingFile::retry_helps() const {
    // Too large for the file system, a name that it does not take, contents or file gone.
    constexpr std::array kFaultsOfTheFile = {EFBIG, EILSEQ, EINVAL, ENAMETOOLONG, kContentsLost, ENOENT};
    return std::find(kFaultsOfTheFile.begin(), kFaultsOfTheFile.end(), error_) == kFaultsOfTheFile.end();
}

bool IncomingFile::open() {
    std::string name = fmt::format("{}", spool_->next_temporary_++);
    const auto try_open = [&] {
        // Readable too: renew() reads it again.
        fd_.reset(::openat(spool_->incoming_fd_.get(), name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                           S_IRUSR | S_IWUSR));
        return static_cast<bool>(fd_);
    };
    if (!try_open() && errno == ENOENT) {
        try {
            spool_->reopen_if_removed();
        } catch (const Error& error) {
            listen_log(error.what());
        }
        (void)try_open();
    }
    if (!fd_) {
        error_ = errno == ENOENT ? ESTALE : errno; // there is no folder; a file that is gone is another thing
        return false;
    }
    temporary_ = std::move(name);
    return true;
}

bool IncomingFile::write(std::span<const char>& bytes) {
    if (!fd_ && !open()) {
        return false;
    }
    while (!bytes.empty()) {
        const ssize_t count = ::write(fd_.get(), bytes.data(), bytes.size());
        if (count >= 0) {
            checksum_.add(bytes.first(static_cast<std::size_t>(count)));
            bytes = bytes.subspan(static_cast<std::size_t>(count));
            unwritten_ += static_cast<std::size_t>(count);
        } else if (errno != EINTR) {
            error_ = errno;
            return false;
        }
    }
    if (unwritten_ >= kWriteBack) {
        unwritten_ = 0;
        (void)::sync_file_range(fd_.get(), 0, 0, SYNC_FILE_RANGE_WRITE); // what fails is seen by the sync
    }
    return true;
}

bool IncomingFile::finish() {
    if (!fd_) {
        return true;
    }
    doubtful_ = (doubtful_ && !renew()) || !sync();
    if (doubtful_) {
        return false;
    }
    fd_.reset();
    return true;
}

bool IncomingFile::sync() {
    if (::fsync(fd_.get()) != 0) {
        error_ = errno;
        return false;
    }
    if (is_removed(fd_.get())) { // with its folder: contents that nobody will find
        error_ = ESTALE;
        return false;
    }
    return true;
}

/// The same contents in another file: after a sync that failed, a second one of the same file may succeed without
/// having written anything.
bool IncomingFile::renew() {
    UniqueFd old_fd = std::move(fd_);
    std::string old_name = std::exchange(temporary_, std::string());
    const bool copied = open() && copy_from(old_fd.get());
    if (!copied) {
        fd_.reset();
        std::swap(temporary_, old_name);
        std::swap(fd_, old_fd);
    }
    if (!old_name.empty()) {
        (void)::unlinkat(spool_->incoming_fd_.get(), old_name.c_str(), 0);
    }
    return copied;
}

bool IncomingFile::copy_from(int fd) {
    const Checksum wanted = std::exchange(checksum_, Checksum());
    std::vector<char> chunk(kCopyChunk);
    bool good = true;
    ssize_t count = 1;
    for (off_t at = 0; good && count > 0; at += count) {
        count = ::pread(fd, chunk.data(), chunk.size(), at);
        if (count < 0) {
            error_ = errno;
            good = false;
        } else {
            std::span<const char> bytes(chunk.data(), static_cast<std::size_t>(count));
            good = write(bytes);
        }
    }
    if (good && checksum_ != wanted) {
        error_ = kContentsLost;
        good = false;
    }
    checksum_ = wanted;
    return good;
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
    open(dir);
    clear_incoming();
    try_file();
}

void Spool::open(const std::filesystem::path& dir) {
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
    const std::string real = std::filesystem::canonical(folder, code).native();
    if (code) {
        fail(Errc::kIo, fmt::format("cannot open the spool folder {} {}", shown, system_text(code.value())));
    }
    dir_ = real;
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

/// Whether the folder can do what files need: better refused now than found out with a message in hand.
void Spool::try_file() {
    constexpr const char* kTrial = "trial";
    constexpr const char* kLink = "trial.link";
    const int incoming = incoming_fd_.get();
    const UniqueFd fd(
        ::openat(incoming, kTrial, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
    struct stat status {};
    const bool good = fd && ::write(fd.get(), kTrial, 1) == 1 && ::fstat(fd.get(), &status) == 0 &&
                      ::fsync(fd.get()) == 0 && ::linkat(incoming, kTrial, incoming, kLink, 0) == 0 &&
                      ::fsync(dir_fd_.get()) == 0;
    const int error = errno;
    clear_incoming();
    if (!good && error != ENOSPC && error != EDQUOT) { // room may come back
        fail(Errc::kIo,
             fmt::format("the spool folder {} cannot keep files {}: give --spool a folder of a writable disk "
                         "that has hard links and sync",
                         escaped(dir_), system_text(error)));
    }
    if (good && (status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        fail(Errc::kPermission,
             fmt::format("the disk of the spool folder {} keeps no modes, others could read received "
                         "files: give --spool a folder of another disk",
                         escaped(dir_)));
    }
}

/// Somebody removed the folder below a listener that runs.
void Spool::reopen_if_removed() {
    if (is_removed(dir_fd_.get()) || is_removed(incoming_fd_.get())) {
        open(std::string(dir_));
        listen_log(
            fmt::format("the spool folder {} was removed, with the files in it: it is made anew", escaped(dir_)));
    }
}

void Spool::sync() {
    if (!unsynced_) {
        return;
    }
    reopen_if_removed();
    struct stat here {};
    struct stat ours {};
    if (::stat(dir_.c_str(), &here) != 0 || ::fstat(dir_fd_.get(), &ours) != 0 || here.st_dev != ours.st_dev ||
        here.st_ino != ours.st_ino) {
        fail(Errc::kIo,
             fmt::format("the spool folder {} was moved: bring it back, or start the listener anew", escaped(dir_)));
    }
    if (::fsync(dir_fd_.get()) != 0) {
        fail(Errc::kIo, fmt::format("cannot sync the spool folder {} {}", escaped(dir_), system_text(errno)));
    }
    unsynced_ = false;
}

void Spool::remove(const std::string& path) {
    (void)::unlinkat(dir_fd_.get(), path.substr(dir_.size() + 1).c_str(), 0);
}

} // namespace kvr
