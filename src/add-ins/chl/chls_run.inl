// SPDX-License-Identifier: MIT
// Event 2: drain the transmission queue for as long as the process lives. Each message behind its transmission header
// goes out, or aside: no header, no line, a message that cannot be sent -> dead-letter queue at once; a failed write or
// file -> CHLS_SEND_TRIES attempts, each on a new connection, then the dead-letter queue.

#ifndef CHLS_UNIT
#error "a part of plug_kavro_chls.cpp, not to be included elsewhere"
#endif

/// Ends the process on a failure that the loop cannot recover from.
[[noreturn]] static void EndRun(void) {
    EndTlsLine();
    exit(EXIT_FAILURE);
}

/// Has a get on a line that is down interrupted soon, and again every CHLS_WAKE_AFTER until it returns: the signal that
/// told of the loss may have come before the host began to wait. Called by the handlers and on the way into the get.
static void WakeGet(void) {
    if (f_iInGet && !f_iNetStat) {
        alarm(CHLS_WAKE_AFTER);
    }
}

/// A host that is being stopped ends the process inside one of its operations and gives the message in hand back. A
/// send that the stop itself made fail may be followed by no other operation than the get, which uses the message up:
/// this one is called for the stop alone.
static void LetHostStop(void) {
    procIsExist(f_iPid);
}

/// After a get that a handler cut short: back to waiting while the line is up, else a new line.
static void Resume(void) {
    f_iHBBreak = 0;
    if (f_iNetStat != 0) {
        if (TakeTlsRecords() >= 0) {
            return;
        }
        f_iNetStat = 0;
        f_tTcpClient.pfnClose(&f_tTcpClient, 0);
        CHLS_LOG_OF("OnRunEventHandler", LOG_EVENT, TXT("RCVER CLOSED"));
    }
    // A close in a handler wakes the line's watcher too; neither its signal nor its end may cut the pause short.
    sigset_t tBefore;
    HoldSignals(&tBefore, SIGCHLD);
    sleep(CHLS_RESTART_PAUSE);
    pthread_sigmask(SIG_SETMASK, &tBefore, nullptr);
    int iRet = SndrNetInit();
    if (iRet < 0) {
        CHLS_LOG_OF("OnRunEventHandler", LOG_ERR, TXT("SndrNetInit error[%d]"), iRet);
        EndRun();
    }
}

/// Puts a message that was not sent on the dead-letter queue. The get behind it uses the message up, so no signal of
/// the line may make the put fail, which a host's operation may do when it is interrupted.
static void LayAside(T_KAVRO_MD* ptMD, char* psMsgBuf, int iDataLen) {
    sigset_t tBefore;
    LetHostStop();
    HoldSignals(&tBefore, SIGCHLD);
    SndMsgToDeadQ(ptMD, psMsgBuf, iDataLen);
    pthread_sigmask(SIG_SETMASK, &tBefore, nullptr);
}

/// Sends a message as the get returned it, or lays it aside. The length is the host's word: nothing behind the buffer
/// is read, and a message of which only the beginning can have come is not sent.
static void HandleMsg(T_KAVRO_MD* ptMD, char* psMsgBuf, int iDataLen) {
    CHLS_LOG_OF("OnRunEventHandler", LOG_INF, TXT("rcv len[%d]"), iDataLen);
    if (iDataLen > CHLS_RECV_SIZE) {
        CHLS_LOG_OF("OnRunEventHandler", LOG_ERR, TXT("message of [%d] bytes exceeds the buffer of [%d]: not sent"),
                    iDataLen, CHLS_RECV_SIZE);
        LayAside(ptMD, psMsgBuf, CHLS_RECV_SIZE);
        return;
    }
    int iLen = iDataLen > 0 ? iDataLen : 0;
    int iRet = ProcMsg(ptMD, psMsgBuf, iLen);
    if (iRet < 0) {
        CHLS_LOG_OF("OnRunEventHandler", LOG_ERR, TXT("ProcMsg[%d]"), iRet);
        LayAside(ptMD, psMsgBuf, iLen);
    }
}

/// -10002 when the first network start fails; otherwise it does not return.
static int OnRunEventHandler(int /*iPlugId*/, int /*iEventId*/, void* /*pInData*/, void* /*pOutData*/) {
    // Static: the host's thread need not have a stack for two megabytes.
    static char sRecvBuf[CHLS_RECV_SIZE];
    static T_KAVRO_ACCESSORIES_MD tAccMd = {{'A', 'C', 'M', 'D'}, 1, 0, 0, {}};
    static const T_KAVRO_QUE_MD tMDTmp = [] {
        T_KAVRO_QUE_MD tBlank = {};
        memcpy(tBlank.sStrucId, "MD  ", sizeof(tBlank.sStrucId));
        tBlank.iVersion = 2;
        tBlank.cMsgStoreType = KVR_STORE_DATA;
        return tBlank;
    }();
    T_KAVRO_QUE_GMO tGMO = {{'G', 'M', 'O', ' '}, 1, 0, 0, 0, 0};

    int iRet = SndrNetInit();
    if (iRet < 0) {
        CHLS_LOG(LOG_ERR, TXT("SndrNetInit error[%d]"), iRet);
        return CHLS_ERR_SETUP;
    }

    for (;;) {
        T_KAVRO_QUE_MD tMD = tMDTmp;
        int iDataLen = CHLS_RECV_SIZE;
        tMD.pOptData = &tAccMd;
        sRecvBuf[CHLS_RECV_SIZE - 1] = '\0';

        CHLS_LOG(LOG_DBG, TXT("--------------------start recv msg----------------------"));
        f_iInGet = 1;
        alarm(f_iHBInt > 0 ? static_cast<unsigned>(f_iHBInt) : 0);
        // A loss that a handler found before this point has interrupted no get yet. The get is entered all the same:
        // it is what uses the last message up.
        if (f_iHBBreak != 0) {
            WakeGet();
        }
        iRet = KVR_QueMsgGet(f_tQmgrCtx.hQueDB, f_hObjHdl, &tMD, &tGMO, sRecvBuf, &iDataLen);
        f_iInGet = 0;
        alarm(0);

        if (iRet >= 0) {
            HandleMsg(&tMD, sRecvBuf, iDataLen);
        } else if (f_iHBBreak == 0) {
            CHLS_LOG(LOG_ERR, TXT("RecvIpcMsg error[%d]"), iRet);
            EndRun();
        } else {
            Resume();
        }
    }
}

// ---- Routing

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
