// SPDX-License-Identifier: MIT
#include "field.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <fstream>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

namespace kvr::test {
namespace {

namespace fs = std::filesystem;

constexpr auto kAwait = std::chrono::seconds(60);
constexpr auto kLookAgain = std::chrono::milliseconds(2);
constexpr int kCannotRun = 127;

fs::path new_folder(const fs::path& where) {
    std::string name = (where / "kvr-battery.XXXXXX").native();
    if (::mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("no temporary folder");
    }
    return name;
}

std::shared_ptr<Store> make_qmgr(const fs::path& folder, const char* name) {
    Store::create(folder, name, Settings{});
    auto store = Store::open(folder);
    store->queue_define(kDeadQueue, "");
    store->object_add("QMGR", "QMGR", {{"DEADQ", kDeadQueue}});
    return store;
}

/// Mounts of this process are nobody else's business, and end with it.
bool has_own_mounts() {
    static const bool own =
        ::unshare(CLONE_NEWNS) == 0 && ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    return own;
}

fs::path folder_in(const fs::path& home, const char* name) {
    fs::create_directory(home / name);
    return home / name;
}

std::vector<pid_t> processes(const std::function<bool(const fs::path&)>& wanted) {
    std::vector<pid_t> found;
    for (const auto& entry : fs::directory_iterator("/proc")) {
        const std::string name = entry.path().filename();
        pid_t pid = 0;
        if (std::from_chars(name.data(), name.data() + name.size(), pid).ec == std::errc{} && wanted(entry.path())) {
            found.push_back(pid);
        }
    }
    return found;
}

} // namespace

void await(const std::string& what, const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + kAwait;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            throw std::runtime_error("waited in vain for " + what);
        }
        std::this_thread::sleep_for(kLookAgain);
    }
}

Disk::Disk(fs::path folder)
    : folder_(std::move(folder)), mounted_(!folder_.empty() && has_own_mounts() &&
                                           ::mount("tmpfs", folder_.c_str(), "tmpfs", 0, "size=2g,mode=711") == 0) {}

void Disk::leave(std::uint64_t bytes) const {
    const auto space = fs::space(folder_);
    const std::string size = "mode=711,size=" + std::to_string(space.capacity - space.free + bytes);
    if (::mount("tmpfs", folder_.c_str(), "tmpfs", MS_REMOUNT, size.c_str()) != 0) {
        throw std::runtime_error("cannot change the size of a disk");
    }
}

void Disk::give_back() const {
    leave(1U << 30U);
}

