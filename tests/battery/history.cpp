// SPDX-License-Identifier: MIT
#include "history.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "proof/xmit_header.h"

namespace kvr::test {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr std::uint32_t kMostMessages = 1'000'000;
constexpr std::size_t kGroup = 64;
constexpr auto kPatience = std::chrono::milliseconds(700); ///< before a second last message is tried
constexpr std::uint64_t kWorkerKib = 8U << 10U;            ///< a message's buffer, and the files in hand
constexpr std::uint64_t kListenerKib = 160U << 10U;        ///< its store's pages included
constexpr std::uint64_t kGrowthKib = 256;

} // namespace

History::History(std::uint64_t seed, Carrier carrier, bool exact)
    : field(carrier, exact), exact_(exact), seed_(seed + 1), state_(seed) {
    listen();
    run();
}

std::uint64_t History::below(std::uint64_t bound) {
    std::uint64_t x = state_ += 0x9E3779B97F4A7C15U; // splitmix64
    x = (x ^ (x >> 30U)) * 0xBF58476D1CE4E5B9U;
    x = (x ^ (x >> 27U)) * 0x94D049BB133111EBU;
    return (x ^ (x >> 31U)) % bound;
}

void History::pause_up_to(std::uint64_t microseconds) {
    std::this_thread::sleep_for(std::chrono::microseconds(below(microseconds)));
}

void History::put(std::size_t count, SizeRange size, std::optional<ProofKind> kind) {
    static constexpr ProofKind kMix[] = {ProofKind::kData, ProofKind::kData, ProofKind::kData, ProofKind::kAttached,
                                         ProofKind::kFile};
    const std::string header = xmit_header({kTarget, kReceiver});
    T_KAVRO_MD descriptor{};
    std::copy_n("MD  ", sizeof descriptor.sStrucId, descriptor.sStrucId);
    descriptor.iVersion = 2;
    while (count > 0) {
        const std::size_t group = std::min(count, kGroup);
        std::vector<ProofPlan> plans;
        std::vector<ProofMessage> messages;
        std::vector<OutgoingMessage> outgoing;
        messages.reserve(group);
        for (std::size_t i = 0; i < group; ++i) {
            plans.push_back({seed_,
                             kMostMessages,
                             kind ? *kind : one_of(kMix),
                             size,
                             {std::max<std::size_t>(size.least, 1), std::max<std::size_t>(size.greatest, 1)}});
            messages.push_back(
                make_proof(plans.back(), last() + static_cast<std::uint32_t>(i) + 1, descriptor, files()));
            messages.back().data.insert(0, header);
            outgoing.push_back({&messages.back().descriptor, messages.back().attachments, messages.back().data});
        }
        field.sender().put(kXmitQueue, outgoing);
        last_files_ = messages.back().attachments;
        if (plans.back().kind == ProofKind::kFile) {
            last_files_ = {messages.back().data.substr(header.size())};
        }
        plans_.insert(plans_.end(), plans.begin(), plans.end());
        count -= group;
    }
}

void History::put_too_much(std::size_t times) {
    constexpr std::size_t kGreatest = kMaxTransmitted;
    for (std::uint64_t i = 0; i < times * (2 + cut_window() / kGreatest); ++i) {
        put(1, {kGreatest, kGreatest}, ProofKind::kData);
    }
}

void History::relisten(const Words& options) {
    settle();
    end_listener();
    mark();
    listen(options);
}

void History::listen(const Words& options) {
    listener_from_ = field.text("out").size();
    listener.emplace(field.listen(options));
}

void History::end_listener() {
    ::kill(listener->pid(), SIGTERM);
    const int result = listener->result();
    const auto told = [&](const char* text) { return field.count("out", text, listener_from_); };
    EXPECT_EQ(result, told("kvr: messages or lines of the journal were lost") > 0 ? 1 : 0) << "the listener's end";
    EXPECT_EQ(told(" complete messages, and"), told(" lost: 0 complete messages, and"))
        << "complete messages lost at the listener's end";
}

void History::run() {
    worker.emplace(field.run_channel());
    await("the channel to run", [&] {
        if (has_ended(*worker)) {
            throw std::runtime_error("the worker ended with status " + std::to_string(worker->result()));
        }
        return field.status() == "RUNING" && field.status("PID") == std::to_string(worker->pid());
    });
}

void History::stop() {
    ::kill(worker->pid(), SIGTERM); // once
    EXPECT_EQ(worker->result(), 0) << "the worker's end";
    EXPECT_EQ(field.status(), "STOPED");
    EXPECT_EQ(field.status("PID"), "-1");
    EXPECT_TRUE(processes_with((field.home() / "log").native()).empty()) << "a watcher lives on";
}

void History::kill(std::optional<Child>& child) {
    ::kill(child->pid(), SIGKILL);
    const int result = child->result();
    EXPECT_TRUE(result == -SIGKILL || result == 0) << result;
}

