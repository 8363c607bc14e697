// SPDX-License-Identifier: MIT
// A worker as a program of its own: worker_main HOME QMGR CHANNEL PLUGIN LOG. Exit status 2 with the reason on standard
// error when the worker refuses to begin.
#include <cstdio>

#include "error.h"
#include "worker.h"

int main(int argc, char** argv) {
    constexpr int kArguments = 6;
    if (argc != kArguments) {
        return 3;
    }
    kvr::WorkerOptions options;
    options.home = argv[1];
    options.qmgr = argv[2];
    options.channel = argv[3];
    options.plugin = argv[4];
    options.log_file = argv[5];
    try {
        kvr::run_worker(options, argc, argv);
    } catch (const kvr::Error& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 2;
    }
}
