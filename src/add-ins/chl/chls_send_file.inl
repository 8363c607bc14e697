// SPDX-License-Identifier: MIT
// A file frame: the file's length in 8 digits, then its contents in chunks.

#ifndef CHLS_UNIT
#error "a part of plug_kavro_chls.cpp, not to be included elsewhere"
#endif

/// Opens a regular file for reading. Nothing else is opened: a FIFO would block, a directory has no length. Null with
/// errno set on failure. Unbuffered, so that every chunk is one read into the caller's buffer.
static FILE* OpenFile(const char* psFileName) {
    int iFD = open(psFileName, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (iFD < 0) {
        return nullptr;
    }
    struct stat tStat;
    int iErrno = 0;
    if (fstat(iFD, &tStat) < 0) {
        iErrno = errno;
    } else if (!S_ISREG(tStat.st_mode)) {
        iErrno = S_ISDIR(tStat.st_mode) ? EISDIR : ESPIPE;
    }
    FILE* fp = nullptr;
    if (iErrno == 0) {
        fp = fdopen(iFD, "rb");
        iErrno = errno;
    }
    if (fp == nullptr) {
        close(iFD);
        errno = iErrno;
        return nullptr;
    }
    setvbuf(fp, nullptr, _IONBF, 0);
    return fp;
}

/// Length of an open file, left positioned at its start; -1 when it cannot be sent (already logged).
static long SizeFile(FILE* fp, const char* psFileName) {
    int iRet = fseek(fp, 0, SEEK_END);
    if (iRet < 0) {
        int iErrno = errno;
        CHLS_LOG_OF("SendFile2Rcvr", LOG_ERR, TXT("fseek [%s] ret[%d] error[%d:%s]"), psFileName, iRet, iErrno,
                    ErrText(iErrno).sText);
        return -1;
    }
    errno = 0;
    long lFileLen = ftell(fp);
    if (lFileLen <= 0 || lFileLen > KVR_CHL_NUM_MAX) {
        int iErrno = lFileLen > KVR_CHL_NUM_MAX ? EFBIG : errno;
        CHLS_LOG_OF("SendFile2Rcvr", LOG_ERR, TXT("tell [%s] ret[%ld] error[%d:%s]"), psFileName, lFileLen, iErrno,
                    ErrText(iErrno).sText);
        return -1;
    }
    iRet = fseek(fp, 0, SEEK_SET);
    if (iRet < 0) {
        int iErrno = errno;
        CHLS_LOG_OF("SendFile2Rcvr", LOG_ERR, TXT("fseek [%s] ret[%d] error[%d:%s]"), psFileName, iRet, iErrno,
                    ErrText(iErrno).sText);
        return -1;
    }
    return lFileLen;
}

/// Writes one piece of the file frame; a failure closes the connection.
static int WriteFilePiece(char* psData, int iLen) {
    int iRet = f_tTcpClient.pfnWrite(&f_tTcpClient, psData, iLen, 0);
    if (iRet != iLen) {
        CHLS_LOG_OF("SendFile2Rcvr", LOG_ERR, TXT("write data[%d] to receiver error[%d:%s] return[%d]"), iLen,
                    f_tTcpClient.iErrorCode, f_tTcpClient.sErrorStr, iRet);
        f_tTcpClient.pfnClose(&f_tTcpClient, 0);
        return CHLS_ERR_WRITE;
    }
    return CHLS_OK;
}

/// The same as LetHostStop between the pieces of a file, of which TLS writes that are not interrupted call no operation
/// of the host: the readability check costs less, and lets a host finish what makes progress.
static void LetHostStopInFile(void) {
    int iSocketNo = f_tTcpClient.iSocketNo;
    if (f_iUseSSL && iSocketNo > 0) {
        sockCanRead(iSocketNo);
    }
}

/// Sends exactly the announced bytes. A file that ended before them fails: the stream would be out of step, so the
/// caller gives the connection up.
static int SendFileData(FILE* fp, const char* psFileName, long lFileLen) {
    char sFileData[CHLS_FILE_CHUNK];
    int iSndFileData = 0;
    while (iSndFileData < lFileLen) {
        long lRest = lFileLen - iSndFileData;
        int iLen = static_cast<int>(
            fread(sFileData, 1, lRest < CHLS_FILE_CHUNK ? static_cast<size_t>(lRest) : sizeof(sFileData), fp));
        if (ferror(fp)) {
            int iErrno = errno;
            CHLS_LOG_OF("SendFile2Rcvr", LOG_ERR, TXT("tell [%s] ret[%ld] error[%d:%s]"), psFileName, lFileLen, iErrno,
                        ErrText(iErrno).sText);
            return CHLS_ERR_WRITE;
        }
        if (iLen == 0) {
            CHLS_LOG_OF("SendFile2Rcvr", LOG_ERR, TXT("file [%s] changed: [%ld] bytes announced, [%d] found"),
                        psFileName, lFileLen, iSndFileData);
            return CHLS_ERR_WRITE;
        }
        LetHostStopInFile();
        if (WriteFilePiece(sFileData, iLen) < 0) {
            return CHLS_ERR_WRITE;
        }
        iSndFileData += iLen;
    }
    return iSndFileData;
}

/// Sends one file frame: its data bytes; -2 when the file is no good (nothing written); -201 when the line or the
/// reading failed on the way.
static int SendFile2Rcvr(char* psFileName) {
    FILE* fp = OpenFile(psFileName);
    if (fp == nullptr) {
        int iErrno = errno;
        CHLS_LOG(LOG_ERR, TXT("open [%s] error[%d:%s]"), psFileName, iErrno, ErrText(iErrno).sText);
        return CHLS_ERR_FILE;
    }
    long lFileLen = SizeFile(fp, psFileName);
    if (lFileLen < 0) {
        fclose(fp);
        return CHLS_ERR_FILE;
    }
    CHLS_LOG(LOG_INF, TXT("begin send file[%s] data[%ld]"), psFileName, lFileLen);

    char sTmp[KVR_CHL_NUM_LEN];
    PutNum(sTmp, lFileLen);
    int iRet = WriteFilePiece(sTmp, KVR_CHL_NUM_LEN);
    if (iRet == CHLS_OK) {
        iRet = SendFileData(fp, psFileName, lFileLen);
    }
    fclose(fp);
    if (iRet >= 0) {
        CHLS_LOG(LOG_INF, TXT("send file[%s] data[%d] success."), psFileName, iRet);
    }
    return iRet;
}
