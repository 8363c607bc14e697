// SPDX-License-Identifier: MIT
// A host that is none of ours, with just enough behind its operations for one message: the channel is in the
// environment, the queue holds "hello", and the second get ends the process. Each library that is made of this file
// exports other operations of it, so none may rely on another.
#include <arpa/inet.h>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "kavro_ac.h"
#include "kavro_log.h"
#include "kavro_object.h"
#include "kavro_queue.h"
#include "kavutil.h"

#define HOST extern "C" __attribute__((visibility("default")))

namespace {

constexpr int kUnknown = -1;

int fill(const char* cls, int count, char** names, char** values) {
    if (std::strcmp(cls, "CHS") == 0) {
        return kUnknown; // no status yet
    }
    for (int i = 0; i < count; ++i) {
        const char* const value = std::getenv(names[i]);
        std::strcpy(values[i], value != nullptr ? value : "");
    }
    return 0;
}

} // namespace

// clang-format off: one line for each operation; the build reads their names
HOST char* KVR_GetQmgrName(void) {
    static char name[] = "SITE";
    return name;
}
HOST int KVR_InitQmgrCtx(T_KAVRO_QMGR_CTX*, char*) {
    return 0;
}
HOST int KVR_LogSetQMName(char*) {
    return 0;
}
HOST int KVR_LogPrint(char*, int, char*, char*, int, const char*, char*, ...) {
    return 0;
}
HOST int KVR_QueOpen(T_KVR_QUE_DB_HANDLE, char*, T_KVR_QUE_OBJ_HANDLE*, int) {
    return 0;
}
HOST int KVR_QueClose(T_KVR_QUE_DB_HANDLE, char*, T_KVR_QUE_OBJ_HANDLE, int) {
    return 0;
}
HOST int KVR_QueMsgPut(T_KVR_QUE_DB_HANDLE, T_KVR_QUE_OBJ_HANDLE, T_KAVRO_QUE_MD*, T_KAVRO_QUE_PMO*, char*, int) {
    return kUnknown;
}
HOST int KVR_ObjAdd(T_KVR_OBJ_DB_HANDLE, char*, char*, int, char**, char**, int) {
    return 0;
}
HOST int KVR_ObjGetAttr(T_KVR_OBJ_DB_HANDLE, char* cls, char*, int count, char** names, char** values) {
    return fill(cls, count, names, values);
}
HOST int KVR_ObjSetAttr(T_KVR_OBJ_DB_HANDLE, char*, char*, int, char**, char**) {
    return 0;
}
HOST int KVR_ObjSetAttrV(T_KVR_OBJ_DB_HANDLE, char*, char*, int, ...) {
    return 0;
}
HOST int procIsExist(int) {
    return 0;
}
HOST int procSndSig2Proc(int, int) {
    return 0;
}
HOST int sockCanRead(int sock) {
    pollfd line{sock, POLLIN, 0};
    return poll(&line, 1, 0);
}
HOST int sockGetHostIp(char* host, char* address) {
    std::strcpy(address, host);
    return 0;
}
HOST int sockGetLocalAddr(int, char*, int*) {
    return 0;
}
HOST int sockSetKeepAlive(int) {
    return 0;
}
HOST int sockSetRTimeOut(int, int) {
    return 0;
}
HOST int sockSetSTimeOut(int, int) {
    return 0;
}
HOST char* strBaseName(char* path) {
    return path;
}
HOST int strToUpper(char*) {
    return 0;
}
HOST int streamReadNByte(void*, int, int*, int) {
    return kUnknown;
}
HOST int streamWriteNByte(void* data, int length, int sock) {
    return static_cast<int>(send(sock, data, static_cast<std::size_t>(length), MSG_NOSIGNAL));
}
// clang-format on

HOST int KVR_ObjGetAttrV(T_KVR_OBJ_DB_HANDLE, char* cls, char*, int count, ...) {
    char* all[16];
    va_list arguments;
    va_start(arguments, count);
    for (int i = 0; i < 2 * count; ++i) {
        all[i] = va_arg(arguments, char*);
    }
    va_end(arguments);
    return fill(cls, count, all, all + count);
}

HOST int KVR_QueMsgGet(T_KVR_QUE_DB_HANDLE, T_KVR_QUE_OBJ_HANDLE, T_KAVRO_QUE_MD*, T_KAVRO_QUE_GMO*, char* data,
                       int* length) {
    static bool empty = false;
    if (empty) {
        _exit(0);
    }
    empty = true;
    constexpr char kMessage[] = "hello";
    T_KAVRO_HDR_XMITQ header{};
    std::memcpy(header.sStrucId, "XTMH", 4);
    std::memcpy(header.sDestQ, "Q1", 2);
    std::memcpy(data, &header, sizeof header);
    std::memcpy(data + sizeof header, kMessage, sizeof kMessage - 1);
    *length = sizeof header + sizeof kMessage - 1;
    return 0;
}
