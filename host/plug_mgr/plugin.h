// SPDX-License-Identifier: MIT
// Loads one plug-in and raises events in it.
#pragma once

#include <filesystem>

#include "kavutil/export.h"
#include "plug_mgr.h"

namespace kvr {

enum class PluginEvent : int {
    kInit = 1, ///< start; a negative result: the plug-in cannot run
    kRun = 2,  ///< work; returns on failure only
    kExit = 4, ///< give back what start took
};

/// A loaded plug-in; stays loaded for the life of the process, and so must the object.
class KVR_EXPORT Plugin {
  public:
    /// Loads the library and calls its load function. Throws kvr::Error (kNotFound: no such file; kInvalid: no plug-in,
    /// or a symbol that it needs is missing) with the loader's own reason.
    Plugin(const std::filesystem::path& library, T_RTCORE_CONTEXT& context);
    Plugin(const Plugin&) = delete;
    Plugin& operator=(const Plugin&) = delete;

    /// Raises an event on the calling thread; the plug-in's result.
    int raise(PluginEvent event);

    [[nodiscard]] const T_PLUG_MGR_PLUG_VAR& variables() const { return variables_; }

  private:
    T_PLUG_MGR_PLUG_VAR variables_{};
};

} // namespace kvr
