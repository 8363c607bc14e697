// SPDX-License-Identifier: MIT
// Messages through the store: bounds, order, attached files, the drainer's reservations, held messages.
#include "message_record.h"
#include "stopped_call.h"
#include "store_fixture.h"

namespace kvr {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST_F(StoreTest, MessageComesBackAsItWasPut) {
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
    EXPECT_EQ(got.iMsgFlags, KVR_MSGFLAG_ACCESSORIES);
    EXPECT_EQ(list.iNum, 0) << "flagged to have files, and has none";
    list.iNum = 2;
    EXPECT_EQ(getter->next(got, buffer, false), 0);
    EXPECT_EQ(got.iMsgFlags, 0);
    EXPECT_EQ(list.iNum, 2) << "a message without the flag leaves the record alone";
}

TEST_F(StoreTest, ARecordWhosePathsOrBytesDoNotFitIsDamaged) {
    const Texts files{"/a"};
    const OutgoingMessage message{&descriptor_, files, std::string_view("data")};
    std::vector<char> record(encoded_size(message));
    encode_message(message, record.data());
    for (std::size_t size = 0; size < record.size(); ++size) {
        EXPECT_EQ(code_of([&] { return decode_message(std::span(record).first(size)); }), Errc::kDamaged) << size;
    }
    record[12 + kDescriptorSize] = 100; // bytes of the path
    EXPECT_EQ(code_of([&] { return decode_message(record); }), Errc::kDamaged);
}

TEST_F(StoreTest, RefusesWhatAChannelCannotCarry) {
    const std::string large(kMaxMessage + 1, 'x');
    EXPECT_EQ(put(large), Errc::kTooLarge);
    EXPECT_EQ(put("", Texts(KVR_ACC_MAX + 1, "/f")), Errc::kTooLarge);
    EXPECT_EQ(put("", {std::string(512, 'f')}), Errc::kTooLarge);
    EXPECT_EQ(put("", {""}), Errc::kInvalid);
    EXPECT_EQ(put("", {}, "NONE"), Errc::kNotFound);
    EXPECT_EQ(put("", {}, large), Errc::kNotFound);
    EXPECT_EQ(store_->queue_info("Q").depth, 0U);
}

TEST_F(StoreTest, DrainerReservesUsesAndGivesBack) {
    put_numbers(1, 3);
    {
        const auto getter = store_->drain("Q");
        EXPECT_EQ(code_of([&] { return store_->drain("Q"); }), Errc::kBusy);
        EXPECT_EQ(store_->queue_info("Q").drained_by, local_owner(::getpid()));
        EXPECT_EQ(take(*getter), "1");
        EXPECT_THAT(shown(), ElementsAre("1*", "2", "3"));
        EXPECT_EQ(take(*getter), "2");
        EXPECT_THAT(shown(), ElementsAre("2*", "3"));
        EXPECT_EQ(store_->queue_info("Q").depth, 2U) << "used, not deleted yet, not shown";
        EXPECT_EQ(store_->queue_info("Q").bytes, 2U);
        test::Child elsewhere = test::Child::fork_off([&] {
            if (::unshare(CLONE_NEWPID) != 0) {
                return 0; // not allowed to these tests
            }
            return test::Child::fork_off([&] {
                       const auto store = Store::open(dir_);
                       const bool seen = store->queue_info("Q").drained_by == local_owner(kUnseenProcess);
                       return seen && code_of([&] { return store->drain("Q"); }) == Errc::kBusy ? 0 : 1;
                   })
                .result();
        });
        EXPECT_EQ(elsewhere.result(), 0) << "another PID namespace";
        getter->rollback();
        EXPECT_EQ(take(*getter), "2");
    }
    EXPECT_EQ(store_->queue_info("Q").drained_by, std::nullopt);
    EXPECT_THAT(take_all(), ElementsAre("2", "3"));
    EXPECT_EQ(store_->queue_info("Q").depth, 0U);
}

TEST_F(StoreTest, DeadLetterPutJoinsTheReservation) {
    put_numbers(1, 4);
    const OutgoingMessage dead{&descriptor_, {}, std::string_view("dead")};
    const auto getter = store_->drain("Q");
    EXPECT_EQ(take(*getter), "1");
    EXPECT_EQ(take(*getter), "2");
    getter->put_instead("DEAD", dead);
    EXPECT_FALSE(getter->in_hand());
    EXPECT_THAT(shown(), ElementsAre("3", "4"));
    EXPECT_THAT(shown("DEAD"), ElementsAre("dead"));
    EXPECT_EQ(take(*getter), "3");
    EXPECT_EQ(code_of([&] { return getter->put_instead("NONE", dead), 0; }), Errc::kNotFound);
    EXPECT_THAT(shown(), ElementsAre("3!", "4"));
    EXPECT_EQ(take(*getter), "4");
    getter->put_instead("Q", dead); // its own queue: to the end of it
    EXPECT_THAT(shown(), ElementsAre("3!", "dead"));
    EXPECT_EQ(store_->queue_info("Q").depth, 2U);
}

TEST_F(StoreTest, AGroupMovesInOrderPastHeldOnesAndEndsBeforeARefusedOne) {
    put_numbers(1, 6);
    const auto getter = store_->drain("Q");
    take(*getter);
    take(*getter);
    getter->hold("a test"); // "1" is used and not deleted yet, "2" is held
    const auto move = [&] {
        return getter->move_group("DEAD", 3, [](std::string_view data) {
            if (data == "5") {
                throw Error(Errc::kTooLarge, "refused");
            }
            return "m" + std::string(data);
        });
    };
    EXPECT_EQ(move(), 2U);
    EXPECT_EQ(code_of(move), Errc::kTooLarge);
    store_->release_held("Q");
    EXPECT_EQ(move(), 1U);
    EXPECT_THAT(shown(), ElementsAre("5", "6"));
    EXPECT_THAT(shown("DEAD"), ElementsAre("m3", "m4", "m2"));
    EXPECT_EQ(take(*getter), "5");
    EXPECT_EQ(code_of(move), Errc::kInvalid) << "a message is in hand";
}

TEST_F(StoreTest, MessageThatCannotBeHeldIsNotUsedUp) {
    put_numbers(1, 3);
    const auto getter = store_->drain("Q");
    const auto dead_letter = [&] {
        return code_of([&] { return getter->put_instead("DEAD", {&descriptor_, {}, std::string_view("dead")}), 0; });
    };
    ASSERT_EQ(take(*getter), "1");
    test::fail_calls(EIO);
    const Errc dead = dead_letter();
    const Errc next = code_of([&] { return take(*getter); });
    const Errc commit = code_of([&] { return getter->commit(), 0; });
    test::fail_calls(0);
    EXPECT_EQ(dead, Errc::kIo);
    EXPECT_EQ(next, Errc::kHeld);
    EXPECT_EQ(commit, Errc::kHeld);
    EXPECT_THAT(shown(), ElementsAre("1*", "2", "3"));
    EXPECT_EQ(take(*getter), "2") << "held as soon as it can be";
    EXPECT_THAT(shown(), ElementsAre("1!", "2*", "3"));
    EXPECT_THAT(shown("DEAD"), IsEmpty());
    test::fail_after_next_head();
    EXPECT_EQ(dead_letter(), Errc::kIo);
    test::fail_calls(0);
    EXPECT_EQ(take(*getter), "3");
    EXPECT_EQ(store_->queue_info("Q").held, 1U) << "what is on the other queue after all is not held";
    EXPECT_THAT(shown(), ElementsAre("1!", "3*"));
    EXPECT_THAT(shown("DEAD"), ElementsAre("dead"));
}

TEST_F(StoreTest, ReleasedMessagesAreNeverTakenForUsedOnes) {
    put_numbers(1, 9);
    const auto getter = store_->drain("Q");
    const auto hold_next = [&](const std::string& expected) {
        ASSERT_EQ(take(*getter), expected);
        getter->hold("test");
    };
    hold_next("1");
    ASSERT_EQ(take(*getter), "2");
    ASSERT_EQ(take(*getter), "3");
    EXPECT_EQ(store_->release_held("Q"), 1U); // behind the drainer, while it is in the middle of a group
    hold_next("4");                           // ends the group
    ASSERT_EQ(take(*getter), "1");            // the next group begins before the held 4 ...
    ASSERT_EQ(take(*getter), "5");            // ... and must end before it
    ASSERT_EQ(take(*getter), "6");
    EXPECT_EQ(store_->release_held("Q"), 1U);
    EXPECT_THAT(shown(), ElementsAre("4", "6*", "7", "8", "9"));
    getter->commit();
    EXPECT_EQ(take(*getter), "4");
    EXPECT_EQ(take(*getter), "7");
    hold_next("8");
    EXPECT_EQ(take(*getter), "9");
    EXPECT_EQ(take(*getter), "-");
    EXPECT_EQ(store_->queue_info("Q").held, 1U);
    EXPECT_EQ(store_->release_held("Q"), 1U);
    EXPECT_EQ(take(*getter), "8") << "an idle drainer looks before its position too";
    EXPECT_EQ(take(*getter), "-");
    EXPECT_THAT(shown(), IsEmpty());
}

} // namespace
} // namespace kvr
