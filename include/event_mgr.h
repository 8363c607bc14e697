// SPDX-License-Identifier: MIT
// Events that the host raises in a plug-in.
#pragma once

extern "C" {

/// Handles one event of a plug-in and returns its result code.
/// @param iPlugId   the plug-in's id (T_PLUG_MGR_PLUG_VAR::iId)
/// @param iEventId  the event number; a handler answers a number that it does not know with 0
/// @param pInData   data for the event, may be null; owned by the caller
/// @param pOutData  room for an answer, may be null; owned by the caller
typedef int (*PFN_EVENT_MGR_EHDL)(int iPlugId, int iEventId, void* pInData, void* pOutData);
}
