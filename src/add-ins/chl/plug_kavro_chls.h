// SPDX-License-Identifier: MIT
// Private header of the channel unit: constants, the log call and the prototypes of what more than one fragment uses,
// so that the order of the fragments never matters. Included by plug_kavro_chls.cpp alone.
#pragma once

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include "kavro_ac.h"
#include "kavro_chl.h"
#include "kavro_log.h"
#include "kavutil.h"
#include "net_tcp_client.h"
#include "plug_mgr.h"

// Results (negative ones; 0 or a count is success).
constexpr int CHLS_OK = 0;
constexpr int CHLS_FAIL = -1;          ///< not routed or sent; a step of connection, bind or watcher failed
constexpr int CHLS_ERR_FILE = -2;      ///< a file that cannot be opened, positioned or sized, is empty or too long
constexpr int CHLS_ERR_WRITE = -201;   ///< a write took less than the whole frame; worth a new connection
constexpr int CHLS_ERR_SETUP = -10002; ///< a set-up step failed

// Limits.
constexpr int CHLS_NAME_SIZE = 64;         ///< names and short numbers, with NUL
constexpr int CHLS_VALUE_SIZE = 256;       ///< other attribute values, with NUL
constexpr int CHLS_RECV_SIZE = 2098376;    ///< receive buffer: the greatest message with its transmission header
constexpr int CHLS_XMITQ_HDR_LEN = 72;     ///< transmission header
constexpr int CHLS_PATH_SIZE = 1024;       ///< path of a file message, with NUL
constexpr int CHLS_ACC_BUF_SIZE = 51200;   ///< attachment block; the greatest takes KVR_CHL_ACC_BLOCK_MAX
constexpr int CHLS_FILE_CHUNK = 10240;     ///< bytes of a file per write
constexpr int CHLS_SEND_TRIES = 4;         ///< attempts to send one message
constexpr unsigned CHLS_RESTART_PAUSE = 3; ///< seconds between a lost line and the next connection
constexpr unsigned CHLS_WAKE_AFTER = 1;    ///< seconds until a get that set out on a dead line is interrupted
constexpr int CHLS_DEFAULT_PORT = 5151;    ///< listener's port when the connection name has none
constexpr int CHLS_APP_NAME_ENTRY = 4;     ///< entry of the argument table, counted after the options

static_assert(sizeof(T_KAVRO_HDR_XMITQ) == CHLS_XMITQ_HDR_LEN);
static_assert(CHLS_RECV_SIZE - CHLS_XMITQ_HDR_LEN == KVR_CHL_BODY_MAX);
static_assert(KVR_CHL_ACC_BLOCK_MAX <= CHLS_ACC_BUF_SIZE);

// Log levels.
constexpr int LOG_ERR = 1;
constexpr int LOG_GONE = 2;
constexpr int LOG_EVENT = 3;
constexpr int LOG_INF = 4;
constexpr int LOG_DBG = 5;

/// Host operations and log functions take `char*` and write to none of these texts.
#define TXT(text) const_cast<char*>(text) // NOLINT(bugprone-macro-parentheses): the parentheses of a cast
/// One log line: level, format, arguments.
#define CHLS_LOG(level, ...) CHLS_LOG_OF(__func__, level, __VA_ARGS__)
/// The same in a helper: the line shows the operation that it works for, whose name operators know.
#define CHLS_LOG_OF(func, level, ...) CHLS_LOG_TO(f_ptRTCoreCtx->pfnLogPrint, func, level, __VA_ARGS__)
#define CHLS_LOG_TO(function, func, level, ...)                                                                        \
    function(nullptr, level, TXT("$plug_kavro_chls"), TXT("plug_kavro_chls"), __LINE__, func, __VA_ARGS__)

// chls_life.inl
static int EventHandlers(int iPlugId, int iEventId, void* pInData, void* pOutData);
static int InitEventHandler(int iPlugId, int iEventId, void* pInData, void* pOutData);
static int ExitEventHandler(int iPlugId, int iEventId, void* pInData, void* pOutData);
static int DefaultEventHandler(int iPlugId, int iEventId, void* pInData, void* pOutData);

// chls_connect.inl
static int InitTcpClient(void);
static int Connect2Lsr(void);
static int AnlyConnName(char* psConnName, int* piPort, char* pAddr);
static int BindChl(void);

// chls_line.inl
static int SndrNetInit(void);
static void HoldSignals(sigset_t* ptBefore, int iAlso);
static void HeartBeat(int iSig);
static void SetLineOpt(int iOpt, int iOn);
static int TakeTlsRecords(void);
static void EndTlsLine(void);
static int InitObjStat(char* psChlName);
static int SetObjStat(const char* psFunc, const char* psStat);

// chls_watcher.inl
static int StartNetChkProc(void);
static void CheckNetStat(void);
static void OnNetDisconn(int iSig);
static void StopNetChkProc(const char* psFunc);

// chls_run.inl
static int OnRunEventHandler(int iPlugId, int iEventId, void* pInData, void* pOutData);
static void WakeGet(void);
static int ProcMsg(T_KAVRO_MD* ptMD, char* psMsgBuf, int iDataLen);
static int SndMsgToDeadQ(T_KAVRO_MD* ptMD, char* psMsgBuf, int iDataLen);

// chls_send_data.inl, chls_send_file.inl
static int ChlSndData(T_KAVRO_MD* ptMD, char* psDestQue, char* psMsgBuf, int iDataLen);
static int SendFile2Rcvr(char* psFileName);

// chls_record.inl
static void FillChlMD(T_KAVRO_CHL_MD* ptChlMD, const T_KAVRO_MD* ptMD);
static int FillAccBlock(const T_KAVRO_ACCESSORIES_MD* ptAccMd);
struct T_CHLS_ERR_TEXT {
    char sText[CHLS_NAME_SIZE];
};
static T_CHLS_ERR_TEXT ErrText(int iErrno);
static int HostErrno(int iOtherwise);
static void CopyText(char* psTo, size_t iSize, const char* psFrom);
static void PutNum(char* psField, long lValue);
