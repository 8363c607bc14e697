// SPDX-License-Identifier: MIT
// The operations of the scripted host with a store or a log behind them, and the trace: a file in memory to which every
// process of a run appends its entries, each with one write.
#include "recording_host.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "kavro_ac.h"
#include "kavro_log.h"
#include "kavro_object.h"
#include "kavro_queue.h"
#include "kavutil/stop_point.h"

extern "C" int OnPlugLoad(T_PLUG_MGR_PLUG_VAR* ptPlugVar);

namespace kvr::test {

namespace {

const int trace_file = memfd_create("trace", 0);

T_KVR_OBJ_DB_HANDLE const kObjDb = &host().objects;
T_KVR_QUE_DB_HANDLE const kQueDb = &host().get;
char xmit_queue[] = "XQ";
char dead_queue[] = "DLQ";

/// Operators look for these: a line shows the operation at whose work it was written, not a helper's name.
constexpr char kOperations[] =
    " InitEventHandler InitObjStat InitTcpClient OnRunEventHandler ProcMsg SndMsgToDeadQ ChlSndData SendFile2Rcvr"
    " Connect2Lsr BindChl SndrNetInit StartNetChkProc CheckNetStat OnNetDisconn HeartBeat ExitEventHandler"
    " netTcpClientInit netTcpClientConnect netTcpClientWrite ";

/// The line-loss handler logs too, wherever it interrupts: nothing is allocated here.
void log_line(const char* end, const char* tag, int level, const char* mod, const char* file, int line,
              const char* func, const char* fmt, va_list ap) {
    const bool net = strcmp(mod, "$net_tcp") == 0;
    char text[2100];
    vsnprintf(text, sizeof text, fmt, ap);
    char operation[64];
    snprintf(operation, sizeof operation, " %s ", func);
    if (tag != nullptr || line <= 0 || level < 1 || level > 5 || strstr(kOperations, operation) == nullptr ||
        strcmp(net ? "net_tcp_client" : "plug_kavro_chls", file) != 0 ||
        (!net && strcmp(mod, "$plug_kavro_chls") != 0)) {
        trace(kFault, "log line with wrong origin: %s %s:%d %s %s", mod, file, line, func, text);
    }
    const bool loss = strncmp(text, "line disconnected", 17) == 0;
    trace(net ? kNetLog : loss ? kLoss : kLog, "%d %s%s", level, text, end);
    if (const auto hook = host().hooks.find(std::string_view("failure"));
        net && level == 1 && hook != host().hooks.end()) {
        hook->second({1, 0});
    }
    errno = EXDEV; // a log function may do so
    const Gate as_a_call("log");
}

int context_log(char* tag, int level, char* mod, char* file, int line, const char* func, char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    log_line("", tag, level, mod, file, line, func, fmt, ap);
    va_end(ap);
    return -1; // ignored
}

/// "<class> <name> <attribute>..." or, with values, "... <attribute>=<value>...".
std::string shown(const std::string& object, int count, char** names, char** values = nullptr) {
    std::string text = object;
    std::replace(text.begin(), text.end(), '/', ' ');
    for (int i = 0; i < count; ++i) {
        text.append(" ").append(names[i]).append(values == nullptr ? "" : std::string("=") + values[i]);
    }
    return text;
}

int get_attrs(const char* op, void* db, const std::string& name, int count, char** names, char** bufs) {
    const auto r = recorded(kHost, op, shown(name, count, names), 0, db == kObjDb);
    if (r) {
        return r.as<int>();
    }
    const auto object = host().objects.find(name);
    if (object == host().objects.end()) {
        return -1;
    }
    for (int i = 0; i < count; ++i) {
        if (const auto attr = object->second.find(names[i]); attr != object->second.end()) {
            strcpy(bufs[i], attr->second.c_str());
        }
    }
    return kSuccess;
}

int set_attrs(const char* op, void* db, const std::string& name, int count, char** names, char** values, bool add) {
    const auto r = recorded(kHost, op, shown(name, count, names, values), 0, db == kObjDb);
    if (r) {
        return r.as<int>();
    }
    if (host().objects.contains(name) == add) {
        return -1;
    }
    for (int i = 0; i < count; ++i) {
        host().objects[name][names[i]] = values[i];
    }
    return kSuccess;
}

int next_step(T_KAVRO_MD* md, char* buf, int* len) {
    const Own at_work;
    if (host().get.empty()) {
        _exit(kScriptOver);
    }
    GetStep step = std::move(host().get.front());
    host().get.pop_front();
    return step(md, buf, len);
}

std::string key(const char* cls, const char* name) {
    return std::string(cls) + "/" + name;
}

/// The arguments of a variadic call: names, then as many values.
std::vector<char*> arguments(int count, va_list ap) {
    std::vector<char*> all;
    for (int i = 0; i < 2 * count; ++i) {
        all.push_back(va_arg(ap, char*));
    }
    return all;
}

} // namespace

void trace(char kind, const char* fmt, ...) {
    const int saved = errno;
    char entry[2300];
    size_t used = static_cast<size_t>(snprintf(entry, sizeof entry, "%d %c ", getpid(), kind));
    va_list ap;
    va_start(ap, fmt);
    used += static_cast<size_t>(vsnprintf(entry + used, sizeof entry - used, fmt, ap));
    va_end(ap);
    used = std::min(used, sizeof entry - 1);
    entry[used++] = '\n';
    if (syscall(SYS_write, trace_file, entry, used) != static_cast<long>(used)) { // no call of the channel's
        _exit(99);
    }
    errno = saved;
}

void trace_reset() {
    if (fcntl(trace_file, F_SETFL, O_APPEND) != 0 || ftruncate(trace_file, 0) != 0) {
        abort();
    }
}

std::vector<Entry> trace_entries() {
    std::ifstream file("/proc/self/fd/" + std::to_string(trace_file));
    std::vector<Entry> all;
    // Without an entry of which only a first part is written.
    for (Entry e{}; file >> e.pid >> e.kind && getline(file.ignore(), e.text) && !file.eof();) {
        all.push_back(e);
    }
    return all;
}

void wait_for(const std::string& text) {
    for (int i = 0; i < 10000; ++i) {
        for (const Entry& e : trace_entries()) {
            if (e.text.find(text) != std::string::npos) {
                return;
            }
        }
        poll(nullptr, 0, 1);
    }
}

Gate recorded(char kind, const char* op, const std::string& shown, long a, bool good) {
    std::optional<int> scripted;
    if (host().recording) {
        trace(kind, "%s(%s)", op, shown.c_str());
        if (!good) {
            trace(kFault, "%s(%s) of what it must not be called with", op, shown.c_str());
        }
        static std::map<std::string, int, std::less<>> calls;
        if (const auto hook = host().hooks.find(std::string_view(op)); hook != host().hooks.end()) {
            const Own at_work;
            scripted = hook->second(Call{++calls[op], a});
        }
    }
    return Gate(op, -1, scripted);
}

Host& host() {
    static Host* const the = new Host; // the channel may end the process with exit: this one stays
    return *the;
}

void load() {
    Host& h = host();
    for (int i = 0; i < kOptions + 6; ++i) {
        static char decoy[] = "decoy";
        h.ctx.tRTCoreArgv.tArg[i].psValue = decoy;
    }
    h.ctx.tRTCoreArgv.iArgc = kOptions + 6;
    h.ctx.tRTCoreArgv.iOptc = kOptions;
    h.ctx.tRTCoreArgv.tArg[kOptions + 4].psValue = h.name.data();
    h.ctx.pfnLogPrint = context_log;
    h.var.ptRTCoreCtx = &h.ctx;
    OnPlugLoad(&h.var);
}

int event(int id) {
    char in[8] = "in";
    char out[8] = "out";
    const int result = host().var.pfnEventHdl(host().var.iId, id, in, out);
    trace(kNote, "event %d = %d", id, result);
    return result;
}

} // namespace kvr::test

