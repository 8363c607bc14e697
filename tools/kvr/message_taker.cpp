// SPDX-License-Identifier: MIT
#include "message_taker.h"

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstring>

#include <sys/time.h>

#include "store/descriptor.h"
#include "store/text_field.h"

namespace kvr {
namespace {

volatile std::sig_atomic_t g_time_is_up = 0;

/// The alarm repeats: one that came just before the wait began would otherwise be missed by it.
constexpr long kRepeatMicroseconds = 20000;
constexpr long kMicroseconds = 1000000;

extern "C" void on_time_up(int /*signal*/) {
    g_time_is_up = 1;
}

void set_timer(double seconds, long repeat_microseconds) {
    itimerval timer{};
    timer.it_value.tv_sec = static_cast<time_t>(seconds);
    timer.it_value.tv_usec = static_cast<suseconds_t>((seconds - std::floor(seconds)) * kMicroseconds);
    timer.it_interval.tv_usec = repeat_microseconds;
    if (seconds > 0 && timer.it_value.tv_sec == 0 && timer.it_value.tv_usec == 0) {
        timer.it_value.tv_usec = 1;
    }
    (void)::setitimer(ITIMER_REAL, &timer, nullptr);
}

} // namespace

MessageTaker::MessageTaker(Store& store, const std::string& queue, double wait_seconds)
    : wait_seconds_(wait_seconds), buffer_(kMaxMessage), list_(std::make_unique<T_KAVRO_ACCESSORIES_MD>()),
      getter_(store.drain(queue)) {
    if (wait_seconds_ > 0) {
        struct sigaction action {};
        action.sa_handler = on_time_up;
        (void)::sigaction(SIGALRM, &action, nullptr);
    }
}

MessageTaker::~MessageTaker() {
    set_timer(0, 0);
}

bool MessageTaker::next() {
    descriptor_ = blank_descriptor();
    *list_ = {};
    std::memcpy(list_->sStrucId, "ACMD", sizeof list_->sStrucId);
    list_->iVersion = 1;
    descriptor_.pOptData = list_.get();
    std::int64_t length = getter_->next(descriptor_, buffer_, false);
    if (length < 0 && wait_seconds_ > 0) {
        g_time_is_up = 0;
        set_timer(wait_seconds_, kRepeatMicroseconds);
        while (length < 0 && g_time_is_up == 0) {
            length = getter_->next(descriptor_, buffer_, true);
        }
        set_timer(0, 0);
    }
    if (length < 0) {
        return false;
    }
    length_ = static_cast<std::size_t>(length);
    attachments_.clear();
    if ((descriptor_.iMsgFlags & KVR_MSGFLAG_ACCESSORIES) != 0) {
        for (int i = 0; i < std::min(list_->iNum, KVR_ACC_MAX); ++i) {
            attachments_.push_back(field_string(&list_->sFiles[i][0], sizeof list_->sFiles[i]));
        }
    }
    return true;
}

} // namespace kvr
