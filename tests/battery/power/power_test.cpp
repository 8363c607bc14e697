// SPDX-License-Identifier: MIT
// Power cuts at random moments of a channel at work. Every write of the test, the worker and the listener is recorded;
// each cut makes the folders of both queue managers and the spool as a disk may hold them then.
#include <algorithm>
#include <fstream>
#include <numeric>

#include <fcntl.h>
#include <unistd.h>

#include "field.h"
#include "numbered_put.h"
#include "power_replay.h"
#include "support/folder.h"

namespace kvr::test {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kGroup = 512;
constexpr std::uint64_t kGroupBytes = 8U << 20;
constexpr std::uint64_t kNewNumber = 99'999'999;
using Numbers = std::vector<std::uint64_t>;

class Power : public ::testing::Test {
  protected:
    Power() {
        ::setenv(kPowerFolder, base_.path().c_str(), 1);
        ::setenv(kPowerRecords, (records_.path() / "records").c_str(), 1);
        ::setenv("LD_PRELOAD", KVR_POWER_RECORDER, 1);
    }
    ~Power() override { stop_recording(); }

    static void stop_recording() {
        for (const char* name : {kPowerFolder, kPowerRecords, "LD_PRELOAD"}) {
            ::unsetenv(name);
        }
    }

    TemporaryFolder base_;
    TemporaryFolder records_;
};

/// A field whose puts are told to the record.
class RecordedField : public Field {
  public:
    explicit RecordedField(const fs::path& where)
        : Field(Carrier::kPlain, where), told_(::open((home() / "told").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600)) {
        const int folder = ::open(home().c_str(), O_RDONLY | O_DIRECTORY);
        ::fsync(folder); // the queue managers' folders and the spool are made
        ::close(folder);
        tell();
    }
    ~RecordedField() { ::close(told_); }
    RecordedField(const RecordedField&) = delete;
    RecordedField& operator=(const RecordedField&) = delete;

    /// One put of at most kPutGroup messages.
    void put_told(MessageKind kind, std::uint64_t count, std::size_t least, std::size_t greatest) {
        put(kind, count, least, greatest);
        tell();
        ends_.push_back(ledger().size());
    }
    /// The number that the put after the one that ended with `told` ends with.
    [[nodiscard]] std::uint64_t end_after(std::uint64_t told) const {
        const auto next = std::upper_bound(ends_.begin(), ends_.end(), told);
        return next == ends_.end() ? told : *next;
    }
    /// Those that travel, in their order.
    [[nodiscard]] Numbers travellers() const {
        Numbers numbers;
        for (const NumberedMessage& message : ledger()) {
            if (message.kind != MessageKind::kHeaderless) {
                numbers.push_back(message.number);
            }
        }
        return numbers;
    }

  private:
    void tell() const {
        const std::string line = std::to_string(ledger().size()) + "\n";
        ASSERT_EQ(::write(told_, line.data(), line.size()), static_cast<ssize_t>(line.size()));
    }

    int told_;
    std::vector<std::uint64_t> ends_;
};

/// Puts before, while and after the channel runs: full groups of used messages, and deletes between puts.
void work(RecordedField& field) {
    for (int i = 0; i < 6; ++i) {
        field.put_told(MessageKind::kData, 200, 0, 200);
    }
    Child listener = field.listen();
    Child worker = field.run_channel();
    for (int i = 0; i < 12; ++i) {
        field.put_told(MessageKind::kAttached, 3, 0, 3000);
        field.put_told(MessageKind::kData, 60, 0, 9000);
        field.put_told(MessageKind::kFile, 2, 1, 30000);
        if (i % 4 == 0) {
            field.await_drained();
            field.put_told(MessageKind::kHeaderless, 1, 100, 100);
        }
    }
    field.await_drained();
    field.await_arrived(field.travellers().size());
    EXPECT_EQ(worker.result_under(SIGTERM), 0);
    EXPECT_EQ(end_listener(listener), 0);
}

std::uint64_t occurrences(const std::string& all, const std::string& text) {
    std::uint64_t count = 0;
    for (std::size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1)) {
        ++count;
    }
    return count;
}

