// SPDX-License-Identifier: MIT
// A plug-in whose run event is stopped, and which ends the process as failed thereupon.
#include <csignal>
#include <cstdlib>

#include "plug_mgr.h"

namespace {

int on_event(int /*id*/, int event, void* /*in*/, void* /*out*/) {
    if (event == 2) {
        std::raise(SIGTERM);
        std::exit(1);
    }
    return 0;
}

} // namespace

extern "C" __attribute__((visibility("default"))) int OnPlugLoad(T_PLUG_MGR_PLUG_VAR* ptPlugVar) {
    ptPlugVar->pfnEventHdl = on_event;
    return 0;
}
