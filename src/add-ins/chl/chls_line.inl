// SPDX-License-Identifier: MIT
// The line: the network start, the one entry into link management for the run loop and the router; the heartbeat, which
// keeps the line alive and tests it; what the status object says of it.

#ifndef CHLS_UNIT
#error "a part of plug_kavro_chls.cpp, not to be included elsewhere"
#endif

// ---- Network start

/// Records the running line in the status object.
static int SetObjRuning(void) {
    char sLAddr[CHLS_NAME_SIZE] = {};
    char sLPort[CHLS_NAME_SIZE] = {};
    char sRAddr[CHLS_VALUE_SIZE] = {};
    char sRPort[CHLS_NAME_SIZE] = {};
    char* psAttrNames[6] = {TXT("STATUS"), TXT("LOCALIP"), TXT("LOCALPORT"), TXT("REMOTEIP"), TXT("REMOTEPORT")};
    char* psAttrVals[6] = {TXT("RUNING"), sLAddr, sLPort, sRAddr, sRPort};

    CopyText(sLAddr, sizeof(sLAddr), f_tTcpClient.sLocalAddr);
    snprintf(sLPort, sizeof(sLPort), "%d", f_tTcpClient.iLocalPort);
    CopyText(sRAddr, sizeof(sRAddr), f_tTcpClient.sRemoteAddr);
    snprintf(sRPort, sizeof(sRPort), "%d", f_tTcpClient.iRemotePort);
    int iRet = KVR_ObjSetAttr(f_tQmgrCtx.hObjDB, TXT("CHS"), f_sAppName, 5, psAttrNames, psAttrVals);
    if (iRet < 0) {
        CHLS_LOG_OF("SndrNetInit", LOG_ERR, TXT("KVR_ObjSetAttr[%s][%s] return[%d]"), "CHS", f_sAppName, iRet);
        return CHLS_ERR_SETUP;
    }
    return CHLS_OK;
}

/// Connects, binds, starts the watcher and records the line.
static int StartLine(void) {
    if (Connect2Lsr() < 0) {
        int iErrno = errno;
        CHLS_LOG_OF("SndrNetInit", LOG_ERR, TXT("Connect2Lsr error[%d:%s]"), iErrno, ErrText(iErrno).sText);
        return CHLS_FAIL;
    }
    SetLineOpt(TCP_NODELAY, 1);
    if (BindChl() < 0) {
        int iErrno = errno;
        CHLS_LOG_OF("SndrNetInit", LOG_ERR, TXT("BindChl error[%d:%s]"), iErrno, ErrText(iErrno).sText);
        f_tTcpClient.pfnClose(&f_tTcpClient, 0);
        return CHLS_FAIL;
    }
    f_iNetStat = 1;
    if (StartNetChkProc() < 0) {
        int iErrno = errno;
        CHLS_LOG_OF("SndrNetInit", LOG_ERR, TXT("fork error[%d:%s]"), iErrno, ErrText(iErrno).sText);
        return CHLS_FAIL;
    }
    return SetObjRuning();
}

/// Holds the channel's own signals and `iAlso` (0: none); the mask before is for the caller to restore. SIGCHLD, which
/// the watcher's end raises, is held for a moment only: a host may have children of its own to reap.
static void HoldSignals(sigset_t* ptBefore, int iAlso) {
    sigset_t tHeld;
    sigemptyset(&tHeld);
    sigaddset(&tHeld, SIGUSR2);
    sigaddset(&tHeld, SIGALRM);
    if (iAlso > 0) {
        sigaddset(&tHeld, iAlso);
    }
    pthread_sigmask(SIG_BLOCK, &tHeld, ptBefore);
}

