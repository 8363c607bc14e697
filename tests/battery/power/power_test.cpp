// SPDX-License-Identifier: MIT
// Power cuts at random moments of a channel at work. A process of its own puts, and runs a worker and a listener; the
// test freezes all of them, makes the folders as a disk may hold them after a cut, and judges what is there.
//
// What was synced is there. Of what was written since, each sector or page, each file's size and each entry of a folder
// is as it was at the last sync or as it is now.
#include <algorithm>
#include <cstring>
#include <fstream>
#include <map>
#include <numeric>
#include <optional>
#include <random>
#include <ranges>
#include <set>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "field.h"
#include "platter.h"
#include "proof/proof.h"
#include "proof/xmit_header.h"

namespace kvr::test {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kGroup = 512;
constexpr std::uint64_t kGroupBytes = 8U << 20;
constexpr std::uint32_t kMostMessages = 100'000;
constexpr const char* kEvidence[] = {"told", "log", "journal"}; ///< taken as they are, not as the cut leaves them
using Numbers = std::vector<std::uint32_t>;

struct Put {
    ProofKind kind;
    std::uint32_t count;
    SizeRange size;
    bool is_dead_letter = false; ///< without a header for the road; all before it are sent first
};

/// Full groups of used messages, and deletes between puts.
std::vector<Put> puts() {
    std::vector<Put> all(6, {ProofKind::kData, 200, {0, 200}});
    for (int i = 0; i < 12; ++i) {
        all.insert(all.end(), {{ProofKind::kAttached, 3, {0, 3000}},
                               {ProofKind::kData, 60, {0, 9000}},
                               {ProofKind::kFile, 2, {1, 30000}}});
        if (i % 4 == 0) {
            all.push_back({ProofKind::kData, 1, {100, 100}, true});
        }
    }
    return all;
}

ProofPlan plan_of(const Put& put) {
    return {1, kMostMessages, put.kind, put.size, {1, put.size.greatest}};
}

/// The numbers that the puts end with, those that travel, and the size of each message by its number.
struct Expected {
    Numbers ends;
    Numbers travellers;
    std::vector<std::uint64_t> sizes{0};

    Expected() {
        for (const Put& put : puts()) {
            for (std::uint32_t i = 0; i < put.count; ++i) {
                const auto number = static_cast<std::uint32_t>(sizes.size());
                sizes.push_back(proven_size(plan_of(put), number));
                if (!put.is_dead_letter) {
                    travellers.push_back(number);
                }
            }
            ends.push_back(static_cast<std::uint32_t>(sizes.size() - 1));
        }
    }
};

T_KAVRO_MD plain_descriptor() {
    T_KAVRO_MD descriptor{};
    std::memcpy(descriptor.sStrucId, "MD  ", sizeof(descriptor.sStrucId));
    descriptor.iVersion = 2;
    descriptor.cMsgStoreType = KVR_STORE_DATA;
    return descriptor;
}

void make_durable(const fs::path& folder) {
    const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY);
    ::fsync(fd);
    ::close(fd);
}

/// The process that works: each put is told in a file once it has returned.
int work(const fs::path& base) {
    Field& field = *new Field(Carrier::kPlain, true, base); // NOLINT: it stays for the judge
    const auto await_drained = [&] { await("an empty queue", [&] { return field.depth() == 0; }); };
    field.set_channel({{"SHORTTMR", "30"}});
    for (const char* made : {"sender", "receiver", "."}) {
        make_durable(field.home() / made);
    }
    std::ofstream told(field.home() / "told");
    told << 0 << std::endl;
    std::optional<Child> listener;
    std::optional<Child> worker;
    std::uint32_t number = 0;
    for (const Put& put : puts()) {
        if (put.kind != ProofKind::kData && !worker) {
            listener.emplace(field.listen());
            worker.emplace(field.run_channel());
        }
        if (put.is_dead_letter) {
            await_drained();
        }
        std::vector<ProofMessage> messages;
        for (std::uint32_t i = 0; i < put.count; ++i) {
            messages.push_back(make_proof(plan_of(put), ++number, plain_descriptor(), field.home() / "files"));
            messages.back().data.insert(0, put.is_dead_letter ? "" : xmit_header({kTarget, ""}));
        }
        std::vector<OutgoingMessage> outgoing;
        for (const ProofMessage& message : messages) {
            outgoing.push_back({&message.descriptor, message.attachments, message.data});
        }
        field.sender().put(kXmitQueue, outgoing);
        told << number << std::endl;
    }
    await_drained();
    await("all messages", [&] { return field.arrived() == Expected().travellers.size(); });
    const int result = worker->result_under(SIGTERM);
    ::kill(listener->pid(), SIGTERM);
    return result == 0 ? listener->result() : result;
}

