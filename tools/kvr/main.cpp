// SPDX-License-Identifier: MIT
// The operator's program: sets its process up and runs the command line.
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <exception>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "command_line.h"
#include "output.h"
#include "store/store.h"

namespace {

/// A descriptor that is closed at the start would be given to a store or a socket next. The stand-ins make the
/// intended use fail: standard output becomes unwritable.
void occupy_standard_descriptors() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (::fcntl(fd, F_GETFD) == -1 && errno == EBADF &&
            ::open("/dev/null", fd == STDOUT_FILENO ? O_RDONLY : O_RDWR) != fd) {
            std::_Exit(kvr::kExitFailed);
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    occupy_standard_descriptors();
    (void)std::signal(SIGPIPE, SIG_IGN);
    kvr::set_notice(kvr::complain);
    (void)::umask(S_IRWXG | S_IRWXO);
    const rlimit no_core{0, 0}; // memory holds keys and pass phrases
    (void)::setrlimit(RLIMIT_CORE, &no_core);
    try {
        return kvr::run_command_line(argc, argv);
    } catch (const std::exception& error) {
        kvr::complain(error.what());
        return kvr::kExitFailed;
    }
}
