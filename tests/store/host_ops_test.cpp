// SPDX-License-Identifier: MIT
// The host's operations with C linkage, as a channel calls them.
#include <cstdlib>
#include <new>

#include "kavro_ac.h"
#include "kavro_ac_host.h"
#include "kavro_queue_host.h"
#include "store_fixture.h"

namespace kvr {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

bool g_no_memory = false;

char* c(const char* text) {
    return const_cast<char*>(text);
} // NOLINT: the operations write through none of them

class HostOpsTest : public StoreTest {
  protected:
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
    char buffer_[64];
    int length_ = 0;
};

TEST_F(HostOpsTest, GetUsesUpWithTheNextGetOrTheClose) {
    put_numbers(1, 3);
    const auto handle = open("Q");
    EXPECT_FALSE(store_->queue_info("Q").drained_by) << "an open queue is not drained yet";
    EXPECT_EQ(text(handle), "1");
    EXPECT_EQ(text(handle), "2");
    EXPECT_EQ(close(handle), Errc{});
    EXPECT_THAT(shown(), ElementsAre("3"));
    T_KAVRO_MD named = blank_descriptor();
    std::memcpy(named.sMsgId, "ID4", 3);
    store_->put("Q", OutgoingMessage{&named, {}, std::string_view("4")});
    const auto again = open("Q");
    EXPECT_EQ(text(again), "3");
    EXPECT_EQ(text(again), "4");
    testing::internal::CaptureStderr();
    EXPECT_EQ(close(nullptr), Errc::kNotOpen);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(" msg[ID4]\n")) << "a line about a message names it";
    queue_give_back(); // stopped in the middle of the message
    EXPECT_EQ(close(again), Errc{});
    EXPECT_THAT(shown(), ElementsAre("4"));
}

TEST_F(HostOpsTest, StaleAndForeignNamesAndHandlesDoNoHarm) {
    T_KAVRO_QMGR_CTX other{};
    EXPECT_EQ(Errc{KVR_InitQmgrCtx(&other, c("NONE"))}, Errc::kNotFound);
    EXPECT_EQ(Errc{KVR_InitQmgrCtx(&other, c("../QM"))}, Errc::kInvalid);
    T_KVR_QUE_OBJ_HANDLE unchanged = &length_;
    EXPECT_EQ(Errc{KVR_QueOpen(&length_, c("Q"), &unchanged, 0)}, Errc::kNotOpen);
    EXPECT_EQ(unchanged, &length_);
    const auto handle = open("Q");
    EXPECT_EQ(Errc{KVR_QueMsgGet(context_.hQueDB, handle, nullptr, nullptr, buffer_, &length_)}, Errc::kInvalid);
    EXPECT_EQ(close(handle), Errc{});
    for (T_KVR_QUE_OBJ_HANDLE bad : {handle, T_KVR_QUE_OBJ_HANDLE{}, T_KVR_QUE_OBJ_HANDLE{&length_}}) {
        EXPECT_EQ(close(bad), Errc::kNotOpen);
        EXPECT_EQ(get(bad), Errc::kNotOpen);
        EXPECT_EQ(put(bad), Errc::kNotOpen);
    }
}

