// SPDX-License-Identifier: MIT
#include "history.h"

#include <algorithm>
#include <iterator>

#include <fcntl.h>

#include "store/descriptor.h"
#include "store/xmit_header.h"

namespace kvr::test {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr std::uint32_t kMostMessages = 1'000'000;
constexpr auto kPatience = std::chrono::milliseconds(700); ///< before a second last message is tried
constexpr std::uint64_t kWorkerKib = 8U << 10U;            ///< a message's buffer, and the files in hand
constexpr std::uint64_t kListenerKib = 160U << 10U;        ///< its store's pages included
constexpr std::uint64_t kEnough = 1U << 30U;

/// A signal's sender returns before it stands.
void await_stop(const Child& child) {
    siginfo_t stopped{};
    EXPECT_EQ(::waitid(P_PID, static_cast<id_t>(child.pid()), &stopped, WSTOPPED | WNOWAIT), 0);
}

} // namespace

Child frozen_writer(const fs::path& qmgr) {
    Child child = Child::fork_off([&] {
        struct flock turn {};
        turn.l_type = F_WRLCK;
        turn.l_len = 2; // nobody is the next one either, which others would wait for as well
        const int fd = ::open((qmgr / "store" / "write.lock").c_str(), O_RDWR | O_CLOEXEC);
        return ::fcntl(fd, F_SETLKW, &turn) == 0 ? ::raise(SIGSTOP) : 1;
    });
    await_stop(child);
    return child;
}

void leave_quota(Store& store, std::uint64_t bytes) {
    store.change_settings({{"quota", std::to_string(store.usage().bytes + bytes)}});
}

History::History(std::uint64_t seed, Carrier carrier, const Terms& terms)
    : field(carrier, false), seed_(seed + 1), random_(seed), relay_(terms.relay) {
    field.set_channel(terms.channel);
    if (terms.relay != nullptr) {
        terms.relay->point_at(field.port());
        field.point_at(terms.relay->port());
    }
    listen(terms.listener);
    run();
}

void History::pause_up_to(std::uint64_t microseconds) {
    std::this_thread::sleep_for(std::chrono::microseconds(below(microseconds)));
}

void History::put(std::size_t count, SizeRange size, std::optional<ProofKind> kind) {
    const SizeRange file{std::max<std::size_t>(size.least, 1), std::max<std::size_t>(size.greatest, 1)};
    for (; count > 0; --count) {
        const ProofPlan plan{seed_, kMostMessages, kind ? *kind : static_cast<ProofKind>(below(3)), size, file};
        ProofMessage message = make_proof(plan, last() + 1, blank_descriptor(), field.home() / "files");
        last_files_ = plan.kind == ProofKind::kFile ? Words{message.data} : message.attachments;
        message.data.insert(0, xmit_header({kTarget, kReceiver}));
        field.sender().put(kXmitQueue, OutgoingMessage{&message.descriptor, message.attachments, message.data});
        plans_.push_back(plan);
    }
}

void History::put_too_much(std::size_t times) {
    put(times * (2 + cut_window() / kMaxTransmitted), {kMaxTransmitted, kMaxTransmitted}, ProofKind::kData);
}

void History::listen(const Words& options) {
    listens_oddly_ = !options.empty();
    listener_from_ = field.text("out").size();
    listener.emplace(field.listen(options));
}

void History::relisten(const Words& options, const Attributes& channel) {
    field.set_channel(channel); // before the next line, which begins with the end of this one
    settle();
    end_listener();
    mark();
    listen(options);
}

void History::end_listener() {
    ::kill(listener->pid(), SIGTERM);
    const int result = listener->result();
    listener.reset();
    const auto told = [&](const char* text) { return field.count("out", text, listener_from_); };
    EXPECT_EQ(result, told("kvr: messages or lines of the journal were lost") > 0 ? 1 : 0) << "the listener's end";
    EXPECT_EQ(told(" complete messages, and"), told(" lost: 0 complete messages, and"))
        << "complete messages lost at the listener's end";
}

