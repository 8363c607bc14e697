// SPDX-License-Identifier: MIT
#include "sha256.h"

#include <array>

#include <fmt/format.h>

#include "kavutil/error.h"

namespace kvr {

namespace {

void require(bool done) {
    if (!done) {
        throw Error(Errc::kIo, "SHA-256 failed: the OpenSSL installation is damaged or out of memory");
    }
}

} // namespace

Sha256::Sha256() : context_(EVP_MD_CTX_new()) {
    require(context_ != nullptr && EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) == 1);
}

void Sha256::add(std::span<const char> bytes) {
    require(EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()) == 1);
}

std::string Sha256::finish() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned length = 0;
    require(EVP_DigestFinal_ex(context_.get(), digest.data(), &length) == 1);
    require(EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) == 1);
    std::string text;
    for (unsigned i = 0; i < length; ++i) {
        text += fmt::format("{:02x}", digest[i]);
    }
    return text;
}

} // namespace kvr
