// SPDX-License-Identifier: MIT
// The host's log, through a real file: what a line looks like, what is kept out of it, and that handlers may log.
#include "kavro_log/log.h"

#include <fcntl.h>

#include <gmock/gmock.h>

#include "host/children.h"
#include "kavro_log.h"
#include "kavro_log/log_message.h"
#include "support/folder.h"

namespace {

using kvr::test::Child;
using kvr::test::contents;
using testing::EndsWith;
using testing::MatchesRegex;

int log_text(int level, const std::string& text) {
    return KVR_LogPrint(nullptr, level, const_cast<char*>("$mod"), const_cast<char*>("unit"), 12, "work",
                        const_cast<char*>("%s"), text.c_str());
}

class Log : public testing::Test {
  protected:
    Log() {
        EXPECT_EQ(kvr::log_open(file_.c_str()), 0);
        KVR_LogSetQMName(const_cast<char*>("QM1"));
    }
    ~Log() override { kvr::log_open(nullptr); }

    /// What the line of a text, the only one, shows of it.
    std::string shown(const std::string& text) const {
        std::filesystem::resize_file(file_, 0);
        log_text(1, text);
        const std::string line = contents(file_);
        EXPECT_THAT(line, MatchesRegex("[0-9-]{10}T[0-9:]{8}\\.[0-9]{3}Z 1 QM1 [0-9]+ \\$mod unit:12 work [^\n]*\n"));
        const std::size_t start = line.find(" work ") + 6;
        return line.substr(start, line.size() - start - 1);
    }

    kvr::test::TemporaryFolder folder_;
    std::filesystem::path file_ = folder_.path() / "log";
};

TEST_F(Log, ShowsWhatIsPrintableAndMasksSecrets) {
    const std::string longer(300, 'k');
    for (const char* secret : {"pw", "s3cret", "s3cret-and-more", "ta\tb", longer.c_str()}) {
        kvr_log_add_secret(secret);
    }
    const std::pair<std::string, std::string> cases[] = {
        {"send 5 real size[5] %s%n%d", "send 5 real size[5] %s%n%d"},
        {"x\n2026-01-01 1 forged \x1b[2J\x7f\r", "x\\x0a2026-01-01 1 forged \\x1b[2J\\x7f\\x0d"},
        {"\xc3\xbc \xe2\x82\xac \xf0\x9f\x98\x80", "\xc3\xbc \xe2\x82\xac \xf0\x9f\x98\x80"},
        {"c1 \xc2\x9b, latin-1 \xfc\xdf, overlong \xc0\xaf\xe0\x80\xaf, surrogate \xed\xa0\x80",
         "c1 \\xc2\\x9b, latin-1 \\xfc\\xdf, overlong \\xc0\\xaf\\xe0\\x80\\xaf, surrogate \\xed\\xa0\\x80"},
        {"KEYPASS[pw], pw in prose, [pwd] and [spw]", "KEYPASS[********], pw in prose, [pwd] and [spw]"},
        {"a s3cret, xs3cretx, the longest [s3cret-and-more]", "a ********, x********x, the longest [********]"},
        {"=ta\tb= and one beyond the table's width " + longer.substr(0, 256) + "k",
         "=********= and one beyond the table's width ********k"},
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(shown(text), expected);
    }
    const char id[kvr::kMessageIdSize] = {'a', '\n', 'b'};
    kvr::log_set_message(id);
    EXPECT_EQ(shown("text"), "text msg[0x610a62]");
    Child::fork_off([] { return log_text(1, "from a child"); }).result();
    EXPECT_THAT(contents(file_), EndsWith("from a child\n")) << "whose message it is not";
    kvr::log_set_message(nullptr);
}

TEST_F(Log, CutsLongLinesAndLeaksNoPartOfASecretThere) {
    EXPECT_THAT(shown(std::string(10000, 'a')), EndsWith("aaa [cut]"));
    EXPECT_EQ(std::filesystem::file_size(file_), 4096U);
    EXPECT_THAT(shown(std::string(2000, '\n')), EndsWith("\\x0a [cut]")); // longer once it is printable
    // Masked secrets make the text shorter than its buffer, so that the end of the buffer becomes visible: whatever the
    // offset, the last secret is broken there.
    const std::string secret = "0123456789abcdef0123456789ABCDEF0123456789abcdef";
    kvr_log_add_secret(secret.c_str());
    for (std::size_t offset = 0; offset < secret.size(); ++offset) {
        std::string text(offset, '.');
        while (text.size() < 8192) {
            text += secret;
        }
        EXPECT_THAT(shown(text), MatchesRegex("\\.*\\** \\[cut\\]")) << offset;
    }
}

volatile std::sig_atomic_t g_handled = 0;

TEST_F(Log, KeepsItsLevelAndErrnoAndMayBeReenteredByAHandler) {
    std::signal(SIGALRM, [](int) {
        log_text(1, "handler");
        g_handled = g_handled + 1;
    });
    kvr::test::repeat_alarm(200);
    std::ptrdiff_t logged = 0;
    for (; g_handled < 50; ++logged) {
        errno = EPIPE;
        log_text(logged % 2 == 0 ? kvr::kLogDefaultLevel : kvr::kLogDefaultLevel + 1, "main flow");
        ASSERT_EQ(errno, EPIPE);
    }
    kvr::test::repeat_alarm(0);
    const std::string log = contents(file_);
    EXPECT_EQ(std::ranges::count(log, '\n'), (logged + 1) / 2 + g_handled);
    EXPECT_THAT(log, MatchesRegex("([^\n]* QM1 [^\n]* work (main flow|handler)\n)*"));
}

TEST(LogOnStandardError, LinesOfOthersGetTheTimeBlockNobodyAndSurviveAnAbort) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer's report has the descriptor to itself";
#endif
    const kvr::test::TemporaryFolder folder;
    const std::filesystem::path file = folder.path() / "err";
    Child child = Child::fork_off([&] {
        const auto say = [](const std::string& text) { return write(STDERR_FILENO, text.data(), text.size()) < 0; };
        dup2(creat(file.c_str(), 0600), STDERR_FILENO);
        kvr::log_open(nullptr);
        kvr::log_divert_stderr();
        say("one\ntwo\x1b\n");
        log_text(1, "own");
        for (int i = 0; i < 1000; ++i) { // hangs here if somebody waited for a reader
            say(std::string(1000, 'x') + "\n");
        }
        kvr::log_restore_stderr();
        say("plain\n");
        kvr::log_divert_stderr();
        kvr::log_mark_priorities();
        say("last words\n");
        abort();
        return 0;
    });
    EXPECT_EQ(child.result(), -SIGABRT);
    const std::string time = "[0-9-]{10}T[0-9:]{8}\\.[0-9]{3}Z ";
    EXPECT_THAT(contents(file), MatchesRegex(time + "one\n" + time + "two\\\\x1b\n" + time + "1 [^\n]* work own\n(" +
                                             time + "x{1000}\n)+plain\n<4>" + time + "last words\n"));
}

} // namespace
