// SPDX-License-Identifier: MIT
// Power cuts at random moments of a channel at work. While nothing can become durable the test makes its folders as a
// disk may hold them after a cut, and judges what is there by what had been told before.
//
// What was synced is there. Of what was written since, each sector or page, each file's size and each name in a folder
// is as it was at the last sync or as it is now.
//
// Every second channel keeps what it sent: its next drainer then has all that was told to be put, from the first on.
#include <algorithm>
#include <atomic>
#include <fstream>
#include <random>
#include <thread>

#include <sys/stat.h>

#include "field.h"
#include "kvr.hpp"
#include "platter.h"
#include "proof/proof.h"
#include "store/descriptor.h"
#include "store/xmit_header.h"

namespace kvr::test {
namespace {

namespace fs = std::filesystem;
using Numbers = std::vector<std::uint32_t>;

constexpr std::uint32_t kGroup = 512; ///< used messages that are deleted together
constexpr std::uint32_t kMessages = 3000;
constexpr std::uint32_t kInBulk = 1800; ///< of them, at first: small, so that groups of used messages are full

constexpr std::chrono::seconds kKept{600};
constexpr std::uint64_t kKeptBytes = 48U << 20U;

/// The messages of the put behind that number.
std::uint32_t at_once(std::uint32_t number) {
    return number < kInBulk ? 600 : 20;
}

ProofPlan plan_of(std::uint32_t number) {
    const ProofKind file = number % 2 == 0 ? ProofKind::kFile : ProofKind::kAttached;
    const ProofKind kind = number % 25 == 0 ? file : ProofKind::kData;
    return {1, kMessages, kind, {0, number <= kInBulk ? 200U : 9000U}, {1, 30'000}};
}

/// Folders as one cut may leave them.
class PowerCut {
  public:
    explicit PowerCut(std::uint_fast32_t seed) : random_(seed) {}

    /// By a process of its own: who closes a lock's file gives up the locks that it holds there.
    int leave(const fs::path& now, const fs::path& after) {
        fs::create_directory(after);
        const fs::path synced = durable_names(now);
        std::set<std::string> names = names_in(now);
        names.merge(fs::exists(synced) ? names_in(synced) : std::set<std::string>());
        for (const std::string& name : names) {
            if (fs::is_directory(now / name)) {
                leave(now / name, after / name);
            } else if (fs::is_regular_file(now / name) && written_(random_)) {
                make(after / name, mixed(contents(durable_content(now / name)), contents(now / name)));
            } else if (fs::exists(synced / name)) {
                make(after / name, contents(synced / name));
            }
        }
        return 0;
    }

  private:
    std::string mixed(const std::string& synced, const std::string& current) {
        std::string left = written_(random_) ? current : synced;
        for (std::size_t at = 0; at < left.size(); at += unit_) {
            const std::string& from = written_(random_) ? current : synced;
            if (at < from.size()) {
                from.copy(left.data() + at, std::min(unit_, left.size() - at), at);
            }
        }
        return left;
    }

    static void make(const fs::path& file, std::string content) {
        constexpr std::size_t kBootId = 24;
        constexpr std::size_t kThrough = 128;
        const bool is_mark = file.extension() == ".mark";
        if ((is_mark || file.extension() == ".claims") && content.size() > kThrough) { // of a boot that is over
            content[kBootId] = '?';
            content[kThrough + 4] = is_mark ? 1 : content[kThrough + 4]; // ahead of the disk
        }
        std::ofstream(file, std::ios::binary) << content;
    }

    std::mt19937 random_;
    std::bernoulli_distribution written_{static_cast<double>(random_() % 5) / 4};
    std::size_t unit_ = random_() % 2 == 0 ? 512 : 4096;
};

/// A channel at work, from the first put to the last arrival, and the judge of what a cut leaves of it.
class Work {
  public:
    Work(const fs::path& base, bool keeps) : field_(Carrier::kPlain, true, base), keeps_(keeps) {
        field_.set_channel(keeps ? Attributes{{"KEEPINT", "3600"}, {"REPEAT", "LOSS"}} : Attributes());
        worker_.emplace(field_.run_channel());
    }
    [[nodiscard]] bool goes_on() { return field_.arrived() < kMessages; }

    void cut(std::mt19937& random) {
        const TemporaryFolder after;
        const UniqueFd held = hold_platter();
        PowerCut power_cut(random());
        Child leaver = Child::fork_off([&] {
            return power_cut.leave(field_.home() / "sender", after.path() / "sender") +
                   power_cut.leave(field_.home() / "receiver", after.path() / "receiver");
        });
        EXPECT_EQ(leaver.result(), 0);
        const Numbers arrived = numbers_on(kTarget, after.path(), "receiver/RECEIVER");
        EXPECT_GE(arrived.size(), field_.journalled("message"));
        EXPECT_EQ(arrived.size(), arrived.empty() ? 0 : arrived.back()) << "the first are missing";
        const Numbers waiting = numbers_on(kXmitQueue, after.path(), "sender/SENDER");
        most_repeated = std::max(most_repeated, repeated_on(waiting));
        if (keeps_) {
            expect_all(after.path() / "sender/SENDER", waiting.empty() ? put_.load() : waiting.back());
        }
    }
    inline static std::uint32_t most_repeated = 0; ///< messages that were there again after one cut

  private:
    void put_all(const std::stop_token& stop) {
        while (put_ < kMessages && !stop.stop_requested()) {
            const std::uint32_t end = put_ + at_once(put_);
            std::vector<ProofMessage> messages;
            std::vector<OutgoingMessage> outgoing;
            messages.reserve(end - put_);
            for (std::uint32_t number = put_ + 1; number <= end; ++number) {
                ProofMessage& message = messages.emplace_back(
                    make_proof(plan_of(number), number, blank_descriptor(), field_.home() / "files"));
                message.data.insert(0, xmit_header({kTarget, ""}));
                outgoing.push_back({&message.descriptor, message.attachments, message.data});
            }
            field_.sender().put(kXmitQueue, outgoing);
            put_ = end;
        }
    }

    /// The numbers on a queue: of unaltered messages, in order and without a gap.
    Numbers numbers_on(const char* queue, const fs::path& after, const char* qmgr) {
        const auto moved = [&, spool = field_.spool().native()](const std::string& text) {
            return text.starts_with(spool) ? after.native() + text.substr(field_.home().native().size()) : text;
        };
        Numbers numbers;
        ProofCheck check;
        Store::open(after / qmgr)->browse(queue, 0, [&](const StoredMessage& found) {
            std::vector<std::string> files;
            std::ranges::transform(found.attachments, std::back_inserter(files), moved);
            check.take(found.descriptor, moved({found.data.begin(), found.data.end()}), files);
            numbers.push_back(static_cast<std::uint32_t>(found.descriptor.iMsgSeqNo));
            return true;
        });
        EXPECT_TRUE(check.good(false)) << "altered, repeated or out of order";
        EXPECT_TRUE(numbers.empty() || numbers.back() - numbers.front() + 1 == numbers.size())
            << ::testing::PrintToString(numbers);
        return numbers;
    }

    /// What was sent may be there again, up to two groups of it; none is missing (or the difference is huge). Of a put
    /// that was not told all is there, or nothing.
    std::uint32_t repeated_on(const Numbers& waiting) {
        const std::uint32_t put = put_;
        const auto sent = static_cast<std::uint32_t>(field_.count("log", "real size["));
        const std::uint32_t first = waiting.empty() ? sent + 1 : waiting.front();
        const std::uint32_t last = waiting.empty() ? sent : waiting.back();
        EXPECT_TRUE(last == put || last == put + at_once(put)) << last << " is the last, told are " << put;
        EXPECT_LE(sent + 1 - first, 2 * kGroup + 1) << first << " is the first, sent " << sent;
        return sent + 1 - first;
    }

    /// The drainer after a cut gets what can be gone with the line, which is all of it, and then the rest.
    static void expect_all(const fs::path& qmgr, std::uint32_t last) {
        const DrainOptions options{
            .keep = KeepLimits{kKept, kKeptBytes}, .window = {kKept, kKeptBytes}, .repeat = true};
        const auto getter = Store::open(qmgr)->drain(kXmitQueue, options);
        T_KAVRO_MD descriptor{};
        std::vector<char> buffer(kMaxMessage);
        std::uint32_t number = 0;
        while (getter->next(descriptor, buffer, false) >= 0) {
            ASSERT_EQ(static_cast<std::uint32_t>(descriptor.iMsgSeqNo), ++number);
        }
        EXPECT_EQ(number, last);
    }

    Field field_;
    bool keeps_;
    Child listener_ = field_.listen();
    std::optional<Child> worker_;
    std::atomic<std::uint32_t> put_ = 0;
    std::jthread putter_{[this](const std::stop_token& stop) { put_all(stop); }};
};

constexpr std::uint32_t kNumbers = 600;

/// Units of work, each of which takes some numbers from one queue and puts them on two.
class Units {
  public:
    explicit Units(const fs::path& base) : home_(base) {
        Store::create(home_ / "QM", "QM", {});
        const auto store = Store::open(home_ / "QM");
        for (const char* const queue : {"FROM", "ONE", "TWO"}) {
            store->queue_define(queue, "");
        }
        app::Connection qm(home_, "QM");
        app::Unit unit(qm);
        for (std::uint32_t number = 1; number <= kNumbers; ++number) {
            unit.put("FROM", app::Message(std::to_string(number)));
        }
        unit.commit();
        worker_ = std::jthread([this](const std::stop_token& stop) { work(stop); });
    }
    [[nodiscard]] bool goes_on() const { return done_ < kNumbers; }

    void cut(std::mt19937& random) {
        const TemporaryFolder after;
        const UniqueFd held = hold_platter();
        const std::uint32_t begun = begun_; // before what is done: that may get there now
        const std::uint32_t done = done_;
        PowerCut power_cut(random());
        ASSERT_EQ(Child::fork_off([&] { return power_cut.leave(home_ / "QM", after.path() / "QM"); }).result(), 0);
        app::Connection qm(after.path(), "QM");
        const Numbers put = numbers_on(qm, "ONE");
        EXPECT_EQ(put, numbers_on(qm, "TWO"));
        EXPECT_TRUE(put.size() == done || put.size() == begun) << put.size() << ", told are " << done;
        Numbers all = put;
        const Numbers left = numbers_on(qm, "FROM");
        all.insert(all.end(), left.begin(), left.end());
        Numbers whole(kNumbers);
        std::iota(whole.begin(), whole.end(), 1);
        EXPECT_EQ(all, whole);
    }

  private:
    void work(const std::stop_token& stop) {
        app::Connection qm(home_, "QM");
        app::Message message;
        for (std::uint32_t size = 1; goes_on() && !stop.stop_requested(); size = size % 20 + 1) {
            app::Unit unit(qm);
            std::uint32_t count = 0;
            while (count < size && unit.get("FROM", message) == app::Got::kMessage) {
                unit.put("ONE", message);
                unit.put("TWO", message);
                ++count;
            }
            begun_ = done_ + count;
            unit.commit();
            done_ = begun_.load();
        }
    }
    /// Takes all.
    static Numbers numbers_on(app::Connection& qm, const char* queue) {
        Numbers numbers;
        app::Unit unit(qm);
        for (app::Message message; unit.get(queue, message) == app::Got::kMessage;) {
            numbers.push_back(static_cast<std::uint32_t>(std::stoul(std::string(message.data()))));
        }
        return numbers;
    }

    const fs::path home_;
    std::atomic<std::uint32_t> done_ = 0;
    std::atomic<std::uint32_t> begun_ = 0;
    std::jthread worker_;
};

unsigned long rounds_wanted() {
    const char* wanted = std::getenv("KVR_BATTERY_ROUNDS"); // NOLINT(concurrency-mt-unsafe)
    return wanted == nullptr ? 20 : std::stoul(wanted);
}

/// Cuts the power of one work after the other, of each up to so many times, at moments that chance chooses.
/// @param make  makes a work in a folder that is on the platter
template <class Make>
void cut_power(unsigned long of_each, unsigned milliseconds, Make make) {
    const unsigned long rounds = rounds_wanted();
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    ::umask(0077);
    for (unsigned long cuts = 0; cuts < rounds;) {
        const TemporaryFolder base;
        fs::create_directory(base.path() / "platter");
        ::setenv(kPlatter, (base.path() / "platter").c_str(), 1);
        const auto work = make(base.path());
        for (const auto end = std::min(rounds, cuts + of_each); work->goes_on() && cuts < end; ++cuts) {
            ASSERT_NO_THROW(work->cut(random));
            ASSERT_FALSE(testing::Test::HasFailure()) << "cut " << cuts;
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % milliseconds));
        }
    }
}

TEST(Power, CutsLeaveUnitsOfWorkWholeOrUndone) {
    cut_power(rounds_wanted(), 10, [](const fs::path& base) { return std::make_unique<Units>(base); });
}

TEST(Power, CutsAtAnyMomentLoseNothingThatWasTold) {
    ::setenv("LD_PRELOAD", KVR_PLATTER_LIBRARY, 1);
    cut_power((rounds_wanted() + 1) / 2, 25, [keeps = true](const fs::path& base) mutable {
        keeps = !keeps;
        return std::make_unique<Work>(base, keeps);
    });
    RecordProperty("cuts", std::to_string(rounds_wanted()));
    RecordProperty("most repeated", std::to_string(Work::most_repeated));
}

} // namespace
} // namespace kvr::test