void History::begin_step() {
    skipped_ = false;
    mark();
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
    field.receiver().browse(kTarget, next_arrived_, [&](const StoredMessage& found) {
        arrived_.take(found.descriptor, {found.data.data(), found.data.size()}, found.attachments);
        files_arrived_.insert(found.attachments.begin(), found.attachments.end());
        if (found.descriptor.cMsgStoreType == KVR_STORE_FILE) {
            files_arrived_.insert(std::string(found.data.begin(), found.data.end()).c_str());
        }
        next_arrived_ = found.sequence + 1;
        return true;
    });
    field.sender().browse(kDeadQueue, next_dead_, [&](const StoredMessage& found) {
        dead_.take(found.descriptor, {found.data.data(), found.data.size()}, found.attachments);
        next_dead_ = found.sequence + 1;
        return true;
    });
}

void History::settle() {
    // Whatever was on a line that broke unseen, a later message tells that all before it were dealt with.
    auto next = Clock::now();
    await("the last message", [&] {
        if (field.depth() == 0 && Clock::now() >= next) {
            put(1, {10, 10}, ProofKind::kData);
            next = Clock::now() + kPatience;
        }
        collect();
        return field.depth() == 0 && arrived_.run(seed_).seen(last());
    });
}

Cost History::spent() {
    const ProofRun run = arrived_.run(seed_);
    const ProofRun dead = dead_.run(seed_);
    EXPECT_EQ(run.altered + arrived_.foreign(), 0U) << "altered messages";
    EXPECT_EQ(run.disordered, 0U) << "messages out of order";
    EXPECT_EQ(dead.altered + dead.repeated + dead_.foreign(), 0U) << "altered dead letters";
    EXPECT_EQ(field.sender().queue_info(kXmitQueue).held, 0U) << "messages held";
    Cost cost{.repeats = run.repeated - before_.repeats, .dead = dead.taken - before_.dead};
    before_ = {.repeats = run.repeated, .dead = dead.taken};
    std::uint64_t bytes = 0;
    for (std::uint32_t number = judged_ + 1; number <= last(); ++number) {
        if (run.seen(number)) {
            bytes = 0;
        } else if (!dead.seen(number)) {
            cost.cuts += bytes == 0 ? 1 : 0;
            bytes += wire_size_of(number);
            cost.bytes = std::max(cost.bytes, bytes);
            ++cost.messages;
        }
        EXPECT_FALSE(run.seen(number) && dead.seen(number)) << number << " has arrived and is a dead letter";
    }
    judged_ = last();
    return cost;
}

Cost History::rest(const Cost& allowed) {
    const std::uint32_t first = judged_ + 1;
    settle();
    const Cost cost = spent();
    EXPECT_LE(cost.cuts, allowed.cuts) << cost.messages << " messages of " << first << " to " << last() << " lost";
    EXPECT_LE(cost.bytes, cut_window()) << "bytes lost at once";
    EXPECT_LE(cost.repeats, allowed.repeats) << "messages repeated";
    EXPECT_LE(cost.dead, allowed.dead) << "dead letters";
    leftovers_ = leftovers_ || allowed.leftovers;
    judge_processes();
    return cost;
}

void History::judge_processes() {
    const std::size_t of_worker = descriptors_of(worker->pid());
    const std::size_t of_listener = descriptors_of(listener->pid());
    if (descriptors_of_worker_ == 0) {
        descriptors_of_worker_ = of_worker;
        descriptors_of_listener_ = of_listener;
        memory_of_worker_ = memory_of(worker->pid(), "RssAnon");
    }
    await("no more descriptors than at first", [&] {
        return descriptors_of(worker->pid()) <= descriptors_of_worker_ &&
               descriptors_of(listener->pid()) <= descriptors_of_listener_ && watchers().size() == 1;
    });
    EXPECT_TRUE(exact_ || memory_of(worker->pid(), "RssAnon") <= memory_of_worker_ + kWorkerKib);
    EXPECT_TRUE(exact_ || memory_of(listener->pid(), "VmHWM") <= kListenerKib);
    EXPECT_EQ(field.status(), "RUNING");
    EXPECT_EQ(field.status("PID"), std::to_string(worker->pid()));
}

void History::expect_no_growth(const std::function<void()>& work) {
    work(); // what is made once
    const std::uint64_t before = memory_of(worker->pid(), "RssAnon");
    const std::size_t descriptors = descriptors_of(worker->pid());
    work();
    await("the footprint of before", [&] {
        return memory_of(worker->pid(), "RssAnon") <= before + kGrowthKib &&
               descriptors_of(worker->pid()) <= descriptors;
    });
}

void History::finish() {
    EXPECT_EQ(field.start(kSender, {"status"}).result(), 0);
    stop();
    end_listener();
    EXPECT_TRUE(processes_with(field.home().native()).empty()) << "a process lives on";
    collect();
    const Cost more = spent();
    EXPECT_EQ(more.repeats + more.dead + field.depth(), 0U) << "something moved at the end";
    expect_no_leftovers();
}

void History::expect_no_leftovers() const {
    EXPECT_TRUE(fs::is_empty(field.spool() / ".incoming")) << "unfinished files";
    for (const auto& entry : fs::directory_iterator(field.spool())) {
        EXPECT_TRUE(leftovers_ || entry.is_directory() || files_arrived_.contains(entry.path().native()))
            << entry.path() << " belongs to no message";
    }
}

} // namespace kvr::test
