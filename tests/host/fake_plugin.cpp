// SPDX-License-Identifier: MIT
// A channel plug-in without a network, for tests of its host: it claims the status object, opens the transmission queue
// and then stays in the state that KVR_TEST_STATE names. It tells where it is through bytes on the descriptor
// KVR_TEST_POSTS: 'R' in its state, 'X' in its exit event.
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "export.h"
#include "kavro_ac.h"
#include "kavutil.h"
#include "plug_mgr.h"

namespace {

constexpr int kFailed = -10002;

T_PLUG_MGR_PLUG_VAR* g_block = nullptr;
T_KAVRO_QMGR_CTX g_qmgr{};
T_KVR_QUE_OBJ_HANDLE g_queue = nullptr;
char g_queue_name[64];
std::string g_channel;
bool g_claimed = false;

char* text(const char* literal) {
    return const_cast<char*>(literal);
}

std::string_view state() {
    const char* value = std::getenv("KVR_TEST_STATE");
    return value != nullptr ? value : "";
}

void post(char what) {
    const char* fd = std::getenv("KVR_TEST_POSTS");
    if (fd != nullptr) {
        [[maybe_unused]] const ssize_t wrote = write(std::atoi(fd), &what, 1);
    }
}

bool claim() {
    char pid[256] = {};
    char status[256] = {};
    std::string own = std::to_string(getpid());
    if (KVR_ObjGetAttrV(g_qmgr.hObjDB, text("CHS"), g_channel.data(), 2, text("PID"), text("STATUS"), pid, status) <
        0) {
        char* names[] = {text("PID"), text("STATUS")};
        char* values[] = {own.data(), text("BINDING")};
        return KVR_ObjAdd(g_qmgr.hObjDB, text("CHS"), g_channel.data(), 2, names, values, 0) >= 0;
    }
    if (std::strcmp(status, "STOPED") != 0 && procIsExist(std::atoi(pid)) > 0) {
        return false;
    }
    return KVR_ObjSetAttrV(g_qmgr.hObjDB, text("CHS"), g_channel.data(), 2, text("PID"), text("STATUS"), own.data(),
                           text("BINDING")) >= 0;
}

/// What a worker must not have taken over from a parent that closed descriptors 0 to 2, blocked and ignored signals.
bool is_clean_process() {
    sigset_t mask;
    sigprocmask(SIG_SETMASK, nullptr, &mask);
    struct sigaction child_ends {};
    sigaction(SIGCHLD, nullptr, &child_ends);
    rlimit core{};
    getrlimit(RLIMIT_CORE, &core);
    const mode_t modes = umask(0);
    umask(modes);
    bool open = true; // and not as somebody's store or log
    for (int fd = 0; fd <= 2; ++fd) {
        struct stat info {};
        open = open && fstat(fd, &info) == 0 && S_ISCHR(info.st_mode);
    }
    return open && sigismember(&mask, SIGTERM) == 0 && sigismember(&mask, SIGALRM) == 0 &&
           child_ends.sa_handler == SIG_DFL && core.rlim_cur == 0 && modes == 077;
}

int on_init() {
    const T_RTCORE_ARGV& arguments = g_block->ptRTCoreCtx->tRTCoreArgv;
    g_channel = arguments.tArg[arguments.iOptc + 4].psValue;
    strToUpper(g_channel.data());
    if (KVR_InitQmgrCtx(&g_qmgr, KVR_GetQmgrName()) < 0 || !claim()) {
        return kFailed;
    }
    g_claimed = true;
    char pass[256] = {};
    KVR_ObjGetAttrV(g_qmgr.hObjDB, text("QMGR"), text("QMGR"), 1, text("KEYPASS"), pass);
    g_block->ptRTCoreCtx->pfnLogPrint(nullptr, 1, text("$fake"), text("fake_plugin"), __LINE__, "on_init",
                                      const_cast<char*>("pass[%s]"), pass);
    KVR_ObjGetAttrV(g_qmgr.hObjDB, text("CHL"), g_channel.data(), 1, text("XMITQ"), g_queue_name);
    if (KVR_QueOpen(g_qmgr.hQueDB, g_queue_name, &g_queue, 0) < 0 || state() == "cannot start") {
        return kFailed;
    }
    return 0;
}

int get() {
    static char s_data[2098376];
    static T_KAVRO_ACCESSORIES_MD s_attachments;
    T_KAVRO_QUE_MD descriptor{};
    T_KAVRO_QUE_GMO options{};
    std::memcpy(descriptor.sStrucId, "MD  ", 4);
    descriptor.iVersion = 2;
    descriptor.pOptData = &s_attachments;
    std::memcpy(options.sStrucId, "GMO ", 4);
    options.iVersion = 1;
    int length = sizeof(s_data);
    return KVR_QueMsgGet(g_qmgr.hQueDB, g_queue, &descriptor, &options, s_data, &length);
}

int on_run() {
    if (state() == "waits in the get") {
        for (;;) {
            post('R');
            if (get() < 0) {
                std::exit(1);
            }
        }
    }
    if (state() == "gives up when interrupted") {
        get();
        post('R');
        pause();
        pause(); // one interruption would not do: the signal may come just before a call that blocks
        std::exit(1);
    }
    if (state() == "is deaf") {
        post('R');
        for (;;) {
            pause();
        }
    }
    if (state() == "inspects its process") {
        post(is_clean_process() ? 'C' : 'D');
    }
    return kFailed;
}

int on_exit_event() {
    if (g_claimed) {
        KVR_ObjSetAttrV(g_qmgr.hObjDB, text("CHS"), g_channel.data(), 2, text("PID"), text("STATUS"), text("-1"),
                        text("STOPED"));
        if (g_queue != nullptr) {
            KVR_QueClose(g_qmgr.hQueDB, g_queue_name, g_queue, 0);
        }
    }
    post('X');
    return 0;
}

int on_event(int /*id*/, int event, void* /*in*/, void* /*out*/) {
    switch (event) {
    case 1:
        return on_init();
    case 2:
        return on_run();
    case 4:
        return on_exit_event();
    default:
        return 0;
    }
}

} // namespace

extern "C" KVR_EXPORT int OnPlugLoad(T_PLUG_MGR_PLUG_VAR* ptPlugVar) {
    g_block = ptPlugVar;
    ptPlugVar->pfnEventHdl = on_event;
    return state() == "cannot load" ? -1 : 0;
}
