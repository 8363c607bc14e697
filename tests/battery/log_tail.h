// SPDX-License-Identifier: MIT
// What a worker's log has grown by since the last look, line by line.
#pragma once

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

namespace kvr::test {

class LogTail {
  public:
    /// Begins at the end of what stands there.
    explicit LogTail(std::filesystem::path file) : file_(std::move(file)) {
        std::error_code missing;
        const auto size = std::filesystem::file_size(file_, missing);
        at_ = missing ? 0 : static_cast<std::streamoff>(size);
    }

    template <typename Visit>
    void each_new_line(Visit visit) {
        std::ifstream stream(file_);
        stream.seekg(at_);
        for (std::string line; std::getline(stream, line) && !stream.eof();) {
            at_ += static_cast<std::streamoff>(line.size()) + 1;
            visit(line);
        }
    }

    /// Looks without a pause, because what follows shall hit the moment: false when the text has not come in time.
    bool comes(const std::string& text, std::chrono::milliseconds time) {
        const auto deadline = std::chrono::steady_clock::now() + time;
        bool found = false;
        while (!found && std::chrono::steady_clock::now() < deadline) {
            each_new_line([&](const std::string& line) { found = found || line.find(text) != std::string::npos; });
        }
        return found;
    }

  private:
    std::filesystem::path file_;
    std::streamoff at_ = 0;
};

} // namespace kvr::test
