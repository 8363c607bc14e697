// SPDX-License-Identifier: MIT
// The pass phrase of a key in everything that others can read, the modes of what is written, links where files are
// expected, and what names of others' making do to what people read.
#include <algorithm>

#include <sys/stat.h>

#include "field.h"
#include "support/raw_line.h"
#include "support/receiver_stream.h"

namespace kvr::test {

namespace fs = std::filesystem;

/// What the process shows of itself to the machine; and it leaves no core file.
static std::string visible(const Child& child) {
    const fs::path folder = "/proc/" + std::to_string(child.pid());
    EXPECT_NE(contents(folder / "limits").find("Max core file size        0                    0"), std::string::npos);
    return contents(folder / "cmdline") + contents(folder / "environ");
}

TEST(Secrets, ThePassPhraseIsNowhereToBeSeen) {
    Field field(Carrier::kTls13);
    const auto& [cert, key] = tls_material().encrypted_client;
    const fs::path phrase_file = field.home() / "phrase";
    std::ofstream(phrase_file) << kKeyPass << '\n';
    field.set_identity({cert, key});
    Child listener = field.listen({"--key-pass-file", phrase_file});
    field.set_channel({{"SHORTRTY", "0"}});
    for (const std::string& phrase : {std::string("horse.%s%n.battery"), std::string(kKeyPass)}) {
        const bool right = phrase == kKeyPass;
        std::ofstream(phrase_file) << phrase << '\n';
        const Words settings{"set", "qmgr", "--keypass-file", phrase_file, "KEYFILE=" + key, "CERTFILE=" + cert};
        EXPECT_EQ(field.start(kSender, settings).result(), 0);
        Child worker = field.run_channel();
        await("the worker", [&] { return field.status() == "RUNING" || has_ended(worker); });
        const std::string shown = right ? visible(worker) + visible(listener) : "";
        EXPECT_EQ(field.start(kSender, {"--json", "show", "qmgr"}).result(), 0);
        EXPECT_EQ(worker.result_under(SIGTERM), right ? 0 : 1);
        for (const std::string& text : {shown, field.text("log"), field.text("out"), field.text("journal")}) {
            EXPECT_EQ(text.find(phrase), std::string::npos) << text;
        }
    }
    EXPECT_GE(field.count("log", "********"), 2U);
}

// Below another user's folder it is that user's: root becomes the owner, and reads no files of its own as such.
TEST(Secrets, WhatIsWrittenIsPrivateToItsOwnerWhateverTheUmask) {
    const bool root = ::geteuid() == 0;
    const uid_t owner = root ? 54321 : ::geteuid();
    const TemporaryFolder folder;
    const fs::path home = folder.path() / "home";
    const fs::path file = folder.path() / "file";
    std::ofstream(file) << "contents";
    fs::permissions(file, fs::perms(0644));
    ASSERT_EQ(::chown(folder.path().c_str(), owner, owner), 0);
    Field field;
    field.set_prelude("umask 0; exec");
    ::setenv("KVR_HOME", home.c_str(), 1);
    ::unsetenv("KVR_QMGR");
    EXPECT_EQ(field.start({"create", "EAST"}).result(), 0);
    EXPECT_EQ(field.start({"define", "queue", "Q"}).result(), 0);
    Child listener =
        field.start({"listen", "--port", "0", "--port-file", home / "port", "--journal", home / "journal"});
    await("the listener", [&] { return contents(home / "port").find('\n') != std::string::npos; });
    const std::string name = "CONNAME=127.0.0.1(" + std::to_string(std::stoi(contents(home / "port"))) + ")";
    EXPECT_EQ(field.start({"define", "channel", "C", "XMITQ=Q", name}).result(), 0);
    EXPECT_EQ(field.start({"put", "Q", "x", "--dest", kDeadQueue, "--attach", file}).result(), 0);
    Child worker = field.start({"run", "C", "--plugin", KVR_PLUGIN});
    EXPECT_EQ(field.start({"get", kDeadQueue, "--wait", "30", "--out", home / "got/"}).result(), 0);
    EXPECT_EQ(worker.result_under(SIGTERM), 0);
    EXPECT_EQ(listener.result_under(SIGTERM), 0);
    EXPECT_GE(std::distance(fs::recursive_directory_iterator(home), {}), 18);
    for (const auto& entry : fs::recursive_directory_iterator(home)) {
        struct stat info {};
        ASSERT_EQ(::lstat(entry.path().c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 07777U, S_ISDIR(info.st_mode) ? 0700U : 0600U) << entry.path();
        EXPECT_EQ(info.st_uid, owner) << entry.path();
    }
    fs::permissions(file, fs::perms(0600));
    for (const Words& words :
         {Words{"put", "Q", "--data-file", file}, Words{"put", "Q", "x", "--attach", file},
          Words{"set", "qmgr", "CERTFILE=" + file.native()}, Words{"set", "qmgr", "--keypass-file", file}}) {
        EXPECT_EQ(field.start(words).result(), root ? 1 : 0) << words.at(2);
    }
}

// What an owner, or whoever can write where a file is named, puts in a file's place.
TEST(Secrets, NoLinkIsFollowed) {
    ::umask(0077);
    Field field;
    const fs::path file = field.home() / "victim";
    const fs::path folder = field.home() / "victims";
    const fs::path named = field.home() / "named";
    const fs::path sender = field.qmgr(kSender);
    fs::create_directory(folder);
    std::ofstream(file) << "precious";
    fs::create_symlink(file, field.home() / "port.new"); // what becomes the port file
    EXPECT_EQ(field.listen().result_under(SIGTERM), 0);
    field.set_channel({{"SHORTRTY", "0"}}); // a worker that is not refused ends by itself, with the same status
    EXPECT_EQ(field.start(kSender, {"put", kXmitQueue, "x", "--dest", kTarget}).result(), 0);
    const Words run{"run", kChannel, "--plugin", KVR_PLUGIN};
    const Words listen{"listen", "--port", "0", "--journal", named};
    const std::tuple<fs::path, fs::path, const char*, Words> cases[] = {
        {sender / "run", folder, kSender, run},
        {sender / "log", folder, kSender, run},
        {sender / "log" / (std::string(kChannel) + ".log"), file, kSender, run},
        {sender / "queues" / "1.fifo", file, kSender, {"get", kXmitQueue, "--raw"}},
        {named, file, kSender, {"run", kChannel, "--plugin", KVR_PLUGIN, "--log", named}},
        {field.qmgr(kReceiver) / "spool", folder, kReceiver, listen},
        {named, file, kReceiver, listen}};
    for (const auto& [link, target, qmgr, words] : cases) {
        fs::create_directories(link.parent_path());
        fs::remove_all(link);
        fs::create_symlink(target, link);
        const int code = field.start(qmgr, words).result();
        EXPECT_TRUE(code == 1 || code == 6) << link << " " << code;
        EXPECT_TRUE(fs::remove(link) && contents(file) == "precious" && fs::is_empty(folder)) << link;
    }
}

// Escape sequences for terminals, line feeds that would forge a line, bytes that are no text, in the names of a
// channel, a queue and a file.
TEST(Secrets, NamesOfOthersMakingStayOneLineOfText) {
    const std::string forged = "\n2026-01-01T00 FORGED\r\x1b[2J\x07\xff\x9b[m";
    Field field;
    Child listener = field.listen();
    const RawLine refused(field.port());
    const RawLine line(field.port());
    ASSERT_TRUE(refused.send(bind_frame(forged)));
    ASSERT_TRUE(line.send(bind_frame("C") + message_with_files(forged.substr(0, 32), "m", {{"name" + forged, "x"}})));
    refused.await_end();
    await("the dead letter", [&] { return field.receiver().queue_info(kDeadQueue).depth == 1; });
    EXPECT_EQ(field.start(kReceiver, {"browse", kDeadQueue}).result(), 0);
    EXPECT_EQ(listener.result_under(SIGTERM), 0);
    const auto plain = [](char byte) { return byte == '\n' || (byte >= ' ' && byte < 0x7f); };
    for (const std::string& text : {field.text("out"), field.text("journal")}) {
        EXPECT_NE(text.find("FORGED"), std::string::npos) << text;
        EXPECT_EQ(text.find("\n2026-01-01T00"), std::string::npos) << text;
        EXPECT_TRUE(std::ranges::all_of(text, plain)) << text;
    }
}

} // namespace kvr::test
