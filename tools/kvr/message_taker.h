// SPDX-License-Identifier: MIT
// Takes messages off a queue one by one, each with its attachments, and waits for them no longer than told.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "store/store.h"

namespace kvr {

class MessageTaker {
  public:
    /// @param wait_seconds longest wait for each message; 0: do not wait
    MessageTaker(Store& store, const std::string& queue, double wait_seconds);
    ~MessageTaker();
    MessageTaker(const MessageTaker&) = delete;
    MessageTaker& operator=(const MessageTaker&) = delete;

    /// Uses up the message in hand and takes the next one. False when none came in time.
    bool next();
    [[nodiscard]] const T_KAVRO_MD& descriptor() const { return descriptor_; }
    [[nodiscard]] const std::vector<std::string>& attachments() const { return attachments_; }
    [[nodiscard]] std::string_view data() const { return {buffer_.data(), length_}; }
    [[nodiscard]] Getter& getter() { return *getter_; }

  private:
    double wait_seconds_;
    std::vector<char> buffer_;
    std::unique_ptr<T_KAVRO_ACCESSORIES_MD> list_;
    T_KAVRO_MD descriptor_{};
    std::vector<std::string> attachments_;
    std::size_t length_ = 0;
    std::unique_ptr<Getter> getter_;
};

} // namespace kvr
