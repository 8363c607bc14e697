// SPDX-License-Identifier: MIT
// Building the wire records of a data frame.

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
