// SPDX-License-Identifier: MIT
// The plug-in manager: how a plug-in and its host get to know each other.
#pragma once

#include "core_ctx.h"
#include "event_mgr.h"
#include "os_dll.h"

extern "C" {

/// How the plug-in manager loaded a plug-in.
typedef enum E_PLUG_MGR_LOADMOD { ePlugMgrStaticLoad = 1, ePlugMgrDllLoad = 2 } E_PLUG_MGR_LOADMOD;

/// The plug-in variable block, owned by the plug-in manager for the life of the process.
/// Its address is the argument of the plug-in's load function.
typedef struct T_PLUG_MGR_PLUG_VAR {
    int iId;                        ///< plug-in id
    int iVersion;                   ///< version number
    char sName[128];                ///< plug-in name
    char sCfgSection[256];          ///< configuration section
    char sObj[256];                 ///< object name
    char sDesc[256];                ///< description
    PFN_EVENT_MGR_EHDL pfnEventHdl; ///< event handler; the one field that the plug-in sets, in its load function
    E_PLUG_MGR_LOADMOD ePlugLoadMod;
    char sLoadFunName[256]; ///< name of the load function
    void* pfnPlugLoadFun;   ///< address of the load function
    H_DllFile hDllFile;
    char sDllName[256];            ///< library file name
    T_RTCORE_CONTEXT* ptRTCoreCtx; ///< context of the process; outlives the plug-in, which keeps the pointer
    void* pExtData;
} T_PLUG_MGR_PLUG_VAR;
}

static_assert(sizeof(E_PLUG_MGR_LOADMOD) == sizeof(int));
static_assert(sizeof(T_PLUG_MGR_PLUG_VAR) == 1464);
static_assert(offsetof(T_PLUG_MGR_PLUG_VAR, sName) == 8 && offsetof(T_PLUG_MGR_PLUG_VAR, sDesc) == 648);
static_assert(offsetof(T_PLUG_MGR_PLUG_VAR, pfnEventHdl) == 904 && offsetof(T_PLUG_MGR_PLUG_VAR, ePlugLoadMod) == 912);
static_assert(offsetof(T_PLUG_MGR_PLUG_VAR, sLoadFunName) == 916 &&
              offsetof(T_PLUG_MGR_PLUG_VAR, pfnPlugLoadFun) == 1176);
static_assert(offsetof(T_PLUG_MGR_PLUG_VAR, hDllFile) == 1184 && offsetof(T_PLUG_MGR_PLUG_VAR, sDllName) == 1192);
static_assert(offsetof(T_PLUG_MGR_PLUG_VAR, ptRTCoreCtx) == 1448 && offsetof(T_PLUG_MGR_PLUG_VAR, pExtData) == 1456);
