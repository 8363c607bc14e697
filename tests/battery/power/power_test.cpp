// SPDX-License-Identifier: MIT
// Power cuts at random moments of a channel at work. Every write of the test, the worker and the listener is recorded;
// each cut makes the folders of both queue managers and the spool as a disk may hold them then.
#include <algorithm>
#include <cstring>
#include <fstream>
#include <numeric>

#include <fcntl.h>
#include <unistd.h>

#include "field.h"
#include "power_replay.h"
#include "proof.h"
#include "support/folder.h"
#include "xmit_header.h"

namespace kvr::test {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kGroup = 512;
constexpr std::uint64_t kGroupBytes = 8U << 20;
constexpr std::uint64_t kSeed = 1;
constexpr std::uint32_t kMostMessages = 100'000;
using Numbers = std::vector<std::uint32_t>;

T_KAVRO_MD plain_descriptor() {
    T_KAVRO_MD descriptor{};
    std::memcpy(descriptor.sStrucId, "MD  ", sizeof(descriptor.sStrucId));
    descriptor.iVersion = 2;
    descriptor.cMsgStoreType = KVR_STORE_DATA;
    return descriptor;
}

/// A field whose puts are told to the record.
class RecordedField : public Field {
  public:
    explicit RecordedField(const fs::path& where)
        : Field(Carrier::kPlain, true, where),
          told_(::open((home() / "told").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600)) {
        for (const fs::path& made : {home() / "sender", home() / "receiver", home()}) {
            const int folder = ::open(made.c_str(), O_RDONLY | O_DIRECTORY);
            ::fsync(folder); // the queue managers' folders and the spool are made
            ::close(folder);
        }
        tell();
    }
    ~RecordedField() { ::close(told_); }
    RecordedField(const RecordedField&) = delete;
    RecordedField& operator=(const RecordedField&) = delete;

    /// One put. Without a header for the road it becomes a dead letter.
    void put_told(ProofKind kind, std::uint32_t count, SizeRange size, bool travels = true) {
        std::vector<ProofMessage> messages;
        for (std::uint32_t i = 0; i < count; ++i) {
            const ProofPlan plan{kSeed, kMostMessages, kind, size, {1, size.greatest}};
            sizes_.push_back(proven_size(plan, put() + 1));
            messages.push_back(make_proof(plan, put(), plain_descriptor(), home() / "files"));
            messages.back().data.insert(0, travels ? xmit_header({kTarget, ""}) : "");
            if (travels) {
                travellers_.push_back(put());
            }
        }
        std::vector<OutgoingMessage> outgoing;
        for (const ProofMessage& message : messages) {
            outgoing.push_back({&message.descriptor, message.attachments, message.data});
        }
        sender().put(kXmitQueue, outgoing);
        tell();
        ends_.push_back(put());
    }
    [[nodiscard]] std::uint32_t put() const { return static_cast<std::uint32_t>(sizes_.size()); }
    [[nodiscard]] std::uint64_t size_of(std::uint32_t number) const { return sizes_.at(number - 1); }
    /// The number that the put after the one that ended with `told` ends with.
    [[nodiscard]] std::uint32_t end_after(std::uint32_t told) const {
        const auto next = std::ranges::upper_bound(ends_, told);
        return next == ends_.end() ? told : *next;
    }
    /// Those that travel, in their order.
    [[nodiscard]] const Numbers& travellers() const { return travellers_; }

  private:
    void tell() const {
        const std::string line = std::to_string(put()) + "\n";
        ASSERT_EQ(::write(told_, line.data(), line.size()), static_cast<ssize_t>(line.size()));
    }

    int told_;
    std::vector<std::uint64_t> sizes_;
    Numbers travellers_;
    Numbers ends_;
};

/// Puts before, while and after the channel runs: full groups of used messages, and deletes between puts.
void work(RecordedField& field) {
    const auto await_drained = [&] { await("an empty queue", [&] { return field.depth() == 0; }); };
    for (int i = 0; i < 6; ++i) {
        field.put_told(ProofKind::kData, 200, {0, 200});
    }
    Child listener = field.listen();
    Child worker = field.run_channel();
    for (int i = 0; i < 12; ++i) {
        field.put_told(ProofKind::kAttached, 3, {0, 3000});
        field.put_told(ProofKind::kData, 60, {0, 9000});
        field.put_told(ProofKind::kFile, 2, {1, 30000});
        if (i % 4 == 0) {
            await_drained();
            field.put_told(ProofKind::kData, 1, {100, 100}, false);
        }
    }
    await_drained();
    await("all messages", [&] { return field.arrived() == field.travellers().size(); });
    EXPECT_EQ(worker.result_under(SIGTERM), 0);
    EXPECT_EQ(listener.result_under(SIGTERM), 0);
}

std::size_t occurrences(const std::string& all, const std::string& text) {
    std::size_t count = 0;
    for (std::size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1)) {
        ++count;
    }
    return count;
}

