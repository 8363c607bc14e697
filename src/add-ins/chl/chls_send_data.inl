// SPDX-License-Identifier: MIT
// One message on the line: the data frame in three or four writes, then one file frame per file.

#ifndef CHLS_UNIT
#error "a part of plug_kavro_chls.cpp, not to be included elsewhere"
#endif

/// What a message puts on the line beside its header and descriptor block.
struct T_CHLS_MSG {
    char* psBody; ///< bytes after the descriptor block
    int iBodyLen;
    const T_KAVRO_ACCESSORIES_MD* ptAccMd; ///< attached files, or null
    int iAccLen;                           ///< length of the attachment block in f_sAccBuf; 0: none
    int iIsFile;                           ///< 1: file message
    char sFileName[CHLS_PATH_SIZE];        ///< its path
    char sBody[CHLS_PATH_SIZE];            ///< its body: base name, then NULs up to the path's length
};

/// Finds out before the first byte whether a file is too long to be announced. Every other fault of a file shows when
/// it is opened: it may still be mended or come into being before a retry.
static int CheckFileLen(const char* psFileName) {
    struct stat tStat;
    if (stat(psFileName, &tStat) == 0 && S_ISREG(tStat.st_mode) && tStat.st_size > KVR_CHL_NUM_MAX) {
        CHLS_LOG_OF("ChlSndData", LOG_ERR, TXT("file [%s] of [%ld] bytes is longer than a file frame can carry"),
                    psFileName, static_cast<long>(tStat.st_size));
        return CHLS_ERR_FILE;
    }
    return CHLS_OK;
}

/// Takes path and body of a file message. The path ends at the first NUL of the data.
static int TakeFileName(T_CHLS_MSG* ptMsg, const char* psMsgBuf, int iDataLen) {
    size_t iPathLen = strnlen(psMsgBuf, static_cast<size_t>(iDataLen));
    if (iPathLen >= sizeof(ptMsg->sFileName)) {
        CHLS_LOG_OF("ChlSndData", LOG_ERR, TXT("file message with a path of [%zu] bytes, at most [%d] can be sent"),
                    iPathLen, CHLS_PATH_SIZE - 1);
        return CHLS_FAIL;
    }
    memcpy(ptMsg->sFileName, psMsgBuf, iPathLen);
    ptMsg->sFileName[iPathLen] = '\0';

    memset(ptMsg->sBody, 0, sizeof(ptMsg->sBody));
    CopyText(ptMsg->sBody, iPathLen + 1, strBaseName(ptMsg->sFileName));
    ptMsg->psBody = ptMsg->sBody;
    ptMsg->iBodyLen = static_cast<int>(iPathLen);
    ptMsg->iIsFile = 1;
    return CheckFileLen(ptMsg->sFileName);
}

/// Takes the attached files and builds their block.
static int TakeAccessories(T_CHLS_MSG* ptMsg, const T_KAVRO_MD* ptMD) {
    ptMsg->ptAccMd = static_cast<const T_KAVRO_ACCESSORIES_MD*>(ptMD->pOptData);
    if (ptMsg->ptAccMd == nullptr || ptMsg->ptAccMd->iNum < 0 || ptMsg->ptAccMd->iNum > KVR_ACC_MAX) {
        CHLS_LOG_OF("ChlSndData", LOG_ERR, TXT("message with [%d] attached files, 0 to [%d] can be sent"),
                    ptMsg->ptAccMd == nullptr ? -1 : ptMsg->ptAccMd->iNum, KVR_ACC_MAX);
        return CHLS_FAIL;
    }
    CHLS_LOG_OF("ChlSndData", LOG_DBG, TXT("ACCSNUM[%d]"), ptMsg->ptAccMd->iNum);
    for (int i = 0; i < ptMsg->ptAccMd->iNum; i++) {
        char sPath[KVR_ACC_PATH_SIZE];
        CopyText(sPath, sizeof(sPath), ptMsg->ptAccMd->sFiles[i]);
        int iRet = CheckFileLen(sPath);
        if (iRet < 0) {
            return iRet;
        }
    }
    ptMsg->iAccLen = FillAccBlock(ptMsg->ptAccMd);
    return CHLS_OK;
}

/// Writes one piece of the data frame.
static int WritePiece(void* pData, int iLen) {
    int iRet = f_tTcpClient.pfnWrite(&f_tTcpClient, pData, iLen, 0);
    if (iRet != iLen) {
        CHLS_LOG_OF("ChlSndData", LOG_ERR, TXT("write [%d] to receiver error[%d:%s] return[%d]"), iLen,
                    f_tTcpClient.iErrorCode, f_tTcpClient.sErrorStr, iRet);
        return CHLS_ERR_WRITE;
    }
    return CHLS_OK;
}

/// Adds to a count of bytes sent. 30 files can exceed an int: the count then stays at its greatest value, because a
/// message sent whole must not be taken for failed.
static void AddSent(int* piLen, int iMore) {
    *piLen = iMore > INT_MAX - *piLen ? INT_MAX : *piLen + iMore;
}

static int SendFile(char* psFileName, int* piLen) {
    int iRet = SendFile2Rcvr(psFileName);
    if (iRet < 0) {
        CHLS_LOG_OF("ChlSndData", LOG_ERR, TXT("SendFile2Rcvr[%s] error[%d]"), psFileName, iRet);
        return CHLS_ERR_WRITE;
    }
    AddSent(piLen, iRet);
    return CHLS_OK;
}

