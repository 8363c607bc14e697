// SPDX-License-Identifier: MIT
#include "kavro_queue/message_files.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

#include "kavutil/error.h"
#include "kavutil/unique_fd.h"

namespace kvr {

namespace {

std::optional<UnusableFile> look_at(const std::string& path) {
    const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!fd) {
        return UnusableFile{path, errno == ENOENT || errno == ENOTDIR};
    }
    struct stat info {};
    const bool usable = ::fstat(fd.get(), &info) == 0 && S_ISREG(info.st_mode) && info.st_size > 0;
    return usable ? std::nullopt : std::optional(UnusableFile{path, true});
}

} // namespace

std::vector<std::string> attachments_of(const T_KAVRO_MD& descriptor) {
    std::vector<std::string> paths;
    if ((descriptor.iMsgFlags & KVR_MSGFLAG_ACCESSORIES) == 0) {
        return paths;
    }
    const auto* files = static_cast<const T_KAVRO_ACCESSORIES_MD*>(descriptor.pOptData);
    if (files == nullptr || files->iNum < 0 || files->iNum > KVR_ACC_MAX) {
        throw Error(Errc::kInvalid, "the message is flagged to have attached files and lists none that can be");
    }
    for (int i = 0; i < files->iNum; ++i) {
        const char* path = files->sFiles[i];
        const std::size_t length = strnlen(path, KVR_ACC_PATH_SIZE);
        paths.emplace_back(path, length); // one without NUL is too long for the store, which says so
    }
    return paths;
}

std::optional<UnusableFile> unusable_file(const T_KAVRO_MD& descriptor, std::span<const char> data) {
    if (!has_files(descriptor)) {
        return {};
    }
    std::vector<std::string> paths = attachments_of(descriptor);
    if (descriptor.cMsgStoreType == KVR_STORE_FILE && data.size() > sizeof(T_KAVRO_HDR_XMITQ)) {
        const std::span<const char> path = data.subspan(sizeof(T_KAVRO_HDR_XMITQ));
        paths.emplace_back(path.begin(), std::find(path.begin(), path.end(), '\0'));
    }
    for (const std::string& path : paths) {
        if (auto unusable = look_at(path)) {
            return unusable;
        }
    }
    return std::nullopt;
}

} // namespace kvr
