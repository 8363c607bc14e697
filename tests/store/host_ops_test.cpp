// SPDX-License-Identifier: MIT
// The host's operations with C linkage, as a channel calls them.
#include <gmock/gmock.h>

#include "kavro_ac.h"
#include "kavro_ac_host.h"
#include "kavro_queue_host.h"
#include "store_fixture.h"

namespace kvr {
namespace {

using testing::ElementsAre;

char* c(const char* text) {
    return const_cast<char*>(text);
} // NOLINT: the operations write through none of them

class HostOpsTest : public StoreTest {
  protected:
    HostOpsTest() {
        make_store();
        ac_set_qmgr(home_, "QM");
        EXPECT_EQ(KVR_InitQmgrCtx(&context_, KVR_GetQmgrName()), 0);
        store_->object_add("QMGR", "QMGR", {{"DEADQ", "DEAD"}, {"KEYPASS", "very secret"}});
    }
    T_KVR_QUE_OBJ_HANDLE open(const char* name) {
        T_KVR_QUE_OBJ_HANDLE handle = nullptr;
        EXPECT_EQ(KVR_QueOpen(context_.hQueDB, c(name), &handle, 0), 0);
        return handle;
    }
    int close(T_KVR_QUE_OBJ_HANDLE handle) { return KVR_QueClose(context_.hQueDB, c("any"), handle, 0); }
    int get(T_KVR_QUE_OBJ_HANDLE handle) {
        length_ = static_cast<int>(buffer_.size());
        descriptor_ = blank_descriptor();
        descriptor_.pOptData = &files_;
        return KVR_QueMsgGet(context_.hQueDB, handle, &descriptor_, &options_, buffer_.data(), &length_);
    }
    int put(T_KVR_QUE_OBJ_HANDLE handle) {
        T_KAVRO_PMO options{};
        return KVR_QueMsgPut(context_.hQueDB, handle, &descriptor_, &options, buffer_.data(), length_);
    }
    [[nodiscard]] std::string text() const { return {buffer_.data(), static_cast<std::size_t>(length_)}; }

