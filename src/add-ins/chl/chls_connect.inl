// SPDX-License-Identifier: MIT
// A new connection: set-up of the client, the listener's address and the retries, the bind frame.

#ifndef CHLS_UNIT
#error "a part of plug_kavro_chls.cpp, not to be included elsewhere"
#endif

// ---- The client: the queue manager's TLS files, and its dead-letter queue

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

// ---- Address and retry policy are read anew for every connection, once before its first attempt. What is changed
// while attempts go on counts from the next connection

/// A negative pause or time-out means none.
static int SecondsOf(const char* psValue) {
    int iSeconds = atoi(psValue);
    return iSeconds > 0 ? iSeconds : 0;
}

/// What the definition says about one connection. After so many short retries come so many long ones.
struct T_CHLS_ROAD {
    char sHostName[CHLS_VALUE_SIZE];
    int iPort;
    int iShortTry;
    int iShortTryTmr; ///< seconds; also the send time-out
    int iLongTry;
    int iLongTryTmr; ///< seconds
};

// Steps of Connect2Lsr, whose name their lines carry. A failure leaves its reason in errno.

static int ReadRoad(T_CHLS_ROAD* ptRoad) {
    char sLongTry[CHLS_VALUE_SIZE] = {};
    char sLongTryTmr[CHLS_NAME_SIZE] = {};
    char sShortTry[CHLS_NAME_SIZE] = {};
    char sShortTryTmr[CHLS_NAME_SIZE] = {};
    char sConnName[CHLS_VALUE_SIZE] = {};
    char* psAttrNames[] = {TXT("LONGRTY"), TXT("LONGTMR"), TXT("SHORTRTY"), TXT("SHORTTMR"), TXT("CONNAME")};
    char* psAttrVals[] = {sLongTry, sLongTryTmr, sShortTry, sShortTryTmr, sConnName};
    errno = 0;
    int iRet = KVR_ObjGetAttr(f_tQmgrCtx.hObjDB, TXT("CHL"), f_sAppName, 5, psAttrNames, psAttrVals);
    if (iRet < 0) {
        int iErrno = HostErrno(ENODATA);
        CHLS_LOG_OF("Connect2Lsr", LOG_ERR, TXT("get chl[%s] error[%d]"), f_sAppName, iRet);
        errno = iErrno;
        return CHLS_FAIL;
    }
    ptRoad->iLongTry = atoi(sLongTry);
    ptRoad->iShortTry = atoi(sShortTry);
    ptRoad->iLongTryTmr = SecondsOf(sLongTryTmr);
    ptRoad->iShortTryTmr = SecondsOf(sShortTryTmr);
    CHLS_LOG_OF("Connect2Lsr", LOG_EVENT, TXT("chl[%s] conn[%s]"), f_sAppName, sConnName);
    return AnlyConnName(sConnName, &ptRoad->iPort, ptRoad->sHostName);
}

static int PrepareClient(int iSndTimeOut) {
    f_tTcpClient.iSndTimeOut = iSndTimeOut;
    int iRet = f_tTcpClient.pfnInit(&f_tTcpClient, NET_TCP_OPT_SNDTIMEO | (f_iUseSSL ? NET_TCP_OPT_SSL : 0));
    if (iRet < 0) {
        int iErrno = errno;
        CHLS_LOG_OF("Connect2Lsr", LOG_ERR, TXT("tcpclient init error[%d:%s] return[%d]"), f_tTcpClient.iErrorCode,
                    f_tTcpClient.sErrorStr, iRet);
        errno = iErrno;
        return CHLS_FAIL;
    }
    return CHLS_OK;
}

static int TryConnect(T_CHLS_ROAD* ptRoad) {
    CHLS_LOG_OF("Connect2Lsr", LOG_DBG, TXT("begin connect  [%s:%d]"), ptRoad->sHostName, ptRoad->iPort);
    int iRet = f_tTcpClient.pfnConnect(&f_tTcpClient, ptRoad->sHostName, ptRoad->iPort, 0);
    if (iRet == 0) {
        CHLS_LOG_OF("Connect2Lsr", LOG_INF, TXT("connect [%s:%d] success"), f_tTcpClient.sRemoteAddr,
                    f_tTcpClient.iRemotePort);
        return CHLS_OK;
    }
    int iErrno = errno;
    CHLS_LOG_OF("Connect2Lsr", LOG_ERR, TXT("connect [%s:%d]  error[%d:%s] return[%d]"), f_tTcpClient.sRemoteAddr,
                f_tTcpClient.iRemotePort, f_tTcpClient.iErrorCode, f_tTcpClient.sErrorStr, iRet);
    errno = iErrno;
    return CHLS_FAIL;
}

