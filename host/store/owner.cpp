// SPDX-License-Identifier: MIT
#include "store/owner.h"

#include <fstream>
#include <sstream>

namespace kvr {

namespace {

std::uint64_t start_of(pid_t process) {
    constexpr int kSkipped = 19; // state to itrealvalue
    std::istringstream fields(process_facts(process));
    std::string skipped;
    for (int i = 0; i < kSkipped; ++i) {
        fields >> skipped;
    }
    std::uint64_t started = 0;
    return fields >> started ? started : 0;
}

} // namespace

std::string process_facts(pid_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/stat");
    std::ostringstream text;
    text << file.rdbuf(); // an iterator would throw when the process ends under its file
    const std::string facts = text.str();
    return facts.substr(facts.rfind(')') + 1);
}

Owner local_owner(pid_t process) {
    return {.machine = {}, .process = process, .started = process > 0 ? start_of(process) : 0};
}

std::string process_text(pid_t process) {
    return process > 0 ? "process " + std::to_string(process)
                       : "a process that is not visible here (it runs in another PID namespace)";
}

std::string owner_text(const Owner& owner) {
    return process_text(owner.process) + (owner.machine.empty() ? "" : " on machine " + owner.machine);
}

} // namespace kvr
