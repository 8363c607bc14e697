// SPDX-License-Identifier: MIT
// What becomes of messages, as histories of the queue Q and its drainer. A step is a word and what belongs to it.
// put FIRST COUNT; attach TEXT: a put with a file; take TEXT..., - for none; takes FIRST COUNT; hold; release COUNT;
// back; skip; commit; close; instead QUEUE: a dead-letter put; move COUNT: of 3, to DEAD; define; delete; purge;
// drain; destroy; busy, invalid, not_found or too_large STEP: its error; drainer self, parent or none; shown TEXT...;
// dead TEXT...: those on DEAD, held ones with !, the one in hand with *, those with files with &; depth COUNT.
// Of a drainer that keeps what it used: keep BYTES or repeat BYTES: how the next ones drain, 0: they keep nothing;
// leave: they leave kept ones alone; window BYTES; lost COUNT and inherits COUNT: what can be gone with a line, with +
// that more can; ended; kept TEXT...: suspected ones with ?; replay FIRST LAST COUNT, of places; later SECONDS.
// Between two bars stand the steps of another process, which is killed after them. After each step the counts are those
// of what is shown.
#include <algorithm>

#include "store_fixture.h"

/// Seconds that the clock is ahead.
static std::time_t g_later = 0;

extern "C" KVR_EXPORT std::time_t time(std::time_t* /*out*/) noexcept {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec + g_later;
}

namespace kvr {

using enum Errc;

class HistoryTest : public StoreTest {
  protected:
    void live(const std::string& history) {
        std::istringstream parts(history);
        bool killed = false;
        for (std::string steps; std::getline(parts, steps, '|'); killed = !killed) {
            if (!killed) {
                run(steps);
                continue;
            }
            const auto run_and_die = [&] {
                static_cast<void>(getter_.release()); // its parent's: not to be closed here
                return run(steps), HasFailure() ? 1 : ::raise(SIGKILL);
            };
            EXPECT_EQ(fork_user(run_and_die).result(), -SIGKILL);
        }
    }

    void begin() {
        make_store({});
        options_ = {};
        window_ = 1'000'000;
    }

  private:
    void run(const std::string& steps) {
        std::istringstream lines(steps);
        for (std::string line; std::getline(lines >> std::ws, line, ',') && !HasFailure();) {
            std::istringstream words(line);
            step({std::istream_iterator<std::string>(words), {}});
            look();
            EXPECT_FALSE(HasFailure()) << line;
        }
    }
    void step(Texts words) {
        const std::string word = words.front();
        words.erase(words.begin());
        if (const auto code = codes_.find(word); code != codes_.end()) {
            EXPECT_EQ(code_of([&] { step(words); }), code->second);
        } else {
            steps_.at(word)(words);
        }
    }
    /// Each message lies in one place and is counted there.
    void look() {
        if (code_of([&] { return store_->queue_info("Q"); }) == kNotFound) {
            return;
        }
        const Texts on = shown();
        const Texts kept = shown("Q", true);
        const auto with = [](const Texts& texts, char mark) {
            return static_cast<std::uint64_t>(
                std::ranges::count_if(texts, [=](auto& text) { return text.find(mark) != std::string::npos; }));
        };
        const QueueInfo info = store_->queue_info("Q");
        EXPECT_EQ(
            (std::array{info.depth, info.held, info.kept, info.suspected.messages, info.repeats}),
            (std::array<std::uint64_t, 5>{on.size(), with(on, '!'), kept.size(), with(kept, '?'), with(on, '~')}));
        std::set<std::string> places;
        for (const Texts& each : {on, kept}) {
            std::ranges::transform(each, std::inserter(places, places.end()),
                                   [](auto& text) { return text.substr(0, text.find_first_of("!*~?")); });
        }
        EXPECT_EQ(places.size(), on.size() + kept.size());
    }
    Getter& getter() { return *(getter_ = getter_ ? std::move(getter_) : store_->drain("Q", options_)); }
    void expect_taken(const Texts& texts) {
        for (const std::string& text : texts) {
            ASSERT_EQ(take(getter()), text);
        }
    }
    std::string drainer() {
        const auto by = store_->queue_info("Q").drained_by;
        return !by ? "none" : by == local_owner(::getpid()) ? "self" : by == local_owner(::getppid()) ? "parent" : "?";
    }
    void drain_so(bool repeat, const std::string& bytes) {
        options_ = {.keep = KeepLimits{std::chrono::seconds(bytes == "0" ? 0 : 60), std::stoul(bytes)},
                    .window = {std::chrono::seconds(30), window_},
                    .repeat = repeat};
    }
    static std::string text_of(const Loss& loss) { return std::to_string(loss.messages) + (loss.cut_short ? "+" : ""); }
    static std::string moved(std::string_view text) {
        return text == "5" ? throw Error(kTooLarge, "refused") : "m" + std::string(text);
    }

