// SPDX-License-Identifier: MIT
// The status object (class "CHS", named as the channel): claimed at start-up, shown to operators.
// The network start writes "RUNING" with both ends of the line, the shutdown "STOPED"; the steps between write one
// word.

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
