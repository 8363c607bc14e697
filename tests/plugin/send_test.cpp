// SPDX-License-Identifier: MIT
// What becomes of a message: every byte of its frames, attempts, and what goes to the dead-letter queue.
#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <span>

#include "channel_run.h"

namespace kvr::test {

static Message with_files(const std::string& body, const Lines& files, std::optional<int> count = {}) {
    Message msg = message(body);
    msg.md.iMsgFlags = KVR_MSGFLAG_ACCESSORIES;
    msg.files = files;
    msg.file_count = count;
    return msg;
}

static Message file_message(const std::string& path) {
    Message msg = message(path);
    msg.md.cMsgStoreType = KVR_STORE_FILE;
    return msg;
}

class Send : public ChannelTest {
  protected:
    /// These messages arrive as these bytes, all on one connection.
    Result expect_sent(const std::vector<std::pair<Message, std::string>>& cases) {
        std::string expected = kBind;
        for (const auto& [msg, bytes] : cases) {
            host().get.push_back(deliver(msg));
            expected += bytes;
        }
        Result r = run_channel();
        EXPECT_EQ(r.conns.size(), 1U) << r.dump();
        const auto differs = std::ranges::mismatch(r.conns.at(0), expected);
        EXPECT_TRUE(r.conns[0] == expected) << "from byte " << differs.in2 - expected.begin();
        return r;
    }
};

TEST_F(Send, FramesByteForByte) {
    Message empty = message("", std::string(32, 'q'));
    empty.md.iMsgType = -5;
    empty.md.iMsgCode = INT_MIN;
    std::string largest(2098304, 'L');
    largest.back() = 'e';
    const Result r = expect_sent({{message("hello"), "000000750100000000" + ("0Q1" + nuls(30)) +
                                                         "000000010000000000000277" + plain_block('1') + "hello"},
                                  {empty, frame('0', std::string(32, 'q'), "-0000005", "-2147483", plain_block('1'))},
                                  {message(largest), data_frame(largest)}});
    EXPECT_TRUE(in_order(r, {"4 dest queue[Q1]", "cork(1)", "write(75)", "write(272)", "write(5)", "cork(0)",
                             "4 send data[277] success.", "4 send 5 real size[277]", "4 send 0 real size[272]"}));
}

TEST_F(Send, DescriptorBlockFieldByField) {
    Message msg = message("b");
    T_KAVRO_MD& md = msg.md;
    std::string block;
    const auto texts = [&block](std::initializer_list<std::span<char>> fields) {
        for (const std::span<char> field : fields) {
            std::ranges::fill(field, static_cast<char>('A' + block.size() % 26));
            field[3] = '\0'; // whatever follows is carried too
            block.append(field.data(), field.size());
        }
    };
    const auto numbers = [&block](std::initializer_list<KVRINT*> fields) {
        for (KVRINT* const field : fields) {
            *field = -0x01020400 + static_cast<KVRINT>(block.size()) * 8;
            block += big_endian(*field);
        }
    };
    texts({md.sMsgId, md.sCorrelId});
    block += (md.cMsgStoreType = '7') + nuls(3);
    numbers({&md.iUsage, &md.iMsgFlags, &md.iExpiry, &md.iFeedback, &md.iEncoding, &md.iCodedCharSetId, &md.iPriority,
             &md.iPersistence, &md.iMsgSeqNo, &md.iReportOpt});
    texts({md.sFmtName, md.sReplyToQ, md.sReplyToQMgr, md.sGroupId});
    block += nuls(1);
    numbers({&md.iPutApplType});
    texts({md.sPutApplName, md.sPutDate, md.sPutTime});
    expect_sent({{msg, header('0', 273) + padded(block, 272) + "b"}});
}

TEST_F(Send, FilesByteForByte) {
    const std::string path = file("x.dat", "content");
    const std::string far = "files" + std::string(1013, '/') + "x.dat";
    Message flagless = message("m"); // a list without its flag is not looked at
    flagless.files = {"/nowhere"};
    const std::string block = "00000005" + nuls(72) + "a.txt00000006" + nuls(72) + "bb.dat0000000200000171";
    const auto file_frames = [](size_t path_size) {
        return header('4', 272 + path_size) + plain_block('2') + padded("x.dat", path_size) + "00000007content";
    };
    const Result r = expect_sent(
        {{with_files("hi", {file("a.txt", std::string(1000, 'a')), file("bb.dat", "bbb")}),
          header('0', 461) + plain_block('1', 4) + "hi" + block + "00001000" + std::string(1000, 'a') + "00000003bbb"},
         {with_files("n", {}), header('0', 289) + plain_block('1', 4) + "n" + "0000000000000000"},
         {flagless, data_frame("m")},
         {file_message(far), file_frames(1023)},
         {file_message(path + nuls(1) + "leftovers of a longer message" + std::string(1000, '?')),
          file_frames(path.size())}});
    EXPECT_TRUE(in_order(r, {"4 send file[files/a.txt] data[1000] success.", "3 send file[files/a.txt]", "cork(0)",
                             "4 send data[1464] success.", "4 send 1023 real size[1302]"}));
}

/// A message of which only a part arrives, or nothing.
struct Refused {
    Message msg;
    std::string told = "1 ProcMsg[-1]";
    int attempts = 0;    ///< connections that get the part; after four, or none, it is laid aside
    std::string part{};  ///< of its bytes
    std::string whole{}; ///< what arrives with the attempt after those
    decltype(Host::hooks) hooks{};
};

/// Such a file is refused when it is opened, behind the message's frame: it may be mended before the next attempt.
static Refused bad_file(const std::string& path, const std::string& why) {
    const std::string body = padded(path.substr(path.rfind('/') + 1), path.size());
    return {file_message(path), why, 4, header('4', 272 + body.size()) + plain_block('2') + body};
}

// Each follows a good message, whose bytes still stand in the buffer.
TEST_F(Send, WhatCannotBeSentIsTriedFourTimesAtMostAndLaidAside) {
    mkfifo("files/fifo", 0600);
    file("empty", "");
    EXPECT_EQ(truncate(file("huge", "").c_str(), 100000000), 0);
    const std::string good = data_frame("good");
    const std::string xmit_header = message("").data;
    const std::string block = attachment_block({"files"});
    const std::string headless = "1 msg no xmit header";
    Message no_list = with_files("m", {}, 1);
    no_list.null_list = true;
    const Message hello = message("hello");
    const std::string whole = data_frame("hello");
    const std::string half = whole.substr(0, 347);
    const std::string reset =
        "1 write [5] to receiver error[104:write[5] ret[2] error[104:Connection reset by peer]] return[-1]";
    const Refused cases[] = {
        {raw(std::string(500, '-')), headless},
        {raw(xmit_header.substr(0, 71)), headless},
        {raw(""), headless},
        {raw("xtmh" + xmit_header.substr(4)), headless},
        {raw("", -1), headless},
        // Nothing outside the buffer is sent or put.
        {raw(message(std::string(2098376 - 72, 'c')).data, 2098377),
         "1 message of [2098377] bytes exceeds the buffer of [2098376]: not sent"},
        {file_message("files/huge")},
        {with_files("m", {"files/empty", "files/huge"})},
        {file_message(std::string(1024, 'p'))},
        {with_files("m", {}, 31)},
        {with_files("m", {}, -1)},
        {no_list},
        bad_file("files/none", "1 open [files/none] error[2:No such file or directory]"),
        bad_file("files/empty", "1 tell [files/empty] ret[0] error[0:Success]"),
        bad_file("files/fifo", "1 open [files/fifo] error[29:Illegal seek]"),
        bad_file("/dev/zero", "1 SendFile2Rcvr[/dev/zero] error[-2]"),
        {with_files("m", {"files"}), "1 open [files] error[21:Is a directory]", 4,
         header('0', 273 + block.size()) + plain_block('1', 4) + "m" + block},
        {hello, reset, 3, half, whole, {{"write", failing_of(5, 3, 2, ECONNRESET)}}},
        // The watcher's copy of the line would keep the half message.
        {hello, "5 waitpid <watcher 4> end", 4, half, "", {{"write", failing_of(5, 4, 2, ECONNRESET)}}},
    };
    for (const Refused& c : cases) {
        host().hooks = c.hooks;
        host().get = {deliver(message("good")), deliver(c.msg), deliver(message("good"))};
        const Result r = run_channel();
        Lines conns(static_cast<size_t>(c.attempts), kBind + c.part);
        conns.push_back(kBind + c.whole + good);
        conns[0].insert(kBind.size(), good);
        EXPECT_EQ(r.conns, conns) << r.dump();
        EXPECT_GT(r.count(c.told), 0) << c.told << r.dump();
        EXPECT_EQ(r.count("KVR_QueMsgPut(" + std::to_string(c.msg.data.size()) + ")"), c.whole.empty() ? 1 : 0);
        EXPECT_EQ(r.count("sleep("), 0);
    }
}

} // namespace kvr::test
