// SPDX-License-Identifier: MIT
// The pass phrase of a key in everything that others can read, the modes of what is written, links where files are
// expected, and what names of others' making do to what people read.
#include <algorithm>
#include <fstream>

#include <sys/stat.h>
#include <unistd.h>

#include "field.h"
#include "support/raw_line.h"
#include "support/receiver_stream.h"

namespace kvr::test {
namespace {

namespace fs = std::filesystem;

/// What the process shows of itself to the machine; and it leaves no core file.
std::string visible(const Child& child) {
    const fs::path folder = "/proc/" + std::to_string(child.pid());
    EXPECT_NE(contents(folder / "limits").find("Max core file size        0                    0"), std::string::npos);
    return contents(folder / "cmdline") + contents(folder / "environ");
}

// The right phrase and a wrong one with format characters, by sender and listener.
TEST(Secrets, ThePassPhraseIsNowhereToBeSeen) {
    Field field(Carrier::kTls13);
    const auto& [cert, key] = tls_material().encrypted_client;
    const std::string phrase_file = (field.home() / "phrase").native();
    const fs::path port = field.home() / "own-port";
    Child listener = field.listen();
    field.set_channel({{"SHORTRTY", "0"}});
    std::string seen;
    for (const std::string& phrase : {std::string("horse.%s%n.battery"), std::string(kKeyPass)}) {
        const bool right = phrase == kKeyPass;
        std::ofstream(phrase_file) << phrase << '\n';
        const Words settings{"set", "qmgr", "--keypass-file", phrase_file, "KEYFILE=" + key, "CERTFILE=" + cert};
        EXPECT_EQ(field.start(kSender, settings).result(), 0);
        Child worker = field.run_channel();
        Child other = field.start(kReceiver, {"listen", "--address", "127.0.0.1", "--port", "0", "--port-file", port,
                                              "--tls", "--cert", cert, "--key", key, "--key-pass-file", phrase_file});
        await("the worker", [&] { return field.status() == "RUNING" || has_ended(worker); });
        await("the listener", [&] { return fs::exists(port) || has_ended(other); });
        seen += right ? visible(worker) + visible(other) : "";
        EXPECT_EQ(field.start(kSender, {"--json", "show", "qmgr"}).result(), 0);
        EXPECT_EQ(field.start(kSender, {"status"}).result(), 0);
        EXPECT_EQ(worker.result_under(SIGTERM), right ? 0 : 1);
        EXPECT_EQ(other.result_under(SIGTERM), right ? 0 : 1);
        seen += field.text("log") + field.text("out") + field.text("journal");
        EXPECT_EQ(seen.find(phrase), std::string::npos);
    }
    EXPECT_GE(field.count("log", "********"), 2U);
}

// Below another user's folder it is that user's: root becomes the owner, and reads no files of its own as such.
TEST(Secrets, WhatIsWrittenIsPrivateToItsOwnerWhateverTheUmask) {
    const bool root = ::geteuid() == 0;
    const uid_t owner = root ? 54321 : ::geteuid();
    Field field;
    field.set_prelude("umask 0; exec");
    const fs::path above = field.home() / "above";
    const fs::path file = field.home() / "attached";
    const fs::path port = above / "home" / "port";
    std::ofstream(file) << "contents";
    fs::create_directory(above);
    fs::permissions(field.home(), fs::perms(0711));
    ASSERT_EQ(::chown(above.c_str(), owner, owner), 0);
    const auto run = [&](Words words) {
        words.insert(words.begin(), {"--home", above / "home"});
        return field.start(words);
    };
    EXPECT_EQ(run({"create", "EAST"}).result(), 0);
    EXPECT_EQ(run({"define", "queue", "TO.WEST"}).result(), 0);
    Child listener = run({"listen", "--address", "127.0.0.1", "--port", "0", "--port-file", port, "--journal",
                          above / "home" / "journal"});
    await("the listener", [&] { return contents(port).find('\n') != std::string::npos; });
    const std::string name = "127.0.0.1(" + std::to_string(std::stoi(contents(port))) + ")";
    EXPECT_EQ(run({"define", "channel", "EAST.WEST", "XMITQ=TO.WEST", "CONNAME=" + name}).result(), 0);
    EXPECT_EQ(run({"put", "TO.WEST", "x", "--dest", "DEAD.LETTER.QUEUE", "--attach", file}).result(), 0);
    Child worker = run({"run", "EAST.WEST", "--plugin", KVR_PLUGIN});
    EXPECT_EQ(run({"get", "DEAD.LETTER.QUEUE", "--wait", "30", "--out", above / "home" / "got/"}).result(), 0);
    EXPECT_EQ(worker.result_under(SIGTERM), 0);
    EXPECT_EQ(listener.result_under(SIGTERM), 0);
    int entries = 0;
    for (const auto& entry : fs::recursive_directory_iterator(above / "home")) {
        struct stat info {};
        ASSERT_EQ(::lstat(entry.path().c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 07777U, S_ISDIR(info.st_mode) ? 0700U : 0600U) << entry.path();
        EXPECT_EQ(info.st_uid, owner) << entry.path();
        ++entries;
    }
    EXPECT_GE(entries, 18);
    fs::permissions(file, fs::perms(0600));
    for (const Words& words :
         {Words{"put", "TO.WEST", "--data-file", file}, Words{"put", "TO.WEST", "--attach", file},
          Words{"set", "qmgr", "CERTFILE=" + file.native()}, Words{"set", "qmgr", "--keypass-file", file}}) {
        EXPECT_EQ(run(words).result(), root ? 1 : 0) << words.at(2);
    }
}

// What an owner, or whoever can write where a file is named, puts in a file's place.
TEST(Secrets, NoLinkIsFollowed) {
    Field field;
    const fs::path file = field.home() / "victim";
    const fs::path folder = field.home() / "victims";
    const fs::path named = field.home() / "named";
    fs::create_directory(folder);
    fs::permissions(folder, fs::perms::owner_all);
    std::ofstream(file) << "precious";
    const fs::path sender = field.qmgr(kSender);
    const Words run{"run", kChannel, "--plugin", KVR_PLUGIN, "--log", named};
    const Words listen{"listen", "--address", "127.0.0.1", "--port", "0", "--journal", named};
    const Words get{"get", kXmitQueue, "--wait", "1"};
    field.set_channel({{"SHORTRTY", "0"}}); // a worker that is not refused ends by itself, with the same status
    std::vector<std::tuple<fs::path, fs::path, const char*, Words>> cases{
        {sender / "run", folder, kSender, run},
        {sender / "log", folder, kSender, {run.begin(), run.end() - 2}},
        {sender / "log" / (std::string(kChannel) + ".log"), file, kSender, {run.begin(), run.end() - 2}},
        {named, file, kSender, run},
        {field.qmgr(kReceiver) / "spool", folder, kReceiver, listen},
        {named, file, kReceiver, listen}};
    for (const auto& entry : fs::directory_iterator(sender / "queues")) {
        if (entry.path().extension() == ".fifo") {
            cases.emplace_back(entry.path(), file, kSender, get);
        }
    }
    for (const auto& [link, target, qmgr, words] : cases) {
        fs::create_directories(link.parent_path());
        fs::permissions(link.parent_path(), fs::perms::owner_all);
        fs::remove_all(link);
        fs::create_symlink(target, link);
        EXPECT_EQ(field.start(qmgr, words).result(), 1) << link;
        EXPECT_TRUE(fs::is_symlink(link)) << link;
        fs::remove(link);
        EXPECT_TRUE(contents(file) == "precious" && fs::is_empty(folder)) << link;
    }
    // A port file takes the place of what has its name, and so does the file that it was before.
    fs::create_symlink(file, named);
    fs::create_symlink(file, field.home() / "named.new");
    Child listener = field.start(kReceiver, {"listen", "--address", "127.0.0.1", "--port", "0", "--port-file", named});
    await("the listener", [&] { return !fs::is_symlink(named); });
    EXPECT_EQ(listener.result_under(SIGTERM), 0);
    EXPECT_EQ(contents(file), "precious");
}

// Escape sequences for terminals, line feeds that would forge a line, bytes that are no text, in the names of a
// channel, a queue and a file.
TEST(Secrets, NamesOfOthersMakingStayOneLineOfText) {
    const std::string forged = "\n2026-01-01T00 FORGED\r\x1b[2J\x07\xff\x9b"
                               "31m";
    Field field;
    Child listener = field.listen();
    const RawLine refused(field.port());
    ASSERT_TRUE(refused.send(bind_frame(forged)));
    refused.await_end();
    const RawLine line(field.port());
    ASSERT_TRUE(line.send(bind_frame("FORGER") +
                          message_with_files(forged.substr(0, 32), "m", {{"name" + forged, "contents"}})));
    await("the dead letter", [&] { return field.receiver().queue_info(kDeadQueue).depth == 1; });
    EXPECT_EQ(field.start(kReceiver, {"browse", kDeadQueue}).result(), 0);
    EXPECT_EQ(listener.result_under(SIGTERM), 0);
    for (const char* text : {"out", "journal"}) {
        const std::string written = field.text(text);
        EXPECT_NE(written.find("FORGED"), std::string::npos) << text;
        EXPECT_EQ(written.find("\n2026-01-01T00"), std::string::npos) << text;
        EXPECT_TRUE(std::ranges::all_of(written, [](char byte) {
            return byte == '\n' || (byte >= ' ' && byte < 0x7f);
        })) << text;
    }
}

} // namespace
} // namespace kvr::test
