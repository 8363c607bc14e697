// SPDX-License-Identifier: MIT
// A private folder that ends with its test, and looks into folders and files.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>

#include <unistd.h>

namespace kvr::test {

class TemporaryFolder {
  public:
    explicit TemporaryFolder(const std::filesystem::path& where = std::filesystem::temp_directory_path()) {
        std::string name = where / "kvr_test_XXXXXX";
        if (::mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("mkdtemp failed");
        }
        path_ = name;
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    ~TemporaryFolder() {
        if (::getpid() == owner_) { // not the end of a forked child
            std::error_code ignored;
            std::filesystem::remove_all(path_, ignored);
        }
    }
    [[nodiscard]] const std::filesystem::path& path() const { return path_; }
    /// It does not end with the object.
    void keep() { owner_ = 0; }

  private:
    pid_t owner_ = ::getpid();
    std::filesystem::path path_;
};

/// From a byte on; of a file that is not there, nothing.
inline std::string contents(const std::filesystem::path& path, std::size_t from = 0) {
    std::ifstream file(path, std::ios::binary);
    file.seekg(static_cast<std::streamoff>(from));
    std::ostringstream text;
    text << file.rdbuf(); // an iterator would throw when a process ends under its file of /proc
    return text.str();
}

inline std::size_t occurrences(std::string_view all, std::string_view wanted) {
    std::size_t count = 0;
    for (std::size_t at = all.find(wanted); at != all.npos; at = all.find(wanted, at + wanted.size())) {
        ++count;
    }
    return count;
}

inline std::set<std::string> names_in(const std::filesystem::path& folder) {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        names.insert(entry.path().filename().native());
    }
    return names;
}

/// Open descriptors of this process.
inline int open_descriptors() {
    return static_cast<int>(names_in("/proc/self/fd").size());
}

} // namespace kvr::test
