// SPDX-License-Identifier: MIT
#include "journal.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include "kavutil/error.h"
#include "listen_log.h"
#include "wire_fields.h"

namespace kvr {

namespace {

constexpr std::size_t kWriteAt = 64U << 10U; ///< lines are handed over when this much has gathered
constexpr std::size_t kMaxKept = 4U << 20U;  ///< what is kept while the file cannot be written

/// Without following a link, which could lead a privileged listener anywhere, and without waiting for a FIFO's reader.
UniqueFd open_file(const std::filesystem::path& path) {
    return UniqueFd(::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY | O_NONBLOCK,
                           S_IRUSR | S_IWUSR));
}

std::string cannot_open(const std::filesystem::path& path, int cause) {
    return fmt::format("cannot open the journal {} [{}:{}]: {}", escaped(path.native()), cause, std::strerror(cause),
                       cause == ELOOP ? "name the file itself, a link is not followed" : "give a writable path");
}

} // namespace

Journal::Journal(const std::filesystem::path& path) : path_(path) {
    if (path_.empty()) {
        return;
    }
    fd_ = open_file(path_);
    if (!fd_) {
        throw Error(Errc::kIo, cannot_open(path_, errno));
    }
}

void Journal::reopen() {
    if (!enabled()) {
        listen_log("no journal is kept that could be opened anew");
        return;
    }
    flush();
    if (UniqueFd fresh = open_file(path_)) {
        fd_ = std::move(fresh);
        torn_ = false;
        listen_log("the journal is opened anew");
    } else {
        listen_log(cannot_open(path_, errno) + "; its lines go to the file that was open");
    }
}

bool Journal::settle() {
    flush();
    lost_ += static_cast<std::uint64_t>(std::ranges::count(lines_, '\n'));
    lines_.clear();
    if (lost_ > 0) {
        listen_log(fmt::format("the journal lacks {} lines that could not be written", lost_));
    }
    return lost_ == 0;
}

void Journal::add(std::string_view event, std::uint64_t connection, std::string_view members) {
    if (!enabled()) {
        return;
    }
    lines_ += fmt::format(R"({{"time":"{}","event":"{}","conn":{}{}{}}})"
                          "\n",
                          time_text(), event, connection, members.empty() ? "" : ",", members);
    if (lines_.size() >= kWriteAt) {
        flush();
    }
}

void Journal::flush() {
    std::size_t done = 0;
    while (done < lines_.size()) {
        const ssize_t count = ::write(fd_.get(), lines_.data() + done, lines_.size() - done);
        if (count >= 0) {
            done += static_cast<std::size_t>(count);
        } else if (errno != EINTR) {
            break;
        }
    }
    const bool failed = done < lines_.size();
    if (failed && !failing_) {
        listen_log(fmt::format("the journal cannot be written [{}:{}]: its lines are kept for later", errno,
                               std::strerror(errno)));
    }
    if (!failed && failing_) {
        listen_log("the journal is written again");
    }
    failing_ = failed;
    torn_ = done > 0 ? lines_[done - 1] != '\n' : torn_;
    lines_.erase(0, done);
    if (lines_.size() > kMaxKept) {
        const auto kept = lines_.begin() + static_cast<std::ptrdiff_t>(torn_ ? lines_.find('\n') + 1 : 0);
        const auto count = static_cast<std::uint64_t>(std::count(kept, lines_.end(), '\n'));
        listen_log(fmt::format("the journal loses {} lines that it could not write", count));
        lost_ += count;
        lines_.erase(kept, lines_.end());
    }
}

} // namespace kvr
