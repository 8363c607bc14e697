// SPDX-License-Identifier: MIT
// The bind frame: names the channel to the receiver, first on every connection. No answer is awaited. A failure leaves
// its reason in errno, which the caller shows.

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
