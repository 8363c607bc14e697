// SPDX-License-Identifier: MIT
// When bytes leave. A message is written in three or more pieces: under TCP_CORK they leave as one segment when the
// message is complete, and with TCP_NODELAY neither a lone message nor a bind or heartbeat frame waits for the peer.

/// Sets TCP_NODELAY or TCP_CORK on the line. A failure costs speed, not bytes, so it is not looked at.
static void SetLineOpt(int iOpt, int iOn) {
    int iSocketNo = f_tTcpClient.iSocketNo;
    if (iSocketNo > 0) {
        setsockopt(iSocketNo, IPPROTO_TCP, iOpt, &iOn, sizeof(iOn));
    }
}

/// Lets the client take in what TLS itself sent (session tickets): 0, or -1 when the receiver said something or left.
/// Left unread when the process ends, it would make the kernel reset the connection and throw away what the receiver
/// has not read yet.
static int TakeTlsRecords(void) {
    if (f_iUseSSL && f_iNetStat && f_tTcpClient.iSocketNo > 0) {
        return f_tTcpClient.pfnWrite(&f_tTcpClient, TXT(""), 0, 0);
    }
    return CHLS_OK;
}

/// The last thing on a TLS line before its last descriptor goes with the process. Session tickets that are unread then,
/// or still on their way from a receiver that is behind with its handshake, would make the kernel reset the connection
/// and throw away what the receiver has not read yet. So the end of the stream is sent, and the receiver's own end
/// waited for a moment: one that keeps up answers at once, and a slow one has sent its tickets by then.
static void EndTlsLine(void) {
    char sBuf[CHLS_VALUE_SIZE];
    int iSocketNo = f_tTcpClient.iSocketNo;
    if (!f_iUseSSL || !f_iNetStat || iSocketNo <= 0) {
        return;
    }
    shutdown(iSocketNo, SHUT_WR);
    pollfd tPoll = {iSocketNo, POLLIN, 0};
    poll(&tPoll, 1, CHLS_TLS_END_MS);
    while (recv(iSocketNo, sBuf, sizeof(sBuf), MSG_DONTWAIT) > 0) {
    }
}
