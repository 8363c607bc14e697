// SPDX-License-Identifier: MIT
// Programs that are killed and stopped with messages in hand. The system's calls that matter are replaced by ones that
// count: a worker is killed before, within and after each of them, and between the calls of the interface.
#include <atomic>
#include <cstdarg>
#include <future>
#include <random>
#include <thread>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/uio.h>

#include "bindings/program_fixture.h"
#include "kavutil/export.h"

namespace {

/// Shared by the processes of a test.
struct Points {
    std::atomic<std::uint32_t> passed{0};
    std::atomic<std::uint32_t> last{0}; ///< who reaches it is killed
    std::atomic<bool> stop_in_turn{false};
};
Points* g_points = nullptr; ///< of a worker

void point() {
    if (g_points != nullptr && ++g_points->passed == g_points->last) {
        ::raise(SIGKILL);
    }
}

} // namespace

#define KVR_REAL(name) (reinterpret_cast<decltype(&::name)>(::dlsym(RTLD_NEXT, #name))) // NOLINT
#define KVR_COUNTED(type, name, parameters, ...)                                                                       \
    extern "C" KVR_EXPORT type name parameters {                                                                       \
        point();                                                                                                       \
        const type result = KVR_REAL(name)(__VA_ARGS__);                                                               \
        point();                                                                                                       \
        return result;                                                                                                 \
    }
KVR_COUNTED(ssize_t, writev, (int fd, const iovec* parts, int count), fd, parts, count)
KVR_COUNTED(ssize_t, write, (int fd, const void* data, size_t size), fd, data, size)
KVR_COUNTED(int, fdatasync, (int fd), fd)
extern "C" KVR_EXPORT ssize_t pwrite(int fd, const void* data, size_t size, off_t at) {
    point();
    if (g_points != nullptr && g_points->passed + 1 == g_points->last) {
        KVR_REAL(pwrite)(fd, data, size / 2, at);
    }
    point();
    const ssize_t result = KVR_REAL(pwrite)(fd, data, size, at);
    point();
    return result;
}
extern "C" KVR_EXPORT int fcntl(int fd, int command, ...) {
    va_list rest;
    va_start(rest, command);
    void* const argument = va_arg(rest, void*);
    va_end(rest);
    point();
    const int result = KVR_REAL(fcntl)(fd, command, argument);
    point();
    const auto* const lock = static_cast<const struct flock*>(argument);
    if (g_points != nullptr && g_points->stop_in_turn && command == F_SETLK && result == 0 && lock->l_start == 0 &&
        lock->l_type == F_WRLCK && g_points->stop_in_turn.exchange(false)) {
        ::raise(SIGSTOP); // who gets messages takes no other lock at the beginning of a file
    }
    return result;
}

