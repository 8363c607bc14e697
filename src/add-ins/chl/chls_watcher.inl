// SPDX-License-Identifier: MIT
// The line watcher: a child process per connection that waits until the socket becomes readable, which means that the
// receiver closed it, and then tells the channel process with SIGUSR2. A pipe whose only write end the channel process
// holds lets it end with that process, however that ends.

#ifndef CHLS_UNIT
#error "a part of plug_kavro_chls.cpp, not to be included elsewhere"
#endif

/// Moves a descriptor above the standard ones. Returns -1 with the descriptor closed and errno set.
static int UsableFD(int iFD) {
    if (iFD > STDERR_FILENO) {
        return iFD;
    }
    int iNewFD = fcntl(iFD, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    int iErrno = errno;
    close(iFD);
    errno = iErrno;
    return iNewFD;
}

/// Opens the lifeline pipe. 0, or -1 with nothing open and errno set.
static int OpenLifeline(int* iFDArr) {
    if (pipe2(iFDArr, O_CLOEXEC) < 0) {
        return CHLS_FAIL;
    }
    iFDArr[0] = UsableFD(iFDArr[0]);
    int iErrno = errno;
    iFDArr[1] = UsableFD(iFDArr[1]);
    if (iFDArr[0] >= 0 && iFDArr[1] >= 0) {
        return CHLS_OK;
    }
    if (iFDArr[0] < 0) {
        errno = iErrno;
    }
    iErrno = errno;
    for (int i = 0; i < 2; i++) {
        if (iFDArr[i] >= 0) {
            close(iFDArr[i]);
        }
    }
    errno = iErrno;
    return CHLS_FAIL;
}

/// In the watcher: gives up what it inherited and must not keep. It ends with its pipe or its socket, so no signal of
/// the terminal or of the process group may end it before; handlers of the channel or the host would act on copies.
static void ShedInherited(int iWriteEnd) {
    close(iWriteEnd);
    const int iSigs[] = {SIGALRM, SIGUSR2, SIGUSR1, SIGINT, SIGTERM, SIGHUP, SIGQUIT};
    for (int iSig : iSigs) {
        signal(iSig, SIG_IGN);
    }
    for (int iSig = 1; iSig < NSIG; iSig++) {
        struct sigaction tAction;
        if (sigaction(iSig, nullptr, &tAction) == 0 && tAction.sa_handler != SIG_DFL && tAction.sa_handler != SIG_IGN) {
            signal(iSig, SIG_IGN);
        }
    }
    sigset_t tNone;
    sigemptyset(&tNone);
    pthread_sigmask(SIG_SETMASK, &tNone, nullptr);
}

/// Forks the watcher of the current connection. Its process id, or -1; never returns in the watcher.
static int StartNetChkProc(void) {
    int iFDArr[2] = {-1, -1};
    if (f_iChlLineFD > 0) {
        close(f_iChlLineFD);
        f_iChlLineFD = 0;
    }
    if (OpenLifeline(iFDArr) < 0) {
        int iErrno = errno;
        CHLS_LOG(LOG_ERR, TXT("pipe error[%d:%s]"), iErrno, ErrText(iErrno).sText);
        errno = iErrno;
        return CHLS_FAIL;
    }

    f_iMonPid = fork();
    if (f_iMonPid < 0) {
        int iErrno = errno;
        CHLS_LOG(LOG_ERR, TXT("fork error[%d:%s]"), iErrno, ErrText(iErrno).sText);
        close(iFDArr[0]);
        close(iFDArr[1]);
        errno = iErrno;
        return CHLS_FAIL;
    }
    if (f_iMonPid == 0) {
        ShedInherited(iFDArr[1]);
        f_iChlLineFD = iFDArr[0];
        CheckNetStat();
        _exit(0);
    }
    close(iFDArr[0]);
    f_iChlLineFD = iFDArr[1];
    return f_iMonPid;
}

/// Waits until the lifeline or the socket is readable: 1 when the lifeline is, 0 when only the socket is, -1 with errno
/// set. A number that does not fit a set is left to poll, which answers alike; moving it below FD_SETSIZE would take a
/// number that may be the host's log.
static int AwaitEnd(int iLifeFD, int iSocketNo) {
    const int iMaxFd = iSocketNo > iLifeFD ? iSocketNo : iLifeFD;
    if (iMaxFd >= FD_SETSIZE) {
        pollfd tPolls[] = {{iLifeFD, POLLIN, 0}, {iSocketNo, POLLIN, 0}};
        return poll(tPolls, 2, -1) < 0 ? -1 : tPolls[0].revents != 0;
    }
    fd_set rdfds;
    FD_ZERO(&rdfds);
    FD_SET(iSocketNo, &rdfds);
    FD_SET(iLifeFD, &rdfds);
    return select(iMaxFd + 1, &rdfds, nullptr, nullptr, nullptr) < 0 ? -1 : FD_ISSET(iLifeFD, &rdfds) != 0;
}

/// In the watcher: waits for the end of the line or of the channel process and reports it.
static void CheckNetStat(void) {
    int f_iPPid = getppid();

    CHLS_LOG(LOG_INF, TXT("-----------------------begin check line-------------------------"));
    const int iGone = AwaitEnd(f_iChlLineFD, f_tTcpClient.iSocketNo);
    if (iGone < 0) {
        int iErrno = errno;
        CHLS_LOG(LOG_ERR, TXT("select error[%d:%s]"), iErrno, ErrText(iErrno).sText);
        return;
    }
    // The pipe first: once the channel process is gone, its id may be a stranger's, who must not get the signal.
    if (iGone) {
        CHLS_LOG(LOG_GONE, TXT("parent abort[%d]"), f_iPPid);
        // It now holds the connection's last descriptor.
        EndTlsLine();
        return;
    }
    CHLS_LOG(LOG_ERR, TXT("connection lost"));
    CHLS_LOG(LOG_INF, TXT("----------------------line disconnected------------------------ "));
    // A channel process may be the first of its container; 0 stands for one outside this process's namespace.
    if (f_iPPid > 0) {
        procSndSig2Proc(f_iPPid, SIGUSR2);
    }
    _exit(0);
}

/// Kills and reaps the watcher, if there is one. A wait that a signal interrupted is repeated. Logs as `psFunc`.
static void StopNetChkProc(const char* psFunc) {
    if (f_iMonPid <= 0) {
        return;
    }
    const int iExist = procIsExist(f_iMonPid);
    const int iKilled = iExist > 0 && procSndSig2Proc(f_iMonPid, SIGKILL) >= 0;
    if (iExist > 0 && !iKilled) {
        int iErrno = errno;
        CHLS_LOG_OF(psFunc, LOG_ERR, TXT("procSndSig2Proc f_iMonPid[%d] error[%d:%s]"), f_iMonPid, iErrno,
                    ErrText(iErrno).sText);
    }
    // One that could not be killed, or is there against the host's word, ends with its pipe; the wait would last for
    // ever otherwise.
    if (!iKilled && f_iChlLineFD > 0) {
        close(f_iChlLineFD);
        f_iChlLineFD = 0;
    }
    CHLS_LOG_OF(psFunc, LOG_DBG, TXT("waitpid %d begin"), f_iMonPid);
    while (waitpid(f_iMonPid, nullptr, 0) != f_iMonPid) {
        int iErrno = errno;
        CHLS_LOG_OF(psFunc, LOG_INF, TXT("Waitpid error[%d:%s]"), iErrno, ErrText(iErrno).sText);
        if (iErrno != EINTR) {
            break;
        }
    }
    CHLS_LOG_OF(psFunc, LOG_DBG, TXT("waitpid %d end"), f_iMonPid);
    f_iMonPid = 0;
}

/// Closes the client but leaves the code and text of a failed operation, which the close clears and which the main flow
/// may be about to show. The client's next operation clears them.
static void CloseKeepingError(void) {
    int iErrorCode = f_tTcpClient.iErrorCode;
    char sErrorStr[sizeof(f_tTcpClient.sErrorStr)];
    memcpy(sErrorStr, f_tTcpClient.sErrorStr, sizeof(sErrorStr));
    f_tTcpClient.pfnClose(&f_tTcpClient, 0);
    if (iErrorCode != 0) {
        memcpy(f_tTcpClient.sErrorStr, sErrorStr, sizeof(sErrorStr));
        f_tTcpClient.iErrorCode = iErrorCode;
    }
}

/// SIGUSR2, at any point of the main flow. Calls: the client's close (which in a handler neither frees nor gives back
/// the descriptor number), alarm and the host's log. Before the client exists it only raises and lowers the flags.
static void OnNetDisconn(int /*iSig*/) {
    int iErrno = errno;
    f_iHBBreak = 1;
    if (f_tTcpClient.pfnClose != nullptr) {
        CloseKeepingError();
    }
    f_iNetStat = 0;
    WakeGet();
    CHLS_LOG(LOG_EVENT, TXT("line disconnected [%d]"), static_cast<int>(f_iNetStat));
    errno = iErrno;
}
