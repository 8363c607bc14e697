// SPDX-License-Identifier: MIT
// What a check of proofs has found, for people and for programs.
#pragma once

#include <string>

#include "output.h"
#include "proof/proof.h"

namespace kvr {

/// @param complete  all messages should be there: missing ones are told, too
std::string proof_text(const ProofCheck& check, bool complete);
Json proof_json(const ProofCheck& check, bool complete);

} // namespace kvr
