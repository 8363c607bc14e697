// SPDX-License-Identifier: MIT
// Entry: registration with the plug-in manager and dispatch of its events.

constexpr int CHLS_EVENT_INIT = 1;
constexpr int CHLS_EVENT_RUN = 2;
constexpr int CHLS_EVENT_EXIT = 4;

/// Called once by the plug-in manager, before any event. Keeps the block and its context; 0.
extern "C" __attribute__((visibility("default"))) int OnPlugLoad(T_PLUG_MGR_PLUG_VAR* ptPlugVar) {
    ptPlugVar->pfnEventHdl = EventHandlers;
    f_ptPlugVar = ptPlugVar;
    f_ptRTCoreCtx = ptPlugVar->ptRTCoreCtx;
    return CHLS_OK;
}

static int EventHandlers(int iPlugId, int iEventId, void* pInData, void* pOutData) {
    switch (iEventId) {
    case CHLS_EVENT_INIT:
        return InitEventHandler(iPlugId, iEventId, pInData, pOutData);
    case CHLS_EVENT_RUN:
        return OnRunEventHandler(iPlugId, iEventId, pInData, pOutData);
    case CHLS_EVENT_EXIT:
        return ExitEventHandler(iPlugId, iEventId, pInData, pOutData);
    default:
        return DefaultEventHandler(iPlugId, iEventId, pInData, pOutData);
    }
}

static int DefaultEventHandler(int /*iPlugId*/, int /*iEventId*/, void* /*pInData*/, void* /*pOutData*/) {
    return CHLS_OK;
}
