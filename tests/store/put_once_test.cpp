// SPDX-License-Identifier: MIT
// Messages that are put once: what is a repeat for how long, for whom, and what a put that fails leaves of it.
#include <cstring>

#include "store_fixture.h"

namespace kvr {

class PutOnceTest : public StoreTest {
  protected:
    /// A text begins with its identity. Returns those that were put.
    Texts put_once(const Texts& texts, std::uint64_t remember = 1000, const std::string& queue = "Q") {
        std::vector<OutgoingMessage> messages;
        std::vector<MessageIdentity> identities(texts.size());
        for (std::size_t i = 0; i < texts.size(); ++i) {
            messages.push_back({&descriptor_, {}, texts[i]});
            std::memcpy(identities[i].data(), texts[i].data(), std::min(texts[i].size(), sizeof identities[i]));
        }
        const std::vector<bool> put = store_->put_once(queue, messages, identities, remember);
        Texts taken;
        std::ranges::copy_if(texts, std::back_inserter(taken), [&, i = 0U](auto&) mutable { return put.at(i++); });
        return taken;
    }
    /// Puts all from `first` on to before `end`, in calls of many sizes.
    void put_numbers(int first, int end, std::uint64_t remember) {
        for (int count = 1; first < end; first += count, count = count * 7 % 291) {
            const Texts texts = numbers(first, count = std::min(count, end - first));
            ASSERT_EQ(put_once(texts, remember), texts);
        }
    }
};
KVR_OVER_EVERY_ENGINE(PutOnceTest);

TEST_P(PutOnceTest, WhoeverPutsARepeatWherever) {
    EXPECT_EQ(put_once({"a", "b", "a", ""}), (Texts{"a", "b", ""}));
    EXPECT_EQ(put_once({"b", "c"}, 1000, "DEAD"), Texts{"c"});
    EXPECT_EQ(fork_user([&] { return put_once({"c", "d", "", "e"}) == Texts{"d", "e"} ? 0 : 1; }).result(), 0);
    EXPECT_EQ(put_once({"d", "f"}), Texts{"f"});
    auto getter = store_->drain("Q");
    take(*getter);
    getter->commit();
    getter.reset();
    store_.reset();
    store_ = Store::open(dir_);
    EXPECT_EQ(put_once({"a", "e", "f", "g"}), Texts{"g"});
    EXPECT_EQ(shown(), (Texts{"b", "", "d", "e", "f", "g"}));
    EXPECT_EQ(shown("DEAD"), Texts{"c"});
}

TEST_P(PutOnceTest, APutThatFailsIsNotRemembered) {
    make_store({{"quota", "2097152"}});
    EXPECT_CODE(kNotFound, put_once({"a"}, 1000, "NONE"));
    EXPECT_CODE(kTooLarge, put_once({"a", std::string(kMaxMessage + 1, 'b')}));
    EXPECT_CODE(kFull, put_once({"a", std::string(1'500'000, 'c'), std::string(1'500'000, 'd')}));
    EXPECT_TRUE(shown().empty());
    EXPECT_EQ(put_once({"a", "b", "c", "d"}).size(), 4U);
    EXPECT_EQ(put_once({std::string(1'900'000, 'e')}).size(), 1U);
    EXPECT_CODE(kFull, put_once({"a", std::string(1'500'000, 'f')}));
    EXPECT_EQ(put_once({"a", "b"}), Texts()) << "a repeat needs no room";
}

TEST_P(PutOnceTest, TheLastOnesAreRememberedAndLittleMore) {
    const auto room = [&] {
        store_->queue_delete("Q", true);
        store_->queue_define("Q", "");
        return store_->usage().bytes;
    };
    put_numbers(0, 5000, 1000);
    const std::uint64_t before = room();
    EXPECT_EQ(put_once(numbers(4000, 1000)), Texts()) << "the last thousand";
    EXPECT_EQ(put_once({"2900"}), Texts{"2900"}) << "long ago";
    EXPECT_EQ(fork_user([&] { return put_numbers(5000, 20000, 1000), HasFailure() ? 1 : 0; }).result(), 0);
    EXPECT_EQ(put_once(numbers(19001, 1000)), Texts{"20000"}) << "all that was in memory is gone";
    EXPECT_EQ(put_once({"4999"}), Texts{"4999"});
    EXPECT_LT(room(), before + before / 2);
    put_numbers(30000, 31000, 10);
    EXPECT_EQ(put_once({"19999", "30999"}, 10), Texts{"19999"}) << "fewer are remembered from now on";
    EXPECT_LT(room(), before / 2);
}

} // namespace kvr
