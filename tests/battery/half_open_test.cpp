// SPDX-License-Identifier: MIT
// A thousand peers that hold a listener up: silent, in mid-frame, in mid-file, claiming lengths that never come. Real
// senders get through, and the listener's memory stays small.
#include <algorithm>
#include <fstream>
#include <iterator>
#include <thread>

#include "field.h"
#include "raw_line.h"
#include "tools/receiver_stream.h"

namespace kvr::test {
namespace {

constexpr std::size_t kPeers = 1000;
constexpr std::size_t kLongFile = 20U << 20U;
constexpr std::uint64_t kMemoryKib = 64U << 10U;

/// A data frame that announces a package of `length` bytes.
std::string claim(std::string_view length) {
    std::string header = frame('0', kTarget, "00000000", "00000000", "");
    header.replace(header.size() - 8, 8, length);
    return header;
}

TEST(HalfOpen, ClaimsOfAHundredMegabytesAreRefusedOrCostNothing) {
    Field field;
    Child listener = field.listen();
    [[maybe_unused]] const std::uint64_t before = memory_of(listener.pid(), "VmHWM");
    // The splitter's own test has all the false lengths; here the whole listener meets some.
    const std::string refused[] = {
        claim("99999999"), claim("-0000001"), claim("02150000"),
        frame('0', kTarget, "00000000", "00000000", block('1', 4) + digits(99'999'999) + digits(0)),
        frame('4', kTarget, "00000000", "00000000", block('2', 0) + padded("name", 20)) + "00000000"};
    std::size_t ends = 0;
    for (const std::string& stream : refused) {
        const RawLine line(field.port());
        ASSERT_TRUE(line.send(bind_frame("HALF.OPEN") + stream));
        line.await_end();
        ++ends;
        await("the end of line " + std::to_string(ends), [&] { return field.journalled("end") == ends; });
    }
    // A file may be that long: what has come lies in the spool, not in memory, and goes with the line.
    {
        const RawLine line(field.port());
        ASSERT_TRUE(line.send(bind_frame("HALF.OPEN") +
                              frame('4', kTarget, "00000000", "00000000", block('2', 0) + padded("name", 20)) +
                              digits(99'999'999) + std::string(kLongFile, 'f')));
    }
    await("the end of the file", [&] { return field.journalled("end") == ends + 1; });
    std::size_t files = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(field.home() / "spool")) {
        files += entry.is_regular_file() ? 1U : 0U;
    }
    EXPECT_EQ(files, 0U);
    EXPECT_EQ(field.arrived(), 0U);
    EXPECT_LE(memory_of(listener.pid(), "VmHWM"), before + (16U << 10U));
}

class HalfOpenPeers : public ::testing::TestWithParam<Carrier> {};

INSTANTIATE_TEST_SUITE_P(Carriers, HalfOpenPeers, kPlainAndTls, name_of_carrier);

TEST_P(HalfOpenPeers, LeaveRoomForSenders) {
    Field field(GetParam());
    Child listener = field.listen({"--handshake-time", "600", "--max-per-address", "2000"});
    // The least that a handshake has to hold, to be kept waiting for the rest.
    const std::string hello("\x16\x03\x01\x3f\xff\x01\x00\x3f\xfb\x03\x03", 11);
    const std::string partial = bind_frame("HALF.OPEN") + claim("02100000");
    const std::string streams[] = {"", GetParam() == Carrier::kPlain ? bind_frame("HALF.OPEN").substr(0, 40) : hello,
                                   GetParam() == Carrier::kPlain ? partial : hello + std::string(8000, 'h'),
                                   GetParam() == Carrier::kPlain ? partial + std::string(100'000, 'p')
                                                                 : hello + std::string(16'000, 'h')};
    // Bodies that wait for their files, four times what the listener may keep.
    const std::string great =
        bind_frame("HALF.OPEN") + message_with_files(kTarget, std::string(2'000'000, 'g'), {{"a", "x"}});
    const std::size_t great_ones = GetParam() == Carrier::kPlain ? 50 : 0;
    std::vector<RawLine> peers;
    for (std::size_t i = 0; i < kPeers; ++i) {
        peers.emplace_back(field.port());
        ASSERT_TRUE(peers.back().connected());
        if (i >= great_ones) {
            (void)peers.back().offer(streams[i % std::size(streams)]);
        }
    }
    std::vector<std::thread> great_senders;
    for (std::size_t i = 0; i < great_ones; ++i) {
        great_senders.emplace_back(
            [&line = peers[i], &great] { (void)line.send(std::string_view(great).substr(0, great.size() - 9)); });
    }
    await("all peers", [&] { return field.journalled("connect") >= kPeers; });
    Child worker = field.run_channel();
    for (int i = 0; i < 10; ++i) {
        field.put_one_of_each();
    }
    field.put(MessageKind::kData, 3, 2'000'000, 2'000'000);
    field.await_arrived(field.ledger().size());
    field.expect_all_delivered();
    const std::uint64_t memory = memory_of(listener.pid(), "VmHWM");
    RecordProperty("KiB at most", std::to_string(memory));
    EXPECT_LT(memory, kMemoryKib);
    for (std::thread& sending : great_senders) {
        sending.join();
    }
    peers.clear();
    await("the end of the peers", [&] { return field.journalled("end") >= kPeers; });
    field.put_one_of_each();
    field.await_arrived(field.ledger().size());
    field.expect_all_delivered();
}

} // namespace
} // namespace kvr::test