/// All of a working process and its programs, frozen for a while.
class Frozen {
  public:
    explicit Frozen(pid_t pid) : pids_(children_of(pid)) {
        pids_.insert(pids_.begin(), pid);
        for (const pid_t each : pids_) {
            ::kill(each, SIGSTOP);
            await("a frozen process", [&] {
                const std::string stat = contents("/proc/" + std::to_string(each) + "/stat");
                return stat.empty() || std::strchr("TZ", stat[stat.rfind(')') + 2]) != nullptr;
            });
        }
    }
    ~Frozen() {
        for (const pid_t each : pids_) {
            ::kill(each, SIGCONT);
        }
    }
    Frozen(const Frozen&) = delete;
    Frozen& operator=(const Frozen&) = delete;

  private:
    std::vector<pid_t> pids_;
};

/// Makes the folders of the field as a cut may leave them.
class PowerCut {
  public:
    PowerCut(fs::path platter, std::mt19937& random) : platter_(std::move(platter)), random_(random) {
        static constexpr double kShares[] = {0, 0.1, 0.5, 0.9, 1};
        kept_ = kShares[std::uniform_int_distribution(0, 4)(random_)];
        unit_ = happens(0.5) ? 512 : 4096;
    }

    /// @param now  the folder as it is, unless it has gone from where it was
    void make_folder(const std::string& key, const std::optional<fs::path>& now, const fs::path& into) {
        std::map<std::string, std::string> synced = entries_of(key);
        std::map<std::string, std::string> current;
        if (now) {
            for (const auto& entry : fs::directory_iterator(*now)) {
                current[entry.path().filename()] = platter_key(AT_FDCWD, entry.path().c_str());
            }
        }
        fs::create_directory(into);
        fs::permissions(into, fs::perms::owner_all);
        std::set<std::string> names;
        for (const auto& [name, ignored] : synced) {
            names.insert(name);
        }
        for (const auto& [name, ignored] : current) {
            names.insert(name);
        }
        for (const std::string& name : names) {
            const std::string chosen = happens(kept_) && now ? current[name] : synced[name];
            if (!chosen.empty()) {
                const bool is_there = current[name] == chosen;
                make_entry(chosen, is_there ? std::optional(*now / name) : std::nullopt, into / name);
            }
        }
    }

  private:
    bool happens(double share) { return std::bernoulli_distribution(share)(random_); }

    std::map<std::string, std::string> entries_of(const std::string& key) const {
        std::map<std::string, std::string> entries;
        std::ifstream list(platter_ / key);
        for (std::string each, name; list >> each >> name;) {
            entries[name] = each;
        }
        return entries;
    }

    void make_entry(const std::string& key, const std::optional<fs::path>& now, const fs::path& into) {
        if (now && fs::is_directory(*now)) {
            make_folder(key, now, into);
        } else if (now && fs::is_fifo(*now)) {
            ::mkfifo(into.c_str(), 0600);
        } else {
            std::ofstream(into, std::ios::binary) << content(key, now, into);
            fs::permissions(into, fs::perms::owner_read | fs::perms::owner_write);
        }
    }