/// Sends the file frames behind a data frame.
static int SendFiles(T_CHLS_MSG* ptMsg, int* piLen) {
    if (ptMsg->iAccLen > 0) {
        CHLS_LOG_OF("ChlSndData", LOG_INF, TXT("----------------------start process accessories---------------------"));
        CHLS_LOG_OF("ChlSndData", LOG_DBG, TXT("ACCSNUM[%d]"), ptMsg->ptAccMd->iNum);
        for (int i = 0; i < ptMsg->ptAccMd->iNum; i++) {
            char sPath[KVR_ACC_PATH_SIZE];
            CopyText(sPath, sizeof(sPath), ptMsg->ptAccMd->sFiles[i]);
            CHLS_LOG_OF("ChlSndData", LOG_DBG, TXT("-------------------start send file[%s]------------------"), sPath);
            if (SendFile(sPath, piLen) < 0) {
                return CHLS_ERR_WRITE;
            }
            CHLS_LOG_OF("ChlSndData", LOG_EVENT, TXT("send file[%s]"), sPath);
        }
    }
    return ptMsg->iIsFile ? SendFile(ptMsg->sFileName, piLen) : CHLS_OK;
}

/// Looks at the message before its first byte: 0 when it can be sent, else a negative value.
static int TakeMsg(T_CHLS_MSG* ptMsg, const T_KAVRO_MD* ptMD, char* psMsgBuf, int iDataLen) {
    ptMsg->psBody = psMsgBuf;
    ptMsg->iBodyLen = iDataLen;
    ptMsg->ptAccMd = nullptr;
    ptMsg->iAccLen = 0;
    ptMsg->iIsFile = 0;
    int iRet = CHLS_OK;
    if (ptMD->cMsgStoreType == KVR_STORE_FILE) {
        iRet = TakeFileName(ptMsg, psMsgBuf, iDataLen);
    }
    if (iRet >= 0 && (ptMD->iMsgFlags & KVR_MSGFLAG_ACCESSORIES)) {
        iRet = TakeAccessories(ptMsg, ptMD);
    }
    return iRet;
}

/// Writes the data frame, in three or four pieces.
static int WriteFrame(T_CHLS_MSG* ptMsg, T_KAVRO_CHL_HDR* ptChlHdr, T_KAVRO_CHL_MD* ptChlMD) {
    CHLS_LOG_OF("ChlSndData", LOG_DBG, TXT("start write chl hdr"));
    if (WritePiece(ptChlHdr, sizeof(*ptChlHdr)) < 0) {
        return CHLS_ERR_WRITE;
    }
    CHLS_LOG_OF("ChlSndData", LOG_DBG, TXT("start write chl msg md"));
    if (WritePiece(ptChlMD, sizeof(*ptChlMD)) < 0) {
        return CHLS_ERR_WRITE;
    }
    CHLS_LOG_OF("ChlSndData", LOG_DBG, TXT("main msg len[%d]"), ptMsg->iBodyLen);
    if (WritePiece(ptMsg->psBody, ptMsg->iBodyLen) < 0) {
        return CHLS_ERR_WRITE;
    }
    if (ptMsg->iAccLen > 0) {
        CHLS_LOG_OF("ChlSndData", LOG_DBG, TXT("start write attachment header"));
        return WritePiece(f_sAccBuf, ptMsg->iAccLen);
    }
    return CHLS_OK;
}

/// Sends one message: the bytes sent (at least 272, at most INT_MAX) when every frame was written; -201 when a write or
/// a file failed and a new connection may help; another negative value, before any byte, when the message cannot be
/// sent at all. Does not close the connection.
static int ChlSndData(T_KAVRO_MD* ptMD, char* psDestQue, char* psMsgBuf, int iDataLen) {
    T_CHLS_MSG tMsg;
    int iRet = TakeMsg(&tMsg, ptMD, psMsgBuf, iDataLen);
    if (iRet < 0) {
        return iRet;
    }
    T_KAVRO_CHL_HDR tChlHdr = tKavroChlHdrTmp;
    T_KAVRO_CHL_MD tChlMD;
    FillChlMD(&tChlMD, ptMD);
    PutNum(tChlHdr.sIPCMsgType, ptMD->iMsgType);
    PutNum(tChlHdr.sIPCMsgCode, ptMD->iMsgCode);
    if (tMsg.iIsFile) {
        tChlHdr.sMsgType[0] = KVR_CHL_FRAME_FILE;
    }
    int iLen = tMsg.iBodyLen + tMsg.iAccLen + static_cast<int>(sizeof(tChlMD));
    memcpy(tChlHdr.sDestQue, psDestQue, strnlen(psDestQue, sizeof(tChlHdr.sDestQue)));
    PutNum(tChlHdr.sPkgLen, iLen);

    // Held back until the message is complete. A failed message needs no release: its connection is closed.
    SetLineOpt(TCP_CORK, 1);
    if (WriteFrame(&tMsg, &tChlHdr, &tChlMD) < 0 || SendFiles(&tMsg, &iLen) < 0) {
        return CHLS_ERR_WRITE;
    }
    SetLineOpt(TCP_CORK, 0);
    CHLS_LOG(LOG_INF, TXT("send data[%d] success."), iLen);
    return iLen;
}