void History::start() {
    mark();
    worker.emplace(field.run_channel());
}

void History::run() {
    start();
    await("the channel to run", [&] {
        revive();
        return field.status() == "RUNING" && field.status("PID") == std::to_string(worker->pid());
    });
}

void History::revive() {
    if (relay_ != nullptr && has_ended(*worker)) {
        worker.emplace(field.run_channel());
    }
}

void History::stop() {
    ::kill(worker->pid(), SIGTERM); // once
    EXPECT_EQ(worker->result(), 0) << "the worker's end";
    worker.reset();
    EXPECT_EQ(field.status(), "STOPED");
    EXPECT_EQ(field.status("PID"), "-1");
    EXPECT_TRUE(processes_with((field.home() / "log").native()).empty()) << "a watcher lives on";
}

void History::kill(std::optional<Child>& child) {
    const int result = child->result_under(SIGKILL);
    EXPECT_TRUE(result == -SIGKILL || result == 0) << result;
    child.reset();
}

std::vector<pid_t> History::watchers() const {
    const std::string pid = std::to_string(worker->pid());
    std::istringstream children(contents("/proc/" + pid + "/task/" + pid + "/children"));
    return {std::istream_iterator<pid_t>(children), {}};
}

void History::meet(const Fault& fault) {
    mark();
    fault.make(*this);
    field.set_prelude("");
    for (const char* who : {"worker", "listener", "other"}) {
        field.trouble(who, "");
    }
    field.set_identity(tls_material().server);
    field.set_channel(
        {{"SHORTRTY", "999999999"}, {"SHORTTMR", "30"}, {"LONGRTY", "0"}, {"HBINT", "0"}, {"TRIALTMR", "1"}});
    field.set_qmgr({{"DEADQ", kDeadQueue}});
    for (const Disk* disk : {&field.senders_disk(), &field.receivers_disk()}) {
        if (disk->mounted()) {
            disk->give_back();
        }
    }
    leave_quota(field.sender(), kEnough);
    leave_quota(field.receiver(), kEnough);
    if (listener && listens_oddly_) {
        if (worker) {
            settle();
        }
        end_listener();
    }
    field.point_at(field.port());
    if (!listener) {
        listen();
    }
    if (!worker) {
        run();
    }
}

void History::mark() {
    for (const char* file : {"log", "out", "journal"}) {
        marks_[file] = field.text(file).size();
    }
}

std::size_t History::since(const char* file, const std::string& text) const {
    return field.count(file, text, marks_.at(file));
}

void History::await_text(const char* file, const std::string& text, std::size_t times) {
    await(std::string(file) + " to have " + text, [&] { return since(file, text) >= times; });
}

void History::collect() {
    const auto take = [&](Store& store, const char* queue, ProofCheck& check) {
        store.browse(queue, next_[queue], [&](const StoredMessage& found) {
            const std::int32_t before = std::exchange(newest_[queue], found.descriptor.iMsgSeqNo);
            turns_ += newest_[queue] < before ? 1U : 0U;
            check.take(found.descriptor, {found.data.data(), found.data.size()}, found.attachments);
            files_read_.insert(found.attachments.begin(), found.attachments.end());
            if (found.descriptor.cMsgStoreType == KVR_STORE_FILE) {
                files_read_.insert(std::string(found.data.begin(), found.data.end()).c_str());
            }
            next_[queue] = found.sequence + 1;
            return true;
        });
    };
    take(field.receiver(), kTarget, arrived_);
    take(field.sender(), kDeadQueue, dead_);
}

void History::freeze(const Child& child) const {
    const Child turn = frozen_writer(field.qmgr(kSender));
    ::kill(child.pid(), SIGSTOP);
    await_stop(child);
}

void History::drain() {
    await("the queue to drain", [&] { return field.depth() == 0; });
}

