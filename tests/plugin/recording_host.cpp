// SPDX-License-Identifier: MIT
// The operations of the scripted host that have a store or a log behind them, and the trace: a file in memory to which
// every process of a run appends its entries, each with one write.
#include "recording_host.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <span>

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
    if (const auto hook = host().hooks.find("failure"); net && level == 1 && hook != host().hooks.end()) {
        hook->second({1, 0});
    }
    errno = EXDEV; // a log function may do so
    static Row row{.name = "log"};
    pass(row, "", 0, [](bool) { return 0L; });
}

int context_log(char* tag, int level, char* mod, char* file, int line, const char* func, char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    log_line("", tag, level, mod, file, line, func, fmt, ap);
    va_end(ap);
    return -1; // ignored
}

constexpr Row operation(const char* name, const char* told) {
    return {.name = name, .errors = {EIO}, .told = told, .failed = kHostError, .kind = kHost, .own = true};
}

/// `good` false: it is not to be called so.
int perform(
    Row& row, const std::string& shown, bool good, const std::function<int()>& what = [] { return kSuccess; }) {
    if (!good && host().recording) {
        trace(kFault, "%s(%s) with wrong arguments", row.name, shown.c_str());
    }
    return static_cast<int>(pass(row, shown, 0, [&what](bool) { return what(); }));
}

/// An operation on an object: name and as many texts to show, "<class> <name> <attribute>..." or "<attribute>=<value>".
struct Object {
    std::string cls, name;
    std::span<char*> attributes, values;

    Attrs* found() const {
        const auto at = host().objects.find(cls + "/" + name);
        return at != host().objects.end() ? &at->second : nullptr;
    }
    std::string shown(bool with_values) const {
        std::string text = cls + " " + name;
        for (size_t i = 0; i < attributes.size(); ++i) {
            text += std::string(" ") + attributes[i] + (with_values ? std::string("=") + values[i] : "");
        }
        return text;
    }
};

int get_attrs(Row& row, void* db, const Object& object) {
    return perform(row, object.shown(false), db == kObjDb, [&object] {
        Attrs* const found = object.found();
        for (size_t i = 0; found != nullptr && i < object.attributes.size(); ++i) {
            if (const auto attr = found->find(object.attributes[i]); attr != found->end()) {
                strcpy(object.values[i], attr->second.c_str());
            }
        }
        return found != nullptr ? kSuccess : -1;
    });
}

int set_attrs(Row& row, void* db, const Object& object, bool add = false) {
    return perform(row, object.shown(true), db == kObjDb, [&] {
        if ((object.found() == nullptr) != add) {
            return -1;
        }
        for (size_t i = 0; i < object.attributes.size(); ++i) {
            host().objects[object.cls + "/" + object.name][object.attributes[i]] = object.values[i];
        }
        return kSuccess;
    });
}

Object object_of(char* cls, char* name, int count, char** attributes, char** values) {
    return {cls, name, {attributes, static_cast<size_t>(count)}, {values, static_cast<size_t>(count)}};
}

/// The arguments of a variadic call: names, then as many values.
std::vector<char*> arguments(int count, va_list ap) {
    std::vector<char*> all(2 * static_cast<size_t>(count));
    std::ranges::generate(all, [&ap] { return va_arg(ap, char*); });
    return all;
}

