// SPDX-License-Identifier: MIT
// The network start: the one entry into link management for the run loop and the router.

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
