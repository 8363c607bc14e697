// SPDX-License-Identifier: MIT
// The operations of the scripted host that have a store or a log behind them, and the trace: a file in memory to which
// every process of a run appends its entries, each with one write.
#include "recording_host.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "kavro_ac.h"
#include "kavro_log.h"
#include "kavro_object.h"
#include "kavro_queue.h"
#include "kavutil/stop_point.h"
#include "support/peer.h"

extern "C" int OnPlugLoad(T_PLUG_MGR_PLUG_VAR* ptPlugVar);

namespace kvr::test {

namespace {

const int trace_file = memfd_create("trace", 0);

T_KVR_OBJ_DB_HANDLE const kObjDb = &host().objects;
T_KVR_QUE_DB_HANDLE const kQueDb = &host().get;
char xmit_queue[] = "XQ";
char dead_queue[] = "DLQ";
char channel_name[] = "ch1";

/// Operators look for these: a line shows the operation at whose work it was written, not a helper's name.
constexpr char kOperations[] =
    " InitEventHandler InitObjStat InitTcpClient OnRunEventHandler ProcMsg SndMsgToDeadQ ChlSndData SendFile2Rcvr"
    " Connect2Lsr BindChl SndrNetInit StartNetChkProc CheckNetStat OnNetDisconn HeartBeat ExitEventHandler"
    " netTcpClientInit netTcpClientConnect netTcpClientWrite ";

enum class Access { kGet, kSet, kAdd };

std::string key(const char* cls, const char* name) {
    return std::string(cls) + " " + name;
}

constexpr Row operation(const char* name, const char* told, const std::array<int, 5>& errors = {EIO}) {
    return {.name = name, .errors = errors, .told = told, .failed = kHostError, .traced = true, .own = true};
}

/// `good` false: it is not to be called so.
int perform(
    Row& row, const std::string& shown, bool good, const std::function<int()>& what = [] { return kSuccess; }) {
    if (!good) {
        trace("fault: %s(%s) with wrong arguments", row.name, shown.c_str());
    }
    return static_cast<int>(pass(row, shown, 0, [&what](bool) { return what(); }));
}

/// An operation on the object's attributes; the trace shows "<class> <name> <attribute>..." or
/// "<attribute>=<value>...".
int on_object(Row& row, void* db, Access access, const std::string& object, int count, char** names, char** values) {
    std::string shown = object;
    for (int i = 0; i < count; ++i) {
        shown += std::string(" ") + names[i] + (access != Access::kGet ? std::string("=") + values[i] : "");
    }
    return perform(row, shown, db == kObjDb, [&] {
        if (host().objects.contains(object) == (access == Access::kAdd)) {
            return -1;
        }
        Attrs& attrs = host().objects[object];
        for (int i = 0; i < count; ++i) {
            if (access != Access::kGet) {
                attrs[names[i]] = values[i];
            } else if (attrs.contains(names[i])) {
                strcpy(values[i], attrs[names[i]].c_str());
            }
        }
        return kSuccess;
    });
}

/// The arguments of a variadic call: names, then as many values.
std::vector<char*> arguments(int count, va_list ap) {
    std::vector<char*> all(2 * static_cast<size_t>(count));
    std::ranges::generate(all, [&ap] { return va_arg(ap, char*); });
    return all;
}

} // namespace

void trace(const char* fmt, ...) {
    const int saved = errno;
    char text[2200];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    char entry[2300];
    const int size = snprintf(entry, sizeof entry, "%d %s\n", getpid(), text);
    if (syscall(SYS_write, trace_file, entry, size) != size) { // no call of the channel's
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
    for (Entry e{}; file >> e.pid && getline(file.ignore(), e.text) && !file.eof();) {
        all.push_back(e);
    }
    return all;
}

void wait_for(const std::string& text) {
    const auto has_text = [&text](const Entry& e) { return e.text.find(text) != std::string::npos; };
    if (!wait_until([&] { return std::ranges::any_of(trace_entries(), has_text); })) {
        trace("fault: waited in vain for %s", text.c_str());
    }
}

Host& host() {
    static Host* const the = new Host; // the channel may end the process with exit: this one stays
    return *the;
}

bool line_signals_held() {
    sigset_t held;
    sigprocmask(SIG_BLOCK, nullptr, &held);
    return sigismember(&held, SIGUSR2) == 1 && sigismember(&held, SIGALRM) == 1 && sigismember(&held, SIGCHLD) == 1;
}

void load() {
    Host& h = host();
    h.ctx.tRTCoreArgv.iOptc = kOptions;
    h.ctx.tRTCoreArgv.tArg[kOptions + 4].psValue = channel_name;
    h.ctx.pfnLogPrint = KVR_LogPrint;
    h.var.ptRTCoreCtx = &h.ctx;
    OnPlugLoad(&h.var);
}

int event(int id) {
    char in[8] = "in";
    char out[8] = "out";
    const int result = host().var.pfnEventHdl(host().var.iId, id, in, out);
    trace("event %d = %d", id, result);
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
    static Row row = operation(__func__, "1 KVR_InitQmgrCtx[-110]");
    const bool zeroed = ptCtx->sObjName[0] == 0 && ptCtx->hObjDB == nullptr && ptCtx->hQueDB == nullptr;
    ptCtx->hObjDB = kObjDb;
    ptCtx->hQueDB = kQueDb;
    return perform(row, psQmgrName, zeroed);
}

int KVR_LogSetQMName(char* psQmgrName) {
    static Row row = operation(__func__, nullptr);
    perform(row, psQmgrName, true);
    return -1; // ignored
}

/// The context's log function too. The line-loss handler logs wherever it interrupts: nothing is allocated here.
int KVR_LogPrint(char*, int iLevel, char*, char*, int, const char* psFunc, char* psFmt, ...) {
    static Row row{.name = "log"};
    char text[2100];
    va_list ap;
    va_start(ap, psFmt);
    vsnprintf(text, sizeof text, psFmt, ap);
    va_end(ap);
    char operation[64];
    snprintf(operation, sizeof operation, " %s ", psFunc);
    if (strstr(kOperations, operation) == nullptr) {
        trace("fault: log line of another operation: %s %s", psFunc, text);
    }
    trace("%d %s", iLevel, text);
    errno = EXDEV; // a log function may do so
    pass(row, "", iLevel, [](bool) { return 0L; });
    return -1; // ignored
}

int KVR_ObjAdd(void* hObjDB, char* psClass, char* psName, int iCnt, char** ppsAttrs, char** ppsVals, int iFlags) {
    static Row row = operation(__func__, "1 KVR_ObjAdd[CHS][CH1] return[-110]");
    return on_object(row, iFlags == 0 ? hObjDB : nullptr, Access::kAdd, key(psClass, psName), iCnt, ppsAttrs, ppsVals);
}

int KVR_ObjGetAttr(void* hObjDB, char* psClass, char* psName, int iCnt, char** ppsAttrs, char** ppsBufs) {
    static Row row = operation(__func__, "1 get chl[CH1] error[-110]");
    return on_object(row, hObjDB, Access::kGet, key(psClass, psName), iCnt, ppsAttrs, ppsBufs);
}

int KVR_ObjGetAttrV(void* hObjDB, char* psClass, char* psName, int iCnt, ...) {
    static Row row = operation(__func__, "return[-110]");
    va_list ap;
    va_start(ap, iCnt);
    auto args = arguments(iCnt, ap);
    va_end(ap);
    return on_object(row, hObjDB, Access::kGet, key(psClass, psName), iCnt, args.data(), args.data() + iCnt);
}

int KVR_ObjSetAttr(void* hObjDB, char* psClass, char* psName, int iCnt, char** ppsAttrs, char** ppsVals) {
    static Row row = operation(__func__, "1 KVR_ObjSetAttr[CHS][CH1] return[-110]");
    return on_object(row, hObjDB, Access::kSet, key(psClass, psName), iCnt, ppsAttrs, ppsVals);
}

int KVR_ObjSetAttrV(void* hObjDB, char* psClass, char* psName, int iCnt, ...) {
    static Row row = operation(__func__, "1 KVR_ObjSetAttrV[CHS][CH1] return[-110]");
    va_list ap;
    va_start(ap, iCnt);
    auto args = arguments(iCnt, ap);
    va_end(ap);
    return on_object(row, hObjDB, Access::kSet, key(psClass, psName), iCnt, args.data(), args.data() + iCnt);
}

int KVR_QueOpen(void* hQueDB, char* psName, void** phObj, int iOpt) {
    static Row row = operation(__func__, "Q] return[-110]");
    return perform(row, psName, hQueDB == kQueDb && iOpt == 0, [=] {
        *phObj = strcmp(psName, xmit_queue) == 0 ? xmit_queue : dead_queue;
        return kSuccess;
    });
}

int KVR_QueClose(void* hQueDB, char* psName, void* hObj, int iOpt) {
    static Row row = operation(__func__, "1 KVR_QueClose[");
    const bool good = hQueDB == kQueDb && iOpt == 0 && (hObj == xmit_queue || hObj == dead_queue);
    return perform(row, std::string(psName) + " " + (good ? static_cast<char*>(hObj) : "?"), good);
}

int KVR_QueMsgGet(void* hQueDB, void* hObj, T_KAVRO_MD* ptMD, T_KAVRO_GMO* ptGMO, char* psBuf, int* piLen) {
    static Row row = operation(__func__, "1 RecvIpcMsg error[-110]", {EIO, EINTR});
    constexpr T_KAVRO_GMO options{{'G', 'M', 'O', ' '}, 1, 0, 0, 0, 0};
    T_KAVRO_MD blank{};
    memcpy(blank.sStrucId, "MD  ", 4);
    blank.iVersion = 2;
    blank.cMsgStoreType = '1';
    blank.pOptData = ptMD->pOptData;
    const bool good = hQueDB == kQueDb && hObj == xmit_queue && memcmp(&blank, ptMD, sizeof blank) == 0 &&
                      ptMD->pOptData != nullptr && memcmp(&options, ptGMO, sizeof options) == 0 && *piLen == 2098376 &&
                      psBuf[2098375] == '\0';
    const int waited = perform(row, "", good);
    attack.open = false;
    kvr::stop_point(kvr::StopPlace::kBetweenMessages);
    if (waited < 0) {
        return waited;
    }
    if (host().get.empty()) {
        _exit(kScriptOver);
    }
    const GetStep step = std::move(host().get.front());
    host().get.pop_front();
    const int result = step(ptMD, psBuf, piLen);
    kvr::stop_point(kvr::StopPlace::kBetweenMessages);
    return result;
}

int KVR_QueMsgPut(void* hQueDB, void* hObj, T_KAVRO_MD* ptMD, T_KAVRO_PMO* ptPMO, char* psBuf, int iLen) {
    static Row row = operation(__func__, "1 KVR_QueMsgPut[");
    constexpr T_KAVRO_PMO options{{'G', 'M', 'O', ' '}, 1, 0, 0};
    const bool as_received = memcmp(&host().in_hand.md, ptMD, sizeof *ptMD) == 0 &&
                             std::string(psBuf, static_cast<size_t>(iLen)) == host().in_hand.data;
    const bool good = hQueDB == kQueDb && hObj == dead_queue && memcmp(&options, ptPMO, sizeof options) == 0;
    // The next get uses the message up: no signal of the line may end the put.
    return perform(row, std::to_string(iLen), good && as_received && line_signals_held());
}
}
