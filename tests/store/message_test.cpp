// SPDX-License-Identifier: MIT
// Messages through the store: the record's bounds, order, attached files, the drainer's reservations, held messages.
#include <random>

#include <gmock/gmock.h>
#include <sys/resource.h>

#include "message_record.h"
#include "store_fixture.h"

namespace kvr {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<char> encoded(const std::vector<std::string>& attachments, const std::string& data) {
    T_KAVRO_MD descriptor = blank_descriptor();
    const OutgoingMessage message{&descriptor, attachments, data};
    std::vector<char> record(encoded_size(message));
    encode_message(message, record.data());
    return record;
}

TEST(MessageRecord, DecodesOnlyWhatFits) {
    const std::vector<char> whole = encoded({"/a/first", std::string(511, 'f')}, "the data");
    const MessageView view = decode_message(whole);
    std::string_view list = view.attachments;
    EXPECT_EQ(view.attachment_count, 2U);
    EXPECT_EQ(next_attachment(list), "/a/first");
    EXPECT_EQ(next_attachment(list), std::string(511, 'f'));
    EXPECT_EQ(std::string(view.data.begin(), view.data.end()), "the data");

    // Exact copies on the heap, so that the sanitizer sees a read beyond an end.
    for (std::size_t size = 0; size < whole.size(); ++size) {
        const std::vector<char> cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
        EXPECT_EQ(code_of([&] { decode_message(cut); }), Errc::kDamaged) << size;
    }
    std::mt19937 random(1); // NOLINT: the same bytes in each run
    int refused = 0;
    for (int round = 0; round < 20000; ++round) {
        std::vector<char> record = whole;
        constexpr std::size_t kHead = 12;
        const std::size_t list_start = kHead + kDescriptorSize;
        for (int flips = 0; flips < 2; ++flips) {
            const bool in_head = random() % 2 == 0;
            const std::size_t at = in_head ? random() % kHead : list_start + random() % (record.size() - list_start);
            record[at] = static_cast<char>(random());
        }
        try {
            const MessageView decoded = decode_message(record);
            std::string_view paths = decoded.attachments;
            for (std::uint32_t i = 0; i < decoded.attachment_count; ++i) {
                const std::string_view path = next_attachment(paths);
                ASSERT_TRUE(!path.empty() && path.size() <= kMaxAttachmentPath);
            }
            ASSERT_LE(decoded.attachment_count, static_cast<std::uint32_t>(KVR_ACC_MAX));
        } catch (const Error& error) {
            ASSERT_EQ(error.code(), Errc::kDamaged);
            ++refused;
        }
    }
    EXPECT_GT(refused, 5000);
}

TEST_F(StoreTest, MessageComesBackAsItWasPut) {
    make_store();
    T_KAVRO_MD put = blank_descriptor();
    std::memset(put.sMsgId, 'm', sizeof put.sMsgId);
    put.iMsgType = -7;
    put.iMsgFlags = 8;
    std::memcpy(put.sPutTime, "120000", 7);
    const std::vector<std::string> files{"/spool/a", "/spool/b"};
    const std::string data = std::string("x\0y", 3) + std::string(kMaxMessage - 3, 'z');
    store_->put("Q", OutgoingMessage{&put, files, data});
    put_text(*store_, "Q", "");

    const auto getter = store_->drain("Q");
    T_KAVRO_ACCESSORIES_MD list{};
    std::vector<char> buffer(kMaxMessage);
    T_KAVRO_MD got = blank_descriptor();
    got.pOptData = &list;
    EXPECT_EQ(code_of([&] { static_cast<void>(getter->next(got, std::span(buffer).first(kMaxMessage - 1), false)); }),
              Errc::kTooLarge);
    ASSERT_EQ(getter->next(got, buffer, false), static_cast<std::int64_t>(kMaxMessage)) << "a refused one stays";
    EXPECT_TRUE(std::equal(data.begin(), data.end(), buffer.begin()));
    EXPECT_EQ(got.pOptData, &list);
    EXPECT_EQ(got.iMsgFlags, 8 | KVR_MSGFLAG_ACCESSORIES);
    got.iMsgFlags = put.iMsgFlags;
    got.pOptData = nullptr;
    EXPECT_EQ(std::memcmp(&got, &put, sizeof got), 0); // NOLINT: the bytes are what is kept
    EXPECT_EQ(list.iNum, 2);
    EXPECT_STREQ(list.sFiles[1], "/spool/b");

    got.pOptData = &list;
    EXPECT_EQ(getter->next(got, buffer, false), 0);
    EXPECT_EQ(got.iMsgFlags, 0);
    EXPECT_EQ(list.iNum, 2) << "a message without files leaves the record alone";
}

TEST_F(StoreTest, RefusesWhatAChannelCannotCarry) {
    make_store();
    const T_KAVRO_MD descriptor = blank_descriptor();
    const std::string large(kMaxMessage + 1, 'x');
    const std::vector<std::string> many(KVR_ACC_MAX + 1, "/f");
    const std::vector<std::string> lengthy{std::string(512, 'f')};
    const std::vector<std::string> empty{""};
    const auto put = [&](std::span<const std::string> files, const std::string& data, const char* queue = "Q") {
        return code_of([&] { store_->put(queue, OutgoingMessage{&descriptor, files, data}); });
    };
    EXPECT_EQ(put({}, large), Errc::kTooLarge);
    EXPECT_EQ(put(many, ""), Errc::kTooLarge);
    EXPECT_EQ(put(lengthy, ""), Errc::kTooLarge);
    EXPECT_EQ(put(empty, ""), Errc::kInvalid);
    EXPECT_EQ(put({}, "", "NONE"), Errc::kNotFound);
    EXPECT_EQ(put({}, "", large.c_str()), Errc::kNotFound);
    EXPECT_EQ(store_->queue_info("Q").depth, 0U);
}

TEST_F(StoreTest, DrainerReservesUsesAndGivesBack) {
    make_store();
    put_numbers(*store_, "Q", 1, 3);
    {
        const auto getter = store_->drain("Q");
        EXPECT_EQ(code_of([&] { static_cast<void>(store_->drain("Q")); }), Errc::kBusy);
        EXPECT_EQ(store_->queue_info("Q").drained_by, ::getpid());
        EXPECT_EQ(take_text(*getter), "1");
        EXPECT_THAT(browse_texts(*store_, "Q"), ElementsAre("1*", "2", "3"));
        EXPECT_EQ(take_text(*getter), "2");
        EXPECT_THAT(browse_texts(*store_, "Q"), ElementsAre("2*", "3"));
        EXPECT_EQ(store_->queue_info("Q").depth, 2U) << "used, not deleted yet, not shown";
        EXPECT_EQ(store_->queue_info("Q").bytes, 2U);
        getter->rollback();
        EXPECT_EQ(take_text(*getter), "2");
    }
    EXPECT_EQ(store_->queue_info("Q").drained_by, 0);
    EXPECT_THAT(take_all(*store_, "Q"), ElementsAre("2", "3"));
    EXPECT_EQ(store_->queue_info("Q").depth, 0U);
}

TEST_F(StoreTest, DeadLetterPutJoinsTheReservation) {
    make_store();
    put_numbers(*store_, "Q", 1, 4);
    const T_KAVRO_MD descriptor = blank_descriptor();
    const std::string text = "dead";
    const auto getter = store_->drain("Q");
    EXPECT_EQ(take_text(*getter), "1");
    EXPECT_EQ(take_text(*getter), "2");
    getter->put_instead("DEAD", {&descriptor, {}, text});
    EXPECT_FALSE(getter->in_hand());
    EXPECT_THAT(browse_texts(*store_, "Q"), ElementsAre("3", "4"));
    EXPECT_THAT(browse_texts(*store_, "DEAD"), ElementsAre("dead"));

    EXPECT_EQ(take_text(*getter), "3");
    EXPECT_EQ(code_of([&] { getter->put_instead("NONE", {&descriptor, {}, text}); }), Errc::kNotFound);
    EXPECT_THAT(browse_texts(*store_, "Q"), ElementsAre("3!", "4"));
    EXPECT_EQ(take_text(*getter), "4");
    getter->put_instead("Q", {&descriptor, {}, text}); // its own queue: to the end of it
    EXPECT_THAT(browse_texts(*store_, "Q"), ElementsAre("3!", "dead"));
    EXPECT_EQ(store_->queue_info("Q").depth, 2U);
}

TEST_F(StoreTest, MessageThatCannotBeHeldIsNotUsedUp) {
    make_store();
    put_numbers(*store_, "Q", 1, 2);
    const T_KAVRO_MD descriptor = blank_descriptor();
    const auto getter = store_->drain("Q");
    ASSERT_EQ(take_text(*getter), "1");
    rlimit limit{};
    ::getrlimit(RLIMIT_FSIZE, &limit);
    const rlimit none{.rlim_cur = 0, .rlim_max = limit.rlim_max};
    ::signal(SIGXFSZ, SIG_IGN);
    ::setrlimit(RLIMIT_FSIZE, &none); // every write fails from here on
    const Errc put = code_of([&] { getter->put_instead("DEAD", {&descriptor, {}, std::string_view("dead")}); });
    const Errc next = code_of([&] { take_text(*getter); });
    const Errc commit = code_of([&] { getter->commit(); });
    ::setrlimit(RLIMIT_FSIZE, &limit);
    EXPECT_EQ(put, Errc::kIo);
    EXPECT_EQ(next, Errc::kHeld);
    EXPECT_EQ(commit, Errc::kHeld);
    EXPECT_THAT(browse_texts(*store_, "Q"), ElementsAre("1*", "2"));
    EXPECT_EQ(take_text(*getter), "2") << "held as soon as it can be";
    EXPECT_THAT(browse_texts(*store_, "Q"), ElementsAre("1!", "2*"));
    EXPECT_THAT(browse_texts(*store_, "DEAD"), IsEmpty());
}

TEST_F(StoreTest, ReleasedMessagesAreNeverTakenForUsedOnes) {
    make_store();
    put_numbers(*store_, "Q", 1, 9);
    const auto getter = store_->drain("Q");
    const auto hold_next = [&](const std::string& expected) {
        ASSERT_EQ(take_text(*getter), expected);
        getter->hold("test");
    };
    hold_next("1");
    ASSERT_EQ(take_text(*getter), "2");
    ASSERT_EQ(take_text(*getter), "3");
    EXPECT_EQ(store_->release_held("Q"), 1U); // behind the drainer, while it is in the middle of a group
    hold_next("4");                           // ends the group
    ASSERT_EQ(take_text(*getter), "1");       // the next group begins before the held 4 ...
    ASSERT_EQ(take_text(*getter), "5");       // ... and must end before it
    ASSERT_EQ(take_text(*getter), "6");
    EXPECT_EQ(store_->release_held("Q"), 1U);
    EXPECT_THAT(browse_texts(*store_, "Q"), ElementsAre("4", "6*", "7", "8", "9"));
    getter->commit();
    EXPECT_EQ(take_text(*getter), "4");
    EXPECT_EQ(take_text(*getter), "7");
    hold_next("8");
    hold_next("9");
    EXPECT_EQ(take_text(*getter), "-");
    EXPECT_EQ(store_->queue_info("Q").held, 2U);
    EXPECT_EQ(store_->release_held("Q"), 2U);
    EXPECT_EQ(take_text(*getter), "8") << "an idle drainer looks before its position too";
    EXPECT_EQ(take_text(*getter), "9");
    EXPECT_EQ(take_text(*getter), "-");
    EXPECT_THAT(browse_texts(*store_, "Q"), IsEmpty());
}

} // namespace
} // namespace kvr
