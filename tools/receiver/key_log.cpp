// SPDX-License-Identifier: MIT
#include "key_log.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <fmt/format.h>
#include <openssl/crypto.h>
#include <openssl/ssl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kavutil/error.h"
#include "listen_log.h"
#include "wire_fields.h"

namespace kvr {

UniqueFd open_key_log(const std::filesystem::path& path) {
    constexpr int kFlags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY | O_NONBLOCK;
    UniqueFd fd(::open(path.c_str(), kFlags, S_IRUSR | S_IWUSR));
    if (!fd) {
        throw Error(Errc::kIo,
                    fmt::format("cannot open the key log {} ({}): {}", escaped(path.native()), std::strerror(errno),
                                errno == ELOOP ? "name the file itself, a link is not followed"
                                               : "give a path that this user can write"));
    }
    struct stat status {};
    if (::fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_uid != ::geteuid() ||
        status.st_nlink != 1 || (status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        throw Error(
            Errc::kPermission,
            fmt::format("the key log {} is not a file that this user alone can open: give the path of a new one",
                        escaped(path.native())));
    }
    return fd;
}

std::string key_log_warning(const std::filesystem::path& path) {
    return fmt::format("WARNING: TLS keys are written to {}: whoever reads that file can read what is sent; end this "
                       "and remove it as soon as you can",
                       escaped(path.native()));
}

KeyLog::KeyLog(const std::filesystem::path& path, SSL_CTX* context) : fd_(open_key_log(path)) {
    SSL_CTX_set_app_data(context, this);
    SSL_CTX_set_keylog_callback(context, write);
}

void KeyLog::write(const SSL* ssl, const char* keys) {
    const auto* const log = static_cast<const KeyLog*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(ssl)));
    std::string line = std::string(keys) + "\n";
    if (::write(log->fd_.get(), line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        listen_log(fmt::format("the key log cannot be written [{}:{}]", errno, std::strerror(errno)), "key log", "");
    }
    OPENSSL_cleanse(line.data(), line.size());
}

} // namespace kvr
