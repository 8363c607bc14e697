// SPDX-License-Identifier: MIT
// Preloaded into the programs of the power test, linked into the test itself. A file's durable content is what it was
// at the file's last sync, the names in a folder are those at the folder's: no sync of a file makes its name durable.
// Folders are taken to be there.
#include "platter.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#define KVR_REPLACES extern "C" __attribute__((visibility("default")))
#define KVR_REAL(name) (reinterpret_cast<decltype(&::name)>(dlsym(RTLD_NEXT, #name)))

namespace fs = std::filesystem;

namespace kvr::test {
namespace {

fs::path platter() {
    const char* folder = std::getenv(kPlatter); // NOLINT(concurrency-mt-unsafe): set before there is a second thread
    return folder == nullptr ? "/nowhere/" : folder;
}

void keep(const fs::path& file) {
    if (!fs::is_directory(file)) {
        fs::copy_file(file, durable_content(file), fs::copy_options::overwrite_existing);
        return;
    }
    const fs::path names = durable_names(file);
    fs::remove_all(names);
    fs::create_directory(names);
    for (const auto& entry : fs::directory_iterator(file)) {
        if (entry.is_regular_file()) {
            const fs::path content = durable_content(entry);
            std::ofstream(content, std::ios::app); // empty, if it was never synced
            fs::create_hard_link(content, names / entry.path().filename());
        }
    }
}

/// Makes the call, and what it made durable is kept.
template <class Call, class Keep>
auto make_durable(int fd, Call call, Keep keep_it) {
    const fs::path file = "/proc/self/fd/" + std::to_string(fd);
    std::error_code no_file;
    if (!fs::read_symlink(file, no_file).native().starts_with(platter().parent_path().native())) {
        return call();
    }
    const UniqueFd held = hold_platter();
    const auto result = call();
    if (result >= 0) {
        keep_it(file);
    }
    return result;
}

} // namespace

fs::path durable_content(const fs::path& file) {
    struct stat info {};
    (void)::stat(file.c_str(), &info);
    return platter() / std::to_string(info.st_ino);
}

fs::path durable_names(const fs::path& folder) {
    return durable_content(folder).concat(".names");
}

UniqueFd hold_platter() {
    UniqueFd lock(::open((platter() / "lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    while (::flock(lock.get(), LOCK_EX) != 0 && errno == EINTR) {
    }
    return lock;
}

} // namespace kvr::test

KVR_REPLACES int fsync(int fd) {
    return kvr::test::make_durable(
        fd, [&] { return KVR_REAL(fsync)(fd); }, kvr::test::keep);
}

KVR_REPLACES int fdatasync(int fd) {
    return kvr::test::make_durable(
        fd, [&] { return KVR_REAL(fdatasync)(fd); }, kvr::test::keep);
}

/// To a descriptor with O_DSYNC, as a store's head pages are written: durable are these bytes and nothing else.
KVR_REPLACES ssize_t pwrite(int fd, const void* data, size_t size, off_t at) {
    const auto call = [&] { return KVR_REAL(pwrite)(fd, data, size, at); };
    if ((::fcntl(fd, F_GETFL) & O_DSYNC) == 0) {
        return call();
    }
    return kvr::test::make_durable(fd, call, [&](const fs::path& file) {
        std::fstream content(kvr::test::durable_content(file), std::ios::in | std::ios::out | std::ios::binary);
        content.seekp(at).write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
    });
}
