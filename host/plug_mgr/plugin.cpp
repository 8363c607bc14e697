// SPDX-License-Identifier: MIT
#include "plug_mgr/plugin.h"

#include <cstring>
#include <dlfcn.h>
#include <string>
#include <system_error>

#include "kavutil/error.h"

namespace kvr {
namespace {

constexpr char kLoadFunction[] = "OnPlugLoad";
using LoadFunction = int (*)(T_PLUG_MGR_PLUG_VAR*);

template <std::size_t size>
void copy_text(char (&field)[size], const std::string& text) {
    field[text.copy(field, size - 1)] = '\0';
}

/// "libplug_x.so" is the plug-in "plug_x".
std::string plugin_name(const std::filesystem::path& library) {
    const std::string stem = library.stem().string();
    return stem.starts_with("lib") ? stem.substr(3) : stem;
}

std::string loader_reason() {
    const char* reason = dlerror();
    return reason != nullptr ? reason : "no reason given";
}

} // namespace

Plugin::Plugin(const std::filesystem::path& library, T_RTCORE_CONTEXT& context) {
    std::error_code error;
    // The loader would look for a bare name in the system's folders.
    const std::filesystem::path path = std::filesystem::absolute(library, error);
    if (error || !std::filesystem::exists(path, error)) {
        throw Error(Errc::kNotFound,
                    "plug-in library '" + library.string() + "' does not exist: give its path, or install the plug-in");
    }
    void* const handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        throw Error(Errc::kInvalid, "plug-in '" + path.string() + "' cannot be loaded: " + loader_reason());
    }
    void* const load = dlsym(handle, kLoadFunction);
    if (load == nullptr) {
        throw Error(Errc::kInvalid, "'" + path.string() + "' is not a plug-in: " + loader_reason());
    }

    variables_.iId = 1;
    variables_.iVersion = 1;
    copy_text(variables_.sName, plugin_name(path));
    copy_text(variables_.sDesc, "channel plug-in");
    variables_.ePlugLoadMod = ePlugMgrDllLoad;
    copy_text(variables_.sLoadFunName, kLoadFunction);
    variables_.pfnPlugLoadFun = load;
    variables_.hDllFile = handle;
    copy_text(variables_.sDllName, path.filename().string());
    variables_.ptRTCoreCtx = &context;

    const int result = reinterpret_cast<LoadFunction>(load)(&variables_);
    if (result < 0 || variables_.pfnEventHdl == nullptr) {
        throw Error(Errc::kInvalid, "plug-in '" + path.string() + "' refused to load: " +
                                        (result < 0 ? "result " + std::to_string(result) : "no event handler set"));
    }
}

int Plugin::raise(PluginEvent event) {
    return variables_.pfnEventHdl(variables_.iId, static_cast<int>(event), nullptr, nullptr);
}

} // namespace kvr
