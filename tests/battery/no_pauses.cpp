// SPDX-License-Identifier: MIT
// Preloaded into a worker: its pauses before a new line end at once, so that thousands of lines fit a test.
extern "C" __attribute__((visibility("default"))) unsigned sleep(unsigned seconds);

unsigned sleep(unsigned /*seconds*/) {
    return 0;
}
