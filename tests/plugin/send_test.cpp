// SPDX-License-Identifier: MIT
// Data frames and file frames: every byte on the wire, the order of writes and log lines, and each failure.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "channel_run.h"

namespace kvr::test {
namespace {

class Send : public ChannelTest {
  protected:
    Message with_files(const std::string& body, const Lines& files) {
        Message msg = message(body);
        msg.md.iMsgFlags = KVR_MSGFLAG_ACCESSORIES;
        msg.files = files;
        return msg;
    }
    Message file_message(const std::string& path) {
        Message msg = message(path);
        msg.md.cMsgStoreType = KVR_STORE_FILE;
        return msg;
    }
    /// The run ended at the empty queue, on one connection that brought the bind frame and these bytes.
    void expect_sent(const Result& r, const std::string& bytes) {
        ASSERT_EQ(r.conns.size(), 1U) << r.dump();
        ASSERT_EQ(r.conns[0].size(), 78 + bytes.size()) << r.dump();
        EXPECT_TRUE(r.conns[0] == bind_frame("CH1") + bytes) << "the bytes differ";
        EXPECT_EQ(r.count("KVR_QueMsgPut"), 0);
        EXPECT_EQ(r.status, kScriptOver);
    }
};

TEST_F(Send, HelloByteForByte) {
    const Result r = run_messages({message("hello")});
    expect_sent(r, "000000750100000000" + ("0Q1" + nuls(30)) + "000000010000000000000277" + plain_block('1') + "hello");
    EXPECT_TRUE(in_order(r,
                         {"4 rcv len[77] | 4 dest queue[Q1] | sockCanRead() | 5 NETSTAT[1] | cork(1) | "
                          "5 start write chl hdr | write(75) | 5 start write chl msg md | write(272) | "
                          "5 main msg len[5] | write(5) | cork(0) | 4 send data[277] success. | "
                          "4 send 5 real size[277] | 5 --------------------start recv msg----------------------"},
                         "LHST"));
}

TEST_F(Send, DescriptorBlockFieldByField) {
    Message msg = message("b");
    T_KAVRO_MD& md = msg.md;
    std::string block;
    char fill = 'A';
    const auto text = [&](auto& field) { // whatever follows a NUL is carried too
        memset(field, fill++, sizeof field);
        field[3] = '\0';
        block.append(field, sizeof field);
    };
    const auto number = [&](KVRINT& field, KVRINT value) {
        field = value;
        block += big_endian(value);
    };
    text(md.sMsgId);
    text(md.sCorrelId);
    block += (md.cMsgStoreType = '7') + nuls(3);
    number(md.iUsage, 1);
    number(md.iMsgFlags, 0x7ffffff3);
    number(md.iExpiry, -1);
    number(md.iFeedback, 0x01020304);
    number(md.iEncoding, 256);
    number(md.iCodedCharSetId, 1208);
    number(md.iPriority, 5);
    number(md.iPersistence, 65536);
    number(md.iMsgSeqNo, -2);
    number(md.iReportOpt, 16777216);
    text(md.sFmtName);
    text(md.sReplyToQ);
    text(md.sReplyToQMgr);
    text(md.sGroupId);
    block += nuls(1);
    number(md.iPutApplType, 28);
    text(md.sPutApplName);
    text(md.sPutDate);
    text(md.sPutTime);
    expect_sent(run_messages({msg}), header('0', 273) + padded(block, 272) + "b");
}

TEST_F(Send, HeaderFields) {
    const struct {
        std::string dest;
        int type, code;
        const char *type_text, *code_text;
    } cases[] = {{std::string(32, 'q'), -5, 123456789, "-0000005", "12345678"},
                 {"", 99999999, -12345678, "99999999", "-1234567"},
                 {"A.B", 0, -2147483647 - 1, "00000000", "-2147483"}};
    for (const auto& c : cases) {
        Message msg = message("", c.dest);
        msg.md.iMsgType = c.type;
        msg.md.iMsgCode = c.code;
        const Result r = run_messages({msg});
        expect_sent(r, frame('0', c.dest, c.type_text, c.code_text, plain_block('1')));
        EXPECT_TRUE(in_order(r, {"4 dest queue[" + c.dest + "]", "write(0)", "4 send 0 real size[272]"}));
    }
}

TEST_F(Send, LargestMessage) {
    std::string body(2098304, 'L');
    body.back() = 'e';
    expect_sent(run_messages({message(body), message("next")}), data_frame(body) + data_frame("next"));
}

TEST_F(Send, AttachmentsByteForByte) {
    Message flagless = message("m"); // a list without its flag is not looked at
    flagless.files = {"/nowhere"};
    const Result r = run_messages({with_files("hi", {file("a.txt", std::string(1000, 'a')), file("bb.dat", "bbb")}),
                                   with_files("n", {}), flagless});
    const std::string block = "00000005" + nuls(72) + "a.txt00000006" + nuls(72) + "bb.dat0000000200000171";
    expect_sent(r, header('0', 461) + plain_block('1', 4) + "hi" + block + "00001000" + std::string(1000, 'a') +
                       "00000003bbb" + header('0', 289) + plain_block('1', 4) + "n" + "0000000000000000" +
                       data_frame("m"));
    const auto sent = [](const std::string& name, const std::string& size) {
        return "5 -------------------start send file[files/" + name + "]------------------ | 4 begin send file[files/" +
               name + "] data[" + size + "] | write(8) | write(" + size + ") | 4 send file[files/" + name + "] data[" +
               size + "] success. | 3 send file[files/" + name + "] | ";
    };
    EXPECT_TRUE(in_order(r,
                         {"5 NETSTAT[1] | 5 ACCSNUM[2] | 5 snd file0[files/a.txt] (KVR_LogPrint) | "
                          "5 snd file1[files/bb.dat] (KVR_LogPrint) | cork(1) | 5 start write chl hdr | write(75) | "
                          "5 start write chl msg md | write(272) | 5 main msg len[2] | write(2) | "
                          "5 start write attachment header | write(187) | "
                          "4 ----------------------start process accessories--------------------- | 5 ACCSNUM[2] | " +
                          sent("a.txt", "1000") + sent("bb.dat", "3") +
                          "cork(0) | 4 send data[1464] success. | 4 send 2 real size[1464]"},
                         "LHST"));
}

TEST_F(Send, FileMessage) {
    const std::string path = file("x.dat", "content");
    Message both = file_message(path);
    both.md.iMsgFlags = KVR_MSGFLAG_ACCESSORIES;
    both.files = {file("y.dat", "attached")};
    const Message loose = file_message(path + nuls(1) + "leftovers of a longer message" + std::string(1000, '?'));
    const std::string far = "files" + std::string(1013, '/') + "x.dat";
    const Result r = run_messages({file_message(far), both, loose});
    const auto frame_of = [](std::size_t length, const std::string& block, int flags) {
        return header('4', 272 + length + block.size()) + plain_block('2', flags) + padded("x.dat", length) + block;
    };
    expect_sent(r, frame_of(1023, "", 0) + "00000007content" + frame_of(path.size(), attachment_block({"y.dat"}), 4) +
                       "00000008attached" + "00000007content" + frame_of(path.size(), "", 0) + "00000007content");
    EXPECT_TRUE(in_order(r, {"5 main msg len[1023]", "4 begin send file[" + far + "] data[7]",
                             "4 send data[1302] success.", "4 send 1023 real size[1302]"}));
}

TEST_F(Send, BadFileFailsTheMessageAfterItsFrame) {
    mkfifo("files/fifo", 0600);
    file("empty", "");
    const std::pair<std::string, std::string> cases[] = {
        {"files/none", "1 open [files/none] error[2:No such file or directory]"},
        {"files/empty", "1 tell [files/empty] ret[0] error[0:Success]"},
        {"files", "1 open [files] error[21:Is a directory]"},
        {"files/fifo", "1 open [files/fifo] error[29:Illegal seek]"},
        {"/dev/zero", "1 open [/dev/zero] error[29:Illegal seek]"},
    };
    for (const auto& [path, logged] : cases) {
        for (const bool own : {false, true}) {
            SCOPED_TRACE(logged + (own ? " as the message's file" : " attached"));
            const std::string base = path.substr(path.rfind('/') + 1);
            const std::string rest = own ? padded(base, path.size()) : "m" + attachment_block({base});
            const std::string cut = bind_frame("CH1") + header(own ? '4' : '0', 272 + rest.size()) +
                                    plain_block(own ? '2' : '1', own ? 0 : 4) + rest;
            const Result r = run_messages({own ? file_message(path) : with_files("m", {path}), message("next")});
            EXPECT_THAT(r.conns, ElementsAre(cut, cut, cut, cut, bind_frame("CH1") + data_frame("next")));
            EXPECT_EQ(r.count(logged), 4) << r.dump();
            EXPECT_TRUE(in_order(r, {logged, "1 SendFile2Rcvr[" + path + "] error[-2]",
                                     "1 ChlSndData len[" + std::to_string(own ? path.size() : 1) + "] error[-201]",
                                     "1 ProcMsg[-1]", "KVR_QueOpen(DLQ)", "4 send 4 real size[276]"}));
        }
    }
}

// What can never be sent is refused before a byte of it is written, and not tried again.
TEST_F(Send, ImpossibleMessagesAreRefusedBeforeAnyByte) {
    const std::string huge = file("huge", "");
    ASSERT_EQ(truncate(huge.c_str(), 100000000), 0);
    Message too_many = with_files("m", {});
    too_many.file_count = 31;
    Message negative = with_files("m", {});
    negative.file_count = -1;
    Message no_list = with_files("m", {});
    no_list.null_list = true;
    for (const Message& msg :
         {file_message(huge), with_files("m", {file("ok", "ok"), huge}), file_message(std::string(1024, 'p')),
          file_message(std::string(2000000, 'p')), too_many, negative, no_list}) {
        SCOPED_TRACE(msg.data.substr(72, 200));
        const Result r = run_messages({msg, message("next")});
        EXPECT_THAT(r.conns, ElementsAre(bind_frame("CH1") + data_frame("next"))) << r.dump();
        EXPECT_TRUE(in_order(
            r, {"1 ProcMsg[-1]", "KVR_QueOpen(DLQ)", "KVR_QueMsgPut(" + std::to_string(msg.data.size()) + ")"}));
        EXPECT_EQ(r.count("error[-201]"), 0);
    }
}

TEST_F(Send, FailedWritesAreTold) {
    const Message msg = with_files("msg", {file("f", std::string(25000, 'f'))});
    for (const int length : {75, 4520}) {
        host().hooks["write"] = failing_of(length, 1, 7, ECONNRESET);
        const Result r = run_messages({msg});
        const std::string piece = "[" + std::to_string(length) + "]";
        EXPECT_TRUE(in_order(r, {(length == 75 ? "1 write " : "1 write data") + piece + " to receiver error[104:write" +
                                     piece + " ret[7] error[" + err(ECONNRESET) + "]] return[-1]",
                                 "1 ChlSndData len[3] error[-201]", "4 send 3 real size[25372]"}));
        EXPECT_EQ(r.count("1 SendFile2Rcvr[files/f] error[-201]"), length == 75 ? 0 : 1);
        EXPECT_EQ(r.count("write(10240)"), length == 75 ? 2 : 4) << "not in chunks";
    }
}

} // namespace
} // namespace kvr::test
