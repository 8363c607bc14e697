// SPDX-License-Identifier: MIT
// Base types and the records of a message: descriptor, get and put options, attachments, transmission header.
#pragma once

#include <cstddef>

extern "C" {

typedef char KVRCHAR;
typedef int KVRINT;
typedef void* PKVRVOID;
typedef KVRCHAR KVRSTRUCID[4]; ///< four characters, no NUL

/// Storage type of a message whose data is the path of a file to be sent.
constexpr KVRCHAR KVR_STORE_FILE = '2';
/// Storage type of every other message.
constexpr KVRCHAR KVR_STORE_DATA = '1';
/// Bit of `iMsgFlags`: the message has attached files, listed in the record at `pOptData`.
constexpr KVRINT KVR_MSGFLAG_ACCESSORIES = 4;
/// Greatest number of attached files of one message.
constexpr int KVR_ACC_MAX = 30;
/// Room for the path of an attached file, its NUL included.
constexpr int KVR_ACC_PATH_SIZE = 512;

/// The message descriptor. The caller owns it; a get fills it, a put reads it. Texts are padded with NULs.
typedef struct T_KAVRO_MD {
    KVRSTRUCID sStrucId; ///< "MD  "
    KVRINT iVersion;     ///< 2
    KVRINT iMsgType;
    KVRINT iMsgCode;
    KVRCHAR sMsgId[32]; ///< may fill its field, then without NUL
    KVRCHAR sCorrelId[32];
    KVRCHAR cMsgStoreType; ///< KVR_STORE_DATA or KVR_STORE_FILE
    KVRINT iUsage;
    KVRINT iMsgFlags; ///< KVR_MSGFLAG_ACCESSORIES and bits that are only carried
    KVRINT iExpiry;
    KVRINT iFeedback;
    KVRINT iEncoding;
    KVRINT iCodedCharSetId;
    KVRINT iPriority;
    KVRINT iPersistence;
    KVRINT iMsgSeqNo;
    KVRINT iReportOpt;
    KVRCHAR sFmtName[9];
    KVRCHAR sReplyToQ[33];
    KVRCHAR sReplyToQMgr[33];
    KVRCHAR sGroupId[32];
    KVRINT iPutApplType;
    KVRCHAR sPutApplName[33];
    KVRCHAR sPutDate[9];
    KVRCHAR sPutTime[7];
    PKVRVOID pOptData; ///< a T_KAVRO_ACCESSORIES_MD of the caller's, or null
} T_KAVRO_MD;

/// Get options.
typedef struct T_KAVRO_GMO {
    KVRSTRUCID sStrucId;  ///< "GMO "
    KVRINT iVersion;      ///< 1
    KVRINT iOptions;      ///< 0: wait for a message
    KVRINT iWaitInterval; ///< longest wait in milliseconds; 0: without a time limit
    KVRINT iSignal1;      ///< 0
    KVRINT iSignal2;      ///< 0
} T_KAVRO_GMO;

/// Put options.
typedef struct T_KAVRO_PMO {
    KVRSTRUCID sStrucId; ///< "GMO ", as in the get options
    KVRINT iVersion;     ///< 1
    KVRINT iOptions;     ///< 0
    KVRINT iTimeOut;     ///< 0
} T_KAVRO_PMO;

/// The attachment descriptor. The caller owns it and points `pOptData` at it; a get fills it.
typedef struct T_KAVRO_ACCESSORIES_MD {
    KVRSTRUCID sStrucId; ///< "ACMD"
    KVRINT iVersion;     ///< 1
    int iType;
    int iNum;                                    ///< attached files, 0 to KVR_ACC_MAX
    char sFiles[KVR_ACC_MAX][KVR_ACC_PATH_SIZE]; ///< full paths with NUL, in sending order
} T_KAVRO_ACCESSORIES_MD;

/// The transmission header: the first 72 bytes of the data of every message on a transmission queue.
typedef struct T_KAVRO_HDR_XMITQ {
    KVRSTRUCID sStrucId;   ///< "XTMH"
    KVRINT iVersion;       ///< 1, in the platform's byte order
    KVRCHAR sDestQ[32];    ///< destination queue; a name of 32 characters has no NUL
    KVRCHAR sDestQMgr[32]; ///< destination queue manager
} T_KAVRO_HDR_XMITQ;
}

static_assert(sizeof(T_KAVRO_MD) == 296);
static_assert(offsetof(T_KAVRO_MD, iMsgType) == 8 && offsetof(T_KAVRO_MD, sMsgId) == 16);
static_assert(offsetof(T_KAVRO_MD, cMsgStoreType) == 80 && offsetof(T_KAVRO_MD, iUsage) == 84);
static_assert(offsetof(T_KAVRO_MD, iMsgFlags) == 88 && offsetof(T_KAVRO_MD, iReportOpt) == 120);
static_assert(offsetof(T_KAVRO_MD, sFmtName) == 124 && offsetof(T_KAVRO_MD, sReplyToQ) == 133);
static_assert(offsetof(T_KAVRO_MD, sReplyToQMgr) == 166 && offsetof(T_KAVRO_MD, sGroupId) == 199);
static_assert(offsetof(T_KAVRO_MD, iPutApplType) == 232 && offsetof(T_KAVRO_MD, sPutApplName) == 236);
static_assert(offsetof(T_KAVRO_MD, sPutDate) == 269 && offsetof(T_KAVRO_MD, sPutTime) == 278);
static_assert(offsetof(T_KAVRO_MD, pOptData) == 288);
static_assert(sizeof(T_KAVRO_GMO) == 24 && offsetof(T_KAVRO_GMO, iOptions) == 8);
static_assert(sizeof(T_KAVRO_PMO) == 16 && offsetof(T_KAVRO_PMO, iTimeOut) == 12);
static_assert(sizeof(T_KAVRO_ACCESSORIES_MD) == 15376 && offsetof(T_KAVRO_ACCESSORIES_MD, iNum) == 12);
static_assert(offsetof(T_KAVRO_ACCESSORIES_MD, sFiles) == 16);
static_assert(sizeof(T_KAVRO_HDR_XMITQ) == 72 && offsetof(T_KAVRO_HDR_XMITQ, sDestQ) == 8);
static_assert(offsetof(T_KAVRO_HDR_XMITQ, sDestQMgr) == 40);
