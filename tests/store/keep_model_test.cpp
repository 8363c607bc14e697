// SPDX-License-Identifier: MIT
// Steps of a drainer that keeps what it used, in any order, and what has to be true after each: every message lies in
// one place, the counts are those of what is shown, and what can be gone with a line is what was used over it.
#include <random>

#include "store_fixture.h"

namespace kvr {
namespace {

class KeepModelTest : public StoreTest {
  protected:
    void live(unsigned seed) {
        random_.seed(seed);
        make_store({});
        repeat_ = seed % 2 == 0;
        put_ = dead_ = 0;
        open();
        for (int i = 0; i < 120 && !HasFailure(); ++i) {
            steps_[below(std::size(steps_))]();
            look();
        }
        getter_.reset();
        used_.clear();
        hand_.clear();
    }

  private:
    std::size_t below(std::size_t bound) { return random_() % bound; }
    void open() {
        getter_ = store_->drain("Q", {KeepLimits{std::chrono::hours(1), 1ULL << 40}, {{}, 1ULL << 40}, repeat_});
        lose(getter_->inherited_loss());
    }
    void close() {
        hand_.clear();
        getter_.reset();
        open();
    }
    void lose(const Loss& loss) { EXPECT_EQ(loss.messages, std::exchange(used_, {}).size()); }
    void use_up() {
        if (!hand_.empty()) {
            used_.insert(std::exchange(hand_, {}));
        }
    }
    void replay() {
        const Places places{below(put_ + 1), below(put_ + 1)};
        const std::size_t kept = shown("Q", true).size();
        const std::uint64_t count = store_->replay("Q", {&places, 1});
        EXPECT_EQ(count, kept - shown("Q", true).size());
        for (const std::string& text : shown()) {
            used_.erase(text.substr(0, text.find('~'))); // it is to be used again
        }
    }
    static std::uint64_t with(const Texts& texts, char mark) {
        return static_cast<std::uint64_t>(
            std::ranges::count_if(texts, [=](auto& text) { return text.find(mark) != std::string::npos; }));
    }
    void look() {
        const Texts on = shown();
        const Texts kept = shown("Q", true);
        const QueueInfo info = store_->queue_info("Q");
        EXPECT_EQ((std::array{info.depth, info.held, info.kept, info.suspected}),
                  (std::array<std::uint64_t, 4>{on.size(), with(on, '!'), kept.size(), with(kept, '?')}));
        EXPECT_GE(info.repeats, with(on, '~')) << "those of the group are used, and still counted";
        std::set<std::string> all;
        for (const Texts& each : {on, kept}) {
            for (const std::string& text : each) {
                EXPECT_TRUE(all.insert(text.substr(0, text.find_first_of("!*~?"))).second) << text;
            }
        }
        all.insert(used_.begin(), used_.end()); // those of the group are shown nowhere
        EXPECT_EQ(all.size() + dead_, put_);
        EXPECT_EQ(shown("DEAD").size(), dead_);
    }

    const std::function<void()> steps_[15] = {
        [&] { put(std::to_string(++put_)); },
        [&] {
            put_all({std::to_string(put_ + 1), std::to_string(put_ + 2), std::to_string(put_ + 3)}), put_ += 3;
        },
        [&] { use_up(), hand_ = take(*getter_), hand_ = hand_ == "-" ? "" : hand_; },
        [&] { steps_[2](); },
        [&] { steps_[2](); },
        [&] { getter_->commit(), use_up(); },
        [&] { lose(getter_->line_lost()); },
        [&] { getter_->rollback(), hand_.clear(); },
        [&] { getter_->skip(), hand_.clear(); },
        [&] { getter_->hold("test"), hand_.clear(); },
        [&] { store_->release_held("Q"); },
        [&] {
            if (!std::exchange(hand_, {}).empty()) {
                getter_->put_instead("DEAD", {&descriptor_, {}, std::string_view("dead")}), ++dead_;
            }
        },
        [&] { replay(); },
        [&] { close(); },
        [&] { getter_->line_ended(), use_up(), used_.clear(), close(); }};
    std::mt19937 random_;
    std::unique_ptr<Getter> getter_;
    std::set<std::string> used_; ///< over the line that stands
    std::string hand_;
    std::size_t put_ = 0;
    std::size_t dead_ = 0;
    bool repeat_ = false;
};

TEST_P(KeepModelTest, EachMessageLiesInOnePlaceAndIsCountedThere) {
    for (unsigned seed = 0; seed < 15 && !HasFailure(); ++seed) {
        SCOPED_TRACE(seed);
        live(seed);
    }
}
KVR_OVER_EVERY_ENGINE(KeepModelTest);

} // namespace
} // namespace kvr
