// SPDX-License-Identifier: MIT
// The host's log, through a real file: what a line looks like, what is kept out of it, and that handlers may log.
#include "log.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kavro_log.h"
#include "support/folder.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

constexpr std::size_t kMaxLine = 4096;
/// Everything before the text.
constexpr char kPrefix[] = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z [1-5] QM1 [0-9]+ "
                           "\\$mod unit:[0-9]+ work ";
constexpr std::string_view kPrefixEnd = " work ";

int log_text(int level, const std::string& text) {
    return KVR_LogPrint(nullptr, level, const_cast<char*>("$mod"), const_cast<char*>("unit"), 12, "work",
                        const_cast<char*>("%s"), text.c_str());
}

class Log : public testing::Test {
  protected:
    Log() {
        const mode_t before = umask(0);
        EXPECT_EQ(kvr::log_open(file_.c_str()), 0);
        umask(before);
        char qmgr[] = "QM1";
        KVR_LogSetQMName(qmgr);
        kvr::log_set_level(kvr::kLogDefaultLevel);
    }
    ~Log() override { kvr::log_open(nullptr); }

    std::vector<std::string> lines() {
        std::ifstream in(file_);
        std::vector<std::string> result;
        for (std::string line; std::getline(in, line);) {
            result.push_back(line);
        }
        return result;
    }

    /// Logs one text and gives back what the line shows of it.
    std::string shown(const std::string& text) {
        std::filesystem::resize_file(file_, 0);
        log_text(1, text);
        const std::vector<std::string> all = lines();
        if (all.size() != 1 || !testing::Matches(MatchesRegex(std::string(kPrefix) + ".*"))(all[0])) {
            ADD_FAILURE() << "not one well-formed line: " << testing::PrintToString(all);
            return {};
        }
        return all[0].substr(all[0].find(kPrefixEnd) + kPrefixEnd.size());
    }

    kvr::test::TemporaryFolder folder_;
    std::filesystem::path file_ = folder_.path() / "log";
};

TEST_F(Log, ShowsOnlyWhatIsPrintable) {
    const struct {
        const char* name;
        std::string text;
        std::string expected;
    } cases[] = {
        {"plain", "send 5 real size[5]", "send 5 real size[5]"},
        {"forged line", "x\n2026-01-01 1 fake", "x\\x0a2026-01-01 1 fake"},
        {"terminal control", "\x1b[2J\x07\x7f\t\r", "\\x1b[2J\\x07\\x7f\\x09\\x0d"},
        {"utf-8", "gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x98\x80",
         "gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x98\x80"},
        {"c1 control in utf-8",
         "\xc2\x9b"
         "2J",
         "\\xc2\\x9b2J"},
        {"latin-1", "gr\xfc\xdf", "gr\\xfc\\xdf"},
        {"overlong and surrogate", "\xc0\xaf\xe0\x80\xaf\xed\xa0\x80", "\\xc0\\xaf\\xe0\\x80\\xaf\\xed\\xa0\\x80"},
        {"percent signs of an argument", "%s%n%d", "%s%n%d"},
    };
    for (const auto& test : cases) {
        EXPECT_EQ(shown(test.text), test.expected) << test.name;
    }
}

TEST_F(Log, MasksSecrets) {
    const std::string longer(300, 'k');
    for (const std::string& secret : {std::string("pw"), std::string("s3cret"), std::string("s3cret-and-more"),
                                      std::string("ta\tb"), longer, std::string()}) {
        kvr_log_add_secret(secret.c_str());
    }
    kvr_log_add_secret(nullptr);
    const struct {
        const char* name;
        std::string text;
        std::string expected;
    } cases[] = {
        {"short in brackets", "KEYPASS[pw]", "KEYPASS[********]"},
        {"short elsewhere", "pw in prose, [pwd] and [spw]", "pw in prose, [pwd] and [spw]"},
        {"long anywhere", "a s3cret, xs3cretx", "a ********, x********x"},
        {"longest wins", "[s3cret-and-more]", "[********]"},
        {"with a control character", "=ta\tb=", "=********="},
        {"beyond the table's width", longer.substr(0, 256) + "k", "********k"},
    };
    for (const auto& test : cases) {
        EXPECT_EQ(shown(test.text), test.expected) << test.name;
    }
}

