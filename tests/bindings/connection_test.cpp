// SPDX-License-Identifier: MIT
// Connections: what is looked for and waited for, who may use them, and how they refuse.
#include <thread>

#include "bindings/program_fixture.h"

namespace kvr::test {
namespace {

using Connections = BindingsTest;
using app::kForever;
using std::chrono::milliseconds;

TEST_F(Connections, FindByTheirIds) {
    for (const auto& [id, correlation] : {std::pair("a", "1"), {"b", "2"}, {"c", "2"}, {"d", ""}}) {
        Message message(id);
        message.set(KVR_MESSAGE_ID, id);
        message.set(KVR_CORRELATION_ID, correlation);
        qm_.put("Q", message);
    }
    EXPECT_EQ(take(qm_, {milliseconds(1), "a", "2"}), "-");
    EXPECT_EQ(take(qm_, {milliseconds(0), {}, "2"}), "b");
    EXPECT_EQ(take(qm_, {milliseconds(0), "c"}), "c");
    EXPECT_EQ(take(qm_, {milliseconds(0), {}, ""}), "d");
    EXPECT_EQ(take(qm_, {milliseconds(0), {}, std::string_view()}), "a");
    EXPECT_EQ(code_of([&] { return take(qm_, {milliseconds(0), std::string(33, 'x')}); }), KVR_E_TOO_LONG);
}

TEST_F(Connections, WaitForWhatComes) {
    Connection other = connect();
    std::thread waiter([&] { EXPECT_EQ(take(other, {kForever, {}, "wanted"}), "came"); });
    Message message("came");
    put({"other"});
    message.set(KVR_CORRELATION_ID, "wanted");
    qm_.put("Q", message);
    waiter.join();
}

TEST_F(Connections, AreInterruptedFromAnotherThread) {
    std::thread waiter([&] { EXPECT_EQ(take(qm_, {kForever}), "!"); });
    qm_.interrupt();
    waiter.join();
    // Kept for the next one that would wait, and only for that.
    put({"one"});
    qm_.interrupt();
    EXPECT_EQ(take(qm_, {kForever}), "one");
    EXPECT_EQ(take(qm_), "-");
    EXPECT_EQ(take(qm_, {kForever}), "!");
    EXPECT_EQ(take(qm_, {milliseconds(1)}), "-");
}

TEST_F(Connections, AreInterruptedBySignalHandlersOnlyWhileTheyWait) {
    struct sigaction action {};
    action.sa_handler = [](int /*signal*/) {};
    action.sa_flags = SA_RESTART;
    sigaction(SIGALRM, &action, nullptr);
    repeat_alarm(1000);
    EXPECT_EQ(take(qm_, {kForever}), "!");
    for (int i = 0; i < 100; ++i) {
        put({"one"});
        EXPECT_EQ(take(qm_, {kForever}), "one");
    }
    repeat_alarm(0);
}

TEST_F(Connections, AreOneForEachThread) {
    constexpr std::size_t kMessages = 300;
    const auto move = [&] {
        Connection own = connect();
        for (std::string text; text != "end";) {
            Unit unit(own);
            text = take(unit, {kForever});
            unit.put("OTHER", Message(text));
            unit.commit();
        }
    };
    std::thread one(move);
    std::thread two(move);
    for (std::size_t i = 0; i < kMessages; ++i) {
        put({std::to_string(i)});
    }
    put({"end", "end"});
    one.join();
    two.join();
    std::set<std::string> moved;
    for (std::string text = take(qm_, {}, "OTHER"); text != "-"; text = take(qm_, {}, "OTHER")) {
        EXPECT_TRUE(moved.insert(text).second || text == "end") << text;
    }
    EXPECT_EQ(std::tuple(moved.size(), qm_.depth("Q")), std::tuple(kMessages + 1, 0));
}

TEST_F(Connections, AreNotForAForkedChild) {
    put({"one", "two"});
    Unit unit(qm_);
    EXPECT_EQ(take(unit), "one");
    Message message;
    auto child = Child::fork_off([&] {
        kvr_qm* const qm = qm_.handle();
        kvr_message* const mine = message.handle();
        EXPECT_THAT(results(kvr_put(qm, "Q", mine, 0), kvr_put_many(qm, "Q", nullptr, 0, 0), kvr_commit(qm),
                            kvr_get(qm, "Q", nullptr, mine), kvr_rollback(qm), kvr_release(qm, "Q"),
                            kvr_browse(qm, "Q", 0, mine), kvr_depth(qm, "Q", nullptr, nullptr), kvr_interrupt(qm)),
                    testing::Each(KVR_E_FORKED));
        kvr_close(qm);
        Connection own = connect();
        EXPECT_EQ(take_all(own), "two,");
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(child.result(), 0);
    EXPECT_EQ(take(unit, {milliseconds(1)}), "-");
    unit.put("OTHER", message);
    unit.commit();
    EXPECT_EQ(std::tuple(qm_.depth("Q"), qm_.depth("OTHER")), std::tuple(0, 1));
}

TEST_F(Connections, KeepADrainerOutUntilTheyRelease) {
    put({"one"});
    {
        Unit unit(qm_);
        EXPECT_EQ(take(unit), "one");
        EXPECT_EQ(code_of([&] { return qm_.release("Q"), 0; }), KVR_E_BUSY);
    }
    EXPECT_THROW(static_cast<void>(store()->drain("Q")), kvr::Error);
    qm_.release("Q");
    qm_.release("Q");
    const auto drainer = store()->drain("Q");
    EXPECT_EQ(code_of([&] { return take(qm_); }), KVR_E_BUSY);
}

TEST_F(Connections, RefuseWrongArguments) {
    kvr_qm* const qm = qm_.handle();
    Message message("as it was");
    kvr_message* const one = message.handle();
    kvr_message* const none = nullptr;
    kvr_get_options wrong = KVR_GET_OPTIONS, small = wrong, nowhere = wrong;
    wrong.wait_ms = -2;
    small.size = 8;
    nowhere.max_tries = 1;
    EXPECT_THAT(results(kvr_open(home_.path().c_str(), "QM", nullptr), kvr_message_new(nullptr),
                        kvr_message_set_data(none, "", 0), kvr_message_set_data(one, nullptr, 1),
                        kvr_put(nullptr, "Q", one, 0), kvr_put(qm, nullptr, one, 0), kvr_put(qm, "Q", nullptr, 0),
                        kvr_put(qm, "Q", one, 2), kvr_put_many(qm, "Q", &none, 1, 0),
                        kvr_put_many(qm, "Q", nullptr, 1, 0), kvr_get(qm, "Q", nullptr, nullptr),
                        kvr_get(qm, "Q", &wrong, one), kvr_get(qm, "Q", &small, one), kvr_get(qm, "Q", &nowhere, one),
                        kvr_browse(qm, "Q", 0, nullptr), kvr_depth(qm, nullptr, nullptr, nullptr),
                        kvr_interrupt(nullptr)),
                testing::Each(KVR_E_INVALID));
    kvr_close(nullptr);
    kvr_message_free(nullptr);
    EXPECT_EQ(code_of([&] { return take(qm_, {}, "NONE"); }), KVR_E_NOT_FOUND);
    EXPECT_THAT(kvr_error(), testing::HasSubstr("'NONE'"));
    std::thread([] { EXPECT_STREQ(kvr_error(), ""); }).join();
    EXPECT_EQ(code_of([&] { return Connection(home_.path(), "OTHER"), 0; }), KVR_E_NOT_FOUND);
    EXPECT_THAT(kvr_error(), testing::HasSubstr("kvr create OTHER"));
    EXPECT_EQ(std::tuple(message.data(), qm_.depth("Q"), qm_.name()), std::tuple("as it was", 0, "QM"));
}

} // namespace
} // namespace kvr::test
