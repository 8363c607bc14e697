// SPDX-License-Identifier: MIT
// What a store takes, gives back and refuses: messages, objects, settings, its quota; and what the schema refuses.
#include <cstring>

#include "store/schema.h"
#include "store_fixture.h"

namespace kvr {

namespace fs = std::filesystem;

using ContractTest = StoreTest;
KVR_OVER_EVERY_ENGINE(ContractTest);

TEST_P(ContractTest, MessageComesBackAsItWasPut) {
    T_KAVRO_ACCESSORIES_MD list{};
    T_KAVRO_MD sent = descriptor_;
    T_KAVRO_MD got = descriptor_;
    sent.pOptData = got.pOptData = &list;
    sent.iMsgFlags = 8;
    std::memcpy(sent.sPutTime, "120000", 7);
    const Texts files{"/spool/a", std::string(511, 'b')};
    const std::string data = std::string("x\0y", 3) + std::string(kMaxMessage - 3, 'z');
    store_->put("Q", OutgoingMessage{&sent, files, data});
    put("");
    sent.iMsgFlags |= KVR_MSGFLAG_ACCESSORIES;

    const auto getter = store_->drain("Q");
    std::vector<char> buffer(kMaxMessage);
    EXPECT_CODE(kTooLarge, getter->next(got, std::span(buffer).subspan(1), false));
    ASSERT_EQ(getter->next(got, buffer, false), kMaxMessage);
    EXPECT_TRUE(std::memcmp(&got, &sent, sizeof got) == 0 && std::ranges::equal(data, buffer)); // NOLINT: all bytes
    EXPECT_EQ((Texts{list.sFiles[0], list.sFiles[1]}), files);
    EXPECT_EQ(std::exchange(list.iNum, 7), 2);
    EXPECT_EQ(getter->next(got, buffer, false), 0);
    EXPECT_EQ(std::pair(got.iMsgFlags, list.iNum), std::pair(0, 7)) << "without the flag the list is left alone";
}

TEST_P(ContractTest, RefusesWhatAChannelCannotCarry) {
    EXPECT_EQ(put(std::string(kMaxMessage + 1, 'x')), Errc::kTooLarge);
    EXPECT_EQ(put("", Texts(KVR_ACC_MAX + 1, "/f")), Errc::kTooLarge);
    EXPECT_EQ(put("", {std::string(512, 'f')}), Errc::kTooLarge);
    EXPECT_EQ(put("", {""}), Errc::kInvalid);
    EXPECT_EQ(put("", {}, "NONE"), Errc::kNotFound);
    EXPECT_CODE(kExists, store_->queue_define("Q", ""));
    EXPECT_EQ(store_->queue_info("Q").depth, 0U);
}

TEST_P(ContractTest, QuotaStopsPutsAndItsRoomComesBackWhole) {
    const std::string large(100000, 'x');
    const auto fill = [&] {
        std::size_t count = 0;
        for (; put(large) == Errc{}; ++count) {
        }
        EXPECT_EQ(put(large), Errc::kFull);
        return count;
    };
    make_store({{"quota", "2097152"}});
    put(large);
    const std::uint64_t one = store_->usage().bytes;
    const std::size_t fitted = fill();
    const Usage full = store_->usage();
    EXPECT_TRUE(full.bytes <= full.quota && full.bytes > full.quota - large.size() * 5 / 4) << full.bytes;
    {
        const auto getter = store_->drain("Q");
        take(*getter);
        getter->put_instead("DEAD", {&descriptor_, {}, large}); // it fits: as much goes as comes
        while (take(*getter) != "-") {
        }
    }
    for (int round = 0; round < 20; ++round) {
        EXPECT_EQ(fill(), fitted);
        store_->queue_delete("Q", true);
        store_->queue_define("Q", "");
    }
    EXPECT_EQ(store_->usage().bytes, one) << "the one that was dead-lettered";
    EXPECT_LT(store_->usage().file, 2 * full.quota);
    store_->change_settings({{"quota", "4194304"}});
    EXPECT_GT(fill(), fitted);
}

TEST_P(ContractTest, ObjectsAndSettingsChangeAsAWholeOrNotAtAll) {
    store_->object_add("CHL", "B", {{"HBINT", "30"}});
    store_->object_add("CHS", "B", {{"PID", "1"}});
    store_->object_set("CHL", "B", {{"DESCR", ""}});
    EXPECT_CODE(kTooLong, store_->object_set("CHL", "B", {{"DESCR", "new"}, {"DISCINT", std::string(64, '1')}}));
    EXPECT_EQ(store_->object_get("CHL", "B"), (Attributes{{"HBINT", "30"}, {"DESCR", ""}}));
    store_->object_delete("CHL", "B");
    EXPECT_CODE(kNotFound, store_->object_set("CHL", "B", {}));
    EXPECT_EQ(store_->object_get("CHS", "B").at("PID"), "1");

    const Settings before = store_->settings();
    EXPECT_CODE(kInvalid, store_->change_settings({{"quota", "4194304"}, {"sync", "perhaps"}}));
    EXPECT_CODE(kUnknownAttr, store_->change_settings({{"colour", "red"}, {"quota", "4194304"}}));
    EXPECT_EQ(store_->settings(), before);
}

TEST_P(ContractTest, IsMadeOnceAndOpenedByTheEngineThatItNames) {
    const fs::path other = folder_.path() / "X";
    EXPECT_CODE(kExists, Store::create(dir_, "QM", {}, GetParam()));
    EXPECT_CODE(kInvalid, Store::create(other, "a/b", {}, GetParam()));
    EXPECT_CODE(kInvalid, Store::create(other, "X", {{"quota", "-1"}}, GetParam()));
    EXPECT_CODE(kVersion, Store::create(other, "X", {}, "none"));
    EXPECT_CODE(kVersion, Store::create(other, "X", {}, "foreign")) << "built with another version of the store";
    EXPECT_CODE(kNotFound, Store::open(other));
    EXPECT_FALSE(fs::exists(other) || Store::exists(other));
    EXPECT_EQ(Store::open(dir_ / "." / ".." / "QM"), store_) << "once in a process";
    store_.reset();
    std::ofstream(dir_ / "engine") << "../x\n";
    EXPECT_CODE(kDamaged, Store::open(dir_));
}

TEST(Schema, RefusesWhatCouldNotWork) {
    const std::tuple<const char*, Errc, std::vector<std::string>> cases[] = {
        {"HBTIN", Errc::kUnknownAttr, {"1"}},
        {"HBINT", Errc{}, {"0", "86400"}},
        {"HBINT", Errc::kInvalid, {"86401", "5s", " 5", ""}},
        {"DISCINT", Errc::kTooLong, {std::string(64, '0')}},
        {"CHLTYPE", Errc::kInvalid, {"SND"}},
        {"DESCR", Errc::kInvalid, {"a\nb"}},
        {"CONNAME", Errc{}, {"10.0.0.1(65535)", "w_1.east-2.example.(1)", "3com"}},
        {"CONNAME", Errc::kInvalid, {"h(65536)", "h(0)", "h(1414", "(1414)", "h(1414)x", "two words", "h(x)", "h()"}},
        {"CONNAME", Errc::kInvalid, {"", " ", "h,1414", "a,b", "a..b", "-h", "h-", "h@x"}},
        {"CONNAME", Errc::kInvalid, {"999.1.1.1", "127.1", "1.2.3.4.5", "010.0.0.1"}}};
    for (const auto& [attr, expected, values] : cases) {
        for (const std::string& value : values) {
            const auto check = [&, attr = attr] { check_definition("CHL", attr, value); };
            EXPECT_EQ(code_of(check), expected) << attr << "=" << value;
        }
    }
}

TEST(Schema, RepeatsOnlyWhatIsKept) {
    const std::tuple<Errc, Attributes> cases[] = {
        {Errc{}, {}},
        {Errc::kInvalid, {{"REPEAT", "LOSS"}}},
        {Errc{}, {{"REPEAT", "loss"}, {"KEEPINT", "1200"}}},
        {Errc::kInvalid, {{"REPEAT", "LOSS"}, {"KEEPINT", "1199"}}},
        {Errc{}, {{"REPEAT", "LOSS"}, {"KEEPINT", "1"}, {"LOSSINT", "0"}}},
        {Errc::kInvalid, {{"REPEAT", "LOSS"}, {"KEEPINT", "1200"}, {"LOSSMAX", "65"}}},
        {Errc::kInvalid, {{"KEEPINT", "1200"}, {"REPEAT", "yes"}}}};
    for (const auto& [expected, definition] : cases) {
        EXPECT_EQ(code_of([&, attrs = definition] { check_channel(attrs); }), expected)
            << testing::PrintToString(definition);
    }
}

} // namespace kvr
