// SPDX-License-Identifier: MIT
// The host's log.
#pragma once

extern "C" {

/// Tells the log which queue manager the process serves.
int KVR_LogSetQMName(char* psQmgrName);

/// Writes one log line, as PFN_RTCORE_LOGPRINT (core_ctx.h) describes.
int KVR_LogPrint(char* psTag, int iLevel, char* psMod, char* psFile, int iLine, const char* psFunc, char* psFmt, ...)
    __attribute__((format(printf, 7, 8)));
}