void History::settle() {
    // Whatever was on a line that broke unseen, a later message tells that all before it were dealt with; if repeats
    // come before it, then of a line that has lasted since.
    auto next = Clock::now();
    std::size_t line = relay_ == nullptr ? 0 : relay_->lines() + 1;
    await("the last message", [&] {
        revive();
        const std::size_t now = relay_ == nullptr ? line : relay_->lines();
        if (field.depth() == 0 && (Clock::now() >= next || now != line)) {
            line = now;
            put(1, {10, 10}, ProofKind::kData);
            next = Clock::now() + kPatience;
        }
        collect();
        return field.depth() == 0 && arrived_.run(seed_).seen(last()) && now == line;
    });
}

Cost History::judge(const Cost& allowed) {
    const ProofRun run = arrived_.run(seed_);
    const ProofRun dead = dead_.run(seed_);
    Cost cost{.repeats = run.repeated - before_.repeats,
              .dead = dead.taken - before_.dead,
              .turns = std::exchange(turns_, 0)};
    before_ = {.repeats = run.repeated, .dead = dead.taken};
    std::uint64_t bytes = 0;
    for (; judged_ < last(); ++judged_) {
        const std::uint32_t number = judged_ + 1;
        EXPECT_FALSE(run.seen(number) && dead.seen(number)) << number << " has arrived and is a dead letter";
        if (run.seen(number)) {
            bytes = 0;
        } else if (!dead.seen(number)) {
            cost.cuts += bytes == 0 ? 1 : 0;
            bytes += wire_size_of(number);
            cost.bytes = std::max(cost.bytes, bytes);
            ++cost.messages;
        }
    }
    EXPECT_EQ(run.altered + arrived_.foreign(), 0U) << "altered messages";
    EXPECT_LE(cost.turns, allowed.turns) << "messages out of order";
    EXPECT_EQ(dead.altered + dead.repeated + dead_.foreign(), 0U) << "altered dead letters";
    EXPECT_EQ(field.sender().queue_info(kXmitQueue).held, 0U) << "messages held";
    EXPECT_LE(cost.cuts, allowed.cuts) << cost.messages << " lost up to message " << last();
    EXPECT_LE(cost.bytes, cut_window()) << "bytes lost at once";
    EXPECT_LE(cost.repeats, allowed.repeats) << "messages repeated";
    EXPECT_LE(cost.dead, allowed.dead) << "dead letters";
    leftovers_ = leftovers_ || allowed.leftovers;
    return cost;
}

Cost History::rest(const Cost& allowed) {
    settle();
    const Cost cost = judge(allowed);
    judge_processes();
    return cost;
}

void History::judge_processes() {
    const auto descriptors = [&] { return descriptors_of(worker->pid()) + descriptors_of(listener->pid()); };
    const std::uint64_t memory = memory_of(worker->pid(), "RssAnon");
    if (descriptors_ == 0) {
        descriptors_ = descriptors();
        memory_ = memory;
    }
    await("no more descriptors than at first", [&] { return descriptors() <= descriptors_ && watchers().size() == 1; });
    EXPECT_LE(memory, memory_ + kWorkerKib);
    EXPECT_LE(memory_of(listener->pid(), "VmHWM"), kListenerKib);
    EXPECT_EQ(field.status(), "RUNING");
    EXPECT_EQ(field.status("PID"), std::to_string(worker->pid()));
}

void History::finish() {
    EXPECT_EQ(field.start(kSender, {"status"}).result(), 0);
    stop();
    end_listener();
    EXPECT_TRUE(processes_with(field.home().native()).empty()) << "a process lives on";
    collect();
    judge({});
    EXPECT_EQ(field.depth(), 0U);
    EXPECT_TRUE(fs::is_empty(field.spool() / ".incoming")) << "unfinished files";
    for (const auto& entry : fs::directory_iterator(field.spool())) {
        EXPECT_TRUE(leftovers_ || entry.is_directory() || files_read_.contains(entry.path().native()))
            << entry.path() << " belongs to no message";
    }
}

} // namespace kvr::test
