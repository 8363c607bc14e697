// SPDX-License-Identifier: MIT
// A file system of 8 MiB that a test can fill.
#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

#include <sys/mount.h>

#include "field.h"

namespace kvr::test {

/// Lies on `folder`, which goes with it.
class SmallDisk {
  public:
    explicit SmallDisk(std::filesystem::path folder = new_folder()) : folder_(std::move(folder)) {
        mounted_ = ::mount("tmpfs", folder_.c_str(), "tmpfs", 0, "size=8m,mode=700") == 0;
    }
    ~SmallDisk() {
        (void)::umount2(folder_.c_str(), MNT_DETACH);
        std::error_code ignored;
        std::filesystem::remove_all(folder_, ignored);
    }
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;

    [[nodiscard]] bool mounted() const { return mounted_; }
    [[nodiscard]] const std::filesystem::path& folder() const { return folder_; }

    /// Takes the last byte, and takes it again whenever it comes back.
    void fill() const {
        std::ofstream ballast(folder_ / "ballast", std::ios::app);
        for (const std::size_t piece : {std::size_t{4096}, std::size_t{1}}) {
            while (ballast << std::string(piece, 'b') << std::flush) {
            }
            ballast.clear();
        }
    }
    /// Free are so many bytes from now on.
    void leave(std::uint64_t bytes) const {
        const auto space = std::filesystem::space(folder_);
        const std::string size = "mode=700,size=" + std::to_string(space.capacity - space.free + bytes);
        (void)::mount("tmpfs", folder_.c_str(), "tmpfs", MS_REMOUNT, size.c_str());
    }
    void give_back() const { std::filesystem::remove(folder_ / "ballast"); }

  private:
    std::filesystem::path folder_;
    bool mounted_ = false;
};

} // namespace kvr::test
