// SPDX-License-Identifier: MIT
// Which queue manager is meant: the one that is named, else that of KVR_HOME and KVR_QMGR, else the only one that there
// is in the default folder. The same for every program.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "kavutil/export.h"

namespace kvr {

/// How a program lets its user name the two: for the ends of error texts, after "name one".
struct NamedBy {
    const char* home = "in the call or by KVR_HOME";
    const char* qmgr = "in the call or by KVR_QMGR";
};

/// The folder of the queue managers as an absolute path: `named`, else KVR_HOME, else $HOME/.kvr. It need not exist.
/// Throws kInvalid when none is known.
KVR_EXPORT std::filesystem::path home_path(const std::filesystem::path& named, const NamedBy& by = {});
/// Whether the folder is there. Throws kNotFound for what is no folder, kPermission, kIo.
KVR_EXPORT bool is_home(const std::filesystem::path& home, const NamedBy& by = {});
/// home_path of a folder that is there. Throws kInvalid, kNotFound, kPermission, kIo.
KVR_EXPORT std::filesystem::path find_home(const std::filesystem::path& named, const NamedBy& by = {});
/// Names of the queue managers in a home folder, sorted. Throws kPermission.
KVR_EXPORT std::vector<std::string> qmgr_names(const std::filesystem::path& home, const NamedBy& by = {});
/// A queue manager's name: `named`, else KVR_QMGR, else the only one's in the home folder. One that is named need not
/// exist. Throws kInvalid for what is no name and when there are several, kNotFound, kPermission.
KVR_EXPORT std::string find_qmgr(const std::filesystem::path& home, const std::string& named, const NamedBy& by = {});
/// Throws kNotFound for what is no queue manager's folder, as far as this user may look.
KVR_EXPORT void require_qmgr(const std::filesystem::path& dir, const NamedBy& by = {});
/// All of it: the folder for Store::open. Either may be empty. Throws kInvalid, kNotFound, kPermission, kIo.
KVR_EXPORT std::filesystem::path find_qmgr_folder(const std::filesystem::path& home, const std::string& qmgr);

} // namespace kvr
