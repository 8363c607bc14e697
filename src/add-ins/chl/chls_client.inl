// SPDX-License-Identifier: MIT
// Set-up of the TCP client at start-up: the queue manager's TLS files and its dead-letter queue.

/// Reads the queue manager's settings and creates the client. Files are looked at by the first connection.
static int InitTcpClient(void) {
    char sCaFile[CHLS_VALUE_SIZE] = {};
    char sCertFile[CHLS_VALUE_SIZE] = {};
    char sKey[CHLS_VALUE_SIZE] = {};
    char sKeyPass[CHLS_NAME_SIZE] = {};

    int iRet =
        KVR_ObjGetAttrV(f_tQmgrCtx.hObjDB, TXT("QMGR"), TXT("QMGR"), 5, TXT("CAFILE"), TXT("CERTFILE"), TXT("KEYFILE"),
                        TXT("KEYPASS"), TXT("DEADQ"), sCaFile, sCertFile, sKey, sKeyPass, f_sDeadQ);
    if (iRet < 0) {
        CHLS_LOG(LOG_ERR, TXT("KVR_ObjGetAttrV[%s] [%s] return[%d]"), "QMGR", "QMGR", iRet);
        return CHLS_ERR_SETUP;
    }
    CHLS_LOG(LOG_INF, TXT("deadq[%s]"), f_sDeadQ);
    // The host's log masks the pass phrase.
    CHLS_LOG(LOG_INF, TXT("ca[%s] cert[%s] key[%s] keypass[%s]"), sCaFile, sCertFile, sKey, sKeyPass);

    netTcpClientCreate(&f_tTcpClient, f_ptRTCoreCtx->pfnLogPrint);
    if (f_iUseSSL) {
        CopyText(f_tTcpClient.sCaFile, sizeof(f_tTcpClient.sCaFile), sCaFile);
        CopyText(f_tTcpClient.sCertFile, sizeof(f_tTcpClient.sCertFile), sCertFile);
        CopyText(f_tTcpClient.sKeyFile, sizeof(f_tTcpClient.sKeyFile), sKey);
        CopyText(f_tTcpClient.sKeyPass, sizeof(f_tTcpClient.sKeyPass), sKeyPass);
    }
    return CHLS_OK;
}
