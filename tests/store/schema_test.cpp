// SPDX-License-Identifier: MIT
// What the schema lets into the store, and what only an operator's definition is held to.
#include "schema.h"
#include "store_fixture.h"

namespace kvr {
namespace {

TEST(Schema, LengthsAreTheReadersRoom) {
    const struct {
        const char* cls;
        const char* attr;
        std::size_t room; ///< of the reader's buffer, with NUL
    } cases[] = {{"CHL", "CHLTYPE", 256}, {"CHL", "HBINT", 256},   {"CHL", "DISCINT", 64},    {"CHL", "SSLCAUTH", 256},
                 {"CHL", "LONGRTY", 256}, {"CHL", "LONGTMR", 64},  {"CHL", "SHORTRTY", 64},   {"CHL", "SHORTTMR", 64},
                 {"CHL", "CONNAME", 256}, {"QMGR", "CAFILE", 256}, {"QMGR", "CERTFILE", 256}, {"QMGR", "KEYFILE", 256},
                 {"QMGR", "KEYPASS", 64}, {"CHS", "PID", 256},     {"CHS", "STATUS", 256},    {"CHL", "XMITQ", 33},
                 {"QMGR", "DEADQ", 33}};
    for (const auto& each : cases) {
        SCOPED_TRACE(each.attr);
        EXPECT_EQ(code_of([&] { check_attr(each.cls, each.attr, std::string(each.room - 1, '1')); }), Errc{});
        EXPECT_EQ(code_of([&] { check_attr(each.cls, each.attr, std::string(each.room, '1')); }), Errc::kTooLong);
    }
}

TEST(Schema, RefusesWhatCouldNotWork) {
    const struct {
        const char* cls;
        const char* attr;
        const char* value;
        Errc refused;
    } cases[] = {
        {"CHANNEL", "HBINT", "1", Errc::kInvalid},
        {"CHL", "HBTIN", "1", Errc::kUnknownAttr},
        {"CHL", "HBINT", "0", Errc{}},
        {"CHL", "HBINT", "86401", Errc::kInvalid},
        {"CHL", "HBINT", "5s", Errc::kInvalid},
        {"CHL", "HBINT", " 5", Errc::kInvalid},
        {"CHL", "HBINT", "", Errc::kInvalid},
        {"CHL", "CHLTYPE", "sndr", Errc{}},
        {"CHL", "CHLTYPE", "RCVR", Errc::kInvalid},
        {"CHL", "SSLCAUTH", "Enable", Errc{}},
        {"CHL", "SSLCAUTH", "ENABLED", Errc::kInvalid},
        {"CHL", "CONNAME", "10.0.0.1(65535)", Errc{}},
        {"CHL", "CONNAME", "10.0.0.1(65536)", Errc::kInvalid},
        {"CHL", "CONNAME", "10.0.0.1(0)", Errc::kInvalid},
        {"CHL", "CONNAME", "10.0.0.1(1414", Errc::kInvalid},
        {"CHL", "CONNAME", "(1414)", Errc::kInvalid},
        {"CHL", "CONNAME", "host(1414)x", Errc::kInvalid},
        {"CHL", "CONNAME", "two words", Errc::kInvalid},
        {"QMGR", "KEYFILE", "", Errc{}},
        {"QMGR", "KEYFILE", "/a\nb", Errc::kInvalid},
        {"CHL", "DESCR", "Grüße", Errc{}},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(std::string(each.attr) + "=" + each.value);
        EXPECT_EQ(code_of([&] { check_definition(each.cls, each.attr, each.value); }), each.refused);
    }
}

} // namespace
} // namespace kvr
