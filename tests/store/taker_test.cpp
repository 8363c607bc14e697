// SPDX-License-Identifier: MIT
// Several takers of one queue, and units of work.
#include <map>
#include <random>

#include "store_fixture.h"

namespace kvr {
namespace {

constexpr TakeWait kForEver{.time = std::nullopt};

class TakerTest : public StoreTest {
  protected:
    using Places = std::vector<std::uint64_t>;

    /// The next message's text, with a '^' for each time that it was given back; "-" for none.
    std::string take(Taker& taker, const Selection& selection = {}, const TakeWait& wait = {}) {
        if (taker.next(selection, wait, message_) != Taken::kMessage) {
            return "-";
        }
        return message_.data + std::string(message_.given_back, '^');
    }
    /// Takes all that is there.
    Places take_all(Taker& taker) {
        Places places;
        while (take(taker) != "-") {
            places.push_back(message_.sequence);
        }
        return places;
    }
    void commit(Taker& taker, const Places& places, const std::string& answer = {}) {
        const OutgoingMessage message{&descriptor_, {}, answer};
        const UnitPut puts[]{{"DEAD", {&message, 1}}};
        const UnitTake takes[]{{&taker, places}};
        store_->commit(std::span(puts, answer.empty() ? 0 : 1), takes);
    }
    std::unique_ptr<Taker> taker(const std::string& queue = "Q") { return store_->take_from(queue); }

