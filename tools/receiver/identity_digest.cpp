// SPDX-License-Identifier: MIT
#include "identity_digest.h"

#include <cstring>

#include <openssl/evp.h>
#include <xxhash.h>

#include "kavutil/error.h"

namespace kvr {

namespace {

void require_made(bool done) {
    if (!done) {
        throw Error(Errc::kIo, "no digest of messages: the OpenSSL installation is damaged or out of memory");
    }
}

} // namespace

void IdentityDigest::Free::operator()(XXH3_state_s* state) const {
    XXH3_freeState(state);
}

IdentityDigest::IdentityDigest(std::uint64_t seed) : state_(XXH3_createState()) {
    static_assert(sizeof secret_ >= XXH3_SECRET_SIZE_MIN);
    static_assert(sizeof(XXH128_canonical_t) == sizeof(MessageIdentity));
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> spread(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    require_made(state_ != nullptr && spread != nullptr &&
                 EVP_DigestInit_ex(spread.get(), EVP_shake256(), nullptr) == 1 &&
                 EVP_DigestUpdate(spread.get(), &seed, sizeof seed) == 1 &&
                 EVP_DigestFinalXOF(spread.get(), secret_.data(), secret_.size()) == 1);
}

void IdentityDigest::begin(std::string_view channel, const WireMessage& message) {
    (void)XXH3_128bits_reset_withSecret(state_.get(), secret_.data(), secret_.size());
    add_text(channel);
    add_text(message.queue);
    add_text({&message.type, 1});
    add_number(static_cast<std::uint32_t>(message.descriptor.iMsgType));
    add_number(static_cast<std::uint32_t>(message.descriptor.iMsgCode));
    add_text({message.block.data(), message.block.size()});
    add_text({message.body.data(), message.body.size()});
    add_number(message.attachments.size());
    for (const std::string_view name : message.attachments) {
        add_text(name);
    }
}

void IdentityDigest::add_file_bytes(std::span<const char> bytes) {
    (void)XXH3_128bits_update(state_.get(), bytes.data(), bytes.size());
}

void IdentityDigest::add_number(std::uint64_t number) {
    (void)XXH3_128bits_update(state_.get(), &number, sizeof number);
}

void IdentityDigest::add_text(std::string_view text) {
    add_number(text.size());
    (void)XXH3_128bits_update(state_.get(), text.data(), text.size());
}

MessageIdentity IdentityDigest::finish() const {
    XXH128_canonical_t canonical;
    XXH128_canonicalFromHash(&canonical, XXH3_128bits_digest(state_.get()));
    MessageIdentity identity;
    std::memcpy(identity.data(), canonical.digest, identity.size());
    return identity;
}

} // namespace kvr
