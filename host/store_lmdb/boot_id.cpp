// SPDX-License-Identifier: MIT
#include "store_lmdb/boot_id.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <string>
#include <system_error>

#include "kavutil/error.h"

namespace kvr {

const BootId& boot_id() {
    static const BootId id = [] {
        BootId bytes{};
        constexpr char kSource[] = "/proc/sys/kernel/random/boot_id";
        errno = ENODATA; // for a file that is empty
        std::ifstream file(kSource);
        std::string text;
        if (!std::getline(file, text) || text.empty()) {
            throw Error(Errc::kIo, std::string("cannot read ") + kSource + ": " +
                                       std::generic_category().message(errno) + "; is /proc mounted?");
        }
        std::copy_n(text.begin(), std::min(text.size(), bytes.size()), bytes.begin());
        return bytes;
    }();
    return id;
}

} // namespace kvr
