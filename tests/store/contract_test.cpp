// SPDX-License-Identifier: MIT
// What a store takes, gives back and refuses: messages, objects, settings, its quota; and what the schema refuses.
#include <fstream>
#include <sstream>

#include "store/message_record.h"
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
    T_KAVRO_MD flagged = descriptor_;
    flagged.iMsgFlags = KVR_MSGFLAG_ACCESSORIES;
    store_->put("Q", OutgoingMessage{&flagged, {}, {}});
    put("");

    const auto getter = store_->drain("Q");
    T_KAVRO_ACCESSORIES_MD list{};
    std::vector<char> buffer(kMaxMessage);
    T_KAVRO_MD got = blank_descriptor();
    got.pOptData = &list;
    EXPECT_EQ(code_of([&] { return getter->next(got, std::span(buffer).subspan(1), false); }), Errc::kTooLarge);
    ASSERT_EQ(getter->next(got, buffer, false), static_cast<std::int64_t>(kMaxMessage)) << "a refused one stays";
    EXPECT_TRUE(std::equal(data.begin(), data.end(), buffer.begin()));
    EXPECT_EQ(list.iNum, 2);
    EXPECT_EQ(list.sFiles[1], files[1]);
    sent.iMsgFlags = 8 | KVR_MSGFLAG_ACCESSORIES;
    sent.pOptData = &list;
    EXPECT_EQ(std::memcmp(&got, &sent, sizeof got), 0); // NOLINT: the bytes are what is kept
    EXPECT_EQ(getter->next(got, buffer, false), 0);
    EXPECT_EQ(std::pair(got.iMsgFlags, list.iNum), std::pair(KVR_MSGFLAG_ACCESSORIES, 0)) << "flagged, and without";
    list.iNum = 2;
    EXPECT_EQ(getter->next(got, buffer, false), 0);
    EXPECT_EQ(std::pair(got.iMsgFlags, list.iNum), std::pair(0, 2)) << "without the flag the record is left alone";
}

TEST_P(ContractTest, RefusesWhatAChannelCannotCarry) {
    const std::string large(kMaxMessage + 1, 'x');
    const std::tuple<Errc, std::string, Texts, std::string> cases[] = {
        {Errc::kTooLarge, large, {}, "Q"},
        {Errc::kTooLarge, "", Texts(KVR_ACC_MAX + 1, "/f"), "Q"},
        {Errc::kTooLarge, "", {std::string(512, 'f')}, "Q"},
        {Errc::kInvalid, "", {""}, "Q"},
        {Errc::kNotFound, "", {}, "NONE"},
        {Errc::kNotFound, "", {}, large}};
    for (const auto& [expected, text, files, queue] : cases) {
        EXPECT_EQ(put(text, files, queue), expected) << queue.substr(0, 9) << files.size();
    }
    EXPECT_EQ(store_->queue_info("Q").depth, 0U);
}

TEST_P(ContractTest, AQueueHasOneDrainer) {
    {
        const auto getter = store_->drain("Q");
        EXPECT_EQ(code_of([&] { return store_->drain("Q"); }), Errc::kBusy);
        EXPECT_EQ(code_of([&] { return store_->queue_delete("Q", true), 0; }), Errc::kBusy);
        test::Child other = fork_user([&] {
            const bool told = store_->queue_info("Q").drained_by == local_owner(::getppid());
            return told && code_of([&] { return store_->drain("Q"); }) == Errc::kBusy ? 0 : 1;
        });
        EXPECT_EQ(other.result(), 0);
        EXPECT_EQ(store_->queue_info("Q").drained_by, local_owner(::getpid()));
    }
    EXPECT_EQ(store_->queue_info("Q").drained_by, std::nullopt);
    EXPECT_EQ(code_of([&] { return store_->queue_define("Q", ""), 0; }), Errc::kExists);
    put("1");
    EXPECT_EQ(code_of([&] { return store_->queue_delete("Q", false), 0; }), Errc::kBusy);
    store_->queue_delete("Q", true);
    EXPECT_EQ(code_of([&] { return store_->drain("Q"); }), Errc::kNotFound);
}

TEST_P(ContractTest, IsNotDeletedUnderAnotherProcessNorWithMessages) {
    test::Child user = fork_user([] { return ::raise(SIGSTOP); });
    test::await_stopped(user);
    const auto [code, text] = error_of([&] { return store_->destroy(true), 0; });
    EXPECT_EQ(code, Errc::kBusy);
    EXPECT_THAT(text, testing::HasSubstr("process " + std::to_string(user.pid()) + " ("));
    EXPECT_EQ(put("kept"), Errc{});
    ::kill(user.pid(), SIGKILL);
    EXPECT_EQ(user.result(), -SIGKILL);
    EXPECT_EQ(code_of([&] { return store_->destroy(false), 0; }), Errc::kBusy);
    store_->destroy(true);
    EXPECT_TRUE(fs::is_empty(folder_.path()));
}

