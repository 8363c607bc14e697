// SPDX-License-Identifier: MIT
// The receiver ends the connection after every byte of a bind frame, a plain message, one with two attached files and
// a file message; and what a cut under load costs.
//
// One worker meets all cuts. Lines are bad and good in turn, so that no message meets two cuts in a row: a bad one is
// cut after so many bytes, the good one behind it is given up by the test when everything has been written.
#include <algorithm>
#include <fstream>
#include <iomanip>
#include <set>
#include <sstream>

#include <sys/syscall.h>

#include "field.h"
#include "log_tail.h"
#include "wait_marks.h"

namespace kvr::test {
namespace {

constexpr std::uint64_t kBindFrame = 75 + sizeof(kChannel) - 1;

struct Case {
    Carrier carrier;
    bool reset;

    [[nodiscard]] const char* option() const { return reset ? "--reset-after" : "--close-after"; }
};

/// The system call in which a process waits; -1 when it runs.
long waits_in(pid_t pid) {
    std::ifstream stream("/proc/" + std::to_string(pid) + "/syscall");
    long number = -1;
    return stream >> number ? number : -1;
}

/// Bytes that the sender at this port has written and the receiver has not read yet.
std::uint64_t bytes_on_the_way(const std::string& port) {
    std::ostringstream wanted;
    wanted << ':' << std::uppercase << std::hex << std::setw(4) << std::setfill('0') << std::stoi(port);
    std::ifstream table("/proc/net/tcp");
    std::uint64_t bytes = 0;
    for (std::string line; std::getline(table, line);) {
        std::istringstream words(line);
        std::string number, local, remote, state, queues;
        words >> number >> local >> remote >> state >> queues;
        if (queues.size() > 9 && local.ends_with(wanted.str())) {
            bytes += std::stoull(queues.substr(0, 8), nullptr, 16); // not sent, or not acknowledged
        } else if (queues.size() > 9 && remote.ends_with(wanted.str())) {
            bytes += std::stoull(queues.substr(9), nullptr, 16); // not read by the receiver
        }
    }
    return bytes;
}

class Cuts : public ::testing::TestWithParam<Case> {
  protected:
    Cuts() : field_(GetParam().carrier) {
        // A line that ends between two gets is noticed by the next heartbeat or message. The time-outs are long, so
        // that a busy machine costs no line of its own: good and bad ones would change places.
        field_.set_channel({{"HBINT", "1"}, {"SHORTTMR", "60"}});
        // What survives a power loss is not asked here, and the status is written thousands of times.
        field_.sender().change_settings({{"sync", "off"}});
        field_.receiver().change_settings({{"sync", "off"}});
    }

    void put_one_of_each() {
        field_.put(MessageKind::kData, 1, 200, 200);
        field_.put(MessageKind::kSmall, 1, 100, 100);
        field_.put(MessageKind::kFile, 1, 300, 300);
    }

    /// Bytes on a connection from its start to the end of each of these last messages.
    [[nodiscard]] std::vector<std::uint64_t> ends_of_last(std::size_t count) const {
        std::vector<std::uint64_t> ends;
        std::uint64_t end = kBindFrame;
        for (auto each = field_.ledger().end() - static_cast<std::ptrdiff_t>(count); each != field_.ledger().end();
             ++each) {
            end += wire_size(kTag, *each);
            if (each->kind == MessageKind::kFile) {
                end += (field_.home() / "files" / files_of(kTag, *each).front().name).native().size();
            }
            ends.push_back(end);
        }
        return ends;
    }

    /// Waits until the listener has taken so many connections.
    void await_connections(std::size_t count) {
        await("connection " + std::to_string(count), [&] {
            out_.each_new_line(
                [&](const std::string& line) { cut_ += line.find("on purpose after") == std::string::npos ? 0U : 1U; });
            look_at_journal();
            return connections_ >= count;
        });
    }

    /// The bad line was cut: everything else goes over a good one, which then gives place to the next bad one.
    void recover(const Child& worker) {
        await_connections(2 * lines_++ + 2);
        field_.await_drained();
        await("a waiting worker", [&] { return waits_in(worker.pid()) == SYS_ppoll; });
        // This cut is the test's own and must cost nothing.
        const std::string line = field_.status("LOCALPORT");
        await("a receiver that has read all", [&] { return bytes_on_the_way(line) == 0; });
        beats_ = heartbeats();
        ::kill(worker.pid(), SIGUSR2);
        await_connections(2 * lines_ + 1);
    }

    /// Heartbeats that the listener has met so far: on a bad line one moves the offset of the cut.
    std::size_t heartbeats() {
        look_at_journal();
        return heartbeats_;
    }

    void look_at_journal() {
        journal_.each_new_line([&](const std::string& line) {
            heartbeats_ += line.find("\"event\":\"heartbeat\"") == std::string::npos ? 0U : 1U;
            connections_ += line.find("\"event\":\"connect\"") == std::string::npos ? 0U : 1U;
        });
    }

