// SPDX-License-Identifier: MIT
// What can stand at the end of a command line that is being typed: commands, options and values by the description of
// the parser, so that nothing can be missing, and names from the store. Nothing is changed, printed or reported: what
// cannot be found is not offered, and nobody is waited for longer than a typist would.
#pragma once

#include <string>
#include <vector>

#include "commands.h"

namespace kvr {

struct Candidate {
    std::string word; ///< the whole word, with what has been typed of it; one that ends in '=' goes on
    std::string help; ///< may be empty
};

enum class Paths { kNone, kFiles, kFolders };

struct Completion {
    std::vector<Candidate> candidates; ///< none where a path is meant
    Paths paths = Paths::kNone;
    std::size_t path_at = 0; ///< where the path begins in the last word: --option=PATH, ATTR=PATH
};

/// @param global  what applies where the line does not name another home folder or queue manager
/// @param words   the line from the program's name to the cursor as it was typed, quotes included; the last one is to
///                be completed and may be empty
Completion complete(const CLI::App& app, GlobalOptions global, std::vector<std::string> words);

} // namespace kvr
