// SPDX-License-Identifier: MIT
#include "store/engine.h"

#include <algorithm>

#include <dlfcn.h>

namespace kvr {

namespace {

constexpr const char* kDefaultEngine = "lmdb";

/// It becomes a part of a file's name.
void check_engine_name(const std::string& name) {
    constexpr std::size_t kMaxName = 32;
    const auto good = [](char c) { return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9'); };
    if (name.size() > kMaxName || !std::all_of(name.begin(), name.end(), good)) {
        throw Error(Errc::kInvalid, "the name of a store's engine takes up to 32 small letters and digits");
    }
}

/// The folder of this library.
std::filesystem::path own_folder() {
    Dl_info info{};
    const auto* const here = reinterpret_cast<const void*>(&own_folder); // NOLINT: the loader asks for an address
    return ::dladdr(here, &info) != 0 ? std::filesystem::path(info.dli_fname).parent_path() : std::filesystem::path();
}

} // namespace

const StoreEngine& load_engine(const std::string& name) {
    check_engine_name(name);
    const std::string used = name.empty() ? kDefaultEngine : name;
    // It stays for as long as the process: a store of it may.
    void* const library = ::dlopen((own_folder() / ("libkavro_store_" + used + ".so")).c_str(), RTLD_NOW);
    void* const function = library != nullptr ? ::dlsym(library, "kavro_store_engine") : nullptr;
    if (function == nullptr) {
        const char* const why = ::dlerror();
        throw Error(Errc::kVersion, "the store's engine '" + used + "' cannot be loaded (" + (why ? why : "no reason") +
                                        "): install it, or use the version that made the queue manager");
    }
    return *reinterpret_cast<decltype(&kavro_store_engine)>(function)(); // NOLINT: the loader gives an address
}

} // namespace kvr
