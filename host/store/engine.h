// SPDX-License-Identifier: MIT
// What an engine is to the store: a library beside this one, libkavro_store_NAME.so, that exports kavro_store_engine().
// Loaded when a queue manager that uses it is opened, so that no process carries the libraries of the others.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "kavutil/export.h"
#include "store/store.h"

namespace kvr {

/// Of the tree that this is compiled in.
inline constexpr const char* kEngineVersion = KVR_VERSION;

/// The operations throw kvr::Error, as those of Store.
struct StoreEngine {
    /// kEngineVersion as the engine knows it; stays the first field. One of another version is refused: a process that
    /// opens its first store of an engine after an upgrade would meet a Store that is laid out in another way.
    const char* version;
    /// Refuses settings that no store could be made with, before anything is made.
    void (*check)(const Settings& settings);
    /// Makes a store in the folder of a new queue manager, private and empty but for what says the engine's name.
    /// Everything in the folder is durable when it returns. What it throws undoes the folder.
    void (*fill)(const std::filesystem::path& dir, const std::string& qmgr, const Settings& settings);
    /// As Store::exists, for a folder that names this engine or none.
    bool (*exists)(const std::filesystem::path& dir);
    /// As Store::open.
    std::shared_ptr<Store> (*open)(const std::filesystem::path& dir);
};

/// The folder of this library, in which the engines and the channel plug-in lie too: those of any other place may be of
/// another version. Empty when the loader does not tell.
KVR_EXPORT std::filesystem::path library_folder();
/// Whether it can name an engine: it becomes a part of a file's name. The empty one stands for the embedded engine.
bool is_engine_name(const std::string& name);
/// The engine of that name. Throws kInvalid, kVersion when there is none or one of another version, kIo when it cannot
/// be loaded.
const StoreEngine& load_engine(const std::string& name);

} // namespace kvr

extern "C" KVR_EXPORT const kvr::StoreEngine* kavro_store_engine();
