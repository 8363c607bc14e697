// SPDX-License-Identifier: MIT
// A queue manager that its owner shares with a group: three users, who are numbers without names.
#include <grp.h>
#include <sys/stat.h>

#include "kvr_program.h"
#include "store/permissions.h"
#include "support/peer.h"

namespace kvr::test {
namespace {

namespace fs = std::filesystem;

constexpr gid_t kGroup = 50000;
constexpr const char* kOwner = "40001";
constexpr const char* kMember = "40002";
constexpr const char* kStranger = "40003";

class SharedWithAGroup : public ProgramTest {
  protected:
    void SetUp() override {
        if (::geteuid() != 0) {
            GTEST_SKIP() << "only root can be other users";
        }
        fs::permissions(path(), fs::perms(0711));
        fs::create_directory(path() / "home");
        fs::permissions(path() / "home", fs::perms(0711));
        EXPECT_EQ(::chown((path() / "home").c_str(), 40001, 40001), 0);
        EXPECT_EQ(as(kOwner, "create SHARED --group 50000").code, 0);
        EXPECT_EQ(as(kMember, "define queue Q").code, 0);
    }
    [[nodiscard]] Child start_as(const char* user, const std::string& line, const std::string& name) const {
        const std::string id = user;
        return start("umask 077; export KVR_QMGR=SHARED; exec setpriv --reuid=" + id + " --regid=" + id + " --groups=" +
                         (id == kStranger ? id : std::to_string(kGroup)) + " $KVR --home $PWD/home " + line,
                     name);
    }
    [[nodiscard]] ProgramResult as(const char* user, const std::string& line) const {
        const int code = start_as(user, line, "as").result();
        return {code, text("as.out"), text("as.err")};
    }
    /// "owner:group:mode" of each thing in the queue manager's folder.
    [[nodiscard]] std::map<std::string, std::string> modes() const {
        std::map<std::string, std::string> modes;
        for (const auto& entry : fs::recursive_directory_iterator(dir_)) {
            struct stat info {};
            EXPECT_EQ(::lstat(entry.path().c_str(), &info), 0);
            std::ostringstream mode;
            mode << info.st_uid << ':' << info.st_gid << ':' << std::oct << (info.st_mode & 07777);
            modes[fs::relative(entry.path(), dir_)] = mode.str();
        }
        return modes;
    }
    const fs::path dir_ = path() / "home" / "SHARED";
};

TEST_F(SharedWithAGroup, EachTakesWhatTheOtherPutWhoeverMadeTheFiles) {
    for (const auto& [first, second] : {std::pair{kOwner, kMember}, {kMember, kOwner}}) {
        for (const auto& entry : fs::directory_iterator(dir_ / "queues")) {
            fs::remove(entry);
        }
        fs::remove(dir_ / "store" / "lock.mdb");
        EXPECT_EQ(as(first, "put Q one").code, 0);
        EXPECT_EQ(as(second, "get Q --raw").out, "one");
        Child taker = start_as(first, "get Q --raw --wait 30", "taker");
        EXPECT_EQ(as(second, "put Q two").code, 0);
        EXPECT_EQ(taker.result(), 0);
        EXPECT_EQ(text("taker.out"), "two");
    }
    for (const auto& [name, mode] : modes()) {
        EXPECT_THAT(mode, ContainsRegex(fs::is_directory(dir_ / name) ? ":50000:2770$" : ":50000:660$")) << name;
    }
}

TEST_F(SharedWithAGroup, OthersAreToldWhomToAskAndMembersWhatOnlyTheOwnerDoes) {
    for (const char* line : {"put Q x", "get Q", "browse Q", "status"}) {
        const ProgramResult refused = as(kStranger, line);
        EXPECT_EQ(refused.code, 1);
        EXPECT_THAT(refused.err, HasSubstr("user id 40003 is none of them")) << line;
    }
    for (const char* line :
         {"run C", "stop C", "listen --port 0", "delete qmgr SHARED --yes", "set qmgr --group none"}) {
        EXPECT_THAT(as(kMember, line).err, HasSubstr("only user id 40001, the owner of")) << line;
    }
    EXPECT_THAT(as(kOwner, "set qmgr --group 50001").err, HasSubstr("is not in group 50001"));
    fs::permissions(dir_.parent_path(), fs::perms(0700));
    EXPECT_THAT(as(kOwner, "set qmgr --group 50000").err, HasSubstr("home does not let them through"));
    EXPECT_THAT(as(kMember, "status").err, HasSubstr("home belongs to user id 40001 and does not let user id 40002"));
}

TEST_F(SharedWithAGroup, ShowsMembersWhoRunsAChannel) {
    EXPECT_EQ(as(kMember, "define channel C XMITQ=Q CONNAME='127.0.0.1(1)'").code, 0);
    const Child worker = start_as(kOwner, "run C --plugin " KVR_PLUGIN, "worker");
    ASSERT_TRUE(wait_until([&] { return text("worker.err").find("starts") != std::string::npos; }));
    EXPECT_EQ(json::parse(as(kMember, "status --json").out)["channels"][0]["pid"], worker.pid());
}

TEST_F(SharedWithAGroup, IsTheOwnersAloneAgainWithWhatMembersMade) {
    fs::remove(dir_ / "queues" / "2.mark");
    Child taker = start_as(kMember, "get Q --wait 30", "taker");
    ASSERT_TRUE(wait_until([&] { return fs::exists(dir_ / "queues" / "2.mark"); }));
    EXPECT_THAT(as(kOwner, "set qmgr --group none").err,
                HasSubstr("is open in process " + std::to_string(taker.pid())));
    EXPECT_EQ(as(kMember, "put Q x").code, 0);
    EXPECT_EQ(taker.result(), 0);
    const std::string mark = contents(dir_ / "queues" / "2.mark");
    EXPECT_EQ(as(kOwner, "set qmgr --group none").code, 0);
    for (const auto& [name, mode] : modes()) {
        EXPECT_EQ(mode, fs::is_directory(dir_ / name) ? "40001:40001:700" : "40001:40001:600") << name;
    }
    EXPECT_EQ(contents(dir_ / "queues" / "2.mark"), mark);
    EXPECT_THAT(as(kMember, "put Q x").err, HasSubstr("ask user id 40001 for 'kvr set qmgr --group GROUP'"));
    EXPECT_EQ(as(kOwner, "put Q x").code, 0);
}

TEST_F(SharedWithAGroup, IsRefusedWhenOthersThanTheGroupCanWrite) {
    for (const char* part : {"store", "queues", "store/data.mdb", "store/lock.mdb"}) {
        const fs::path changed = dir_ / part;
        fs::permissions(changed, fs::perms::others_write, fs::perm_options::add);
        EXPECT_THAT(as(kMember, "put Q x").err, HasSubstr("others can write to " + changed.native()));
        EXPECT_THAT(as(kOwner, "put Q x").err, HasSubstr("others can write to " + changed.native()));
        fs::permissions(changed, fs::perms::others_write, fs::perm_options::remove);
        EXPECT_EQ(::chown(changed.c_str(), 40001, 40001), 0);
        EXPECT_THAT(as(kOwner, "put Q x").err, HasSubstr("others can write to " + changed.native()));
        EXPECT_EQ(::chown(changed.c_str(), 40003, 40001), 0);
        EXPECT_THAT(as(kOwner, "put Q x").err, HasSubstr("belongs to user id 40003"));
        EXPECT_EQ(::chown(changed.c_str(), 40001, kGroup), 0);
    }
    EXPECT_EQ(as(kMember, "put Q x").code, 0);
}

TEST_F(SharedWithAGroup, AFileThatAnotherUserMakesCanBeOpenedAtOnce) {
    const auto make = [&](uid_t user) {
        return Child::fork_off([&, user] {
            ::umask(077);
            const bool changed = ::setgroups(1, &kGroup) == 0 && ::setgid(user) == 0 && ::setuid(user) == 0;
            for (int i = 0; i < 300 && changed; ++i) {
                static_cast<void>(open_allocated_file(dir_ / "queues" / "new", 0));
                ::unlink((dir_ / "queues" / "new").c_str());
            }
            return changed ? 0 : 1;
        });
    };
    Child owner = make(40001);
    Child member = make(40002);
    EXPECT_EQ(std::pair(owner.result(), member.result()), std::pair(0, 0));
}

} // namespace
} // namespace kvr::test
