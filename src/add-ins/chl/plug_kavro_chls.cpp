// SPDX-License-Identifier: MIT
// The channel plug-in: the sending end of a message channel, one channel per process.
//
// One translation unit, because all of the channel's state and functions have internal linkage: its variables stand
// here, its functions in the fragments below, one concern each, in the order of a message's road. README.md in this
// folder says what a signal handler may touch.
#include "plug_kavro_chls.h"

// Signal handlers touch f_iNetStat, f_iHBBreak, f_iInGet and f_tTcpClient (through its operations); they read
// f_ptRTCoreCtx, f_sAppName and the template header, which do not change while handlers are installed.

static T_RTCORE_CONTEXT* f_ptRTCoreCtx = nullptr;  ///< context of the process; the log function and the arguments
static T_PLUG_MGR_PLUG_VAR* f_ptPlugVar = nullptr; ///< the block given at load
static T_KAVRO_QMGR_CTX f_tQmgrCtx;                ///< handles of the object and queue stores
static T_KVR_QUE_OBJ_HANDLE f_hObjHdl = nullptr;   ///< transmission queue; null: not open
static char f_sXmitQ[CHLS_NAME_SIZE];              ///< its name
static T_KVR_QUE_OBJ_HANDLE f_hDeaqHdl = nullptr;  ///< dead-letter queue, opened at its first use; null: not open
static char f_sDeadQ[CHLS_NAME_SIZE];              ///< its name; empty: none
static T_NET_TCPCLIENT f_tTcpClient;               ///< the one connection
static int f_iIsInit = 0;                          ///< 1 once the status object is claimed; never lowered
static char f_sClaimed[CHLS_NAME_SIZE];            ///< the status object that is this process's now; empty: none
static char f_sAppName[CHLS_NAME_SIZE];            ///< channel name in upper case
static int f_iUseSSL = 0;                          ///< 1: TLS
static int f_iHBInt = 0;                           ///< heartbeat interval in seconds
static int f_iDisConnCnt = 0;                      ///< attribute DISCINT, kept and not used
static int f_iPid = -1;                            ///< this process
static int f_iMonPid = 0;                          ///< line watcher; not above 0: none
static int f_iChlLineFD = 0;                       ///< own end of the pipe shared with the watcher; 0: none
static volatile sig_atomic_t f_iNetStat = 0;       ///< 1: line up and bound; handlers only lower it
static volatile sig_atomic_t f_iHBBreak = 0;       ///< 1: a handler interrupted the get; handlers only raise it
static volatile sig_atomic_t f_iInGet = 0;         ///< 1: the main flow is in the get; handlers only read it
static char f_sAccBuf[CHLS_ACC_BUF_SIZE];          ///< attachment block of the message being sent

/// What every frame header starts from.
static const T_KAVRO_CHL_HDR tKavroChlHdrTmp = {
    {'0', '0', '0', '0', '0', '0', '7', '5'},
    {'0', '1'},
    {'0', '0', '0', '0', '0', '0', '0', '0'},
    {KVR_CHL_FRAME_DATA},
    {},
    {'0', '0', '0', '0', '0', '0', '0', '0'},
    {'0', '0', '0', '0', '0', '0', '0', '0'},
    {'0', '0', '0', '0', '0', '0', '0', '0'},
};

#define CHLS_UNIT

#include "chls_life.inl"

#include "chls_connect.inl"

#include "chls_line.inl"

#include "chls_watcher.inl"

#include "chls_run.inl"

#include "chls_send_data.inl"

#include "chls_send_file.inl"

#include "chls_record.inl"
