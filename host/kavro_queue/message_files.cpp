// SPDX-License-Identifier: MIT
#include "kavro_queue/message_files.h"

#include <algorithm>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

#include "kavutil/error.h"
#include "kavutil/unique_fd.h"

namespace kvr {

namespace {

bool can_be_sent(const std::string& path) {
    const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat info {};
    return fd && ::fstat(fd.get(), &info) == 0 && S_ISREG(info.st_mode) && info.st_size > 0;
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

std::string file_that_is_gone(const T_KAVRO_MD& descriptor, std::span<const char> data) {
    if (!has_files(descriptor)) {
        return {};
    }
    std::vector<std::string> paths = attachments_of(descriptor);
    if (descriptor.cMsgStoreType == KVR_STORE_FILE && data.size() > sizeof(T_KAVRO_HDR_XMITQ)) {
        const std::span<const char> path = data.subspan(sizeof(T_KAVRO_HDR_XMITQ));
        paths.emplace_back(path.begin(), std::find(path.begin(), path.end(), '\0'));
    }
    const auto gone = std::find_if_not(paths.begin(), paths.end(), can_be_sent);
    return gone == paths.end() ? std::string() : *gone;
}

} // namespace kvr