TEST_F(HostOpsTest, DeadLetterPutTakesTheMessageAlongOrItIsHeld) {
    EXPECT_EQ(StoreTest::put("0", {"/f/1", "/f/2"}), Errc{});
    put_numbers(1, 7);
    const auto source = open("Q");
    const auto dead = open("DEAD");
    EXPECT_EQ(text(source), "0");
    EXPECT_EQ(put(dead), Errc{});
    EXPECT_EQ(text(source), "1");
    got_.iMsgFlags = KVR_MSGFLAG_ACCESSORIES;
    files_.iNum = 0;
    EXPECT_EQ(put(dead), Errc{});
    EXPECT_THAT(shown(), ElementsAre("2", "3", "4", "5", "6", "7")) << "off its queue at once";
    {
        const auto getter = store_->drain("DEAD");
        files_ = {};
        EXPECT_EQ(getter->next(got_, buffer_, false), 1);
        EXPECT_EQ(files_.iNum, 2);
        EXPECT_STREQ(files_.sFiles[1], "/f/2");
        EXPECT_EQ(getter->next(got_, buffer_, false), 1);
        EXPECT_EQ(got_.iMsgFlags, KVR_MSGFLAG_ACCESSORIES) << "the descriptor as it was given";
        EXPECT_EQ(files_.iNum, 0);
    }
    EXPECT_EQ(text(source), "2");
    T_KVR_QUE_OBJ_HANDLE none = nullptr;
    EXPECT_EQ(Errc{KVR_QueOpen(context_.hQueDB, c("NONE"), &none, 0)}, Errc::kNotFound);
    EXPECT_EQ(text(source), "3");
    got_.iMsgFlags = KVR_MSGFLAG_ACCESSORIES;
    files_.iNum = KVR_ACC_MAX + 1; // refused before the store is asked
    EXPECT_EQ(put(dead), Errc::kInvalid);
    EXPECT_EQ(text(source), "4");
    EXPECT_EQ(put(none), Errc::kNotOpen);
    for (const char* next : {"5", "6"}) {
        EXPECT_EQ(text(source), next);
        g_no_memory = true;
        const Errc failed =
            *next == '5' ? put(dead) : Errc{KVR_QueOpen(context_.hQueDB, c("a queue of no short name"), &none, 0)};
        g_no_memory = false;
        EXPECT_EQ(failed, Errc::kIo);
    }
    EXPECT_EQ(text(source), "7");
    EXPECT_EQ(close(source), Errc{});
    EXPECT_EQ(close(dead), Errc{});
    EXPECT_THAT(shown(), ElementsAre("2!", "3!", "4!", "5!", "6!"));
    store_->browse("Q", 0, [](const StoredMessage& message) {
        EXPECT_THAT(message.held_reason, HasSubstr("NONE"));
        return false;
    });
}

TEST_F(HostOpsTest, AttributesReachTheBuffersTheyFitAndSecretsNoLog) {
    char pid[256] = "untouched";
    char status[256] = "untouched";
    char* names[] = {c("PID"), c("STATUS")};
    char* buffers[] = {pid, status};
    char* values[] = {c("4711"), c("BINDING")};
    void* const db = context_.hObjDB;
    const auto read = [&](const void* handle, int count) {
        return Errc{KVR_ObjGetAttr(const_cast<void*>(handle), c("CHS"), c("C"), count, names, buffers)};
    };
    EXPECT_EQ(KVR_ObjAdd(db, c("CHS"), c("C"), 1, names, values, 0), 0);
    EXPECT_EQ(Errc{KVR_ObjAdd(db, c("CHS"), c("C"), 1, names, values, 0)}, Errc::kExists);
    EXPECT_EQ(KVR_ObjGetAttrV(db, c("CHS"), c("C"), 2, "PID", "STATUS", pid, status), 0);
    EXPECT_STREQ(pid, "4711");
    EXPECT_STREQ(status, "untouched");
    EXPECT_EQ(KVR_ObjSetAttrV(db, c("CHS"), c("C"), 2, "STATUS", "LOCALIP", "RUNING", "127.0.0.1"), 0);
    EXPECT_EQ(read(db, 2), Errc{});
    EXPECT_STREQ(status, "RUNING");
    testing::internal::CaptureStderr();
    EXPECT_EQ(KVR_ObjSetAttrV(db, c("CHS"), c("C"), 5, "STATUS", "LOCALIP", "LOCALPORT", "REMOTEIP", "REMOTEPORT",
                              "RUNING", "10.0.0.1", "4711", "10.0.0.2", "5151"),
              0);
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                HasSubstr("channel[C] line up, local[10.0.0.1:4711] remote[10.0.0.2:5151]"));
    EXPECT_EQ(read(&length_, 1), Errc::kNotOpen);
    EXPECT_EQ(read(db, 1000), Errc::kInvalid);
    const std::string lengthy(256, 'x');
    values[1] = c(lengthy.c_str());
    EXPECT_EQ(Errc{KVR_ObjSetAttr(db, c("CHS"), c("C"), 2, names, values)}, Errc::kTooLong);

    store_->object_add("QMGR", "QMGR", {{"KEYPASS", "very secret"}});
    ASSERT_EQ(KVR_ObjGetAttrV(db, c("QMGR"), c("QMGR"), 1, "KEYPASS", pid), 0);
    ASSERT_STREQ(pid, "very secret");
    names[1] = pid; // an unknown attribute, and an error that names it
    testing::internal::CaptureStderr();
    EXPECT_EQ(read(db, 2), Errc::kUnknownAttr);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_THAT(log, HasSubstr("has no attribute '********'"));
    EXPECT_THAT(log, testing::Not(HasSubstr("very secret")));
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
