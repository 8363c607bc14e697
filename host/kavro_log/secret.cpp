// SPDX-License-Identifier: MIT
#include "kavro_log/secret.h"

#include <csignal>
#include <cstring>

#include "kavro_log/log_secret.h"

namespace {

constexpr std::size_t kSecrets = 16;
/// Room for one secret; what is longer is known, and masked, by its beginning.
constexpr std::size_t kSecretSize = 256;
/// Shorter secrets are masked within brackets only.
constexpr std::size_t kMaskAnywhere = 4;

struct Secret {
    char text[kSecretSize];
    volatile std::sig_atomic_t length; ///< 0: not in use; written last, a handler may search the table meanwhile
};

Secret g_secrets[kSecrets];
std::size_t g_next = 0;

std::size_t match(const Secret& secret, const char* text, std::size_t at, std::size_t length, bool cut) {
    const std::size_t size = static_cast<std::size_t>(secret.length);
    const std::size_t left = length - at;
    if (size == 0 || secret.text[0] != text[at]) {
        return 0;
    }
    if (size > left) {
        return cut && std::memcmp(secret.text, text + at, left) == 0 ? left : 0;
    }
    if (std::memcmp(secret.text, text + at, size) != 0) {
        return 0;
    }
    const bool bracketed = at > 0 && text[at - 1] == '[' && (size < left ? text[at + size] == ']' : cut);
    return size >= kMaskAnywhere || bracketed ? size : 0;
}

} // namespace

namespace kvr {

std::size_t secret_at(const char* text, std::size_t at, std::size_t length, bool cut) {
    std::size_t longest = 0;
    for (const Secret& secret : g_secrets) {
        const std::size_t size = match(secret, text, at, length, cut);
        longest = size > longest ? size : longest;
    }
    return longest;
}

} // namespace kvr

extern "C" void kvr_log_add_secret(const char* text) {
    if (text == nullptr || text[0] == '\0') {
        return;
    }
    const std::size_t length = strnlen(text, kSecretSize);
    for (const Secret& secret : g_secrets) {
        if (static_cast<std::size_t>(secret.length) == length && std::memcmp(secret.text, text, length) == 0) {
            return;
        }
    }
    Secret& place = g_secrets[g_next];
    g_next = (g_next + 1) % kSecrets;
    place.length = 0;
    std::memcpy(place.text, text, length);
    place.length = static_cast<std::sig_atomic_t>(length);
}
