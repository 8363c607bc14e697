// SPDX-License-Identifier: MIT
#include "core_ctx/context.h"

#include <filesystem>
#include <system_error>

#include "kavro_log.h"

namespace kvr {
namespace {

template <std::size_t size>
void copy_text(char (&field)[size], const std::string& text) {
    field[text.copy(field, size - 1)] = '\0';
}

/// The process's file mode mask.
constexpr int kMask = 077;

} // namespace

Context::Context(const WorkerOptions& options, const std::string& channel, int argc, char** argv) {
    std::error_code ignored;
    const std::filesystem::path program = argc > 0 && argv != nullptr ? argv[0] : "kvr";

    record_.tCmdArgs.argc = argc;
    record_.tCmdArgs.argv = argv;

    // Options first; the channel's name is the fifth positional entry, which is where plug-ins look for it.
    add_argument('h', options.home.string());
    add_argument('l', std::to_string(options.log_level));
    if (!options.log_file.empty()) {
        add_argument('f', options.log_file.string());
    }
    record_.tRTCoreArgv.iOptc = record_.tRTCoreArgv.iArgc;
    add_argument('\0', program.string());
    add_argument('\0', "run");
    add_argument('\0', options.plugin.string());
    add_argument('\0', options.qmgr);
    add_argument('\0', channel);

    copy_text(record_.sProcName, program.filename().string());
    copy_text(record_.sExe, std::filesystem::read_symlink("/proc/self/exe", ignored).string());
    record_.iMask = kMask;
    copy_text(record_.sCwd, std::filesystem::current_path(ignored).string());
    copy_text(record_.sRootDir, options.home.string());
    record_.pfnLogPrint = KVR_LogPrint;
    record_.iRunLevel = options.log_level;
    copy_text(record_.sLogFile, options.log_file.string());
    copy_text(record_.sCfgObject, channel);
    copy_text(record_.sAppHome, (options.home / options.qmgr).string());
}

void Context::add_argument(char key, const std::string& value) {
    auto& entry = record_.tRTCoreArgv.tArg[record_.tRTCoreArgv.iArgc++];
    entry.chKey = key;
    entry.psValue = values_.emplace_back(value).data();
}

} // namespace kvr