using namespace kvr::test;

extern "C" {

char* KVR_GetQmgrName(void) {
    static char name[] = "QM1";
    return name;
}

int KVR_InitQmgrCtx(T_KAVRO_QMGR_CTX* ptCtx, char* psQmgrName) {
    const bool zeroed = ptCtx->sObjName[0] == 0 && ptCtx->hObjDB == nullptr && ptCtx->hQueDB == nullptr;
    ptCtx->hObjDB = kObjDb;
    ptCtx->hQueDB = kQueDb;
    return recorded(kHost, "KVR_InitQmgrCtx", psQmgrName, 0, zeroed).value_or(kSuccess);
}

int KVR_LogSetQMName(char* psQmgrName) {
    recorded(kHost, "KVR_LogSetQMName", psQmgrName);
    return -1; // ignored
}

int KVR_LogPrint(char* psTag, int iLevel, char* psMod, char* psFile, int iLine, const char* psFunc, char* psFmt, ...) {
    va_list ap;
    va_start(ap, psFmt);
    log_line(" (KVR_LogPrint)", psTag, iLevel, psMod, psFile, iLine, psFunc, psFmt, ap);
    va_end(ap);
    return -1;
}

int KVR_ObjAdd(void* hObjDB, char* psClass, char* psName, int iCnt, char** ppsAttrs, char** ppsVals, int iFlags) {
    return set_attrs("KVR_ObjAdd", iFlags == 0 ? hObjDB : nullptr, key(psClass, psName), iCnt, ppsAttrs, ppsVals, true);
}

int KVR_ObjGetAttr(void* hObjDB, char* psClass, char* psName, int iCnt, char** ppsAttrs, char** ppsBufs) {
    return get_attrs("KVR_ObjGetAttr", hObjDB, key(psClass, psName), iCnt, ppsAttrs, ppsBufs);
}

int KVR_ObjGetAttrV(void* hObjDB, char* psClass, char* psName, int iCnt, ...) {
    va_list ap;
    va_start(ap, iCnt);
    auto args = arguments(iCnt, ap);
    va_end(ap);
    return get_attrs("KVR_ObjGetAttrV", hObjDB, key(psClass, psName), iCnt, args.data(), args.data() + iCnt);
}

int KVR_ObjSetAttr(void* hObjDB, char* psClass, char* psName, int iCnt, char** ppsAttrs, char** ppsVals) {
    return set_attrs("KVR_ObjSetAttr", hObjDB, key(psClass, psName), iCnt, ppsAttrs, ppsVals, false);
}

int KVR_ObjSetAttrV(void* hObjDB, char* psClass, char* psName, int iCnt, ...) {
    va_list ap;
    va_start(ap, iCnt);
    auto args = arguments(iCnt, ap);
    va_end(ap);
    return set_attrs("KVR_ObjSetAttrV", hObjDB, key(psClass, psName), iCnt, args.data(), args.data() + iCnt, false);
}

int KVR_QueOpen(void* hQueDB, char* psName, void** phObj, int iOpt) {
    const auto r = recorded(kHost, "KVR_QueOpen", psName, 0, hQueDB == kQueDb && iOpt == 0);
    if (r) {
        return r.as<int>();
    }
    *phObj = strcmp(psName, xmit_queue) == 0 ? xmit_queue : dead_queue;
    return kSuccess;
}

int KVR_QueClose(void* hQueDB, char* psName, void* hObj, int iOpt) {
    const bool good = hQueDB == kQueDb && iOpt == 0 && (hObj == xmit_queue || hObj == dead_queue);
    const std::string shown = std::string(psName) + " " + (good ? static_cast<char*>(hObj) : "?");
    return recorded(kHost, "KVR_QueClose", shown, 0, good).value_or(kSuccess);
}

int KVR_QueMsgGet(void* hQueDB, void* hObj, T_KAVRO_MD* ptMD, T_KAVRO_GMO* ptGMO, char* psBuf, int* piLen) {
    constexpr T_KAVRO_GMO options{{'G', 'M', 'O', ' '}, 1, 0, 0, 0, 0};
    T_KAVRO_MD blank{};
    memcpy(blank.sStrucId, "MD  ", 4);
    blank.iVersion = 2;
    blank.cMsgStoreType = '1';
    blank.pOptData = ptMD->pOptData;
    const auto r = recorded(kHost, "KVR_QueMsgGet", "", 0,
                            hQueDB == kQueDb && hObj == xmit_queue && memcmp(&blank, ptMD, sizeof blank) == 0 &&
                                ptMD->pOptData != nullptr && memcmp(&options, ptGMO, sizeof options) == 0 &&
                                *piLen == 2098376 && psBuf[2098375] == '\0');
    close_window();
    kvr::stop_point(kvr::StopPlace::kBetweenMessages);
    if (r) {
        return r.as<int>();
    }
    const int result = next_step(ptMD, psBuf, piLen);
    kvr::stop_point(kvr::StopPlace::kBetweenMessages);
    return result;
}

int KVR_QueMsgPut(void* hQueDB, void* hObj, T_KAVRO_MD* ptMD, T_KAVRO_PMO* ptPMO, char* psBuf, int iLen) {
    constexpr T_KAVRO_PMO options{{'G', 'M', 'O', ' '}, 1, 0, 0};
    // The next get uses the message up: no signal of the line may end the put.
    sigset_t held;
    sigprocmask(SIG_BLOCK, nullptr, &held);
    const bool calm =
        sigismember(&held, SIGUSR2) == 1 && sigismember(&held, SIGALRM) == 1 && sigismember(&held, SIGCHLD) == 1;
    const bool as_received = memcmp(&host().in_hand.md, ptMD, sizeof *ptMD) == 0 &&
                             std::string(psBuf, static_cast<size_t>(iLen)) == host().in_hand.data;
    return recorded(kHost, "KVR_QueMsgPut", std::to_string(iLen), 0,
                    hQueDB == kQueDb && hObj == dead_queue && calm && as_received &&
                        memcmp(&options, ptPMO, sizeof options) == 0)
        .value_or(kSuccess);
}
}
