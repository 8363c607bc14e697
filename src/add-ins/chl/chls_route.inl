// SPDX-License-Identifier: MIT
// Routing: the transmission header, the attempts to send a message, and the dead-letter queue.
//
// What ends how: no header, no line, a message that cannot be sent -> dead-letter queue at once; a failed write or file
// -> CHLS_SEND_TRIES attempts, each on a new connection, then the dead-letter queue.

static constexpr char f_sXmitId[] = {'X', 'T', 'M', 'H'};

/// Sends the message behind its transmission header: length of the data after the header when sent, -1 when not.
static int ProcMsg(T_KAVRO_MD* ptMD, char* psMsgBuf, int iDataLen) {
    T_KAVRO_HDR_XMITQ tHdrXmitQ;
    // Shorter data holds no header, whatever an earlier message left behind it in the buffer.
    if (iDataLen < CHLS_XMITQ_HDR_LEN || memcmp(psMsgBuf, f_sXmitId, sizeof(f_sXmitId)) != 0) {
        CHLS_LOG(LOG_ERR, TXT("msg no xmit header"));
        return CHLS_FAIL;
    }
    memcpy(&tHdrXmitQ, psMsgBuf, sizeof(tHdrXmitQ));
    char sDestQue[CHLS_NAME_SIZE] = {};
    memcpy(sDestQue, tHdrXmitQ.sDestQ, sizeof(tHdrXmitQ.sDestQ));
    CHLS_LOG(LOG_INF, TXT("dest queue[%s]"), sDestQue);

    int iLen = iDataLen - CHLS_XMITQ_HDR_LEN;
    for (int iTryNum = 0; iTryNum < CHLS_SEND_TRIES; iTryNum++) {
        int iRet = SndrNetInit();
        if (iRet < 0) {
            CHLS_LOG(LOG_ERR, TXT("SndrNetInit error[%d]"), iRet);
            return CHLS_FAIL;
        }
        iRet = ChlSndData(ptMD, sDestQue, psMsgBuf + CHLS_XMITQ_HDR_LEN, iLen);
        // Any count is a success: that of a file message can be less than its data was long.
        if (iRet >= 0) {
            CHLS_LOG(LOG_INF, TXT("send %d real size[%d]"), iLen, iRet);
            return iLen;
        }
        if (iRet != CHLS_ERR_WRITE) {
            return CHLS_FAIL;
        }
        CHLS_LOG(LOG_ERR, TXT("ChlSndData len[%d] error[%d]"), iLen, iRet);
        f_tTcpClient.pfnClose(&f_tTcpClient, 0);
        f_iNetStat = 0;
    }
    // The watcher holds a copy of the socket: the receiver sees the end of the line, and lets go of the half message,
    // only when that is closed too.
    StopNetChkProc(__func__);
    return CHLS_FAIL;
}

/// Puts the whole message, header included, on the dead-letter queue: 0; -10002 when there is none or it cannot be
/// opened (tried again at the next message); -1 when the put fails.
static int SndMsgToDeadQ(T_KAVRO_MD* ptMD, char* psMsgBuf, int iDataLen) {
    T_KAVRO_QUE_PMO tPMO = {{'G', 'M', 'O', ' '}, 1, 0, 0};
    if (f_sDeadQ[0] == '\0') {
        CHLS_LOG(LOG_ERR, TXT("not set dead queue"));
        return CHLS_ERR_SETUP;
    }
    if (f_hDeaqHdl == nullptr) {
        int iRet = KVR_QueOpen(f_tQmgrCtx.hQueDB, f_sDeadQ, &f_hDeaqHdl, 0);
        if (iRet < 0) {
            CHLS_LOG(LOG_ERR, TXT("KVR_QueOpen[%s] return[%d]"), f_sDeadQ, iRet);
            f_hDeaqHdl = nullptr;
            return CHLS_ERR_SETUP;
        }
    }
    int iRet = KVR_QueMsgPut(f_tQmgrCtx.hQueDB, f_hDeaqHdl, ptMD, &tPMO, psMsgBuf, iDataLen);
    if (iRet < 0) {
        CHLS_LOG(LOG_ERR, TXT("KVR_QueMsgPut[%d] return[%d]"), iDataLen, iRet);
        return CHLS_FAIL;
    }
    return CHLS_OK;
}
