// SPDX-License-Identifier: MIT
// The spool: names that a sender chose, files that replace nothing, leftovers.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>

#include <fcntl.h>
#include <sys/stat.h>

#include "error.h"
#include "spool.h"
#include "support/folder.h"

namespace kvr::test {
namespace {

std::string stored(Spool& spool, const std::string& name, std::string_view content) {
    IncomingFile file(spool, name);
    std::span<const char> bytes(content);
    EXPECT_EQ(file.write(bytes), IncomingFile::Write::kDone);
    EXPECT_TRUE(file.finish());
    return file.publish();
}

TEST(Spool, NamesBecomeOneHarmlessComponent) {
    using namespace std::string_literals;
    const struct {
        std::string wire;
        std::string name;
    } cases[] = {
        {"..", "%2E."},
        {".", "%2E"},
        {"...", "..."},
        {"../../etc/passwd", "..%2F..%2Fetc%2Fpasswd"},
        {"a\nb\x7f\x1b[2J", "a%0Ab%7F%1B[2J"},
        {"nul\0inside"s, "nul%00inside"},
        {"\xff\xfe\xe4", "\xff\xfe\xe4"},
        {"", "%"},
        {std::string(511, 'n'), std::string(255, 'n')},
        {std::string(300, 'n') + ".tar", std::string(251, 'n') + ".tar"},
        {"x." + std::string(300, 'e'), "x." + std::string(253, 'e')},
    };
    const TemporaryFolder folder;
    Spool spool(folder.path() / "spool");
    std::set<std::string> names = {Spool::kIncoming};
    for (const auto& [wire, name] : cases) {
        SCOPED_TRACE(name);
        EXPECT_EQ(spool_name(wire, kMaxSpoolName), name);
        EXPECT_EQ(stored(spool, wire, "content of " + name), spool.dir() + "/" + name);
        EXPECT_EQ(contents(folder.path() / "spool" / name), "content of " + name);
        names.insert(name);
    }
    EXPECT_EQ(names_in(folder.path() / "spool"), names);
    EXPECT_EQ(names_in(folder.path()), std::set<std::string>{"spool"});
}

TEST(Spool, NothingIsOverwrittenOrFollowed) {
    const TemporaryFolder folder;
    Spool spool(folder.path() / "spool");
    std::ofstream(folder.path() / "precious") << "untouched";
    std::filesystem::create_symlink(folder.path() / "precious", spool.dir() + "/link");
    std::filesystem::create_symlink(folder.path() / "nowhere", spool.dir() + "/dangling");
    std::filesystem::create_directory(spool.dir() + "/folder");
    for (const char* const name : {"link", "dangling", "folder", Spool::kIncoming}) {
        EXPECT_EQ(stored(spool, name, "new"), spool.dir() + "/" + name + ".1");
    }
    EXPECT_EQ(stored(spool, "twice", "one"), spool.dir() + "/twice");
    EXPECT_EQ(stored(spool, "twice", "two"), spool.dir() + "/twice.1");
    EXPECT_EQ(stored(spool, "twice", "three"), spool.dir() + "/twice.2");
    EXPECT_EQ(contents(spool.dir() + "/twice"), "one");
    EXPECT_EQ(contents(spool.dir() + "/twice.2"), "three");
    EXPECT_EQ(contents(folder.path() / "precious"), "untouched");
    EXPECT_FALSE(std::filesystem::exists(folder.path() / "nowhere"));
    const std::string longest(300, 'l');
    EXPECT_EQ(stored(spool, longest, "1").size(), spool.dir().size() + 1 + 255);
    EXPECT_TRUE(stored(spool, longest, "2").ends_with("l.1"));
    struct stat status {};
    ASSERT_EQ(::stat((spool.dir() + "/twice").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

TEST(Spool, UnfinishedFilesLeaveNothing) {
    const TemporaryFolder folder;
    {
        Spool spool(folder.path() / "spool");
        IncomingFile dropped(spool, "a");
        std::string_view content = "half";
        std::span<const char> bytes(content);
        ASSERT_EQ(dropped.write(bytes), IncomingFile::Write::kDone);
        EXPECT_EQ(names_in(folder.path() / "spool/.incoming").size(), 1U);
    }
    EXPECT_TRUE(names_in(folder.path() / "spool/.incoming").empty());
    std::ofstream(folder.path() / "spool/.incoming/7") << "left by a process that was killed";
    const Spool again(folder.path() / "spool");
    EXPECT_TRUE(names_in(folder.path() / "spool/.incoming").empty());
}

TEST(Spool, RefusesAFolderThatIsNotItsOwn) {
    const TemporaryFolder folder;
    const auto refusal = [](const std::filesystem::path& path) {
        try {
            const Spool spool(path);
        } catch (const Error& error) {
            return error.code();
        }
        return Errc{};
    };
    const Spool in_use(folder.path() / "in_use");
    EXPECT_EQ(refusal(folder.path() / "in_use"), Errc::kBusy);
    std::filesystem::create_directory(folder.path() / "open");
    ASSERT_EQ(::chmod((folder.path() / "open").c_str(), 0777), 0);
    EXPECT_EQ(refusal(folder.path() / "open"), Errc::kPermission);
    EXPECT_EQ(refusal(folder.path() / "missing/spool"), Errc::kIo);
    std::filesystem::path deep = folder.path();
    while (deep.native().size() < 460) {
        deep /= std::string(40, 'd');
    }
    std::filesystem::create_directories(deep);
    EXPECT_EQ(refusal(deep / "spool"), Errc::kTooLong);
}

} // namespace
} // namespace kvr::test