/// What is mapped is not recorded: after the cut some older state of it stands there, of a boot that is over.
void leave_old_maps(const fs::path& live, const fs::path& after) {
    constexpr std::size_t kBootId = 24;
    for (const char* qmgr : {kSender, kReceiver}) {
        for (const fs::path& file : {fs::path(qmgr) / "store" / "lock.mdb", fs::path(qmgr) / "queues" / "1.mark",
                                     fs::path(qmgr) / "queues" / "2.mark"}) {
            if (std::string bytes = contents(live / file); fs::exists(after / file) && !bytes.empty()) {
                bytes[kBootId] = static_cast<char>(bytes[kBootId] ^ 1);
                std::ofstream(after / file, std::ios::binary) << bytes;
            }
        }
    }
}

/// One power cut, judged.
class Cut {
  public:
    Cut(const RecordedField& field, const PowerReplay& replay, fs::path after)
        : field_(field), replay_(replay), after_(std::move(after)) {}

    /// Of what was told no message is missing that was not sent or dead-lettered; of the put after it all messages are
    /// there or none. Returns how many are there again that were sent.
    std::uint64_t judge_sender() {
        const std::string told_lines = replay_.now("told");
        const std::uint64_t told = std::stoull(told_lines.substr(told_lines.rfind('\n', told_lines.size() - 2) + 1));
        const std::uint64_t sendings = occurrences(replay_.now("log"), "real size[");
        const std::uint64_t sent = sendings == 0 ? 0 : field_.travellers().at(sendings - 1);
        const Numbers waiting = read(kSender, kXmitQueue, false);
        const Numbers dead = read(kSender, kDeadQueue, false);
        const auto expected = [&](std::uint64_t last) {
            Numbers numbers;
            for (std::uint64_t n = waiting.empty() ? sent + 1 : std::min(waiting.front(), sent + 1); n <= last; ++n) {
                if (std::find(dead.begin(), dead.end(), n) == dead.end()) {
                    numbers.push_back(n);
                }
            }
            return numbers;
        };
        EXPECT_TRUE(waiting == expected(told) || waiting == expected(field_.end_after(told)))
            << ::testing::PrintToString(waiting) << " wait, " << told << " told, " << sent << " sent, dead "
            << ::testing::PrintToString(dead);
        const auto repeats = std::upper_bound(waiting.begin(), waiting.end(), sent);
        const auto add_size = [&](std::uint64_t sum, std::uint64_t n) { return sum + field_.ledger().at(n - 1).size; };
        EXPECT_LE(std::accumulate(waiting.begin(), repeats, std::uint64_t{0}, add_size), 2 * kGroupBytes + kMaxMessage);
        EXPECT_LE(repeats - waiting.begin(), 2 * kGroup + 1);
        return static_cast<std::uint64_t>(repeats - waiting.begin());
    }

    /// All that was journalled is there, in order, and each file of each message whole.
    void judge_receiver() {
        const std::uint64_t journalled = occurrences(replay_.now("journal"), "\"event\":\"message\"");
        Numbers expected = field_.travellers();
        const Numbers found = read(kReceiver, kTarget, true);
        EXPECT_GE(found.size(), journalled);
        expected.resize(std::min(expected.size(), found.size()));
        EXPECT_EQ(found, expected);
    }

