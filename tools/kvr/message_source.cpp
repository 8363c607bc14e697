// SPDX-License-Identifier: MIT
#include "message_source.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <span>
#include <utility>

#include "store/descriptor.h"
#include "store/text_field.h"

namespace kvr {
namespace {

using Clock = std::chrono::steady_clock;

std::chrono::milliseconds left_until(Clock::time_point end) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
    return std::max(left, std::chrono::milliseconds(0));
}

/// The drainer's way: what is used is noted at once and deleted in groups.
class AloneSource : public MessageSource {
  public:
    AloneSource(std::unique_ptr<Getter> getter, std::chrono::milliseconds wait)
        : wait_(wait), buffer_(kMaxMessage), getter_(std::move(getter)) {}

    std::optional<TakenView> next() override {
        const Clock::time_point end = Clock::now() + wait_;
        std::int64_t length = take(std::chrono::milliseconds(0));
        for (auto left = wait_; length < 0 && left > left.zero(); left = left_until(end)) {
            length = take(left);
        }
        if (length < 0) {
            return std::nullopt;
        }
        list_attachments();
        return TakenView{
            descriptor_, attachments_, {buffer_.data(), static_cast<std::size_t>(length)}, std::nullopt, std::nullopt};
    }
    void use_up() override {} // the next one does, or the end
    void leave() override { getter_->skip(); }
    void finish() override { getter_->commit(); }

  private:
    std::int64_t take(std::chrono::milliseconds longest) {
        descriptor_ = blank_descriptor();
        list_ = {};
        std::memcpy(list_.sStrucId, "ACMD", sizeof list_.sStrucId);
        list_.iVersion = 1;
        descriptor_.pOptData = &list_;
        return getter_->next(descriptor_, buffer_, longest);
    }

    void list_attachments() {
        attachments_.clear();
        if ((descriptor_.iMsgFlags & KVR_MSGFLAG_ACCESSORIES) != 0) {
            for (int i = 0; i < std::min(list_.iNum, KVR_ACC_MAX); ++i) {
                attachments_.push_back(field_string(&list_.sFiles[i][0], sizeof list_.sFiles[i]));
            }
        }
    }

    std::chrono::milliseconds wait_;
    std::vector<char> buffer_;
    T_KAVRO_ACCESSORIES_MD list_{};
    T_KAVRO_MD descriptor_{};
    std::vector<std::string> attachments_;
    std::unique_ptr<Getter> getter_;
};

/// One of the takers: each message is a unit of work, so that no more than one can come again.
class SharedSource : public MessageSource {
  public:
    SharedSource(Store& store, const std::string& queue, SourceOptions options)
        : store_(store), options_(std::move(options)), taker_(store.take_from(queue)) {}

    std::optional<TakenView> next() override {
        const Clock::time_point end = Clock::now() + options_.wait;
        for (;;) {
            const TakeWait wait{left_until(end), options_.interrupt};
            const Taken taken = taker_->next({}, wait, message_);
            if (taken != Taken::kMessage) {
                return std::nullopt;
            }
            if (options_.max_tries == 0 || message_.given_back < options_.max_tries) {
                return TakenView{message_.descriptor, message_.attachments, message_.data, message_.given_back,
                                 message_.sequence};
            }
            put_aside();
        }
    }
    void use_up() override {
        try {
            commit({});
        } catch (const Error& error) {
            throw Error(error.code(), std::string(error.what()) + "; the last message was handed over and comes again");
        }
    }
    void leave() override {} // reserved until the end
    void finish() override {}

  private:
    void commit(std::span<const UnitPut> puts) {
        const std::array<UnitTake, 1> takes{UnitTake{taker_.get(), {&message_.sequence, 1}}};
        store_.commit(puts, takes);
    }

    void put_aside() {
        const OutgoingMessage message{&message_.descriptor, message_.attachments, message_.data};
        const std::array<UnitPut, 1> puts{UnitPut{options_.aside, {&message, 1}}};
        commit(puts);
    }

    Store& store_;
    SourceOptions options_;
    std::unique_ptr<Taker> taker_;
    TakenMessage message_;
};

/// Perhaps there are takers: then as one of them.
std::unique_ptr<MessageSource> open_beside(Store& store, const std::string& queue, const SourceOptions& options) {
    try {
        return std::make_unique<SharedSource>(store, queue, options);
    } catch (const Error& error) {
        if (error.code() != Errc::kBusy) {
            throw;
        }
        throw Error(Errc::kBusy, std::string(error.what()) + "; a 'kvr get --all' shares it with --shared");
    }
}

} // namespace

std::unique_ptr<MessageSource> open_source(Store& store, const std::string& queue, const SourceOptions& options) {
    if (options.alone) {
        try {
            return std::make_unique<AloneSource>(store.drain(queue), options.wait);
        } catch (const Error& error) {
            if (error.code() != Errc::kBusy) {
                throw;
            }
            return open_beside(store, queue, options);
        }
    }
    return std::make_unique<SharedSource>(store, queue, options);
}

} // namespace kvr