    std::set<std::uint64_t> delivered() {
        std::set<std::uint64_t> numbers;
        field_.receiver().browse(kTarget, 0, [&](const StoredMessage& found) {
            numbers.insert(number_of(kTag, found.descriptor).value_or(0));
            return true;
        });
        return numbers;
    }

    /// Cuts lines while many messages go over them, and records what each cut cost.
    void cut_under_load(std::uint64_t read_rate);

    Field field_;
    LogTail out_{field_.home() / "out"};
    LogTail journal_{field_.home() / "journal"};
    std::size_t heartbeats_ = 0;
    std::size_t beats_ = 0; ///< heartbeats when the good line was given up
    std::size_t connections_ = 0;
    std::size_t cut_ = 0;
    std::size_t lines_ = 0; ///< good ones so far
};

TEST_P(Cuts, AfterEachByteCostNoMoreThanWhatWasOnTheWay) {
    put_one_of_each();
    const std::uint64_t whole = ends_of_last(3).back();
    const std::size_t step = std::max<std::size_t>(whole / rounds(whole / 14), 1);
    const std::uint64_t first = GetParam().reset ? 1 + step / 2 : 1;
    const Child listener =
        field_.listen({GetParam().option(), std::to_string(first), "--awkward-step", std::to_string(step)});
    Child worker = field_.run_channel(short_pauses());

    std::vector<std::uint64_t> safe; // messages that came in whole before their line was cut
    std::uint64_t cuts = 0;
    for (std::uint64_t at = first; at <= whole && !HasFailure(); at += step, ++cuts) {
        if (cuts > 0) {
            put_one_of_each();
        }
        const auto ends = ends_of_last(3);
        const std::size_t before = beats_;
        recover(worker);
        for (std::size_t i = 0; i < ends.size() && ends[i] <= at && beats_ == before; ++i) {
            safe.push_back(field_.ledger().size() - ends.size() + i + 1);
        }
    }
    EXPECT_EQ(cut_, cuts);
    EXPECT_EQ(worker.result_under(SIGTERM), 0);

    const Verdict verdict = field_.judge(cuts);
    EXPECT_EQ(verdict.dead + verdict.held + verdict.waiting, 0U);
    const auto arrived = delivered();
    EXPECT_TRUE(std::ranges::includes(arrived, safe)) << "a message that was received before the cut is missing";
    RecordProperty("cuts", std::to_string(cuts));
    RecordProperty("messages", std::to_string(verdict.sent));
    RecordProperty("messages lost", std::to_string(verdict.lost));
}

void Cuts::cut_under_load(std::uint64_t read_rate) {
    constexpr std::size_t kSize = 16384;
    constexpr std::size_t kLoad = 10U << 20U;
    constexpr std::uint64_t kFirst = 1'000'000;
    constexpr std::size_t kGreatestCount = 100;
    const Child listener = field_.listen({GetParam().option(), std::to_string(kFirst), "--awkward-step", "5003",
                                          "--read-rate", std::to_string(read_rate)});
    Child worker = field_.run_channel(short_pauses());
    await_connections(1);
    const std::size_t cuts = std::min(rounds(2), kGreatestCount);
    for (std::size_t i = 0; i < cuts && !HasFailure(); ++i) {
        field_.put(MessageKind::kData, kLoad / kSize, kSize, kSize);
        recover(worker);
    }
    EXPECT_EQ(cut_, cuts);
    EXPECT_EQ(worker.result_under(SIGTERM), 0);
    const Verdict verdict = field_.judge(cuts);
    EXPECT_EQ(verdict.dead + verdict.held + verdict.waiting, 0U);

    std::vector<std::uint64_t> lost(cuts);
    const auto arrived = delivered();
    for (const NumberedMessage& message : field_.ledger()) {
        if (!arrived.contains(message.number)) {
            lost[(message.number - 1) / (kLoad / kSize)] += wire_size(kTag, message);
        }
    }
    std::ranges::sort(lost);
    const auto rank = [&](std::size_t percent) { return std::to_string(lost[(cuts * percent + 99) / 100 - 1]); };
    RecordProperty("cuts", std::to_string(cuts));
    RecordProperty("bytes lost, median", rank(50));
    RecordProperty("bytes lost, p99", rank(99));
    RecordProperty("bytes lost, maximum", rank(100));
}

TEST_P(Cuts, UnderLoadWithAFastReader) {
    cut_under_load(0);
}

TEST_P(Cuts, UnderLoadWithASlowReader) {
    cut_under_load(4'000'000);
}

} // namespace

INSTANTIATE_TEST_SUITE_P(Ends, Cuts,
                         ::testing::Values(Case{Carrier::kPlain, false}, Case{Carrier::kPlain, true},
                                           Case{Carrier::kTls13, false}, Case{Carrier::kTls13, true}),
                         [](const auto& test) {
                             return std::string(carrier_name(test.param.carrier)) +
                                    (test.param.reset ? "Reset" : "Closed");
                         });

} // namespace kvr::test
