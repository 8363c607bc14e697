// SPDX-License-Identifier: MIT
// Units of work: all or nothing, what comes back and how often, limits, and what goes aside.
#include <sys/syscall.h>

#include "bindings/program_fixture.h"
#include "kavutil/export.h"

namespace {
enum { kWorks, kFailsBehindHead, kFails } g_disk = kWorks;
} // namespace

extern "C" KVR_EXPORT ssize_t pwrite(int fd, const void* data, std::size_t size, off_t at) {
    constexpr off_t kEndOfHeads = 8192;
    const ssize_t written = g_disk == kFails ? -1 : ::syscall(SYS_pwrite64, fd, data, size, at);
    if (g_disk == kWorks || (g_disk == kFailsBehindHead && at >= kEndOfHeads)) {
        return written;
    }
    g_disk = kFails;
    return errno = EIO, -1;
}

namespace kvr::test {
namespace {

using UnitsOfWork = BindingsTest;
using std::chrono::milliseconds;

TEST_F(UnitsOfWork, HappenWholeOrNotAtAll) {
    put({"one", "two", "three"});
    Connection other = connect();
    Message got;
    {
        Unit unit(qm_);
        ASSERT_EQ(unit.get("Q", got), Got::kMessage);
        EXPECT_EQ(std::tuple(got.data(), got.given_back()), std::tuple("one", 0));
        unit.put("OTHER", Message("answer"));
        unit.put("ASIDE", Message("copy"));
        unit.put("OTHER", Message("second"));
        EXPECT_EQ(take(other), "two");
        EXPECT_EQ(std::tuple(other.depth("Q"), other.depth("OTHER")), std::tuple(2, 0));
        Message seen;
        ASSERT_TRUE(other.browse("Q", 0, seen));
        EXPECT_TRUE(seen.is_in_hand());
        ASSERT_TRUE(other.browse("Q", seen.place() + 1, seen));
        EXPECT_EQ(std::tuple(seen.data(), seen.is_in_hand()), std::tuple("three", false));
        EXPECT_FALSE(other.browse("Q", seen.place() + 1, seen));
        EXPECT_EQ(seen.data(), "three");
    }
    Unit unit(qm_);
    ASSERT_EQ(unit.get("Q", got), Got::kMessage);
    EXPECT_EQ(std::tuple(got.data(), got.given_back()), std::tuple("one", 1));
    EXPECT_EQ(take(unit), "three");
    unit.put("OTHER", Message("answer"));
    unit.put("Q", Message("again"));
    unit.put("OTHER", Message("second"));
    EXPECT_EQ(take(unit), "-"); // its own puts are not there yet
    unit.commit();
    unit.rollback();
    EXPECT_EQ(take(other), "again");
    EXPECT_EQ(std::tuple(other.depth("Q"), other.depth("ASIDE")), std::tuple(0, 0));
    EXPECT_EQ(take_all(other, "OTHER"), "answer,second,");
}

TEST_F(UnitsOfWork, EndWithTheirConnection) {
    put({"one"});
    {
        Connection other = connect();
        Message message("lost");
        ASSERT_EQ(kvr_put(other.handle(), "Q", message.handle(), KVR_UNIT), KVR_OK);
        kvr_get_options options = KVR_GET_OPTIONS;
        options.flags = KVR_UNIT;
        ASSERT_EQ(kvr_get(other.handle(), "Q", &options, message.handle()), KVR_OK);
        EXPECT_EQ(take(qm_), "-");
    }
    Message back;
    ASSERT_EQ(qm_.get("Q", back), Got::kMessage);
    EXPECT_EQ(std::tuple(back.data(), back.given_back()), std::tuple("one", 1));
    EXPECT_EQ(take(qm_), "-");
}

TEST_F(UnitsOfWork, RefuseWhatIsBeyondTheirLimitsAndGoOn) {
    put({"one"});
    Unit unit(qm_);
    EXPECT_EQ(code_of([&] { return unit.put("NONE", Message()), 0; }), KVR_E_NOT_FOUND);
    const Message large(std::string(KVR_MAX_UNIT_BYTES / 32, 'x'));
    for (int i = 0; i < 32; ++i) {
        unit.put("OTHER", large);
    }
    EXPECT_EQ(code_of([&] { return unit.put("OTHER", Message("x")), 0; }), KVR_E_TOO_LARGE);
    unit.rollback();
    for (int i = 0; i < KVR_MAX_UNIT_MESSAGES; ++i) {
        unit.put("OTHER", Message());
    }
    EXPECT_EQ(code_of([&] { return unit.put("OTHER", Message()), 0; }), KVR_E_TOO_LARGE);
    EXPECT_EQ(code_of([&] { return take(unit); }), KVR_E_TOO_LARGE);
    unit.commit();
    EXPECT_EQ(qm_.depth("OTHER"), std::uint64_t{KVR_MAX_UNIT_MESSAGES});
    EXPECT_EQ(take(unit), "one");
}

TEST_F(UnitsOfWork, OfWhichACommitFailsCanBeCommittedAgain) {
    put({"one"});
    Unit unit(qm_);
    EXPECT_EQ(take(unit), "one");
    unit.put("OTHER", Message("answer"));
    store()->queue_delete("OTHER", true);
    EXPECT_EQ(code_of([&] { return unit.commit(), 0; }), KVR_E_NOT_FOUND);
    EXPECT_EQ(qm_.depth("Q"), 1U);
    store()->queue_define("OTHER", "");
    unit.commit();
    EXPECT_EQ(std::tuple(qm_.depth("Q"), qm_.depth("OTHER")), std::tuple(0, 1));
}

TEST_F(UnitsOfWork, OfUnknownOutcomeAreOverAndDoneOnce) {
    put({"one", "two"});
    Unit unit(qm_);
    EXPECT_EQ(take(unit), "one");
    unit.put("OTHER", Message("answer"));
    g_disk = kFailsBehindHead;
    EXPECT_EQ(code_of([&] { return unit.commit(), 0; }), KVR_E_UNKNOWN);
    g_disk = kWorks;
    unit.commit();
    EXPECT_EQ(std::tuple(take_all(unit), take_all(qm_, "OTHER")), std::tuple("two,", "answer,"));
}

TEST_F(UnitsOfWork, SetAsideWhatWasTriedTooOften) {
    Message poison("poison");
    poison.set(KVR_CORRELATION_ID, "c");
    poison.attach("/file");
    qm_.put("Q", poison);
    put({"good"});
    const Wanted wanted{milliseconds(0), {}, {}, 2, "ASIDE"};
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(take(*std::make_unique<Unit>(qm_), wanted), "poison");
    }
    Unit unit(qm_);
    unit.put("OTHER", Message("answer"));
    EXPECT_EQ(take(unit, wanted), "good");
    unit.rollback();
    EXPECT_EQ(take_all(qm_, "Q", wanted), "good,");
    Message aside;
    ASSERT_EQ(qm_.get("ASIDE", aside), Got::kMessage);
    EXPECT_EQ(std::tuple(aside.data(), aside.id(), aside.correlation_id(), aside.attachments().size()),
              std::tuple("poison", poison.id(), "c", 1));
    for (const char* const queue : {"Q", "NONE", ""}) {
        EXPECT_NE(code_of([&] { return take(qm_, {milliseconds(0), {}, {}, 2, queue}); }), KVR_OK) << queue;
    }
}

} // namespace
} // namespace kvr::test
