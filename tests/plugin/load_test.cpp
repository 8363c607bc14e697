// SPDX-License-Identifier: MIT
// Loading, the exported symbols, the version record and the dispatch of events.
#include <cstring>
#include <memory>
#include <sstream>

#include "channel_run.h"

extern "C" int OnPlugLoad(T_PLUG_MGR_PLUG_VAR* ptPlugVar);
extern "C" char* _plug_kavro_chls_Get_Ver(void);

namespace kvr::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// Output of `nm -D` with this option on the plug-in, split into lines of words.
std::vector<std::vector<std::string>> symbols(const std::string& option) {
    std::vector<std::vector<std::string>> all;
    const std::unique_ptr<FILE, int (*)(FILE*)> out(
        popen(("nm -D " + option + " '" + KVR_PLUGIN_FILE + "'").c_str(), "r"), pclose);
    char line[1024];
    while (out && fgets(line, sizeof line, out.get()) != nullptr) {
        std::istringstream words(line);
        all.emplace_back(std::istream_iterator<std::string>(words), std::istream_iterator<std::string>());
    }
    return all;
}

TEST(PluginFile, ExportsItsTwoFunctionsOnly) {
    std::vector<std::string> names;
    for (const auto& words : symbols("--defined-only")) {
        if (words.back().rfind("__", 0) != 0) { // a sanitizer's own
            names.push_back(words.back());
        }
    }
    EXPECT_THAT(names, testing::UnorderedElementsAre("OnPlugLoad", "_plug_kavro_chls_Get_Ver"));
}

TEST(PluginFile, NeedsOnlyHostOperationsTheTcpLibraryAndLibc) {
    const std::vector<std::string> ours = {"KVR_GetQmgrName", "KVR_InitQmgrCtx", "KVR_LogSetQMName",  "KVR_LogPrint",
                                           "KVR_QueOpen",     "KVR_QueClose",    "KVR_QueMsgGet",     "KVR_QueMsgPut",
                                           "KVR_ObjAdd",      "KVR_ObjGetAttr",  "KVR_ObjGetAttrV",   "KVR_ObjSetAttr",
                                           "KVR_ObjSetAttrV", "procIsExist",     "procSndSig2Proc",   "sockCanRead",
                                           "strBaseName",     "strToUpper",      "netTcpClientCreate"};
    // Files are sent through stdio, whose streams are libc's own affair.
    const std::vector<std::string> allocating = {"malloc", "calloc",  "realloc",  "reallocarray", "free",
                                                 "strdup", "strndup", "asprintf", "vasprintf",    "getline"};
    int needed = 0;
    for (const auto& words : symbols("--undefined-only")) {
        const std::string name = words.back().substr(0, words.back().find('@'));
        if (words.front() == "w" || name.rfind("__asan", 0) == 0 || name.rfind("__ubsan", 0) == 0) {
            continue;
        }
        ++needed;
#ifdef __SANITIZE_ADDRESS__
        const bool libc = true; // the sanitizer's library stands in for it
#else
        const bool libc = words.back().find("@GLIBC_") != std::string::npos;
#endif
        EXPECT_TRUE(libc || std::count(ours.begin(), ours.end(), name) == 1) << name;
        EXPECT_EQ(std::count(allocating.begin(), allocating.end(), name), 0) << name << " allocates";
    }
    EXPECT_GT(needed, 20);
}

TEST(PluginFile, VersionRecordIsTheTextPaddedToItsWidth) {
    std::string text = "^__VERSION_ID__^=Version[KAVRO_v1.1.7_release] Id[$Rev: 152 $] Build[Apr 15 2014]";
    ASSERT_EQ(text.size(), 81U);
    text.resize(256);
    EXPECT_EQ(std::string(_plug_kavro_chls_Get_Ver(), 256), text);
    EXPECT_EQ(_plug_kavro_chls_Get_Ver(), _plug_kavro_chls_Get_Ver());
}

TEST_F(ChannelTest, LoadSetsOnlyTheEventHandler) {
    const Result r = run([] {
        T_PLUG_MGR_PLUG_VAR var;
        memset(&var, 0x5a, sizeof var);
        var.ptRTCoreCtx = &host().ctx;
        T_PLUG_MGR_PLUG_VAR before = var;
        const int result = OnPlugLoad(&var);
        before.pfnEventHdl = var.pfnEventHdl;
        trace(kNote, "%d %s", result, same_bytes(&before, &var, sizeof var) ? "same" : "changed");
    });
    EXPECT_THAT(r.lines("LNHSTE"), ElementsAre("0 same"));
}

TEST_F(ChannelTest, SecondLoadReplacesTheContext) {
    const Result r = run([] {
        static T_RTCORE_CONTEXT first;
        static char other[] = "first";
        host().var.ptRTCoreCtx = &first;
        first.tRTCoreArgv.tArg[4].psValue = other;
        OnPlugLoad(&host().var);
        load();
        event(1);
    });
    EXPECT_TRUE(in_order(r, {"4 [CH1] chltype[SNDR]", "event 1 = 0"}));
}

TEST_F(ChannelTest, OtherEventsAndEarlyExitDoNothing) {
    const Result r = run([] {
        load();
        for (int id : {0, 3, 5, -1, 4, 1 << 30, 4}) {
            event(id);
        }
    });
    EXPECT_THAT(r.lines("LNHST"), IsEmpty());
    EXPECT_EQ(r.count(" = 0"), 7);
}

} // namespace
} // namespace kvr::test
