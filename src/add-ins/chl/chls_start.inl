// SPDX-License-Identifier: MIT
// Event 1: start the channel. Does not connect.

/// Takes the channel name from the process arguments, in upper case. -1 when it is missing or does not fit.
static int TakeAppName(void) {
    const T_RTCORE_ARGV* ptArgv = &f_ptRTCoreCtx->tRTCoreArgv;
    const char* psValue = nullptr;
    if (ptArgv->iOptc >= 0 && ptArgv->iOptc < RTCORE_ARG_MAX - CHLS_APP_NAME_ENTRY) {
        psValue = ptArgv->tArg[ptArgv->iOptc + CHLS_APP_NAME_ENTRY].psValue;
    }
    if (psValue == nullptr || strnlen(psValue, sizeof(f_sAppName)) == sizeof(f_sAppName)) {
        CHLS_LOG_OF("InitEventHandler", LOG_ERR,
                    TXT("channel name missing in the process arguments, or longer than [%d] characters"),
                    CHLS_NAME_SIZE - 1);
        return CHLS_FAIL;
    }
    CopyText(f_sAppName, sizeof(f_sAppName), psValue);
    strToUpper(f_sAppName);
    return CHLS_OK;
}

/// 0 when the channel is ready to run, -10002 on any failure; from the claim of the status object on, the exit event
/// gives it back.
static int InitEventHandler(int /*iPlugId*/, int /*iEventId*/, void* /*pInData*/, void* /*pOutData*/) {
    char sChlType[CHLS_VALUE_SIZE] = {};
    char sHBInt[CHLS_VALUE_SIZE] = {};
    char sDisConnCnt[CHLS_NAME_SIZE] = {};
    char sSSL[CHLS_VALUE_SIZE] = {};

    memset(f_sXmitQ, 0, sizeof(f_sXmitQ));
    memset(f_sDeadQ, 0, sizeof(f_sDeadQ));
    memset(&f_tQmgrCtx, 0, sizeof(f_tQmgrCtx));
    // A former life in this process may have left its connection open.
    if (f_tTcpClient.pfnClose != nullptr) {
        f_tTcpClient.pfnClose(&f_tTcpClient, 0);
    }
    memset(&f_tTcpClient, 0, sizeof(f_tTcpClient));
    f_iPid = getpid();

    int iRet = KVR_InitQmgrCtx(&f_tQmgrCtx, KVR_GetQmgrName());
    if (iRet < 0) {
        CHLS_LOG(LOG_ERR, TXT("KVR_InitQmgrCtx[%d]"), iRet);
        return CHLS_ERR_SETUP;
    }
    KVR_LogSetQMName(KVR_GetQmgrName());
    if (TakeAppName() < 0) {
        return CHLS_ERR_SETUP;
    }

    iRet = KVR_ObjGetAttrV(f_tQmgrCtx.hObjDB, TXT("CHL"), f_sAppName, 5, TXT("XMITQ"), TXT("CHLTYPE"), TXT("HBINT"),
                           TXT("DISCINT"), TXT("SSLCAUTH"), f_sXmitQ, sChlType, sHBInt, sDisConnCnt, sSSL);
    if (iRet < 0) {
        CHLS_LOG(LOG_ERR, TXT("KVR_ObjGetAttrV[%s][%s] return[%d]"), "CHL", f_sAppName, iRet);
        return CHLS_ERR_SETUP;
    }
    CHLS_LOG(LOG_INF, TXT("[%s] chltype[%s]"), f_sAppName, sChlType);
    if (strcasecmp(sChlType, "SNDR") != 0) {
        CHLS_LOG(LOG_ERR, TXT("[%s] chltype[%s] fault"), f_sAppName, sChlType);
        return CHLS_ERR_SETUP;
    }
    if (strcasecmp(sSSL, "ENABLE") == 0) {
        f_iUseSSL = 1;
    }
    f_iHBInt = atoi(sHBInt);
    CHLS_LOG(LOG_INF, TXT("HBINT[%d]"), f_iHBInt);
    f_iDisConnCnt = atoi(sDisConnCnt);

    sigset(SIGPIPE, SIG_IGN);
    // Each interrupts system calls and holds its own signal while it runs.
    if (sigset(SIGALRM, HeartBeat) == SIG_ERR) {
        int iErrno = errno;
        CHLS_LOG(LOG_ERR, TXT("sigset SIGALRM error:[%d][%s]"), iErrno, ErrText(iErrno).sText);
        return CHLS_ERR_SETUP;
    }
    if (sigset(SIGUSR2, OnNetDisconn) == SIG_ERR) {
        int iErrno = errno;
        CHLS_LOG(LOG_ERR, TXT("sigset SIGUSR2 error:[%d][%s]"), iErrno, ErrText(iErrno).sText);
        return CHLS_ERR_SETUP;
    }

    iRet = InitObjStat(f_sAppName);
    if (iRet < 0) {
        CHLS_LOG(LOG_ERR, TXT("AddObjStat[%s] return[%d]"), f_sAppName, iRet);
        return CHLS_ERR_SETUP;
    }
    f_iIsInit = 1;
    CopyText(f_sClaimed, sizeof(f_sClaimed), f_sAppName);
    iRet = InitTcpClient();
    if (iRet < 0) {
        CHLS_LOG(LOG_ERR, TXT("InitTcpClient return[%d]"), iRet);
        return CHLS_ERR_SETUP;
    }
    iRet = KVR_QueOpen(f_tQmgrCtx.hQueDB, f_sXmitQ, &f_hObjHdl, 0);
    if (iRet < 0) {
        CHLS_LOG(LOG_ERR, TXT("KVR_QueOpen[%s] return[%d]"), f_sXmitQ, iRet);
        f_hObjHdl = nullptr;
        return CHLS_ERR_SETUP;
    }
    return CHLS_OK;
}
