// SPDX-License-Identifier: MIT
// The heartbeat: SIGALRM while the run loop waits in its get. It keeps the line alive and tests it.

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
