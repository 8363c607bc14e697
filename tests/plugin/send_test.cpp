// SPDX-License-Identifier: MIT
// Data frames and file frames: every byte on the wire, the order of writes and log lines, and each failure.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "channel_run.h"
#include "expected_frames.h"

namespace kvr::test {
namespace {

using testing::ElementsAre;

using Lines = std::vector<std::string>;

class Send : public ChannelTest {
  protected:
    Message with_files(const std::string& body, const Lines& files) {
        Message msg = message(body);
        msg.md.iMsgFlags = KVR_MSGFLAG_ACCESSORIES;
        msg.files = files;
        return msg;
    }
    /// The run ended at the empty queue, on one connection that brought the bind frame and these bytes.
    void expect_sent(const Result& r, const std::string& bytes) {
        ASSERT_EQ(r.conns.size(), 1U) << r.dump();
        ASSERT_EQ(r.conns[0].size(), 78 + bytes.size()) << r.dump();
        EXPECT_TRUE(r.conns[0] == bind_frame() + bytes) << "the bytes differ";
        EXPECT_EQ(r.count("KVR_QueMsgPut"), 0);
        EXPECT_EQ(r.status, kScriptOver);
    }
};

TEST_F(Send, HelloByteForByte) {
    const Result r = run_messages({message("hello")});
    expect_sent(r, std::string("00000075"
                               "01"
                               "00000000"
                               "0"
                               "Q1") +
                       std::string(30, '\0') + "00000001" + "00000000" + "00000277" + plain_block('1') + "hello");
    EXPECT_EQ(
        r.lines_between("LHST", "4 rcv len[77]", "4 send 5 real size[277]"),
        (Lines{"4 rcv len[77]", "4 dest queue[Q1]", "sockCanRead()", "5 NETSTAT[1]", "cork=1", "5 start write chl hdr",
               "write(75)", "5 start write chl msg md", "write(272)", "5 main msg len[5]", "write(5)", "cork=0",
               "4 send data[277] success.", "4 send 5 real size[277]"}));
}

TEST_F(Send, DescriptorBlockFieldByField) {
    Message msg = message(std::string(100, 'b'));
    T_KAVRO_MD& md = msg.md;
    std::string block(272, '\0');
    const auto text = [&block](char* field, size_t size, size_t at, char fill) {
        for (size_t i = 0; i < size; ++i) { // whatever follows a NUL is carried too
            field[i] = i == 3 ? '\0' : static_cast<char>(fill + static_cast<char>(i % 20));
        }
        block.replace(at, size, field, size);
    };
    const auto number = [&block](KVRINT& field, KVRINT value, size_t at, const std::string& hex) {
        field = value;
        for (size_t i = 0; i < 4; ++i) {
            block[at + i] = static_cast<char>(std::stoi(hex.substr(2 * i, 2), nullptr, 16));
        }
    };
    text(md.sMsgId, 32, 0, 'A');
    text(md.sCorrelId, 32, 32, 'B');
    block[64] = md.cMsgStoreType = '7';
    number(md.iUsage, 1, 68, "00000001");
    number(md.iMsgFlags, 0x7ffffff3, 72, "7ffffff3");
    number(md.iExpiry, -1, 76, "ffffffff");
    number(md.iFeedback, 0x01020304, 80, "01020304");
    number(md.iEncoding, 256, 84, "00000100");
    number(md.iCodedCharSetId, 1208, 88, "000004b8");
    number(md.iPriority, 5, 92, "00000005");
    number(md.iPersistence, 65536, 96, "00010000");
    number(md.iMsgSeqNo, -2, 100, "fffffffe");
    number(md.iReportOpt, 16777216, 104, "01000000");
    text(md.sFmtName, 9, 108, 'C');
    text(md.sReplyToQ, 33, 117, 'D');
    text(md.sReplyToQMgr, 33, 150, 'E');
    text(md.sGroupId, 32, 183, 'F');
    number(md.iPutApplType, 28, 216, "0000001c");
    text(md.sPutApplName, 33, 220, 'G');
    text(md.sPutDate, 9, 253, 'H');
    text(md.sPutTime, 7, 262, 'I');
    expect_sent(run_messages({msg}),
                frame_header('0', "Q1", "00000001", "00000000", 372) + block + std::string(100, 'b'));
}

TEST_F(Send, HeaderFields) {
    const std::string longest(32, 'q');
    const struct {
        std::string dest;
        int type, code;
        const char *type_text, *code_text;
    } cases[] = {{longest, -5, 123456789, "-0000005", "12345678"},
                 {"", 99999999, -12345678, "99999999", "-1234567"},
                 {"A.B", 0, -2147483647 - 1, "00000000", "-2147483"}};
    for (const auto& c : cases) {
        Message msg = message("", c.dest);
        msg.md.iMsgType = c.type;
        msg.md.iMsgCode = c.code;
        const Result r = run_messages({msg});
        expect_sent(r, frame_header('0', c.dest, c.type_text, c.code_text, 272) + plain_block('1'));
        EXPECT_TRUE(in_order(r, {"4 dest queue[" + c.dest + "]", "5 main msg len[0]", "write(0)",
                                 "4 send data[272] success.", "4 send 0 real size[272]"}));
    }
}

TEST_F(Send, LargestMessage) {
    std::string body(2098304, 'L');
    body[2098303] = 'e';
    const Result r = run_messages({message(body), message("next")});
    expect_sent(r, data_frame(body) + data_frame("next"));
}

TEST_F(Send, AttachmentsByteForByte) {
    const std::string a = file("a.txt", std::string(1000, 'a'));
    const std::string b = file("bb.dat", std::string(2000, 'b'));
    const Result r = run_messages({with_files("hi", {a, b}), message("after")});
    const std::string block = attachment_block({"a.txt", "bb.dat"});
    ASSERT_EQ(block.size(), 187U);
    ASSERT_EQ(block.substr(171), "0000000200000171");
    expect_sent(r, frame_header('0', "Q1", "00000001", "00000000", 272 + 2 + 187) + plain_block('1', 4) + "hi" + block +
                       "00001000" + std::string(1000, 'a') + "00002000" + std::string(2000, 'b') + data_frame("after"));
    EXPECT_EQ(r.lines_between("LHST", "5 NETSTAT[1]", "4 send 2 real size[3461]"),
              (Lines{"5 NETSTAT[1]",
                     "5 ACCSNUM[2]",
                     "5 snd file0[" + a + "] (KVR_LogPrint)",
                     "5 snd file1[" + b + "] (KVR_LogPrint)",
                     "cork=1",
                     "5 start write chl hdr",
                     "write(75)",
                     "5 start write chl msg md",
                     "write(272)",
                     "5 main msg len[2]",
                     "write(2)",
                     "5 start write attachment header",
                     "write(187)",
                     "4 ----------------------start process accessories---------------------",
                     "5 ACCSNUM[2]",
                     "5 -------------------start send file[" + a + "]------------------",
                     "4 begin send file[" + a + "] data[1000]",
                     "write(8)",
                     "write(1000)",
                     "4 send file[" + a + "] data[1000] success.",
                     "3 send file[" + a + "]",
                     "5 -------------------start send file[" + b + "]------------------",
                     "4 begin send file[" + b + "] data[2000]",
                     "write(8)",
                     "write(2000)",
                     "4 send file[" + b + "] data[2000] success.",
                     "3 send file[" + b + "]",
                     "cork=0",
                     "4 send data[3461] success.",
                     "4 send 2 real size[3461]"}));
}

TEST_F(Send, AttachmentListsAtTheirLimits) {
    Lines files;
    Lines names;
    std::string frames;
    for (int i = 0; i < 30; ++i) {
        names.push_back(std::string(200, 'n') + std::to_string(i));
        files.push_back(file(names.back(), std::string(static_cast<size_t>(i) + 1, 'c')));
        frames += file_frame(std::string(static_cast<size_t>(i) + 1, 'c'));
    }
    Message flagless = message("m"); // a list without its flag is not looked at
    flagless.files = {"/nowhere"};
    const std::string block = attachment_block(names);
    const Result r = run_messages({with_files("m", files), with_files("n", {}), flagless});
    expect_sent(r, frame_header('0', "Q1", "00000001", "00000000", 273 + block.size()) + plain_block('1', 4) + "m" +
                       block + frames + frame_header('0', "Q1", "00000001", "00000000", 289) + plain_block('1', 4) +
                       "n" + "0000000000000000" + data_frame("m"));
    EXPECT_EQ(r.count("4 send data[289] success."), 1);
}

TEST_F(Send, FileMessage) {
    const std::string path = file("x.dat", "content");
    Message both = file_message(path);
    both.md.iMsgFlags = KVR_MSGFLAG_ACCESSORIES;
    both.files = {file("y.dat", "attached")};
    Message loose = file_message(path + std::string("\0leftovers of a longer message", 30));
    loose.data += std::string(1000, '?');
    std::string far = dir_;
    while (far.size() + 8 < 1023) {
        far += "/.";
    }
    far += std::string(1023 - far.size() - 5, '/') + "x.dat";
    const Result r = run_messages({file_message(path), both, loose, file_message(far)});
    const auto frame = [](const std::string& full, const std::string& block, int flags) {
        return frame_header('4', "Q1", "00000001", "00000000", 272 + full.size() + block.size()) +
               plain_block('2', flags) + padded("x.dat", full.size()) + block;
    };
    expect_sent(r, frame(path, "", 0) + "00000007content" + frame(path, attachment_block({"y.dat"}), 4) +
                       "00000008attached" + "00000007content" + frame(path, "", 0) + "00000007content" +
                       frame(far, "", 0) + "00000007content");
    EXPECT_TRUE(
        in_order(r, {"5 main msg len[" + std::to_string(path.size()) + "]", "4 begin send file[" + path + "] data[7]",
                     "4 send data[" + std::to_string(279 + path.size()) + "] success."}));
}

TEST_F(Send, BadFileFailsTheMessageAfterItsFrame) {
    mkfifo((dir_ + "/fifo").c_str(), 0600);
    const std::pair<std::string, std::string> cases[] = {
        {dir_ + "/none", "1 open [" + dir_ + "/none] error[2:No such file or directory]"},
        {file("empty", ""), "1 tell [" + dir_ + "/empty] ret[0] error["},
        {dir_, dir_},
        {dir_ + "/fifo", dir_ + "/fifo"},
        {"/dev/zero", "/dev/zero"},
    };
    for (const auto& [path, logged] : cases) {
        for (bool own : {false, true}) {
            SCOPED_TRACE(logged + (own ? " as the message's file" : " attached"));
            const std::string base = path.substr(path.rfind('/') + 1);
            const Result r = run_messages({own ? file_message(path) : with_files("m", {path}), message("next")});
            ASSERT_EQ(r.conns.size(), 5U) << r.dump();
            const std::string block = own ? "" : attachment_block({base});
            const std::string body = own ? padded(base, path.size()) : "m";
            std::string frame =
                frame_header(own ? '4' : '0', "Q1", "00000001", "00000000", 272 + body.size() + block.size());
            frame.append(plain_block(own ? '2' : '1', own ? 0 : 4)).append(body).append(block);
            for (size_t i = 0; i < 4; ++i) {
                EXPECT_EQ(r.conns[i], bind_frame() + frame);
            }
            EXPECT_EQ(r.conns[4], bind_frame() + data_frame("next"));
            EXPECT_EQ(r.count("1 SendFile2Rcvr[" + path + "] error[-2]"), 4);
            EXPECT_EQ(r.count("1 ChlSndData len[" + std::to_string(own ? path.size() : 1) + "] error[-201]"), 4);
            EXPECT_GE(r.count(logged), 4) << r.dump();
            EXPECT_TRUE(in_order(r, {"1 ProcMsg[-1]", "KVR_QueOpen(DLQ)"}));
            EXPECT_EQ(r.count("as received"), 1);
        }
    }
}

// What can never be sent is refused before a byte of it is written, and not tried again.
TEST_F(Send, ImpossibleMessagesAreRefusedBeforeAnyByte) {
    const std::string huge = dir_ + "/huge";
    const std::string largest = dir_ + "/largest";
    close(open(huge.c_str(), O_CREAT | O_WRONLY, 0600));
    ASSERT_EQ(truncate(huge.c_str(), 100000000), 0);
    Message too_many = with_files("m", {});
    too_many.file_count = 31;
    Message negative = with_files("m", {});
    negative.file_count = -1;
    Message no_list = with_files("m", {});
    no_list.null_list = true;
    const Message cases[] = {file_message(huge),
                             with_files("m", {file("ok", "ok"), huge}),
                             file_message(std::string(1024, 'p')),
                             file_message(std::string(2000000, 'p')),
                             too_many,
                             negative,
                             no_list};
    int number = 0;
    for (const Message& msg : cases) {
        SCOPED_TRACE(number++);
        const Result r = run_messages({msg, message("next")});
        EXPECT_THAT(r.conns, ElementsAre(bind_frame() + data_frame("next"))) << r.dump();
        EXPECT_TRUE(in_order(r, {"1 ProcMsg[-1]", "KVR_QueOpen(DLQ)",
                                 "KVR_QueMsgPut(" + std::to_string(msg.data.size()) + " as received)"}));
        EXPECT_EQ(r.count("error[-201]"), 0);
    }
}

TEST_F(Send, EachFailedWriteIsTold) {
    const std::string path = file("f", std::string(25000, 'f'));
    const std::string told = " to receiver error[104:write[@] ret[7] error[" + err(ECONNRESET) + "]] return[-1]";
    const struct {
        long piece;
        bool in_file;
    } cases[] = {{75, false}, {272, false}, {3, false}, {97, false}, {8, true}, {10240, true}, {4520, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.piece);
        host().hooks["write"] = failing_write(c.piece, 1, 7, ECONNRESET);
        const Result r = run_messages({with_files("msg", {path})});
        const std::string piece = std::to_string(c.piece);
        std::string line = c.in_file ? "1 write data[" : "1 write [";
        line.append(piece).append("]").append(told);
        line.replace(line.find('@'), 1, piece);
        Lines expected = {line, "1 ChlSndData len[3] error[-201]", "4 send 3 real size[25372]"};
        if (c.in_file) {
            expected.insert(expected.begin() + 1, "1 SendFile2Rcvr[" + path + "] error[-201]");
        }
        EXPECT_TRUE(in_order(r, expected));
        ASSERT_EQ(r.conns.size(), 2U);
        EXPECT_EQ(r.count("write(10240)"), c.piece == 4520 ? 4 : c.piece == 10240 ? 3 : 2) << "not in chunks";
        EXPECT_TRUE(r.conns[1] == bind_frame() + frame_header('0', "Q1", "00000001", "00000000", 272 + 3 + 97) +
                                      plain_block('1', 4) + "msg" + attachment_block({"f"}) +
                                      file_frame(std::string(25000, 'f')));
    }
}

} // namespace
} // namespace kvr::test
