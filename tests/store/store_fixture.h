// SPDX-License-Identifier: MIT
// A queue manager in a folder of its own with the queues Q and DEAD, on each engine in turn, and what the store's tests
// do with it.
#pragma once

#include <gmock/gmock.h>

#include "host/children.h"
#include "store/store.h"
#include "support/folder.h"

namespace kvr {

/// Runs a suite over every engine, case by case the same.
#define KVR_OVER_EVERY_ENGINE(suite) INSTANTIATE_TEST_SUITE_P(Engine, suite, testing::Values("lmdb"))

/// The code of the error that `work` throws; Errc{} for none.
template <class Work>
Errc code_of(Work work) {
    try {
        static_cast<void>(work());
        return Errc{};
    } catch (const Error& error) {
        return error.code();
    }
}
#define EXPECT_CODE(code, ...) EXPECT_EQ(code_of([&] { static_cast<void>(__VA_ARGS__); }), Errc::code)

/// The next message's text, "-" for none.
inline std::string take(Getter& getter, bool wait = false) {
    static std::vector<char> buffer(kMaxMessage);
    T_KAVRO_MD descriptor{};
    const std::int64_t length = getter.next(descriptor, buffer, wait);
    return length < 0 ? "-" : std::string(buffer.data(), static_cast<std::size_t>(length));
}

class StoreTest : public testing::TestWithParam<const char*> {
  protected:
    using Texts = std::vector<std::string>;

    StoreTest() { make_store({}); }

    /// Without waiting for the disk: what survives kill -9 is the same, and it is what these tests look at.
    void make_store(Settings settings) {
        store_.reset();
        std::filesystem::remove_all(dir_);
        settings["sync"] = "off";
        Store::create(dir_, "QM", settings, GetParam());
        store_ = Store::open(dir_);
        store_->queue_define("Q", "");
        store_->queue_define("DEAD", "");
    }
    Errc put(const std::string& text, const Texts& files = {}, const std::string& queue = "Q") {
        return code_of([&] { store_->put(queue, OutgoingMessage{&descriptor_, files, text}); });
    }
    /// Puts them in one transaction.
    void put_all(const Texts& texts) {
        std::vector<OutgoingMessage> group;
        for (const std::string& text : texts) {
            group.push_back({&descriptor_, {}, text});
        }
        store_->put("Q", group);
    }
    static Texts numbers(int first, int count) {
        Texts texts(static_cast<std::size_t>(count));
        std::ranges::generate(texts, [&first] { return std::to_string(first++); });
        return texts;
    }
    /// Texts as a browse shows them, held ones marked with '!', the one in hand with '*', those with files with '&',
    /// repeats with '~', suspected ones with '?'.
    Texts shown(const std::string& queue = "Q", bool kept = false) {
        Texts texts;
        const auto add = [&](const StoredMessage& message) {
            EXPECT_EQ(message.kept.has_value(), kept);
            texts.push_back(std::string(message.data.begin(), message.data.end()) + (message.held ? "!" : "") +
                            (message.in_hand ? "*" : "") + (message.attachments.empty() ? "" : "&") +
                            (message.repeat ? "~" : "") + (kept && message.kept->suspected ? "?" : ""));
            return true;
        };
        kept ? store_->browse_kept(queue, 0, add) : store_->browse(queue, 0, add);
        return texts;
    }

    /// Another process: `store_` is its own in `work`, whose result it ends with.
    test::Child fork_user(const std::function<int()>& work) {
        return test::Child::fork_off([&] {
            static_cast<void>(new auto(std::exchange(store_, nullptr))); // its parent's: not to be closed here
            store_ = Store::open(dir_);
            return work();
        });
    }

    const T_KAVRO_MD descriptor_{};
    test::TemporaryFolder folder_;
    std::filesystem::path dir_ = folder_.path() / "QM";
    std::shared_ptr<Store> store_;
};

} // namespace kvr
