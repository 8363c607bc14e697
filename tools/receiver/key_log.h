// SPDX-License-Identifier: MIT
// The keys of TLS sessions, written down for a protocol analyser: whoever reads the file can read what is sent.
#pragma once

#include <filesystem>
#include <string>

#include <openssl/types.h>

#include "kavutil/unique_fd.h"

namespace kvr {

/// Opens the file to append to it; made with mode 0600 when it is missing. Throws kvr::Error for anything but a regular
/// file of this user, with one name and open to nobody else; a link is not followed.
UniqueFd open_key_log(const std::filesystem::path& path);

/// What is said at the start wherever keys are written.
std::string key_log_warning(const std::filesystem::path& path);

/// The key log of a TLS context. The context's connections may use it as long as it lives.
class KeyLog {
  public:
    /// Throws as open_key_log.
    KeyLog(const std::filesystem::path& path, SSL_CTX* context);
    KeyLog(const KeyLog&) = delete; // the context points here
    KeyLog& operator=(const KeyLog&) = delete;

  private:
    static void write(const SSL* ssl, const char* keys);

    UniqueFd fd_;
};

} // namespace kvr
