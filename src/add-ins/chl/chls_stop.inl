// SPDX-License-Identifier: MIT
// Event 4: stop the channel. Always 0.

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
