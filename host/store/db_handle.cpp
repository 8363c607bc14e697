// SPDX-License-Identifier: MIT
// The handles hObjDB and hQueDB that C callers pass.
#include "store/db_handle.h"

#include <map>
#include <mutex>

namespace kvr {

namespace {

struct Handles {
    std::mutex mutex;
    std::map<const void*, std::shared_ptr<Store>> stores;
};

Handles& handles() {
    static auto* all = new Handles; // never destroyed: a process may end in the middle of any call
    return *all;
}

} // namespace

void* db_handle(const std::shared_ptr<Store>& store) {
    Handles& all = handles();
    const std::scoped_lock guard(all.mutex);
    all.stores.emplace(store.get(), store);
    return store.get();
}

std::shared_ptr<Store> store_of(const void* handle) {
    Handles& all = handles();
    const std::scoped_lock guard(all.mutex);
    const auto found = all.stores.find(handle);
    if (found == all.stores.end()) {
        throw Error(Errc::kNotOpen, "the handle is of no queue manager: attach to it first, with KVR_InitQmgrCtx");
    }
    return found->second;
}

} // namespace kvr
