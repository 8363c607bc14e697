// SPDX-License-Identifier: MIT
// Steps of a drainer that keeps what it used, in any order, against what has to be true after each of them: every
// message lies in one place, the counts are those of what is shown, and what can be gone with a line is what was used
// over it.
#include <random>

#include "store_fixture.h"

namespace kvr {
namespace {

class KeepModelTest : public StoreTest {
  protected:
    void live(unsigned seed) {
        random_.seed(seed);
        make_store({});
        used_.clear();
        hand_.clear();
        log_.clear();
        put_ = dead_ = 0;
        repeat_ = below(2) == 0;
        open();
        for (int i = 0; i < 120 && !HasFailure(); ++i) {
            step(below(12));
            look();
        }
        getter_.reset();
    }

  private:
    unsigned below(unsigned bound) { return static_cast<unsigned>(random_() % bound); }
    void open() {
        const DrainOptions options{KeepLimits{std::chrono::hours(1), 1ULL << 40}, {{}, 1ULL << 40}, repeat_};
        getter_ = store_->drain("Q", options);
        lose(getter_->inherited_loss());
    }
    void use_up() {
        if (!hand_.empty()) {
            used_.insert(std::exchange(hand_, {}));
        }
    }
    void lose(const Loss& loss) {
        log_ += " lost";
        EXPECT_EQ(loss.messages, used_.size());
        EXPECT_FALSE(loss.cut_short);
        used_.clear();
    }
    void step(unsigned kind) {
        if (kind < 3) {
            Texts texts(1 + below(4));
            std::ranges::generate(texts, [&] { return std::to_string(++put_); });
            put_all(texts);
            log_ += " put" + std::to_string(texts.size());
        } else if (kind < 7) {
            use_up();
            const std::string text = take(*getter_);
            hand_ = text == "-" ? "" : text;
            log_ += " take" + text;
        } else if (kind == 7) {
            log_ += " commit";
            getter_->commit();
            use_up();
        } else if (kind == 8) {
            lose(getter_->line_lost());
        } else if (kind == 9) {
            leave(below(4));
        } else if (kind == 10) {
            const Places places{below(put_ + 1), below(put_ + 1)};
            log_ += " replay" + std::to_string(places.first) + "-" + std::to_string(places.last);
            const std::size_t before = shown("Q", true).size();
            const std::uint64_t count = store_->replay("Q", {&places, 1});
            EXPECT_EQ(count, before - shown("Q", true).size());
            std::erase_if(used_, [&](const std::string& text) { // they are to be used again
                const auto on = shown();
                return std::ranges::any_of(on, [&](const std::string& each) { return each == text + "~"; });
            });
        } else {
            close();
        }
    }
    void leave(unsigned how) {
        log_ += " leave" + std::to_string(how);
        if (how == 0) {
            getter_->rollback();
        } else if (how == 1) {
            getter_->skip();
        } else if (how == 2) {
            getter_->hold("test");
        } else if (!hand_.empty()) {
            getter_->put_instead("DEAD", {&descriptor_, {}, std::string_view("dead")});
            ++dead_;
        }
        hand_.clear();
        if (below(2) == 0) {
            log_ += " release";
            store_->release_held("Q");
        }
    }
    void close() {
        log_ += " close";
        if (below(2) == 0) {
            getter_->line_ended();
            log_ += "-in-order";
            use_up();
            used_.clear();
        }
        hand_.clear();
        getter_.reset();
        open();
    }
    void look() {
        SCOPED_TRACE(log_);
        const Texts on = shown();
        const Texts kept = shown("Q", true);
        const QueueInfo info = store_->queue_info("Q");
        const auto with = [](const Texts& texts, char mark) {
            return static_cast<std::uint64_t>(std::ranges::count_if(
                texts, [=](const std::string& text) { return text.find(mark) != std::string::npos; }));
        };
        EXPECT_EQ(info.depth, on.size());
        EXPECT_EQ(info.held, with(on, '!'));
        EXPECT_EQ(info.kept, kept.size());
        EXPECT_EQ(info.suspected, with(kept, '?'));
        EXPECT_GE(info.repeats, with(on, '~')); // those of the group are used and still counted
        std::set<std::string> all;
        for (const Texts& each : {on, kept}) {
            for (const std::string& text : each) {
                EXPECT_TRUE(all.insert(text.substr(0, text.find_first_of("!*~?"))).second) << text;
            }
        }
        EXPECT_EQ(with(on, '*'), hand_.empty() ? 0U : 1U);
        for (const std::string& text : used_) {
            all.insert(text);
        }
        EXPECT_EQ(all.size() + dead_, put_);
        EXPECT_EQ(shown("DEAD").size(), dead_);
    }

    std::mt19937 random_;
    std::unique_ptr<Getter> getter_;
    std::set<std::string> used_; ///< over the line that stands
    std::string hand_;
    std::string log_;
    unsigned put_ = 0;
    unsigned dead_ = 0;
    bool repeat_ = false;
};

TEST_P(KeepModelTest, EachMessageLiesInOnePlaceAndIsCountedThere) {
    const char* const given = std::getenv("SEEDS");
    for (unsigned seed = 0; seed < (given ? static_cast<unsigned>(std::atoi(given)) : 30U) && !HasFailure(); ++seed) {
        SCOPED_TRACE(seed);
        live(seed);
    }
}
KVR_OVER_EVERY_ENGINE(KeepModelTest);

} // namespace
} // namespace kvr