TEST_P(ContractTest, QuotaStopsPutsAndItsRoomComesBackWhole) {
    make_store({{"quota", "2097152"}});
    const std::string large(100000, 'x');
    const auto fill = [&] {
        int count = 0;
        Errc end{};
        for (; (end = put(large)) == Errc{}; ++count) {
        }
        EXPECT_EQ(end, Errc::kFull);
        return count;
    };
    const int fitted = fill();
    const Usage full = store_->usage();
    EXPECT_EQ(full.quota, 2097152U);
    EXPECT_TRUE(full.bytes <= full.quota && full.bytes > full.quota - large.size() * 5 / 4) << full.bytes;
    {
        const auto getter = store_->drain("Q");
        ASSERT_EQ(take(*getter), large);
        getter->put_instead("DEAD", {&descriptor_, {}, large});
    }
    EXPECT_EQ(take_all().size(), static_cast<std::size_t>(fitted - 1));
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
    const auto set = [&](const char* name, const Attributes& attributes) {
        return code_of([&] { return store_->object_set("CHL", name, attributes), 0; });
    };
    EXPECT_EQ(set("B", {{"HBINT", "1"}, {"DISCINT", std::string(64, '1')}}), Errc::kTooLong);
    EXPECT_EQ(store_->object_get("CHL", "B"), (Attributes{{"HBINT", "30"}, {"DESCR", ""}}));
    EXPECT_EQ(set("C", {}), Errc::kNotFound);
    EXPECT_EQ(set("a\nb", {}), Errc::kInvalid);
    store_->object_delete("CHL", "B");
    EXPECT_EQ(code_of([&] { return store_->object_get("CHL", "B"); }), Errc::kNotFound);
    EXPECT_EQ(store_->object_get("CHS", "B").at("PID"), "1");

    const Settings before = store_->settings();
    const auto change = [&](const Settings& changes) {
        return code_of([&] { return store_->change_settings(changes), 0; });
    };
    EXPECT_EQ(change({{"quota", "4194304"}, {"sync", "perhaps"}}), Errc::kInvalid);
    EXPECT_EQ(change({{"quota", "much"}}), Errc::kInvalid);
    EXPECT_EQ(change({{"quota", "4194304"}, {"colour", "red"}}), Errc::kUnknownAttr);
    EXPECT_EQ(store_->settings(), before);
}

TEST_P(ContractTest, IsMadeOnceAndOpenedByTheEngineThatItNames) {
    const fs::path other = folder_.path() / "X";
    const auto create = [&](const fs::path& dir, const char* name, const Settings& settings, const char* engine) {
        return code_of([&] { return Store::create(dir, name, settings, engine), 0; });
    };
    EXPECT_EQ(Store::open(dir_ / "." / ".." / "QM"), store_) << "once in a process";
    EXPECT_EQ(create(dir_, "QM", {}, GetParam()), Errc::kExists);
    EXPECT_EQ(create(other, "a/b", {}, GetParam()), Errc::kInvalid);
    EXPECT_EQ(create(other, "X", {{"quota", "-1"}}, GetParam()), Errc::kInvalid);
    EXPECT_EQ(create(other, "X", {}, "none"), Errc::kVersion);
    EXPECT_EQ(create(other, "X", {}, "../x"), Errc::kInvalid);
    EXPECT_FALSE(fs::exists(other) || Store::exists(other));
    EXPECT_EQ(code_of([&] { return Store::open(other); }), Errc::kNotFound);
    store_.reset();
    for (const auto& [name, code] : {std::pair{"none", Errc::kVersion}, {"../x", Errc::kInvalid}}) {
        std::ofstream(dir_ / "engine") << name << "\n";
        EXPECT_EQ(code_of([&] { return Store::open(dir_); }), code);
        EXPECT_TRUE(Store::exists(dir_));
    }
    fs::permissions(dir_ / "engine", fs::perms::others_write, fs::perm_options::add);
    EXPECT_EQ(code_of([&] { return Store::open(dir_); }), Errc::kPermission);
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
            EXPECT_EQ(code_of([&] { return check_definition(cls, attr, value), 0; }), expected) << attr << "=" << value;
        }
    }
}

TEST(MessageRecord, WhosePathsOrBytesDoNotFitIsDamaged) {
    const T_KAVRO_MD descriptor = blank_descriptor();
    const std::vector<std::string> files{"/a"};
    const OutgoingMessage message{&descriptor, files, std::string_view("data")};
    std::vector<char> record(encoded_size(message));
    encode_message(message, record.data());
    for (std::size_t size = 0; size < record.size(); ++size) {
        EXPECT_EQ(code_of([&] { return decode_message(std::span(record).first(size)); }), Errc::kDamaged) << size;
    }
    record[12 + kDescriptorSize] = 100; // bytes of the path
    EXPECT_EQ(code_of([&] { return decode_message(record); }), Errc::kDamaged);
}

} // namespace
} // namespace kvr
