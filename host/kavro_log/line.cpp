// SPDX-License-Identifier: MIT
#include "kavro_log/line.h"

#include <algorithm>
#include <cstring>
#include <ctime>

#include "kavro_log/secret.h"
#include "kavutil/printable.h"

namespace kvr {

namespace {

constexpr char kCutMark[] = " [cut]\n";
constexpr char kHex[] = "0123456789abcdef";
constexpr std::size_t kRoom = kMaxLine - (sizeof(kCutMark) - 1);

} // namespace

void LogLine::put(const char* bytes, std::size_t length) {
    if (cut_ || length > kRoom - length_) {
        cut_ = true; // nothing shorter may follow what did not fit
        return;
    }
    std::memcpy(buffer_ + length_, bytes, length);
    length_ += length;
}

void LogLine::add(const char* text) {
    put(text, std::strlen(text));
}

void LogLine::add_number(long number, int min_digits) {
    char digits[24];
    std::size_t at = sizeof(digits);
    unsigned long rest = number < 0 ? 0UL - static_cast<unsigned long>(number) : static_cast<unsigned long>(number);
    do {
        digits[--at] = static_cast<char>('0' + rest % 10);
        rest /= 10;
        --min_digits;
    } while (rest != 0 || min_digits > 0);
    if (number < 0) {
        digits[--at] = '-';
    }
    put(digits + at, sizeof(digits) - at);
}

void LogLine::add_priority(int level) {
    constexpr int kFailure = 3; // the journal's "err", level 1 here; its next ones follow in the same order
    constexpr int kDebug = 7;
    add("<");
    add_number(std::clamp(level + kFailure - 1, kFailure, kDebug));
    add(">");
}

// gmtime_r() is not on the list of what a handler may call; the civil date is computed here, with years that begin in
// March so that the leap day comes last.
void LogLine::add_time() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const long days = now.tv_sec / 86400 + 719468; // since 0000-03-01
    const long second = now.tv_sec % 86400;
    const long era = days / 146097;
    const long day_of_era = days % 146097;
    const long year_of_era = (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
    const long day_of_year = day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
    const long shifted_month = (5 * day_of_year + 2) / 153;
    const long month = shifted_month < 10 ? shifted_month + 3 : shifted_month - 9;
    add_number(era * 400 + year_of_era + (month <= 2 ? 1 : 0), 4);
    add("-");
    add_number(month, 2);
    add("-");
    add_number(day_of_year - (153 * shifted_month + 2) / 5 + 1, 2);
    add("T");
    add_number(second / 3600, 2);
    add(":");
    add_number(second / 60 % 60, 2);
    add(":");
    add_number(second % 60, 2);
    add(".");
    add_number(now.tv_nsec / 1000000, 3);
    add("Z");
}

std::size_t LogLine::put_printable(const char* text, std::size_t left) {
    const std::size_t length = printable_length(text, left);
    if (length > 0) {
        put(text, length);
        return length;
    }
    const unsigned char byte = static_cast<unsigned char>(text[0]);
    const char escape[4] = {'\\', 'x', kHex[byte >> 4], kHex[byte & 15]};
    put(escape, sizeof(escape));
    return 1;
}

void LogLine::add_printable(const char* text) {
    if (text == nullptr || text[0] == '\0') {
        add("-");
        return;
    }
    for (std::size_t left = std::strlen(text); left > 0;) {
        const std::size_t used = put_printable(text, left);
        text += used;
        left -= used;
    }
}

void LogLine::add_masked(const char* text, std::size_t length, bool cut) {
    std::size_t at = 0;
    while (at < length) {
        const std::size_t secret = secret_at(text, at, length, cut);
        if (secret > 0) {
            add("********");
            at += secret;
        } else {
            at += put_printable(text + at, length - at);
        }
    }
    cut_ = cut_ || cut;
}

void LogLine::add_id(const char* id, std::size_t size) {
    while (size > 0 && id[size - 1] == '\0') {
        --size;
    }
    bool plain = size < 2 || id[0] != '0' || id[1] != 'x';
    for (std::size_t i = 0; i < size; ++i) {
        plain = plain && id[i] >= ' ' && id[i] <= '~';
    }
    if (plain) {
        put(id, size);
        return;
    }
    add("0x");
    for (std::size_t i = 0; i < size; ++i) {
        const unsigned char byte = static_cast<unsigned char>(id[i]);
        const char digits[2] = {kHex[byte >> 4], kHex[byte & 15]};
        put(digits, sizeof digits);
    }
}

std::size_t LogLine::finish() {
    const char* end = cut_ ? kCutMark : "\n";
    std::memcpy(buffer_ + length_, end, std::strlen(end));
    return length_ + std::strlen(end);
}

} // namespace kvr
