// SPDX-License-Identifier: MIT
// The operations of the scripted host, and the channel process's side of it.
#include "recording_host.h"

#include <arpa/inet.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "kavro_ac.h"
#include "kavro_log.h"
#include "kavro_object.h"
#include "kavro_queue.h"
#include "kavutil.h"

extern "C" int OnPlugLoad(T_PLUG_MGR_PLUG_VAR* ptPlugVar);

namespace kvr::test {

namespace {

T_KVR_OBJ_DB_HANDLE const kObjDb = &host().objects;
T_KVR_QUE_DB_HANDLE const kQueDb = &host().get;
char xmit_queue[] = "XQ";
char dead_queue[] = "DLQ";

/// Breaches of the border that are faults in every case.
void check_handle(bool good, const char* op) {
    if (!good) {
        trace(kFault, "%s: wrong handle", op);
    }
}
void check_id(int id, const char* op) {
    if (id <= 0) {
        trace(kFault, "%s(%d): not an id to ask about", op, id);
    }
}

/// Operators look for these: a line shows the operation at whose work it was written, not a helper's name.
bool is_operation(const char* func) {
    static const char* const names[] = {
        "InitEventHandler", "InitObjStat",      "InitTcpClient",       "OnRunEventHandler", "ProcMsg",
        "SndMsgToDeadQ",    "ChlSndData",       "SendFile2Rcvr",       "Connect2Lsr",       "BindChl",
        "SndrNetInit",      "StartNetChkProc",  "CheckNetStat",        "OnNetDisconn",      "HeartBeat",
        "ExitEventHandler", "netTcpClientInit", "netTcpClientConnect", "netTcpClientWrite"};
    return std::any_of(std::begin(names), std::end(names),
                       [func](const char* name) { return strcmp(name, func) == 0; });
}

int log_line(bool by_name, char* tag, int level, const char* mod, const char* file, int line, const char* func,
             const char* fmt, va_list ap) {
    const bool net = strcmp(mod, "$net_tcp") == 0;
    char text[2100];
    vsnprintf(text, sizeof text, fmt, ap);
    if (tag != nullptr || line <= 0 || func == nullptr || !is_operation(func) || level < 1 || level > 5 ||
        strcmp(net ? "net_tcp_client" : "plug_kavro_chls", file) != 0 ||
        (!net && strcmp(mod, "$plug_kavro_chls") != 0)) {
        trace(kFault, "log line with wrong origin: %s %s:%d %s %s", mod, file, line, func != nullptr ? func : "-",
              text);
    }
    trace(net ? kNetLog : kLog, "%d %s%s", level, text, by_name ? " (KVR_LogPrint)" : "");
    errno = EXDEV; // a log function may do so
    return 0;
}

int context_log(char* tag, int level, char* mod, char* file, int line, const char* func, char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    log_line(false, tag, level, mod, file, line, func, fmt, ap);
    va_end(ap);
    return -1; // ignored
}

std::string joined(int count, char** names, char** values = nullptr) {
    std::string text;
    for (int i = 0; i < count; ++i) {
        text += std::string(" ") + names[i] + (values == nullptr ? "" : std::string("=") + values[i]);
    }
    return text;
}

int get_attrs(const char* op, void* db, char* cls, char* name, int count, char** names, char** bufs) {
    check_handle(db == kObjDb, op);
    trace(kHost, "%s(%s %s%s)", op, cls, name, joined(count, names).c_str());
    if (auto r = run_hook(op)) {
        return *r;
    }
    auto object = host().objects.find(std::string(cls) + "/" + name);
    if (object == host().objects.end()) {
        return -1;
    }
    for (int i = 0; i < count; ++i) {
        auto attr = object->second.find(names[i]);
        if (attr != object->second.end()) {
            strcpy(bufs[i], attr->second.c_str());
        }
    }
    return host().success;
}

int set_attrs(const char* op, void* db, char* cls, char* name, int count, char** names, char** values, bool add) {
    check_handle(db == kObjDb, op);
    trace(kHost, "%s(%s %s%s)", op, cls, name, joined(count, names, values).c_str());
    if (auto r = run_hook(op)) {
        return *r;
    }
    const std::string key = std::string(cls) + "/" + name;
    if (host().objects.contains(key) == add) {
        return -1;
    }
    for (int i = 0; i < count; ++i) {
        host().objects[key][names[i]] = values[i];
    }
    return host().success;
}

/// Names and values of a variadic call.
struct VarArgs {
    std::vector<char*> first, second;
    VarArgs(int count, va_list ap) {
        for (int i = 0; i < 2 * count; ++i) {
            (i < count ? first : second).push_back(va_arg(ap, char*));
        }
    }
};

bool is_blank(const T_KAVRO_MD* md) {
    T_KAVRO_MD blank;
    memset(&blank, 0, sizeof blank);
    std::copy_n("MD  ", 4, blank.sStrucId);
    blank.iVersion = 2;
    blank.cMsgStoreType = '1';
    blank.pOptData = md->pOptData;
    return same_bytes(&blank, md, sizeof blank);
}

} // namespace

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
    trace(kHost, "KVR_GetQmgrName()");
    return name;
}

