// SPDX-License-Identifier: MIT
// Programs of the field started through a shell that first changes what they inherit: limits, descriptors, the user.
#pragma once

#include "field.h"

namespace kvr::test {

/// Any command of the program after `prelude`, which may begin a command line that the program ends
/// ("ulimit -n 12; exec").
inline Child start_after(Field& field, const std::string& prelude, const std::vector<std::string>& arguments,
                         const Environment& environment = {}) {
    std::vector<std::string> shell{"-c", prelude + " \"$0\" \"$@\"", KVR_PROGRAM};
    shell.insert(shell.end(), arguments.begin(), arguments.end());
    return field.start_program("/bin/bash", shell, environment);
}

/// The worker, its log at level 5.
inline Child run_channel_after(Field& field, const std::string& prelude, const Environment& environment = {}) {
    return start_after(field, prelude,
                       {"--qmgr", kSender, "run", kChannel, "--plugin", KVR_PLUGIN, "--log-file",
                        (field.home() / "log").native(), "--log-level", "5"},
                       environment);
}

} // namespace kvr::test
