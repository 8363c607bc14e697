// SPDX-License-Identifier: MIT
// Files that take the data of messages: never over an existing file, and safely on the disk before the message goes.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace kvr {

class DataSink {
  public:
    /// @param path an existing folder, or one that ends in '/' and is made: a file for each message; else the one file
    explicit DataSink(const std::string& path);
    [[nodiscard]] bool is_folder() const { return is_folder_; }
    /// Writes the data and returns the file's path once both are durable. Throws Error; an incomplete file is removed.
    std::string write(std::string_view data);

  private:
    std::filesystem::path path_;
    bool is_folder_;
    unsigned next_number_ = 1;
};

} // namespace kvr
