// SPDX-License-Identifier: MIT
#include "store/home.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <system_error>

#include <sys/stat.h>

#include "store/access.h"
#include "store/names.h"
#include "store/store.h"

namespace kvr {

namespace fs = std::filesystem;

namespace {

std::string environment(const char* name) {
    const char* const value = std::getenv(name);
    return value != nullptr ? value : "";
}

bool is_qmgr_name(const std::string& name) {
    try {
        check_name("queue manager", name, kMaxQmgrName);
        return true;
    } catch (const Error&) {
        return false;
    }
}

std::string listed(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? "" : ", ") + name;
    }
    return text;
}

} // namespace

fs::path home_path(const fs::path& named, const NamedBy& by) {
    fs::path home = named.empty() ? fs::path(environment("KVR_HOME")) : named;
    if (home.empty()) {
        const std::string user_home = environment("HOME");
        if (user_home.empty()) {
            throw Error(Errc::kInvalid, std::string("no home folder is known: name one ") + by.home);
        }
        home = fs::path(user_home) / ".kvr";
    }
    return fs::absolute(home).lexically_normal();
}

bool is_home(const fs::path& home, const NamedBy& by) {
    struct stat status {};
    if (::stat(home.c_str(), &status) == 0) {
        if (!S_ISDIR(status.st_mode)) {
            throw Error(Errc::kNotFound, home.native() + " is not a folder: name another one " + by.home);
        }
        return true;
    }
    if (errno == EACCES) {
        refuse_on_the_way(home);
    }
    if (errno != ENOENT) {
        const std::error_code cause(errno, std::generic_category());
        throw Error(Errc::kIo,
                    home.native() + " cannot be read (" + cause.message() + "): check the folder's path and owner");
    }
    return false;
}

fs::path find_home(const fs::path& named, const NamedBy& by) {
    fs::path home = home_path(named, by);
    if (!is_home(home, by)) {
        throw Error(Errc::kNotFound, home.native() +
                                         " does not exist: make a queue manager with 'kvr create QMGR', or "
                                         "name the right folder " +
                                         by.home);
    }
    return home;
}

std::vector<std::string> qmgr_names(const fs::path& home, const NamedBy& by) {
    std::vector<std::string> names;
    std::error_code error;
    for (fs::directory_iterator entry(home, error), end; !error && entry != end; entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        std::error_code ignored;
        if (entry->is_directory(ignored) && is_qmgr_name(name) && Store::exists(entry->path())) {
            names.push_back(name);
        }
    }
    if (error) {
        throw Error(Errc::kPermission, home.native() + " cannot be listed (" + error.message() +
                                           "): name the queue manager " + by.qmgr + ", or check the folder's owner");
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string find_qmgr(const fs::path& home, const std::string& named, const NamedBy& by) {
    if (std::string name = named.empty() ? environment("KVR_QMGR") : named; !name.empty()) {
        check_name("queue manager", name, kMaxQmgrName);
        return name;
    }
    const std::vector<std::string> names = qmgr_names(home, by);
    if (names.empty()) {
        throw Error(Errc::kNotFound,
                    "there is no queue manager in " + home.native() + ": make one with 'kvr create QMGR'");
    }
    if (names.size() > 1) {
        throw Error(Errc::kInvalid,
                    "there is more than one queue manager (" + listed(names) + "): name one " + by.qmgr);
    }
    return names.front();
}

void require_qmgr(const fs::path& dir, const NamedBy& by) {
    std::error_code error;
    if (!fs::exists(dir, error) && !error) {
        const std::string name = dir.filename().string();
        throw Error(Errc::kNotFound, "queue manager '" + name + "' does not exist in " + dir.parent_path().native() +
                                         ": make it with 'kvr create " + name + "'");
    }
    if (!Store::exists(dir)) {
        throw Error(Errc::kNotFound, dir.native() + " is no queue manager, it has no store: name one " + by.qmgr +
                                         ", see 'kvr show', or remove the folder by hand if nothing in it is needed");
    }
}

fs::path find_qmgr_folder(const fs::path& home, const std::string& qmgr) {
    const fs::path found = find_home(home);
    fs::path dir = found / find_qmgr(found, qmgr);
    require_qmgr(dir);
    return dir;
}

} // namespace kvr
