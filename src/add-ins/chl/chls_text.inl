// SPDX-License-Identifier: MIT
// Texts and numbers.

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
