// SPDX-License-Identifier: MIT
#include "store/engine.h"

#include <algorithm>
#include <string_view>
#include <system_error>

#include <dlfcn.h>

namespace kvr {

namespace fs = std::filesystem;

namespace {

constexpr const char* kDefaultEngine = "lmdb";

} // namespace

fs::path library_folder() {
    Dl_info info{};
    const auto* const here = static_cast<const void*>(kDefaultEngine);
    return ::dladdr(here, &info) != 0 ? fs::path(info.dli_fname).parent_path() : fs::path();
}

bool is_engine_name(const std::string& name) {
    constexpr std::size_t kMaxName = 32;
    const auto good = [](char c) { return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9'); };
    return name.size() <= kMaxName && std::all_of(name.begin(), name.end(), good);
}

const StoreEngine& load_engine(const std::string& name) {
    if (!is_engine_name(name)) {
        throw Error(Errc::kInvalid, "the name of a store's engine takes up to 32 small letters and digits");
    }
    const std::string used = name.empty() ? kDefaultEngine : name;
    const fs::path folder = library_folder();
    const fs::path file = folder / ("libkavro_store_" + used + ".so");
    // It stays for as long as the process: a store of it may.
    void* const library = folder.empty() ? nullptr : ::dlopen(file.c_str(), RTLD_NOW);
    void* const function = library != nullptr ? ::dlsym(library, "kavro_store_engine") : nullptr;
    if (function == nullptr) {
        const char* const why = ::dlerror();
        std::error_code unknown;
        throw Error(fs::exists(file, unknown) ? Errc::kIo : Errc::kVersion,
                    "the store's engine '" + used + "' cannot be loaded (" + (why ? why : "no reason") +
                        "): install it, or use the version that made the queue manager");
    }
    const auto& engine = *reinterpret_cast<decltype(&kavro_store_engine)>(function)(); // NOLINT: as above
    if (std::string_view(engine.version) != kEngineVersion) {
        throw Error(Errc::kVersion, "the store's engine '" + used + "' is of version " + engine.version +
                                        ", this process of " + kEngineVersion +
                                        ": start the process anew, and install both in one version if that does not "
                                        "help");
    }
    return engine;
}

} // namespace kvr
