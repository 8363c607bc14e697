// SPDX-License-Identifier: MIT
// A plug-in that does not want to be loaded.
extern "C" __attribute__((visibility("default"))) int OnPlugLoad(void* /*ptPlugVar*/) {
    return -1;
}