  private:
    /// The numbers on a queue, of unaltered messages; the queue takes one and gives one.
    Numbers read(const char* qmgr, const char* queue, bool with_files) {
        const auto store = Store::open(after_ / qmgr);
        Numbers numbers;
        store->browse(queue, 0, [&](const StoredMessage& found) {
            numbers.push_back(number_of(kTag, found.descriptor).value_or(0));
            if (numbers.back() == 0 || numbers.back() > field_.ledger().size()) {
                ADD_FAILURE() << "an unknown message";
                return false;
            }
            check(field_.ledger().at(numbers.back() - 1), found, with_files);
            return !::testing::Test::HasFailure();
        });
        const T_KAVRO_MD descriptor = descriptor_of(kTag, {kNewNumber, MessageKind::kData, 0});
        store->put(queue, OutgoingMessage{&descriptor, {}, {}});
        T_KAVRO_MD got{};
        std::vector<char> buffer(kMaxMessage);
        EXPECT_GE(store->drain(queue)->next(got, buffer, false), 0);
        EXPECT_EQ(number_of(kTag, got).value_or(0), numbers.empty() ? kNewNumber : numbers.front());
        return numbers;
    }

    void check(const NumberedMessage& message, const StoredMessage& found, bool with_files) {
        const std::string data(found.data.begin(), found.data.end());
        const std::string body = body_of(kTag, message);
        EXPECT_TRUE(message.kind == MessageKind::kFile || data.ends_with(body)) << message.number;
        if (!with_files) {
            return;
        }
        std::vector<std::string> paths = found.attachments;
        if (message.kind == MessageKind::kFile) {
            paths.push_back(data);
        }
        const std::vector<NumberedFile> files = files_of(kTag, message);
        ASSERT_EQ(paths.size(), files.size());
        for (std::size_t i = 0; i < files.size(); ++i) {
            const fs::path path = after_ / fs::path(paths[i]).lexically_relative(fs::canonical(field_.home()));
            EXPECT_TRUE(same_file(path, files[i])) << path;
        }
    }

    const RecordedField& field_;
    const PowerReplay& replay_;
    fs::path after_;
};

TEST_F(Power, CutsAtAnyMomentLoseNothingThatWasTold) {
    RecordedField field(base_.path());
    work(field);
    ASSERT_FALSE(HasFailure());
    stop_recording();
    const unsigned seed = std::random_device{}();
    std::mt19937 random(seed);
    PowerReplay replay(records_.path() / "records", field.home());
    std::size_t begin = 0;
    while (replay.now("told").empty()) {
        replay.advance_to(++begin);
    }
    replay.advance_to(replay.size());
    ASSERT_EQ(replay.now("journal"), contents(field.home() / "journal")) << "the record is not whole";
    ASSERT_EQ(replay.now("SENDER/store/data.mdb"), contents(field.home() / "SENDER" / "store" / "data.mdb"));

    ASSERT_EQ(occurrences(replay.now("log"), "real size["), field.travellers().size());

    PowerReplay again(records_.path() / "records", field.home());
    std::vector<std::size_t> moments(rounds(20));
    std::generate(moments.begin(), moments.end(),
                  [&] { return std::uniform_int_distribution<std::size_t>(begin, replay.size())(random); });
    std::sort(moments.begin(), moments.end());
    std::uint64_t greatest = 0;
    for (const std::size_t moment : moments) {
        SCOPED_TRACE("seed " + std::to_string(seed) + ", cut after record " + std::to_string(moment));
        const TemporaryFolder after;
        again.advance_to(moment);
        again.cut(after.path(), random, {"files", "log", "journal", "told", "out", "port"});
        if (std::bernoulli_distribution(0.5)(random)) {
            leave_old_maps(field.home(), after.path());
        }
        Cut cut(field, again, after.path());
        try {
            greatest = std::max(greatest, cut.judge_sender());
            cut.judge_receiver();
        } catch (const Error& error) {
            ADD_FAILURE() << error.what();
        }
        ASSERT_FALSE(HasFailure());
    }
    RecordProperty("cuts", std::to_string(moments.size()));
    RecordProperty("at most repeated", std::to_string(greatest));
}

} // namespace
} // namespace kvr::test
