// SPDX-License-Identifier: MIT
#include "field.h"

#include <algorithm>
#include <iterator>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>

#include "support/loopback.h"

namespace kvr::test {
namespace {

namespace fs = std::filesystem;

constexpr int kAwaitSeconds = 60;

/// Mounts of this process are nobody else's business, and end with it.
bool has_own_mounts() {
    static const bool own =
        ::unshare(CLONE_NEWNS) == 0 && ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    return own;
}

std::shared_ptr<Store> make_qmgr(const fs::path& folder, const char* queue) {
    Store::create(folder, folder.filename(), Settings{});
    auto store = Store::open(folder);
    store->queue_define(queue, "");
    store->queue_define(kDeadQueue, "");
    store->object_add("QMGR", "QMGR", {{"DEADQ", kDeadQueue}});
    return store;
}

std::string proc(pid_t pid, const char* file) {
    return "/proc/" + std::to_string(pid) + "/" + file;
}

} // namespace

void await(const std::string& what, const std::function<bool()>& condition) {
    if (!wait_until(condition, kAwaitSeconds)) {
        throw std::runtime_error("waited in vain for " + what);
    }
}

Disk::Disk(fs::path folder, bool own) : folder_(std::move(folder)) {
    fs::create_directory(folder_);
    mounted_ = own && has_own_mounts() && ::mount("tmpfs", folder_.c_str(), "tmpfs", 0, "size=2g,mode=711") == 0;
}

Disk::~Disk() {
    (void)(mounted_ && ::umount2(folder_.c_str(), MNT_DETACH) == 0);
}

void Disk::leave(std::uint64_t bytes) const {
    const auto space = fs::space(folder_);
    const std::string size = "mode=711,size=" + std::to_string(space.capacity - space.free + bytes);
    if (::mount("tmpfs", folder_.c_str(), "tmpfs", MS_REMOUNT, size.c_str()) != 0) {
        throw std::runtime_error("cannot change the size of a disk");
    }
}

Field::Field(Carrier carrier, bool exact, const fs::path& where)
    : home_(where), carrier_(carrier), exact_(exact), senders_disk_(home() / "sender", !exact),
      receivers_disk_(home() / "receiver", !exact), sender_(make_qmgr(qmgr(kSender), kXmitQueue)),
      receiver_(make_qmgr(qmgr(kReceiver), kTarget)) {
    fs::create_directory(home() / "files");
    sender_->object_add("CHL", kChannel,
                        {{"XMITQ", kXmitQueue},
                         {"CHLTYPE", "SNDR"},
                         {"CONNAME", "127.0.0.1(" + std::to_string(port_) + ")"},
                         {"HBINT", "0"},
                         {"DISCINT", "0"},
                         {"SSLCAUTH", carrier == Carrier::kPlain ? "DISABLE" : "ENABLE"},
                         {"SHORTRTY", exact ? "60" : "999999999"},
                         {"SHORTTMR", exact ? "1" : "30"},
                         {"LONGRTY", "0"},
                         {"LONGTMR", "1"}});
    if (carrier != Carrier::kPlain) {
        const TlsMaterial& tls = tls_material();
        set_qmgr({{"CAFILE", tls.ca_file}, {"CERTFILE", tls.client.cert_file}, {"KEYFILE", tls.client.key_file}});
    }
}

Field::~Field() {
    if (::testing::Test::HasFailure()) {
        home_.keep();
        std::fprintf(stderr, "log, out and journal are left in %s\n", home().c_str());
    }
}

int Field::reserve(int socket) {
    const int on = 1;
    ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    return bind_to_loopback(socket);
}

fs::path Field::qmgr(const char* name) const {
    return home() / (std::string(name) == kSender ? "sender" : "receiver") / name;
}

Child Field::start(const char* qmgr_name, const Words& words, const std::string& who) {
    Words all{"--home", qmgr(qmgr_name).parent_path(), "--qmgr", qmgr_name};
    all.insert(all.end(), words.begin(), words.end());
    return start(all, who);
}

Child Field::start(Words words, const std::string& who) {
    words.insert(words.begin(), KVR_PROGRAM);
    if (!prelude_.empty()) {
        words.insert(words.begin(), {"/bin/bash", "-c", prelude_ + " \"$0\" \"$@\""});
    }
    std::vector<char*> argv;
    std::ranges::transform(words, std::back_inserter(argv), [](std::string& word) { return word.data(); });
    argv.push_back(nullptr);
    return Child::fork_off([&] {
        if (!exact_) {
            (void)::setenv("LD_PRELOAD", KVR_DISK_FAILS, 1);
            (void)::setenv("KVR_TROUBLE", trouble_of(who).c_str(), 1);
        }
        ::dup2(::open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
        ::dup2(::open((home() / "out").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600), STDOUT_FILENO);
        ::dup2(STDOUT_FILENO, STDERR_FILENO);
        ::execv(argv[0], argv.data());
        return 127; // as a shell that cannot run it
    });
}

Child Field::listen(const Words& options) {
    const fs::path port_file = home() / "port";
    fs::remove(port_file);
    std::string line = "listen --bind 127.0.0.1 --port " + std::to_string(port_) + " --port-file " +
                       port_file.native() + " --journal " + (home() / "journal").native();
    if (carrier_ != Carrier::kPlain) {
        line += " --tls --cert " + identity_.cert_file + " --key " + identity_.key_file + " --tls-max " +
                (carrier_ == Carrier::kTls12 ? "1.2" : "1.3") + " --tls-tickets 2 --tls-late-ticket 50";
    }
    std::istringstream fixed(line);
    Words words{std::istream_iterator<std::string>(fixed), {}};
    words.insert(words.end(), options.begin(), options.end());
    Child child = start(kReceiver, words, "listener");
    await("the listener's port", [&] { return contents(port_file).ends_with('\n'); });
    return child;
}

Child Field::run_channel() {
    return start(kSender, {"run", kChannel, "--plugin", KVR_PLUGIN, "--log-file", home() / "log", "--log-level", "5"},
                 "worker");
}

void Field::trouble(const std::string& who, const std::string& what) const {
    if (what.empty()) {
        fs::remove(trouble_of(who));
        return;
    }
    std::ofstream(trouble_of("new")) << what;
    fs::rename(trouble_of("new"), trouble_of(who));
}

std::string Field::status(const std::string& attribute) {
    try {
        return sender_->object_get("CHS", kChannel)[attribute];
    } catch (const Error&) {
        return "";
    }
}

std::uint64_t cut_window() {
    const auto greatest = [](const char* setting) {
        const std::string three = contents(fs::path("/proc/sys/net/ipv4") / setting);
        return std::stoull(three.substr(three.rfind('\t')));
    };
    return greatest("tcp_wmem") + greatest("tcp_rmem");
}

bool has_ended(const Child& child) {
    siginfo_t info{};
    return ::waitid(P_PID, static_cast<id_t>(child.pid()), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid != 0;
}

std::vector<pid_t> processes_with(const std::string& text) {
    std::vector<pid_t> found;
    for (const std::string& name : names_in("/proc")) {
        if (contents("/proc/" + name + "/cmdline").find(text) != text.npos && std::isdigit(name[0]) != 0) {
            found.push_back(std::stoi(name));
        }
    }
    return found;
}

std::size_t descriptors_of(pid_t pid) {
    return names_in(proc(pid, "fd")).size();
}

std::uint64_t memory_of(pid_t pid, const std::string& figure) {
    const std::string all = contents(proc(pid, "status"));
    const std::size_t at = all.find("\n" + figure + ":");
    return at == all.npos ? 0 : std::stoull(all.substr(at + figure.size() + 2));
}

} // namespace kvr::test