/// Connects, first with short and then with long retries. 0 when connected; -1 when the definition cannot be read, the
/// client cannot be prepared or every attempt failed; -10002 when the status cannot be written. A failure leaves its
/// reason in errno, which the caller shows.
static int Connect2Lsr(void) {
    T_CHLS_ROAD tRoad = {};
    if (ReadRoad(&tRoad) < 0 || PrepareClient(tRoad.iShortTryTmr) < 0) {
        return CHLS_FAIL;
    }
    if (SetObjStat(__func__, "RETRYING") < 0) {
        return CHLS_ERR_SETUP;
    }
    int iShortTryCnt = 0;
    int iLongTryCnt = 0;
    while (TryConnect(&tRoad) != CHLS_OK) {
        int iErrno = errno;
        CHLS_LOG(LOG_DBG, TXT("shorttry[%d] longtry[%d]"), iShortTryCnt, iLongTryCnt);
        int iPause = 0;
        if (iShortTryCnt < tRoad.iShortTry) {
            iShortTryCnt++;
            iPause = tRoad.iShortTryTmr;
        } else if (iLongTryCnt < tRoad.iLongTry) {
            iLongTryCnt++;
            iPause = tRoad.iLongTryTmr;
        } else {
            CHLS_LOG(LOG_ERR, TXT("connect[%s:%d] error shorttry[%d:%d] longtry[%d:%d]"), f_tTcpClient.sRemoteAddr,
                     f_tTcpClient.iRemotePort, iShortTryCnt, tRoad.iShortTryTmr, iLongTryCnt, tRoad.iLongTryTmr);
            errno = iErrno;
            return CHLS_FAIL;
        }
        CHLS_LOG(LOG_DBG, TXT("sleep(%d)"), iPause);
        sleep(static_cast<unsigned>(iPause));
    }
    return CHLS_OK;
}

/// Splits a connection name, "host" or "host(port)", into the host (room for CHLS_VALUE_SIZE bytes) and the port.
/// Rejects nothing: without a usable port it gives the default one. Port text beyond 63 characters is cut.
static int AnlyConnName(char* psConnName, int* piPort, char* pAddr) {
    size_t iHostLen = strcspn(psConnName, "(");
    CopyText(pAddr, iHostLen < CHLS_VALUE_SIZE ? iHostLen + 1 : CHLS_VALUE_SIZE, psConnName);
    *piPort = CHLS_DEFAULT_PORT;
    if (psConnName[iHostLen] == '\0') {
        return CHLS_OK;
    }

    const char* psPort = psConnName + iHostLen + 1;
    size_t iPortLen = strcspn(psPort, ")");
    char sPort[CHLS_NAME_SIZE];
    CopyText(sPort, iPortLen < sizeof(sPort) ? iPortLen + 1 : sizeof(sPort), psPort);
    int iPort = atoi(sPort);
    if (iPort != 0) {
        *piPort = iPort;
    }
    return CHLS_OK;
}

// ---- The bind frame names the channel to the receiver, first on every connection; no answer is awaited. A failure
// leaves its reason in errno, which the caller shows

static int BindChl(void) {
    char sBindMsg[1024] = {};
    T_KAVRO_CHL_HDR tKavroChlHdr = tKavroChlHdrTmp;
    static_assert(sizeof(tKavroChlHdr) + CHLS_NAME_SIZE <= sizeof(sBindMsg));

    int iChlNameLen = static_cast<int>(strlen(f_sAppName));
    PutNum(tKavroChlHdr.sPkgLen, iChlNameLen);
    tKavroChlHdr.sMsgType[0] = KVR_CHL_FRAME_BIND;
    memcpy(sBindMsg, &tKavroChlHdr, sizeof(tKavroChlHdr));
    memcpy(sBindMsg + sizeof(tKavroChlHdr), f_sAppName, static_cast<size_t>(iChlNameLen));
    int iSndLen = static_cast<int>(sizeof(tKavroChlHdr)) + iChlNameLen;

    if (SetObjStat(__func__, "BINDING") < 0) {
        return CHLS_ERR_SETUP;
    }
    int iRet = f_tTcpClient.pfnWrite(&f_tTcpClient, sBindMsg, iSndLen, 0);
    if (iRet != iSndLen) {
        int iErrno = errno;
        CHLS_LOG(LOG_ERR, TXT("write [%d] to receiver error[%d:%s] return[%d]"), iSndLen, f_tTcpClient.iErrorCode,
                 f_tTcpClient.sErrorStr, iRet);
        errno = iErrno;
        return CHLS_ERR_WRITE;
    }
    CHLS_LOG(LOG_INF, TXT("binding channel[%s] [%s:%d] success"), f_sAppName, f_tTcpClient.sRemoteAddr,
             f_tTcpClient.iRemotePort);
    return CHLS_OK;
}
