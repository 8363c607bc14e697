// SPDX-License-Identifier: MIT
// A queue manager with the queues Q, OTHER and ASIDE, and connections to it as programs have them.
#pragma once

#include <gmock/gmock.h>

#include "host/children.h"
#include "kvr.hpp"
#include "store/store.h"
#include "support/folder.h"

namespace kvr::test {

using app::Connection;
using app::Got;
using app::Message;
using app::Unit;
using app::Wanted;

/// The code of the error that `work` throws; 0 for none.
template <class Work>
int code_of(Work work) {
    try {
        static_cast<void>(work());
        return KVR_OK;
    } catch (const app::Error& error) {
        return error.code();
    }
}

template <class... Results>
std::vector<int> results(Results... all) {
    return {all...};
}

class BindingsTest : public testing::Test {
  protected:
    using Texts = std::vector<std::string>;

    [[nodiscard]] std::shared_ptr<Store> store() const { return Store::open(home_.path() / "QM"); }
    [[nodiscard]] Connection connect() const { return Connection(home_.path(), "QM"); }
    void put(const Texts& texts) {
        for (const std::string& text : texts) {
            qm_.put("Q", Message(text));
        }
    }
    /// Data of the next message, "-" for none, "!" for an interruption.
    template <class From>
    static std::string take(From& from, const Wanted& wanted = {}, const std::string& queue = "Q") {
        Message message;
        const Got got = from.get(queue, message, wanted);
        return got == Got::kMessage ? std::string(message.data()) : got == Got::kNone ? "-" : "!";
    }
    /// All that are there, each followed by a comma.
    template <class From>
    static std::string take_all(From& from, const std::string& queue = "Q", const Wanted& wanted = {}) {
        std::string all;
        for (std::string text = take(from, wanted, queue); text != "-"; text = take(from, wanted, queue)) {
            all += text + ",";
        }
        return all;
    }

    struct Home : TemporaryFolder {
        Home() {
            Store::create(path() / "QM", "QM", {{"sync", "off"}});
            const auto made = Store::open(path() / "QM");
            for (const char* const queue : {"Q", "OTHER", "ASIDE"}) {
                made->queue_define(queue, "");
            }
        }
    };
    const Home home_;
    Connection qm_ = connect();
};

} // namespace kvr::test
