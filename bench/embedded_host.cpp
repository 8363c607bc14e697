// SPDX-License-Identifier: MIT
#include "embedded_host.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <vector>

#include <fcntl.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <sys/wait.h>
#include <unistd.h>

#include "senders.h"
#include "store/store.h"

namespace kvr::bench {

namespace {

constexpr const char* kQueue = "BENCH.XMIT";
constexpr std::size_t kGroupMessages = 2000;
constexpr std::size_t kGroupBytes = 8UL << 20;

[[noreturn]] void become(const std::vector<std::string>& command, bool quiet) {
    std::vector<char*> argv;
    argv.reserve(command.size() + 1);
    for (const std::string& word : command) {
        argv.push_back(const_cast<char*>(word.c_str()));
    }
    argv.push_back(nullptr);
    if (quiet) {
        dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
    }
    execv(argv[0], argv.data());
    _exit(EXIT_FAILURE);
}

} // namespace

EmbeddedHost::EmbeddedHost(std::filesystem::path program, std::filesystem::path home, std::string qmgr,
                           std::uint16_t port, const std::vector<std::string>& attributes)
    : program_(std::move(program)), home_(std::move(home)), qmgr_(std::move(qmgr)) {
    run_program({"create", qmgr_});
    run_program({"define", "queue", kQueue});
    std::vector<std::string> channel = {"define",
                                        "channel",
                                        kChannel,
                                        "HBINT=60",
                                        "SHORTRTY=0",
                                        "LONGRTY=0",
                                        fmt::format("XMITQ={}", kQueue),
                                        fmt::format("CONNAME=127.0.0.1({})", port)};
    channel.insert(channel.end(), attributes.begin(), attributes.end());
    run_program(channel);
    store_ = Store::open(home_ / qmgr_);
}

std::vector<std::string> EmbeddedHost::command(const std::vector<std::string>& arguments) const {
    std::vector<std::string> words = {program_.string(), "--home", home_.string()};
    if (arguments.front() != "create") {
        words.insert(words.end(), {"--qmgr", qmgr_});
    }
    words.insert(words.end(), arguments.begin(), arguments.end());
    return words;
}

void EmbeddedHost::run_program(const std::vector<std::string>& arguments) const {
    const std::vector<std::string> words = command(arguments);
    const pid_t pid = spawn([&words] { become(words, true); });
    int status = 0;
    if (waitpid(pid, &status, 0) != pid || status != 0) {
        throw std::runtime_error(fmt::format("'{}' failed", fmt::join(words, " ")));
    }
}

void EmbeddedHost::put(const Message& message, std::size_t count) {
    const std::vector<OutgoingMessage> group(count, {&message.descriptor, message.files, message.data});
    store_->put(kQueue, group);
}

void EmbeddedHost::fill(const Message& message, std::uint64_t depth) {
    const std::uint64_t there = store_->queue_info(kQueue).depth;
    const std::size_t group = std::clamp<std::size_t>(kGroupBytes / message.data.size(), 1, kGroupMessages);
    for (std::uint64_t left = depth > there ? depth - there : 0; left > 0;) {
        const std::size_t count = std::min<std::uint64_t>(left, group);
        put(message, count);
        left -= count;
    }
}

pid_t EmbeddedHost::start() const {
    const std::vector<std::string> words = command({"run", kChannel});
    return spawn([&words] { become(words, false); });
}

} // namespace kvr::bench
