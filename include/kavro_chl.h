// SPDX-License-Identifier: MIT
// The records of the channel's wire format, shared by whoever builds frames and whoever splits them.
// docs/protocol.md describes every byte. Text numbers are 8 ASCII digits without NUL.
#pragma once

#include <cstddef>

extern "C" {

/// Frame types (T_KAVRO_CHL_HDR::sMsgType).
constexpr char KVR_CHL_FRAME_DATA = '0';
constexpr char KVR_CHL_FRAME_BIND = '1';
constexpr char KVR_CHL_FRAME_HEARTBEAT = '2';
constexpr char KVR_CHL_FRAME_FILE = '4'; ///< data frame of a file message

/// Digits of a text number.
constexpr int KVR_CHL_NUM_LEN = 8;
/// The greatest value that a text number can carry.
constexpr long KVR_CHL_NUM_MAX = 99999999;
/// Greatest body: the sender's receive buffer of 2,098,376 bytes less the transmission header of 72.
constexpr int KVR_CHL_BODY_MAX = 2098304;
/// Greatest attachment block: 30 headers with names of 511 characters, and the trailer.
constexpr int KVR_CHL_ACC_BLOCK_MAX = 30 * (80 + 511) + 16;
/// Greatest package: descriptor block, body and attachment block.
constexpr int KVR_CHL_PKG_MAX = 272 + KVR_CHL_BODY_MAX + KVR_CHL_ACC_BLOCK_MAX;
/// Bytes of the attachment trailer: number of entries and length of the entries, two text numbers.
constexpr int KVR_CHL_ACC_TRAILER_LEN = 2 * KVR_CHL_NUM_LEN;

/// Frame header, all text.
typedef struct T_KAVRO_CHL_HDR {
    char sHdrLen[8];     ///< "00000075"
    char sVer[2];        ///< "01"
    char sSeqno[8];      ///< "00000000"
    char sMsgType[1];    ///< a frame type
    char sDestQue[32];   ///< destination queue of a data frame, NUL-padded; NULs in other frames
    char sIPCMsgType[8]; ///< text number: iMsgType of a data frame, else 0
    char sIPCMsgCode[8]; ///< text number: iMsgCode of a data frame, else 0
    char sPkgLen[8];     ///< text number: bytes of the package that follows
} T_KAVRO_CHL_HDR;

/// Message-descriptor block. On the wire its integers are big-endian and the gaps are NULs.
typedef struct T_KAVRO_CHL_MD {
    char sMsgId[32];
    char sCorrelId[32];
    char cMsgStoreType;
    int iUsage;
    int iMsgFlags;
    int iExpiry;
    int iFeedback;
    int iEncoding;
    int iCodedCharSetId;
    int iPriority;
    int iPersistence;
    int iMsgSeqNo;
    int iReportOpt;
    char sFmtName[9];
    char sReplyToQ[33];
    char sReplyToQMgr[33];
    char sGroupId[32];
    int iPutApplType;
    char sPutApplName[33];
    char sPutDate[9];
    char sPutTime[7];
} T_KAVRO_CHL_MD;

/// Attachment header; the base name of the file follows it without NUL.
typedef struct T_KAVRO_CHL_ACC_HDR {
    char sLen[8];   ///< text number: bytes of the name
    char sFlags[8]; ///< NULs
    char sMac[64];  ///< NULs
} T_KAVRO_CHL_ACC_HDR;
}

static_assert(sizeof(T_KAVRO_CHL_HDR) == 75 && alignof(T_KAVRO_CHL_HDR) == 1);
static_assert(offsetof(T_KAVRO_CHL_HDR, sMsgType) == 18 && offsetof(T_KAVRO_CHL_HDR, sDestQue) == 19);
static_assert(offsetof(T_KAVRO_CHL_HDR, sIPCMsgType) == 51 && offsetof(T_KAVRO_CHL_HDR, sPkgLen) == 67);
static_assert(sizeof(T_KAVRO_CHL_MD) == 272);
static_assert(offsetof(T_KAVRO_CHL_MD, cMsgStoreType) == 64 && offsetof(T_KAVRO_CHL_MD, iUsage) == 68);
static_assert(offsetof(T_KAVRO_CHL_MD, iMsgFlags) == 72 && offsetof(T_KAVRO_CHL_MD, iPriority) == 92);
static_assert(offsetof(T_KAVRO_CHL_MD, iReportOpt) == 104 && offsetof(T_KAVRO_CHL_MD, sFmtName) == 108);
static_assert(offsetof(T_KAVRO_CHL_MD, sReplyToQ) == 117 && offsetof(T_KAVRO_CHL_MD, sReplyToQMgr) == 150);
static_assert(offsetof(T_KAVRO_CHL_MD, sGroupId) == 183 && offsetof(T_KAVRO_CHL_MD, iPutApplType) == 216);
static_assert(offsetof(T_KAVRO_CHL_MD, sPutApplName) == 220 && offsetof(T_KAVRO_CHL_MD, sPutDate) == 253);
static_assert(offsetof(T_KAVRO_CHL_MD, sPutTime) == 262);
static_assert(sizeof(T_KAVRO_CHL_ACC_HDR) == 80 && offsetof(T_KAVRO_CHL_ACC_HDR, sMac) == 16);
static_assert(KVR_CHL_PKG_MAX == 2116322 && KVR_CHL_PKG_MAX <= KVR_CHL_NUM_MAX);