TEST_F(Log, CutsLongLinesAndLeaksNoPartOfASecretThere) {
    log_text(1, std::string(10000, 'a'));
    std::vector<std::string> all = lines();
    ASSERT_EQ(all.size(), 1U);
    EXPECT_THAT(all[0], EndsWith("aaa [cut]"));
    EXPECT_EQ(all[0].size() + 1, kMaxLine);

    // Masked secrets make the text shorter than its buffer, so that the end of the buffer becomes visible: whatever the
    // offset, the last secret is broken there.
    const std::string secret = "0123456789abcdef0123456789ABCDEF0123456789abcdef";
    kvr_log_add_secret(secret.c_str());
    for (std::size_t offset = 0; offset < secret.size(); ++offset) {
        std::filesystem::resize_file(file_, 0);
        std::string text(offset, '.');
        while (text.size() < 2 * kMaxLine) {
            text += secret;
        }
        log_text(1, text);
        all = lines();
        ASSERT_EQ(all.size(), 1U);
        EXPECT_THAT(all[0], EndsWith("********** [cut]"));
        EXPECT_THAT(all[0].substr(all[0].size() / 2), Not(HasSubstr("0"))) << offset;
    }
}

TEST_F(Log, DropsLinesAboveTheLevel) {
    for (const int threshold : {0, 1, 3, 5}) {
        std::filesystem::resize_file(file_, 0);
        kvr::log_set_level(threshold);
        for (int level = 1; level <= 5; ++level) {
            log_text(level, "x");
        }
        EXPECT_EQ(lines().size(), static_cast<std::size_t>(threshold));
    }
}

TEST_F(Log, KeepsItsFilePrivateAndErrnoAlone) {
    struct stat info {};
    ASSERT_EQ(stat(file_.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600U);

    errno = EPIPE;
    log_text(1, "written");
    EXPECT_EQ(errno, EPIPE);

    KVR_LogPrint(nullptr, 1, nullptr, nullptr, -1, nullptr, const_cast<char*>("%d"), 7);
    EXPECT_THAT(lines().back(), EndsWith(" - -:-1 - 7"));
    EXPECT_EQ(kvr::log_open("/nonexistent/folder/log"), -1);
    EXPECT_EQ(errno, ENOENT);
    log_text(1, "still here");
    EXPECT_EQ(lines().size(), 3U);

    ASSERT_EQ(kvr::log_open("/dev/full"), 0);
    errno = EPIPE;
    log_text(1, "lost");
    EXPECT_EQ(errno, EPIPE);
}

volatile std::sig_atomic_t g_handled = 0;

void log_in_handler(int /*signal*/) {
    KVR_LogPrint(nullptr, 1, const_cast<char*>("$mod"), const_cast<char*>("unit"), 1, "work",
                 const_cast<char*>("handler %d"), static_cast<int>(g_handled));
    g_handled = g_handled + 1;
}

TEST_F(Log, MayBeReenteredByAHandler) {
    struct sigaction action {};
    struct sigaction before {};
    action.sa_handler = log_in_handler;
    sigaction(SIGALRM, &action, &before);
    const itimerval storm{{0, 200}, {0, 200}};
    setitimer(ITIMER_REAL, &storm, nullptr);
    constexpr int kWanted = 50;
    int logged = 0;
    while (g_handled < kWanted) {
        log_text(1, "main " + std::to_string(logged++));
    }
    const itimerval calm{};
    setitimer(ITIMER_REAL, &calm, nullptr);
    sigaction(SIGALRM, &before, nullptr);

    const std::vector<std::string> all = lines();
    EXPECT_EQ(all.size(), static_cast<std::size_t>(logged + g_handled));
    EXPECT_THAT(all, testing::Each(MatchesRegex(std::string(kPrefix) + "(main|handler) [0-9]+")));
}

TEST(LogOnStandardError, DropsLinesRatherThanWaitForAReader) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const int real_stderr = dup(STDERR_FILENO);
    dup2(ends[1], STDERR_FILENO);
    ASSERT_EQ(kvr::log_open(nullptr), 0);
    kvr::log_set_level(kvr::kLogDefaultLevel);
    const std::string text(1000, 'x');
    for (int i = 0; i < 200; ++i) { // three times what a pipe holds: hangs here if lines were waited for
        log_text(1, text);
    }
    char drained[65536];
    ASSERT_GT(read(ends[0], drained, sizeof(drained)), 0);
    log_text(1, "the reader is back");
    dup2(real_stderr, STDERR_FILENO);
    close(real_stderr);
    close(ends[1]);
    std::string rest;
    for (ssize_t got = 0; (got = read(ends[0], drained, sizeof(drained))) > 0;) {
        rest.append(drained, static_cast<std::size_t>(got));
    }
    close(ends[0]);
    EXPECT_THAT(rest, HasSubstr("the reader is back\n"));
}

} // namespace