namespace kvr::test {
namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;
using Random = std::mt19937;

unsigned long from_environment(const char* name, unsigned long usual) {
    const char* const given = std::getenv(name); // NOLINT(concurrency-mt-unsafe)
    return given == nullptr ? usual : std::stoul(given);
}

/// In memory of all processes that are forked off from here on.
template <class Record>
Record& make_shared() {
    void* const memory = ::mmap(nullptr, sizeof(Record), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return *new (memory) Record;
}

class Kills : public BindingsTest {
  protected:
    static std::size_t number_of(const Message& message) { return std::stoul(std::string(message.data())); }

    Random random_{std::random_device{}()};
    std::uint32_t draw(std::uint32_t below) { return static_cast<std::uint32_t>(random_()) % below; }
};

// ---- Units of one worker ----

constexpr std::size_t kBatch = 12;

class KilledUnits : public Kills {
  protected:
    struct Record {
        Points points;
        std::atomic<std::size_t> highest;
        struct {
            std::atomic<std::uint32_t> in_hand, back;
        } messages[kBatch + 1];
    };

    /// Takes one to three messages, answers each on two queues, and commits, or each fourth time rolls back.
    int work() {
        g_points = &record_.points;
        Connection qm = connect();
        for (std::size_t number = 0;; ++number) {
            Unit unit(qm);
            std::vector<std::size_t> taken;
            for (Message message; taken.size() <= number % 3 && unit.get("Q", message) == Got::kMessage; point()) {
                taken.push_back(number_of(message));
                record_.highest = std::max(record_.highest.load(), taken.back());
                record_.messages[taken.back()].in_hand = 1;
                point();
                unit.put("OTHER", message);
                point();
                unit.put("ASIDE", message);
            }
            if (taken.empty()) {
                return 0;
            }
            number % 4 == 3 ? unit.rollback() : unit.commit();
            for (const std::size_t each : taken) {
                record_.messages[each].in_hand = 0;
                record_.messages[each].back += number % 4 == 3 ? 1 : 0;
            }
            point();
        }
    }

    void fill() {
        record_.points.passed = 0;
        record_.highest = 0;
        for (std::size_t number = 1; number <= kBatch; ++number) {
            record_.messages[number].in_hand = record_.messages[number].back = 0;
            put({std::to_string(number)});
        }
    }

    /// Each message is on Q, or answered on both queues. What was in hand is there at once, and counted.
    void judge() {
        Connection other = connect();
        Unit unit(other);
        Message message;
        std::array<int, kBatch + 1> seen{1};
        for (std::size_t last = 0; unit.get("Q", message) == Got::kMessage; last = number_of(message)) {
            const std::size_t number = number_of(message);
            EXPECT_GT(number, last) << "out of order";
            ++seen.at(number);
            const std::uint32_t least = record_.messages[number].back + record_.messages[number].in_hand;
            EXPECT_GE(message.given_back(), least) << number;
            EXPECT_LE(message.given_back(), least + (number <= record_.highest + 1 ? 1 : 0)) << number; // or had it
        }
        for (Message copy; unit.get("OTHER", message) == Got::kMessage;) {
            ++seen.at(number_of(message));
            ASSERT_EQ(unit.get("ASIDE", copy), Got::kMessage);
            EXPECT_EQ(copy.data(), message.data());
        }
        EXPECT_EQ(unit.get("ASIDE", message), Got::kNone);
        unit.commit();
        EXPECT_THAT(seen, testing::Each(1)) << "lost or there twice";
    }

    Record& record_ = make_shared<Record>();
};

TEST_F(KilledUnits, AtEveryCallHappenWhollyOrNotAtAll) {
    const unsigned long kills = from_environment("KVR_KILLS", 40);
    fill();
    const auto begin = Clock::now();
    const auto first_worker = [&] {
        store()->change_settings({{"sync", "on"}}); // for all that open it from here on, which the test itself does not
        return work();
    };
    ASSERT_EQ(Child::fork_off(first_worker).result(), 0);
    const auto whole = Clock::now() - begin;
    const std::uint32_t points = record_.points.passed;
    judge();
    std::uint32_t by_call = 0;
    unsigned long killed = 0;
    for (unsigned long kill = 0; kill < kills && !HasFailure(); ++kill) {
        kill % 2 == 0 ? static_cast<void>(take(qm_)) : qm_.release("Q"); // a taker beside it, or none
        fill();
        const bool by_time = kill % 4 == 3;
        record_.points.last = by_time ? 0 : kills > points ? by_call++ % points + 1 : draw(points) + 1;
        SCOPED_TRACE("killed at " + std::to_string(record_.points.last));
        Child worker = Child::fork_off([&] { return work(); });
        if (by_time) {
            std::this_thread::sleep_for(whole * draw(1000) / 1000);
        }
        const int result = worker.result_under(by_time ? SIGKILL : 0);
        killed += result == -SIGKILL ? 1U : 0U;
        EXPECT_TRUE(result == -SIGKILL || result == 0) << result; // not all make as many calls
        judge();
    }
    EXPECT_GT(killed, kills / 2);
    RecordProperty("calls", std::to_string(points));
}

TEST_F(KilledUnits, OfATakerThatIsStoppedInItsTurnAreNamedAndGoOn) {
    fill();
    record_.points.stop_in_turn = true;
    Child worker = Child::fork_off([&] { return work(); });
    int status = 0;
    ASSERT_EQ(::waitpid(worker.pid(), &status, WUNTRACED), worker.pid());
    ASSERT_TRUE(WIFSTOPPED(status));
    limit_waits(milliseconds(1));
    Message message;
    EXPECT_EQ(code_of([&] { return qm_.get("Q", message); }), KVR_E_BUSY);
    EXPECT_THAT(kvr_error(), testing::HasSubstr(std::to_string(worker.pid()) + ", which takes messages by"));
    limit_waits(std::chrono::hours(1));
    ::kill(worker.pid(), SIGCONT);
    EXPECT_EQ(worker.result(), 0);
    judge();
}

// ---- Many takers and putters ----

constexpr std::size_t kMany = 4;
constexpr std::size_t kEach = 400'000; ///< messages of a putter, at most

class Storm : public Kills {
  protected:
    struct Record {
        std::atomic<bool> stop{false}; ///< no more puts
        std::atomic<bool> over{false}; ///< all was put
        std::atomic<std::size_t> put[kMany]{};
        struct {
            std::atomic<bool> put, handed, settled;
        } messages[kMany * kEach];
    };

    int put_some(std::size_t who) {
        Connection qm = connect();
        while (!record_.stop) {
            const std::size_t first = who * kEach + record_.put[who];
            const std::size_t end = first + 1 + draw(8);
            if (end > (who + 1) * kEach || qm.depth("Q") > 300) {
                std::this_thread::sleep_for(milliseconds(1));
                continue;
            }
            record_.put[who] += end - first;
            Unit unit(qm);
            for (std::size_t number = first; number < end; ++number) {
                Message message(std::to_string(number));
                message.set(KVR_CORRELATION_ID, id_of(number));
                unit.put("Q", message);
            }
            unit.commit();
            std::for_each(&record_.messages[first], &record_.messages[end], [](auto& each) { each.put = true; });
        }
        return 0;
    }
    static std::string id_of(std::size_t number) { return {static_cast<char>('a' + number % 4)}; }

    /// Answers odd messages, and those that are even only process. Returns 0 when all is over, else what is wrong.
    int take_some() {
        Connection qm = connect();
        for (std::uint64_t last = 0;;) {
            const std::size_t most = 1 + draw(20);
            const std::string id = id_of(draw(4));
            const bool chosen = draw(8) == 0;
            const bool over = record_.over;
            Wanted wanted{milliseconds(over ? 0 : draw(50))};
            if (chosen) {
                wanted.correlation_id = id;
            }
            Unit unit(qm);
            std::vector<std::size_t> taken;
            for (Message message; taken.size() < most && unit.get("Q", message, wanted) == Got::kMessage;) {
                taken.push_back(number_of(message));
                auto& known = record_.messages[taken.back()];
                const bool in_order = chosen ? message.correlation_id() == id : message.place() > last;
                if (known.settled || (message.given_back() == 0 && (known.handed || !in_order))) {
                    return 1;
                }
                known.handed = true;
                last = chosen ? last : message.place();
                if (taken.back() % 2 != 0) {
                    unit.put("OTHER", message);
                }
            }
            if (taken.empty() && over && !chosen) {
                return 0;
            }
            if (draw(8) != 0) {
                unit.commit();
                std::ranges::for_each(taken, [&](auto number) { record_.messages[number].settled = true; });
            }
        }
    }

    /// The first half of them take.
    Child start(std::size_t who) {
        return Child::fork_off([&] {
            random_.seed(std::random_device{}());
            return who < kMany ? take_some() : put_some(who - kMany);
        });
    }

    void judge() {
        EXPECT_EQ(qm_.depth("Q"), 0U);
        std::vector<int> answers(kMany * kEach);
        store()->browse("OTHER", 0, [&](const StoredMessage& message) {
            return ++answers.at(std::stoul(std::string(message.data.begin(), message.data.end()))) > 0;
        });
        for (std::size_t number = 0; number < answers.size(); ++number) {
            const bool odd = number % 2 != 0;
            EXPECT_TRUE(!record_.messages[number].put ||
                        (odd ? answers[number] == 1 : record_.messages[number].handed.load()))
                << number << " is lost";
            EXPECT_LE(answers[number], odd ? 1 : 0) << number;
        }
    }

    Record& record_ = make_shared<Record>();
};

TEST_F(Storm, OfKillsLosesNothingAndRepeatsOnlyWhatWasInHand) {
    const auto end = Clock::now() + std::chrono::seconds(from_environment("KVR_STORM_SECONDS", 2));
    std::vector<std::optional<Child>> children;
    for (std::size_t who = 0; who < 2 * kMany; ++who) {
        children.emplace_back(start(who));
    }
    std::size_t kills = 0;
    while (Clock::now() < end && !HasFailure()) {
        std::this_thread::sleep_for(milliseconds(draw(30)));
        const std::size_t who = draw(2 * kMany);
        if (draw(4) == 0) { // others go on, or wait for it
            ::kill(children[who]->pid(), SIGSTOP);
            std::this_thread::sleep_for(milliseconds(draw(20)));
            ::kill(children[who]->pid(), SIGCONT);
            continue;
        }
        ASSERT_EQ(children[who]->result_under(SIGKILL), -SIGKILL);
        children[who].emplace(start(who));
        ++kills;
    }
    record_.stop = true;
    for (std::size_t left = children.size(); left-- > 0; record_.over = left <= kMany) { // putters first
        EXPECT_EQ(children[left]->result(), 0);
    }
    judge();
    RecordProperty("messages", std::to_string(qm_.depth("OTHER") * 2));
    RecordProperty("kills", std::to_string(kills));
}

} // namespace
} // namespace kvr::test
