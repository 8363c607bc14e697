// SPDX-License-Identifier: MIT
#include "roff.h"

#include <algorithm>
#include <cctype>
#include <map>

namespace kvr {

std::string roff(const std::string& text) {
    static const std::map<char, const char*> kEscapes = {{'\\', "\\(rs"}, {'-', "\\-"},   {'\'', "\\(aq"},
                                                         {'`', "\\(ga"},  {'^', "\\(ha"}, {'~', "\\(ti"}};
    std::string out;
    for (const char c : text) {
        if (c == '.' && (out.empty() || out.back() == '\n')) {
            out += "\\&"; // at the start of a line it would be a request
        }
        const auto escape = kEscapes.find(c);
        out += escape == kEscapes.end() ? std::string(1, c) : escape->second;
    }
    return out;
}

std::string bold(const std::string& text) {
    return "\\fB" + roff(text) + "\\fR";
}

std::string italic(const std::string& text) {
    return "\\fI" + roff(text) + "\\fR";
}

std::string tagged(const std::string& tag, const std::string& text) {
    return ".TP\n" + tag + "\n" + text + "\n";
}

std::string verbatim(const std::string& lines) {
    return ".EX\n" + roff(lines) + (lines.ends_with('\n') ? "" : "\n") + ".EE\n";
}

std::string sentence(std::string text) {
    if (text.empty()) {
        return text;
    }
    if (text[std::min(text.find_first_of(" :"), text.size() - 1)] != ':') { // which explains a word to be typed
        text.front() = static_cast<char>(std::toupper(static_cast<unsigned char>(text.front())));
    }
    return text + (text.ends_with('.') ? "" : ".");
}

} // namespace kvr
