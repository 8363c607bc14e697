// SPDX-License-Identifier: MIT
// A queue manager in a folder of its own, and what the store's tests do with it: put numbered texts, take them, run
// children that can be killed.
#pragma once

#include <array>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include "host/children.h"
#include "store.h"
#include "support/folder.h"

namespace kvr {

inline T_KAVRO_MD blank_descriptor() {
    T_KAVRO_MD descriptor{};
    std::memcpy(descriptor.sStrucId, "MD  ", 4);
    descriptor.iVersion = 2;
    descriptor.cMsgStoreType = KVR_STORE_DATA;
    return descriptor;
}

inline void put_text(Store& store, const std::string& queue, const std::string& text) {
    const T_KAVRO_MD descriptor = blank_descriptor();
    store.put(queue, OutgoingMessage{&descriptor, {}, text});
}

/// All or nothing: `count` messages "first", "first + 1", ...
inline void put_numbers(Store& store, const std::string& queue, int first, int count) {
    const T_KAVRO_MD descriptor = blank_descriptor();
    std::vector<std::string> texts(static_cast<std::size_t>(count));
    std::vector<OutgoingMessage> group;
    group.reserve(texts.size());
    for (std::string& text : texts) {
        text = std::to_string(first++);
    }
    for (const std::string& text : texts) {
        group.push_back({&descriptor, {}, text});
    }
    store.put(queue, group);
}

/// The next message's text, "-" for none.
inline std::string take_text(Getter& getter, bool wait = false) {
    static std::vector<char> buffer(kMaxMessage);
    T_KAVRO_MD descriptor = blank_descriptor();
    const std::int64_t length = getter.next(descriptor, buffer, wait);
    return length < 0 ? "-" : std::string(buffer.data(), static_cast<std::size_t>(length));
}

inline std::vector<std::string> take_all(Store& store, const std::string& queue) {
    std::vector<std::string> texts;
    const auto getter = store.drain(queue);
    for (std::string text = take_text(*getter); text != "-"; text = take_text(*getter)) {
        texts.push_back(text);
    }
    return texts;
}

/// Texts as a browse shows them, held ones marked with '!', the one in hand with '*'.
inline std::vector<std::string> browse_texts(Store& store, const std::string& queue) {
    std::vector<std::string> texts;
    store.browse(queue, 0, [&](const StoredMessage& message) {
        texts.push_back(std::string(message.data.begin(), message.data.end()) + (message.held ? "!" : "") +
                        (message.in_hand ? "*" : ""));
        return true;
    });
    return texts;
}

template <class Work>
Errc code_of(Work work) {
    try {
        work();
    } catch (const Error& error) {
        EXPECT_STRNE(error.what(), "");
        return error.code();
    }
    return Errc{};
}

/// A child that reports ints through a pipe. It is killed, if it still runs, when this goes.
class Child {
  public:
    using Report = std::function<void(int)>;

    explicit Child(const std::function<void(const Report&)>& work)
        : child_(test::Child::fork_off([&] {
              ::close(ends_[0]);
              work([&](int value) { static_cast<void>(!::write(ends_[1], &value, sizeof value)); });
              return 0;
          })) {
        ::close(ends_[1]);
    }
    ~Child() { ::close(ends_[0]); }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    /// The next report; -1 when the child ended, -2 when none came within the deadline.
    int next_report() {
        pollfd waited{.fd = ends_[0], .events = POLLIN, .revents = 0};
        int value = 0;
        return ::poll(&waited, 1, 30000) <= 0                           ? -2
               : ::read(ends_[0], &value, sizeof value) == sizeof value ? value
                                                                        : -1;
    }
    /// As test::Child.
    int result() { return child_.result(); }

  private:
    std::array<int, 2> ends_ = [] {
        std::array<int, 2> ends{};
        EXPECT_EQ(::pipe(ends.data()), 0);
        return ends;
    }();
    test::Child child_;
};

class StoreTest : public testing::Test {
  protected:
    /// Without waiting for the disk: what survives kill -9 is the same, and it is what these tests look at.
    void make_store(Settings settings = {}) {
        settings.sync = false;
        Store::create(dir_, "QM", settings);
        store_ = Store::open(dir_);
        store_->queue_define("Q", "");
        store_->queue_define("DEAD", "");
    }

    test::TemporaryFolder folder_;
    std::filesystem::path home_ = folder_.path();
    std::filesystem::path dir_ = home_ / "QM";
    std::shared_ptr<Store> store_;
};

} // namespace kvr
