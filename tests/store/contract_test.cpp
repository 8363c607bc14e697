// SPDX-License-Identifier: MIT
// What a store takes, gives back and refuses: messages, objects, settings, its quota; and what the schema refuses.
#include <fstream>
#include <sstream>

#include "store/schema.h"
#include "store_fixture.h"

namespace kvr {
namespace {

namespace fs = std::filesystem;

using ContractTest = EngineTest;
KVR_OVER_EVERY_ENGINE(ContractTest);

TEST_P(ContractTest, MessageComesBackAsItWasPut) {
    T_KAVRO_MD sent = descriptor_;
    sent.iMsgFlags = 8;
    std::memcpy(sent.sPutTime, "120000", 7);
    const Texts files{"/spool/a", std::string(511, 'b')};
    const std::string data = std::string("x\0y", 3) + std::string(kMaxMessage - 3, 'z');
    store_->put("Q", OutgoingMessage{&sent, files, data});
    sent.iMsgFlags = KVR_MSGFLAG_ACCESSORIES;
    store_->put("Q", OutgoingMessage{&sent, {}, {}});
    put("");
    sent.iMsgFlags = 8 | KVR_MSGFLAG_ACCESSORIES;

    const auto getter = store_->drain("Q");
    T_KAVRO_ACCESSORIES_MD list{};
    std::vector<char> buffer(kMaxMessage);
    T_KAVRO_MD got = blank_descriptor();
    sent.pOptData = got.pOptData = &list;
    EXPECT_CODE(kTooLarge, getter->next(got, std::span(buffer).subspan(1), false));
    for (const auto& [text, flags, attached] :
         {std::tuple(data, 8 | KVR_MSGFLAG_ACCESSORIES, 2), {"", KVR_MSGFLAG_ACCESSORIES, 0}, {"", 0, 7}}) {
        list.iNum = 7; // without the flag it is left alone
        ASSERT_EQ(getter->next(got, buffer, false), static_cast<std::int64_t>(text.size()));
        EXPECT_TRUE(std::equal(text.begin(), text.end(), buffer.begin()));
        EXPECT_EQ(std::pair(got.iMsgFlags, list.iNum), std::pair(flags, attached));
        EXPECT_EQ(std::memcmp(&got, &sent, sizeof got) == 0, flags == sent.iMsgFlags); // NOLINT: its bytes are kept
    }
    EXPECT_EQ(list.sFiles[1], files[1]);
}

TEST_P(ContractTest, RefusesWhatAChannelCannotCarry) {
    const std::string large(kMaxMessage + 1, 'x');
    EXPECT_EQ(put(large), Errc::kTooLarge);
    EXPECT_EQ(put("", Texts(KVR_ACC_MAX + 1, "/f")), Errc::kTooLarge);
    EXPECT_EQ(put("", {std::string(512, 'f')}), Errc::kTooLarge);
    EXPECT_EQ(put("", {""}), Errc::kInvalid);
    EXPECT_EQ(put("", {}, "NONE"), Errc::kNotFound);
    EXPECT_EQ(put("", {}, large), Errc::kNotFound);
    EXPECT_EQ(store_->queue_info("Q").depth, 0U);
}

TEST_P(ContractTest, AQueueHasOneDrainer) {
    {
        const auto getter = store_->drain("Q");
        EXPECT_CODE(kBusy, store_->drain("Q"));
        EXPECT_CODE(kBusy, store_->queue_delete("Q", true));
        test::Child other = fork_user([&] {
            EXPECT_EQ(store_->queue_info("Q").drained_by, local_owner(::getppid()));
            EXPECT_CODE(kBusy, store_->drain("Q"));
            return HasFailure() ? 1 : 0;
        });
        EXPECT_EQ(other.result(), 0);
        EXPECT_EQ(store_->queue_info("Q").drained_by, local_owner(::getpid()));
    }
    EXPECT_EQ(store_->queue_info("Q").drained_by, std::nullopt);
    EXPECT_CODE(kExists, store_->queue_define("Q", ""));
    put("1");
    EXPECT_CODE(kBusy, store_->queue_delete("Q", false));
    store_->queue_delete("Q", true);
    EXPECT_CODE(kNotFound, store_->drain("Q"));
}

TEST_P(ContractTest, IsNotDeletedUnderAnotherProcessNorWithMessages) {
    test::Child user = fork_user([] { return ::raise(SIGSTOP); });
    test::await_stopped(user);
    std::string text;
    EXPECT_EQ(code_of([&] { store_->destroy(true); }, &text), Errc::kBusy);
    EXPECT_THAT(text, testing::HasSubstr("process " + std::to_string(user.pid()) + " ("));
    EXPECT_EQ(put("kept"), Errc{});
    ::kill(user.pid(), SIGKILL);
    EXPECT_EQ(user.result(), -SIGKILL);
    EXPECT_CODE(kBusy, store_->destroy(false));
    store_->destroy(true);
    EXPECT_TRUE(fs::is_empty(folder_.path()));
}

TEST_P(ContractTest, QuotaStopsPutsAndItsRoomComesBackWhole) {
    make_store({{"quota", "2097152"}});
    const std::string large(100000, 'x');
    const auto fill = [&] {
        std::size_t count = 0;
        for (; put(large) == Errc{}; ++count) {
        }
        EXPECT_EQ(put(large), Errc::kFull);
        return count;
    };
    const std::size_t fitted = fill();
    const Usage full = store_->usage();
    EXPECT_TRUE(full.bytes <= full.quota && full.bytes > full.quota - large.size() * 5 / 4) << full.bytes;
    {
        const auto getter = store_->drain("Q");
        ASSERT_EQ(take(*getter), large);
        getter->put_instead("DEAD", {&descriptor_, {}, large}); // it fits: as much goes as comes
    }
    EXPECT_EQ(take_all().size(), fitted - 1);
    for (int round = 0; round < 20; ++round) {
        EXPECT_EQ(fill(), fitted - 1);
        store_->queue_delete("Q", true);
        store_->queue_define("Q", "");
    }
    EXPECT_LT(store_->usage().bytes, large.size() * 5 / 4) << "the one that was dead-lettered";
    EXPECT_TRUE(store_->usage().file >= full.bytes && store_->usage().file < 2 * full.quota);
    store_->change_settings({{"quota", "4194304"}});
    EXPECT_GT(fill(), fitted);
}

TEST_P(ContractTest, ObjectsAndSettingsChangeAsAWholeOrNotAtAll) {
    store_->object_add("CHL", "B", {{"HBINT", "30"}});
    store_->object_add("CHS", "B", {{"PID", "1"}});
    store_->object_set("CHL", "B", {{"DESCR", ""}});
    EXPECT_CODE(kTooLong, store_->object_set("CHL", "B", {{"DESCR", "new"}, {"DISCINT", std::string(64, '1')}}));
    EXPECT_EQ(store_->object_get("CHL", "B"), (Attributes{{"HBINT", "30"}, {"DESCR", ""}}));
    EXPECT_CODE(kNotFound, store_->object_set("CHL", "C", {}));
    EXPECT_CODE(kInvalid, store_->object_set("CHL", "a\nb", {}));
    store_->object_delete("CHL", "B");
    EXPECT_CODE(kNotFound, store_->object_get("CHL", "B"));
    EXPECT_EQ(store_->object_get("CHS", "B").at("PID"), "1");

    const Settings before = store_->settings();
    EXPECT_CODE(kInvalid, store_->change_settings({{"quota", "4194304"}, {"sync", "perhaps"}}));
    EXPECT_CODE(kInvalid, store_->change_settings({{"quota", "much"}}));
    EXPECT_CODE(kUnknownAttr, store_->change_settings({{"colour", "red"}, {"quota", "4194304"}}));
    EXPECT_EQ(store_->settings(), before);
}

TEST_P(ContractTest, IsMadeOnceAndOpenedByTheEngineThatItNames) {
    const fs::path other = folder_.path() / "X";
    EXPECT_CODE(kExists, Store::create(dir_, "QM", {}, GetParam()));
    EXPECT_CODE(kInvalid, Store::create(other, "a/b", {}, GetParam()));
    EXPECT_CODE(kInvalid, Store::create(other, "X", {{"quota", "-1"}}, GetParam()));
    EXPECT_CODE(kVersion, Store::create(other, "X", {}, "none"));
    EXPECT_CODE(kInvalid, Store::create(other, "X", {}, "../x"));
    EXPECT_CODE(kNotFound, Store::open(other));
    EXPECT_FALSE(fs::exists(other) || Store::exists(other));
    EXPECT_EQ(Store::open(dir_ / "." / ".." / "QM"), store_) << "once in a process";
    store_.reset();
    std::ofstream(dir_ / "engine") << "../x\n";
    EXPECT_CODE(kDamaged, Store::open(dir_));
    EXPECT_TRUE(Store::exists(dir_));
    fs::permissions(dir_ / "engine", fs::perms::others_write, fs::perm_options::add);
    EXPECT_CODE(kPermission, Store::open(dir_));
}

TEST(Schema, RefusesWhatCouldNotWork) {
    const std::string full(63, '1');
    const std::tuple<const char*, const char*, Errc, std::string> cases[] = {
        {"CHANNEL", "HBINT", Errc::kInvalid, "1"},
        {"CHL", "HBTIN", Errc::kUnknownAttr, "1"},
        {"CHL", "HBINT", Errc{}, "0;86400"},
        {"CHL", "HBINT", Errc::kInvalid, "86401;5s; 5;;"},
        {"CHL", "CHLTYPE", Errc{}, "sndr"},
        {"CHL", "CHLTYPE", Errc::kInvalid, "RCVR"},
        {"CHL", "SSLCAUTH", Errc::kInvalid, "ENABLED"},
        {"CHL", "CONNAME", Errc{}, "10.0.0.1(65535);w_1.east-2.example.(1);3com"},
        {"CHL", "CONNAME", Errc::kInvalid, "h(65536);h(0);h(1414;(1414);h(1414)x;two words;h(x);h(); ;h,1414;a,b"},
        {"CHL", "CONNAME", Errc::kInvalid, "999.1.1.1;127.1;1.2.3.4.5;010.0.0.1;a..b;-h;h-;h@x"},
        {"CHL", "DESCR", Errc{}, "Grüße"},
        {"QMGR", "KEYFILE", Errc::kInvalid, "/a\nb"},
        {"QMGR", "KEYPASS", Errc{}, full + ";;"},
        {"QMGR", "KEYPASS", Errc::kTooLong, full + "1"}};
    for (const auto& [cls, attr, expected, values] : cases) {
        std::istringstream list(values);
        for (std::string value; std::getline(list, value, ';');) {
            EXPECT_EQ(code_of([&, cls = cls, attr = attr] { check_definition(cls, attr, value); }), expected)
                << attr << "=" << value;
        }
    }
}

} // namespace
} // namespace kvr