    T_KAVRO_QMGR_CTX context_{};
    T_KAVRO_GMO options_{};
    T_KAVRO_MD descriptor_{};
    T_KAVRO_ACCESSORIES_MD files_{};
    std::vector<char> buffer_ = std::vector<char>(4096);
    int length_ = 0;
};

TEST_F(HostOpsTest, AttachesByName) {
    EXPECT_STREQ(context_.sObjName, "QM");
    T_KAVRO_QMGR_CTX other{};
    EXPECT_EQ(KVR_InitQmgrCtx(&other, c("NONE")), static_cast<int>(Errc::kNotFound));
    EXPECT_EQ(KVR_InitQmgrCtx(&other, c("../QM")), static_cast<int>(Errc::kInvalid));
    EXPECT_EQ(other.hObjDB, nullptr);
}

TEST_F(HostOpsTest, GetUsesUpWithTheNextGetOrTheClose) {
    put_numbers(*store_, "Q", 1, 3);
    const auto handle = open("Q");
    EXPECT_EQ(store_->queue_info("Q").drained_by, 0) << "an open queue is not drained yet";
    ASSERT_EQ(get(handle), 0);
    EXPECT_EQ(text(), "1");
    ASSERT_EQ(get(handle), 0);
    EXPECT_EQ(text(), "2");
    EXPECT_EQ(close(handle), 0);
    EXPECT_THAT(browse_texts(*store_, "Q"), ElementsAre("3"));

    const auto again = open("Q");
    ASSERT_EQ(get(again), 0);
    queue_give_back(); // stopped in the middle of the message
    EXPECT_EQ(close(again), 0);
    EXPECT_THAT(browse_texts(*store_, "Q"), ElementsAre("3"));
}

TEST_F(HostOpsTest, StaleAndForeignHandlesDoNoHarm) {
    const auto handle = open("Q");
    EXPECT_EQ(close(handle), 0);
    const int not_open = static_cast<int>(Errc::kNotOpen);
    EXPECT_EQ(close(handle), not_open);
    EXPECT_EQ(get(handle), not_open);
    EXPECT_EQ(put(handle), not_open);
    EXPECT_EQ(close(nullptr), not_open);
    EXPECT_EQ(close(&length_), not_open);
    T_KVR_QUE_OBJ_HANDLE unchanged = &length_;
    EXPECT_EQ(KVR_QueOpen(context_.hQueDB, c("NONE"), &unchanged, 0), static_cast<int>(Errc::kNotFound));
    EXPECT_EQ(KVR_QueOpen(&length_, c("Q"), &unchanged, 0), not_open);
    EXPECT_EQ(unchanged, &length_);
    const auto live = open("Q");
    EXPECT_EQ(KVR_QueMsgGet(context_.hQueDB, live, nullptr, &options_, buffer_.data(), &length_),
              static_cast<int>(Errc::kInvalid));
    length_ = -1;
    EXPECT_EQ(put(live), static_cast<int>(Errc::kInvalid));
    EXPECT_EQ(close(live), 0);
}

TEST_F(HostOpsTest, DeadLetterPutTakesTheMessageAlongOrItIsHeld) {
    const T_KAVRO_MD descriptor = blank_descriptor();
    const std::vector<std::string> paths{"/f/1", "/f/2"};
    store_->put("Q", OutgoingMessage{&descriptor, paths, std::string_view("0")});
    put_numbers(*store_, "Q", 1, 4);
    const auto source = open("Q");
    const auto dead = open("DEAD");
    ASSERT_EQ(get(source), 0);
    ASSERT_EQ(put(dead), 0);
    std::vector<std::string> dead_paths;
    store_->browse("DEAD", 0, [&](const StoredMessage& message) {
        dead_paths = message.attachments;
        return false;
    });
    EXPECT_EQ(dead_paths, paths);

    ASSERT_EQ(get(source), 0);
    T_KVR_QUE_OBJ_HANDLE none = nullptr;
    EXPECT_LT(KVR_QueOpen(context_.hQueDB, c("NONE"), &none, 0), 0);
    ASSERT_EQ(get(source), 0);
    EXPECT_EQ(text(), "2");
    descriptor_.iMsgFlags = KVR_MSGFLAG_ACCESSORIES;
    files_.iNum = KVR_ACC_MAX + 1; // refused before the store is asked
    EXPECT_LT(put(dead), 0);
    ASSERT_EQ(get(source), 0);
    EXPECT_EQ(text(), "3");
    EXPECT_LT(put(none), 0);
    ASSERT_EQ(get(source), 0);
    EXPECT_EQ(text(), "4");
    EXPECT_EQ(close(source), 0);
    EXPECT_EQ(close(dead), 0);
    EXPECT_THAT(browse_texts(*store_, "Q"), ElementsAre("1!", "2!", "3!"));
    std::string reason;
    store_->browse("Q", 0, [&](const StoredMessage& message) {
        reason = message.held_reason;
        return false;
    });
    EXPECT_THAT(reason, testing::HasSubstr("NONE"));
}

TEST_F(HostOpsTest, AttributesReachTheBuffersTheyFit) {
    char pid[256] = "untouched";
    char status[256] = "untouched";
    char* names[] = {c("PID"), c("STATUS")};
    char* buffers[] = {pid, status};
    EXPECT_EQ(KVR_ObjGetAttr(context_.hObjDB, c("CHS"), c("C"), 2, names, buffers), static_cast<int>(Errc::kNotFound));
    char* values[] = {c("4711"), c("BINDING")};
    EXPECT_EQ(KVR_ObjAdd(context_.hObjDB, c("CHS"), c("C"), 1, names, values, 0), 0);
    EXPECT_EQ(KVR_ObjAdd(context_.hObjDB, c("CHS"), c("C"), 1, names, values, 0), static_cast<int>(Errc::kExists));
    EXPECT_EQ(KVR_ObjGetAttrV(context_.hObjDB, c("CHS"), c("C"), 2, "PID", "STATUS", pid, status), 0);
    EXPECT_STREQ(pid, "4711");
    EXPECT_STREQ(status, "untouched");
    EXPECT_EQ(KVR_ObjSetAttrV(context_.hObjDB, c("CHS"), c("C"), 2, "STATUS", "LOCALIP", "RUNING", "127.0.0.1"), 0);
    EXPECT_EQ(KVR_ObjGetAttr(context_.hObjDB, c("CHS"), c("C"), 2, names, buffers), 0);
    EXPECT_STREQ(status, "RUNING");

    const std::string lengthy(256, 'x');
    values[1] = c(lengthy.c_str());
    EXPECT_EQ(KVR_ObjSetAttr(context_.hObjDB, c("CHS"), c("C"), 2, names, values), static_cast<int>(Errc::kTooLong));
    names[1] = c("STATE");
    EXPECT_EQ(KVR_ObjGetAttr(context_.hObjDB, c("CHS"), c("C"), 2, names, buffers),
              static_cast<int>(Errc::kUnknownAttr));
    EXPECT_EQ(KVR_ObjGetAttr(&length_, c("CHS"), c("C"), 1, names, buffers), static_cast<int>(Errc::kNotOpen));
    EXPECT_EQ(KVR_ObjGetAttr(context_.hObjDB, c("CHS"), c("C"), 1000, names, buffers),
              static_cast<int>(Errc::kInvalid));
}

TEST_F(HostOpsTest, PassPhraseIsMaskedOnceItWasRead) {
    char phrase[64] = "";
    ASSERT_EQ(KVR_ObjGetAttrV(context_.hObjDB, c("QMGR"), c("QMGR"), 1, "KEYPASS", phrase), 0);
    ASSERT_STREQ(phrase, "very secret");
    testing::internal::CaptureStderr();
    char* names[] = {phrase};
    char* values[] = {phrase};
    EXPECT_LT(KVR_ObjSetAttr(context_.hObjDB, c("QMGR"), c("QMGR"), 1, names, values), 0); // an error that names it
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_THAT(log, testing::HasSubstr("has no attribute"));
    EXPECT_THAT(log, testing::Not(testing::HasSubstr("very secret")));
}

} // namespace
} // namespace kvr