int next_step(T_KAVRO_MD* md, char* buf, int* len) {
    if (host().get.empty()) {
        _exit(kScriptOver);
    }
    const GetStep step = std::move(host().get.front());
    host().get.pop_front();
    return step(md, buf, len);
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
    const auto has_text = [&text](const Entry& e) { return e.text.find(text) != std::string::npos; };
    for (int i = 0; i < 10000 && std::ranges::none_of(trace_entries(), has_text); ++i) {
        poll(nullptr, 0, 1);
    }
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

int KVR_LogPrint(char* psTag, int iLevel, char* psMod, char* psFile, int iLine, const char* psFunc, char* psFmt, ...) {
    va_list ap;
    va_start(ap, psFmt);
    log_line(" (KVR_LogPrint)", psTag, iLevel, psMod, psFile, iLine, psFunc, psFmt, ap);
    va_end(ap);
    return -1;
}

int KVR_ObjAdd(void* hObjDB, char* psClass, char* psName, int iCnt, char** ppsAttrs, char** ppsVals, int iFlags) {
    static Row row = operation(__func__, "1 KVR_ObjAdd[CHS][CH1] return[-110]");
    return set_attrs(row, iFlags == 0 ? hObjDB : nullptr, object_of(psClass, psName, iCnt, ppsAttrs, ppsVals), true);
}

int KVR_ObjGetAttr(void* hObjDB, char* psClass, char* psName, int iCnt, char** ppsAttrs, char** ppsBufs) {
    static Row row = operation(__func__, "1 get chl[CH1] error[-110]");
    return get_attrs(row, hObjDB, object_of(psClass, psName, iCnt, ppsAttrs, ppsBufs));
}

int KVR_ObjGetAttrV(void* hObjDB, char* psClass, char* psName, int iCnt, ...) {
    static Row row = operation(__func__, "return[-110]");
    va_list ap;
    va_start(ap, iCnt);
    auto args = arguments(iCnt, ap);
    va_end(ap);
    return get_attrs(row, hObjDB, object_of(psClass, psName, iCnt, args.data(), args.data() + iCnt));
}

int KVR_ObjSetAttr(void* hObjDB, char* psClass, char* psName, int iCnt, char** ppsAttrs, char** ppsVals) {
    static Row row = operation(__func__, "1 KVR_ObjSetAttr[CHS][CH1] return[-110]");
    return set_attrs(row, hObjDB, object_of(psClass, psName, iCnt, ppsAttrs, ppsVals));
}

int KVR_ObjSetAttrV(void* hObjDB, char* psClass, char* psName, int iCnt, ...) {
    static Row row = operation(__func__, "1 KVR_ObjSetAttrV[CHS][CH1] return[-110]");
    va_list ap;
    va_start(ap, iCnt);
    auto args = arguments(iCnt, ap);
    va_end(ap);
    return set_attrs(row, hObjDB, object_of(psClass, psName, iCnt, args.data(), args.data() + iCnt));
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
    static Row row{.name = __func__,
                   .errors = {EIO, EINTR},
                   .told = "1 RecvIpcMsg error[-110]",
                   .failed = kHostError,
                   .kind = kHost};
    constexpr T_KAVRO_GMO options{{'G', 'M', 'O', ' '}, 1, 0, 0, 0, 0};
    T_KAVRO_MD blank{};
    memcpy(blank.sStrucId, "MD  ", 4);
    blank.iVersion = 2;
    blank.cMsgStoreType = '1';
    blank.pOptData = ptMD->pOptData;
    const int waited = perform(row, "",
                               hQueDB == kQueDb && hObj == xmit_queue && memcmp(&blank, ptMD, sizeof blank) == 0 &&
                                   ptMD->pOptData != nullptr && memcmp(&options, ptGMO, sizeof options) == 0 &&
                                   *piLen == 2098376 && psBuf[2098375] == '\0');
    open_window(false);
    kvr::stop_point(kvr::StopPlace::kBetweenMessages);
    if (waited < 0) {
        return waited;
    }
    const int result = next_step(ptMD, psBuf, piLen);
    kvr::stop_point(kvr::StopPlace::kBetweenMessages);
    return result;
}

int KVR_QueMsgPut(void* hQueDB, void* hObj, T_KAVRO_MD* ptMD, T_KAVRO_PMO* ptPMO, char* psBuf, int iLen) {
    static Row row = operation(__func__, "1 KVR_QueMsgPut[");
    constexpr T_KAVRO_PMO options{{'G', 'M', 'O', ' '}, 1, 0, 0};
    // The next get uses the message up: no signal of the line may end the put.
    sigset_t held;
    sigprocmask(SIG_BLOCK, nullptr, &held);
    const bool calm =
        sigismember(&held, SIGUSR2) == 1 && sigismember(&held, SIGALRM) == 1 && sigismember(&held, SIGCHLD) == 1;
    const bool as_received = memcmp(&host().in_hand.md, ptMD, sizeof *ptMD) == 0 &&
                             std::string(psBuf, static_cast<size_t>(iLen)) == host().in_hand.data;
    return perform(row, std::to_string(iLen),
                   hQueDB == kQueDb && hObj == dead_queue && calm && as_received &&
                       memcmp(&options, ptPMO, sizeof options) == 0);
}
}