/// Makes sure of a bound connection with a watcher: at once when the line is up, otherwise through a new connection.
/// 0; -1 when connection, bind or watcher failed; -10002 when the line is up but could not be recorded. A line signal
/// that was held comes at the end, so the line of a start that succeeded can be down again: the next write fails then,
/// or the next get is interrupted.
static int SndrNetInit(void) {
    if (f_tTcpClient.pfnInit == nullptr) {
        CHLS_LOG(LOG_ERR, TXT("network start without a started channel"));
        return CHLS_FAIL;
    }
    if (f_iNetStat) {
        // A second start in one process has cleared the client under a line that was up: nothing to test or to close.
        int iSocketNo = f_tTcpClient.iSocketNo;
        int iRet = iSocketNo > 0 ? sockCanRead(iSocketNo) : 1;
        if (iRet == 0) {
            CHLS_LOG(LOG_DBG, TXT("NETSTAT[%d]"), static_cast<int>(f_iNetStat));
            return CHLS_OK;
        }
        if (iRet < 0) {
            CHLS_LOG(LOG_ERR, TXT("sockCanRead [%d]"), iRet);
        }
        f_iNetStat = 0;
        f_tTcpClient.pfnClose(&f_tTcpClient, 0);
        CHLS_LOG(LOG_EVENT, TXT("RCVER CLOSED"));
    }
    StopNetChkProc(__func__);

    // Until the new watcher runs, a line signal from anybody would close the new client under way, and a stray alarm
    // would break the connect off: both are held and delivered afterwards.
    sigset_t tBefore;
    HoldSignals(&tBefore, 0);
    int iRet = StartLine();
    pthread_sigmask(SIG_SETMASK, &tBefore, nullptr);
    if (iRet < 0 && !f_iNetStat) {
        // With signals held the client only puts a connection aside: now it is given back.
        f_tTcpClient.pfnClose(&f_tTcpClient, 0);
    }
    return iRet;
}

// ---- Heartbeat: SIGALRM while the run loop waits in its get

static void BeatLine(int iSocketNo) {
    T_KAVRO_CHL_HDR tKavroChlHdr = tKavroChlHdrTmp;
    tKavroChlHdr.sMsgType[0] = KVR_CHL_FRAME_HEARTBEAT;
    int iSndLen = static_cast<int>(sizeof(tKavroChlHdr));

    if (sockCanRead(iSocketNo) == 1) {
        f_tTcpClient.pfnClose(&f_tTcpClient, 0);
        f_iNetStat = 0;
        CHLS_LOG_OF("HeartBeat", LOG_EVENT, TXT("RCVER CLOSED"));
        return;
    }
    int iRet = f_tTcpClient.pfnWrite(&f_tTcpClient, &tKavroChlHdr, iSndLen, 0);
    if (iRet != iSndLen) {
        // The close clears the client's code and text, which the line is to show.
        int iErrorCode = f_tTcpClient.iErrorCode;
        char sErrorStr[sizeof(f_tTcpClient.sErrorStr)];
        CopyText(sErrorStr, sizeof(sErrorStr), f_tTcpClient.sErrorStr);
        f_tTcpClient.pfnClose(&f_tTcpClient, 0);
        f_iNetStat = 0;
        CHLS_LOG_OF("HeartBeat", LOG_ERR, TXT("write [%d] to receiver error[%d:%s] return[%d]"), iSndLen, iErrorCode,
                    sErrorStr, iRet);
    } else {
        CHLS_LOG_OF("HeartBeat", LOG_INF, TXT("heartbeat channel[%s] [%s:%d]"), f_sAppName, f_tTcpClient.sRemoteAddr,
                    f_tTcpClient.iRemotePort);
    }
}

/// Calls: sockCanRead, the client's write and close (made for handlers), alarm and the host's log.
/// An alarm at any other time, or without a line, only raises the flag: bytes would fall into a frame or nowhere.
static void HeartBeat(int /*iSig*/) {
    int iErrno = errno;
    f_iHBBreak = 1;
    // Read once: the line-loss handler may empty the record in between, but leaves the number allotted.
    int iSocketNo = f_tTcpClient.iSocketNo;
    if (f_iInGet && f_iNetStat && iSocketNo > 0) {
        BeatLine(iSocketNo);
    }
    WakeGet();
    errno = iErrno;
}

// ---- When bytes leave. A message is written in three or more pieces: under TCP_CORK they leave as one segment when
// the message is complete, and with TCP_NODELAY neither a lone message nor a bind or heartbeat frame waits for the peer

/// Sets TCP_NODELAY or TCP_CORK on the line. A failure costs speed, not bytes, so it is not looked at.
static void SetLineOpt(int iOpt, int iOn) {
    int iSocketNo = f_tTcpClient.iSocketNo;
    if (iSocketNo > 0) {
        setsockopt(iSocketNo, IPPROTO_TCP, iOpt, &iOn, sizeof(iOn));
    }
}

// ---- What a line inside TLS needs beside the writes

