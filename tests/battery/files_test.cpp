// SPDX-License-Identifier: MIT
// Files that change under the channel's hands, sizes and names at their limits, and names made up by a hostile sender.
// Whatever becomes of a file, the messages around it arrive whole and nothing is written outside the spool.
#include <algorithm>
#include <cstring>
#include <fstream>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "field.h"
#include "numbered_put.h"
#include "raw_line.h"
#include "tools/receiver_stream.h"

namespace kvr::test {
namespace {

namespace fs = std::filesystem;

constexpr char kFileQueue[] = "FILES"; ///< beside the ledger's queue: its judge knows the ledger's messages only
constexpr std::uint64_t kLargestFile = 99'999'999;

bool same_contents(const fs::path& one, const fs::path& other) {
    if (fs::file_size(one) != fs::file_size(other)) {
        return false;
    }
    std::ifstream first(one, std::ios::binary);
    std::ifstream second(other, std::ios::binary);
    std::vector<char> here(1 << 20);
    std::vector<char> there(here.size());
    do {
        first.read(here.data(), static_cast<std::streamsize>(here.size()));
        second.read(there.data(), first.gcount());
    } while (first.gcount() > 0 && first.gcount() == second.gcount() &&
             std::memcmp(here.data(), there.data(), static_cast<std::size_t>(first.gcount())) == 0);
    return first.gcount() == 0;
}

void make_file(const fs::path& path, std::uint64_t size) {
    std::ofstream(path, std::ios::binary) << std::string(std::min<std::uint64_t>(size, 1000), 'f');
    fs::resize_file(path, size); // the rest is a hole
}

/// Replaces it by something else of this name.
void replace(const fs::path& path, const std::function<int(const char*)>& make) {
    fs::remove(path);
    ASSERT_EQ(make(path.c_str()), 0);
}

class Files : public ::testing::TestWithParam<Carrier> {
  protected:
    Files() : field_(GetParam()) {
        field_.receiver().queue_define(kFileQueue, "");
        fs::create_directory(folder_);
    }

    /// A message to the queue of files: a file message, or data with two attached files.
    void put_files(const std::vector<std::string>& paths, bool own) {
        const std::string data = xmit_header_for(kFileQueue) + (own ? paths.front() : "data");
        T_KAVRO_MD descriptor{};
        std::memcpy(descriptor.sStrucId, "MD  ", sizeof(descriptor.sStrucId));
        descriptor.iVersion = 2;
        descriptor.cMsgStoreType = own ? KVR_STORE_FILE : KVR_STORE_DATA;
        field_.sender().put(kXmitQueue, OutgoingMessage{&descriptor, own ? std::vector<std::string>{} : paths, data});
    }

    /// The paths of the files that arrived, message by message.
    std::vector<std::vector<std::string>> arrived_files() {
        std::vector<std::vector<std::string>> all;
        field_.receiver().browse(kFileQueue, 0, [&](const StoredMessage& message) {
            std::vector<std::string> paths = message.attachments;
            if (message.descriptor.cMsgStoreType == KVR_STORE_FILE) {
                paths.emplace_back(message.data.begin(), message.data.end());
                paths.back().resize(std::strlen(paths.back().c_str()));
            }
            all.push_back(std::move(paths));
            return true;
        });
        return all;
    }

    /// The ledger's messages are all there, and no stream was refused.
    void expect_ledger_whole() {
        field_.await_all();
        // The other messages, which are not the ledger's, lie elsewhere.
        kvr::Run run = field_.run();
        run.waiting = run.dead = {};
        run.spools = {};
        verdict_on(run);
        EXPECT_EQ(contents(field_.home() / "journal").find("malformed"), std::string::npos);
    }