    TakenMessage message_;
};
KVR_OVER_EVERY_ENGINE(TakerTest);

TEST_P(TakerTest, AUnitHappensAsAWholeOrNotAtAll) {
    put_all({"1", "2", "3"});
    const auto first = taker();
    const Places all = take_all(*first);
    const OutgoingMessage answer{&descriptor_, {}, std::string_view("answer")};
    const UnitPut onto_dead{"DEAD", {&answer, 1}};
    const auto unit = [&](std::vector<UnitPut> puts, const Places& places) {
        const UnitTake take{first.get(), places};
        store_->commit(puts, {&take, 1});
    };
    EXPECT_CODE(kNotFound, (unit({onto_dead, {"NONE", {&answer, 1}}}, all), 0));
    const std::string huge(kMaxMessage + 1, 'x');
    const OutgoingMessage too_large{&descriptor_, {}, huge};
    EXPECT_CODE(kTooLarge, (unit({onto_dead, {"Q", {&too_large, 1}}}, all), 0));
    EXPECT_CODE(kInvalid, (unit({onto_dead}, {all[0], all[2] + 1}), 0)) << "not reserved";
    EXPECT_EQ(shown(), (Texts{"1*", "2*", "3*"}));
    EXPECT_EQ(shown("DEAD"), Texts{});
    EXPECT_EQ(take(*taker()), "-") << "a unit that failed keeps what was taken";
    unit({{"Q", {&answer, 1}}, onto_dead}, {all[0], all[2]});
    EXPECT_EQ(shown(), (Texts{"2*", "answer"}));
    EXPECT_EQ(shown("DEAD"), Texts{"answer"});
    EXPECT_EQ(store_->queue_info("Q").depth, 2U);
    EXPECT_EQ(store_->queue_info("Q").bytes, 7U);
    EXPECT_CODE(kInvalid, (unit({}, {all[0]}), 0)) << "done already";
}

TEST_P(TakerTest, AUnitCountsWhatItTakesAgainstTheQuota) {
    make_store({{"quota", "1048576"}});
    put(std::string(700000, 'x'));
    const std::string larger(900000, 'y');
    EXPECT_EQ(put(larger), Errc::kFull);
    const auto one = taker();
    const Places all = take_all(*one);
    commit(*one, all, larger);
    EXPECT_EQ(store_->queue_info("DEAD").bytes, 900000U);
}

TEST_P(TakerTest, TakersAndADrainerExcludeEachOther) {
    put_all({"1", "2"});
    {
        const auto getter = store_->drain("Q");
        EXPECT_CODE(kBusy, taker());
    }
    auto one = taker();
    const auto other = taker();
    EXPECT_CODE(kBusy, store_->drain("Q"));
    EXPECT_CODE(kBusy, (store_->queue_delete("Q", true), 0));
    const int refused =
        fork_user([&] { return code_of([&] { return store_->drain("Q"); }) == Errc::kBusy ? 0 : 1; }).result();
    EXPECT_EQ(refused, 0);
    one.reset();
    EXPECT_CODE(kBusy, store_->drain("Q")) << "one is left";
}

TEST_P(TakerTest, WhatADrainerLeftIsTakenAsItStands) {
    put_all({"used", "held", "1", "2"});
    const auto drain_and_die = [&] {
        auto* const getter = store_->drain("Q").release();
        kvr::take(*getter), kvr::take(*getter);
        getter->hold("test");
        kvr::take(*getter), getter->commit();
        put("3"), kvr::take(*getter), kvr::take(*getter); // "2" is used, not deleted
        return ::raise(SIGKILL);
    };
    EXPECT_EQ(fork_user(drain_and_die).result(), -SIGKILL);
    const auto one = taker();
    EXPECT_EQ(take(*one), "3");
    const Selection without_id{.message_id = MessageId{}, .correlation_id = {}};
    const auto other = taker();
    EXPECT_EQ(take(*one), "-") << "the held one is nobody's";
    EXPECT_EQ(take(*other, without_id), "-");
    EXPECT_EQ(store_->release_held("Q"), 1U);
    EXPECT_EQ(take(*other, without_id), "held");
    other->give_back(Places{message_.sequence});
    EXPECT_EQ(take(*one), "held^");
}

TEST_P(TakerTest, WhatAKilledTakerHadComesToOneThatWaits) {
    put_all({"1", "2", "3"});
    const auto other = taker();
    const auto take_and_die = [&] {
        auto* const mine = taker().release();
        take_all(*mine);
        commit(*mine, {message_.sequence - 1}); // "2"
        return ::raise(SIGKILL);
    };
    EXPECT_EQ(fork_user(take_and_die).result(), -SIGKILL);
    EXPECT_EQ(take(*other, {}, kForEver), "1^");
    EXPECT_EQ(take(*other), "3^");
    EXPECT_EQ(take(*other), "-");
    EXPECT_EQ(shown(), (Texts{"1*", "3*"}));
}

TEST_P(TakerTest, MessagesAreChosenByTheirIds) {
    const auto put_with = [&](const std::string& text, char id, char correlation) {
        T_KAVRO_MD descriptor{};
        descriptor.sMsgId[0] = id;
        descriptor.sCorrelId[31] = correlation;
        store_->put("Q", OutgoingMessage{&descriptor, {}, text});
    };
    put_with("1", 'a', 'x'), put_with("2", 'b', 'y'), put_with("3", 'c', 'x');
    MessageId b{'b'};
    MessageId x{};
    x.back() = 'x';
    const auto one = taker();
    const auto two = taker();
    EXPECT_EQ(take(*one, {.message_id = b, .correlation_id = {}}), "2");
    EXPECT_EQ(take(*one, {.message_id = b, .correlation_id = x}), "-");
    EXPECT_EQ(take(*two, {.message_id = {}, .correlation_id = x}), "1");
    EXPECT_EQ(take(*one, {.message_id = {}, .correlation_id = x}), "3");
    EXPECT_EQ(take(*one, {.message_id = {}, .correlation_id = x}), "-");
    two->give_back(Places{1});
    EXPECT_EQ(take(*one, {.message_id = {}, .correlation_id = x}), "1^")
        << "given back where it had been looked already";
    put_with("4", 'd', 'x');
    EXPECT_EQ(take(*two), "4") << "what others chose is not passed over for good";
}

TEST_P(TakerTest, TooManyReservationsAreRefusedAndTheRestGoesOn) {
    put_all(Texts(kMaxReserved + 1, "x"));
    const auto one = taker();
    Places places;
    for (std::size_t i = 0; i < kMaxReserved; ++i) {
        ASSERT_EQ(take(*one), "x");
        places.push_back(message_.sequence);
    }
    EXPECT_CODE(kFull, take(*one));
    commit(*one, places);
    EXPECT_EQ(take(*one), "x");
}

/// Random steps of three takers beside what must be true after each.
TEST_P(TakerTest, RandomUnitsOfThreeTakersKeepOrderAndCounts) {
    std::mt19937 random(1); // NOLINT: the same steps each time
    const auto draw = [&](std::size_t count) {
        return std::uniform_int_distribution<std::size_t>(0, count - 1)(random);
    };
    struct Known {
        std::string text;
        std::size_t by = 3; ///< taker, 3: none
    };
    std::map<std::uint64_t, Known> queue;
    std::uint64_t last = 0;
    std::vector<std::unique_ptr<Taker>> takers;
    for (int i = 0; i < 3; ++i) {
        takers.push_back(taker());
    }
    const auto some_of = [&](std::size_t by) {
        Places places;
        for (const auto& [place, known] : queue) {
            if (known.by == by && draw(3) != 0) {
                places.push_back(place);
            }
        }
        return places;
    };
    const auto back = [&](std::uint64_t place) { queue.at(place) = {queue.at(place).text + "^"}; };
    for (int step = 0; step < 600; ++step) {
        const std::size_t by = draw(3);
        const Places places = some_of(by);
        switch (draw(8)) {
        case 0:
            takers.at(by)->give_back(places);
            std::for_each(places.begin(), places.end(), back);
            break;
        case 1:
            commit(*takers.at(by), places);
            std::for_each(places.begin(), places.end(), [&](auto place) { queue.erase(place); });
            break;
        case 2:
            takers.at(by).reset();
            for (const auto& [place, known] : queue) {
                if (known.by == by) {
                    back(place);
                }
            }
            takers.at(by) = taker();
            break;
        case 3:
        case 4:
            put(std::to_string(++last));
            queue[last] = {std::to_string(last)};
            break;
        default:
            const auto next =
                std::find_if(queue.begin(), queue.end(), [](const auto& each) { return each.second.by == 3; });
            ASSERT_EQ(take(*takers.at(by)), next == queue.end() ? "-" : next->second.text) << "step " << step;
            if (next != queue.end()) {
                EXPECT_EQ(message_.sequence, next->first);
                next->second.by = by;
            }
        }
    }
    EXPECT_EQ(shown().size(), queue.size());
}

} // namespace
} // namespace kvr
