// SPDX-License-Identifier: MIT
// closed_host_test FOLDER PLUGIN: a process that has the host libraries of the folder loaded, each for itself, loads
// the plug-in and runs its channel; the receiver must get the bind frame and the message.
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "plug_mgr.h"
#include "support/peer.h"
#include "support/receiver_stream.h"

namespace {

int no_log(char* /*tag*/, int /*level*/, char* /*module*/, char* /*file*/, int /*line*/, const char* /*function*/,
           char* /*format*/, ...) {
    return 0;
}

void* load(const std::string& library) {
    void* const loaded = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (loaded == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        _exit(EXIT_FAILURE);
    }
    return loaded;
}

void run_channel(const char* host, const char* plugin, int port) {
    setenv("XMITQ", "XQ", 1);
    setenv("CHLTYPE", "SNDR", 1);
    setenv("CONNAME", ("127.0.0.1(" + std::to_string(port) + ")").c_str(), 1);
    for (const auto& library : std::filesystem::directory_iterator(host)) {
        load(library.path());
    }
    static T_RTCORE_CONTEXT context;
    static T_PLUG_MGR_PLUG_VAR block;
    static char name[] = "CH1";
    context.tRTCoreArgv.tArg[4].psValue = name;
    context.pfnLogPrint = no_log;
    block.ptRTCoreCtx = &context;
    void* const entry = dlsym(load(plugin), "OnPlugLoad");
    reinterpret_cast<int (*)(T_PLUG_MGR_PLUG_VAR*)>(entry)(&block);
    for (const int event : {1, 2}) {
        const int result = block.pfnEventHdl(0, event, nullptr, nullptr);
        std::fprintf(stderr, "event %d ended with %d\n", event, result);
    }
    _exit(EXIT_FAILURE);
}

} // namespace

int main(int /*argc*/, char** argv) {
    using namespace kvr::test;
    const std::string block = nuls(64) + "1" + nuls(207);
    const std::string expected = bind_frame("CH1") + frame('0', "Q1", "00000000", "00000000", block + "hello");
    std::string got;
    int status = 0;
    {
        Peer receiver({}, [&](PeerConnection& line) { got += line.read_all(); });
        const pid_t channel = fork();
        if (channel == 0) {
            run_channel(argv[1], argv[2], receiver.port());
        }
        waitpid(channel, &status, 0);
    } // the receiver has read to the end
    if (status != 0 || got != expected) {
        std::fprintf(stderr, "status %d, %zu bytes instead of %zu\n", status, got.size(), expected.size());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
