// SPDX-License-Identifier: MIT
// The plug-in's life: registration, and the events that start (1) and stop (4) the channel. Event 2 is chls_run.inl's.

#ifndef CHLS_UNIT
#error "a part of plug_kavro_chls.cpp, not to be included elsewhere"
#endif

// ---- Entry

constexpr int CHLS_EVENT_INIT = 1;
constexpr int CHLS_EVENT_RUN = 2;
constexpr int CHLS_EVENT_EXIT = 4;

/// Called once by the plug-in manager, before any event. Keeps the block and its context; 0.
extern "C" __attribute__((visibility("default"))) int OnPlugLoad(T_PLUG_MGR_PLUG_VAR* ptPlugVar) {
    ptPlugVar->pfnEventHdl = EventHandlers;
    f_ptPlugVar = ptPlugVar;
    f_ptRTCoreCtx = ptPlugVar->ptRTCoreCtx;
    return CHLS_OK;
}

static int EventHandlers(int iPlugId, int iEventId, void* pInData, void* pOutData) {
    switch (iEventId) {
    case CHLS_EVENT_INIT:
        return InitEventHandler(iPlugId, iEventId, pInData, pOutData);
    case CHLS_EVENT_RUN:
        return OnRunEventHandler(iPlugId, iEventId, pInData, pOutData);
    case CHLS_EVENT_EXIT:
        return ExitEventHandler(iPlugId, iEventId, pInData, pOutData);
    default:
        return DefaultEventHandler(iPlugId, iEventId, pInData, pOutData);
    }
}

static int DefaultEventHandler(int /*iPlugId*/, int /*iEventId*/, void* /*pInData*/, void* /*pOutData*/) {
    return CHLS_OK;
}

// ---- Event 1: start. Does not connect

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

/// Reads what the definition says of the sending end itself; how to connect is read by each connection.
static int ReadChlDef(void) {
    char sChlType[CHLS_VALUE_SIZE] = {};
    char sHBInt[CHLS_VALUE_SIZE] = {};
    char sDisConnCnt[CHLS_NAME_SIZE] = {};
    char sSSL[CHLS_VALUE_SIZE] = {};
    int iRet = KVR_ObjGetAttrV(f_tQmgrCtx.hObjDB, TXT("CHL"), f_sAppName, 5, TXT("XMITQ"), TXT("CHLTYPE"), TXT("HBINT"),
                               TXT("DISCINT"), TXT("SSLCAUTH"), f_sXmitQ, sChlType, sHBInt, sDisConnCnt, sSSL);
    if (iRet < 0) {
        CHLS_LOG_OF("InitEventHandler", LOG_ERR, TXT("KVR_ObjGetAttrV[%s][%s] return[%d]"), "CHL", f_sAppName, iRet);
        return CHLS_FAIL;
    }
    CHLS_LOG_OF("InitEventHandler", LOG_INF, TXT("[%s] chltype[%s]"), f_sAppName, sChlType);
    if (strcasecmp(sChlType, "SNDR") != 0) {
        CHLS_LOG_OF("InitEventHandler", LOG_ERR, TXT("[%s] chltype[%s] fault"), f_sAppName, sChlType);
        return CHLS_FAIL;
    }
    if (strcasecmp(sSSL, "ENABLE") == 0) {
        f_iUseSSL = 1;
    }
    f_iHBInt = atoi(sHBInt);
    CHLS_LOG_OF("InitEventHandler", LOG_INF, TXT("HBINT[%d]"), f_iHBInt);
    f_iDisConnCnt = atoi(sDisConnCnt);
    return CHLS_OK;
}

/// A handler interrupts system calls and holds its own signal while it runs.
static int SetHandler(const char* psSig, int iSig, void (*pfnHandler)(int)) {
    if (sigset(iSig, pfnHandler) != SIG_ERR) {
        return CHLS_OK;
    }
    int iErrno = errno;
    CHLS_LOG_OF("InitEventHandler", LOG_ERR, TXT("sigset %s error:[%d][%s]"), psSig, iErrno, ErrText(iErrno).sText);
    return CHLS_FAIL;
}

/// 0 when the channel is ready to run, -10002 on any failure; from the claim of the status object on, the exit event
/// gives it back.
static int InitEventHandler(int /*iPlugId*/, int /*iEventId*/, void* /*pInData*/, void* /*pOutData*/) {
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
    if (TakeAppName() < 0 || ReadChlDef() < 0) {
        return CHLS_ERR_SETUP;
    }
    sigset(SIGPIPE, SIG_IGN);
    if (SetHandler("SIGALRM", SIGALRM, HeartBeat) < 0 || SetHandler("SIGUSR2", SIGUSR2, OnNetDisconn) < 0) {
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

// ---- Event 4: stop. Always 0

static void CloseQueue(char* psName, T_KVR_QUE_OBJ_HANDLE* phObj) {
    if (*phObj == nullptr) {
        return;
    }
    int iRet = KVR_QueClose(f_tQmgrCtx.hQueDB, psName, *phObj, 0);
    if (iRet < 0) {
        CHLS_LOG_OF("ExitEventHandler", LOG_ERR, TXT("KVR_QueClose[%s] return[%d]"), psName, iRet);
    }
    // A second exit event, or a second life of the process, must not use a closed handle.
    *phObj = nullptr;
}

/// Marks the status object first, because what follows can wait; closes the queues only when the watcher is gone.
static int ExitEventHandler(int /*iPlugId*/, int /*iEventId*/, void* /*pInData*/, void* /*pOutData*/) {
    char sPID[CHLS_VALUE_SIZE] = "-1";
    char sSTAT[CHLS_VALUE_SIZE] = "STOPED";
    if (!f_iIsInit) {
        return CHLS_OK;
    }
    // A host may raise this inside the get; no heartbeat may interrupt what follows.
    f_iInGet = 0;
    // After a start that was refused, or a former exit, the object may be another process's.
    if (f_sClaimed[0] != '\0') {
        int iRet =
            KVR_ObjSetAttrV(f_tQmgrCtx.hObjDB, TXT("CHS"), f_sClaimed, 2, TXT("PID"), TXT("STATUS"), sPID, sSTAT);
        if (iRet < 0) {
            CHLS_LOG(LOG_ERR, TXT("KVR_ObjSetAttrV[%s][%s] return[%d]"), "CHS", f_sClaimed, iRet);
        } else {
            f_sClaimed[0] = '\0';
        }
    }
    StopNetChkProc(__func__);
    CloseQueue(f_sXmitQ, &f_hObjHdl);
    CloseQueue(f_sDeadQ, &f_hDeaqHdl);
    EndTlsLine();
    return CHLS_OK;
}
