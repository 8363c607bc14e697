// SPDX-License-Identifier: MIT
#include "field.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

#include "numbered_put.h"

namespace kvr::test {
namespace {

namespace fs = std::filesystem;

constexpr auto kAwait = std::chrono::seconds(60);
constexpr auto kLookAgain = std::chrono::milliseconds(2);
constexpr int kCannotRun = 127;

std::size_t occurrences(const std::string& all, const std::string& text) {
    std::size_t count = 0;
    for (std::size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + text.size())) {
        ++count;
    }
    return count;
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

void make_qmgr(const fs::path& home, const std::string& name) {
    Store::create(home / name, name, Settings{});
    const auto store = Store::open(home / name);
    store->queue_define(kDeadQueue, "");
    Attributes qmgr{{"DEADQ", kDeadQueue}};
    try {
        store->object_add("QMGR", "QMGR", qmgr);
    } catch (const Error& error) {
        if (error.code() != Errc::kExists) {
            throw;
        }
        store->object_set("QMGR", "QMGR", qmgr);
    }
}

} // namespace

Field::Field(Carrier carrier, const fs::path& where) : home_(new_folder(where)), carrier_(carrier) {
    for (const char* folder : {"files", "spool"}) {
        fs::create_directory(home_ / folder);
    }
    make_qmgr(home_, kSender);
    make_qmgr(home_, kReceiver);
    sender_ = Store::open(home_ / kSender);
    receiver_ = Store::open(home_ / kReceiver);
    sender_->queue_define(kXmitQueue, "");
    receiver_->queue_define(kTarget, "");
    sender_->object_add("CHL", kChannel,
                        {{"XMITQ", kXmitQueue},
                         {"CHLTYPE", "SNDR"},
                         {"CONNAME", "127.0.0.1(1)"},
                         {"HBINT", "0"},
                         {"DISCINT", "0"},
                         {"SSLCAUTH", carrier == Carrier::kPlain ? "DISABLE" : "ENABLE"},
                         {"SHORTRTY", "60"},
                         {"SHORTTMR", "1"},
                         {"LONGRTY", "0"},
                         {"LONGTMR", "1"}});
    if (carrier != Carrier::kPlain) {
        const TlsMaterial& tls = tls_material();
        set_qmgr({{"CAFILE", tls.ca_file}, {"CERTFILE", tls.client.cert_file}, {"KEYFILE", tls.client.key_file}});
    }
}

fs::path new_folder(const fs::path& where) {
    std::string name = (where / "kvr-battery.XXXXXX").native();
    if (::mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("no temporary folder");
    }
    return name;
}

Field::~Field() {
    sender_.reset();
    receiver_.reset();
    if (::testing::Test::HasFailure()) {
        std::fprintf(stderr, "the field is left in %s\n", home_.c_str());
        return;
    }
    std::error_code ignored;
    fs::remove_all(home_, ignored);
}

void Field::set_channel(const Attributes& attributes) {
    sender_->object_set("CHL", kChannel, attributes);
}

void Field::set_qmgr(const Attributes& attributes) {
    sender_->object_set("QMGR", "QMGR", attributes);
}

void Field::put(MessageKind kind, std::uint64_t count, std::size_t least, std::size_t greatest) {
    std::vector<NumberedMessage> messages;
    for (std::uint64_t number = ledger_.size() + 1; number <= ledger_.size() + count; ++number) {
        messages.push_back({number, kind, varied_size(number, least, greatest)});
    }
    const std::string header = xmit_header_for(std::string(kTarget) + "@" + kReceiver);
    put_numbered({*sender_, kXmitQueue, kTag, header, home_ / "files"}, messages,
                 [&](auto put) { ledger_.insert(ledger_.end(), put.begin(), put.end()); });
}

void Field::put_too_much() {
    constexpr std::size_t kGreatest = kMaxMessage - sizeof(T_KAVRO_HDR_XMITQ);
    put(MessageKind::kData, 2 + cut_window() / kGreatest, kGreatest, kGreatest);
}

void Field::put_one_of_each() {
    put(MessageKind::kData, 1, 700, 700);
    put(MessageKind::kAttached, 1, 300, 300);
    put(MessageKind::kFile, 1, 900, 900);
}

Child Field::start(const std::vector<std::string>& arguments, const Environment& environment) {
    return start_program(KVR_PROGRAM, arguments, environment);
}

Child Field::start_program(const std::string& program, const std::vector<std::string>& arguments,
                           const Environment& environment) {
    std::vector<std::string> copy{program};
    if (!prelude_.empty()) {
        copy = {"/bin/bash", "-c", prelude_ + " \"$0\" \"$@\"", program};
    }
    copy.insert(copy.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& argument : copy) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    return Child::fork_off([&] {
        (void)::setenv("KVR_HOME", home_.c_str(), 1);
        for (const auto& [name, value] : environment) {
            (void)::setenv(name.c_str(), value.c_str(), 1);
        }
        const int out = ::open((home_ / "out").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        const int in = ::open("/dev/null", O_RDONLY);
        ::dup2(in, STDIN_FILENO);
        ::dup2(out, STDOUT_FILENO);
        ::dup2(out, STDERR_FILENO);
        ::execv(argv[0], argv.data());
        return kCannotRun;
    });
}

Child Field::listen(const std::vector<std::string>& options) {
    const fs::path port_file = home_ / "port";
    fs::remove(port_file);
    std::vector<std::string> arguments{"--qmgr",
                                       kReceiver,
                                       "listen",
                                       "--bind",
                                       "127.0.0.1",
                                       "--port",
                                       std::to_string(port_),
                                       "--port-file",
                                       port_file.native(),
                                       "--journal",
                                       (home_ / "journal").native()};
    if (std::ranges::find(options, "--discard") == options.end()) {
        arguments.insert(arguments.end(), {"--spool", (home_ / "spool").native()});
    }
    if (carrier_ != Carrier::kPlain) {
        const TlsMaterial& tls = tls_material();
        const std::string version = carrier_ == Carrier::kTls12 ? "1.2" : "1.3";
        arguments.insert(arguments.end(), {"--tls", "--cert", tls.server.cert_file, "--key", tls.server.key_file,
                                           "--tls-min", "1.2", "--tls-max", version, "--tls-tickets", "2"});
    }
    arguments.insert(arguments.end(), options.begin(), options.end());
    Child child = start(arguments);
    await("the listener's port", [&] {
        const std::string text = contents(port_file);
        return text.find('\n') != std::string::npos &&
               std::from_chars(text.data(), text.data() + text.size(), port_).ec == std::errc{};
    });
    point_at(port_);
    return child;
}

Child Field::run_channel(const Environment& environment, const std::vector<std::string>& options) {
    std::vector<std::string> arguments{"--qmgr",      kSender,    "run",        kChannel,
                                       "--plugin",    KVR_PLUGIN, "--log-file", (home_ / "log").native(),
                                       "--log-level", "5"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    return start(arguments, environment);
}

std::string Field::status(const std::string& attribute) {
    try {
        return sender_->object_get("CHS", kChannel)[attribute];
    } catch (const Error&) {
        return "";
    }
}

std::string Field::log() const {
    return contents(home_ / "log");
}

std::size_t Field::logged(const std::string& text) const {
    return occurrences(log(), text);
}

std::size_t Field::journalled(const std::string& event) const {
    return occurrences(contents(home_ / "journal"), "\"event\":\"" + event + '"');
}

std::uint64_t Field::depth(const std::string& queue) {
    return sender_->queue_info(queue).depth;
}

std::uint64_t Field::arrived() {
    return receiver_->queue_info(kTarget).depth;
}

void Field::await_status(const std::string& wanted) {
    await("status " + wanted, [&] { return status() == wanted; });
}

void Field::await_log(const std::string& text, std::size_t times) {
    await("log line " + text, [&] { return logged(text) >= times; });
}

void Field::await_arrived(std::uint64_t count) {
    await(std::to_string(count) + " messages at the target", [&] { return arrived() >= count; });
}

void Field::await_drained() {
    await("an empty transmission queue", [&] { return depth() == 0; });
}

void Field::finish(Child& worker, std::uint64_t repeats) {
    await_all();
    EXPECT_EQ(worker.result_under(SIGTERM), 0);
    expect_all_delivered(repeats);
}

void Field::await_all() {
    await_drained();
    await_arrived(ledger_.size());
}

Run Field::run() const {
    Run run;
    run.tag = kTag;
    run.sent = ledger_;
    run.files = home_ / "files";
    run.delivered = {{home_ / kReceiver, kTarget}};
    run.waiting = {{home_ / kSender, kXmitQueue}};
    run.dead = {{home_ / kSender, kDeadQueue}};
    run.spools = {home_ / "spool"};
    return run;
}

Verdict Field::judge(std::uint64_t cuts, std::uint64_t repeats) const {
    Run all = run();
    all.cuts = cuts;
    all.window = cut_window();
    all.repeats = repeats;
    return verdict_on(all);
}

void Field::expect_all_delivered(std::uint64_t repeats) const {
    const Verdict verdict = judge(0, repeats);
    EXPECT_EQ(verdict.delivered - verdict.repeated, ledger_.size());
    EXPECT_EQ(verdict.lost, 0U);
    EXPECT_EQ(verdict.dead, 0U);
    EXPECT_EQ(verdict.held, 0U);
    EXPECT_LE(verdict.repeated, repeats);
}

Verdict verdict_on(const Run& run) {
    Verdict verdict = kvr::judge(run);
    for (const std::string& fault : verdict.faults) {
        ADD_FAILURE() << fault;
    }
    return verdict;
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

void await(const std::string& what, const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + kAwait;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            FAIL() << "waited in vain for " << what;
        }
        std::this_thread::sleep_for(kLookAgain);
    }
}

std::string contents(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    std::ostringstream text;
    text << stream.rdbuf();
    return text.str();
}

std::size_t rounds(std::size_t quick) {
    const char* wanted = std::getenv("KVR_BATTERY_ROUNDS");
    return wanted == nullptr ? quick : std::stoul(wanted);
}

bool has_ended(const Child& child) {
    siginfo_t info{};
    return ::waitid(P_PID, static_cast<id_t>(child.pid()), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid != 0;
}

int end_listener(Child& listener) {
    ::kill(listener.pid(), SIGTERM);
    return listener.result();
}

std::vector<pid_t> processes_with(const std::string& text) {
    return processes([&](const fs::path& folder) { return contents(folder / "cmdline").find(text) != text.npos; });
}

std::vector<pid_t> children_of(pid_t pid) {
    return processes([&](const fs::path& folder) {
        const std::string stat = contents(folder / "stat");
        const std::size_t end = stat.rfind(')');
        if (end == std::string::npos) {
            return false;
        }
        std::istringstream rest(stat.substr(end + 1));
        char state = 0;
        pid_t parent = 0;
        rest >> state >> parent;
        return parent == pid;
    });
}

std::size_t descriptors_of(pid_t pid) {
    const fs::path folder = "/proc/" + std::to_string(pid) + "/fd";
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& entry : fs::directory_iterator(folder)) {
        ++count;
    }
    return count;
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
