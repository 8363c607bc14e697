// SPDX-License-Identifier: MIT
// The spool: names that a sender chose, files that replace nothing, leftovers.
#include <gtest/gtest.h>

#include "kavutil/error.h"
#include "receiver/spool.h"
#include "support/folder.h"

namespace kvr::test {
namespace {

namespace fs = std::filesystem;

class SpoolTest : public testing::Test {
  protected:
    /// The name under which a file is stored.
    std::string stored(const std::string& wire_name, std::string_view content) {
        IncomingFile file(*spool_, wire_name);
        std::span<const char> bytes(content);
        EXPECT_TRUE(file.write(bytes));
        EXPECT_TRUE(file.finish());
        const fs::path path = file.publish();
        EXPECT_EQ(path.parent_path(), dir_);
        EXPECT_EQ(contents(path), content);
        return path.filename();
    }

    TemporaryFolder folder_;
    fs::path dir_ = folder_.path() / "spool";
    std::optional<Spool> spool_{dir_};
};

TEST_F(SpoolTest, NamesBecomeOneHarmlessComponent) {
    using namespace std::string_literals;
    const std::pair<std::string, std::string> cases[] = {
        {"..", "%2E."},
        {".", "%2E"},
        {"../../etc/passwd", "..%2F..%2Fetc%2Fpasswd"},
        {"a\nb\x7f\x1b[2J", "a%0Ab%7F%1B[2J"},
        {"nul\0inside"s, "nul%00inside"},
        {"\xff\xfe\xe4", "\xff\xfe\xe4"},
        {"", "%"},
        {std::string(511, 'n'), std::string(255, 'n')},
        {std::string(511, 'n'), std::string(244, 'n') + ".1"},
        {std::string(300, 'n') + ".tar", std::string(251, 'n') + ".tar"},
        {"x." + std::string(300, 'e'), "x." + std::string(253, 'e')},
    };
    std::set<std::string> names = {Spool::kIncoming};
    for (const auto& [wire, name] : cases) {
        EXPECT_EQ(stored(wire, "content of " + name), name);
        names.insert(name);
    }
    EXPECT_EQ(names_in(dir_), names);
    EXPECT_EQ(names_in(folder_.path()), std::set<std::string>{"spool"});
}

TEST_F(SpoolTest, NothingIsOverwrittenOrFollowed) {
    std::ofstream(folder_.path() / "precious") << "untouched";
    fs::create_symlink(folder_.path() / "precious", dir_ / "link");
    fs::create_symlink(folder_.path() / "nowhere", dir_ / "dangling");
    fs::create_directory(dir_ / "folder");
    for (const std::string name : {"link", "dangling", "folder", Spool::kIncoming}) {
        EXPECT_EQ(stored(name, "new"), name + ".1");
    }
    EXPECT_EQ(stored("twice", "one"), "twice");
    EXPECT_EQ(stored("twice", "two"), "twice.1");
    EXPECT_EQ(stored("twice", "three"), "twice.2");
    EXPECT_EQ(contents(dir_ / "twice"), "one");
    EXPECT_EQ(contents(folder_.path() / "precious"), "untouched");
    EXPECT_FALSE(fs::exists(folder_.path() / "nowhere"));
    EXPECT_EQ(fs::status(dir_ / "twice").permissions(), fs::perms(0600));
}

TEST_F(SpoolTest, UnfinishedFilesLeaveNothing) {
    const auto incoming = [this] { return names_in(dir_ / Spool::kIncoming).size(); };
    {
        IncomingFile dropped(*spool_, "a");
        std::span<const char> bytes(std::string_view("half"));
        ASSERT_TRUE(dropped.write(bytes));
        EXPECT_EQ(incoming(), 1U);
    }
    EXPECT_EQ(incoming(), 0U);
    std::ofstream(dir_ / Spool::kIncoming / "7") << "left by a process that was killed";
    spool_.reset();
    spool_.emplace(dir_);
    EXPECT_EQ(incoming(), 0U);
}

TEST_F(SpoolTest, RefusesAFolderThatIsNotItsOwn) {
    const fs::path open = folder_.path() / "open";
    fs::create_directory(open);
    fs::permissions(open, fs::perms::all);
    const fs::path deep = folder_.path() / std::string(230, 'd') / std::string(230, 'd');
    fs::create_directories(deep);
    const fs::path elsewhere = folder_.path() / "elsewhere";
    fs::create_directory(elsewhere);
    fs::permissions(elsewhere, fs::perms::owner_all);
    const fs::path link = folder_.path() / "link";
    fs::create_directory_symlink(elsewhere, link);
    const std::pair<fs::path, Errc> cases[] = {
        {dir_, Errc::kBusy}, {open, Errc::kPermission}, {dir_ / "missing/spool", Errc::kIo},
        {link, Errc::kIo},   {link / "", Errc::kIo},    {deep, Errc::kTooLong}};
    for (const auto& [path, code] : cases) {
        try {
            const Spool spool(path);
            ADD_FAILURE() << path;
        } catch (const Error& error) {
            EXPECT_EQ(error.code(), code) << path;
        }
    }
}

} // namespace
} // namespace kvr::test
