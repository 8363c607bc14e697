// SPDX-License-Identifier: MIT
// A plug-in that does not want to be loaded.
#include "plug_mgr.h"

extern "C" __attribute__((visibility("default"))) int OnPlugLoad(T_PLUG_MGR_PLUG_VAR* ptPlugVar) {
    ptPlugVar->pfnEventHdl = [](int, int, void*, void*) { return 0; };
    return -1;
}
