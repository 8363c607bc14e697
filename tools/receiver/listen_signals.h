// SPDX-License-Identifier: MIT
// The signals of the listener as a descriptor: SIGTERM and SIGINT stop it, SIGHUP has its files opened anew.
#pragma once

#include <cerrno>
#include <csignal>
#include <cstring>

#include <fmt/format.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "kavutil/error.h"
#include "kavutil/unique_fd.h"

namespace kvr {

/// The mask is as before when this ends.
class ListenSignals {
  public:
    ListenSignals() {
        sigset_t set;
        sigemptyset(&set);
        for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
            sigaddset(&set, signal);
        }
        (void)::pthread_sigmask(SIG_BLOCK, &set, &before_);
        fd_.reset(::signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC));
        if (!fd_) {
            throw Error(Errc::kIo, fmt::format("cannot wait for signals [{}:{}]", errno, std::strerror(errno)));
        }
    }
    ListenSignals(const ListenSignals&) = delete;
    ListenSignals& operator=(const ListenSignals&) = delete;
    ~ListenSignals() { (void)::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    [[nodiscard]] int fd() const { return fd_.get(); }
    /// The next signal that came; 0: none.
    [[nodiscard]] int take() const {
        signalfd_siginfo info{};
        const bool came = ::read(fd_.get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info);
        return came ? static_cast<int>(info.ssi_signo) : 0;
    }

  private:
    sigset_t before_{};
    UniqueFd fd_;
};

} // namespace kvr
