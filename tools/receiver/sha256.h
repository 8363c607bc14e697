// SPDX-License-Identifier: MIT
// SHA-256 over bytes that come in pieces, for the journal.
#pragma once

#include <memory>
#include <span>
#include <string>

#include <openssl/evp.h>

namespace kvr {

class Sha256 {
  public:
    Sha256();
    void add(std::span<const char> bytes);
    /// The digest in hexadecimal; starts anew.
    std::string finish();

  private:
    struct Free {
        void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
    };
    std::unique_ptr<EVP_MD_CTX, Free> context_;
};

} // namespace kvr
