// SPDX-License-Identifier: MIT
#include "store/qmgr_folder.h"

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <system_error>

#include <unistd.h>

#include "kavutil/unique_fd.h"
#include "store/access.h"
#include "store/engine.h"
#include "store/permissions.h"
#include "store/system_error.h"

namespace kvr {

namespace fs = std::filesystem;

namespace {

/// Beside `dir`, of this process alone, and no queue manager's: its name begins with a dot.
fs::path aside(const fs::path& dir, const char* mark) {
    return dir.parent_path() / ("." + dir.filename().string() + mark + std::to_string(::getpid()));
}

void write_engine(const fs::path& file, const std::string& engine) {
    const UniqueFd fd = open_allocated_file(file, 0);
    const std::string line = engine + "\n";
    errno = ENOSPC; // for a write that takes a part
    if (::write(fd.get(), line.data(), line.size()) != static_cast<ssize_t>(line.size()) || ::fsync(fd.get()) != 0) {
        throw_system("write", file, errno);
    }
}

} // namespace

void make_qmgr_folder(const fs::path& dir, const std::string& engine,
                      const std::function<void(const fs::path&)>& fill) {
    const fs::path target = fs::absolute(dir).lexically_normal();
    const fs::path parent = target.parent_path();
    std::error_code error;
    if (fs::exists(fs::symlink_status(target, error))) {
        throw Error(Errc::kExists, target.string() + " exists already: choose another name or delete it first");
    }
    if (!fs::exists(parent, error)) {
        make_private_folder(parent);
    }
    // Built aside and renamed: a crash leaves no half-made queue manager behind.
    const fs::path built = aside(target, ".");
    fs::remove_all(built, error);
    make_private_folder(built);
    try {
        if (!engine.empty()) {
            write_engine(built / kEngineFile, engine);
        }
        fill(built);
        if (::rename(built.c_str(), target.c_str()) != 0) {
            throw_system("make", target, errno);
        }
    } catch (...) {
        fs::remove_all(built, error);
        throw;
    }
    sync_folder(parent);
}

std::string engine_of(const fs::path& dir) {
    const fs::path file = dir / kEngineFile;
    std::error_code error;
    std::string engine;
    const fs::file_status found = fs::symlink_status(file, error);
    if (fs::is_regular_file(found) || fs::is_symlink(found)) {
        check_part(file, false, check_access(dir));
        std::ifstream in(file);
        if (!std::getline(in, engine) || engine.empty() || !is_engine_name(engine)) {
            throw Error(Errc::kDamaged, file.string() + " does not name the store's engine: restore it from a copy");
        }
    }
    return engine;
}

void delete_qmgr_folder(const fs::path& dir) {
    // Moved aside first: whoever opens it finds all of it or nothing.
    const fs::path gone = aside(dir, ".deleted.");
    if (::rename(dir.c_str(), gone.c_str()) != 0) {
        throw_system("delete", dir, errno);
    }
    std::error_code error;
    fs::remove_all(gone, error);
    if (error) {
        throw Error(Errc::kIo, gone.string() + " is what is left of it and cannot be deleted (" + error.message() +
                                   "): remove it by hand");
    }
    sync_folder(gone.parent_path());
}

} // namespace kvr
