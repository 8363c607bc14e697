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
