// SPDX-License-Identifier: MIT
// The host's operations with C linkage, as a channel calls them.
#include <cstdlib>
#include <new>

#include "kavro_ac.h"
#include "kavro_ac/kavro_ac_host.h"
#include "kavro_queue/kavro_queue_host.h"
#include "store_fixture.h"

namespace kvr {
namespace {

using testing::HasSubstr;

bool g_no_memory = false;

char* c(const char* text) {
    return const_cast<char*>(text); // NOLINT: the operations write through none of them
}

class HostOpsTest : public StoreTest {
  protected:
    using Codes = std::vector<Errc>;
    HostOpsTest() {
        ac_set_qmgr(folder_.path(), "QM");
        EXPECT_EQ(KVR_InitQmgrCtx(&context_, KVR_GetQmgrName()), 0);
    }
    T_KVR_QUE_OBJ_HANDLE open(const char* name) {
        T_KVR_QUE_OBJ_HANDLE handle = nullptr;
        EXPECT_EQ(KVR_QueOpen(context_.hQueDB, c(name), &handle, 0), 0);
        return handle;
    }
    Errc close(T_KVR_QUE_OBJ_HANDLE handle) { return Errc{KVR_QueClose(context_.hQueDB, c("any"), handle, 0)}; }
    Errc get(T_KVR_QUE_OBJ_HANDLE handle) {
        length_ = static_cast<int>(sizeof buffer_);
        got_ = blank_descriptor();
        got_.pOptData = &files_;
        return Errc{KVR_QueMsgGet(context_.hQueDB, handle, &got_, nullptr, buffer_, &length_)};
    }
    /// The next message's text.
    std::string text(T_KVR_QUE_OBJ_HANDLE handle) {
        EXPECT_EQ(get(handle), Errc{});
        return {buffer_, static_cast<std::size_t>(length_)};
    }
    /// Puts what the last get returned.
    Errc put(T_KVR_QUE_OBJ_HANDLE handle) {
        return Errc{KVR_QueMsgPut(context_.hQueDB, handle, &got_, nullptr, buffer_, length_)};
    }