/// Lets the client take in what TLS itself sent (session tickets): 0, or -1 when the receiver said something or left.
/// Left unread when the process ends, it would make the kernel reset the connection and throw away what the receiver
/// has not read yet.
static int TakeTlsRecords(void) {
    if (f_iUseSSL && f_iNetStat && f_tTcpClient.iSocketNo > 0) {
        return f_tTcpClient.pfnWrite(&f_tTcpClient, TXT(""), 0, 0);
    }
    return CHLS_OK;
}

/// The last thing on a TLS line before its last descriptor goes with the process: an end that costs nothing of what the
/// receiver has not read yet.
static void EndTlsLine(void) {
    if (f_iUseSSL && f_iNetStat && f_tTcpClient.iSocketNo > 0) {
        f_tTcpClient.pfnWrite(&f_tTcpClient, TXT(""), 0, NET_TCP_WRITE_END);
    }
}

// ---- The status object (class "CHS", named as the channel): claimed at start-up, shown to operators. The network
// start writes "RUNING" with both ends of the line, the shutdown "STOPED"; the steps between write one word

/// Creates the status object or claims it for this process; refuses while a live process holds the channel.
static int InitObjStat(char* psChlName) {
    char sPID[CHLS_VALUE_SIZE] = {};
    char sSTAT[CHLS_VALUE_SIZE] = {};
    char* psAttrNames[] = {TXT("PID"), TXT("STATUS")};
    char* psAttrVals[] = {sPID, TXT("BINDING")};

    int iRet = KVR_ObjGetAttrV(f_tQmgrCtx.hObjDB, TXT("CHS"), psChlName, 2, TXT("PID"), TXT("STATUS"), sPID, sSTAT);
    if (iRet < 0) {
        CHLS_LOG(LOG_DBG, TXT("KVR_ObjGetAttrV[%s][%s] return[%d]"), "CHS", psChlName, iRet);
        snprintf(sPID, sizeof(sPID), "%d", f_iPid);
        iRet = KVR_ObjAdd(f_tQmgrCtx.hObjDB, TXT("CHS"), psChlName, 2, psAttrNames, psAttrVals, 0);
        if (iRet < 0) {
            CHLS_LOG(LOG_ERR, TXT("KVR_ObjAdd[%s][%s] return[%d]"), "CHS", psChlName, iRet);
            return CHLS_ERR_SETUP;
        }
        return CHLS_OK;
    }

    CHLS_LOG(LOG_DBG, TXT("%s stat [%s] pid[%s]"), psChlName, sSTAT, sPID);
    const int iStopped = strcmp(sSTAT, "STOPED") == 0;
    const int iPid = atoi(sPID);
    if (strcmp(psChlName, f_sClaimed) == 0 && (iStopped || iPid != f_iPid)) {
        f_sClaimed[0] = '\0'; // taken over since an earlier start in this process
    }
    if (!iStopped) {
        // Ids below 1 name groups of processes to the system; none of them holds a channel.
        if (iPid > 0 && procIsExist(iPid) > 0) {
            CHLS_LOG(LOG_ERR, TXT("%s stat[%s] pid[%d]"), psChlName, sSTAT, iPid);
            return CHLS_ERR_SETUP;
        }
    }

    snprintf(sPID, sizeof(sPID), "%d", f_iPid);
    CopyText(sSTAT, sizeof(sSTAT), "BINDING");
    iRet = KVR_ObjSetAttrV(f_tQmgrCtx.hObjDB, TXT("CHS"), psChlName, 2, TXT("PID"), TXT("STATUS"), sPID, sSTAT);
    if (iRet < 0) {
        CHLS_LOG(LOG_ERR, TXT("KVR_ObjSetAttrV[%s][%s] return[%d]"), "CHS", psChlName, iRet);
        return CHLS_ERR_SETUP;
    }
    return CHLS_OK;
}

/// Writes the status word alone; a failure is logged as that of `psFunc` and leaves its reason in errno.
static int SetObjStat(const char* psFunc, const char* psStat) {
    errno = 0;
    int iRet = KVR_ObjSetAttrV(f_tQmgrCtx.hObjDB, TXT("CHS"), f_sAppName, 1, TXT("STATUS"), TXT(psStat));
    if (iRet < 0) {
        int iErrno = HostErrno(EIO);
        CHLS_LOG_OF(psFunc, LOG_ERR, TXT("KVR_ObjSetAttrV[%s][%s] return[%d]"), "CHS", f_sAppName, iRet);
        errno = iErrno;
    }
    return iRet;
}