int KVR_InitQmgrCtx(T_KAVRO_QMGR_CTX* ptCtx, char* psQmgrName) {
    const bool zeroed = ptCtx->sObjName[0] == 0 && ptCtx->hObjDB == nullptr && ptCtx->hQueDB == nullptr;
    trace(kHost, "KVR_InitQmgrCtx(%s %s)", zeroed ? "zeroed" : "used", psQmgrName);
    if (auto r = run_hook("KVR_InitQmgrCtx")) {
        return *r;
    }
    ptCtx->hObjDB = kObjDb;
    ptCtx->hQueDB = kQueDb;
    return host().success;
}

int KVR_LogSetQMName(char* psQmgrName) {
    trace(kHost, "KVR_LogSetQMName(%s)", psQmgrName);
    return -1; // ignored
}

int KVR_LogPrint(char* psTag, int iLevel, char* psMod, char* psFile, int iLine, const char* psFunc, char* psFmt, ...) {
    va_list ap;
    va_start(ap, psFmt);
    log_line(true, psTag, iLevel, psMod, psFile, iLine, psFunc, psFmt, ap);
    va_end(ap);
    return -1;
}

int KVR_ObjAdd(void* hObjDB, char* psClass, char* psName, int iCnt, char** ppsAttrs, char** ppsVals, int iFlags) {
    check_handle(iFlags == 0, "KVR_ObjAdd");
    return set_attrs("KVR_ObjAdd", hObjDB, psClass, psName, iCnt, ppsAttrs, ppsVals, true);
}

int KVR_ObjGetAttr(void* hObjDB, char* psClass, char* psName, int iCnt, char** ppsAttrs, char** ppsBufs) {
    return get_attrs("KVR_ObjGetAttr", hObjDB, psClass, psName, iCnt, ppsAttrs, ppsBufs);
}

int KVR_ObjGetAttrV(void* hObjDB, char* psClass, char* psName, int iCnt, ...) {
    va_list ap;
    va_start(ap, iCnt);
    VarArgs args(iCnt, ap);
    va_end(ap);
    return get_attrs("KVR_ObjGetAttrV", hObjDB, psClass, psName, iCnt, args.first.data(), args.second.data());
}

int KVR_ObjSetAttr(void* hObjDB, char* psClass, char* psName, int iCnt, char** ppsAttrs, char** ppsVals) {
    return set_attrs("KVR_ObjSetAttr", hObjDB, psClass, psName, iCnt, ppsAttrs, ppsVals, false);
}

int KVR_ObjSetAttrV(void* hObjDB, char* psClass, char* psName, int iCnt, ...) {
    va_list ap;
    va_start(ap, iCnt);
    VarArgs args(iCnt, ap);
    va_end(ap);
    return set_attrs("KVR_ObjSetAttrV", hObjDB, psClass, psName, iCnt, args.first.data(), args.second.data(), false);
}

int KVR_QueOpen(void* hQueDB, char* psName, void** phObj, int iOpt) {
    check_handle(hQueDB == kQueDb && iOpt == 0, "KVR_QueOpen");
    trace(kHost, "KVR_QueOpen(%s)", psName);
    if (auto r = run_hook("KVR_QueOpen")) {
        return *r;
    }
    *phObj = strcmp(psName, xmit_queue) == 0 ? xmit_queue : dead_queue;
    return host().success;
}

int KVR_QueClose(void* hQueDB, char* psName, void* hObj, int iOpt) {
    check_handle(hQueDB == kQueDb && iOpt == 0 && (hObj == xmit_queue || hObj == dead_queue), "KVR_QueClose");
    trace(kHost, "KVR_QueClose(%s %s)", psName, static_cast<char*>(hObj));
    return run_hook("KVR_QueClose").value_or(host().success);
}

int KVR_QueMsgGet(void* hQueDB, void* hObj, T_KAVRO_MD* ptMD, T_KAVRO_GMO* ptGMO, char* psBuf, int* piLen) {
    const T_KAVRO_GMO options{{'G', 'M', 'O', ' '}, 1, 0, 0, 0, 0};
    check_handle(hQueDB == kQueDb && hObj == xmit_queue, "KVR_QueMsgGet");
    const bool good = is_blank(ptMD) && ptMD->pOptData != nullptr && same_bytes(&options, ptGMO, sizeof options) &&
                      *piLen == 2098376 && psBuf[2098375] == '\0';
    trace(kHost, "KVR_QueMsgGet(%s)", good ? "blank" : "WRONG");
    if (host().get.empty()) {
        _exit(kScriptOver);
    }
    GetStep step = std::move(host().get.front());
    host().get.pop_front();
    return step(ptMD, psBuf, piLen);
}

