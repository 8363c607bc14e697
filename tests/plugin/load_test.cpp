// SPDX-License-Identifier: MIT
// Loading, the exported symbols, the version record and the dispatch of events.
#include <cstring>
#include <memory>
#include <set>

#include "channel_run.h"

extern "C" int OnPlugLoad(T_PLUG_MGR_PLUG_VAR* ptPlugVar);
extern "C" char* _plug_kavro_chls_Get_Ver(void);

namespace kvr::test {
namespace {

/// Names, some with a version, that `nm -D` with this option shows of the plug-in; without weak ones and a sanitizer's.
std::vector<std::string> symbols(const std::string& option) {
    std::vector<std::string> names;
    const std::string command = "nm -D " + option + " '" + KVR_PLUGIN_FILE + "'";
    const std::unique_ptr<FILE, int (*)(FILE*)> out(popen(command.c_str(), "r"), pclose);
    char line[1024];
    char type = 0;
    char name[1024];
    while (out && fgets(line, sizeof line, out.get()) != nullptr) {
        if (sscanf(line, "%*[ 0-9a-f]%c %1023s", &type, name) == 2 && type != 'w' && strncmp(name, "__asan", 6) != 0 &&
            strncmp(name, "__ubsan", 7) != 0 && strncmp(name, "__odr_asan", 10) != 0) {
            names.emplace_back(name);
        }
    }
    return names;
}

TEST(PluginFile, ExportsTwoFunctionsAndNeedsTheHostTheTcpLibraryAndLibc) {
    EXPECT_THAT(symbols("--defined-only"), testing::UnorderedElementsAre("OnPlugLoad", "_plug_kavro_chls_Get_Ver"));

    const std::set<std::string> ours = {"KVR_GetQmgrName", "KVR_InitQmgrCtx", "KVR_LogSetQMName",  "KVR_LogPrint",
                                        "KVR_QueOpen",     "KVR_QueClose",    "KVR_QueMsgGet",     "KVR_QueMsgPut",
                                        "KVR_ObjAdd",      "KVR_ObjGetAttr",  "KVR_ObjGetAttrV",   "KVR_ObjSetAttr",
                                        "KVR_ObjSetAttrV", "procIsExist",     "procSndSig2Proc",   "sockCanRead",
                                        "strBaseName",     "strToUpper",      "netTcpClientCreate"};
    // Files are sent through stdio, whose streams are libc's own affair.
    const std::set<std::string> allocating = {"malloc", "calloc",  "realloc",  "reallocarray", "free",
                                              "strdup", "strndup", "asprintf", "vasprintf",    "getline"};
#ifdef __SANITIZE_ADDRESS__
    const bool stand_in = true; // the sanitizer's library takes libc's place
#else
    const bool stand_in = false;
#endif
    const std::vector<std::string> needed = symbols("--undefined-only");
    EXPECT_GT(needed.size(), 20U);
    for (const std::string& symbol : needed) {
        const std::string name = symbol.substr(0, symbol.find('@'));
        EXPECT_TRUE(stand_in || symbol.find("@GLIBC_") != std::string::npos || ours.contains(name)) << name;
        EXPECT_FALSE(allocating.contains(name)) << name << " allocates";
    }
}

TEST(PluginFile, VersionRecordIsTheTextPaddedToItsWidth) {
    std::string text = "^__VERSION_ID__^=Version[KAVRO_v1.1.7_release] Id[$Rev: 152 $] Build[Apr 15 2014]";
    ASSERT_EQ(text.size(), 81U);
    text.resize(256);
    EXPECT_EQ(std::string(_plug_kavro_chls_Get_Ver(), 256), text);
}

TEST_F(ChannelTest, LoadSetsOnlyTheEventHandlerOfTheLatestBlock) {
    const Result r = run([] {
        static T_RTCORE_CONTEXT first;
        T_PLUG_MGR_PLUG_VAR var;
        memset(&var, 0x5a, sizeof var);
        var.ptRTCoreCtx = &first;
        T_PLUG_MGR_PLUG_VAR before = var;
        const int result = OnPlugLoad(&var);
        before.pfnEventHdl = var.pfnEventHdl;
        trace(kNote, "%d %s", result, same_bytes(&before, &var, sizeof var) ? "same" : "changed");
        load();
        for (int id : {0, 3, 5, -1, 4, 1 << 30, 4}) { // unknown ones, and an exit before any start
            event(id);
        }
        trace(kNote, "start");
        event(1);
    });
    const auto lines = r.lines("LNHSTE");
    ASSERT_GE(lines.size(), 10U);
    EXPECT_EQ(lines[0], "0 same");
    EXPECT_EQ(lines[8], "start") << r.dump();
    EXPECT_TRUE(in_order(r, {"4 [CH1] chltype[SNDR]", "event 1 = 0"}));
}

} // namespace
} // namespace kvr::test
