// SPDX-License-Identifier: MIT
// Queue access. Every operation returns a negative value on failure; callers judge by the sign alone.
#pragma once

#include "kavro_api.h"

extern "C" {

typedef void* T_KVR_QUE_DB_HANDLE;  ///< the queue store of a queue manager
typedef void* T_KVR_QUE_OBJ_HANDLE; ///< one open queue; null: not open

typedef T_KAVRO_MD T_KAVRO_QUE_MD;
typedef T_KAVRO_GMO T_KAVRO_QUE_GMO;
typedef T_KAVRO_PMO T_KAVRO_QUE_PMO;

/// Opens a local queue for getting and putting.
/// @param psName  queue name with NUL
/// @param phObj   (out) its handle; unchanged on failure
/// @param iOpt    0
int KVR_QueOpen(T_KVR_QUE_DB_HANDLE hQueDB, char* psName, T_KVR_QUE_OBJ_HANDLE* phObj, int iOpt);

/// Closes a queue; the handle must not be used afterwards.
int KVR_QueClose(T_KVR_QUE_DB_HANDLE hQueDB, char* psName, T_KVR_QUE_OBJ_HANDLE hObj, int iOpt);

/// Takes the next message off the queue and waits for one: without a time limit where `iWaitInterval` is 0, as in a
/// zeroed T_KAVRO_QUE_GMO, else for so many milliseconds at most. Signal handlers run during the wait; a signal ends it
/// with a negative result, as the end of the time does. The embedded host's are -108 for a signal and -119 for the
/// time. A negative `iWaitInterval` fails, and so does any other option that is not 0.
/// @param ptMD    (in/out) blank descriptor, its `pOptData` at a T_KAVRO_ACCESSORIES_MD, which is filled for a message
///                with KVR_MSGFLAG_ACCESSORIES
/// @param psBuf   room for the whole message data, its transmission header included
/// @param piLen   (in/out) bytes of room; bytes of data on success
int KVR_QueMsgGet(T_KVR_QUE_DB_HANDLE hQueDB, T_KVR_QUE_OBJ_HANDLE hObj, T_KAVRO_QUE_MD* ptMD, T_KAVRO_QUE_GMO* ptGMO,
                  char* psBuf, int* piLen);

/// Puts one message with the given descriptor and `iLen` bytes of data. An option that is not 0 fails.
int KVR_QueMsgPut(T_KVR_QUE_DB_HANDLE hQueDB, T_KVR_QUE_OBJ_HANDLE hObj, T_KAVRO_QUE_MD* ptMD, T_KAVRO_QUE_PMO* ptPMO,
                  char* psBuf, int iLen);
}
