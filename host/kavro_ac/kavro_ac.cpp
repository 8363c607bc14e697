// SPDX-License-Identifier: MIT
// The queue-manager context of a process.
#include "kavro_ac.h"

#include <algorithm>
#include <cstring>
#include <exception>

#include "kavro_ac/kavro_ac_host.h"
#include "store/c_border.h"
#include "store/db_handle.h"
#include "store/names.h"
#include "store/store.h"

namespace kvr {

namespace {

struct Process {
    std::filesystem::path home;
    std::string qmgr; ///< KVR_GetQmgrName hands its bytes out: set once
};

Process& process() {
    static auto* self = new Process; // never destroyed: its name may be in use until the end
    return *self;
}

void attach(T_KAVRO_QMGR_CTX* context, const char* name) {
    if (context == nullptr || name == nullptr) {
        throw Error(Errc::kInvalid, "attaching needs a context and the name of a queue manager");
    }
    check_name("queue manager", name, kMaxQmgrName);
    const std::shared_ptr<Store> store = Store::open(process().home / name);
    std::strncpy(context->sObjName, name, sizeof context->sObjName - 1);
    context->hObjDB = db_handle(store);
    context->hQueDB = context->hObjDB;
}

} // namespace

void ac_set_qmgr(const std::filesystem::path& home, const std::string& name) {
    process().home = home;
    process().qmgr = name;
}

} // namespace kvr

extern "C" KVR_EXPORT char* KVR_GetQmgrName(void) {
    return kvr::process().qmgr.data();
}

extern "C" KVR_EXPORT int KVR_InitQmgrCtx(T_KAVRO_QMGR_CTX* ptCtx, char* psQmgrName) {
    try {
        kvr::attach(ptCtx, psQmgrName);
        return 0;
    } catch (const std::exception& error) {
        return kvr::fail_at_border({"$kavro_ac", "kavro_ac"}, error, kvr::BorderPlace::here());
    }
}
