// SPDX-License-Identifier: MIT
// The runtime-core context: what the host tells a plug-in about the process that it runs in.
#pragma once

#include <cstddef>

extern "C" {

/// Writes one log line.
/// Safe in a signal handler, keeps nothing of its arguments. The result may be ignored. May change `errno`: a caller
/// that tests `errno` afterwards saves it first.
/// @param psTag    always null
/// @param iLevel   1 failures, 2 a watcher whose process is gone, 3 channel events, 4 information, 5 debug
/// @param psMod    module name, such as "$net_tcp"
/// @param psFile   name of the logging source unit
/// @param iLine    line number of the call
/// @param psFunc   name of the logging function
/// @param psFmt    printf-style format; text from outside is passed as an argument, never as the format
typedef int (*PFN_RTCORE_LOGPRINT)(char* psTag, int iLevel, char* psMod, char* psFile, int iLine, const char* psFunc,
                                   char* psFmt, ...) __attribute__((format(printf, 7, 8)));

/// Entries of the table of process arguments.
constexpr int RTCORE_ARG_MAX = 1024;

/// The parsed command line. The first `iOptc` entries are options; positional entries follow them.
typedef struct T_RTCORE_ARGV {
    int iArgc; ///< entries in use
    int iOptc; ///< option entries among them
    struct {
        char chKey;    ///< key character of an option, NUL for a positional entry
        char* psValue; ///< value text, owned by the host; may be null
    } tArg[RTCORE_ARG_MAX];
} T_RTCORE_ARGV;

/// The runtime-core context, owned by the host for the life of the process.
/// A plug-in reads `tRTCoreArgv` and `pfnLogPrint`; everything else belongs to the host.
typedef struct T_RTCORE_CONTEXT {
    struct {
        int argc;
        char** argv;
    } tCmdArgs; ///< the raw command line
    T_RTCORE_ARGV tRTCoreArgv;
    unsigned int iProcOpt;
    unsigned int iStdRediretOpt;
    char sStdOut[1024];
    char sStdErr[1024];
    char sProcName[256];
    char sExe[1024];
    int iMask;
    char sCwd[1024];
    char sRootDir[1024];
    PFN_RTCORE_LOGPRINT pfnLogPrint; ///< the host's log function, never null
    int iSvrid;
    int iRunLevel;
    char sLogFile[1024];
    int iCfgMode;
    char sCfgSection[256];
    char sCfgObject[256];
    char sCfgFile[1024];
    void* pCfgData;
    char sAppHome[1024];
    void* pUserData;
} T_RTCORE_CONTEXT;
}

static_assert(sizeof(T_RTCORE_ARGV) == 16392 && offsetof(T_RTCORE_ARGV, tArg) == 8);
static_assert(sizeof(T_RTCORE_CONTEXT) == 25424);
static_assert(offsetof(T_RTCORE_CONTEXT, tRTCoreArgv) == 16);
static_assert(offsetof(T_RTCORE_CONTEXT, iProcOpt) == 16408 && offsetof(T_RTCORE_CONTEXT, sStdOut) == 16416);
static_assert(offsetof(T_RTCORE_CONTEXT, sProcName) == 18464 && offsetof(T_RTCORE_CONTEXT, sExe) == 18720);
static_assert(offsetof(T_RTCORE_CONTEXT, iMask) == 19744 && offsetof(T_RTCORE_CONTEXT, sRootDir) == 20772);
static_assert(offsetof(T_RTCORE_CONTEXT, pfnLogPrint) == 21800 && offsetof(T_RTCORE_CONTEXT, iSvrid) == 21808);
static_assert(offsetof(T_RTCORE_CONTEXT, sLogFile) == 21816 && offsetof(T_RTCORE_CONTEXT, iCfgMode) == 22840);
static_assert(offsetof(T_RTCORE_CONTEXT, sCfgFile) == 23356 && offsetof(T_RTCORE_CONTEXT, pCfgData) == 24384);
static_assert(offsetof(T_RTCORE_CONTEXT, sAppHome) == 24392 && offsetof(T_RTCORE_CONTEXT, pUserData) == 25416);
