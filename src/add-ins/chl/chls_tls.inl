// SPDX-License-Identifier: MIT
// What a line inside TLS needs beside the writes: a receiver's session tickets taken in, and an end in order.

/// Lets the client take in what TLS itself sent (session tickets): 0, or -1 when the receiver said something or left.
/// Left unread when the process ends, it would make the kernel reset the connection and throw away what the receiver
/// has not read yet.
static int TakeTlsRecords(void) {
    if (f_iUseSSL && f_iNetStat && f_tTcpClient.iSocketNo > 0) {
        return f_tTcpClient.pfnWrite(&f_tTcpClient, TXT(""), 0, 0);
    }
    return CHLS_OK;
}

static long NowMs(void) {
    timespec tNow;
    clock_gettime(CLOCK_MONOTONIC, &tNow);
    return tNow.tv_sec * 1000 + tNow.tv_nsec / 1000000;
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
    const long lEndMs = NowMs() + CHLS_TLS_END_MS;
    for (long lLeftMs = CHLS_TLS_END_MS; lLeftMs > 0; lLeftMs = lEndMs - NowMs()) {
        pollfd tPoll = {iSocketNo, POLLIN, 0};
        if (poll(&tPoll, 1, static_cast<int>(lLeftMs)) >= 0 || errno != EINTR) {
            break;
        }
    }
    for (int i = 0; i < CHLS_TLS_END_READS && recv(iSocketNo, sBuf, sizeof(sBuf), MSG_DONTWAIT) > 0; i++) {
    }
}
