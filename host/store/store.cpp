// SPDX-License-Identifier: MIT
// Makes and opens stores: finds the engine and leaves the work to it.
#include "store/store.h"

#include "store/engine.h"
#include "store/names.h"
#include "store/qmgr_folder.h"

namespace kvr {

namespace fs = std::filesystem;

void Store::create(const fs::path& dir, const std::string& qmgr, const Settings& settings, const std::string& engine) {
    check_name("queue manager", qmgr, kMaxQmgrName);
    const StoreEngine& made_by = load_engine(engine);
    made_by.check(settings);
    make_qmgr_folder(dir, engine, [&](const fs::path& folder) { made_by.fill(folder, qmgr, settings); });
}

bool Store::exists(const fs::path& dir) {
    try {
        return load_engine(engine_of(dir)).exists(dir);
    } catch (const Error&) {
        return true; // one that does not open: who tries is told why
    }
}

std::shared_ptr<Store> Store::open(const fs::path& dir) {
    return load_engine(engine_of(dir)).open(dir);
}

} // namespace kvr
