// SPDX-License-Identifier: MIT
#include "parts.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace kvr {

Sections read_parts(const std::filesystem::path& folder, const std::string& page) {
    const std::filesystem::path path = folder / (page + ".man");
    std::ifstream file(path);
    Sections sections;
    std::string* section = nullptr;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with(".\\\"")) {
            continue;
        }
        if (line.starts_with(".SH ")) {
            const std::string name = line.substr(sizeof ".SH");
            if (std::find(std::begin(kSections), std::end(kSections), name) == std::end(kSections)) {
                throw std::runtime_error(path.native() + " has a section " + name + ", which no page has");
            }
            section = &sections[name];
        } else if (section == nullptr) {
            throw std::runtime_error(path.native() + " begins without .SH");
        } else {
            *section += line + "\n";
        }
    }
    return sections;
}

} // namespace kvr