    DrainOptions options_;
    std::uint64_t window_ = 1'000'000;
    std::unique_ptr<Getter> getter_;
    const OutgoingMessage dead_{&descriptor_, {}, std::string_view("dead")};
    const std::map<std::string, Errc> codes_{
        {"busy", kBusy}, {"invalid", kInvalid}, {"not_found", kNotFound}, {"too_large", kTooLarge}};
    const std::map<std::string, std::function<void(const Texts&)>> steps_{
        {"put", [&](const Texts& words) { put_all(numbers(std::stoi(words.at(0)), std::stoi(words.at(1)))); }},
        {"attach", [&](const Texts& words) { StoreTest::put(words.at(0), {"/f"}); }},
        {"takes", [&](const Texts& words) { expect_taken(numbers(std::stoi(words.at(0)), std::stoi(words.at(1)))); }},
        {"take", [&](const Texts& words) { expect_taken(words); }},
        {"shown", [&](const Texts& words) { EXPECT_EQ(shown(), words); }},
        {"dead", [&](const Texts& words) { EXPECT_EQ(shown("DEAD"), words); }},
        {"depth", [&](const Texts& words) { EXPECT_EQ(std::to_string(store_->queue_info("Q").depth), words.at(0)); }},
        {"drainer", [&](const Texts& words) { EXPECT_EQ(drainer(), words.at(0)); }},
        {"release", [&](const Texts& words) { EXPECT_EQ(std::to_string(store_->release_held("Q")), words.at(0)); }},
        {"move", [&](auto& words) { EXPECT_EQ(getter().move_group("DEAD", 3, moved), std::stoul(words.at(0))); }},
        {"instead", [&](const Texts& words) { getter().put_instead(words.at(0), dead_); }},
        {"keep", [&](const Texts& words) { drain_so(false, words.at(0)); }},
        {"repeat", [&](const Texts& words) { drain_so(true, words.at(0)); }},
        {"leave", [&](const Texts& /*none*/) { options_ = {}; }},
        {"window", [&](const Texts& words) { window_ = std::stoul(words.at(0)); }},
        {"lost", [&](const Texts& words) { EXPECT_EQ(text_of(getter().line_lost()), words.at(0)); }},
        {"inherits", [&](const Texts& words) { EXPECT_EQ(text_of(getter().inherited_loss()), words.at(0)); }},
        {"ended", [&](const Texts& /*none*/) { getter().line_ended(); }},
        {"kept", [&](const Texts& words) { EXPECT_EQ(shown("Q", true), words); }},
        {"replay",
         [&](const Texts& words) {
             const Places places{std::stoul(words.at(0)), std::stoul(words.at(1))};
             EXPECT_EQ(std::to_string(store_->replay("Q", {&places, 1})), words.at(2));
         }},
        {"later", [&](const Texts& words) { g_later += std::stol(words.at(0)); }},
        {"hold", [&](const Texts& /*none*/) { getter().hold("test"); }},
        {"back", [&](const Texts& /*none*/) { getter().rollback(); }},
        {"skip", [&](const Texts& /*none*/) { getter().skip(); }},
        {"commit", [&](const Texts& /*none*/) { getter().commit(); }},
        {"close", [&](const Texts& /*none*/) { getter_.reset(); }},
        {"drain", [&](const Texts& /*none*/) { store_->drain("Q"); }},
        {"define", [&](const Texts& /*none*/) { store_->queue_define("Q", ""); }},
        {"delete", [&](const Texts& /*none*/) { store_->queue_delete("Q", false); }},
        {"purge", [&](const Texts& /*none*/) { store_->queue_delete("Q", true); }},
        {"destroy", [&](const Texts& /*none*/) { store_->destroy(false); }}};
};

constexpr const char* kHistories[] = {
    "put 1 3, take 1, shown 1* 2 3, take 2, shown 2* 3, depth 2, back, take 2, close, take 2 3 -, depth 0",
    "put 1 4, take 1 2, skip, take 3 4 -, shown 2, close, take 2 -",
    "put 1 4, take 1 2, instead DEAD, shown 3 4, dead dead, take 3, not_found instead NONE, shown 3! 4",
    "put 1 3, take 1, hold, take 2, instead Q, shown 1! 3 dead, depth 3, invalid instead DEAD",
    // A move passes held messages and ends before one that is refused.
    "put 1 6, take 1 2, hold, close, move 2, too_large move 0, release 1, move 1, shown 5 6, dead m3 m4 m2",
    "attach 1, put 2 1, move 2, dead m1& m2, put 1 2, take 1, invalid move 0, shown 1* 2",
    // A queue has one drainer, and is not deleted under it.
    "put 1 2, take 1, busy drain, busy purge | busy drain, busy destroy, drainer parent | drainer self, take 2, close, "
    "drainer none",
    "put 1 2, busy delete, purge, not_found drain, define, take -, close, delete, not_found depth 0",
    "put 1 1, busy destroy, shown 1",
    // Released ones stand where they stood, behind a drainer in the middle of a group or before it, and an idle drainer
    // looks for them, too.
    "put 1 9, take 1, hold, take 2 3, release 1, take 4, hold, take 1 5 6, release 1, shown 4 6* 7 8 9, commit,"
    "take 4 7 8, hold, take 9 -, release 1, take 8 -, shown",
    // At the edges of a group, of 512.
    "put 0 1100 | takes 0 1 | depth 1100, takes 0 1100, take -",
    "put 0 1100 | takes 0 512 | depth 589, takes 511 589, take -",
    "put 0 1100 | takes 0 513 | depth 588, takes 512 588, take -",
    "put 0 1100 | takes 0 1100 | depth 1, take 1099 -",
    "put 0 700 | takes 0 600, commit | depth 100, takes 600 100, take -",
    "put 0 700 | takes 0 600, hold | depth 101, takes 600 100, take -, release 1, take 599 -",
    "put 0 700 | takes 0 600, instead DEAD | depth 100, dead dead, takes 600 100, take -",
    // Used ones that are kept are in nobody's way; those of a line that broke are suspected, and repeated if so wished,
    // before new ones, but after the one in hand.
    "keep 9999, put 1 4, take 1 2, commit, shown 3 4, depth 2, kept 1 2, take 3, lost 2, kept 1? 2?, shown 3* 4,"
    "take 4 -, lost 2, lost 0, kept 1? 2? 3? 4?, close, inherits 0",
    "repeat 9999, put 1 5, take 1 2 3, lost 2, shown 1~ 2~ 3* 4 5, depth 5, take 1, shown 1*~ 2~ 4 5, take 2 4, lost 3,"
    "take 1 2 3 5 -, kept 1 2 3 4 5, depth 0, lost 5, take 1, back, take 1 2 3 4 5 -",
    // A line that ended in order raises no suspicion, a process that was killed does.
    "repeat 9999, put 1 3, take 1 2, ended, close, inherits 0, take 3 -, lost 1, take 3 -, kept 1 2 3",
    "repeat 9999, put 1 4 | take 1 2 3 | inherits 2, shown 1~ 2~ 3 4, take 1 2 | shown 2*~ 3 4 | lost 1, take 1 3 4 -",
    "repeat 999999, put 0 1100 | takes 0 600 | inherits 599 | busy drain | takes 0 599, takes 599 501, take -, lost "
    "1100",
    "keep 9999, put 1 3 | take 1 2 | drain, replay 1 1 1, shown 1~ 2 3, leave, take 1 2 3 -, kept",
    "repeat 9999, put 1 5 | take 1 2, commit, later 20, take 3 4 | later 4000, inherits 3, take 1 2 3 4 5 -",
    "keep 9999, put 1 4, take 1, ended, close, leave | take 2 3 | repeat 9999, inherits 0, kept 1, take 3 4 -",
    // Held ones between them, and ones that leave by another way.
    "repeat 9999, put 1 6, take 1, hold, take 2 3, commit, release 1, take 1 4, commit, kept 1 2 3 4, lost 4, take 1 2,"
    "hold, take 3 4, shown 2!~ 4*~ 5 6, lost 2, release 1, take 1 2 3 5 6 -, kept 1 2 3 4 5 6",
    "repeat 9999, put 1 5, take 1 2 3 4, commit, lost 4, take 1 2, instead DEAD, take 3, close, leave, move 2,"
    "dead dead m3 m4, shown 5, kept 1",
    "keep 9999, put 1 4, take 1 2 3, ended, replay 2 2 1, close, leave, move 2, kept 1 3, shown, dead m2 m4",
    // By hand, also under a drainer in the middle of a group.
    "keep 9999, put 1 6, take 1 2 3 4, commit, replay 2 3 2, replay 2 3 0, shown 2~ 3~ 5 6, kept 1 4, take 2 3 5 |"
    "replay 0 9 4, shown 1~ 2~ 3~ 4~ 5* 6, kept | take 6 1 2 3 4 -, kept 1 2 3 4 5 6, depth 0",
    // So many as can be gone, so many as are kept; in one second they are one range.
    "window 600, keep 9999, put 1 5, take 1 2, commit, later 1, take 3 4 5 -, lost 3, kept 1 2 3? 4? 5?",
    "keep 9999, put 1 3, take 1, commit, later 20, take 2, commit, later 20, take 3 -, later 5, lost 2, kept 1 2? 3?",
    "keep 1000, put 1 5, take 1, commit, later 1, take 2, commit, later 1, take 3 4, commit, replay 1 1 1, take 1 5 -,"
    "kept 1 3 4 5",
    "keep 500, put 1 5, take 1, commit, later 1, take 2, commit, later 1, take 3, commit, kept 2 3, lost 2+,"
    "take 4 5 -, lost 2",
    "keep 99, put 1 3, take 1, commit, later 61, take 2 3 -, kept 2 3, later 61, take -, kept 2 3, put 4 1, take 4 -,"
    "kept 4, close, keep 0, put 5 1, take 5 -, kept",
    "keep 9999, put 1 2, take 1, commit, busy delete, close, busy delete, take 2 -, close, delete, define, kept",
};

TEST_P(HistoryTest, GoesAsItShould) {
    for (const char* history : kHistories) {
        SCOPED_TRACE(history);
        begin();
        live(history + std::string(", close"));
    }
}
KVR_OVER_EVERY_ENGINE(HistoryTest);

} // namespace kvr