    std::string content(const std::string& key, const std::optional<fs::path>& now, const fs::path& name) {
        constexpr std::size_t kBootId = 24;
        const std::string synced = contents(platter_ / key);
        std::string current = now ? contents(*now) : synced;
        if (name.extension() == ".mark" || name.filename() == "lock.mdb") { // mapped, and of a boot that is over
            if (current.size() > kBootId) {
                current[kBootId] = static_cast<char>(current[kBootId] ^ 1);
            }
            return happens(0.5) ? current : synced;
        }
        std::string mixed = happens(kept_) ? current : synced;
        for (std::size_t at = 0; at < mixed.size(); at += unit_) {
            const std::string& from = happens(kept_) ? current : synced;
            if (at < from.size()) {
                from.copy(mixed.data() + at, std::min(unit_, mixed.size() - at), at);
            }
        }
        return mixed;
    }

    fs::path platter_;
    std::mt19937& random_;
    double kept_ = 0;
    std::size_t unit_ = 0;
};

std::size_t occurrences(const std::string& all, const std::string& text) {
    std::size_t count = 0;
    for (std::size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1)) {
        ++count;
    }
    return count;
}

/// Judges what a cut has left in `after` of a field at `home`.
class Judge {
  public:
    Judge(fs::path home, fs::path after) : home_(std::move(home)), after_(std::move(after)) {}

    /// Of what was told no message is missing that was not sent or dead-lettered; of the put after it all messages are
    /// there or none. Returns how many are there again that were sent.
    std::size_t judge_sender() {
        const std::string lines = contents(after_ / "told");
        const auto told = static_cast<std::uint32_t>(std::stoul(lines.substr(lines.rfind('\n', lines.size() - 2) + 1)));
        const auto next = std::ranges::upper_bound(expected_.ends, told);
        const std::size_t sendings = occurrences(contents(after_ / "log"), "real size[");
        const std::uint32_t sent = sendings == 0 ? 0 : expected_.travellers.at(sendings - 1);
        const Numbers waiting = read("sender/SENDER", kXmitQueue);
        const Numbers dead = read("sender/SENDER", kDeadQueue);
        const auto all_up_to = [&](std::uint32_t last) {
            Numbers numbers;
            for (std::uint32_t n = waiting.empty() ? sent + 1 : std::min(waiting.front(), sent + 1); n <= last; ++n) {
                if (std::ranges::find(dead, n) == dead.end()) {
                    numbers.push_back(n);
                }
            }
            return numbers;
        };
        EXPECT_TRUE(waiting == all_up_to(told) || (next != expected_.ends.end() && waiting == all_up_to(*next)))
            << ::testing::PrintToString(waiting) << " wait, " << told << " told, " << sent << " sent, dead "
            << ::testing::PrintToString(dead);
        const auto repeats = std::ranges::upper_bound(waiting, sent);
        const auto add_size = [&](std::uint64_t sum, std::uint32_t n) { return sum + expected_.sizes.at(n); };
        EXPECT_LE(std::accumulate(waiting.begin(), repeats, std::uint64_t{0}, add_size), 2 * kGroupBytes + kMaxMessage);
        EXPECT_LE(repeats - waiting.begin(), 2 * kGroup + 1);
        return static_cast<std::size_t>(repeats - waiting.begin());
    }

    /// All that was journalled is there, in order, and each file of each message whole.
    void judge_receiver() {
        const std::size_t journalled = occurrences(contents(after_ / "journal"), "\"event\":\"message\"");
        const Numbers found = read("receiver/RECEIVER", kTarget);
        EXPECT_GE(found.size(), journalled);
        EXPECT_TRUE(std::ranges::equal(found, expected_.travellers | std::views::take(found.size())))
            << ::testing::PrintToString(found);
    }

  private:
    /// Where a path of the field lies after the cut, unless it is a file that was put.
    [[nodiscard]] std::string after(const std::string& path) const {
        const fs::path below = fs::path(path).lexically_relative(home_);
        return *below.begin() == "files" ? path : (after_ / below).native();
    }