Field::Field(Carrier carrier, bool exact, const fs::path& where)
    : home_(new_folder(where)), carrier_(carrier), exact_(exact),
      senders_disk_(exact ? fs::path() : folder_in(home_, "sender")),
      receivers_disk_(exact ? fs::path() : folder_in(home_, "receiver")) {
    for (const char* folder : {"files", "sender", "receiver", "receiver/spool"}) {
        fs::create_directory(home_ / folder);
    }
    sender_ = make_qmgr(qmgr(kSender), kSender);
    receiver_ = make_qmgr(qmgr(kReceiver), kReceiver);
    sender_->queue_define(kXmitQueue, "");
    receiver_->queue_define(kTarget, "");
    sender_->object_add("CHL", kChannel,
                        {{"XMITQ", kXmitQueue},
                         {"CHLTYPE", "SNDR"},
                         {"CONNAME", "127.0.0.1(1)"},
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
    sender_.reset();
    receiver_.reset();
    std::error_code ignored;
    for (const char* disk : {"sender", "receiver"}) {
        (void)::umount2((home_ / disk).c_str(), MNT_DETACH);
    }
    if (::testing::Test::HasFailure()) {
        std::fprintf(stderr, "log, out and journal are left in %s\n", home_.c_str());
        return;
    }
    fs::remove_all(home_, ignored);
}

fs::path Field::qmgr(const char* name) const {
    return home_ / (std::string(name) == kSender ? "sender" : "receiver") / name;
}

Child Field::start(const char* qmgr_name, const Words& words, const std::string& who) {
    const fs::path folder = qmgr(qmgr_name);
    Words all{"--home", folder.parent_path().native(), "--qmgr", folder.filename().native()};
    all.insert(all.end(), words.begin(), words.end());
    return start(all, who);
}

Child Field::start(Words words, const std::string& who) {
    words.insert(words.begin(), KVR_PROGRAM);
    if (!prelude_.empty()) {
        words.insert(words.begin(), {"/bin/bash", "-c", prelude_ + " \"$0\" \"$@\""});
    }
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    return Child::fork_off([&] {
        if (!exact_) {
            (void)::setenv("LD_PRELOAD", KVR_DISK_FAILS, 1);
            (void)::setenv("KVR_TROUBLE", (home_ / ("trouble." + who)).c_str(), 1);
        }
        const int out = ::open((home_ / "out").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        const int in = ::open("/dev/null", O_RDONLY);
        ::dup2(in, STDIN_FILENO);
        ::dup2(out, STDOUT_FILENO);
        ::dup2(out, STDERR_FILENO);
        ::close(in);
        ::close(out);
        ::execv(argv[0], argv.data());
        return kCannotRun;
    });
}

Child Field::listen(const Words& options) {
    const fs::path port_file = home_ / "port";
    fs::remove(port_file);
    Words words{"listen",
                "--bind",
                "127.0.0.1",
                "--port",
                std::to_string(port_),
                "--port-file",
                port_file.native(),
                "--journal",
                (home_ / "journal").native()};
    if (std::ranges::find(options, "--discard") == options.end()) {
        words.insert(words.end(), {"--spool", spool().native()});
    }
    if (carrier_ != Carrier::kPlain) {
        words.insert(words.end(),
                     {"--tls", "--cert", identity_.cert_file, "--key", identity_.key_file, "--tls-max",
                      carrier_ == Carrier::kTls12 ? "1.2" : "1.3", "--tls-tickets", "2", "--tls-late-ticket", "50"});
    }
    words.insert(words.end(), options.begin(), options.end());
    Child child = start(kReceiver, words, "listener");
    await("the listener's port", [&] {
        const std::string text = contents(port_file);
        return text.find('\n') != std::string::npos &&
               std::from_chars(text.data(), text.data() + text.size(), port_).ec == std::errc{};
    });
    point_at(port_);
    return child;
}

Child Field::run_channel() {
    return start(kSender,
                 {"run", kChannel, "--plugin", KVR_PLUGIN, "--log-file", (home_ / "log").native(), "--log-level", "5"},
                 "worker");
}

void Field::trouble(const std::string& who, const std::string& what) const {
    const fs::path file = home_ / ("trouble." + who);
    if (what.empty()) {
        fs::remove(file);
        return;
    }
    std::ofstream(file.native() + ".new") << what;
    fs::rename(file.native() + ".new", file);
}

bool Field::troubled(const std::string& who) const {
    return fs::exists(home_ / ("trouble." + who));
}

std::string Field::status(const std::string& attribute) {
    try {
        return sender_->object_get("CHS", kChannel)[attribute];
    } catch (const Error&) {
        return "";
    }
}

std::string Field::text(const char* file, std::size_t from) const {
    std::ifstream stream(home_ / file, std::ios::binary);
    stream.seekg(static_cast<std::streamoff>(from));
    return {std::istreambuf_iterator<char>(stream), {}};
}

std::size_t Field::count(const char* file, const std::string& wanted, std::size_t from) const {
    const std::string all = text(file, from);
    std::size_t count = 0;
    for (std::size_t at = all.find(wanted); at != std::string::npos; at = all.find(wanted, at + wanted.size())) {
        ++count;
    }
    return count;
}

std::size_t Field::journalled(const std::string& event) const {
    return count("journal", "\"event\":\"" + event + '"');
}

std::uint64_t cut_window() {
    std::uint64_t window = 0;
    for (const char* name : {"/proc/sys/net/ipv4/tcp_wmem", "/proc/sys/net/ipv4/tcp_rmem"}) {
        std::ifstream stream(name);
        std::uint64_t least = 0;
        std::uint64_t usual = 0;
        std::uint64_t greatest = 0;
        stream >> least >> usual >> greatest;
        window += greatest;
    }
    return window;
}

bool has_ended(const Child& child) {
    siginfo_t info{};
    return ::waitid(P_PID, static_cast<id_t>(child.pid()), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid != 0;
}

std::vector<pid_t> processes_with(const std::string& text) {
    return processes([&](const fs::path& folder) { return contents(folder / "cmdline").find(text) != text.npos; });
}

std::vector<pid_t> children_of(pid_t pid) {
    return processes([&](const fs::path& folder) {
        const std::string stat = contents(folder / "stat");
        const std::size_t end = stat.rfind(')');
        std::istringstream rest(end == std::string::npos ? "" : stat.substr(end + 1));
        char state = 0;
        pid_t parent = 0;
        return rest >> state >> parent && parent == pid;
    });
}

std::size_t descriptors_of(pid_t pid) {
    return names_in("/proc/" + std::to_string(pid) + "/fd").size();
}

std::uint64_t memory_of(pid_t pid, const std::string& figure) {
    std::ifstream stream("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(stream, line);) {
        if (line.rfind(figure + ":", 0) == 0) {
            return std::stoull(line.substr(figure.size() + 1));
        }
    }
    return 0;
}

} // namespace kvr::test