    T_KAVRO_QMGR_CTX context_{};
    T_KAVRO_MD got_{};
    T_KAVRO_ACCESSORIES_MD files_{};
    T_KVR_QUE_OBJ_HANDLE none_ = nullptr;
    char buffer_[64];
    int length_ = 0;
};

TEST_F(HostOpsTest, AHandleIsGoodUntilItsCloseWhichUsesUpUnlessTheMessageWasGivenBack) {
    T_KAVRO_MD named = blank_descriptor();
    std::memcpy(named.sMsgId, "ID1", 3);
    store_->put("Q", OutgoingMessage{&named, {}, std::string_view("1")});
    put_all({"2"});
    auto handle = open("Q");
    EXPECT_FALSE(store_->queue_info("Q").drained_by) << "an open queue is not drained yet";
    EXPECT_EQ(text(handle), "1");
    testing::internal::CaptureStderr();
    EXPECT_EQ(close(nullptr), Errc::kNotOpen);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(" msg[ID1]\n")) << "a line about a message names it";
    EXPECT_EQ(close(handle), Errc{});
    EXPECT_EQ(text(handle = open("Q")), "2");
    queue_give_back(); // stopped in the middle of the message
    EXPECT_EQ(close(handle), Errc{});
    EXPECT_EQ(shown(), Texts{"2"});
    for (T_KVR_QUE_OBJ_HANDLE stale : {handle, T_KVR_QUE_OBJ_HANDLE{}, T_KVR_QUE_OBJ_HANDLE{&length_}}) {
        EXPECT_THAT((Codes{close(stale), get(stale), put(stale)}), testing::Each(Errc::kNotOpen));
    }
    EXPECT_EQ(Errc{KVR_QueOpen(&length_, c("Q"), &none_, 0)}, Errc::kNotOpen);
    EXPECT_EQ(Errc{KVR_QueMsgGet(context_.hQueDB, open("Q"), nullptr, nullptr, buffer_, &length_)}, Errc::kInvalid);
    EXPECT_EQ(Errc{KVR_InitQmgrCtx(&context_, c("NONE"))}, Errc::kNotFound);
    EXPECT_EQ(Errc{KVR_InitQmgrCtx(&context_, c("../QM"))}, Errc::kInvalid);
}

TEST_F(HostOpsTest, DeadLetterPutTakesTheMessageAlongOrItIsHeld) {
    EXPECT_EQ(StoreTest::put("0", {"/f/1", "/f/2"}), Errc{});
    put_all({"1", "2", "3", "4", "5", "6"});
    const auto source = open("Q");
    const auto dead = open("DEAD");
    EXPECT_EQ(text(source), "0");
    EXPECT_EQ(put(dead), Errc{});
    EXPECT_EQ(shown().size(), 6U) << "off its queue at once";
    store_->browse("DEAD", 0, [](const StoredMessage& message) {
        EXPECT_EQ(message.attachments, (Texts{"/f/1", "/f/2"}));
        return true;
    });
    EXPECT_EQ(text(source), "1");
    EXPECT_EQ(Errc{KVR_QueOpen(context_.hQueDB, c("NONE"), &none_, 0)}, Errc::kNotFound);
    EXPECT_EQ(text(source), "2");
    got_.iMsgFlags = KVR_MSGFLAG_ACCESSORIES;
    files_.iNum = KVR_ACC_MAX + 1; // refused before the store is asked
    EXPECT_EQ(put(dead), Errc::kInvalid);
    EXPECT_EQ(text(source), "3");
    EXPECT_EQ(put(none_), Errc::kNotOpen);
    for (const char* next : {"4", "5"}) {
        EXPECT_EQ(text(source), next);
        g_no_memory = true;
        const Errc failed =
            *next == '4' ? put(dead) : Errc{KVR_QueOpen(context_.hQueDB, c("a queue of no short name"), &none_, 0)};
        g_no_memory = false;
        EXPECT_EQ(failed, Errc::kIo);
    }
    EXPECT_EQ(text(source), "6");
    EXPECT_EQ(close(source), Errc{});
    EXPECT_EQ(shown(), (Texts{"1!", "2!", "3!", "4!", "5!"}));
    store_->browse("Q", 0, [](const StoredMessage& message) {
        EXPECT_THAT(message.held_reason, HasSubstr("NONE"));
        return false;
    });
}

TEST_F(HostOpsTest, WhatWasReadAsASecretIsMaskedInTheLog) {
    store_->object_add("QMGR", "QMGR", {{"KEYPASS", "very secret"}});
    char secret[64] = "";
    char unset[256] = "untouched";
    char* names[] = {c("KEYPASS"), c("CAFILE"), secret};
    char* buffers[] = {secret, unset, unset};
    const auto read = [&](void* handle, int count) {
        return Errc{KVR_ObjGetAttr(handle, c("QMGR"), c("QMGR"), count, names, buffers)};
    };
    EXPECT_EQ(read(context_.hObjDB, 2), Errc{});
    EXPECT_STREQ(secret, "very secret");
    EXPECT_STREQ(unset, "untouched");
    EXPECT_EQ(read(&length_, 1), Errc::kNotOpen);
    EXPECT_EQ(read(context_.hObjDB, 1000), Errc::kInvalid);
    testing::internal::CaptureStderr();
    EXPECT_EQ(read(context_.hObjDB, 3), Errc::kUnknownAttr) << "an attribute of that name, and an error that names it";
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("has no attribute '********'"));
}

} // namespace
} // namespace kvr

// Not inlined: the compiler would take the pair for one of new and free.
__attribute__((noinline)) void* operator new(std::size_t size) {
    void* const block = kvr::g_no_memory ? nullptr : std::malloc(size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}
__attribute__((noinline)) void operator delete(void* block) noexcept {
    std::free(block);
}
__attribute__((noinline)) void operator delete(void* block, std::size_t /*size*/) noexcept {
    std::free(block);
}