    /// The numbers on a queue, of unaltered messages; the queue takes one and gives one.
    Numbers read(const char* qmgr, const char* queue) {
        const auto store = Store::open(after_ / qmgr);
        Numbers numbers;
        ProofCheck check;
        store->browse(queue, 0, [&](const StoredMessage& found) {
            std::vector<std::string> files;
            std::ranges::transform(found.attachments, std::back_inserter(files),
                                   [&](const std::string& path) { return after(path); });
            std::string data(found.data.begin(), found.data.end());
            if (found.descriptor.cMsgStoreType == KVR_STORE_FILE && data.front() == '/') {
                data = after(data.c_str());
            }
            numbers.push_back(static_cast<std::uint32_t>(found.descriptor.iMsgSeqNo));
            EXPECT_TRUE(check.take(found.descriptor, data, files)) << numbers.back() << " is altered";
            return !::testing::Test::HasFailure();
        });
        EXPECT_TRUE(check.good(false)) << "out of order or repeated";
        T_KAVRO_MD descriptor = plain_descriptor();
        descriptor.iMsgSeqNo = kMostMessages;
        store->put(queue, OutgoingMessage{&descriptor, {}, {}});
        std::vector<char> buffer(kMaxMessage);
        EXPECT_GE(store->drain(queue)->next(descriptor, buffer, false), 0);
        EXPECT_EQ(static_cast<std::uint32_t>(descriptor.iMsgSeqNo), numbers.empty() ? kMostMessages : numbers.front());
        return numbers;
    }

    fs::path home_;
    fs::path after_;
    const Expected expected_;
};

/// A working process with a platter of its own.
class Work {
  public:
    Work()
        : child_(Child::fork_off([this] {
              ::setenv(kPlatterOf, base_.path().c_str(), 1);
              ::setenv(kPlatter, platter_.path().c_str(), 1);
              ::setenv("LD_PRELOAD", KVR_PLATTER_LIBRARY, 1);
              return work(base_.path());
          })) {
        await("the first word", [&] { return !fs::is_empty(base_.path()) && !contents(home() / "told").empty(); });
    }
    [[nodiscard]] fs::path home() const { return *fs::directory_iterator(base_.path()); }
    [[nodiscard]] bool goes_on() const { return !has_ended(child_); }
    int result() {
        await("the end of the work", [this] { return !goes_on(); });
        return child_.result();
    }

    /// Cuts the power now; what is left lies in `after`.
    void cut(const fs::path& after, std::mt19937& random) const {
        const PlatterLock lock(platter_.path());
        const Frozen frozen(child_.pid());
        for (const char* name : kEvidence) {
            std::ofstream(after / name) << contents(home() / name);
        }
        for (const char* part : {"sender", "receiver"}) {
            PowerCut(platter_.path(), random)
                .make_folder(platter_key(AT_FDCWD, (home() / part).c_str()), home() / part, after / part);
        }
    }

  private:
    TemporaryFolder base_;
    TemporaryFolder platter_;
    Child child_;
};

TEST(Power, CutsAtAnyMomentLoseNothingThatWasTold) {
    const char* wanted = std::getenv("KVR_BATTERY_ROUNDS"); // NOLINT(concurrency-mt-unsafe)
    const unsigned long rounds = wanted == nullptr ? 20 : std::stoul(wanted);
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    std::size_t greatest = 0;
    for (unsigned long cuts = 0; cuts < rounds;) {
        Work working;
        for (; working.goes_on() && cuts < rounds; ++cuts) {
            const TemporaryFolder after;
            working.cut(after.path(), random);
            Judge judge(fs::canonical(working.home()), after.path());
            try {
                greatest = std::max(greatest, judge.judge_sender());
                judge.judge_receiver();
            } catch (const Error& error) {
                ADD_FAILURE() << error.what();
            }
            ASSERT_FALSE(HasFailure()) << "cut " << cuts;
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % 50));
        }
        EXPECT_EQ(working.result(), 0) << "the work itself failed";
    }
    ::testing::Test::RecordProperty("cuts", std::to_string(rounds));
    ::testing::Test::RecordProperty("most repeated", std::to_string(greatest));
}

} // namespace
} // namespace kvr::test
