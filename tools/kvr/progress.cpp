// SPDX-License-Identifier: MIT
#include "progress.h"

#include <algorithm>
#include <cstdio>
#include <string>

#include <unistd.h>

#include <fmt/format.h>

namespace kvr {
namespace {
constexpr std::chrono::milliseconds kRedraw{100};
constexpr std::uint64_t kWidth = 40;
} // namespace

Progress::Progress(std::uint64_t total)
    : total_(std::max<std::uint64_t>(total, 1)), shown_(::isatty(STDERR_FILENO) == 1) {
    next_ = start_ + kRedraw; // nothing for what is done at once
}

Progress::~Progress() {
    if (drawn_) {
        (void)std::fputs("\r\033[K", stderr);
    }
}

void Progress::update(std::uint64_t done) {
    const Clock::time_point now = Clock::now();
    if (!shown_ || now < next_) {
        return;
    }
    next_ = now + kRedraw;
    drawn_ = true;
    const std::uint64_t filled = done * kWidth / total_;
    const double seconds = std::chrono::duration<double>(now - start_).count();
    const double rate = seconds > 0 ? static_cast<double>(done) / seconds : 0;
    (void)std::fputs(fmt::format("\r[{:-<{}}] {:3}% {}/{} {:.0f}/s\033[K", std::string(filled, '#'), kWidth,
                                 done * 100 / total_, done, total_, rate)
                         .c_str(),
                     stderr);
    (void)std::fflush(stderr);
}

} // namespace kvr