    Field field_;
    fs::path folder_ = field_.home() / "changing";
};

INSTANTIATE_TEST_SUITE_P(Carriers, Files, kPlainAndTls, name_of_carrier);

struct Change {
    const char* name;
    std::function<void(const fs::path&)> work;
    long queued_size; ///< of the file that arrives when it changed on the queue; -1: the message is dead-lettered
    long sent_size;   ///< the same when it changed while it was sent
};

constexpr long kSize = 40'000'000; ///< more than the buffers on the way hold

const Change kChanges[] = {
    {"grows", [](const fs::path& path) { std::ofstream(path, std::ios::app) << std::string(5000, 'g'); }, kSize + 5000,
     kSize},
    {"shrinks", [](const fs::path& path) { fs::resize_file(path, 1000); }, 1000, 1000},
    {"shrinks to nothing", [](const fs::path& path) { fs::resize_file(path, 0); }, -1, -1},
    {"vanishes", [](const fs::path& path) { fs::remove(path); }, -1, kSize},
    {"becomes a FIFO", [](const fs::path& path) { replace(path, [](const char* name) { return mkfifo(name, 0600); }); },
     -1, kSize},
    {"becomes a directory",
     [](const fs::path& path) { replace(path, [](const char* name) { return mkdir(name, 0700); }); }, -1, kSize},
    {"becomes a link to nothing",
     [](const fs::path& path) { replace(path, [](const char* name) { return symlink("nothing", name); }); }, -1, kSize},
    {"becomes a link to itself",
     [](const fs::path& path) { replace(path, [](const char* name) { return symlink(name, name); }); }, -1, kSize},
    {"becomes a device",
     [](const fs::path& path) { replace(path, [](const char* name) { return symlink("/dev/zero", name); }); }, -1,
     kSize},
    {"becomes too long", [](const fs::path& path) { fs::resize_file(path, kLargestFile + 1); }, -1, kSize},
};

TEST_P(Files, ChangedOnTheQueueTheyArriveAsTheyAreOrTheirMessageIsDeadLettered) {
    std::vector<long> expected;
    std::uint64_t dead = 0;
    make_file(folder_ / "constant", 300);
    for (const bool own : {false, true}) {
        for (const Change& change : kChanges) {
            const fs::path path = folder_ / (std::string(change.name) + (own ? " (own)" : ""));
            make_file(path, kSize);
            put_files(own ? std::vector{path.native()} : std::vector{path.native(), (folder_ / "constant").native()},
                      own);
            change.work(path);
            field_.put(MessageKind::kData, 1, 500, 500);
            if (change.queued_size < 0) {
                ++dead;
            } else {
                expected.push_back(change.queued_size);
            }
        }
    }
    Child listener = field_.listen();
    Child worker = field_.run_channel();
    expect_ledger_whole();
    EXPECT_EQ(field_.depth(kDeadQueue), dead);
    const auto files = arrived_files();
    ASSERT_EQ(files.size(), expected.size());
    for (std::size_t i = 0; i < files.size(); ++i) {
        EXPECT_EQ(static_cast<long>(fs::file_size(files[i].front())), expected[i]);
        EXPECT_EQ(files[i].size(), i < files.size() / 2 ? 2U : 1U);
    }
    RecordProperty("dead letters", std::to_string(dead));
}

// The listener sleeps while the file changes: its first bytes are on the way then, its last ones still in the file.
TEST_P(Files, ChangedWhileTheyAreSentTheyArriveAsAnnouncedOrTheLineIsRenewed) {
    Child listener = field_.listen();
    field_.set_channel({{"SHORTTMR", "60"}});
    Child worker = field_.run_channel();
    std::size_t number = 0;
    std::uint64_t dead = 0;
    for (const Change& change : kChanges) {
        SCOPED_TRACE(change.name);
        const fs::path path = folder_ / change.name;
        make_file(path, kSize);
        field_.await_drained();
        field_.await_status("RUNING");
        kill(listener.pid(), SIGSTOP);
        put_files({path.native()}, number % 2 == 0);
        field_.await_log("begin send file[" + path.native() + "]");
        change.work(path);
        kill(listener.pid(), SIGCONT);
        field_.put(MessageKind::kData, 1, 500, 500);
        expect_ledger_whole();
        if (change.sent_size < 0) {
            EXPECT_EQ(field_.depth(kDeadQueue), ++dead);
        } else {
            const auto files = arrived_files();
            ASSERT_EQ(files.size(), ++number);
            EXPECT_EQ(static_cast<long>(fs::file_size(files.back().front())), change.sent_size);
        }
        fs::remove(path);
    }
    RecordProperty("lines renewed", std::to_string(field_.journalled("connect") - 1));
}

TEST_P(Files, SizesAndNamesAtTheirLimits) {
    struct Case {
        std::string name;
        std::uint64_t size;
        bool arrives;
    };
    const Case cases[] = {
        {"empty", 0, false},
        {"one", 1, true},
        {"below", 10239, true},
        {"chunk", 10240, true},
        {"above", 10241, true},
        {"largest", kLargestFile, true},
        {"too large", kLargestFile + 1, false},
        {std::string(255, 'n'), 7, true},
        {"\xff\xfe latin \xe4", 7, true},
        {"line\nfeed and \x1b[31mcolour", 7, true},
        {"%s%n%2e%2e", 7, true},
        {"..hidden", 7, true},
    };
    Child listener = field_.listen();
    Child worker = field_.run_channel();
    // 511 bytes of path in all for the longest name.
    const fs::path deep = folder_ / std::string(511 - 256 - folder_.native().size() - 1, 'd');
    fs::create_directory(deep);
    ASSERT_EQ((deep / cases[7].name).native().size(), 511U);
    std::size_t arrivals = 0;
    std::uint64_t dead = 0;
    for (const bool own : {false, true}) {
        for (const Case& c : cases) {
            SCOPED_TRACE(c.name);
            if (own && c.size == kLargestFile) {
                continue; // once is enough
            }
            make_file(deep / c.name, c.size);
            put_files({(deep / c.name).native()}, own);
            field_.put(MessageKind::kData, 1, 10, 10);
            expect_ledger_whole();
            const auto files = arrived_files();
            arrivals += c.arrives ? 1 : 0;
            dead += c.arrives ? 0 : 1;
            EXPECT_EQ(field_.depth(kDeadQueue), dead);
            ASSERT_EQ(files.size(), arrivals);
            if (c.arrives) {
                const fs::path arrived = files.back().front();
                EXPECT_EQ(arrived.parent_path(), field_.home() / "spool");
                EXPECT_TRUE(same_contents(arrived, deep / c.name));
                fs::remove(arrived);
            }
        }
    }
}

// What becomes of each kind of name is the spool's own test; here the whole listener meets them.
TEST(HostileNames, StayBelowTheSpool) {
    Field field;
    Child listener = field.listen();
    const fs::path spool = field.home() / "spool";
    std::ofstream(field.home() / "victim") << "untouched";
    ASSERT_EQ(symlink((field.home() / "victim").c_str(), (spool / "link").c_str()), 0);
    const fs::path escaped = field.home() / "escaped";
    const std::string names[] = {"..",        "../victim", escaped.native(),   "link",
                                 ".incoming", "a\nb",      "\x1b]0;title\x07", std::string(511, 'x')};
    RawLine line(field.port());
    ASSERT_TRUE(line.send(bind_frame("HOSTILE")));
    for (const std::string& name : names) {
        ASSERT_TRUE(line.send(message_with_files(kTarget, "m", {{name, "attached"}, {name, "twice"}})));
        ASSERT_TRUE(line.send(file_message(kTarget, {name, "own"}, name.size() + 40)));
    }
    field.await_arrived(2 * std::size(names));
    EXPECT_EQ(field.journalled("end"), 0U);
    EXPECT_EQ(contents(field.home() / "victim"), "untouched");
    EXPECT_FALSE(fs::exists(escaped));
    std::size_t files = 0;
    for (const auto& entry : fs::directory_iterator(spool)) {
        files += entry.is_regular_file() && !entry.is_symlink() ? 1U : 0U;
    }
    EXPECT_EQ(files, 3 * std::size(names));
    for (const char* text : {"journal", "out"}) {
        EXPECT_TRUE(std::ranges::all_of(contents(field.home() / text), [](char byte) {
            return byte == '\n' || static_cast<unsigned char>(byte) >= 0x20;
        })) << text;
    }
}

class ManyFiles : public Files {};
INSTANTIATE_TEST_SUITE_P(Carriers, ManyFiles, ::testing::Values(Carrier::kPlain), name_of_carrier);

// More bytes than an int can count: sent once, and taken for sent.
TEST_P(ManyFiles, ThirtyOfTheLargestCountAsSent) {
    if (rounds(0) == 0) {
        GTEST_SKIP() << "three gigabytes: in the slow group";
    }
    Child listener = field_.listen({"--discard"});
    make_file(folder_ / "largest", kLargestFile);
    put_files(std::vector(KVR_ACC_MAX, (folder_ / "largest").native()), false);
    Child worker = field_.run_channel();
    field_.await_log("send data[2147483647] success.");
    field_.await_drained();
    EXPECT_EQ(worker.result_under(SIGTERM), 0);
    await("the message", [&] { return field_.journalled("end") == 1; });
    const std::string journal = contents(field_.home() / "journal");
    std::size_t whole = 0;
    for (std::size_t at = 0; (at = journal.find("\"length\":99999999", at)) != std::string::npos; ++at) {
        ++whole;
    }
    EXPECT_EQ(whole, static_cast<std::size_t>(KVR_ACC_MAX));
    EXPECT_EQ(field_.journalled("message"), 1U);
    EXPECT_EQ(field_.depth(kDeadQueue), 0U);
}

} // namespace
} // namespace kvr::test
