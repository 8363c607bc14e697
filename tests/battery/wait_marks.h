// SPDX-License-Identifier: MIT
// The environment of a worker with short pauses (wait_marks.cpp).
#pragma once

#include <string>

#include "field.h"

namespace kvr::test {

/// `log` gets a line whenever the worker begins to wait.
inline Environment short_pauses(const std::string& log = "/dev/null") {
    return {{"LD_PRELOAD", KVR_WAIT_MARKS}, {"KVR_BATTERY_LOG", log}};
}

} // namespace kvr::test
