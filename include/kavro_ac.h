// SPDX-License-Identifier: MIT
// The queue-manager context of a process.
#pragma once

#include <cstddef>

#include "kavro_object.h"
#include "kavro_queue.h"

extern "C" {

/// The queue-manager context: zeroed by its owner, filled once by KVR_InitQmgrCtx, valid until the process ends.
typedef struct T_KAVRO_QMGR_CTX {
    char sObjName[32];
    T_KVR_OBJ_DB_HANDLE hObjDB; ///< first argument of every object operation
    T_KVR_QUE_DB_HANDLE hQueDB; ///< first argument of every queue operation
} T_KAVRO_QMGR_CTX;

/// Name of the queue manager that the process belongs to; the host owns the text. Where nobody told the process, as a
/// channel is told, it is that which was attached to first, else that of the environment variable KVR_QMGR, else the
/// only one in the home folder; "" where none can be found.
char* KVR_GetQmgrName(void);

/// Attaches the process to a queue manager and fills the context. Negative on failure.
/// @param psQmgrName  null or "": that of KVR_GetQmgrName. Its home folder, where nobody told the process: that of the
///                    environment variable KVR_HOME, else the current one if it holds the queue manager, else
///                    $HOME/.kvr
int KVR_InitQmgrCtx(T_KAVRO_QMGR_CTX* ptCtx, char* psQmgrName);
}

static_assert(sizeof(T_KAVRO_QMGR_CTX) == 48);
static_assert(offsetof(T_KAVRO_QMGR_CTX, hObjDB) == 32 && offsetof(T_KAVRO_QMGR_CTX, hQueDB) == 40);
