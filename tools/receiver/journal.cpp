// SPDX-License-Identifier: MIT
#include "journal.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include "error.h"
#include "listen_log.h"
#include "wire_fields.h"

namespace kvr {

namespace {

constexpr std::size_t kWriteAt = 64U << 10U; ///< lines are handed over when this much has gathered
constexpr std::size_t kMaxKept = 4U << 20U;  ///< what is kept while the file cannot be written

} // namespace

Journal::Journal(const std::filesystem::path& path) {
    if (path.empty()) {
        return;
    }
    fd_.reset(::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (!fd_) {
        throw Error(Errc::kIo, fmt::format("cannot open the journal {} [{}:{}]: give a writable path",
                                           escaped(path.native()), errno, std::strerror(errno)));
    }
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
    failing_ = failed;
    lines_.erase(0, done);
    if (lines_.size() > kMaxKept) {
        listen_log(fmt::format("the journal loses {} bytes of lines that it could not write", lines_.size()));
        lines_.clear();
    }
}

} // namespace kvr
