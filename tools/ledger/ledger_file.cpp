// SPDX-License-Identifier: MIT
#include "ledger_file.h"

#include <fstream>
#include <sstream>
#include <string>

#include <fmt/format.h>

#include "error.h"

namespace kvr {

void append_to_ledger(const std::filesystem::path& path, std::span<const NumberedMessage> messages) {
    std::ofstream out(path, std::ios::app);
    for (const NumberedMessage& message : messages) {
        out << fmt::format("{} {} {}\n", message.number, static_cast<char>(message.kind), message.size);
    }
    out.close();
    if (!out) {
        throw Error(Errc::kIo, fmt::format("the ledger {} could not be written: is the disk full?", path.string()));
    }
}

std::vector<NumberedMessage> read_ledger(const std::filesystem::path& path) {
    std::ifstream in(path);
    if (!in) {
        throw Error(Errc::kIo, fmt::format("the ledger {} cannot be read: was anything put?", path.string()));
    }
    std::vector<NumberedMessage> messages;
    for (std::string line; std::getline(in, line) && !in.eof();) {
        std::istringstream fields(line);
        NumberedMessage message{};
        char letter = 0;
        if (!(fields >> message.number >> letter >> message.size) || !kind_of(letter)) {
            throw Error(Errc::kDamaged, fmt::format("the ledger {} has a line that is none: {}", path.string(), line));
        }
        message.kind = *kind_of(letter);
        messages.push_back(message);
    }
    return messages;
}

} // namespace kvr
