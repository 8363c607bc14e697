// SPDX-License-Identifier: MIT
// The host operations for queues, objects and log, over one message in memory. Defined in the executable and exported
// from it, they take the place of those in the host libraries that the plug-in is linked with; the utilities for
// processes, sockets and streams are the host's own.
//
// The message is copied into the channel's buffer once, not at every get: neither this sender nor the bare one pays for
// a copy, so what they differ by is the plug-in.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include <dlfcn.h>
#include <fmt/format.h>
#include <unistd.h>

#include "kavro_ac.h"
#include "kavro_log.h"
#include "plug_mgr.h"
#include "senders.h"

namespace {

constexpr int kEventInit = 1;
constexpr int kEventRun = 2;
constexpr int kLogErrors = 1;
constexpr int kChannelEntry = 4;

// One sender per process: the state that the C operations share.
const kvr::bench::Message* g_message = nullptr;
kvr::bench::Feed g_feed = kvr::bench::Feed::backlog(0);
std::map<std::string, std::string, std::less<>> g_attributes;
bool g_filled = false;
char g_qmgr[] = "BENCH";

/// Status attributes are written and never read back, so only definitions are kept.
int get_attribute(const char* name, char* buffer) {
    const auto found = g_attributes.find(name);
    if (found != g_attributes.end()) {
        std::memcpy(buffer, found->second.c_str(), found->second.size() + 1);
    }
    return 0;
}

[[noreturn]] void fail(const std::string& what) {
    fmt::print(stderr, "memory host: {}\n", what);
    _exit(EXIT_FAILURE);
}

} // namespace

#define HOST_OPERATION extern "C" __attribute__((visibility("default")))

HOST_OPERATION char* KVR_GetQmgrName(void) {
    return g_qmgr;
}

HOST_OPERATION int KVR_InitQmgrCtx(T_KAVRO_QMGR_CTX* ptCtx, char* /*psQmgrName*/) {
    ptCtx->hObjDB = &g_attributes;
    ptCtx->hQueDB = &g_feed;
    return 0;
}

HOST_OPERATION int KVR_LogSetQMName(char* /*psQmgrName*/) {
    return 0;
}

HOST_OPERATION int KVR_LogPrint(char* /*psTag*/, int iLevel, char* /*psMod*/, char* /*psFile*/, int /*iLine*/,
                                const char* /*psFunc*/, char* psFmt, ...) {
    if (iLevel > kLogErrors) {
        return 0;
    }
    va_list arguments;
    va_start(arguments, psFmt);
    std::vfprintf(stderr, psFmt, arguments);
    va_end(arguments);
    std::fputc('\n', stderr);
    return 0;
}

HOST_OPERATION int KVR_ObjAdd(T_KVR_OBJ_DB_HANDLE, char*, char*, int, char**, char**, int) {
    return 0;
}

HOST_OPERATION int KVR_ObjGetAttr(T_KVR_OBJ_DB_HANDLE, char*, char*, int iCnt, char** ppsAttrs, char** ppsBufs) {
    for (int i = 0; i < iCnt; ++i) {
        get_attribute(ppsAttrs[i], ppsBufs[i]);
    }
    return 0;
}

HOST_OPERATION int KVR_ObjGetAttrV(T_KVR_OBJ_DB_HANDLE, char* psClass, char*, int iCnt, ...) {
    if (std::strcmp(psClass, "CHS") == 0) {
        return -1;
    }
    va_list names;
    va_list buffers;
    va_start(names, iCnt);
    va_copy(buffers, names);
    for (int i = 0; i < iCnt; ++i) {
        va_arg(buffers, char*);
    }
    for (int i = 0; i < iCnt; ++i) {
        const char* name = va_arg(names, char*);
        get_attribute(name, va_arg(buffers, char*));
    }
    va_end(buffers);
    va_end(names);
    return 0;
}

HOST_OPERATION int KVR_ObjSetAttr(T_KVR_OBJ_DB_HANDLE, char*, char*, int, char**, char**) {
    return 0;
}

HOST_OPERATION int KVR_ObjSetAttrV(T_KVR_OBJ_DB_HANDLE, char*, char*, int, ...) {
    return 0;
}

HOST_OPERATION int KVR_QueOpen(T_KVR_QUE_DB_HANDLE hQueDB, char* /*psName*/, T_KVR_QUE_OBJ_HANDLE* phObj, int) {
    *phObj = hQueDB;
    return 0;
}

HOST_OPERATION int KVR_QueClose(T_KVR_QUE_DB_HANDLE, char*, T_KVR_QUE_OBJ_HANDLE, int) {
    return 0;
}

HOST_OPERATION int KVR_QueMsgGet(T_KVR_QUE_DB_HANDLE, T_KVR_QUE_OBJ_HANDLE, T_KAVRO_QUE_MD* ptMD, T_KAVRO_QUE_GMO*,
                                 char* psBuf, int* piLen) {
    if (!g_feed.next()) {
        return -1;
    }
    void* accessories = ptMD->pOptData;
    *ptMD = g_message->descriptor;
    ptMD->pOptData = accessories;
    *piLen = static_cast<int>(g_message->data.size());
    if (!g_filled) {
        std::memcpy(psBuf, g_message->data.data(), g_message->data.size());
        T_KAVRO_ACCESSORIES_MD* list = static_cast<T_KAVRO_ACCESSORIES_MD*>(accessories);
        for (const std::string& file : g_message->files) {
            std::memcpy(list->sFiles[list->iNum++], file.c_str(), file.size() + 1);
        }
        g_filled = true;
    }
    return 0;
}

HOST_OPERATION int KVR_QueMsgPut(T_KVR_QUE_DB_HANDLE, T_KVR_QUE_OBJ_HANDLE, T_KAVRO_QUE_MD*, T_KAVRO_QUE_PMO*, char*,
                                 int) {
    fail("a message went to the dead-letter queue");
}

namespace kvr::bench {

void run_memory_host(const Message& message, Feed feed, std::uint16_t port, const std::filesystem::path& plugin) {
    g_message = &message;
    g_feed = feed;
    g_attributes = {{"XMITQ", "BENCH.XMIT"}, {"CHLTYPE", "SNDR"}, {"HBINT", "60"}, {"SSLCAUTH", "DISABLE"}};
    g_attributes["CONNAME"] = fmt::format("127.0.0.1({})", port);

    void* library = dlopen(plugin.c_str(), RTLD_NOW);
    if (library == nullptr) {
        fail(dlerror());
    }
    using Load = int (*)(T_PLUG_MGR_PLUG_VAR*);
    const Load load = reinterpret_cast<Load>(dlsym(library, "OnPlugLoad"));
    if (load == nullptr) {
        fail(dlerror());
    }

    static T_RTCORE_CONTEXT context = {};
    static T_PLUG_MGR_PLUG_VAR block = {};
    static std::string channel = kChannel;
    context.pfnLogPrint = KVR_LogPrint;
    context.tRTCoreArgv.tArg[kChannelEntry].psValue = channel.data();
    block.ptRTCoreCtx = &context;
    load(&block);
    const int started = block.pfnEventHdl(1, kEventInit, nullptr, nullptr);
    if (started < 0) {
        fail(fmt::format("start-up returned {}", started));
    }
    const int ended = block.pfnEventHdl(1, kEventRun, nullptr, nullptr);
    fail(fmt::format("the run event returned {}", ended));
}

} // namespace kvr::bench