/// What is mapped is not recorded: after the cut some older state of it stands there, of a boot that is over.
void leave_old_maps(const fs::path& live, const fs::path& after) {
    constexpr std::size_t kBootId = 24;
    for (const char* qmgr : {"sender/SENDER", "receiver/RECEIVER"}) {
        for (const char* name : {"store/lock.mdb", "queues/1.mark", "queues/2.mark"}) {
            const fs::path file = fs::path(qmgr) / name;
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
    std::size_t judge_sender() {
        const std::string told_lines = replay_.now("told");
        const auto told = static_cast<std::uint32_t>(
            std::stoul(told_lines.substr(told_lines.rfind('\n', told_lines.size() - 2) + 1)));
        const std::size_t sendings = occurrences(replay_.now("log"), "real size[");
        const std::uint32_t sent = sendings == 0 ? 0 : field_.travellers().at(sendings - 1);
        const Numbers waiting = read(kSender, kXmitQueue);
        const Numbers dead = read(kSender, kDeadQueue);
        const auto expected = [&](std::uint32_t last) {
            Numbers numbers;
            for (std::uint32_t n = waiting.empty() ? sent + 1 : std::min(waiting.front(), sent + 1); n <= last; ++n) {
                if (std::ranges::find(dead, n) == dead.end()) {
                    numbers.push_back(n);
                }
            }
            return numbers;
        };
        EXPECT_TRUE(waiting == expected(told) || waiting == expected(field_.end_after(told)))
            << ::testing::PrintToString(waiting) << " wait, " << told << " told, " << sent << " sent, dead "
            << ::testing::PrintToString(dead);
        const auto repeats = std::ranges::upper_bound(waiting, sent);
        const auto add_size = [&](std::uint64_t sum, std::uint32_t n) { return sum + field_.size_of(n); };
        EXPECT_LE(std::accumulate(waiting.begin(), repeats, std::uint64_t{0}, add_size), 2 * kGroupBytes + kMaxMessage);
        EXPECT_LE(repeats - waiting.begin(), 2 * kGroup + 1);
        return static_cast<std::size_t>(repeats - waiting.begin());
    }

    /// All that was journalled is there, in order, and each file of each message whole.
    void judge_receiver() {
        const std::size_t journalled = occurrences(replay_.now("journal"), "\"event\":\"message\"");
        Numbers expected = field_.travellers();
        const Numbers found = read(kReceiver, kTarget);
        EXPECT_GE(found.size(), journalled);
        expected.resize(std::min(expected.size(), found.size()));
        EXPECT_EQ(found, expected);
    }

  private:
    /// Where a path of the field lies after the cut, unless it is a file that was put.
    [[nodiscard]] std::string after(const std::string& path) const {
        const fs::path below = fs::path(path).lexically_relative(fs::canonical(field_.home()));
        return *below.begin() == "files" ? path : (after_ / below).native();
    }

    /// The numbers on a queue, of unaltered messages; the queue takes one and gives one.
    Numbers read(const char* qmgr, const char* queue) {
        const auto store = Store::open(after(fs::canonical(field_.qmgr(qmgr))));
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

    const RecordedField& field_;
    const PowerReplay& replay_;
    fs::path after_;
};

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
    ASSERT_EQ(replay.now("sender/SENDER/store/data.mdb"), contents(field.qmgr(kSender) / "store" / "data.mdb"));

    ASSERT_EQ(occurrences(replay.now("log"), "real size["), field.travellers().size());

    PowerReplay again(records_.path() / "records", field.home());
    const char* wanted = std::getenv("KVR_BATTERY_ROUNDS"); // NOLINT(concurrency-mt-unsafe)
    std::vector<std::size_t> moments(wanted == nullptr ? 20 : std::stoul(wanted));
    std::generate(moments.begin(), moments.end(),
                  [&] { return std::uniform_int_distribution<std::size_t>(begin, replay.size())(random); });
    std::sort(moments.begin(), moments.end());
    std::size_t greatest = 0;
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
    RecordProperty("most repeated", std::to_string(greatest));
}

} // namespace
} // namespace kvr::test
