// SPDX-License-Identifier: MIT
// The environment of a worker with short pauses (wait_marks.cpp).
#pragma once

#include <string>

#include "field.h"

namespace kvr::test {

/// `log` gets a line whenever the worker begins to wait. Under the address sanitizer, whose runtime and a preloaded
/// library exclude each other, the pauses stay as they are.
inline Environment short_pauses([[maybe_unused]] const std::string& log = "/dev/null") {
#ifdef __SANITIZE_ADDRESS__
    return {};
#else
    return {{"LD_PRELOAD", KVR_WAIT_MARKS}, {"KVR_BATTERY_LOG", log}};
#endif
}

} // namespace kvr::test