int KVR_QueMsgPut(void* hQueDB, void* hObj, T_KAVRO_MD* ptMD, T_KAVRO_PMO* ptPMO, char* psBuf, int iLen) {
    const T_KAVRO_PMO options{{'G', 'M', 'O', ' '}, 1, 0, 0};
    check_handle(hQueDB == kQueDb && hObj == dead_queue, "KVR_QueMsgPut");
    const bool same = same_bytes(&host().in_hand.md, ptMD, sizeof *ptMD) &&
                      std::string(psBuf, static_cast<size_t>(iLen)) == host().in_hand.data &&
                      same_bytes(&options, ptPMO, sizeof options);
    trace(kHost, "KVR_QueMsgPut(%d %s)", iLen, same ? "as received" : "CHANGED");
    return run_hook("KVR_QueMsgPut").value_or(host().success);
}

int procIsExist(int iPid) {
    check_id(iPid, "procIsExist");
    trace(kHost, "procIsExist(%d)", iPid);
    return run_hook("procIsExist", iPid).value_or(kill(iPid, 0) == 0 ? 1 : 0);
}

int procSndSig2Proc(int iPid, int iSig) {
    check_id(iPid, "procSndSig2Proc");
    trace(kHost, "procSndSig2Proc(%d %d)", iPid, iSig);
    const auto r = run_hook("procSndSig2Proc", iPid);
    return r ? *r : kill(iPid, iSig);
}

int sockCanRead(int iSock) {
    check_id(iSock, "sockCanRead");
    trace(kHost, "sockCanRead()");
    if (auto r = run_hook("sockCanRead", iSock)) {
        return *r;
    }
    pollfd tested{iSock, POLLIN, 0};
    const int r = poll(&tested, 1, 0);
    return r < 0 || (tested.revents & POLLNVAL) != 0 ? -1 : r;
}

int sockGetHostIp(char* psHost, char* psAddr) {
    trace(kHost, "sockGetHostIp(%s)", psHost);
    if (auto r = run_hook("sockGetHostIp")) {
        return *r;
    }
    in_addr addr{};
    if (inet_aton(psHost, &addr) == 0) {
        errno = EHOSTUNREACH;
        return -1;
    }
    strcpy(psAddr, psHost);
    return host().success;
}

int sockGetLocalAddr(int iSock, char* psAddr, int* piPort) {
    check_id(iSock, "sockGetLocalAddr");
    trace(kHost, "sockGetLocalAddr()");
    sockaddr_in addr{};
    socklen_t len = sizeof addr;
    getsockname(iSock, reinterpret_cast<sockaddr*>(&addr), &len);
    strcpy(psAddr, inet_ntoa(addr.sin_addr));
    *piPort = ntohs(addr.sin_port);
    return 0;
}

int sockSetKeepAlive(int) {
    trace(kHost, "sockSetKeepAlive()");
    return 0;
}

int sockSetRTimeOut(int, int iTimeOut) {
    trace(kHost, "sockSetRTimeOut(%d)", iTimeOut);
    return 0;
}

int sockSetSTimeOut(int iSock, int iTimeOut) {
    check_id(iSock - 2, "sockSetSTimeOut");
    host().sock = iSock;
    trace(kHost, "sockSetSTimeOut(%d)", iTimeOut);
    return 0;
}

char* strBaseName(char* psPath) {
    static char last[1024]; // overwritten by the next call, as a host may
    const char* slash = strrchr(psPath, '/');
    snprintf(last, sizeof last, "%s", slash == nullptr ? psPath : slash + 1);
    return last;
}

int strToUpper(char* psText) {
    trace(kHost, "strToUpper(%s)", psText);
    for (; *psText != '\0'; ++psText) {
        *psText = static_cast<char>(toupper(*psText));
    }
    return -1; // ignored
}

int streamReadNByte(void*, int, int*, int) {
    trace(kFault, "the channel never reads");
    return -1;
}

int streamWriteNByte(void* pBuf, int iLen, int iSock) {
    check_id(iSock, "streamWriteNByte");
    trace(kHost, "write(%d)", iLen);
    if (auto r = run_hook("write", iLen)) {
        return *r;
    }
    int done = 0;
    while (done < iLen) {
        const ssize_t n = write(iSock, static_cast<char*>(pBuf) + done, static_cast<size_t>(iLen - done));
        if (n < 0 && errno != EINTR) {
            return -1;
        }
        done += n > 0 ? static_cast<int>(n) : 0;
    }
    return done;
}
}
