// SPDX-License-Identifier: MIT
// The queue-manager context of a process.
#include "kavro_ac.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "kavro_ac/kavro_ac_host.h"
#include "store/c_border.h"
#include "store/db_handle.h"
#include "store/home.h"
#include "store/names.h"
#include "store/store.h"

namespace kvr {

namespace {

constexpr BorderModule kSelf{"$kavro_ac", "kavro_ac"};

struct Process {
    std::filesystem::path home;                ///< empty: nobody set it
    std::array<char, kMaxQmgrName + 1> qmgr{}; ///< KVR_GetQmgrName hands its place out
};

Process& process() {
    static auto* self = new Process; // never destroyed: its name may be in use until the end
    return *self;
}

bool has_name() {
    return process().qmgr[0] != '\0';
}

void set_name(const std::string& name) {
    process().qmgr.fill('\0');
    name.copy(process().qmgr.data(), kMaxQmgrName);
}

/// What the process was told, else KVR_HOME, else the current folder where it holds the queue manager, else the
/// default.
std::filesystem::path home_of(const std::string& name) {
    if (!process().home.empty()) {
        return process().home;
    }
    const char* const set = std::getenv("KVR_HOME");
    std::error_code unknown;
    if ((set == nullptr || *set == '\0') && !name.empty() && std::filesystem::is_directory(name, unknown)) {
        return std::filesystem::current_path();
    }
    return find_home({});
}

std::string qmgr_name(const char* given) {
    if (given != nullptr && *given != '\0') {
        check_name("queue manager", given, kMaxQmgrName);
        return given;
    }
    return has_name() ? process().qmgr.data() : find_qmgr(home_of(""), "");
}

void attach(T_KAVRO_QMGR_CTX* context, const char* given) {
    if (context == nullptr) {
        throw Error(Errc::kInvalid, "attaching needs a context: give the address of a zeroed T_KAVRO_QMGR_CTX");
    }
    const std::string name = qmgr_name(given);
    const std::filesystem::path dir = home_of(name) / name;
    require_qmgr(dir);
    const std::shared_ptr<Store> store = Store::open(dir);
    std::strncpy(context->sObjName, name.c_str(), sizeof context->sObjName - 1);
    context->hObjDB = db_handle(store);
    context->hQueDB = context->hObjDB;
    if (!has_name()) {
        set_name(name);
    }
}

} // namespace

void ac_set_qmgr(const std::filesystem::path& home, const std::string& name) {
    process().home = home;
    set_name(name);
}

} // namespace kvr

extern "C" KVR_EXPORT char* KVR_GetQmgrName(void) {
    try {
        if (!kvr::has_name()) {
            kvr::set_name(kvr::qmgr_name(nullptr));
        }
    } catch (const std::exception& error) {
        static_cast<void>(kvr::fail_at_border(kvr::kSelf, error, kvr::BorderPlace::here()));
    }
    return kvr::process().qmgr.data();
}

extern "C" KVR_EXPORT int KVR_InitQmgrCtx(T_KAVRO_QMGR_CTX* ptCtx, char* psQmgrName) {
    try {
        kvr::attach(ptCtx, psQmgrName);
        return 0;
    } catch (const std::exception& error) {
        return kvr::fail_at_border(kvr::kSelf, error, kvr::BorderPlace::here());
    }
}
