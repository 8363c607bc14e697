// SPDX-License-Identifier: MIT
// What stands on the wire and in texts: descriptor block, attachment block, text numbers, bounded copies, error texts.

#ifndef CHLS_UNIT
#error "a part of plug_kavro_chls.cpp, not to be included elsewhere"
#endif

// ---- Wire records

/// Fills the descriptor block; the gaps stay NUL.
static void FillChlMD(T_KAVRO_CHL_MD* ptChlMD, const T_KAVRO_MD* ptMD) {
    memset(ptChlMD, 0, sizeof(*ptChlMD));

#define COPY_FIELD(field)                                                                                              \
    static_assert(sizeof(ptChlMD->field) == sizeof(ptMD->field));                                                      \
    memcpy(ptChlMD->field, ptMD->field, sizeof(ptChlMD->field))
#define COPY_INT(field) ptChlMD->field = static_cast<int>(htonl(static_cast<uint32_t>(ptMD->field)))

    COPY_FIELD(sMsgId);
    COPY_FIELD(sCorrelId);
    ptChlMD->cMsgStoreType = ptMD->cMsgStoreType;
    COPY_INT(iUsage);
    COPY_INT(iMsgFlags);
    COPY_INT(iExpiry);
    COPY_INT(iFeedback);
    COPY_INT(iEncoding);
    COPY_INT(iCodedCharSetId);
    COPY_INT(iPriority);
    COPY_INT(iPersistence);
    COPY_INT(iMsgSeqNo);
    COPY_INT(iReportOpt);
    COPY_FIELD(sFmtName);
    COPY_FIELD(sReplyToQ);
    COPY_FIELD(sReplyToQMgr);
    COPY_FIELD(sGroupId);
    COPY_INT(iPutApplType);
    COPY_FIELD(sPutApplName);
    COPY_FIELD(sPutDate);
    COPY_FIELD(sPutTime);

#undef COPY_FIELD
#undef COPY_INT
}

/// Builds the attachment block in f_sAccBuf and returns its length. The caller has checked `iNum`; with names of at
/// most 511 characters the block fits by the assertion on KVR_CHL_ACC_BLOCK_MAX.
static int FillAccBlock(const T_KAVRO_ACCESSORIES_MD* ptAccMd) {
    int iAccLen = 0;
    for (int i = 0; i < ptAccMd->iNum; i++) {
        char sPath[KVR_ACC_PATH_SIZE];
        CopyText(sPath, sizeof(sPath), ptAccMd->sFiles[i]);
        const char* psName = strBaseName(sPath);
        int iFNLen = static_cast<int>(strnlen(psName, KVR_ACC_PATH_SIZE - 1));

        T_KAVRO_CHL_ACC_HDR tAccHdr;
        memset(&tAccHdr, 0, sizeof(tAccHdr));
        PutNum(tAccHdr.sLen, iFNLen);
        memcpy(f_sAccBuf + iAccLen, &tAccHdr, sizeof(tAccHdr));
        memcpy(f_sAccBuf + iAccLen + sizeof(tAccHdr), psName, static_cast<size_t>(iFNLen));
        CHLS_LOG_TO(KVR_LogPrint, "ChlSndData", LOG_DBG, TXT("snd file%d[%s]"), i, sPath);
        iAccLen += static_cast<int>(sizeof(tAccHdr)) + iFNLen;
    }
    PutNum(f_sAccBuf + iAccLen, ptAccMd->iNum);
    PutNum(f_sAccBuf + iAccLen + KVR_CHL_NUM_LEN, iAccLen);
    return iAccLen + KVR_CHL_ACC_TRAILER_LEN;
}

// ---- Texts and numbers

/// Text of an errno, as strerror's; by value, so that unlike strerror's a handler's cannot change it.
static T_CHLS_ERR_TEXT ErrText(int iErrno) {
    T_CHLS_ERR_TEXT tText;
    const char* psText = strerrordesc_np(iErrno);
    if (psText != nullptr) {
        CopyText(tText.sText, sizeof(tText.sText), psText);
    } else {
        snprintf(tText.sText, sizeof(tText.sText), "Unknown error %d", iErrno);
    }
    return tText;
}

/// errno after a failed host operation before which it was 0: hosts need not set it.
static int HostErrno(int iOtherwise) {
    return errno != 0 ? errno : iOtherwise;
}

/// Copies a text into a field of `iSize` bytes and cuts it there; always leaves a NUL.
static void CopyText(char* psTo, size_t iSize, const char* psFrom) {
    size_t iLen = strnlen(psFrom, iSize - 1);
    memcpy(psTo, psFrom, iLen);
    psTo[iLen] = '\0';
}

/// Writes a text number: 8 characters without NUL; of a longer number the first 8. Three to a message, so the numbers
/// that occur are written digit by digit.
static void PutNum(char* psField, long lValue) {
    if (lValue >= 0 && lValue <= KVR_CHL_NUM_MAX) {
        for (int i = KVR_CHL_NUM_LEN - 1; i >= 0; i--) {
            psField[i] = static_cast<char>('0' + lValue % 10);
            lValue /= 10;
        }
        return;
    }
    char sTmp[CHLS_NAME_SIZE];
    snprintf(sTmp, sizeof(sTmp), "%08ld", lValue);
    memcpy(psField, sTmp, KVR_CHL_NUM_LEN);
}
